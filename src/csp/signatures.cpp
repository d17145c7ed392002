// Signing on the token and verification. CryptoAPI hands signatures little-endian, the token
// answers and expects them big-endian, so both directions reverse the bytes.
#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "csp/csp_context.h"
#include "csp/csp_entry_points.h"
#include "csp/csp_login.h"
#include "csp/entry_point_guard.h"
#include "csp/hash_context.h"
#include "csp/key_handle.h"
#include "csp/log_text.h"
#include "log/log.h"
#include "token/device_library.h"
#include "token/key_lookup.h"
#include "token/secret_text.h"
#include "token/sso_retry.h"
#include "token/token_table.h"
#include "util/bounded_length.h"
#include "util/encoding.h"
#include "util/utils.h"

namespace {

// The room the token gets for a digest it finalises while signing.
constexpr int kFinalHashRoom = static_cast<int>(HASH_VALUE_ROOM);

bool canSign(const CalythKeyPair& keyPair) {
    return keyPair.keyUsage == CALYTH_USAGE_SIGNATURE || keyPair.keyUsage == CALYTH_USAGE_EXCHANGE ||
           keyPair.keyUsage == CALYTH_USAGE_BOTH;
}

// The hash object remembers its signing key; the key-size code replaces the hash code in
// `mechanism`, which is what later size queries read.
void chooseSignKey(HASH_CONTEXT* hash, const CalythKeyPair& keyPair) {
    std::memcpy(hash->signKeyId, keyPair.keyId, KEY_ID_LENGTH);
    hash->signKeyIdLength = KEY_ID_LENGTH;
    hash->mechanism = keyPair.keySizeCode;
}

// The first key able to sign among those named by the container (all keys when it is empty).
// When the container names keys but none of them can sign, the last key of the whole token that
// can sign is taken instead.
bool findSignKey(const CspContext* context, HASH_CONTEXT* hash) {
    hash->signKeyIdLength = 0;
    const std::vector<CalythKeyPair> keyPairs =
        calyth_getKeyPairList(context->serialNumber.c_str(), context->deviceContext);
    bool someKeyNamed = false;
    for (const CalythKeyPair& keyPair : keyPairs) {
        if (!context->containerName.empty() && !keyPairNamed(keyPair, context->containerName, kExactKeyId))
            continue;
        someKeyNamed = true;
        if (canSign(keyPair)) {
            chooseSignKey(hash, keyPair);
            return true;
        }
    }
    if (!someKeyNamed)
        return false;
    for (const CalythKeyPair& keyPair : keyPairs) {
        if (canSign(keyPair))
            chooseSignKey(hash, keyPair);
    }
    return hash->signKeyIdLength == KEY_ID_LENGTH;
}

DWORD signatureSizeForKeyCode(int32_t keySizeCode) {
    switch (keySizeCode) {
        case CALYTH_KEY_RSA_3072:
            return 384;
        case CALYTH_KEY_RSA_4096:
            return 512;
        default:
            return 256;
    }
}

int signOnToken(const CspContext* context, const HASH_CONTEXT* hash, BYTE* pbSignature, int* sigLen) {
    WipedText pin{getValidatedPin(context->serialNumber)};
    return calyth_signHash(context->serialNumber.c_str(), hash->signKeyId, pin.c_str(), hash->value,
                           static_cast<int>(hash->valueLength), pbSignature, sigLen, false,
                           context->deviceContext, false);
}

// The hash value a verification compares: the cached one, or the one CPGetHashParam finalises.
BOOL obtainHashValue(HCRYPTPROV hProv, HCRYPTHASH hHash, const HASH_CONTEXT* hash) {
    DWORD size = 0;
    if (!CPGetHashParam(hProv, hHash, HP_HASHVAL, nullptr, &size, 0))
        return failWithError(NTE_BAD_HASH, "CPGetHashParam failed to get hash size");
    if (size > hash->hashLength)
        return failWithError(NTE_BAD_HASH, "Hash size larger than expected");
    std::vector<BYTE> value(size);
    if (!CPGetHashParam(hProv, hHash, HP_HASHVAL, value.data(), &size, 0))
        return failWithError(NTE_BAD_HASH, "CPGetHashParam failed to get hash value");
    logDebug("Hash obtained using CPGetHashParam");
    return TRUE;
}

// The DER public key of the key object, or of the context's container when there is none.
bool verificationPublicKey(const CspContext* context, HCRYPTKEY hPubKey, Bytes* der) {
    const KEY_HANDLE* key = hPubKey != 0 ? keyHandleFrom(hPubKey) : nullptr;
    if (key != nullptr && key->publicKeyLength != 0) {
        logDebug("key handle available");
        int length = static_cast<int>(fieldLength(key->publicKey, key->publicKeyLength));
        if (isDerPublicKey(key->publicKey, length))
            logDebug("Public key is already DER encoded");
        else
            logDebug("Public key is not DER encoded, converting to DER");
        *der = derPublicKeyFromStored(key->publicKey, length);
        return true;
    }

    logError("Key Handle Not Initialized or Public Key Length is zero");
    logDebug("Container name : " + context->containerName);
    const std::vector<CalythKeyPair> keyPairs =
        calyth_getKeyPairList(context->serialNumber.c_str(), context->deviceContext);
    const CalythKeyPair* keyPair = findKeyPair(keyPairs, context->containerName, kExactKeyId);
    if (keyPair != nullptr) {
        // Token keys are taken as RSA moduli here, whatever their stored form.
        Utils utils;
        int length = static_cast<int>(fieldLength(keyPair->publicKey, keyPair->publicKeyLength));
        *der = buildRsaSubjectPublicKeyInfo(utils.bytesToHex(keyPair->publicKey, length), "010001");
        return true;
    }
    return false;
}

}  // namespace

