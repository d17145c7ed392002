// What a token holds, read through the device library: its key pairs and certificates, each
// certificate paired with the key pair it belongs to.
#pragma once

#include <string>
#include <vector>

#include "device_functions.h"

namespace tokenview {

struct TokenKey {
    CalythKeyPair record;
    std::string id;  // 32 hexadecimal characters, the container name
    std::string label;
    std::string certificate;  // subject of its certificate, "" when it has none
};

struct TokenCertificate {
    std::vector<unsigned char> der;
    std::string label;
    bool readable = false;  // the device library parsed it into details
    CertificateDetails details;
    std::string keyId;         // the key pair it belongs to, "" when none
    bool isAuthority = false;  // keyless and self-signed or issuer of another certificate on the token
};

struct TokenView {
    std::vector<TokenKey> keys;
    std::vector<TokenCertificate> certificates;
};

TokenView readToken(const DeviceFunctions& library, const std::string& serial);

// "RSA-2048", "EC P-256".
std::string keyAlgorithm(const CalythKeyPair& keyPair);
// "signature", "exchange", "signature and exchange".
std::string keyUsageText(int32_t usage);

}  // namespace tokenview
