// Public-key blobs for KSPImportKey: the BCrypt RSA and ECC public blobs and the CryptoAPI (legacy)
// RSA public blob, read by the byte-level parsers of util/cng_blobs.h and util/capi_blobs.h.
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
#include "util/capi_blobs.h"
#include "util/cng_blobs.h"
#include "util/encoding.h"
#include "util/rsa_key_fields.h"
#include "util/utils.h"

static_assert(sizeof(BCRYPT_RSAKEY_BLOB) == kCngRsaHeaderSize &&
              BCRYPT_RSAPUBLIC_MAGIC == kCngRsaPublicMagic);
static_assert(sizeof(BCRYPT_ECCKEY_BLOB) == kCngEccHeaderSize);
static_assert(BCRYPT_ECDSA_PUBLIC_P256_MAGIC == kCngEcdsaP256Magic &&
              BCRYPT_ECDH_PUBLIC_P256_MAGIC == kCngEcdhP256Magic);
static_assert(BCRYPT_ECDSA_PUBLIC_P384_MAGIC == kCngEcdsaP384Magic &&
              BCRYPT_ECDH_PUBLIC_P384_MAGIC == kCngEcdhP384Magic);
static_assert(BCRYPT_ECDSA_PUBLIC_P521_MAGIC == kCngEcdsaP521Magic &&
              BCRYPT_ECDH_PUBLIC_P521_MAGIC == kCngEcdhP521Magic);
static_assert(sizeof(PUBLICKEYSTRUC) + sizeof(RSAPUBKEY) == kCapiRsaPublicHeaderSize);

SECURITY_STATUS importRsaPublicBlob(const BYTE* pbData, DWORD cbData, NCRYPT_KEY_HANDLE* phKey) {
    CngRsaPublicBlob blob;
    switch (parseCngRsaPublicBlob(pbData, cbData, KSP_PUBLIC_KEY_ROOM, &blob)) {
        case CngBlobResult::TooShortForHeader:
            return kspFail(KSP_NTE_BAD_DATA, "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB data too small");
        case CngBlobResult::BadMagic:
            return kspFail(KSP_NTE_BAD_DATA, "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB invalid magic");
        case CngBlobResult::TooShortForMaterial:
            return kspFail(KSP_NTE_BAD_DATA,
                           "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB data too small for key material");
        case CngBlobResult::UnsupportedSize:
            return kspFail(KSP_NTE_NOT_SUPPORTED,
                           "KSP: Unsupported RSA key size: " + std::to_string(blob.bitLength));
        case CngBlobResult::TooLong:
            // A modulus longer than the object's field (4096 bits) is a key size the provider cannot hold.
            return kspFail(KSP_NTE_NOT_SUPPORTED,
                           "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB modulus too long, cbModulus=" +
                               std::to_string(blob.modulusLength));
        case CngBlobResult::Ok:
            break;
    }

    std::unique_ptr<KspKey> key = newImportedKey();
    if (!key)
        return KSP_NTE_NO_MEMORY;
    std::memcpy(key->publicKey, blob.modulus, blob.modulusLength);
    key->publicKeyLength = blob.modulusLength;
    key->bits = blob.bitLength;
    key->algorithm = blob.sizeCode;
    key->finalized = 1;
    handOut(std::move(key), phKey);
    logDebug("KSP: RSA public key imported, bits=" + std::to_string(blob.bitLength));
    return KSP_SUCCESS;
}