extern "C" {

BOOL WINAPI CPSignHash(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD /*dwKeySpec*/, LPCWSTR /*szDescription*/,
                       DWORD dwFlags, BYTE* pbSignature, DWORD* pdwSigLen) {
    return runEntryPoint("CPSignHash", [&]() -> BOOL {
        logDebug("CPSignHash");
        if (!isUsableContext(hProv))
            return failWithError(NTE_BAD_UID, "CPSignHash: context is null or not initialized");
        if (hHash == 0)
            return failWithError(NTE_BAD_HASH, "CPSignHash: hash handle is null");
        CspContext* context = cspContextFrom(hProv);
        HASH_CONTEXT* hash = hashContextFrom(hHash);

        if (hash->valueLength == 0) {
            int length = kFinalHashRoom;
            int ret = calyth_finalHash(hash->deviceHash, hash->value, &length, context->deviceContext);
            if (ret != CALYTH_OK)
                return failWithError(NTE_FAIL,
                                     "CPSignHash: calyth_finalHash failed with ret=" + std::to_string(ret));
            hash->valueLength = static_cast<uint32_t>(boundedLength(length, kFinalHashRoom));
        }

        if (hash->signKeyIdLength != KEY_ID_LENGTH && !findSignKey(context, hash))
            return failWithError(NTE_NO_KEY,
                                 "CPSignHash: sign key not found for container=" + context->containerName);

        if (pdwSigLen == nullptr)
            return failWithError(ERROR_INVALID_PARAMETER, "CPSignHash: signature length pointer is null");
        if (pbSignature == nullptr) {
            *pdwSigLen = signatureSizeForKeyCode(hash->mechanism);
            return TRUE;
        }

        if (!ensurePasswordValidated(context)) {
            logError("CPSignHash: ensurePasswordValidated failed");  // last error as the PIN check set it
            return FALSE;
        }
        logDebug("CPSignHash dwFlags : " + std::to_string(dwFlags));
        logDebug("CPSignHash hashAlgorithm : " + std::to_string(hash->hashAlgorithm));
        logDebug("CPSignHash key mechanism : " + std::to_string(hash->mechanism));

        int sigLen = 0;
        int ret = 0;
        const SsoRetryTexts retryTexts{
            .expired = "CPSignHash: SSO expired, re-prompting for PIN",
            .recheckFailed = "CPSignHash: ensurePasswordValidated failed after SSO expiry"};
        SsoRetryOutcome outcome = callWithSsoRetry(
            context->serialNumber, retryTexts,
            [&] {
                sigLen = deviceLength(*pdwSigLen);
                return signOnToken(context, hash, pbSignature, &sigLen);
            },
            [&] { return ensurePasswordValidated(context); }, &ret);
        if (outcome == SsoRetryOutcome::PinRecheckFailed)
            return FALSE;  // last error as the PIN check set it
        if (ret != CALYTH_OK)
            return failWithError(NTE_PROVIDER_DLL_FAIL, "Sign hash failed : " + std::to_string(ret));

        // Never past the caller's buffer, whatever length the token reports.
        sigLen = boundedDeviceLength(sigLen, *pdwSigLen);
        std::reverse(pbSignature, pbSignature + sigLen);
        *pdwSigLen = static_cast<DWORD>(sigLen);
        return TRUE;
    });
}

BOOL WINAPI CPVerifySignature(HCRYPTPROV hProv, HCRYPTHASH hHash, const BYTE* pbSignature, DWORD cbSigLen,
                              HCRYPTKEY hPubKey, LPCWSTR /*szDescription*/, DWORD /*dwFlags*/) {
    return runEntryPoint("CPVerifySignature", [&]() -> BOOL {
        logDebug("CPVerifySignature");
        if (!isUsableContext(hProv))
            return failWithError(NTE_BAD_UID, "CSP Context Not Initialized");
        if (hHash == 0)
            return failWithError(NTE_BAD_HASH, "Hash Context is not Initialized");
        if (pbSignature == nullptr && cbSigLen != 0)
            return failWithError(NTE_BAD_SIGNATURE, "CPVerifySignature: signature is null");
        const CspContext* context = cspContextFrom(hProv);
        HASH_CONTEXT* hash = hashContextFrom(hHash);

        if (hash->valueLength == 0 && !obtainHashValue(hProv, hHash, hash))
            return FALSE;

        Bytes publicKey;
        if (!verificationPublicKey(context, hPubKey, &publicKey))
            return failWithError(NTE_BAD_KEY,
                                 "CPVerifySignature: container not found in key list, containerName=" +
                                     context->containerName);

        // The token reads signatures big-endian.
        std::vector<BYTE> signature(pbSignature, pbSignature + cbSigLen);
        std::reverse(signature.begin(), signature.end());

        int ret = calyth_verifySignatureHash(2, context->serialNumber.c_str(), hash->value,
                                             static_cast<int>(hash->valueLength), publicKey.data(),
                                             static_cast<int>(publicKey.size()), signature.data(),
                                             static_cast<int>(cbSigLen), nullptr, false);
        logDebug("pHashContext->hashLength: " + std::to_string(hash->hashLength));
        logDebug("PublicKeyLength: " + std::to_string(publicKey.size()));
        logDebug("Signature Length: " + std::to_string(cbSigLen));
        if (ret != CALYTH_OK)
            return failWithError(NTE_BAD_SIGNATURE, "VERIFY SIGNATURE FAILED :: " + std::to_string(ret));
        return TRUE;
    });
}

}  // extern "C"
