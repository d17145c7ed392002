// Asking the user for the token PIN on the router's request, and key-change notification, which
// this provider does not offer.
#include <windows.h>

#include <ncrypt.h>

#include "ksp/ksp_common.h"

namespace {

// The key, the operation text and the flags play no part: NCRYPT_SILENT_FLAG included, the PIN
// check may show the dialog.
SECURITY_STATUS promptUser(NCRYPT_PROV_HANDLE hProvider) {
    logDebug("KSPPromptUser");
    const KspProvider* provider = usableProvider(hProvider);
    if (provider == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPPromptUser: provider handle is null or not initialized");
    if (!kspPinCheckIgnoringSilent(provider))
        return kspFail(KSP_NTE_FAIL, "KSPPromptUser: password validation failed");
    return KSP_SUCCESS;
}

SECURITY_STATUS notifyChangeKey() {
    logDebug("KSPNotifyChangeKey");
    return kspFail(KSP_NTE_NOT_SUPPORTED, "KSPNotifyChangeKey: not supported");
}

}  // namespace

extern "C" {

SECURITY_STATUS WINAPI KSPPromptUser(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE /*hKey*/,
                                     LPCWSTR /*pszOperation*/, DWORD /*dwFlags*/) {
    return runKspOperation("KSPPromptUser", [&] { return promptUser(hProvider); });
}

SECURITY_STATUS WINAPI KSPNotifyChangeKey(NCRYPT_PROV_HANDLE /*hProvider*/, HANDLE* /*phEvent*/,
                                          DWORD /*dwFlags*/) {
    return runKspOperation("KSPNotifyChangeKey", [&] { return notifyChangeKey(); });
}

}  // extern "C"
