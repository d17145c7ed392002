// Helpers behind CPGetProvParam, one per parameter family. Each is called after the context test
// and answers with the entry point's return value, the last error set where it says so.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include "csp/csp_context.h"

// PP_ENUMALGS and PP_ENUMALGS_EX (one position shared by both), PP_ENUMCONTAINERS.
BOOL getEnumeratedAlgorithm(CspContext* context, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen,
                            DWORD dwFlags);
BOOL getEnumeratedContainer(CspContext* context, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags);

// PP_CERTCHAIN: the PKCS #7 chain of the certificate whose public key is the container's.
BOOL getCertificateChainParam(CspContext* context, BYTE* pbData, DWORD* pdwDataLen);

// The 32-bit answer of PP_KEYSPEC for the context's container; false (last error NTE_NO_KEY) when
// the container names no key pair on the token.
bool keySpecOfContainer(const CspContext* context, DWORD* keySpec);
