// Signing on the token and verification in the device library. CNG hands signatures in the token's
// own big-endian order (r followed by s for EC keys), so no byte is reversed here.
#include <windows.h>

#include <ncrypt.h>

#include <algorithm>
#include <climits>
#include <string>

#include "ksp/ksp_common.h"
#include "token/device_library.h"
#include "token/key_lookup.h"
#include "token/sso_retry.h"
#include "util/encoding.h"

namespace {

constexpr DWORD kPadPkcs1 = 0x2;  // BCRYPT_PAD_PKCS1
constexpr DWORD kPadPss = 0x8;    // BCRYPT_PAD_PSS
constexpr const char* kPssMinimumFirmware = "2.0.0";

// EC signatures are r||s, each the byte length of the curve; RSA signatures one modulus.
DWORD signatureSize(const KspKey* key) {
    if (isEcAlgorithm(key->algorithm))
        return 2 * ((key->bits + 7) / 8);
    return key->bits / 8;
}

// PSS needs firmware 2.0.0 or later on the token the provider works on.
SECURITY_STATUS pssFirmwareGate(const KspProvider* provider, const std::string& operation) {
    if (!firmwareAtLeast(provider->firmware, kPssMinimumFirmware))
        return kspFail(KSP_NTE_NOT_SUPPORTED,
                       operation + ": PSS not supported on firmware " + provider->firmware);
    return KSP_SUCCESS;
}

// The stored public key never counts past the key object's field.
int storedPublicKeyLength(const KspKey* key) {
    return static_cast<int>(fieldLength(key->publicKey, key->publicKeyLength));
}

SECURITY_STATUS signHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbHashValue,
                         DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature, DWORD* pcbResult,
                         DWORD dwFlags) {
    logDebug("KSPSignHash");
    KspProvider* provider = usableProvider(hProvider);
    if (provider == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPSignHash: provider handle is null or not initialized");
    const KspKey* key = kspKeyFrom(hKey);
    if (key == nullptr || pcbResult == nullptr)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPSignHash: key handle or pcbResult is null");

    DWORD size = signatureSize(key);
    if (pbSignature == nullptr) {
        *pcbResult = size;
        logDebug("KSP: SignHash size query, returning " + std::to_string(size));
        return KSP_SUCCESS;
    }
    if (pbHashValue == nullptr || cbHashValue == 0)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPSignHash: pbHashValue is null or cbHashValue is zero");
    if (cbSignature < size) {
        *pcbResult = size;
        return kspFail(KSP_NTE_BUFFER_TOO_SMALL,
                       "KSPSignHash: signature buffer too small, required=" + std::to_string(size));
    }

    SECURITY_STATUS gate = kspPinGateHonouringSilent(provider, dwFlags, "KSPSignHash");
    if (gate != KSP_SUCCESS)
        return gate;

    // Only BCRYPT_PAD_PSS alone selects PSS; both flags together sign PKCS #1.
    bool pss = (dwFlags & (kPadPkcs1 | kPadPss)) == kPadPss;
    logDebug(std::string("KSP: SignHash - padding=") + (pss ? "PSS" : "PKCS1"));
    if (pss) {
        SECURITY_STATUS firmware = pssFirmwareGate(provider, "KSPSignHash");
        if (firmware != KSP_SUCCESS)
            return firmware;
    }
    logDebug("KSP: SignHash - credential: " + keyIdHex(key->keyId));
    logDebug("KSP: SignHash - hash length: " + std::to_string(cbHashValue));

    // The device writes into the caller's buffer with cbSignature as its room and reports the length.
    int room = deviceLength(cbSignature);
    int signatureLength = room;
    int result = 0;
    const SsoRetryTexts retryTexts{
        .expired = "KSP: SignHash SSO expired, re-prompting for PIN",
        .recheckFailed = "KSPSignHash: password validation failed after SSO expiry"};
    SsoRetryOutcome outcome = callWithSsoRetry(
        provider->serial, retryTexts,
        [&] {
            signatureLength = room;
            WipedText password{devicePassword(provider)};
            return calyth_signHash(provider->serial.c_str(), key->keyId, password.c_str(), pbHashValue,
                                   deviceLength(cbHashValue), pbSignature, &signatureLength, false,
                                   provider->deviceContext, pss);
        },
        [&] { return kspPinCheckIgnoringSilent(provider); }, &result);
    if (outcome == SsoRetryOutcome::PinRecheckFailed)
        return KSP_NTE_FAIL;
    if (result != CALYTH_OK)
        return kspFail(KSP_NTE_INTERNAL_ERROR, "KSP: Sign hash failed: " + std::to_string(result));

    // A reported length outside the room is not believed: never more than the caller's buffer.
    signatureLength = boundedDeviceLength(signatureLength, room);
    *pcbResult = static_cast<DWORD>(signatureLength);
    logDebug("KSP: SignHash success, signature length=" + std::to_string(signatureLength));
    return KSP_SUCCESS;
}

SECURITY_STATUS verifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbHashValue,
                                DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature, DWORD dwFlags) {
    logDebug("KSPVerifySignature");
    KspProvider* provider = usableProvider(hProvider);
    if (provider == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE,
                       "KSPVerifySignature: provider handle is null or not initialized");
    const KspKey* key = kspKeyFrom(hKey);
    if (key == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPVerifySignature: key handle is null");
    if (pbHashValue == nullptr || cbHashValue == 0 || pbSignature == nullptr || cbSignature == 0)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPVerifySignature: invalid input parameters");
    int storedLength = storedPublicKeyLength(key);
    if (storedLength == 0)
        return kspFail(KSP_NTE_BAD_KEY, "KSP: No public key for verification");

    Bytes publicKey;
    if (isEcAlgorithm(key->algorithm)) {
        logDebug("KSP: ECC public key, passing raw EC point");
        publicKey.assign(key->publicKey, key->publicKey + storedLength);
    } else {
        if (isDerPublicKey(key->publicKey, storedLength))
            logDebug("KSP: RSA Public key is already DER encoded");
        else
            logDebug("KSP: RSA Public key is raw modulus, converting to DER");
        publicKey = derPublicKeyFromStored(key->publicKey, storedLength);
    }
    logDebug("KSP: VerifySignature - hash length: " + std::to_string(cbHashValue));
    logDebug("KSP: VerifySignature - public key DER length: " + std::to_string(publicKey.size()));
    logDebug("KSP: VerifySignature - signature length: " + std::to_string(cbSignature));

    // Unlike signing, BCRYPT_PAD_PSS selects PSS whatever else is set.
    bool pss = (dwFlags & kPadPss) != 0;
    logDebug(std::string("KSP: VerifySignature - padding=") + (pss ? "PSS" : "PKCS1"));
    if (pss) {
        SECURITY_STATUS firmware = pssFirmwareGate(provider, "KSPVerifySignature");
        if (firmware != KSP_SUCCESS)
            return firmware;
    }

    int result = calyth_verifySignatureHash(static_cast<unsigned int>(key->algorithm),
                                            provider->serial.c_str(), pbHashValue, deviceLength(cbHashValue),
                                            publicKey.data(), static_cast<int>(publicKey.size()), pbSignature,
                                            deviceLength(cbSignature), provider->deviceContext, pss);
    if (result != CALYTH_OK)
        return kspFail(KSP_NTE_BAD_SIGNATURE, "KSP: Verify signature failed: " + std::to_string(result));
    logDebug("KSP: Verify signature success");
    return KSP_SUCCESS;
}

}  // namespace

extern "C" {

SECURITY_STATUS WINAPI KSPSignHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                   VOID* /*pPaddingInfo*/, PBYTE pbHashValue, DWORD cbHashValue,
                                   PBYTE pbSignature, DWORD cbSignature, DWORD* pcbResult, DWORD dwFlags) {
    return runKspOperation("KSPSignHash", [&] {
        return signHash(hProvider, hKey, pbHashValue, cbHashValue, pbSignature, cbSignature, pcbResult,
                        dwFlags);
    });
}

SECURITY_STATUS WINAPI KSPVerifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                          VOID* /*pPaddingInfo*/, PBYTE pbHashValue, DWORD cbHashValue,
                                          PBYTE pbSignature, DWORD cbSignature, DWORD dwFlags) {
    return runKspOperation("KSPVerifySignature", [&] {
        return verifySignature(hProvider, hKey, pbHashValue, cbHashValue, pbSignature, cbSignature, dwFlags);
    });
}

}  // extern "C"
