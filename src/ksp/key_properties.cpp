// Key properties: what the NCrypt router asks about a key, and what it sets on one before or after
// the key exists on the token (length, usage, symmetric settings, PIN, window, certificate).
#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include <cstring>
#include <string>
#include <vector>

#include "ksp/key_certificate.h"
#include "ksp/ksp_common.h"
#include "ksp/pin_property.h"
#include "token/key_lookup.h"
#include "token/process_state.h"
#include "util/encoding.h"

namespace {

constexpr wchar_t kChainingCbc[] = L"ChainingModeCBC";
constexpr wchar_t kChainingEcb[] = L"ChainingModeECB";
constexpr NCRYPT_SUPPORTED_LENGTHS kSupportedLengths{1024, 4096, 1024, 2048};
constexpr DWORD kUserKey = 0;

SECURITY_STATUS writeDword(DWORD value, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult) {
    return writeSizedOutput(&value, sizeof value, pbOutput, cbOutput, pcbResult);
}

// Wide text with its terminating NUL.
SECURITY_STATUS writeWide(const std::wstring& text, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult) {
    return writeSizedOutput(text.c_str(), static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)), pbOutput,
                            cbOutput, pcbResult);
}

std::wstring keyIdText(const KspKey* key) {
    return wideText(keyIdHex(key->keyId));
}

const wchar_t* algorithmGroup(const KspKey* key) {
    if (!isEcAlgorithm(key->algorithm))
        return L"RSA";
    return key->usage == CALYTH_USAGE_EXCHANGE ? L"ECDH" : L"ECDSA";
}

DWORD usageFlags(int32_t usage) {
    switch (usage) {
        case CALYTH_USAGE_SIGNATURE:
            return NCRYPT_ALLOW_SIGNING_FLAG;
        case CALYTH_USAGE_EXCHANGE:
            return NCRYPT_ALLOW_DECRYPT_FLAG;
        case CALYTH_USAGE_BOTH:
            return NCRYPT_ALLOW_SIGNING_FLAG | NCRYPT_ALLOW_DECRYPT_FLAG;
        default:
            return 0;
    }
}

SECURITY_STATUS getCertificate(const KspProvider* provider, const KspKey* key, PBYTE pbOutput, DWORD cbOutput,
                               DWORD* pcbResult) {
    std::vector<unsigned char> der;
    if (!findKeyCertificate(provider, key, &der))
        return kspFail(KSP_NTE_NOT_FOUND, "KSP: Certificate not found for key");
    return writeSizedOutput(der.data(), static_cast<DWORD>(der.size()), pbOutput, cbOutput, pcbResult);
}

SECURITY_STATUS keyPropertyValue(NCRYPT_PROV_HANDLE hProvider, const KspProvider* provider, const KspKey* key,
                                 LPCWSTR pszProperty, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult) {
    if (sameWide(pszProperty, NCRYPT_NAME_PROPERTY))
        return writeWide(keyIdText(key), pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_ALGORITHM_PROPERTY))
        return writeWide(eccAlgorithmName(key->algorithm, key->usage), pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_ALGORITHM_GROUP_PROPERTY))
        return writeWide(algorithmGroup(key), pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_LENGTH_PROPERTY))
        return writeDword(key->bits, pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_LENGTHS_PROPERTY))
        return writeSizedOutput(&kSupportedLengths, sizeof kSupportedLengths, pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_KEY_USAGE_PROPERTY))
        return writeDword(usageFlags(key->usage), pbOutput, cbOutput, pcbResult);
    // Export is allowed as a policy for every key; the export operation still refuses private keys.
    if (sameWide(pszProperty, NCRYPT_EXPORT_POLICY_PROPERTY))
        return writeDword(NCRYPT_ALLOW_EXPORT_FLAG, pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_BLOCK_LENGTH_PROPERTY))
        return writeDword(key->bits / 8, pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_KEY_TYPE_PROPERTY))
        return writeDword(kUserKey, pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_UNIQUE_NAME_PROPERTY))
        return writeWide(keyIdText(key), pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_PROVIDER_HANDLE_PROPERTY))
        return writeSizedOutput(&hProvider, sizeof hProvider, pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_CERTIFICATE_PROPERTY))
        return getCertificate(provider, key, pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, BCRYPT_CHAINING_MODE))
        return writeWide(key->chainingMode == KSP_CHAINING_CBC ? kChainingCbc : kChainingEcb, pbOutput,
                         cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_SECURITY_DESCR_PROPERTY))
        return kspFail(KSP_NTE_NOT_SUPPORTED,
                       "KSPGetKeyProperty: NCRYPT_SECURITY_DESCR_PROPERTY not supported");
    return kspFail(KSP_NTE_NOT_SUPPORTED, "KSPGetKeyProperty: unsupported property");
}

