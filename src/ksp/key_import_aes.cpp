// AES key blobs for KSPImportKey. A wrapped key (opaque blob) is unwrapped by one of the token's
// key-encryption keys and, like a plain key data blob, stored on the token: the key object then
// names the token key and holds no key bytes. A transport blob is decrypted by a token RSA key and
// its AES bytes stay in the key object only.
#include <windows.h>

#include <bcrypt.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>

#include "ksp/key_import_blobs.h"
#include "ksp/ksp_common.h"
#include "log/log.h"
#include "token/aes_key_transfer.h"
#include "token/device_library.h"
#include "token/device_output.h"
#include "token/key_lookup.h"
#include "util/cng_blobs.h"

static_assert(sizeof(BCRYPT_KEY_DATA_BLOB_HEADER) == kCngKeyDataHeaderSize &&
              BCRYPT_KEY_DATA_BLOB_MAGIC == kCngKeyDataMagic);

namespace {

struct StoreTexts {
    const char* refused;
    const char* stored;
};

// Stores the key bytes on the token and hands out a key object naming the new token key.
SECURITY_STATUS storeOnToken(const KspProvider* provider, const unsigned char* bytes, int length,
                             int32_t type, const StoreTexts& texts, NCRYPT_KEY_HANDLE* phKey) {
    // Allocated first, so that running out of memory leaves nothing behind on the token.
    std::unique_ptr<KspKey> key = newImportedKey();
    if (!key)
        return KSP_NTE_NO_MEMORY;
    WipedSymmetricKey stored;
    const CalythSymmetricKey& record = stored.record;
    WipedText password{devicePassword(provider)};
    // Bytes too long for the device record are refused as the token would refuse them.
    if (storeAesKeyOnToken(provider->serial, password.text, bytes, length, type, provider->deviceContext,
                           &stored.record) != AesStoreResult::Stored)
        return kspFail(KSP_NTE_BAD_TYPE, texts.refused);

    std::memcpy(key->keyId, record.keyId, KEY_ID_LENGTH);
    key->keyIdLength = KEY_ID_LENGTH;
    size_t linkLength = static_cast<size_t>(std::clamp<int64_t>(record.referenceLength, 0, KSP_LINK_ID_ROOM));
    std::memcpy(key->linkId, record.reference, linkLength);
    key->linkIdLength = static_cast<uint32_t>(linkLength);
    size_t labelLength = strnlen(record.label, std::min(sizeof record.label, KSP_LABEL_CHARACTERS));
    std::memcpy(key->label, record.label, labelLength);
    key->usage = record.keyUsage;
    key->tokenFlag = record.tokenFlag;
    key->algorithm = record.type;
    key->finalized = 1;
    handOut(std::move(key), phKey);
    logDebug(texts.stored);
    return KSP_SUCCESS;
}

}  // namespace

SECURITY_STATUS importOpaqueKeyBlob(const KspProvider* provider, const BYTE* pbData, DWORD cbData,
                                    NCRYPT_KEY_HANDLE* phKey) {
    logDebug("KSP: BCRYPT_OPAQUE_KEY_BLOB: wrapped key length = " + std::to_string(cbData));
    DeviceOutput plain;
    CalythSymmetricKey kek{};
    if (!unwrapWithTokenKek(provider->serial, provider->deviceContext, pbData, deviceLength(cbData),
                            KekNaming::Reference, &kek, &plain))
        return kspFail(KSP_NTE_BAD_KEY,
                       "KSP: Failed to unwrap BCRYPT_OPAQUE_KEY_BLOB with any available KEK");
    logDebug("KSP: Successfully unwrapped key with KEK: " + keyIdHex(kek.keyId));

    // Unlike a key data blob, 24 unwrapped bytes are stored as type 10.
    int length = plain.bytes != nullptr ? plain.length : 0;
    int32_t type = length == 16 ? CALYTH_SYMMETRIC_AES_128 : CALYTH_SYMMETRIC_AES_256;
    return storeOnToken(
        provider, plain.bytes, length, type,
        {"KSP: Import of unwrapped AES key failed", "KSP: BCRYPT_OPAQUE_KEY_BLOB imported successfully"},
        phKey);
}

SECURITY_STATUS importKeyDataBlob(const KspProvider* provider, const BYTE* pbData, DWORD cbData,
                                  NCRYPT_KEY_HANDLE* phKey) {
    CngKeyDataBlob blob;
    switch (parseCngKeyDataBlob(pbData, cbData, &blob)) {
        case CngBlobResult::TooShortForHeader:
            return kspFail(KSP_NTE_BAD_DATA, "KSPImportKey: BCRYPT_KEY_DATA_BLOB data too small for header");
        case CngBlobResult::BadMagic:
            return kspFail(KSP_NTE_BAD_DATA, "KSPImportKey: BCRYPT_KEY_DATA_BLOB invalid magic");
        case CngBlobResult::TooShortForMaterial:
            return kspFail(KSP_NTE_BAD_DATA,
                           "KSPImportKey: BCRYPT_KEY_DATA_BLOB data too small for key material");
        case CngBlobResult::UnsupportedSize:
        case CngBlobResult::TooLong:
            return kspFail(KSP_NTE_NOT_SUPPORTED, "KSP: Unsupported key size for BCRYPT_KEY_DATA_BLOB: " +
                                                      std::to_string(blob.keyLength));
        case CngBlobResult::Ok:
            break;
    }
    return storeOnToken(
        provider, blob.key, static_cast<int>(blob.keyLength), blob.type,
        {"KSP: BCRYPT_KEY_DATA_BLOB import failed", "KSP: BCRYPT_KEY_DATA_BLOB imported successfully (AES)"},
        phKey);
}

SECURITY_STATUS importTransportBlob(const KspProvider* provider, NCRYPT_KEY_HANDLE hImportKey,
                                    const BYTE* pbData, DWORD cbData, NCRYPT_KEY_HANDLE* phKey) {
    if (hImportKey == 0)
        return kspFail(KSP_NTE_BAD_KEY, "KSP: Encrypted key import requires import key handle");
    const KspKey* importKey = kspKeyFrom(hImportKey);
    logDebug("KSP: Input key id : " + keyIdHex(importKey->keyId));

    DeviceOutput plain;
    WipedText password{devicePassword(provider)};
    if (calyth_decrypt(provider->serial.c_str(), importKey->keyId, password.c_str(), pbData,
                       deviceLength(cbData), &plain.bytes, &plain.length, importKey->tokenFlag != 0,
                       provider->deviceContext) != 0)
        return kspFail(KSP_NTE_BAD_DATA, "KSP: Encrypted key decryption failed");
    int length = plain.bytes != nullptr ? plain.length : 0;
    int32_t type = cngAesTypeForLength(length);
    if (type == 0)
        return kspFail(KSP_NTE_NOT_SUPPORTED,
                       "KSP: Unsupported decrypted key length: " + std::to_string(length));

    std::unique_ptr<KspKey> key = newImportedKey();
    if (!key)
        return KSP_NTE_NO_MEMORY;
    std::memcpy(key->symmetricKey, plain.bytes, length);
    key->symmetricKeyLength = static_cast<uint32_t>(length);
    key->keyIdLength = KEY_ID_LENGTH;  // all-zero identifier: nothing is on the token
    key->algorithm = type;
    key->finalized = 1;
    handOut(std::move(key), phKey);
    logDebug("KSP: Encrypted key imported successfully");
    return KSP_SUCCESS;
}
