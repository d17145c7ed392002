// Key pairs, AES keys and certificates on the token; certificate parsing and certificate folders.
#include <algorithm>

#include "core/certificate.h"
#include "core/token_access.h"
#include "core/token_objects.h"
#include "entry_guard.h"
#include "token/device_library.h"

using namespace softtoken;

extern "C" {

int calyth_generateKeyPair(const char* serial, const char* pin, CalythKeyPair* keyPair, void*) {
    return guarded<int>(kFailed, [&] {
        if (!keyPair)
            return int(kBadArgument);
        TokenRef token;
        int status = openConnected(serial, "generateKeyPair", token);
        if (status == kOk)
            status = authorize(serial, token, pin, false);
        if (status != kOk)
            return status;
        KeyRecord key;
        status = addGeneratedKey(serial, keyPair->keySizeCode, keyPair->keyUsage,
                                 fieldText(keyPair->label, kMaxLabelLength), false, key);
        if (status == kOk)
            *keyPair = toDeviceRecord(key);
        return status;
    });
}

int calyth_deleteKeyPair(const char* serial, const unsigned char* keyId, const char* pin,
                         bool deleteCertificates, void*) {
    return guarded<int>(kFailed, [&] {
        if (!keyId)
            return int(kBadArgument);
        TokenRef token;
        int status = openConnected(serial, "deleteKeyPair", token);
        if (status == kOk && !token->data.findKey(keyId))
            status = kKeyNotFound;
        if (status == kOk)
            status = authorize(serial, token, pin, false);
        return status == kOk ? removeKey(serial, keyId, deleteCertificates) : status;
    });
}

int calyth_updateKeyPairDetails(const char* serial, const unsigned char* keyId, const char* pin,
                                const char* label, const unsigned char* objectId, int objectIdLength, void*) {
    return guarded<int>(kFailed, [&] {
        if (!keyId)
            return int(kBadArgument);
        TokenRef token;
        int status = openConnected(serial, "updateKeyPairDetails", token);
        if (status == kOk && !token->data.findKey(keyId))
            status = kKeyNotFound;
        if (status == kOk)
            status = authorize(serial, token, pin, false);
        return status == kOk ? changeKey(serial, keyId, label, objectId, objectIdLength) : status;
    });
}

int calyth_importCertificate(const char* serial, const char* pin, CalythCertificate* certificate, void*) {
    return guarded<int>(kFailed, [&] {
        if (!certificate || certificate->derLength <= 0 ||
            certificate->derLength > static_cast<int32_t>(sizeof certificate->der))
            return int(kBadArgument);
        TokenRef token;
        int status = openConnected(serial, "importCertificate", token);
        if (status == kOk)
            status = authorize(serial, token, pin, false);
        if (status != kOk)
            return status;
        CertificateRecord stored;
        Bytes der(certificate->der, certificate->der + certificate->derLength);
        int32_t objectIdLength = std::clamp<int32_t>(certificate->objectIdLength, 0, 128);
        Bytes objectId(certificate->objectId, certificate->objectId + objectIdLength);
        status = addCertificate(serial, der, fieldText(certificate->label, 128), stored, objectId);
        if (status != kOk)
            return status;
        CalythCertificate record = toDeviceRecord(stored);
        certificate->handle = record.handle;
        std::memcpy(certificate->keyId, record.keyId, sizeof record.keyId);
        std::memcpy(certificate->objectId, record.objectId, sizeof record.objectId);
        certificate->objectIdLength = record.objectIdLength;
        if (isEmpty(certificate->label))
            std::memcpy(certificate->label, record.label, sizeof record.label);
        return int(kOk);
    });
}

int calyth_importAesKey(const char* serial, const char* pin, CalythSymmetricKey* key, void*) {
    return guarded<int>(kFailed, [&] {
        if (!key || key->keyLength <= 0 || key->keyLength > static_cast<int32_t>(sizeof key->keyBytes))
            return int(kBadArgument);
        TokenRef token;
        int status = openConnected(serial, "importAesKey", token);
        if (status == kOk)
            status = authorize(serial, token, pin, false);
        if (status != kOk)
            return status;
        AesRecord stored;
        status = addAesKey(serial, Bytes(key->keyBytes, key->keyBytes + key->keyLength), key->type,
                           fieldText(key->label, kMaxLabelLength), stored);
        if (status != kOk)
            return status;
        CalythSymmetricKey record = toDeviceRecord(stored);
        std::memcpy(key->keyId, record.keyId, sizeof record.keyId);
        std::memcpy(key->reference, record.reference, sizeof record.reference);
        key->referenceLength = record.referenceLength;
        std::memcpy(key->label, record.label, sizeof record.label);
        key->keyUsage = record.keyUsage;
        key->tokenFlag = record.tokenFlag;
        return int(kOk);
    });
}

int calyth_getCertificateDetails(const unsigned char* der, int derLength, CertificateDetails& details,
                                 void*) {
    return guarded<int>(kFailed, [&] { return readCertificate(der, derLength, details); });
}

CalythFileList calyth_getFilesWithExtensionsAndConvertDER(const std::string& folder,
                                                          const std::vector<std::string>& extensions, void*) {
    return guarded<CalythFileList>({}, [&] { return listFilesAsDer(folder, extensions); });
}

}  // extern "C"
