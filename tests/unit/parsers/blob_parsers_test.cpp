#include <cstring>
#include <gtest/gtest.h>

#include "token/device_library.h"
#include "util/capi_blobs.h"
#include "util/cng_blobs.h"

namespace {

void put32(Bytes* bytes, size_t at, uint32_t value) {
    if (bytes->size() < at + 4)
        bytes->resize(at + 4);
    std::memcpy(bytes->data() + at, &value, 4);
}

Bytes capiPublic(uint32_t bits, size_t modulusLength) {
    Bytes blob{0x06, 0x02, 0x00, 0x00, 0x00, 0xA4, 0x00, 0x00};
    put32(&blob, 8, kCapiRsaPublicMagic);
    put32(&blob, 12, bits);
    put32(&blob, 16, 65537);
    for (size_t i = 0; i < modulusLength; ++i)
        blob.push_back(static_cast<unsigned char>(i + 1));
    return blob;
}

TEST(CapiBlobs, AShortBlobReadsAsZeroPadded) {
    const unsigned char blob[] = {0x08, 0x02, 0x00, 0x00, 0x0E, 0x66};
    CapiBlobFront front = readCapiBlobFront(blob, sizeof blob);
    EXPECT_EQ(front.type, 8);
    EXPECT_EQ(front.version, 2);
    EXPECT_EQ(front.keyAlgorithm, 0x660Eu);
    EXPECT_EQ(front.field8, 0u);
    EXPECT_EQ(capiBlobDataLength(sizeof blob), -6);
    EXPECT_EQ(capiBlobDataLength(12), 0);
    EXPECT_EQ(capiBlobDataLength(28), 16);
}

TEST(CapiBlobs, PublicKeyMagicComesBeforeTheLength) {
    Bytes blob = capiPublic(1024, 0);
    put32(&blob, 8, 0x32415352);
    CapiRsaPublicKey key;
    EXPECT_EQ(parseCapiRsaPublicKey(blob.data(), blob.size(), &key), CapiPublicKeyResult::BadMagic);
    EXPECT_EQ(key.magic, 0x32415352u);
}

TEST(CapiBlobs, PublicKeyShorterThanItsBitLengthIsRefusedWithTheRequiredLength) {
    Bytes blob = capiPublic(1024, 127);
    CapiRsaPublicKey key;
    EXPECT_EQ(parseCapiRsaPublicKey(blob.data(), blob.size(), &key), CapiPublicKeyResult::TooShort);
    EXPECT_EQ(key.required, 148u);
    // A bit length near 2^32 is compared, not allocated.
    blob = capiPublic(0xFFFFFFFF, 4);
    EXPECT_EQ(parseCapiRsaPublicKey(blob.data(), blob.size(), &key), CapiPublicKeyResult::TooShort);
    EXPECT_EQ(key.required, 20u + 0x1FFFFFFF);
}

TEST(CapiBlobs, PublicKeyModulusComesOutBigEndian) {
    Bytes blob = capiPublic(32, 4);
    CapiRsaPublicKey key;
    ASSERT_EQ(parseCapiRsaPublicKey(blob.data(), blob.size(), &key), CapiPublicKeyResult::Ok);
    EXPECT_EQ(key.modulus, (Bytes{4, 3, 2, 1}));
    EXPECT_EQ(key.exponent, 65537u);
}

TEST(CngBlobs, RsaLengthsAreAddedWithoutWrapping) {
    Bytes blob;
    put32(&blob, 0, kCngRsaPublicMagic);
    put32(&blob, 4, 2048);
    put32(&blob, 8, 0xFFFFFFFF);  // cbPublicExp + cbModulus wraps to 1 in 32 bits
    put32(&blob, 12, 2);
    blob.resize(kCngRsaHeaderSize + 8);
    CngRsaPublicBlob rsa;
    EXPECT_EQ(parseCngRsaPublicBlob(blob.data(), blob.size(), 512, &rsa), CngBlobResult::TooShortForMaterial);
    EXPECT_EQ(parseCngRsaPublicBlob(blob.data(), kCngRsaHeaderSize - 1, 512, &rsa),
              CngBlobResult::TooShortForHeader);
}

TEST(CngBlobs, RsaUnsupportedSizeComesBeforeAModulusTooLong) {
    Bytes blob;
    put32(&blob, 0, kCngRsaPublicMagic);
    put32(&blob, 4, 1000);
    put32(&blob, 8, 0);
    put32(&blob, 12, 600);
    blob.resize(kCngRsaHeaderSize + 600);
    CngRsaPublicBlob rsa;
    EXPECT_EQ(parseCngRsaPublicBlob(blob.data(), blob.size(), 512, &rsa), CngBlobResult::UnsupportedSize);
    put32(&blob, 4, 4096);
    EXPECT_EQ(parseCngRsaPublicBlob(blob.data(), blob.size(), 512, &rsa), CngBlobResult::TooLong);
    EXPECT_EQ(parseCngRsaPublicBlob(blob.data(), blob.size(), 600, &rsa), CngBlobResult::Ok);
    EXPECT_EQ(rsa.modulus, blob.data() + kCngRsaHeaderSize);
    EXPECT_EQ(rsa.sizeCode, CALYTH_KEY_RSA_4096);
}

TEST(CngBlobs, EccMaterialLengthComesBeforeTheMagic) {
    Bytes blob;
    put32(&blob, 0, 0x12345678);
    put32(&blob, 4, 0x80000000);  // 2 * cbKey overflows 32 bits
    CngEccPublicBlob ecc;
    EXPECT_EQ(parseCngEccPublicBlob(blob.data(), blob.size(), 512, &ecc), CngBlobResult::TooShortForMaterial);
    put32(&blob, 4, 2);
    blob.resize(12);
    EXPECT_EQ(parseCngEccPublicBlob(blob.data(), blob.size(), 512, &ecc), CngBlobResult::BadMagic);
    put32(&blob, 0, kCngEcdhP384Magic);
    ASSERT_EQ(parseCngEccPublicBlob(blob.data(), blob.size(), 512, &ecc), CngBlobResult::Ok);
    EXPECT_EQ(ecc.algorithm, CALYTH_KEY_EC_P384);
    EXPECT_EQ(ecc.usage, CALYTH_USAGE_EXCHANGE);
    EXPECT_EQ(parseCngEccPublicBlob(blob.data(), blob.size(), 4, &ecc), CngBlobResult::TooLong);
}

TEST(CngBlobs, KeyDataLengthNearTheTopOfItsRangeIsTooShort) {
    Bytes blob;
    put32(&blob, 0, kCngKeyDataMagic);
    put32(&blob, 4, 1);
    put32(&blob, 8, 0xFFFFFFF8);
    blob.resize(20);
    CngKeyDataBlob key;
    EXPECT_EQ(parseCngKeyDataBlob(blob.data(), blob.size(), &key), CngBlobResult::TooShortForMaterial);
    put32(&blob, 8, 8);
    EXPECT_EQ(parseCngKeyDataBlob(blob.data(), blob.size(), &key), CngBlobResult::UnsupportedSize);
    put32(&blob, 8, 24);
    blob.resize(36);
    ASSERT_EQ(parseCngKeyDataBlob(blob.data(), blob.size(), &key), CngBlobResult::Ok);
    EXPECT_EQ(key.type, CALYTH_SYMMETRIC_3DES);
}

}  // namespace
