// Which certificates of the connected tokens belong in the user's store: each key pair's
// certificate in the personal store ("MY"), with the key provider information that lets crypt32
// find its private key through the provider, and the intermediate authorities stored on the token
// with it in "CA". Roots never: trusting a root is the user's or the administrator's decision.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <set>
#include <string>
#include <vector>

#include "certificates.h"
#include "token_reading.h"

namespace agent {

constexpr const char* kProviderName = "Calyth Cryptographic Provider CSP";

struct WantedCertificate {
    std::vector<unsigned char> der;
    std::string serial;      // the token it comes from
    std::string subject;     // "CN=Alice, O=Example", for the lines the agent prints
    std::string keyId;       // the key's 32-character id; "" for an authority
    DWORD providerType = 0;  // PROV_RSA_FULL for an RSA key, 0 for an EC key (a CNG key)
    DWORD keySpec = 0;
    std::string friendlyName;
};

struct CertificatePlan {
    std::vector<WantedCertificate> personal;
    std::vector<WantedCertificate> authorities;
    // Connected tokens that could not be read this time: what the store has of them stays.
    std::set<std::string> heldSerials;
    // Certificates skipped because they do not parse, and chains that end in an untrusted root.
    std::vector<std::string> notes;
};

CertificatePlan planCertificates(const std::vector<TokenContents>& tokens);

}  // namespace agent
