// Public-key blobs for KSPImportKey: the BCrypt RSA and ECC public blobs and the CryptoAPI (legacy)
// RSA public blob. The headers are read from bounded copies once the blob is known to hold them;
// every length taken from a header is added up in 64 bits before it is compared with cbData.
#include <windows.h>

#include <wincrypt.h>

#include <bcrypt.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>

#include "ksp/key_import_blobs.h"
#include "ksp/ksp_common.h"
#include "log/log.h"
#include "token/device_library.h"
#include "util/encoding.h"
#include "util/rsa_key_fields.h"
#include "util/utils.h"

namespace {

constexpr DWORD kRsaMagic = BCRYPT_RSAPUBLIC_MAGIC;  // "RSA1", also the RSAPUBKEY magic

struct EccCurve {
    ULONG magic;
    int32_t algorithm;
    uint32_t bits;
    int32_t usage;
};

const EccCurve kEccCurves[] = {
    {BCRYPT_ECDSA_PUBLIC_P256_MAGIC, CALYTH_KEY_EC_P256, 256, CALYTH_USAGE_SIGNATURE},
    {BCRYPT_ECDH_PUBLIC_P256_MAGIC, CALYTH_KEY_EC_P256, 256, CALYTH_USAGE_EXCHANGE},
    {BCRYPT_ECDSA_PUBLIC_P384_MAGIC, CALYTH_KEY_EC_P384, 384, CALYTH_USAGE_SIGNATURE},
    {BCRYPT_ECDH_PUBLIC_P384_MAGIC, CALYTH_KEY_EC_P384, 384, CALYTH_USAGE_EXCHANGE},
    {BCRYPT_ECDSA_PUBLIC_P521_MAGIC, CALYTH_KEY_EC_P521, 521, CALYTH_USAGE_SIGNATURE},
    {BCRYPT_ECDH_PUBLIC_P521_MAGIC, CALYTH_KEY_EC_P521, 521, CALYTH_USAGE_EXCHANGE},
};

const EccCurve* eccCurveForMagic(ULONG magic) {
    for (const EccCurve& curve : kEccCurves) {
        if (curve.magic == magic)
            return &curve;
    }
    return nullptr;
}

// PUBLICKEYSTRUC followed by RSAPUBKEY, as a CryptoAPI public key blob starts.
struct LegacyRsaHeader {
    PUBLICKEYSTRUC blobHeader;
    RSAPUBKEY rsaPublicKey;
};
static_assert(sizeof(LegacyRsaHeader) == 20);

}  // namespace

SECURITY_STATUS importRsaPublicBlob(const BYTE* pbData, DWORD cbData, NCRYPT_KEY_HANDLE* phKey) {
    BCRYPT_RSAKEY_BLOB header{};
    if (cbData < sizeof header)
        return kspFail(KSP_NTE_BAD_DATA, "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB data too small");
    std::memcpy(&header, pbData, sizeof header);
    if (header.Magic != kRsaMagic)
        return kspFail(KSP_NTE_BAD_DATA, "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB invalid magic");
    uint64_t required = uint64_t{sizeof header} + header.cbPublicExp + header.cbModulus;
    if (cbData < required)
        return kspFail(KSP_NTE_BAD_DATA,
                       "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB data too small for key material");

    int32_t code = rsaSizeCodeForBits(header.BitLength);
    if (code == 0)
        return kspFail(KSP_NTE_NOT_SUPPORTED,
                       "KSP: Unsupported RSA key size: " + std::to_string(header.BitLength));
    // BitLength and cbModulus are not compared; a modulus longer than the object's field (4096 bits)
    // is refused as a key size the provider cannot hold.
    if (header.cbModulus > KSP_PUBLIC_KEY_ROOM)
        return kspFail(KSP_NTE_NOT_SUPPORTED,
                       "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB modulus too long, cbModulus=" +
                           std::to_string(header.cbModulus));

    std::unique_ptr<KspKey> key = newImportedKey();
    if (!key)
        return KSP_NTE_NO_MEMORY;
    const BYTE* modulus = pbData + sizeof header + header.cbPublicExp;
    std::memcpy(key->publicKey, modulus, header.cbModulus);
    key->publicKeyLength = header.cbModulus;
    key->bits = header.BitLength;
    key->algorithm = code;
    key->finalized = 1;
    handOut(std::move(key), phKey);
    logDebug("KSP: RSA public key imported, bits=" + std::to_string(header.BitLength));
    return KSP_SUCCESS;
}

