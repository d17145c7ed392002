// ECDH on the token: the shared secret of a token EC private key and a peer's public point, kept in
// a secret object until KSPFreeSecret wipes it.
#include <windows.h>

#include <ncrypt.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "ksp/ksp_common.h"
#include "token/device_library.h"
#include "token/device_output.h"

namespace {

constexpr const char* kEcdhMinimumFirmware = "2.0.0";
constexpr unsigned char kUncompressedPoint = 0x04;

// Stored lengths never count past the key object's field.
size_t storedPublicKeyLength(const KspKey* key) {
    return fieldLength(key->publicKey, key->publicKeyLength);
}

bool isUncompressedPoint(const KspKey* key) {
    return storedPublicKeyLength(key) >= 3 && key->publicKey[0] == kUncompressedPoint;
}

// Runs the device's ECDH and keeps at most one P-521 coordinate of what it answers.
SECURITY_STATUS computeSecret(KspProvider* provider, const KspKey* privateKey, const KspKey* peerKey,
                              NCRYPT_SECRET_HANDLE* phAgreedSecret) {
    WipedText pin{devicePassword(provider)};
    DeviceOutput shared;
    int result = calyth_ecdhDerive(provider->serial.c_str(), privateKey->keyId, pin.c_str(),
                                   peerKey->publicKey, static_cast<int>(storedPublicKeyLength(peerKey)),
                                   &shared.bytes, &shared.length, provider->deviceContext);
    if (result != CALYTH_OK || shared.bytes == nullptr || shared.length < 1)
        return kspFail(KSP_NTE_INTERNAL_ERROR,
                       "KSPSecretAgreement: ECDH derive failed, ret=" + std::to_string(result));

    auto* secret = new (std::nothrow) KspSecret{};
    if (secret == nullptr)
        return kspFail(KSP_NTE_NO_MEMORY, "KSPSecretAgreement: out of memory");
    auto length = static_cast<uint32_t>(fieldLength(secret->secret, shared.length));
    std::memcpy(secret->secret, shared.bytes, length);
    secret->length = length;
    secret->provider = provider;
    *phAgreedSecret = reinterpret_cast<NCRYPT_SECRET_HANDLE>(secret);
    logDebug("KSPSecretAgreement: ECDH shared secret computed, len=" + std::to_string(length));
    return KSP_SUCCESS;
}

SECURITY_STATUS secretAgreement(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hPrivKey,
                                NCRYPT_KEY_HANDLE hPubKey, NCRYPT_SECRET_HANDLE* phAgreedSecret) {
    logDebug("KSPSecretAgreement");
    KspProvider* provider = usableProvider(hProvider);
    if (provider == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPSecretAgreement: provider not initialized");
    if (phAgreedSecret == nullptr)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPSecretAgreement: phAgreedSecret is null");
    if (!firmwareAtLeast(provider->firmware, kEcdhMinimumFirmware))
        return kspFail(KSP_NTE_NOT_SUPPORTED,
                       "KSPSecretAgreement: ECDH not supported on firmware " + provider->firmware);
    const KspKey* privateKey = kspKeyFrom(hPrivKey);
    const KspKey* peerKey = kspKeyFrom(hPubKey);
    if (privateKey == nullptr || peerKey == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPSecretAgreement: key handle is null");
    if (privateKey->keyIdLength == 0)
        return kspFail(KSP_NTE_BAD_KEY,
                       "KSPSecretAgreement: private key has no credential ID (not a device key)");
    // Checked before the PIN check, so a bad peer never makes the user type a PIN.
    if (!isUncompressedPoint(peerKey))
        return kspFail(KSP_NTE_BAD_KEY, "KSPSecretAgreement: peer public key is not uncompressed EC point");
    if (!kspPinCheckIgnoringSilent(provider))
        return kspFail(KSP_NTE_FAIL, "KSPSecretAgreement: password validation failed");
    return computeSecret(provider, privateKey, peerKey, phAgreedSecret);
}

SECURITY_STATUS freeSecret(NCRYPT_SECRET_HANDLE hSharedSecret) {
    logDebug("KSPFreeSecret");
    KspSecret* secret = kspSecretFrom(hSharedSecret);
    if (secret == nullptr)
        return KSP_SUCCESS;
    SecureZeroMemory(secret->secret, sizeof secret->secret);
    delete secret;
    return KSP_SUCCESS;
}

}  // namespace

extern "C" {

SECURITY_STATUS WINAPI KSPSecretAgreement(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hPrivKey,
                                          NCRYPT_KEY_HANDLE hPubKey, NCRYPT_SECRET_HANDLE* phAgreedSecret,
                                          DWORD /*dwFlags*/) {
    return runKspOperation("KSPSecretAgreement",
                           [&] { return secretAgreement(hProvider, hPrivKey, hPubKey, phAgreedSecret); });
}

SECURITY_STATUS WINAPI KSPFreeSecret(NCRYPT_PROV_HANDLE /*hProvider*/, NCRYPT_SECRET_HANDLE hSharedSecret) {
    return runKspOperation("KSPFreeSecret", [&] { return freeSecret(hSharedSecret); });
}

}  // extern "C"
