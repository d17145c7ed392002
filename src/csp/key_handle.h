// The record behind a CryptoAPI key handle (HCRYPTKEY is its address): a local copy of the
// token's description of one key pair, or an in-memory key made by key import.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstdint>

struct KEY_HANDLE {
    unsigned char keyId[16];      // token key identifier; its hex text is the container name
    int32_t keyIdLength;          // 16 once a key is attached, 0 for none
    uint32_t algId;               // KP_ALGID; 10 and 11 mark imported symmetric keys
    int32_t keyUsage;             // 1 signature, 2 exchange, 3 both
    unsigned char objectId[128];  // finds the key's certificate
    int32_t objectIdLength;
    char label[128];
    uint32_t bits;                 // KP_KEYLEN, KP_BLOCKLEN
    uint32_t mode;                 // KP_MODE, CRYPT_MODE_CBC when made
    unsigned char tokenFlag;       // copied from the key pair record
    unsigned char inMemory;        // 1 for a key made by key import (public-only or symmetric)
    unsigned char publicKey[512];  // raw big-endian RSA modulus or DER
    int32_t publicKeyLength;
    unsigned char symmetricKey[32];  // AES material of an imported key
    int32_t symmetricKeyLength;      // 0 marks an RSA key object
    int32_t sizeCode;                // key-size code (RSA 1-4) or symmetric type (8, 10, 11)
};

inline KEY_HANDLE* keyHandleFrom(HCRYPTKEY handle) {
    return reinterpret_cast<KEY_HANDLE*>(handle);
}
