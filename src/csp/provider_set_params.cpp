#include <cstring>
#include <string>

#include "csp/csp_context.h"
#include "csp/csp_entry_points.h"
#include "csp/entry_point_guard.h"
#include "log/log.h"
#include "token/device_library.h"
#include "token/process_state.h"
#include "token/secret_text.h"
#include "token/token_table.h"

namespace {

BOOL setClientWindow(CspContext* context, const BYTE* pbData) {
    HWND window = nullptr;
    if (pbData != nullptr)
        // NOLINTNEXTLINE(bugprone-sizeof-expression): the value is the window handle itself
        std::memcpy(&window, pbData, sizeof window);
    context->clientWindow = window;
    return TRUE;
}

// PP_KEYEXCHANGE_PIN / PP_SIGNATURE_PIN: the token checks the PIN; a good one is remembered for the
// token so that later private-key operations do not ask for it.
BOOL setPin(const CspContext* context, const BYTE* pbData) {
    if (pbData == nullptr) {
        return failWithError(ERROR_INVALID_PARAMETER, "CPSetProvParam: NULL PIN data");
    }
    WipedText pin{std::string(reinterpret_cast<const char*>(pbData))};
    logDebug("CPSetProvParam - passwordLength : " + std::to_string(pin.text.size()));
    int remaining = 0;
    int result = calyth_validatePassword(context->serialNumber.c_str(), pin.c_str(), 1, &remaining,
                                         context->deviceContext);
    if (result != 0) {
        return failWithError(NTE_KEYSET_ENTRY_BAD,
                             "CPSetProvParam - Token password validation failed : " + std::to_string(result));
    }
    storeValidatedPin(context->serialNumber, pin.text);
    return TRUE;
}

BOOL setHardwareRng(const BYTE* pbData) {
    if (pbData == nullptr) {
        return failWithError(ERROR_INVALID_PARAMETER, "CPSetProvParam: NULL data for PP_USE_HARDWARE_RNG");
    }
    DWORD value = 0;
    std::memcpy(&value, pbData, sizeof value);
    g_useHardwareRng = value != 0;
    logDebug(std::string("CPSetProvParam: PP_USE_HARDWARE_RNG set to ") + (g_useHardwareRng ? "1" : "0"));
    return TRUE;
}

BOOL setProviderParam(HCRYPTPROV hProv, DWORD dwParam, const BYTE* pbData) {
    logDebug("CPSetProvParam");
    if (!isUsableContext(hProv))
        return failWithError(NTE_BAD_UID, "CPSetProvParam: context is null or not initialized");
    CspContext* context = cspContextFrom(hProv);
    logDebug("CPSetProvParam - input param : " + std::to_string(dwParam));
    switch (dwParam) {
        case PP_CLIENT_HWND:
            return setClientWindow(context, pbData);
        case PP_KEYEXCHANGE_PIN:
        case PP_SIGNATURE_PIN:
            return setPin(context, pbData);
        case PP_USE_HARDWARE_RNG:
            return setHardwareRng(pbData);
        default:
            return failWithError(NTE_BAD_TYPE,
                                 "CPSetProvParam: unsupported dwParam=" + std::to_string(dwParam));
    }
}

}  // namespace

extern "C" BOOL WINAPI CPSetProvParam(HCRYPTPROV hProv, DWORD dwParam, const BYTE* pbData,
                                      DWORD /*dwFlags*/) {
    return runEntryPoint(
        "CPSetProvParam", [&] { return setProviderParam(hProv, dwParam, pbData); }, failUnexpectedly);
}
