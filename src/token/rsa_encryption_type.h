// The device library's RSA encryption type for a key size: 1024, 2048, 3072 and 4096 name their own
// type, anything else is taken as RSA-2048 (the library then goes by the DER key it is given).
#pragma once

#include <cstddef>
#include <cstdint>

#include "token/device_library.h"
#include "util/encoding.h"

inline EncryptionType rsaEncryptionTypeForSize(int64_t size) {
    switch (size) {
        case 1024:
            return ENCRYPTION_RSA_1024;
        case 3072:
            return ENCRYPTION_RSA_3072;
        case 4096:
            return ENCRYPTION_RSA_4096;
        default:
            return ENCRYPTION_RSA_2048;
    }
}

// calyth_encrypt takes no room argument and writes one whole modulus of the DER key it is given,
// whatever size the key object claims: its output buffer is sized from that key's modulus and never
// below the largest modulus (4096 bits).
constexpr size_t kLargestRsaModulusBytes = 512;

inline size_t rsaCiphertextRoom(const Bytes& derPublicKey) {
    Bytes modulus;
    size_t keyBytes = rsaModulusFromDer(derPublicKey.data(), static_cast<int>(derPublicKey.size()), &modulus)
                          ? modulus.size()
                          : derPublicKey.size();
    return keyBytes > kLargestRsaModulusBytes ? keyBytes : kLargestRsaModulusBytes;
}
