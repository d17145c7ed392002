// Encryption and decryption with a key object. A key holding AES material (imported from an
// encrypted transport blob) goes through the device library's AES functions with the process-wide
// IV for CBC; a token RSA key pair encrypts with its public key in the library and decrypts on the
// token after the PIN check. The padding information is never read: the library picks the OAEP hash
// and the token finds the padding of a ciphertext itself.
#include <windows.h>

#include <ncrypt.h>

#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include "ksp/ksp_common.h"
#include "token/device_library.h"
#include "token/device_output.h"
#include "token/process_state.h"
#include "token/rsa_encryption_type.h"
#include "token/sso_retry.h"
#include "token/wiped_bytes.h"
#include "util/encoding.h"
#include "util/utils.h"

namespace {

constexpr DWORD kPadOaep = 0x4;  // NCRYPT_PAD_OAEP_FLAG
// The AES material never counts past the key object's field.
int symmetricLength(const KspKey* key) {
    return static_cast<int>(fieldLength(key->symmetricKey, key->symmetricKeyLength));
}

bool isEcb(const KspKey* key) {
    return key->chainingMode != KSP_CHAINING_CBC;
}

EncryptionType aesEncryptionType(const KspKey* key) {
    bool aes128 = symmetricLength(key) == 16;
    if (isEcb(key))
        return aes128 ? ENCRYPTION_AES_128_ECB : ENCRYPTION_AES_256_ECB;
    return aes128 ? ENCRYPTION_AES_128_CBC : ENCRYPTION_AES_256_CBC;
}

// CBC uses the IV shared with the CryptoAPI side, copied when the operation starts; ECB none.
struct IvArgument {
    std::vector<unsigned char> copy;
    const unsigned char* bytes() const { return copy.empty() ? nullptr : copy.data(); }
    int length() const { return static_cast<int>(copy.size()); }
};

// writeSizedOutput with an ERROR line for a short buffer: `shortBuffer` followed by the size.
SECURITY_STATUS writeResult(const void* value, DWORD size, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                            const char* shortBuffer) {
    SECURITY_STATUS status = writeSizedOutput(value, size, pbOutput, cbOutput, pcbResult);
    if (status == KSP_NTE_BUFFER_TOO_SMALL)
        return kspFail(status, shortBuffer + std::to_string(size));
    return status;
}

IvArgument ivFor(const KspKey* key) {
    if (isEcb(key))
        return {};
    return {processIv()};
}

SECURITY_STATUS encryptSymmetric(const KspProvider* provider, const KspKey* key, PBYTE pbInput, DWORD cbInput,
                                 PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult) {
    logDebug(isEcb(key) ? "KSP: Symmetric encrypt ECB mode" : "KSP: Symmetric encrypt CBC mode");
    IvArgument iv = ivFor(key);
    // Runs for a size query too: the length is the library's to tell.
    DeviceOutput output;
    int result = calyth_encrypt_aes(provider->serial.c_str(), aesEncryptionType(key), key->symmetricKey,
                                    symmetricLength(key), pbInput, deviceLength(cbInput), &output.bytes,
                                    &output.length, false, iv.bytes(), iv.length(), nullptr, 0,
                                    provider->deviceContext);
    if (result != CALYTH_OK)
        return kspFail(KSP_NTE_INTERNAL_ERROR, "KSP: Symmetric encryption failed: " + std::to_string(result));

    DWORD length = static_cast<DWORD>(output.size());
    SECURITY_STATUS status = writeResult(output.bytes, length, pbOutput, cbOutput, pcbResult,
                                         "KSPEncrypt: symmetric output buffer too small, required=");
    if (status != KSP_SUCCESS || pbOutput == nullptr)
        return status;
    logDebug("KSP: Symmetric encrypt success, length: " + std::to_string(length));
    return KSP_SUCCESS;
}

SECURITY_STATUS encryptRsa(const KspProvider* provider, const KspKey* key, PBYTE pbInput, DWORD cbInput,
                           PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    DWORD required = key->bits / 8;
    if (pbOutput == nullptr) {
        *pcbResult = required;
        return KSP_SUCCESS;
    }
    if (cbOutput < required) {
        *pcbResult = required;
        return kspFail(KSP_NTE_BUFFER_TOO_SMALL,
                       "KSPEncrypt: output buffer too small, required=" + std::to_string(required));
    }

    int storedLength = static_cast<int>(fieldLength(key->publicKey, key->publicKeyLength));
    if (isDerPublicKey(key->publicKey, storedLength))
        logDebug("KSP: Public key is already DER encoded");
    else
        logDebug("KSP: Public key is raw modulus, converting to DER");
    Bytes publicKey = derPublicKeyFromStored(key->publicKey, storedLength);
    PaddingMode padding = (dwFlags & kPadOaep) != 0 ? PADDING_OAEP : PADDING_PKCS1;

    // Never the caller's buffer: the device writes a whole modulus into a block of our own.
    std::vector<unsigned char> ciphertext(std::max<size_t>(required, rsaCiphertextRoom(publicKey)));
    int ciphertextLength = 0;
    int result = calyth_encrypt(rsaEncryptionTypeForSize(key->bits), padding, pbInput, deviceLength(cbInput),
                                ciphertext.data(), &ciphertextLength, publicKey.data(),
                                static_cast<int>(publicKey.size()), provider->deviceContext);
    if (result != CALYTH_OK)
        return kspFail(KSP_NTE_INTERNAL_ERROR, "KSP: Encrypt failed: " + std::to_string(result));
    if (!lengthFits(ciphertextLength, ciphertext.size()))
        return kspFail(KSP_NTE_INTERNAL_ERROR,
                       "KSP: Encrypt failed: ciphertext length " + std::to_string(ciphertextLength));

    // A key whose real modulus is longer than its object claims gives a longer ciphertext.
    SECURITY_STATUS status =
        writeResult(ciphertext.data(), static_cast<DWORD>(ciphertextLength), pbOutput, cbOutput, pcbResult,
                    "KSPEncrypt: output buffer too small, required=");
    if (status != KSP_SUCCESS)
        return status;
    logDebug("KSP: Encrypt success");
    return KSP_SUCCESS;
}

SECURITY_STATUS encrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                        PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    logDebug("KSPEncrypt");
    const KspProvider* provider = usableProvider(hProvider);
    if (provider == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPEncrypt: provider handle is null or not initialized");
    const KspKey* key = kspKeyFrom(hKey);
    if (key == nullptr || pcbResult == nullptr)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPEncrypt: key handle or pcbResult is null");
    if (pbInput == nullptr || cbInput == 0)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPEncrypt: pbInput is null or cbInput is zero");

    if (key->symmetricKeyLength > 0)
        return encryptSymmetric(provider, key, pbInput, cbInput, pbOutput, cbOutput, pcbResult);
    return encryptRsa(provider, key, pbInput, cbInput, pbOutput, cbOutput, pcbResult, dwFlags);
}

SECURITY_STATUS decryptRsa(const KspProvider* provider, const KspKey* key, PBYTE pbInput, DWORD cbInput,
                           PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    SECURITY_STATUS gate = kspPinGateHonouringSilent(provider, dwFlags, "KSPDecrypt");
    if (gate != KSP_SUCCESS)
        return gate;

    DeviceOutput plain;
    int result = 0;
    const SsoRetryTexts retryTexts{
        .expired = "KSP: Decrypt SSO expired, re-prompting for PIN",
        .recheckFailed = "KSPDecrypt: password validation failed after SSO expiry"};
    SsoRetryOutcome outcome = callWithSsoRetry(
        provider->serial, retryTexts,
        [&] {
            plain.release();
            WipedText password{devicePassword(provider)};
            return calyth_decrypt(provider->serial.c_str(), key->keyId, password.c_str(), pbInput,
                                  deviceLength(cbInput), &plain.bytes, &plain.length, key->tokenFlag != 0,
                                  provider->deviceContext);
        },
        [&] { return kspPinCheckIgnoringSilent(provider); }, &result);
    if (outcome == SsoRetryOutcome::PinRecheckFailed)
        return KSP_NTE_FAIL;
    if (result != CALYTH_OK)
        return kspFail(KSP_NTE_INTERNAL_ERROR, "KSP: Decrypt failed: " + std::to_string(result));

    SECURITY_STATUS status = writeResult(plain.bytes, static_cast<DWORD>(plain.size()), pbOutput, cbOutput,
                                         pcbResult, "KSPDecrypt: output buffer too small, required=");
    if (status != KSP_SUCCESS)
        return status;
    logDebug("KSP: Decrypt success");
    return KSP_SUCCESS;
}

SECURITY_STATUS decryptSymmetric(const KspProvider* provider, const KspKey* key, PBYTE pbInput, DWORD cbInput,
                                 PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult) {
    logDebug(isEcb(key) ? "KSP: Symmetric decrypt ECB mode" : "KSP: Symmetric decrypt CBC mode");
    IvArgument iv = ivFor(key);
    Utils utils;
    logDebug("KSP: Decrypt input iv : " + utils.bytesToHex(iv.bytes(), iv.length()));
    logDebug("KSP: Decrypt input key : " + utils.bytesToHex(key->symmetricKey, symmetricLength(key)));

    // The plaintext is never longer than the ciphertext: cbInput bytes of room, passed as such.
    int room = deviceLength(cbInput);
    WipedBytes plain(static_cast<size_t>(room));
    int plainLength = room;
    int result = calyth_decryptSymetric(provider->serial.c_str(), pbInput, room, plain.data(), &plainLength,
                                        iv.bytes(), iv.length(), key->symmetricKey, symmetricLength(key),
                                        provider->deviceContext);
    if (result != CALYTH_OK)
        return kspFail(KSP_NTE_INTERNAL_ERROR, "KSP: Symmetric decryption failed: " + std::to_string(result));

    auto length = static_cast<DWORD>(boundedLength(plainLength, plain.size()));
    if (pbOutput == nullptr)
        logDebug("pbOutput == NULL ");
    SECURITY_STATUS status = writeResult(plain.data(), length, pbOutput, cbOutput, pcbResult,
                                         "KSPDecrypt: symmetric output buffer too small, required=");
    if (status != KSP_SUCCESS || pbOutput == nullptr)
        return status;
    logDebug("KSP: Symmetric decrypt success, length: " + std::to_string(length));
    return KSP_SUCCESS;
}

SECURITY_STATUS decrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                        PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    logDebug("KSPDecrypt");
    const KspProvider* provider = usableProvider(hProvider);
    if (provider == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPDecrypt: provider handle is null or not initialized");
    const KspKey* key = kspKeyFrom(hKey);
    if (key == nullptr || pcbResult == nullptr)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPDecrypt: key handle or pcbResult is null");
    bool symmetric = key->symmetricKeyLength > 0;
    // An RSA size query is answered before the input is looked at.
    if (!symmetric && pbOutput == nullptr) {
        *pcbResult = key->bits / 8;
        return KSP_SUCCESS;
    }
    if (pbInput == nullptr || cbInput == 0)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPDecrypt: pbInput is null or cbInput is zero");

    if (symmetric)
        return decryptSymmetric(provider, key, pbInput, cbInput, pbOutput, cbOutput, pcbResult);
    return decryptRsa(provider, key, pbInput, cbInput, pbOutput, cbOutput, pcbResult, dwFlags);
}

}  // namespace

extern "C" {

SECURITY_STATUS WINAPI KSPEncrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput,
                                  DWORD cbInput, VOID* /*pPaddingInfo*/, PBYTE pbOutput, DWORD cbOutput,
                                  DWORD* pcbResult, DWORD dwFlags) {
    return runKspOperation("KSPEncrypt", [&] {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): this file's encrypt, not POSIX encrypt()
        return encrypt(hProvider, hKey, pbInput, cbInput, pbOutput, cbOutput, pcbResult, dwFlags);
    });
}

SECURITY_STATUS WINAPI KSPDecrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput,
                                  DWORD cbInput, VOID* /*pPaddingInfo*/, PBYTE pbOutput, DWORD cbOutput,
                                  DWORD* pcbResult, DWORD dwFlags) {
    return runKspOperation("KSPDecrypt", [&] {
        return decrypt(hProvider, hKey, pbInput, cbInput, pbOutput, cbOutput, pcbResult, dwFlags);
    });
}

}  // extern "C"
