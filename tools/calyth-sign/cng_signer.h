// Signing through the provider's CNG side. Wine's ncrypt does not route to other key storage
// providers, so the signer does what the NCrypt router does for an application: it loads the
// provider DLL, takes the function table from GetKeyStorageInterface and calls the provider's
// operations (open provider, "SmartCardPin", open key, sign hash) through it.
#pragma once

#include <string>

#include "signer.h"

namespace calythsign {

struct CngSignRequest {
    std::string dll;    // full path of CalythCSP.dll
    std::string keyId;  // the key's 32-character id (its CNG key name)
    std::string pin;    // handed over with "SmartCardPin"; empty: the provider asks for it
    std::string hash = "sha256";
};

// PKCS #1 v1.5 signature of `document` over a digest computed with BCrypt, big-endian as the key
// storage provider hands it out. `failure` names the failing call and its status.
bool signHashCng(const CngSignRequest& request, const Bytes& document, Bytes* signature, SignError* failure);

// CalythCSP.dll beside this program.
std::string providerDllBesideProgram();

}  // namespace calythsign
