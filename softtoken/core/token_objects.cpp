#include "token_objects.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "certificate.h"
#include "public_key.h"
#include "status.h"

namespace softtoken {
namespace {

KeyId freshId(const TokenData& token) {
    for (;;) {
        KeyId id;
        randomBytes(id.data(), id.size());
        bool used = token.findKey(id.data()) != nullptr;
        for (const AesRecord& aes : token.aesKeys)
            used = used || aes.id == id;
        if (!used)
            return id;
    }
}

void copyLabel(const std::string& label, char (&out)[132]) {
    std::memset(out, 0, sizeof out);
    std::memcpy(out, label.data(), std::min(label.size(), kMaxLabelLength));
}

bool sameKey(const KeyRecord& key, const Bytes& comparable) {
    PublicKey parsed;
    return !comparable.empty() && keyPublicKey(key, parsed) && comparableForm(parsed) == comparable;
}

// Gives the key a handle and a fresh id and adds it to the token.
int storeKey(const std::string& serial, KeyRecord& key, KeyRecord& out) {
    return updateToken(serial, [&](TokenData& t, bool& changed) {
        key.handle = t.nextHandle++;
        key.id = freshId(t);
        t.keys.push_back(key);
        out = key;
        changed = true;
        return int(kOk);
    });
}

}  // namespace

bool keyPublicKey(const KeyRecord& key, PublicKey& out) {
    return parsePublicKey(key.publicKey.data(), static_cast<int>(key.publicKey.size()), out);
}

int addGeneratedKey(const std::string& serial, int32_t sizeCode, int32_t usage, const std::string& label,
                    bool derPublicKey, KeyRecord& out) {
    if (sizeCode == 0)
        sizeCode = 2;
    if (usage == 0)
        usage = 3;
    if ((!isRsaCode(sizeCode) && !isEcCode(sizeCode)) || usage < 1 || usage > 3 ||
        label.size() > kMaxLabelLength)
        return kBadArgument;
    KeyRecord key;
    key.sizeCode = sizeCode;
    key.usage = usage;
    key.label = label;
    int status = generateKeyPair(sizeCode, key.publicKey, key.privateKey);
    if (status != kOk)
        return status;
    key.objectId = sha1(key.publicKey);
    if (derPublicKey) {
        PublicKey parsed;
        if (!parsePublicKey(key.publicKey.data(), static_cast<int>(key.publicKey.size()), parsed))
            return kCryptoFailure;
        key.publicKey = subjectPublicKeyInfo(parsed);
    }
    return storeKey(serial, key, out);
}

int addImportedKey(const std::string& serial, const ImportedKeyPair& pair, int32_t usage,
                   const std::string& label, KeyRecord& out) {
    if ((!isRsaCode(pair.sizeCode) && !isEcCode(pair.sizeCode)) || usage < 1 || usage > 3 ||
        label.size() > kMaxLabelLength || pair.publicKey.empty() || pair.privateKey.empty())
        return kBadArgument;
    KeyRecord key;
    key.sizeCode = pair.sizeCode;
    key.usage = usage;
    key.label = label;
    key.publicKey = pair.publicKey;
    key.privateKey = pair.privateKey;
    key.objectId = sha1(key.publicKey);
    return storeKey(serial, key, out);
}

int removeKey(const std::string& serial, const unsigned char* keyId, bool withCertificates) {
    return updateToken(serial, [&](TokenData& t, bool& changed) {
        KeyRecord* key = t.findKey(keyId);
        if (!key)
            return int(kKeyNotFound);
        if (withCertificates) {
            KeyRecord removed = *key;
            t.certificates.erase(
                std::remove_if(t.certificates.begin(), t.certificates.end(),
                               [&](const CertificateRecord& c) {
                                   return c.keyId == removed.id ||
                                          (!removed.objectId.empty() && c.objectId == removed.objectId);
                               }),
                t.certificates.end());
        }
        t.keys.erase(t.keys.begin() + (key - t.keys.data()));
        changed = true;
        return int(kOk);
    });
}

int changeKey(const std::string& serial, const unsigned char* keyId, const char* label,
              const unsigned char* objectId, int objectIdLength) {
    if ((label && std::strlen(label) > kMaxLabelLength) || objectIdLength > 128)
        return kBadArgument;
    return updateToken(serial, [&](TokenData& t, bool& changed) {
        KeyRecord* key = t.findKey(keyId);
        if (!key)
            return int(kKeyNotFound);
        if (label)
            key->label = label;
        if (objectId && objectIdLength > 0)
            key->objectId.assign(objectId, objectId + objectIdLength);
        changed = true;
        return int(kOk);
    });
}

int addCertificate(const std::string& serial, const Bytes& der, const std::string& label,
                   CertificateRecord& out, const Bytes& objectId) {
    if (der.size() > sizeof(CalythCertificate::der) || label.size() > 128)
        return kTooLarge;
    CertificateDetails details;
    int status = readCertificate(der.data(), static_cast<int>(der.size()), details);
    if (status != kOk)
        return status;
    return updateToken(serial, [&](TokenData& t, bool& changed) {
        for (const CertificateRecord& stored : t.certificates) {
            if (stored.der == der) {
                out = stored;
                return int(kOk);
            }
        }
        CertificateRecord certificate;
        certificate.handle = t.nextHandle++;
        certificate.der = der;
        certificate.label = label.empty() ? details.subjectCommonName.substr(0, 128) : label;
        for (const KeyRecord& key : t.keys) {
            if (objectId.empty() ? sameKey(key, details.publicKey) : key.objectId == objectId) {
                certificate.keyId = key.id;
                certificate.objectId = key.objectId;
                break;
            }
        }
        if (!objectId.empty())
            certificate.objectId = objectId;
        t.certificates.push_back(certificate);
        out = certificate;
        changed = true;
        return int(kOk);
    });
}

int addAesKey(const std::string& serial, const Bytes& key, int32_t type, const std::string& label,
              AesRecord& out) {
    bool aesLength = key.size() == 16 || key.size() == 24 || key.size() == 32;
    bool valid = ((type == CALYTH_SYMMETRIC_AES_128 || type == CALYTH_SYMMETRIC_AES_256) && aesLength) ||
                 (type == CALYTH_SYMMETRIC_3DES && key.size() == 24);
    if (!valid || label.size() > kMaxLabelLength)
        return kBadArgument;
    return updateToken(serial, [&](TokenData& t, bool& changed) {
        AesRecord record;
        record.handle = t.nextHandle++;
        record.id = freshId(t);
        record.reference = {'A',
                            'E',
                            'S',
                            'K',
                            static_cast<unsigned char>(record.handle >> 24),
                            static_cast<unsigned char>(record.handle >> 16),
                            static_cast<unsigned char>(record.handle >> 8),
                            static_cast<unsigned char>(record.handle)};
        record.type = type;
        record.key = key;
        record.usage = 3;
        record.label = !label.empty()                  ? label
                       : type == CALYTH_SYMMETRIC_3DES ? "3DES key " + std::to_string(record.handle)
                                                       : "AES-" + std::to_string(key.size() * 8) + " key " +
                                                             std::to_string(record.handle);
        t.aesKeys.push_back(record);
        out = record;
        changed = true;
        return int(kOk);
    });
}

CalythKeyPair toDeviceRecord(const KeyRecord& key) {
    CalythKeyPair record;
    std::memset(&record, 0, sizeof record);
    record.handle = key.handle;
    std::memcpy(record.keyId, key.id.data(), key.id.size());
    size_t publicLength = std::min(key.publicKey.size(), sizeof record.publicKey);
    std::memcpy(record.publicKey, key.publicKey.data(), publicLength);
    record.publicKeyLength = static_cast<int32_t>(publicLength);
    size_t objectLength = std::min(key.objectId.size(), sizeof record.objectId);
    std::memcpy(record.objectId, key.objectId.data(), objectLength);
    record.objectIdLength = static_cast<int32_t>(objectLength);
    copyLabel(key.label, record.label);
    record.keyUsage = key.usage;
    record.keySizeCode = key.sizeCode;
    record.tokenFlag = key.tokenFlag;
    return record;
}

CalythSymmetricKey toDeviceRecord(const AesRecord& key) {
    CalythSymmetricKey record;
    std::memset(&record, 0, sizeof record);
    std::memcpy(record.keyId, key.id.data(), key.id.size());
    size_t referenceLength = std::min(key.reference.size(), sizeof record.reference);
    std::memcpy(record.reference, key.reference.data(), referenceLength);
    record.referenceLength = static_cast<int32_t>(referenceLength);
    copyLabel(key.label, record.label);
    record.keyUsage = key.usage;
    record.tokenFlag = key.tokenFlag;
    record.keyLength = static_cast<int32_t>(key.key.size());  // the key bytes themselves stay on the token
    record.type = key.type;
    return record;
}

CalythCertificate toDeviceRecord(const CertificateRecord& certificate) {
    CalythCertificate record;
    std::memset(&record, 0, sizeof record);
    record.handle = certificate.handle;
    std::memcpy(record.keyId, certificate.keyId.data(), certificate.keyId.size());
    size_t derLength = std::min(certificate.der.size(), sizeof record.der);
    std::memcpy(record.der, certificate.der.data(), derLength);
    record.derLength = static_cast<int32_t>(derLength);
    size_t objectLength = std::min(certificate.objectId.size(), sizeof record.objectId);
    std::memcpy(record.objectId, certificate.objectId.data(), objectLength);
    record.objectIdLength = static_cast<int32_t>(objectLength);
    copyLabel(certificate.label.substr(0, 128), record.label);
    return record;
}

const KeyRecord* findKeyByName(const TokenData& token, const std::string& name) {
    std::string upper = name;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return std::toupper(c); });
    for (const KeyRecord& key : token.keys)
        if (hexOf(key.id) == upper)
            return &key;
    const KeyRecord* found = nullptr;
    for (const KeyRecord& key : token.keys) {
        if (!name.empty() && key.label == name) {
            if (found)
                return nullptr;
            found = &key;
        }
    }
    return found;
}

}  // namespace softtoken
