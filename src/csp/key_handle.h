// The record behind a CryptoAPI key handle (HCRYPTKEY is its address): a local copy of the
// token's description of one key pair, or an in-memory key made by key import.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstdint>
#include <cstdlib>

#include "token/key_id.h"

// KP_ALGID values of symmetric keys unwrapped from a SIMPLEBLOB (the token's symmetric type codes):
// KP_IV copies 16 bytes for AES-256 and 8 bytes for triple DES.
constexpr uint32_t KEY_ALG_SYMMETRIC_AES_256 = 10;
constexpr uint32_t KEY_ALG_SYMMETRIC_3DES = 11;

constexpr size_t KEY_LABEL_CHARACTERS = 128;

struct KEY_HANDLE {
    unsigned char keyId[KEY_ID_LENGTH];  // token key identifier; its hex text is the container name
    int32_t keyIdLength;                 // 16 once a key is attached, 0 for none
    uint32_t algId;                      // KP_ALGID; 10 and 11 mark imported symmetric keys
    int32_t keyUsage;                    // 1 signature, 2 exchange, 3 both
    unsigned char objectId[128];         // finds the key's certificate
    int32_t objectIdLength;
    char label[KEY_LABEL_CHARACTERS + 1];  // at most 128 characters and the terminating zero
    uint32_t bits;                         // KP_KEYLEN, KP_BLOCKLEN; bits / 8 is the CPEncrypt size
    uint32_t mode;                         // KP_MODE, CRYPT_MODE_CBC when made
    unsigned char tokenFlag;               // copied from the key pair record, passed to decryption
    unsigned char inMemory;                // 1 for a key made by key import
    // The public key as the token stores it (raw big-endian modulus or DER), or the DER public key
    // of an imported PUBLICKEYBLOB. Room for the DER form of a 4096-bit key (550 bytes).
    unsigned char publicKey[1024];
    int32_t publicKeyLength;
    unsigned char symmetricKey[32];  // AES / triple-DES material of an imported key
    int32_t symmetricKeyLength;      // 0 marks an RSA key object
    int32_t sizeCode;                // RSA size code 1-4 of an imported public key, or the
                                     // symmetric type (8, 10, 11) of an imported secret key
};

inline KEY_HANDLE* keyHandleFrom(HCRYPTKEY handle) {
    return reinterpret_cast<KEY_HANDLE*>(handle);
}

// A zero-filled record in CBC mode, or null when memory is short. Released with freeKeyHandle.
inline KEY_HANDLE* allocateKeyHandle() {
    auto* key = static_cast<KEY_HANDLE*>(std::calloc(1, sizeof(KEY_HANDLE)));
    if (key != nullptr)
        key->mode = CRYPT_MODE_CBC;
    return key;
}

// The AES material of an imported key is zeroed first.
inline void freeKeyHandle(KEY_HANDLE* key) {
    if (key != nullptr)
        SecureZeroMemory(key->symmetricKey, sizeof key->symmetricKey);
    std::free(key);
}
