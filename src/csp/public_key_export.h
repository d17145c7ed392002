// The CryptoAPI PUBLICKEYBLOB of a token RSA key.
#pragma once

#include <windows.h>

#include "csp/csp_context.h"
#include "csp/key_handle.h"

// Writes BLOBHEADER, RSAPUBKEY ("RSA1", pubexp 65537) and the little-endian modulus of the token
// key pair named by the key object's identifier. Only RSA-2048 key pairs are exported. A null
// pbData answers the size (TRUE, last error ERROR_MORE_DATA); a short buffer fails with
// ERROR_MORE_DATA.
BOOL ExportPublicKeyComponents(CspContext* context, const KEY_HANDLE* key, BYTE* pbData, DWORD* pcbDataLen);
