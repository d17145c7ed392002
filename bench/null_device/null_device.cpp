// A device library that answers at once: the benchmark loads it in place of the soft token, so that
// a timed loop measures the provider's own work and nothing of the token's. One token, "NULL0",
// with one RSA-2048 key, one P-256 key and filler RSA keys; signatures are zero bytes of the
// right length; the PIN is always right.
#include <cstdlib>
#include <cstring>

#include "token/device_library.h"

namespace {

constexpr const char* kSerial = "NULL0";
constexpr int kKeyCount = 20;

CalythKeyPair makeKey(int index) {
    CalythKeyPair key;
    std::memset(&key, 0, sizeof key);
    key.handle = index + 1;
    for (int i = 0; i < 16; ++i)
        key.keyId[i] = static_cast<unsigned char>(0xA0 + index + i);
    bool ec = index == 1;
    key.keySizeCode = ec ? CALYTH_KEY_EC_P256 : CALYTH_KEY_RSA_2048;
    key.publicKeyLength = ec ? 65 : 256;
    for (int i = 0; i < key.publicKeyLength; ++i)
        key.publicKey[i] = static_cast<unsigned char>(0x80 | (i * 7 + index));
    if (ec)
        key.publicKey[0] = 0x04;
    key.objectIdLength = 16;
    std::memcpy(key.objectId, key.keyId, 16);
    key.keyUsage = CALYTH_USAGE_BOTH;
    key.tokenFlag = 1;
    return key;
}

std::vector<CalythKeyPair>& keyList() {
    static std::vector<CalythKeyPair> keys = [] {
        std::vector<CalythKeyPair> made;
        for (int i = 0; i < kKeyCount; ++i)
            made.push_back(makeKey(i));
        return made;
    }();
    return keys;
}

// One handle per hash code; the digest length follows from which one it is.
int hashCodes[6] = {0, 1, 2, 3, 4, 5};

int digestLength(int code) {
    switch (code) {
        case CALYTH_HASH_SHA1:
            return 20;
        case CALYTH_HASH_SHA384:
            return 48;
        case CALYTH_HASH_SHA512:
            return 64;
        default:
            return 32;
    }
}

bool isEcKey(const unsigned char* keyId) {
    return keyId && std::memcmp(keyId, keyList()[1].keyId, 16) == 0;
}

int handOutZeros(int length, unsigned char** output, int* outputLength) {
    *output = static_cast<unsigned char*>(std::calloc(1, length > 0 ? length : 1));
    *outputLength = length;
    return *output ? 0 : 1;
}

}  // namespace

