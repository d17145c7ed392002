#include "blob_builders.h"

namespace blobtest {

void putWord(Bytes* blob, uint32_t value) {
    for (int i = 0; i < 4; ++i)
        blob->push_back(static_cast<unsigned char>(value >> (8 * i)));
}

uint32_t wordAt(const Bytes& blob, size_t offset) {
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i)
        value = value << 8 | blob.at(offset + i);
    return value;
}

Bytes pattern(size_t count, unsigned char first) {
    Bytes out(count);
    for (size_t i = 0; i < count; ++i)
        out[i] = static_cast<unsigned char>(first + i);
    return out;
}

Bytes concat(const Bytes& a, const Bytes& b) {
    Bytes out = a;
    out.insert(out.end(), b.begin(), b.end());
    return out;
}

Bytes rsaHeader(uint32_t magic, uint32_t bitLength, uint32_t cbPublicExp, uint32_t cbModulus) {
    Bytes blob;
    for (uint32_t word : {magic, bitLength, cbPublicExp, cbModulus, 0u, 0u})
        putWord(&blob, word);
    return blob;
}

Bytes rsaPublicBlob(uint32_t magic, uint32_t bitLength, const Bytes& exponent, const Bytes& modulus) {
    Bytes blob = rsaHeader(magic, bitLength, static_cast<uint32_t>(exponent.size()),
                           static_cast<uint32_t>(modulus.size()));
    return concat(concat(blob, exponent), modulus);
}

Bytes eccPublicBlob(uint32_t magic, uint32_t cbKey, const Bytes& coordinates) {
    Bytes blob;
    putWord(&blob, magic);
    putWord(&blob, cbKey);
    return concat(blob, coordinates);
}

Bytes keyDataBlob(uint32_t magic, uint32_t cbKeyData, const Bytes& key, uint32_t version) {
    Bytes blob;
    putWord(&blob, magic);
    putWord(&blob, version);
    putWord(&blob, cbKeyData);
    return concat(blob, key);
}

Bytes legacyPublicBlob(uint32_t magic, uint32_t bitlen, uint32_t pubexp, const Bytes& modulusLittleEndian) {
    Bytes blob{0x06, 0x02, 0x00, 0x00};
    putWord(&blob, 0xA400);
    putWord(&blob, magic);
    putWord(&blob, bitlen);
    putWord(&blob, pubexp);
    return concat(blob, modulusLittleEndian);
}

}  // namespace blobtest
