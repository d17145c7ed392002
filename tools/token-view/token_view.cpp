#include "token_view.h"

#include <cstring>

#include "util/encoding.h"
#include "util/utils.h"

namespace tokenview {
namespace {

// The public key in the form certificate details carry it: an RSA modulus or an EC point.
Bytes comparablePublicKey(const CalythKeyPair& keyPair) {
    Bytes modulus;
    if (isDerPublicKey(keyPair.publicKey, keyPair.publicKeyLength) &&
        rsaModulusFromDer(keyPair.publicKey, keyPair.publicKeyLength, &modulus))
        return modulus;
    return Bytes(keyPair.publicKey, keyPair.publicKey + keyPair.publicKeyLength);
}

bool hasKeyId(const CalythCertificate& certificate) {
    for (unsigned char byte : certificate.keyId) {
        if (byte)
            return true;
    }
    return false;
}

TokenKey* keyFor(std::vector<TokenKey>& keys, const CalythCertificate& record,
                 const CertificateDetails& details) {
    for (TokenKey& key : keys) {
        if (hasKeyId(record) && std::memcmp(key.record.keyId, record.keyId, sizeof record.keyId) == 0)
            return &key;
    }
    for (TokenKey& key : keys) {
        if (!details.publicKey.empty() && comparablePublicKey(key.record) == details.publicKey)
            return &key;
    }
    return nullptr;
}

}  // namespace

std::string keyAlgorithm(const CalythKeyPair& keyPair) {
    switch (keyPair.keySizeCode) {
        case CALYTH_KEY_EC_P256:
            return "EC P-256";
        case CALYTH_KEY_EC_P384:
            return "EC P-384";
        case CALYTH_KEY_EC_P521:
            return "EC P-521";
        default:
            uint32_t bits = keySizeCodeToBits(keyPair.keySizeCode);
            return bits ? "RSA-" + std::to_string(bits)
                        : "unknown key size code " + std::to_string(keyPair.keySizeCode);
    }
}

std::string keyUsageText(int32_t usage) {
    switch (usage) {
        case CALYTH_USAGE_SIGNATURE:
            return "signature";
        case CALYTH_USAGE_EXCHANGE:
            return "exchange";
        case CALYTH_USAGE_BOTH:
            return "signature and exchange";
        default:
            return "usage " + std::to_string(usage);
    }
}

TokenView readToken(const DeviceFunctions& library, const std::string& serial) {
    TokenView view;
    Utils utils;
    // The library's lists stay its own: copy them before looking at them.
    std::vector<CalythKeyPair> keyPairs = library.getKeyPairList(serial.c_str(), nullptr);
    std::vector<CalythCertificate> certificates = library.getCertificateList(serial.c_str(), nullptr);
    for (const CalythKeyPair& keyPair : keyPairs) {
        TokenKey key;
        key.record = keyPair;
        key.id = utils.bytesToHex(keyPair.keyId, sizeof keyPair.keyId);
        key.label = std::string(keyPair.label, strnlen(keyPair.label, sizeof keyPair.label));
        view.keys.push_back(key);
    }
    for (const CalythCertificate& record : certificates) {
        TokenCertificate certificate;
        int length = record.derLength;
        if (length < 0 || length > static_cast<int>(sizeof record.der))
            length = 0;
        certificate.der.assign(record.der, record.der + length);
        certificate.label = std::string(record.label, strnlen(record.label, sizeof record.label));
        certificate.readable =
            length > 0 &&
            library.getCertificateDetails(record.der, length, certificate.details, nullptr) == CALYTH_OK;
        if (certificate.readable) {
            if (TokenKey* key = keyFor(view.keys, record, certificate.details)) {
                certificate.keyId = key->id;
                if (key->certificate.empty())
                    key->certificate = certificate.details.subjectName;
            }
        }
        view.certificates.push_back(certificate);
    }
    for (TokenCertificate& certificate : view.certificates) {
        if (!certificate.readable || !certificate.keyId.empty())
            continue;
        std::string subject = utils.normalizeName(certificate.details.subjectName);
        certificate.isAuthority = certificate.details.selfSigned;
        for (const TokenCertificate& other : view.certificates) {
            if (&other != &certificate && other.readable &&
                utils.normalizeName(other.details.issuerName) == subject)
                certificate.isAuthority = true;
        }
    }
    return view;
}

}  // namespace tokenview
