// Key derivation from an ECDH secret: one hash, computed through the device library, over the
// secret alone or, for "SP800_56ACONCAT", over algorithm identifier, party-U information and the
// secret. There is no counter and no length field, so a derived key is at most one hash long.
#include <windows.h>

#include <ncrypt.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "ksp/kdf_parameters.h"
#include "ksp/ksp_common.h"
#include "token/device_library.h"
#include "token/wiped_bytes.h"

namespace {

constexpr const char* kEcdhMinimumFirmware = "2.0.0";
// Spelt as the token's host software spells it (bcrypt.h's name has a second underscore).
constexpr const wchar_t* kConcatKdf = L"SP800_56ACONCAT";

struct KdfHash {
    int code;
    DWORD size;
};

// Compared exactly; any other name, none included, is SHA-256.
KdfHash kdfHash(const std::u16string& name) {
    if (name == u"SHA1")
        return {CALYTH_HASH_SHA1, 20};
    if (name == u"SHA384")
        return {CALYTH_HASH_SHA384, 48};
    if (name == u"SHA512")
        return {CALYTH_HASH_SHA512, 64};
    return {CALYTH_HASH_SHA256, 32};
}

// Written into one allocation of the final size, so that no copy of the secret is left behind in a
// block the vector outgrew.
void hashInput(const KspSecret* secret, LPCWSTR pwszKDF, const KdfParameters& parameters, WipedBytes* input) {
    bool concat = sameWide(pwszKDF, kConcatKdf);
    size_t length = fieldLength(secret->secret, secret->length);
    input->bytes.reserve((concat ? parameters.algorithmId.size() + parameters.partyUInfo.size() : 0) +
                         length);
    if (concat) {
        input->bytes.insert(input->bytes.end(), parameters.algorithmId.begin(), parameters.algorithmId.end());
        input->bytes.insert(input->bytes.end(), parameters.partyUInfo.begin(), parameters.partyUInfo.end());
    }
    input->bytes.insert(input->bytes.end(), secret->secret, secret->secret + length);
}

// The digest through calyth_initHash / calyth_updateHash / calyth_finalHash; 0 or a status.
SECURITY_STATUS deviceHash(const KspProvider* provider, const KdfHash& hash, const WipedBytes& input,
                           WipedBytes* digest) {
    std::string serial = provider != nullptr ? provider->serial : std::string();
    void* context = provider != nullptr ? provider->deviceContext : nullptr;
    void* hashHandle = nullptr;
    int result = calyth_initHash(serial.c_str(), hash.code, &hashHandle, context);
    if (result != CALYTH_OK)
        return kspFail(KSP_NTE_INTERNAL_ERROR,
                       "KSPDeriveKey: calyth_initHash failed, ret=" + std::to_string(result));
    // A lost update would give a key over the wrong bytes: it fails the derivation as well.
    result = calyth_updateHash(hashHandle, input.data(), static_cast<int>(input.size()), context);
    if (result != CALYTH_OK)
        return kspFail(KSP_NTE_INTERNAL_ERROR,
                       "KSPDeriveKey: calyth_updateHash failed, ret=" + std::to_string(result));
    digest->bytes.assign(hash.size, 0);
    int length = static_cast<int>(hash.size);
    result = calyth_finalHash(hashHandle, digest->data(), &length, context);
    if (result != CALYTH_OK)
        return kspFail(KSP_NTE_INTERNAL_ERROR,
                       "KSPDeriveKey: calyth_finalHash failed, ret=" + std::to_string(result));
    return KSP_SUCCESS;
}

SECURITY_STATUS deriveKey(NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                          NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey, DWORD cbDerivedKey,
                          DWORD* pcbResult) {
    logDebug("KSPDeriveKey");
    const KspSecret* secret = kspSecretFrom(hSharedSecret);
    if (secret == nullptr || pcbResult == nullptr)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPDeriveKey: invalid parameter");
    if (secret->length == 0)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPDeriveKey: invalid secret handle");
    const KspProvider* provider = secret->provider;
    if (provider != nullptr && !firmwareAtLeast(provider->firmware, kEcdhMinimumFirmware))
        return kspFail(KSP_NTE_NOT_SUPPORTED,
                       "KSPDeriveKey: ECDH derive not supported on firmware " + provider->firmware);

    KdfParameters parameters;
    // A list that counts buffers but has no array cannot be walked: refused like any other
    // unusable argument.
    if (!readKdfParameters(pParameterList, &parameters))
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPDeriveKey: invalid parameter");
    // Both zeroed on every way out, failures included.
    WipedBytes input;
    hashInput(secret, pwszKDF, parameters, &input);
    if (input.size() > INT_MAX)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPDeriveKey: invalid parameter");

    KdfHash hash = kdfHash(parameters.hashName);
    WipedBytes digest;
    SECURITY_STATUS status = deviceHash(provider, hash, input, &digest);
    if (status != KSP_SUCCESS)
        return status;

    DWORD length = cbDerivedKey != 0 && cbDerivedKey <= hash.size ? cbDerivedKey : hash.size;
    *pcbResult = length;
    if (pbDerivedKey != nullptr && cbDerivedKey < length)
        status = kspFail(KSP_NTE_BUFFER_TOO_SMALL, "KSPDeriveKey: output buffer too small");
    else if (pbDerivedKey != nullptr) {
        std::memcpy(pbDerivedKey, digest.data(), length);
        logDebug("KSPDeriveKey: derived " + std::to_string(length) + " bytes");
    }
    return status;
}

}  // namespace

extern "C" SECURITY_STATUS WINAPI KSPDeriveKey(NCRYPT_PROV_HANDLE /*hProvider*/,
                                               NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                                               NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey,
                                               DWORD cbDerivedKey, DWORD* pcbResult, DWORD /*dwFlags*/) {
    return runKspOperation("KSPDeriveKey", [&] {
        return deriveKey(hSharedSecret, pwszKDF, pParameterList, pbDerivedKey, cbDerivedKey, pcbResult);
    });
}
