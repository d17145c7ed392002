// The certificate chain of a key as a PKCS #7 message: gathering the issuers among the token's
// certificates, and encoding the chain the operating system builds from them.
#pragma once

#include <windows.h>

#include <vector>

#include "token/device_library.h"

// The leaf followed by its issuers found among `tokenCertificates` (subject of one equal to the
// issuer of the previous), up to a self-signed root or the first missing issuer.
std::vector<CalythCertificate> gatherCertificateChain(
    const CalythCertificate& leaf, const std::vector<CalythCertificate>& tokenCertificates);

// The certificates of the chain (leaf first) as the operating system's chain engine orders them,
// from the root end down to the leaf. False, logged, when the chain is empty (last error
// NTE_NO_KEY), the leaf does not parse (NTE_BAD_KEY) or the engine builds nothing.
bool chainCertificatesRootFirst(const std::vector<CalythCertificate>& chain,
                                std::vector<std::vector<unsigned char>>* encoded);

// Encodes the chain (leaf first) as a degenerate PKCS #7 SignedData, root first, into pbData.
// A null pbData or a short buffer gives TRUE, ERROR_MORE_DATA and the needed size.
BOOL BuildCertificateChain(const std::vector<CalythCertificate>& chain, BYTE* pbData, DWORD* pdwDataLen);
