// KSPExportKey: the public half of a key in the BCrypt RSA, CryptoAPI (legacy) RSA and BCrypt ECC
// public blob formats. Private export is refused in every form. The bytes come from the key object;
// one that holds none is refilled from the token's key list first.
#include <windows.h>

#include <wincrypt.h>

#include <bcrypt.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ksp/ksp_common.h"
#include "log/log.h"
#include "token/device_library.h"
#include "token/key_lookup.h"

namespace {

enum class BlobForm { BcryptRsa, LegacyRsa, Ecc, Private, Unknown };

BlobForm blobForm(LPCWSTR pszBlobType) {
    if (sameWide(pszBlobType, BCRYPT_PRIVATE_KEY_BLOB) || sameWide(pszBlobType, LEGACY_RSAPRIVATE_BLOB))
        return BlobForm::Private;
    if (sameWide(pszBlobType, BCRYPT_RSAPUBLIC_BLOB) || sameWide(pszBlobType, BCRYPT_PUBLIC_KEY_BLOB))
        return BlobForm::BcryptRsa;
    if (sameWide(pszBlobType, LEGACY_RSAPUBLIC_BLOB))
        return BlobForm::LegacyRsa;
    if (sameWide(pszBlobType, BCRYPT_ECCPUBLIC_BLOB))
        return BlobForm::Ecc;
    return BlobForm::Unknown;
}

// Reads the public key of a key object that holds none from the token's key list (first pair with
// the same identifier); the object keeps it for later calls. No match, or a public key too long for
// the object, leaves it empty.
void refillPublicKey(const KspProvider* provider, KspKey* key) {
    if (key->publicKeyLength != 0)
        return;
    std::vector<CalythKeyPair> keyPairs =
        calyth_getKeyPairList(provider->serial.c_str(), provider->deviceContext);
    const CalythKeyPair* keyPair = findKeyPairById(keyPairs, key->keyId);
    if (keyPair == nullptr)
        return;
    copyTokenPublicKey(*keyPair, key);
}

void putWord(std::vector<unsigned char>* blob, size_t offset, uint32_t value) {
    std::memcpy(blob->data() + offset, &value, sizeof value);
}

ULONG eccMagic(int32_t algorithm, int32_t usage) {
    bool exchange = usage == CALYTH_USAGE_EXCHANGE;
    switch (algorithm) {
        case CALYTH_KEY_EC_P256:
            return exchange ? BCRYPT_ECDH_PUBLIC_P256_MAGIC : BCRYPT_ECDSA_PUBLIC_P256_MAGIC;
        case CALYTH_KEY_EC_P384:
            return exchange ? BCRYPT_ECDH_PUBLIC_P384_MAGIC : BCRYPT_ECDSA_PUBLIC_P384_MAGIC;
        default:
            return exchange ? BCRYPT_ECDH_PUBLIC_P521_MAGIC : BCRYPT_ECDSA_PUBLIC_P521_MAGIC;
    }
}

SECURITY_STATUS exportEccPublicBlob(const KspKey* key, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult) {
    logDebug("Enter to the BCRYPT_ECCPUBLIC_BLOB");
    size_t stored = fieldLength(key->publicKey, key->publicKeyLength);
    if (stored < 3 || key->publicKey[0] != 0x04)
        return kspFail(KSP_NTE_BAD_KEY, "KSPExportKey: ECC public key not available or invalid format");
    if (!isEcAlgorithm(key->algorithm))
        return kspFail(KSP_NTE_NOT_SUPPORTED, "KSPExportKey: key is not ECC");

    auto cbKey = static_cast<uint32_t>((stored - 1) / 2);
    DWORD size = static_cast<DWORD>(sizeof(BCRYPT_ECCKEY_BLOB)) + 2 * cbKey;
    std::vector<unsigned char> blob(size);
    putWord(&blob, 0, eccMagic(key->algorithm, key->usage));
    putWord(&blob, 4, cbKey);
    std::memcpy(blob.data() + sizeof(BCRYPT_ECCKEY_BLOB), key->publicKey + 1, 2 * size_t{cbKey});
    SECURITY_STATUS status = writeSizedOutput(blob.data(), size, pbOutput, cbOutput, pcbResult);
    if (status == KSP_NTE_BUFFER_TOO_SMALL)
        return kspFail(
            status, "KSPExportKey: BCRYPT_ECCPUBLIC_BLOB buffer too small, required=" + std::to_string(size));
    if (pbOutput != nullptr)
        logDebug("KSPExportKey: ECC public key exported, cbKey=" + std::to_string(cbKey));
    return status;
}

// The stored bytes are the modulus whatever they are: DER and EC points are exported as they stand.
SECURITY_STATUS exportRsaPublicBlob(const KspKey* key, bool legacy, PBYTE pbOutput, DWORD cbOutput,
                                    DWORD* pcbResult) {
    auto n = static_cast<uint32_t>(fieldLength(key->publicKey, key->publicKeyLength));
    if (n == 0)
        return kspFail(KSP_NTE_BAD_KEY, "KSP: No public key data available for export");
    const unsigned char* modulus = key->publicKey;
    std::vector<unsigned char> blob;
    if (legacy) {
        blob.resize(20 + n);
        blob[0] = PUBLICKEYBLOB;
        blob[1] = CUR_BLOB_VERSION;
        putWord(&blob, 4, CALG_RSA_KEYX);
        putWord(&blob, 8, BCRYPT_RSAPUBLIC_MAGIC);
        putWord(&blob, 12, n * 8);
        putWord(&blob, 16, 0x10001);
        std::reverse_copy(modulus, modulus + n, blob.begin() + 20);
    } else {
        blob.resize(sizeof(BCRYPT_RSAKEY_BLOB) + 3 + n);
        putWord(&blob, 0, BCRYPT_RSAPUBLIC_MAGIC);
        putWord(&blob, 4, n * 8);
        putWord(&blob, 8, 3);
        putWord(&blob, 12, n);
        const unsigned char exponent[] = {0x01, 0x00, 0x01};
        std::memcpy(blob.data() + sizeof(BCRYPT_RSAKEY_BLOB), exponent, sizeof exponent);
        std::memcpy(blob.data() + sizeof(BCRYPT_RSAKEY_BLOB) + sizeof exponent, modulus, n);
    }

    DWORD size = static_cast<DWORD>(blob.size());
    SECURITY_STATUS status = writeSizedOutput(blob.data(), size, pbOutput, cbOutput, pcbResult);
    if (status == KSP_NTE_BUFFER_TOO_SMALL)
        return kspFail(status, std::string(legacy ? "KSPExportKey: LEGACY_RSAPUBLIC_BLOB"
                                                  : "KSPExportKey: BCRYPT_RSAPUBLIC_BLOB") +
                                   " output buffer too small, required=" + std::to_string(size));
    if (pbOutput != nullptr && !legacy)
        logDebug("KSP: Public key exported, bits=" + std::to_string(n * 8));
    return status;
}

SECURITY_STATUS exportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszBlobType,
                          PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult) {
    logDebug("KSPExportKey");
    const KspProvider* provider = usableProvider(hProvider);
    if (provider == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPExportKey: provider handle is null or not initialized");
    KspKey* key = kspKeyFrom(hKey);
    if (key == nullptr || pszBlobType == nullptr || pcbResult == nullptr)
        return kspFail(KSP_NTE_INVALID_PARAMETER,
                       "KSPExportKey: key handle, pszBlobType, or pcbResult is null");

    BlobForm form = blobForm(pszBlobType);
    if (form == BlobForm::Private)
        return kspFail(KSP_NTE_NOT_SUPPORTED, "KSPExportKey: private key export not supported");
    if (form == BlobForm::Unknown)
        return kspFail(KSP_NTE_NOT_SUPPORTED, "KSP: Unsupported blob type for export");
    refillPublicKey(provider, key);
    if (form == BlobForm::Ecc)
        return exportEccPublicBlob(key, pbOutput, cbOutput, pcbResult);
    return exportRsaPublicBlob(key, form == BlobForm::LegacyRsa, pbOutput, cbOutput, pcbResult);
}

}  // namespace

extern "C" SECURITY_STATUS WINAPI KSPExportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                               NCRYPT_KEY_HANDLE /*hExportKey*/, LPCWSTR pszBlobType,
                                               NCryptBufferDesc* /*pParameterList*/, PBYTE pbOutput,
                                               DWORD cbOutput, DWORD* pcbResult, DWORD /*dwFlags*/) {
    return runKspOperation("KSPExportKey", [&] {
        return exportKey(hProvider, hKey, pszBlobType, pbOutput, cbOutput, pcbResult);
    });
}