SECURITY_STATUS importEccPublicBlob(const BYTE* pbData, DWORD cbData, NCRYPT_KEY_HANDLE* phKey) {
    BCRYPT_ECCKEY_BLOB header{};
    if (cbData < sizeof header)
        return kspFail(KSP_NTE_BAD_DATA, "KSPImportKey: BCRYPT_ECCPUBLIC_BLOB too small");
    std::memcpy(&header, pbData, sizeof header);
    uint64_t coordinates = 2 * uint64_t{header.cbKey};
    if (cbData < sizeof header + coordinates)
        return kspFail(KSP_NTE_BAD_DATA,
                       "KSPImportKey: BCRYPT_ECCPUBLIC_BLOB data too small for key material");
    const EccCurve* curve = eccCurveForMagic(header.dwMagic);
    if (curve == nullptr)
        return kspFail(KSP_NTE_BAD_DATA, "KSPImportKey: unknown ECC blob magic");
    // cbKey is not held to the curve; a point longer than the object's field is refused as an
    // unsupported key size.
    if (1 + coordinates > KSP_PUBLIC_KEY_ROOM)
        return kspFail(KSP_NTE_NOT_SUPPORTED, "KSPImportKey: BCRYPT_ECCPUBLIC_BLOB point too long, cbKey=" +
                                                  std::to_string(header.cbKey));

    std::unique_ptr<KspKey> key = newImportedKey();
    if (!key)
        return KSP_NTE_NO_MEMORY;
    key->publicKey[0] = 0x04;
    std::memcpy(key->publicKey + 1, pbData + sizeof header, coordinates);
    key->publicKeyLength = static_cast<uint32_t>(1 + coordinates);
    key->algorithm = curve->algorithm;
    key->bits = curve->bits;
    key->usage = curve->usage;
    key->finalized = 1;
    handOut(std::move(key), phKey);
    logDebug("KSPImportKey: ECC public key imported, cbKey=" + std::to_string(header.cbKey));
    return KSP_SUCCESS;
}

SECURITY_STATUS importLegacyRsaPublicBlob(const BYTE* pbData, DWORD cbData, NCRYPT_KEY_HANDLE* phKey) {
    LegacyRsaHeader header{};
    if (cbData < sizeof header)
        return kspFail(KSP_NTE_BAD_DATA, "KSPImportKey: LEGACY_RSAPUBLIC_BLOB data too small for header");
    std::memcpy(&header, pbData, sizeof header);
    const RSAPUBKEY& rsa = header.rsaPublicKey;
    if (rsa.magic != kRsaMagic)
        return kspFail(KSP_NTE_BAD_DATA, "KSPImportKey: LEGACY_RSAPUBLIC_BLOB invalid magic");
    uint64_t modulusLength = rsa.bitlen / 8;
    if (cbData < sizeof header + modulusLength)
        return kspFail(KSP_NTE_BAD_DATA, "KSPImportKey: LEGACY_RSAPUBLIC_BLOB data too small for modulus");

    // The blob keeps the modulus little-endian; DER wants it big-endian.
    Bytes modulus;
    try {
        modulus.assign(pbData + sizeof header, pbData + sizeof header + modulusLength);
    } catch (const std::bad_alloc&) {
        return kspFail(KSP_NTE_NO_MEMORY,
                       "KSPImportKey: LEGACY_RSAPUBLIC_BLOB failed to allocate modulus buffer");
    }
    std::reverse(modulus.begin(), modulus.end());
    Utils utils;
    Bytes exponent = exponentBytes(rsa.pubexp, 3);
    std::string exponentHex = utils.bytesToHex(exponent.data(), static_cast<int>(exponent.size()));
    logDebug("KSP: Public exponent : " + exponentHex);

    int32_t code = rsaSizeCodeForBits(rsa.bitlen);
    if (code == 0)
        return kspFail(KSP_NTE_NOT_SUPPORTED, "KSP: Unsupported RSA key size");
    Bytes der = buildRsaSubjectPublicKeyInfo(
        utils.bytesToHex(modulus.data(), static_cast<int>(modulus.size())), exponentHex);
    // A 4096-bit key's DER (about 550 bytes) does not fit the object's 512-byte public key field.
    if (der.size() > KSP_PUBLIC_KEY_ROOM)
        return kspFail(KSP_NTE_NOT_SUPPORTED, "KSP: Unsupported RSA key size");

    std::unique_ptr<KspKey> key = newImportedKey();
    if (!key)
        return KSP_NTE_NO_MEMORY;
    std::memcpy(key->publicKey, der.data(), der.size());
    key->publicKeyLength = static_cast<uint32_t>(der.size());
    key->keyIdLength = KSP_KEY_ID_LENGTH;  // all-zero identifier
    key->bits = rsa.bitlen;
    key->algorithm = code;
    key->finalized = 1;
    handOut(std::move(key), phKey);
    logDebug("KSP: Legacy RSA public key imported successfully");
    return KSP_SUCCESS;
}
