// The byte layout of CryptoAPI key blobs, read without Windows headers so that the same code builds
// natively for fuzzing. Every read stays within (bytes, length).
#pragma once

#include <cstddef>
#include <cstdint>

#include "util/encoding.h"

constexpr size_t kCapiBlobHeaderSize = 8;        // BLOBHEADER
constexpr size_t kCapiBlobBodyOffset = 12;       // where the data length of every blob type starts counting
constexpr size_t kCapiRsaPublicHeaderSize = 20;  // BLOBHEADER + RSAPUBKEY, where the modulus starts
constexpr uint32_t kCapiRsaPublicMagic = 0x31415352;  // "RSA1"

// The fixed fields at the front of a blob; a blob shorter than them reads as if zero-padded.
struct CapiBlobFront {
    uint8_t type;
    uint8_t version;
    uint16_t reserved;
    uint32_t keyAlgorithm;
    uint32_t field8;   // RSAPUBKEY magic, or the SIMPLEBLOB encrypting algorithm
    uint32_t field12;  // RSAPUBKEY bitlen
    uint32_t field16;  // RSAPUBKEY pubexp
};

CapiBlobFront readCapiBlobFront(const unsigned char* bytes, size_t length);

// The data length every blob type counts: length - 12, signed, so that a blob shorter than 12 bytes
// holds no data (zero or less).
int capiBlobDataLength(size_t length);

enum class CapiPublicKeyResult { Ok, BadMagic, TooShort, NoMemory };

struct CapiRsaPublicKey {
    uint32_t magic = 0;
    uint32_t bitLength = 0;
    uint32_t exponent = 0;
    uint64_t required = 0;  // header + bitLength / 8: the length the blob must have
    Bytes modulus;          // big-endian
};

// An RSA public key blob (BLOBHEADER, RSAPUBKEY, little-endian modulus of bitlen / 8 bytes). The magic
// is checked first (on the zero-padded front), then the length; a caller that needs the header
// complete before the magic checks kCapiRsaPublicHeaderSize itself.
CapiPublicKeyResult parseCapiRsaPublicKey(const unsigned char* bytes, size_t length, CapiRsaPublicKey* key);
