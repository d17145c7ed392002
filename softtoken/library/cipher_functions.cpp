// RSA encryption and decryption, AES encryption, decryption and key unwrapping.
#include <algorithm>

#include "core/public_key.h"
#include "core/symmetric.h"
#include "core/token_access.h"
#include "entry_guard.h"
#include "token/device_library.h"

using namespace softtoken;

namespace {

// A call that names a token needs it connected; an empty serial works on the host alone.
int requireTokenIfNamed(const char* serial, const char* function) {
    if (isEmpty(serial))
        return kOk;
    TokenRef token;
    return openConnected(serial, function, token);
}

// Writes `result` into a caller's buffer of *room bytes. A room of 0 or less means the caller
// did not state it and promises enough (its buffer is as long as the input).
int writeInto(const Bytes& result, unsigned char* output, int* room) {
    int length = static_cast<int>(result.size());
    if (!output || (*room > 0 && *room < length)) {
        *room = length;
        return kBufferTooSmall;
    }
    std::copy(result.begin(), result.end(), output);
    *room = length;
    return kOk;
}

const AesRecord* findAesKey(const TokenData& token, const unsigned char* reference, int referenceLength) {
    if (!reference || referenceLength <= 0)
        return nullptr;
    Bytes wanted(reference, reference + referenceLength);
    for (const AesRecord& key : token.aesKeys)
        if (key.reference == wanted)
            return &key;
    if (referenceLength == 16)
        for (const AesRecord& key : token.aesKeys)
            if (std::equal(key.id.begin(), key.id.end(), reference))
                return &key;
    return nullptr;
}

}  // namespace

extern "C" {

int calyth_encrypt(EncryptionType type, PaddingMode padding, const unsigned char* data, int dataLength,
                   unsigned char* output, int* outputLength, const unsigned char* publicKeyDer,
                   int publicKeyDerLength, void*) {
    return guarded<int>(kFailed, [&] {
        if ((!data && dataLength != 0) || dataLength < 0 || !outputLength)
            return int(kBadArgument);
        // The RSA type only says "RSA": the key's own size decides (the provider picks the type
        // from the stored key's length, which rarely names the size).
        if (type < ENCRYPTION_RSA_1024 || type > ENCRYPTION_RSA_4096)
            return int(kNotSupported);
        PublicKey key;
        if (!parsePublicKey(publicKeyDer, publicKeyDerLength, key) || !key.rsa)
            return int(kBadArgument);
        Bytes result;
        int status = rsaEncrypt(key, padding, data, dataLength, result);
        if (status != kOk)
            return status;
        // *outputLength is output only: the caller's buffer holds one modulus of the key.
        *outputLength = static_cast<int>(result.size());
        if (!output)
            return int(kBadArgument);
        std::copy(result.begin(), result.end(), output);
        return int(kOk);
    });
}

int calyth_decrypt(const char* serial, const unsigned char* keyId, const char* pin, const unsigned char* data,
                   int dataLength, unsigned char** output, int* outputLength, bool, void*) {
    return guarded<int>(kFailed, [&] {
        if (!keyId || !data || dataLength <= 0 || !output || !outputLength)
            return int(kBadArgument);
        TokenRef token;
        int status = openConnected(serial, "decrypt", token);
        if (status != kOk)
            return status;
        std::shared_ptr<PrivateKey> key = token->privateKey(keyId);
        if (!key)
            return int(kKeyNotFound);
        if (!isRsaCode(key->sizeCode()))
            return int(kNotSupported);
        status = authorize(serial, token, pin, true);
        if (status != kOk)
            return status;
        Bytes plain;
        status = rsaDecrypt(*key, data, dataLength, plain);
        return status == kOk ? handOut(plain, output, outputLength) : status;
    });
}

int calyth_encrypt_aes(const char* serial, EncryptionType type, const unsigned char* key, int keyLength,
                       const unsigned char* data, int dataLength, unsigned char** output, int* outputLength,
                       bool, const unsigned char* iv, int ivLength, const unsigned char*, int, void*) {
    return guarded<int>(kFailed, [&] {
        bool cbc = type == ENCRYPTION_AES_128_CBC || type == ENCRYPTION_AES_256_CBC;
        bool ecb = type == ENCRYPTION_AES_128_ECB || type == ENCRYPTION_AES_256_ECB;
        if (!cbc && !ecb)
            return int(kNotSupported);
        int status = requireTokenIfNamed(serial, "encrypt_aes");
        if (status != kOk)
            return status;
        Bytes result;
        status = aesEncrypt(cbc, key, keyLength, iv, ivLength, data, dataLength, result);
        return status == kOk ? handOut(result, output, outputLength) : status;
    });
}

int calyth_decrypt_aes(const char* serial, const unsigned char* keyReference, int keyReferenceLength,
                       const unsigned char* data, int dataLength, unsigned char** output, int* outputLength,
                       bool, const unsigned char* iv, int ivLength, void*) {
    return guarded<int>(kFailed, [&] {
        if (!output || !outputLength)
            return int(kBadArgument);
        TokenRef token;
        int status = openConnected(serial, "decrypt_aes", token);
        if (status != kOk)
            return status;
        const AesRecord* kek = findAesKey(token->data, keyReference, keyReferenceLength);
        if (!kek)
            return int(kKeyNotFound);
        if (kek->type == CALYTH_SYMMETRIC_3DES)
            return int(kNotSupported);
        Bytes plain;
        status = aesUnwrap(kek->key, ivLength > 0 ? iv : nullptr, ivLength, data, dataLength, plain);
        return status == kOk ? handOut(plain, output, outputLength) : status;
    });
}

int calyth_decryptSymetric(const char* serial, const unsigned char* data, int dataLength,
                           unsigned char* output, int* outputLength, const unsigned char* iv, int ivLength,
                           const unsigned char* key, int keyLength, void*) {
    return guarded<int>(kFailed, [&] {
        if (!outputLength)
            return int(kBadArgument);
        int status = requireTokenIfNamed(serial, "decryptSymetric");
        if (status != kOk)
            return status;
        bool cbc = iv && ivLength > 0;
        Bytes plain;
        status = aesDecrypt(cbc, key, keyLength, iv, ivLength, data, dataLength, plain);
        return status == kOk ? writeInto(plain, output, outputLength) : status;
    });
}

}  // extern "C"