SECURITY_STATUS getKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                               PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult) {
    logDebug("KSPGetKeyProperty");
    const KspProvider* provider = usableProvider(hProvider);
    if (provider == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE,
                       "KSPGetKeyProperty: provider handle is null or not initialized");
    const KspKey* key = kspKeyFrom(hKey);
    if (key == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPGetKeyProperty: key handle is null");
    if (pszProperty == nullptr || pcbResult == nullptr)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPGetKeyProperty: pszProperty or pcbResult is null");
    logDebug("KSP: GetKeyProperty: " + narrowText(pszProperty));
    return keyPropertyValue(hProvider, provider, key, pszProperty, pbOutput, cbOutput, pcbResult);
}

SECURITY_STATUS setCertificate(const KspProvider* provider, const KspKey* key, const BYTE* pbInput,
                               DWORD cbInput) {
    if (pbInput == nullptr || cbInput == 0)
        return kspFail(KSP_NTE_INVALID_PARAMETER,
                       "KSPSetKeyProperty: NCRYPT_CERTIFICATE_PROPERTY pbInput is null or empty");
    // The token's record holds at most KSP_CERTIFICATE_ROOM bytes; a longer value is refused as a bad
    // parameter before anyone is asked for a PIN.
    if (cbInput > KSP_CERTIFICATE_ROOM)
        return kspFail(
            KSP_NTE_INVALID_PARAMETER,
            "KSPSetKeyProperty: NCRYPT_CERTIFICATE_PROPERTY too large, cbInput=" + std::to_string(cbInput));
    if (!kspPinCheckIgnoringSilent(provider))
        return kspFail(KSP_NTE_FAIL, "KSPSetKeyProperty: password validation failed for certificate import");
    WipedText password{devicePassword(provider)};
    int32_t result = storeKeyCertificate(provider, key, password.text, pbInput, cbInput);
    if (result != CALYTH_OK)
        return kspFail(KSP_NTE_INTERNAL_ERROR, "KSP: Import certificate failed: " + std::to_string(result));
    logDebug("KSP: Certificate stored successfully");
    return KSP_SUCCESS;
}

// Unlike the provider-level set, a missing or short value leaves the window as it is.
SECURITY_STATUS setWindow(KspProvider* provider, const BYTE* pbInput, DWORD cbInput) {
    // NOLINTBEGIN(bugprone-sizeof-expression): the value is the window handle itself
    if (pbInput != nullptr && cbInput >= sizeof provider->window)
        std::memcpy(&provider->window, pbInput, sizeof provider->window);
    // NOLINTEND(bugprone-sizeof-expression)
    return KSP_SUCCESS;
}

// Any value is taken; KSPFinalizeKey maps it to a key-size code.
SECURITY_STATUS setLength(KspKey* key, const BYTE* pbInput, DWORD cbInput) {
    if (pbInput == nullptr || cbInput < sizeof(uint32_t))
        return KSP_SUCCESS;
    std::memcpy(&key->bits, pbInput, sizeof key->bits);
    logDebug("KSP: Key length set to " + std::to_string(key->bits));
    return KSP_SUCCESS;
}

// Signing wins over decryption alone; the key-agreement flag has no usage of its own here.
SECURITY_STATUS setKeyUsage(KspKey* key, const BYTE* pbInput, DWORD cbInput) {
    if (pbInput == nullptr || cbInput < sizeof(DWORD))
        return KSP_SUCCESS;
    DWORD flags = 0;
    std::memcpy(&flags, pbInput, sizeof flags);
    bool signing = (flags & NCRYPT_ALLOW_SIGNING_FLAG) != 0;
    bool decrypt = (flags & NCRYPT_ALLOW_DECRYPT_FLAG) != 0;
    if (signing)
        key->usage = decrypt ? CALYTH_USAGE_BOTH : CALYTH_USAGE_SIGNATURE;
    else if (decrypt)
        key->usage = CALYTH_USAGE_EXCHANGE;
    return KSP_SUCCESS;
}

// The mode name is wide text up to its NUL. The search for the NUL stays within the cbInput bytes
// the caller handed over, so a value without one is read as the whole characters it holds.
std::wstring wideValue(const BYTE* pbInput, DWORD cbInput) {
    std::wstring text;
    for (DWORD at = 0; at + sizeof(wchar_t) <= cbInput; at += sizeof(wchar_t)) {
        wchar_t c;
        std::memcpy(&c, pbInput + at, sizeof c);  // pbInput need not be aligned
        if (c == L'\0')
            break;
        text.push_back(c);
    }
    return text;
}

SECURITY_STATUS setChainingMode(KspKey* key, const BYTE* pbInput, DWORD cbInput) {
    if (pbInput == nullptr || cbInput == 0)
        return KSP_SUCCESS;
    std::wstring mode = wideValue(pbInput, cbInput);
    if (mode == kChainingCbc) {
        key->chainingMode = KSP_CHAINING_CBC;
        logDebug("KSP: Chaining mode set to CBC");
        return KSP_SUCCESS;
    }
    if (mode == kChainingEcb) {
        key->chainingMode = KSP_CHAINING_ECB;
        logDebug("KSP: Chaining mode set to ECB");
        return KSP_SUCCESS;
    }
    return kspFail(KSP_NTE_NOT_SUPPORTED, "KSP: Unsupported chaining mode");
}

// The IV length a key's cipher needs: 8 for triple DES (24-byte keys), 16 for AES; 0 leaves any
// length to the caller (token key pairs).
DWORD expectedIvLength(const KspKey* key) {
    switch (key->symmetricKeyLength) {
        case 24:
            return 8;
        case 16:
        case 32:
            return 16;
        default:
            return 0;
    }
}

// The IV is process-wide, shared with the CryptoAPI side: the last one set is used by every CBC call.
SECURITY_STATUS setIv(const KspKey* key, const BYTE* pbInput, DWORD cbInput) {
    if (pbInput == nullptr || cbInput == 0) {
        clearProcessIv();
        logDebug("KSP: IV cleared");
        return KSP_SUCCESS;
    }
    DWORD expected = expectedIvLength(key);
    if (expected != 0 && cbInput != expected)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSP: IV size mismatch: got " + std::to_string(cbInput) +
                                                      ", expected " + std::to_string(expected));
    setProcessIv(pbInput, cbInput);
    logDebug("KSP: IV set, size: " + std::to_string(cbInput));
    return KSP_SUCCESS;
}

