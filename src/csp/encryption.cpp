// Encryption and decryption with a key object: imported AES keys through the device library's AES
// functions, token RSA key pairs with the public key (encryption) or on the token (decryption).
// RSA ciphertexts cross the CryptoAPI boundary little-endian; the token works big-endian.
#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "csp/csp_context.h"
#include "csp/csp_entry_points.h"
#include "csp/csp_login.h"
#include "csp/entry_point_guard.h"
#include "csp/key_handle.h"
#include "log/log.h"
#include "token/device_library.h"
#include "token/device_output.h"
#include "token/process_state.h"
#include "token/rsa_encryption_type.h"
#include "token/secret_text.h"
#include "token/sso_retry.h"
#include "token/token_table.h"
#include "token/wiped_bytes.h"
#include "util/bounded_length.h"
#include "util/encoding.h"
#include "util/utils.h"

namespace {

// The process-wide IV as the operation copied it when it started.
const unsigned char* ivBytes(const std::vector<unsigned char>& iv) {
    return iv.empty() ? nullptr : iv.data();
}
int ivLength(const std::vector<unsigned char>& iv) {
    return static_cast<int>(iv.size());
}

bool isSymmetricKey(const KEY_HANDLE* key) {
    return key->symmetricKeyLength >= 1;
}

// CBC when a process-wide IV is set, ECB otherwise; the AES size follows the key length.
bool symmetricEncryptionType(int keyLength, bool cbc, EncryptionType* type) {
    switch (keyLength) {
        case 16:
            *type = cbc ? ENCRYPTION_AES_128_CBC : ENCRYPTION_AES_128_ECB;
            return true;
        case 24:
        case 32:
            *type = cbc ? ENCRYPTION_AES_256_CBC : ENCRYPTION_AES_256_ECB;
            return true;
        default:
            return false;
    }
}

BOOL encryptSymmetric(const CspContext* context, const KEY_HANDLE* key, BYTE* pbData, DWORD dataLength,
                      DWORD* pdwDataLen, DWORD cbBufLen) {
    int keyLength = key->symmetricKeyLength;
    logDebug("CPEncrypt: symmetric encryption, keyLen=" + std::to_string(keyLength));
    std::vector<unsigned char> iv = processIv();
    EncryptionType type{};
    if (!symmetricEncryptionType(keyLength, !iv.empty(), &type))
        return failWithError(NTE_BAD_KEY,
                             "CPEncrypt: unsupported symmetric key length: " + std::to_string(keyLength));

    DeviceOutput output;
    int result = calyth_encrypt_aes(context->serialNumber.c_str(), type, key->symmetricKey, keyLength, pbData,
                                    deviceLength(dataLength), &output.bytes, &output.length, false,
                                    ivBytes(iv), ivLength(iv), nullptr, 0, context->deviceContext);
    if (result != 0)
        return failWithError(NTE_PROVIDER_DLL_FAIL,
                             "CPEncrypt: symmetric encryption failed: " + std::to_string(result));
    DWORD outputLength = static_cast<DWORD>(output.size());
    if (outputLength > cbBufLen) {
        *pdwDataLen = outputLength;
        return failWithError(ERROR_MORE_DATA, "CPEncrypt: symmetric output buffer too small, required=" +
                                                  std::to_string(outputLength));
    }
    std::memcpy(pbData, output.bytes, outputLength);
    *pdwDataLen = outputLength;
    logDebug("CPEncrypt: symmetric encryption success, length=" + std::to_string(outputLength));
    return TRUE;
}

BOOL encryptRsa(const CspContext* context, const KEY_HANDLE* key, DWORD dwFlags, BYTE* pbData,
                DWORD dataLength, DWORD* pdwDataLen, DWORD cbBufLen) {
    if (isDerPublicKey(key->publicKey, key->publicKeyLength))
        logDebug("CSP: Public key is already DER encoded");
    else
        logDebug("CSP: Public key is raw modulus, converting to DER");
    Bytes der = derPublicKeyFromStored(key->publicKey,
                                       static_cast<int>(fieldLength(key->publicKey, key->publicKeyLength)));
    PaddingMode padding = (dwFlags & CRYPT_OAEP) ? PADDING_OAEP : PADDING_PKCS1;
    // The type follows the stored public key's length in bytes, so real keys (256 to 550 bytes) all
    // get RSA-2048; the device library decides from the DER key itself.
    EncryptionType type = rsaEncryptionTypeForSize(key->publicKeyLength);

    // Not bits / 8: `bits` is what the application asked for, the device writes the real key's modulus.
    std::vector<unsigned char> output(rsaCiphertextRoom(der));
    int outputLength = 0;
    int result = calyth_encrypt(type, padding, pbData, deviceLength(dataLength), output.data(), &outputLength,
                                der.data(), static_cast<int>(der.size()), context->deviceContext);
    if (result != 0)
        return failWithError(NTE_PROVIDER_DLL_FAIL, "Encrypt data failed: " + std::to_string(result));
    if (!lengthFits(outputLength, output.size()))
        return failWithError(NTE_PROVIDER_DLL_FAIL,
                             "Encrypt data failed: ciphertext length " + std::to_string(outputLength));
    // A key whose real modulus is longer than `bits` says gives a ciphertext longer than the buffer the
    // size check let through: the nearest specified answer is that check's own, with the real size.
    if (static_cast<DWORD>(outputLength) > cbBufLen) {
        *pdwDataLen = static_cast<DWORD>(outputLength);
        return failWithError(ERROR_MORE_DATA,
                             "CPEncrypt: buffer too small, cbBufLen=" + std::to_string(cbBufLen) +
                                 " requiredSize=" + std::to_string(outputLength));
    }
    // The token's big-endian ciphertext becomes CryptoAPI's little-endian one.
    std::reverse_copy(output.begin(), output.begin() + outputLength, pbData);
    *pdwDataLen = static_cast<DWORD>(outputLength);
    logDebug("CPEncrypt - return success");
    return TRUE;
}

BOOL encrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwFlags, BYTE* pbData, DWORD* pdwDataLen,
             DWORD cbBufLen) {
    if (pdwDataLen == nullptr)
        return failWithError(ERROR_INVALID_PARAMETER, "CPEncrypt: pcbDataLen is null");
    if (!isUsableContext(hProv))
        return failWithError(NTE_BAD_UID, "CPEncrypt: context is null or not initialized");
    if (hKey == 0)
        return failWithError(NTE_BAD_KEY, "CPEncrypt: key handle is null");
    const CspContext* context = cspContextFrom(hProv);
    const KEY_HANDLE* key = keyHandleFrom(hKey);

    DWORD dataLength = *pdwDataLen;
    DWORD requiredSize = key->bits >> 3;
    if (pbData == nullptr) {
        *pdwDataLen = requiredSize;
        return TRUE;
    }
    if (cbBufLen < requiredSize) {
        *pdwDataLen = requiredSize;
        return failWithError(ERROR_MORE_DATA,
                             "CPEncrypt: buffer too small, cbBufLen=" + std::to_string(cbBufLen) +
                                 " requiredSize=" + std::to_string(requiredSize));
    }
    if (dataLength == 0)
        return failWithError(NTE_BAD_LEN, "Invalid data length for encrypt: 0");

    if (isSymmetricKey(key))
        return encryptSymmetric(context, key, pbData, dataLength, pdwDataLen, cbBufLen);
    return encryptRsa(context, key, dwFlags, pbData, dataLength, pdwDataLen, cbBufLen);
}

