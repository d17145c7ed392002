#include "util/cng_blobs.h"

#include "util/device_codes.h"
#include "util/rsa_key_fields.h"

namespace {

uint32_t littleEndian32(const unsigned char* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

struct EccCurve {
    uint32_t magic;
    int32_t algorithm;
    uint32_t bits;
    int32_t usage;
};

const EccCurve kEccCurves[] = {
    {kCngEcdsaP256Magic, CALYTH_KEY_EC_P256, 256, CALYTH_USAGE_SIGNATURE},
    {kCngEcdhP256Magic, CALYTH_KEY_EC_P256, 256, CALYTH_USAGE_EXCHANGE},
    {kCngEcdsaP384Magic, CALYTH_KEY_EC_P384, 384, CALYTH_USAGE_SIGNATURE},
    {kCngEcdhP384Magic, CALYTH_KEY_EC_P384, 384, CALYTH_USAGE_EXCHANGE},
    {kCngEcdsaP521Magic, CALYTH_KEY_EC_P521, 521, CALYTH_USAGE_SIGNATURE},
    {kCngEcdhP521Magic, CALYTH_KEY_EC_P521, 521, CALYTH_USAGE_EXCHANGE},
};

const EccCurve* eccCurveForMagic(uint32_t magic) {
    for (const EccCurve& curve : kEccCurves) {
        if (curve.magic == magic)
            return &curve;
    }
    return nullptr;
}

}  // namespace

int32_t cngAesTypeForLength(int64_t length) {
    switch (length) {
        case 16:
            return CALYTH_SYMMETRIC_AES_128;
        case 24:
            return CALYTH_SYMMETRIC_3DES;
        case 32:
            return CALYTH_SYMMETRIC_AES_256;
        default:
            return 0;
    }
}

CngBlobResult parseCngRsaPublicBlob(const unsigned char* bytes, size_t length, size_t room,
                                    CngRsaPublicBlob* blob) {
    if (length < kCngRsaHeaderSize)
        return CngBlobResult::TooShortForHeader;
    if (littleEndian32(bytes) != kCngRsaPublicMagic)
        return CngBlobResult::BadMagic;
    blob->bitLength = littleEndian32(bytes + 4);
    blob->exponentLength = littleEndian32(bytes + 8);
    blob->modulusLength = littleEndian32(bytes + 12);
    uint64_t required = uint64_t{kCngRsaHeaderSize} + blob->exponentLength + blob->modulusLength;
    if (length < required)
        return CngBlobResult::TooShortForMaterial;
    blob->sizeCode = rsaSizeCodeForBits(blob->bitLength);
    if (blob->sizeCode == 0)
        return CngBlobResult::UnsupportedSize;
    if (blob->modulusLength > room)
        return CngBlobResult::TooLong;
    blob->modulus = bytes + kCngRsaHeaderSize + blob->exponentLength;
    return CngBlobResult::Ok;
}

CngBlobResult parseCngEccPublicBlob(const unsigned char* bytes, size_t length, size_t room,
                                    CngEccPublicBlob* blob) {
    if (length < kCngEccHeaderSize)
        return CngBlobResult::TooShortForHeader;
    blob->magic = littleEndian32(bytes);
    blob->keyLength = littleEndian32(bytes + 4);
    uint64_t coordinates = 2 * uint64_t{blob->keyLength};
    if (length < kCngEccHeaderSize + coordinates)
        return CngBlobResult::TooShortForMaterial;
    const EccCurve* curve = eccCurveForMagic(blob->magic);
    if (curve == nullptr)
        return CngBlobResult::BadMagic;
    if (1 + coordinates > room)
        return CngBlobResult::TooLong;
    blob->point = bytes + kCngEccHeaderSize;
    blob->algorithm = curve->algorithm;
    blob->bits = curve->bits;
    blob->usage = curve->usage;
    return CngBlobResult::Ok;
}

CngBlobResult parseCngKeyDataBlob(const unsigned char* bytes, size_t length, CngKeyDataBlob* blob) {
    if (length < kCngKeyDataHeaderSize)
        return CngBlobResult::TooShortForHeader;
    if (littleEndian32(bytes) != kCngKeyDataMagic)
        return CngBlobResult::BadMagic;
    blob->keyLength = littleEndian32(bytes + 8);
    if (length < uint64_t{kCngKeyDataHeaderSize} + blob->keyLength)
        return CngBlobResult::TooShortForMaterial;
    blob->type = cngAesTypeForLength(blob->keyLength);
    if (blob->type == 0)
        return CngBlobResult::UnsupportedSize;
    blob->key = bytes + kCngKeyDataHeaderSize;
    return CngBlobResult::Ok;
}