SECURITY_STATUS applyKeyProperty(KspProvider* provider, KspKey* key, LPCWSTR pszProperty, const BYTE* pbInput,
                                 DWORD cbInput) {
    if (sameWide(pszProperty, NCRYPT_CERTIFICATE_PROPERTY))
        return setCertificate(provider, key, pbInput, cbInput);
    if (sameWide(pszProperty, NCRYPT_PIN_PROPERTY)) {
        if (pbInput == nullptr)
            return kspFail(KSP_NTE_INVALID_PARAMETER,
                           "KSPSetKeyProperty: NCRYPT_PIN_PROPERTY pbInput is null");
        return validatePinProperty(provider, pbInput, cbInput);
    }
    if (sameWide(pszProperty, NCRYPT_WINDOW_HANDLE_PROPERTY))
        return setWindow(provider, pbInput, cbInput);
    if (sameWide(pszProperty, NCRYPT_LENGTH_PROPERTY))
        return setLength(key, pbInput, cbInput);
    if (sameWide(pszProperty, NCRYPT_KEY_USAGE_PROPERTY))
        return setKeyUsage(key, pbInput, cbInput);
    if (sameWide(pszProperty, BCRYPT_CHAINING_MODE))
        return setChainingMode(key, pbInput, cbInput);
    if (sameWide(pszProperty, BCRYPT_INITIALIZATION_VECTOR))
        return setIv(key, pbInput, cbInput);
    return kspFail(KSP_NTE_NOT_SUPPORTED, "KSPSetKeyProperty: unsupported property");
}

SECURITY_STATUS setKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                               PBYTE pbInput, DWORD cbInput) {
    logDebug("KSPSetKeyProperty");
    KspProvider* provider = usableProvider(hProvider);
    if (provider == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE,
                       "KSPSetKeyProperty: provider handle is null or not initialized");
    KspKey* key = kspKeyFrom(hKey);
    if (key == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPSetKeyProperty: key handle is null");
    if (pszProperty == nullptr)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPSetKeyProperty: pszProperty is null");
    return applyKeyProperty(provider, key, pszProperty, pbInput, cbInput);
}

}  // namespace

extern "C" {

SECURITY_STATUS WINAPI KSPGetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                         LPCWSTR pszProperty, PBYTE pbOutput, DWORD cbOutput,
                                         DWORD* pcbResult, DWORD /*dwFlags*/) {
    return runKspOperation("KSPGetKeyProperty", [&] {
        return getKeyProperty(hProvider, hKey, pszProperty, pbOutput, cbOutput, pcbResult);
    });
}

SECURITY_STATUS WINAPI KSPSetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                         LPCWSTR pszProperty, PBYTE pbInput, DWORD cbInput,
                                         DWORD /*dwFlags*/) {
    return runKspOperation("KSPSetKeyProperty",
                           [&] { return setKeyProperty(hProvider, hKey, pszProperty, pbInput, cbInput); });
}

}  // extern "C"