int decryptOnToken(CspContext* context, const KEY_HANDLE* key, const std::vector<unsigned char>& bigEndian,
                   DeviceOutput* plain) {
    plain->release();
    WipedText pin{getValidatedPin(context->serialNumber)};
    return calyth_decrypt(context->serialNumber.c_str(), key->keyId, pin.c_str(), bigEndian.data(),
                          static_cast<int>(bigEndian.size()), &plain->bytes, &plain->length,
                          key->tokenFlag != 0, context->deviceContext);
}

BOOL decryptRsa(CspContext* context, const KEY_HANDLE* key, BYTE* pbData, DWORD dataLength,
                DWORD* pdwDataLen) {
    if (!ensurePasswordValidated(context)) {
        logError("CPDecrypt: ensurePasswordValidated failed");
        return FALSE;
    }
    logDebug("Before reversing encrypted data");
    std::vector<unsigned char> bigEndian(pbData, pbData + dataLength);
    std::reverse(bigEndian.begin(), bigEndian.end());
    logDebug("After reversing encrypted data");
    logDebug("Before decrypting data");

    DeviceOutput plain;
    int result = 0;
    const SsoRetryTexts retryTexts{
        .expired = "CPDecrypt: SSO expired, re-prompting for PIN",
        .recheckFailed = "CPDecrypt: ensurePasswordValidated failed after SSO expiry"};
    SsoRetryOutcome outcome = callWithSsoRetry(
        context->serialNumber, retryTexts, [&] { return decryptOnToken(context, key, bigEndian, &plain); },
        [&] { return ensurePasswordValidated(context); }, &result);
    if (outcome == SsoRetryOutcome::PinRecheckFailed)
        return FALSE;
    logDebug("After decrypting data");
    bigEndian.clear();

    if (result != 0)
        return failWithError(NTE_PROVIDER_DLL_FAIL, "Decrypt data failed : " + std::to_string(result));
    // The plaintext comes back in its natural order and is reported as the token says, but no more
    // of it is copied than the ciphertext the caller's buffer held.
    DWORD plainLength = static_cast<DWORD>(plain.size());
    std::memcpy(pbData, plain.bytes, boundedLength(plainLength, dataLength));
    *pdwDataLen = plainLength;
    return TRUE;
}

