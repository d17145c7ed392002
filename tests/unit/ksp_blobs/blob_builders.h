// Key blobs built byte by byte for the import tests (little-endian header words), and small helpers
// for reading the blobs the provider writes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace blobtest {

using Bytes = std::vector<unsigned char>;

void putWord(Bytes* blob, uint32_t value);
uint32_t wordAt(const Bytes& blob, size_t offset);
// `count` bytes counting up from `first`.
Bytes pattern(size_t count, unsigned char first);
Bytes concat(const Bytes& a, const Bytes& b);

// BCRYPT_RSAKEY_BLOB header (24 bytes), exponent, modulus; cbPrime1/2 are 0.
Bytes rsaPublicBlob(uint32_t magic, uint32_t bitLength, const Bytes& exponent, const Bytes& modulus);
// The same with header fields given directly (for lying lengths).
Bytes rsaHeader(uint32_t magic, uint32_t bitLength, uint32_t cbPublicExp, uint32_t cbModulus);
// BCRYPT_ECCKEY_BLOB header (8 bytes) then X, Y.
Bytes eccPublicBlob(uint32_t magic, uint32_t cbKey, const Bytes& coordinates);
// BCRYPT_KEY_DATA_BLOB_HEADER (magic, version 1, cbKeyData) then the key.
Bytes keyDataBlob(uint32_t magic, uint32_t cbKeyData, const Bytes& key, uint32_t version = 1);
// PUBLICKEYBLOB v2 for CALG_RSA_KEYX: BLOBHEADER, RSAPUBKEY, modulus little-endian.
Bytes legacyPublicBlob(uint32_t magic, uint32_t bitlen, uint32_t pubexp, const Bytes& modulusLittleEndian);

}  // namespace blobtest
