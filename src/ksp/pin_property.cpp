#include "ksp/pin_property.h"

#include <cstring>
#include <string>

#include "token/device_library.h"
#include "token/secret_text.h"
#include "token/token_table.h"

namespace {

// The PIN is narrow text ending at its first NUL, whatever the caller's cbInput says (a wide PIN thus
// reads as its first character). The search for that NUL stays within the cbInput bytes the caller
// handed over: a value with no NUL among them is taken whole instead of reading past the buffer.
std::string narrowPin(const BYTE* pbInput, DWORD cbInput) {
    const void* end = std::memchr(pbInput, '\0', cbInput);
    size_t length = end != nullptr ? static_cast<const BYTE*>(end) - pbInput : cbInput;
    return std::string(reinterpret_cast<const char*>(pbInput), length);
}

}  // namespace

SECURITY_STATUS validatePinProperty(const KspProvider* provider, const BYTE* pbInput, DWORD cbInput) {
    WipedText pin{narrowPin(pbInput, cbInput)};
    logDebug("KSP: Setting PIN via property");
    int remaining = 0;
    int result = calyth_validatePassword(provider->serial.c_str(), pin.c_str(), 1, &remaining,
                                         provider->deviceContext);
    if (result != CALYTH_OK)
        return kspFail(KSP_NTE_VALIDATION_FAILED, "KSP: PIN validation failed: " + std::to_string(result));
    storeValidatedPin(provider->serial, pin.text);
    return KSP_SUCCESS;
}