BOOL decryptSymmetric(const CspContext* context, const KEY_HANDLE* key, BYTE* pbData, DWORD dataLength,
                      DWORD* pdwDataLen) {
    Utils utils;
    WipedBytes output(dataLength);
    int outputLength = deviceLength(dataLength);
    std::vector<unsigned char> iv = processIv();
    logDebug("CPDecrypt input iv : " + utils.bytesToHex(ivBytes(iv), ivLength(iv)));
    logDebug("CPDecrypt input key : " + utils.bytesToHex(key->symmetricKey, key->symmetricKeyLength));
    int result = calyth_decryptSymetric(context->serialNumber.c_str(), pbData, deviceLength(dataLength),
                                        output.data(), &outputLength, ivBytes(iv), ivLength(iv),
                                        key->symmetricKey, key->symmetricKeyLength, context->deviceContext);
    if (result != 0)
        return failWithError(NTE_PROVIDER_DLL_FAIL, "Symetric decryption failed : " + std::to_string(result));
    outputLength = boundedDeviceLength(outputLength, output.size());
    logDebug("CPDecrypt - decrypted data : " + utils.bytesToHex(output.data(), outputLength));
    *pdwDataLen = static_cast<DWORD>(outputLength);
    std::memcpy(pbData, output.data(), outputLength);
    return TRUE;
}

BOOL decrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwFlags, BYTE* pbData, DWORD* pdwDataLen) {
    if (!isUsableContext(hProv))
        return failWithError(NTE_BAD_UID, "CPDecrypt: context is null or not initialized");
    if (hKey == 0)
        return failWithError(NTE_BAD_KEY, "CPDecrypt: key handle is null");
    CspContext* context = cspContextFrom(hProv);
    const KEY_HANDLE* key = keyHandleFrom(hKey);

    DWORD dataLength = pdwDataLen != nullptr ? *pdwDataLen : 0;
    Utils utils;
    logDebug("CPDecrypt - dwFlags : " + std::to_string(dwFlags));
    logDebug("CPDecrypt - key id : " +
             utils.bytesToHex(key->keyId, std::min(key->keyIdLength, KEY_ID_LENGTH)));
    logDebug("CPDecrypt - usage : " + std::to_string(key->keyUsage));
    if (pbData == nullptr || dataLength == 0)
        return failWithError(NTE_BAD_DATA, "Invalid data length for decrypt : " + std::to_string(dataLength));

    BOOL ok = isSymmetricKey(key) ? decryptSymmetric(context, key, pbData, dataLength, pdwDataLen)
                                  : decryptRsa(context, key, pbData, dataLength, pdwDataLen);
    if (!ok)
        return FALSE;
    logDebug("CPDecrypt- return");
    return TRUE;
}

}  // namespace

extern "C" {

BOOL WINAPI CPEncrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH /*hHash*/, BOOL /*fFinal*/, DWORD dwFlags,
                      BYTE* pbData, DWORD* pdwDataLen, DWORD cbBufLen) {
    logDebug("CPEncrypt");
    return runEntryPoint("CPEncrypt",
                         // NOLINTNEXTLINE(concurrency-mt-unsafe): this file's encrypt, not POSIX encrypt()
                         [&] { return encrypt(hProv, hKey, dwFlags, pbData, pdwDataLen, cbBufLen); });
}

BOOL WINAPI CPDecrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH /*hHash*/, BOOL /*fFinal*/, DWORD dwFlags,
                      BYTE* pbData, DWORD* pdwDataLen) {
    logDebug("CPDecrypt");
    return runEntryPoint("CPDecrypt", [&] { return decrypt(hProv, hKey, dwFlags, pbData, pdwDataLen); });
}

}  // extern "C"
