// The certificate of a CNG key on the token: finding it ("SmartCardKeyCertificate" read) and
// storing one with its issuing chain ("SmartCardKeyCertificate" written).
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ksp/ksp_objects.h"
#include "token/device_library.h"

// Room for DER bytes in the token's certificate record; longer certificates cannot be stored.
constexpr DWORD KSP_CERTIFICATE_ROOM = sizeof(CalythCertificate::der);

// Looks for the key's certificate on the provider's token: first a certificate with the key's
// (non-empty) label or its link identifier, then one whose public key equals the key's. True and the
// DER bytes when found.
bool findKeyCertificate(const KspProvider* provider, const KspKey* key, std::vector<unsigned char>* der);

// Stores `length` DER bytes (at most KSP_CERTIFICATE_ROOM; the caller refuses more) with the key's link
// identifier, and the issuing chain from the CA folder, under `pin`. Returns the device result.
int32_t storeKeyCertificate(const KspProvider* provider, const KspKey* key, const std::string& pin,
                            const BYTE* der, DWORD length);
