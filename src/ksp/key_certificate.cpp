#include "ksp/key_certificate.h"

#include <algorithm>
#include <cstring>

#include "cert/certificate_import.h"
#include "util/bounded_length.h"

namespace {

// The device reports the DER length of each record; it is held to the record's field.
int boundedDerLength(const CalythCertificate& certificate) {
    return static_cast<int>(fieldLength(certificate.der, certificate.derLength));
}

bool sameLabel(const CalythCertificate& certificate, const KspKey* key) {
    size_t length = strnlen(certificate.label, sizeof certificate.label);
    return length != 0 && length == strnlen(key->label, sizeof key->label) &&
           std::memcmp(certificate.label, key->label, length) == 0;
}

bool sameLinkId(const CalythCertificate& certificate, const KspKey* key) {
    return certificate.objectIdLength == static_cast<int64_t>(key->linkIdLength) &&
           lengthFits(key->linkIdLength, sizeof certificate.objectId) &&
           std::memcmp(certificate.objectId, key->linkId, key->linkIdLength) == 0;
}

bool samePublicKey(const CalythCertificate& certificate, const KspKey* key, void* deviceContext) {
    if (key->publicKeyLength == 0)
        return false;
    CertificateDetails details;
    if (calyth_getCertificateDetails(certificate.der, boundedDerLength(certificate), details,
                                     deviceContext) != 0)
        return false;
    return lengthFits(key->publicKeyLength, sizeof key->publicKey) &&
           details.publicKey.size() == key->publicKeyLength &&
           std::memcmp(details.publicKey.data(), key->publicKey, key->publicKeyLength) == 0;
}

void takeDer(const CalythCertificate& certificate, std::vector<unsigned char>* der) {
    der->assign(certificate.der, certificate.der + boundedDerLength(certificate));
}

}  // namespace

bool findKeyCertificate(const KspProvider* provider, const KspKey* key, std::vector<unsigned char>* der) {
    const char* serial = provider->serial.c_str();
    calyth_initDevice(serial, true, provider->deviceContext);
    std::vector<CalythCertificate> certificates = calyth_getCertificateList(serial, provider->deviceContext);
    for (const CalythCertificate& certificate : certificates) {
        if (sameLabel(certificate, key) || sameLinkId(certificate, key)) {
            takeDer(certificate, der);
            return true;
        }
    }
    for (const CalythCertificate& certificate : certificates) {
        if (samePublicKey(certificate, key, provider->deviceContext)) {
            takeDer(certificate, der);
            return true;
        }
    }
    return false;
}

int32_t storeKeyCertificate(const KspProvider* provider, const KspKey* key, const std::string& pin,
                            const BYTE* der, DWORD length) {
    CalythCertificate record{};
    // The caller refuses longer input; the bound keeps the record intact regardless.
    auto stored = static_cast<DWORD>(fieldLength(record.der, length));
    std::memcpy(record.der, der, stored);
    record.derLength = static_cast<int32_t>(stored);
    auto linkLength = static_cast<uint32_t>(
        boundedLength(key->linkIdLength, std::min(sizeof key->linkId, sizeof record.objectId)));
    std::memcpy(record.objectId, key->linkId, linkLength);
    record.objectIdLength = static_cast<int32_t>(linkLength);
    return importCertificateWithChain(provider->serial, pin, record, provider->deviceContext);
}
