#include "token/aes_key_transfer.h"

#include <cstring>
#include <vector>

#include "util/bounded_length.h"

bool unwrapWithTokenKek(const std::string& serial, void* deviceContext, const unsigned char* wrapped,
                        int wrappedLength, KekNaming naming, CalythSymmetricKey* kek, DeviceOutput* plain) {
    std::vector<CalythSymmetricKey> keys = calyth_getAesKeyList(serial.c_str(), deviceContext);
    for (const CalythSymmetricKey& candidate : keys) {
        if (candidate.type != CALYTH_SYMMETRIC_AES_128 && candidate.type != CALYTH_SYMMETRIC_AES_256)
            continue;
        const unsigned char* name = candidate.keyId;
        int nameLength = static_cast<int>(sizeof candidate.keyId);
        if (naming == KekNaming::Reference) {
            name = candidate.reference;
            nameLength = static_cast<int>(fieldLength(candidate.reference, candidate.referenceLength));
        }
        plain->release();
        if (calyth_decrypt_aes(serial.c_str(), name, nameLength, wrapped, wrappedLength, &plain->bytes,
                               &plain->length, candidate.tokenFlag != 0, nullptr, 0, deviceContext) == 0) {
            *kek = candidate;
            return true;
        }
    }
    plain->release();
    return false;
}

AesStoreResult storeAesKeyOnToken(const std::string& serial, const std::string& pin,
                                  const unsigned char* bytes, int length, int32_t type, void* deviceContext,
                                  CalythSymmetricKey* record) {
    *record = CalythSymmetricKey{};
    if (length < 0 || length > static_cast<int>(sizeof record->keyBytes))
        return AesStoreResult::TooLong;
    if (length > 0)
        std::memcpy(record->keyBytes, bytes, length);
    record->keyLength = length;
    record->type = type;
    if (calyth_importAesKey(serial.c_str(), pin.c_str(), record, deviceContext) != 0)
        return AesStoreResult::Refused;
    return AesStoreResult::Stored;
}