SECURITY_STATUS importEccPublicBlob(const BYTE* pbData, DWORD cbData, NCRYPT_KEY_HANDLE* phKey) {
    CngEccPublicBlob blob;
    switch (parseCngEccPublicBlob(pbData, cbData, KSP_PUBLIC_KEY_ROOM, &blob)) {
        case CngBlobResult::TooShortForHeader:
            return kspFail(KSP_NTE_BAD_DATA, "KSPImportKey: BCRYPT_ECCPUBLIC_BLOB too small");
        case CngBlobResult::TooShortForMaterial:
            return kspFail(KSP_NTE_BAD_DATA,
                           "KSPImportKey: BCRYPT_ECCPUBLIC_BLOB data too small for key material");
        case CngBlobResult::BadMagic:
            return kspFail(KSP_NTE_BAD_DATA, "KSPImportKey: unknown ECC blob magic");
        case CngBlobResult::UnsupportedSize:
        case CngBlobResult::TooLong:
            // cbKey is not held to the curve; a point longer than the object's field is an unsupported size.
            return kspFail(KSP_NTE_NOT_SUPPORTED,
                           "KSPImportKey: BCRYPT_ECCPUBLIC_BLOB point too long, cbKey=" +
                               std::to_string(blob.keyLength));
        case CngBlobResult::Ok:
            break;
    }

    std::unique_ptr<KspKey> key = newImportedKey();
    if (!key)
        return KSP_NTE_NO_MEMORY;
    uint64_t coordinates = 2 * uint64_t{blob.keyLength};
    key->publicKey[0] = 0x04;
    // The blob's length was checked against the key object's field, so it fits a 32-bit size_t.
    std::memcpy(key->publicKey + 1, blob.point, static_cast<size_t>(coordinates));
    key->publicKeyLength = static_cast<uint32_t>(1 + coordinates);
    key->algorithm = blob.algorithm;
    key->bits = blob.bits;
    key->usage = blob.usage;
    key->finalized = 1;
    handOut(std::move(key), phKey);
    logDebug("KSPImportKey: ECC public key imported, cbKey=" + std::to_string(blob.keyLength));
    return KSP_SUCCESS;
}

SECURITY_STATUS importLegacyRsaPublicBlob(const BYTE* pbData, DWORD cbData, NCRYPT_KEY_HANDLE* phKey) {
    // The whole header before its magic, unlike CPImportKey.
    if (cbData < kCapiRsaPublicHeaderSize)
        return kspFail(KSP_NTE_BAD_DATA, "KSPImportKey: LEGACY_RSAPUBLIC_BLOB data too small for header");
    CapiRsaPublicKey rsa;
    switch (parseCapiRsaPublicKey(pbData, cbData, &rsa)) {
        case CapiPublicKeyResult::BadMagic:
            return kspFail(KSP_NTE_BAD_DATA, "KSPImportKey: LEGACY_RSAPUBLIC_BLOB invalid magic");
        case CapiPublicKeyResult::TooShort:
            return kspFail(KSP_NTE_BAD_DATA,
                           "KSPImportKey: LEGACY_RSAPUBLIC_BLOB data too small for modulus");
        case CapiPublicKeyResult::NoMemory:
            return kspFail(KSP_NTE_NO_MEMORY,
                           "KSPImportKey: LEGACY_RSAPUBLIC_BLOB failed to allocate modulus buffer");
        case CapiPublicKeyResult::Ok:
            break;
    }
    const Bytes& modulus = rsa.modulus;
    Utils utils;
    Bytes exponent = exponentBytes(rsa.exponent, 3);
    std::string exponentHex = utils.bytesToHex(exponent.data(), static_cast<int>(exponent.size()));
    logDebug("KSP: Public exponent : " + exponentHex);

    int32_t code = rsaSizeCodeForBits(rsa.bitLength);
    if (code == 0)
        return kspFail(KSP_NTE_NOT_SUPPORTED, "KSP: Unsupported RSA key size");
    Bytes der = buildRsaSubjectPublicKeyInfo(
        utils.bytesToHex(modulus.data(), static_cast<int>(modulus.size())), exponentHex);
    // The room holds an RSA-4096 key's DER; only an exponent far longer than any real one is refused.
    if (der.size() > KSP_PUBLIC_KEY_ROOM)
        return kspFail(KSP_NTE_NOT_SUPPORTED, "KSP: Unsupported RSA key size");

    std::unique_ptr<KspKey> key = newImportedKey();
    if (!key)
        return KSP_NTE_NO_MEMORY;
    std::memcpy(key->publicKey, der.data(), der.size());
    key->publicKeyLength = static_cast<uint32_t>(der.size());
    key->keyIdLength = KEY_ID_LENGTH;  // all-zero identifier
    key->bits = rsa.bitLength;
    key->algorithm = code;
    key->finalized = 1;
    handOut(std::move(key), phKey);
    logDebug("KSP: Legacy RSA public key imported successfully");
    return KSP_SUCCESS;
}
