// Provider properties: what the NCrypt router asks about the provider itself, and the window and PIN
// it hands over.
#include <windows.h>

#include <ncrypt.h>

#include <cstring>
#include <string>

#include "ksp/ksp_common.h"
#include "ksp/pin_property.h"

namespace {

constexpr wchar_t kProviderName[] = L"Calyth Cryptographic Provider CSP";
constexpr wchar_t kProviderAlgorithm[] = L"RSA";
constexpr DWORD kImplType = NCRYPT_IMPL_HARDWARE_FLAG | NCRYPT_IMPL_REMOVABLE_FLAG;
constexpr DWORD kVersion = 0x100;
constexpr DWORD kMaxNameLength = 256;
constexpr DWORD kSecurityDescrSupport = 0;

SECURITY_STATUS writeDword(DWORD value, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult) {
    return writeSizedOutput(&value, sizeof value, pbOutput, cbOutput, pcbResult);
}

template <size_t N>
SECURITY_STATUS writeWide(const wchar_t (&text)[N], PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult) {
    return writeSizedOutput(text, sizeof text, pbOutput, cbOutput, pcbResult);
}

SECURITY_STATUS getProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbOutput,
                                    DWORD cbOutput, DWORD* pcbResult) {
    logDebug("KSPGetProviderProperty");
    if (usableProvider(hProvider) == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE,
                       "KSPGetProviderProperty: provider handle is null or not initialized");
    if (pszProperty == nullptr || pcbResult == nullptr)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPGetProviderProperty: pszProperty or pcbResult is null");

    if (sameWide(pszProperty, NCRYPT_NAME_PROPERTY))
        return writeWide(kProviderName, pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_IMPL_TYPE_PROPERTY))
        return writeDword(kImplType, pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_VERSION_PROPERTY))
        return writeDword(kVersion, pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_ALGORITHM_PROPERTY))
        return writeWide(kProviderAlgorithm, pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_MAX_NAME_LENGTH_PROPERTY))
        return writeDword(kMaxNameLength, pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_SECURITY_DESCR_SUPPORT_PROPERTY))
        return writeDword(kSecurityDescrSupport, pbOutput, cbOutput, pcbResult);
    if (sameWide(pszProperty, NCRYPT_USE_COUNT_PROPERTY))
        return kspFail(KSP_NTE_NOT_SUPPORTED,
                       "KSPGetProviderProperty: NCRYPT_USE_COUNT_PROPERTY not supported");
    return kspFail(KSP_NTE_NOT_SUPPORTED, "KSPGetProviderProperty: unsupported property");
}

SECURITY_STATUS setProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbInput,
                                    DWORD cbInput) {
    logDebug("KSPSetProviderProperty");
    KspProvider* provider = usableProvider(hProvider);
    if (provider == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE,
                       "KSPSetProviderProperty: provider handle is null or not initialized");
    if (pszProperty == nullptr)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPSetProviderProperty: pszProperty is null");

    if (sameWide(pszProperty, NCRYPT_WINDOW_HANDLE_PROPERTY)) {
        // Unlike the key-level set, a missing or short value clears the window.
        HWND window = nullptr;
        // NOLINTBEGIN(bugprone-sizeof-expression): the value is the window handle itself
        if (pbInput != nullptr && cbInput >= sizeof window)
            std::memcpy(&window, pbInput, sizeof window);
        // NOLINTEND(bugprone-sizeof-expression)
        provider->window = window;
        return KSP_SUCCESS;
    }
    if (sameWide(pszProperty, NCRYPT_PIN_PROPERTY)) {
        if (pbInput == nullptr)
            return kspFail(KSP_NTE_INVALID_PARAMETER,
                           "KSPSetProviderProperty: NCRYPT_PIN_PROPERTY pbInput is null");
        return validatePinProperty(provider, pbInput, cbInput);
    }
    return kspFail(KSP_NTE_NOT_SUPPORTED, "KSPSetProviderProperty: unsupported property");
}

}  // namespace

extern "C" {

SECURITY_STATUS WINAPI KSPGetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty,
                                              PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                                              DWORD /*dwFlags*/) {
    return runKspOperation("KSPGetProviderProperty", [&] {
        return getProviderProperty(hProvider, pszProperty, pbOutput, cbOutput, pcbResult);
    });
}

SECURITY_STATUS WINAPI KSPSetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty,
                                              PBYTE pbInput, DWORD cbInput, DWORD /*dwFlags*/) {
    return runKspOperation("KSPSetProviderProperty",
                           [&] { return setProviderProperty(hProvider, pszProperty, pbInput, cbInput); });
}

}  // extern "C"
