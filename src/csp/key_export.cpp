// Key export: only RSA public keys ever leave the provider; private keys stay on the token.
#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "csp/csp_context.h"
#include "csp/csp_entry_points.h"
#include "csp/entry_point_guard.h"
#include "csp/key_handle.h"
#include "csp/public_key_export.h"
#include "log/log.h"
#include "token/device_library.h"
#include "util/bounded_length.h"
#include "util/encoding.h"

namespace {

constexpr DWORD kPublicKeyBlobHeaderSize = sizeof(BLOBHEADER) + sizeof(RSAPUBKEY);  // 20
constexpr DWORD kRsaPublicMagic = 0x31415352;                                       // "RSA1"
constexpr DWORD kExportedExponent = 0x10001;

// The big-endian modulus of a token key pair: the stored bytes when they are a raw modulus, the
// modulus inside them when the token keeps DER.
Bytes storedModulus(const CalythKeyPair& keyPair) {
    int length = static_cast<int>(fieldLength(keyPair.publicKey, keyPair.publicKeyLength));
    Bytes modulus;
    if (length > 0 && isDerPublicKey(keyPair.publicKey, length) &&
        rsaModulusFromDer(keyPair.publicKey, length, &modulus))
        return modulus;
    return Bytes(keyPair.publicKey, keyPair.publicKey + length);
}

BOOL exportKey(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwBlobType, DWORD dwFlags, BYTE* pbData,
               DWORD* pcbDataLen) {
    logDebug("dwBlobType : " + std::to_string(dwBlobType));
    logDebug("dwFlags : " + std::to_string(dwFlags));
    if (hKey == 0 || pcbDataLen == nullptr)
        return failWithError(ERROR_INVALID_PARAMETER, "CPExportKey: hKey or pcbData is null");
    if (!isUsableContext(hProv))
        return failWithError(NTE_BAD_UID, "CPExportKey: context is null or not initialized");

    switch (dwBlobType) {
        case PUBLICKEYBLOB: {
            BOOL result =
                ExportPublicKeyComponents(cspContextFrom(hProv), keyHandleFrom(hKey), pbData, pcbDataLen);
            logDebug("Exportkey return status : " + std::to_string(result));
            return result;
        }
        case PRIVATEKEYBLOB:
            return failWithError(ERROR_ACCESS_DENIED, "CPExportKey: PRIVATEKEYBLOB export denied");
        default:
            return failWithError(NTE_BAD_TYPE,
                                 "CPExportKey: unsupported dwBlobType=" + std::to_string(dwBlobType));
    }
}

}  // namespace

BOOL ExportPublicKeyComponents(CspContext* context, const KEY_HANDLE* key, BYTE* pbData, DWORD* pcbDataLen) {
    std::vector<CalythKeyPair> keyPairs =
        calyth_getKeyPairList(context->serialNumber.c_str(), context->deviceContext);
    if (keyPairs.empty())
        return failWithError(NTE_BAD_KEY, "ExportPublicKeyComponents: key list is empty");
    auto match = std::find_if(keyPairs.begin(), keyPairs.end(), [&](const CalythKeyPair& keyPair) {
        return std::memcmp(keyPair.keyId, key->keyId, KEY_ID_LENGTH) == 0;
    });
    if (match == keyPairs.end())
        return failWithError(NTE_BAD_KEY, "ExportPublicKeyComponents: matching key not found in key list");
    if (match->keySizeCode != CALYTH_KEY_RSA_2048)
        return failWithError(NTE_BAD_KEY,
                             "ExportPublicKeyComponents: key algorithm is not RSA-2048, cannot export");

    Bytes modulus = storedModulus(*match);
    DWORD required = static_cast<DWORD>(modulus.size()) + kPublicKeyBlobHeaderSize;
    if (pbData == nullptr) {
        *pcbDataLen = required;
        logDebug("Emport public key more data required");
        SetLastError(ERROR_MORE_DATA);
        return TRUE;
    }
    if (*pcbDataLen < required)
        return failWithError(
            ERROR_MORE_DATA,
            "ExportPublicKeyComponents: output buffer too small, required=" + std::to_string(required));

    logDebug("key usage : " + std::to_string(key->algId));
    BLOBHEADER header{};
    header.bType = PUBLICKEYBLOB;
    header.bVersion = CUR_BLOB_VERSION;
    header.reserved = 0;
    header.aiKeyAlg = key->algId;
    RSAPUBKEY rsa{};
    rsa.magic = kRsaPublicMagic;
    rsa.bitlen = static_cast<DWORD>(modulus.size() * 8);
    rsa.pubexp = kExportedExponent;  // whatever the token key holds
    std::memcpy(pbData, &header, sizeof(header));
    std::memcpy(pbData + sizeof(header), &rsa, sizeof(rsa));
    // The token keeps the modulus big-endian; CryptoAPI wants it little-endian.
    std::reverse_copy(modulus.begin(), modulus.end(), pbData + kPublicKeyBlobHeaderSize);
    *pcbDataLen = required;
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}

extern "C" BOOL WINAPI CPExportKey(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTKEY /*hPubKey*/, DWORD dwBlobType,
                                   DWORD dwFlags, BYTE* pbData, DWORD* pcbDataLen) {
    logDebug("CPExportKey");
    return runEntryPoint("CPExportKey",
                         [&] { return exportKey(hProv, hKey, dwBlobType, dwFlags, pbData, pcbDataLen); });
}
