// The device library's codes for key usages, key sizes, hashes, algorithms and paddings: plain
// numbers that the blob parsers of util share with the token layer (token/device_library.h).
#pragma once

#include <cstdint>

// Key usage codes.
constexpr int32_t CALYTH_USAGE_SIGNATURE = 1;
constexpr int32_t CALYTH_USAGE_EXCHANGE = 2;
constexpr int32_t CALYTH_USAGE_BOTH = 3;

// Key-size codes of CalythKeyPair::keySizeCode (0 asks the library for its default, RSA-2048).
constexpr int32_t CALYTH_KEY_RSA_1024 = 1;
constexpr int32_t CALYTH_KEY_RSA_2048 = 2;
constexpr int32_t CALYTH_KEY_RSA_3072 = 3;
constexpr int32_t CALYTH_KEY_RSA_4096 = 4;
constexpr int32_t CALYTH_KEY_EC_P256 = 5;
constexpr int32_t CALYTH_KEY_EC_P384 = 6;
constexpr int32_t CALYTH_KEY_EC_P521 = 7;

// Hash codes of calyth_initHash.
constexpr int CALYTH_HASH_SHA1 = 2;
constexpr int CALYTH_HASH_SHA256 = 3;
constexpr int CALYTH_HASH_SHA384 = 4;
constexpr int CALYTH_HASH_SHA512 = 5;

// Algorithm codes passed to calyth_encrypt / calyth_encrypt_aes, and stored as the type of a
// token symmetric key (CalythSymmetricKey::type: 8 AES-128, 10 AES-256, 11 three-key 3DES).
enum EncryptionType : int32_t {
    ENCRYPTION_AES_128_CBC = 1,
    ENCRYPTION_AES_256_CBC = 2,
    ENCRYPTION_AES_128_ECB = 5,
    ENCRYPTION_AES_256_ECB = 6,
    ENCRYPTION_RSA_1024 = 7,
    ENCRYPTION_RSA_2048 = 8,
    ENCRYPTION_RSA_3072 = 9,
    ENCRYPTION_RSA_4096 = 10,
    ENCRYPTION_3DES = 11,
};
// Symmetric key types share the numbering above.
constexpr int32_t CALYTH_SYMMETRIC_AES_128 = 8;
constexpr int32_t CALYTH_SYMMETRIC_AES_256 = 10;
constexpr int32_t CALYTH_SYMMETRIC_3DES = 11;

enum PaddingMode : int32_t {
    PADDING_NONE = 0,
    PADDING_PKCS1 = 1,  // RSA PKCS #1 v1.5; PKCS #7 for AES
    PADDING_PSS = 3,
    PADDING_OAEP = 4,  // RSA OAEP with SHA-1 and MGF1-SHA-1
};
