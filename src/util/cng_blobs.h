// The byte layout of the CNG key blobs KSPImportKey reads (RSA and ECC public blobs, key data
// blobs), without Windows headers so that the same code builds natively for fuzzing. Headers are
// read only once the blob holds them; lengths from a header are added in 64 bits before they are
// compared with the blob's length. Key material is not copied: the records point into the blob.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint32_t kCngRsaPublicMagic = 0x31415352;  // BCRYPT_RSAPUBLIC_MAGIC
constexpr uint32_t kCngKeyDataMagic = 0x4d42444b;    // BCRYPT_KEY_DATA_BLOB_MAGIC
constexpr uint32_t kCngEcdhP256Magic = 0x314B4345;
constexpr uint32_t kCngEcdsaP256Magic = 0x31534345;
constexpr uint32_t kCngEcdhP384Magic = 0x334B4345;
constexpr uint32_t kCngEcdsaP384Magic = 0x33534345;
constexpr uint32_t kCngEcdhP521Magic = 0x354B4345;
constexpr uint32_t kCngEcdsaP521Magic = 0x35534345;

constexpr size_t kCngRsaHeaderSize = 24;      // BCRYPT_RSAKEY_BLOB
constexpr size_t kCngEccHeaderSize = 8;       // BCRYPT_ECCKEY_BLOB
constexpr size_t kCngKeyDataHeaderSize = 12;  // BCRYPT_KEY_DATA_BLOB_HEADER

// In the order the checks are made.
enum class CngBlobResult {
    Ok,
    TooShortForHeader,
    BadMagic,
    TooShortForMaterial,
    UnsupportedSize,  // a key size the token does not make
    TooLong,          // more key material than the key object holds
};

struct CngRsaPublicBlob {
    uint32_t bitLength = 0;
    uint32_t exponentLength = 0;
    uint32_t modulusLength = 0;
    const unsigned char* modulus = nullptr;  // big-endian, modulusLength bytes
    int32_t sizeCode = 0;                    // the device's RSA size code
};

// BitLength and cbModulus are not compared with each other; an unsupported BitLength comes before a
// modulus longer than `room`.
CngBlobResult parseCngRsaPublicBlob(const unsigned char* bytes, size_t length, size_t room,
                                    CngRsaPublicBlob* blob);

struct CngEccPublicBlob {
    uint32_t magic = 0;
    uint32_t keyLength = 0;                // cbKey, one coordinate
    const unsigned char* point = nullptr;  // X || Y, 2 * keyLength bytes
    int32_t algorithm = 0;                 // device key type of the curve
    uint32_t bits = 0;
    int32_t usage = 0;  // signature (ECDSA magic) or exchange (ECDH magic)
};

// The material length is checked before the magic; cbKey is not held to the curve, and an uncompressed
// point (1 + 2 * cbKey) longer than `room` is refused as TooLong.
CngBlobResult parseCngEccPublicBlob(const unsigned char* bytes, size_t length, size_t room,
                                    CngEccPublicBlob* blob);

struct CngKeyDataBlob {
    uint32_t keyLength = 0;
    const unsigned char* key = nullptr;
    int32_t type = 0;  // device symmetric type
};

// 16, 24 and 32-byte keys are supported; any other length is UnsupportedSize.
CngBlobResult parseCngKeyDataBlob(const unsigned char* bytes, size_t length, CngKeyDataBlob* blob);

// The device type of a 16, 24 or 32-byte AES key; 0 for any other length.
int32_t cngAesTypeForLength(int64_t length);
