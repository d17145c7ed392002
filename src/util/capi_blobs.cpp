#include "util/capi_blobs.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

uint32_t littleEndian32(const unsigned char* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

}  // namespace

CapiBlobFront readCapiBlobFront(const unsigned char* bytes, size_t length) {
    unsigned char padded[kCapiRsaPublicHeaderSize] = {};
    std::memcpy(padded, bytes, std::min(length, sizeof padded));
    CapiBlobFront front{};
    front.type = padded[0];
    front.version = padded[1];
    front.reserved = static_cast<uint16_t>(padded[2] | padded[3] << 8);
    front.keyAlgorithm = littleEndian32(padded + 4);
    front.field8 = littleEndian32(padded + 8);
    front.field12 = littleEndian32(padded + 12);
    front.field16 = littleEndian32(padded + 16);
    return front;
}

int capiBlobDataLength(size_t length) {
    return static_cast<int>(static_cast<int64_t>(length) - static_cast<int64_t>(kCapiBlobBodyOffset));
}

CapiPublicKeyResult parseCapiRsaPublicKey(const unsigned char* bytes, size_t length, CapiRsaPublicKey* key) {
    CapiBlobFront front = readCapiBlobFront(bytes, length);
    key->magic = front.field8;
    key->bitLength = front.field12;
    key->exponent = front.field16;
    if (key->magic != kCapiRsaPublicMagic)
        return CapiPublicKeyResult::BadMagic;
    uint64_t modulusLength = key->bitLength / 8;
    key->required = modulusLength + kCapiRsaPublicHeaderSize;
    if (length < key->required)
        return CapiPublicKeyResult::TooShort;
    // The blob keeps the modulus little-endian; DER wants it big-endian.
    const unsigned char* modulus = bytes + kCapiRsaPublicHeaderSize;
    try {
        key->modulus.assign(modulus, modulus + modulusLength);
    } catch (const std::bad_alloc&) {
        return CapiPublicKeyResult::NoMemory;
    }
    std::reverse(key->modulus.begin(), key->modulus.end());
    return CapiPublicKeyResult::Ok;
}
