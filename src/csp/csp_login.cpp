#include "csp/csp_login.h"

#include <cstring>

#include "log/log.h"
#include "token/last_error.h"
#include "token/login.h"
#include "token/secret_text.h"
#include "token/token_table.h"

bool ensurePasswordValidated(CspContext* context) {
    if (context == nullptr) {
        setLastErrorCode(NTE_BAD_UID);
        return false;
    }
    if (hasValidatedPin(context->serialNumber)) {
        logDebug("ensurePasswordValidated: PIN already validated, return true");
        return true;
    }
    if (context->silent) {
        logError("ensurePasswordValidated: CRYPT_SILENT set, cannot prompt for PIN, return false");
        setLastErrorCode(NTE_SILENT_CONTEXT);
        return false;
    }
    logDebug("ensurePasswordValidated: password not validated or empty -- ask for PIN");
    char pin[PIN_BUFFER_SIZE];
    std::memset(pin, 0, sizeof pin);
    BOOL loggedIn = loginUser(context, pin);
    if (loggedIn)
        storeValidatedPin(context->serialNumber, pin);
    SecureZeroMemory(pin, sizeof pin);
    if (loggedIn) {
        logDebug("ensurePasswordValidated: password set, return true");
        return true;
    }
    logError("ensurePasswordValidated: password validation failed, return false");
    setLastErrorCode(NTE_FAIL);
    return false;
}

BOOL loginUser(CspContext* context, char* pinOut) {
    logDebug("loginUser: enter");
    if (context == nullptr) {
        setLastErrorCode(NTE_BAD_UID);
        return FALSE;
    }
    const LoginRequest request{.serial = context->serialNumber,
                               .deviceContext = context->deviceContext,
                               .silent = context->silent,
                               .cngSpelling = false};
    WipedText pin;
    switch (logInToToken(request, &pin.text)) {
        case LoginOutcome::SingleSignOn:
            logDebug("loginUser: SSO already validated, return TRUE");
            return TRUE;
        case LoginOutcome::SilentRefused:
            logError("loginUser: CRYPT_SILENT set, cannot show PIN dialog, return FALSE");
            setLastErrorCode(NTE_SILENT_CONTEXT);
            return FALSE;
        case LoginOutcome::Cancelled:
            logError("loginUser: user cancelled password dialog, return FALSE");
            return FALSE;
        case LoginOutcome::Locked:
            logError("loginUser: PIN locked, retryCount=0, return FALSE");
            return FALSE;
        case LoginOutcome::PinValidated:
            break;
    }
    if (pinOut != nullptr) {
        std::strncpy(pinOut, pin.c_str(), PIN_BUFFER_SIZE - 1);
        pinOut[PIN_BUFFER_SIZE - 1] = '\0';
    }
    logDebug("loginUser: password validated, return TRUE");
    return TRUE;
}