extern "C" {

int calyth_init(int, void*, int) {
    return 0;
}

std::vector<std::string> calyth_getConnectedDeviceList(bool, void*) {
    return {kSerial};
}

int calyth_initDevice(const char*, bool, void*) {
    return 0;
}

TokenInfo calyth_getTokenInfo(const char*, void*) {
    TokenInfo info{};
    info.label = "Null token";
    info.manufacturer = "Benchmark";
    info.model = "Null";
    info.serialNumber = kSerial;
    info.firmwareVersion = "2.1.0";
    info.maxPinLength = 16;
    info.minPinLength = 4;
    info.pinAttemptsLeft = 10;
    return info;
}

int calyth_validatePassword(const char*, const char*, int, int* attemptsLeft, void*) {
    if (attemptsLeft)
        *attemptsLeft = 10;
    return 0;
}

std::vector<CalythKeyPair>& calyth_getKeyPairList(const char*, void*) {
    return keyList();
}

std::vector<CalythSymmetricKey>& calyth_getAesKeyList(const char*, void*) {
    static std::vector<CalythSymmetricKey> none;
    return none;
}

std::vector<CalythCertificate>& calyth_getCertificateList(const char*, void*) {
    static std::vector<CalythCertificate> none;
    return none;
}

int calyth_getCertificateDetails(const unsigned char*, int, CertificateDetails&, void*) {
    return 1;
}

int calyth_generateKeyPair(const char*, const char*, CalythKeyPair*, void*) {
    return 1;
}

int calyth_deleteKeyPair(const char*, const unsigned char*, const char*, bool, void*) {
    return 1;
}

int calyth_updateKeyPairDetails(const char*, const unsigned char*, const char*, const char*,
                                const unsigned char*, int, void*) {
    return 0;
}

int calyth_importCertificate(const char*, const char*, CalythCertificate*, void*) {
    return 1;
}

CalythFileList calyth_getFilesWithExtensionsAndConvertDER(const std::string&, const std::vector<std::string>&,
                                                          void*) {
    return {};
}

int calyth_importAesKey(const char*, const char*, CalythSymmetricKey*, void*) {
    return 1;
}

int calyth_initHash(const char*, int hashCode, void** hashHandle, void*) {
    if (hashCode < 0 || hashCode > 5 || !hashHandle)
        return 1;
    *hashHandle = &hashCodes[hashCode];
    return 0;
}

int calyth_updateHash(void*, const unsigned char*, int, void*) {
    return 0;
}

int calyth_finalHash(void* hashHandle, unsigned char* digest, int* length, void*) {
    int wanted = digestLength(*static_cast<int*>(hashHandle));
    if (!length || *length < wanted)
        return 1;
    std::memset(digest, 0x5A, wanted);
    *length = wanted;
    return 0;
}

int calyth_signHash(const char*, const unsigned char* keyId, const char*, const unsigned char*, int,
                    unsigned char* signature, int* signatureLength, bool, void*, bool) {
    int wanted = isEcKey(keyId) ? 64 : 256;
    if (!signatureLength || *signatureLength < wanted) {
        if (signatureLength)
            *signatureLength = wanted;
        return 1;
    }
    std::memset(signature, 0x11, wanted);
    *signatureLength = wanted;
    return 0;
}

int calyth_verifySignatureHash(unsigned int, const char*, const unsigned char*, int, const unsigned char*,
                               int, const unsigned char*, int, void*, bool) {
    return 0;
}

int calyth_encrypt(EncryptionType, PaddingMode, const unsigned char*, int, unsigned char* output,
                   int* outputLength, const unsigned char*, int, void*) {
    std::memset(output, 0x22, 256);
    *outputLength = 256;
    return 0;
}

int calyth_decrypt(const char*, const unsigned char*, const char*, const unsigned char*, int,
                   unsigned char** output, int* outputLength, bool, void*) {
    return handOutZeros(32, output, outputLength);
}

int calyth_encrypt_aes(const char*, EncryptionType, const unsigned char*, int, const unsigned char*,
                       int dataLength, unsigned char** output, int* outputLength, bool, const unsigned char*,
                       int, const unsigned char*, int, void*) {
    return handOutZeros((dataLength / 16 + 1) * 16, output, outputLength);
}

int calyth_decrypt_aes(const char*, const unsigned char*, int, const unsigned char*, int dataLength,
                       unsigned char** output, int* outputLength, bool, const unsigned char*, int, void*) {
    return handOutZeros(dataLength > 8 ? dataLength - 8 : 0, output, outputLength);
}

int calyth_decryptSymetric(const char*, const unsigned char*, int dataLength, unsigned char*,
                           int* outputLength, const unsigned char*, int, const unsigned char*, int, void*) {
    *outputLength = dataLength > 16 ? dataLength - 16 : 0;
    return 0;
}

int calyth_ecdhDerive(const char*, const unsigned char*, const char*, const unsigned char*, int,
                      unsigned char** secret, int* secretLength, void*) {
    return handOutZeros(32, secret, secretLength);
}

int calyth_generateRamdomNumber(const char*, int length, unsigned char* output, bool, void*) {
    std::memset(output, 0x33, length > 0 ? length : 0);
    return 0;
}

}  // extern "C"
