#include "ksp/ksp_login.h"

#include "log/log.h"
#include "token/login.h"
#include "token/secret_text.h"
#include "token/token_table.h"

bool kspEnsurePasswordValidated(const std::string& serialNumber, void* deviceContext) {
    if (hasValidatedPin(serialNumber)) {
        logDebug("KSP: PIN already validated");
        return true;
    }
    logDebug("KSP: Password not validated, checking SSO");
    const LoginRequest request{
        .serial = serialNumber, .deviceContext = deviceContext, .silent = false, .cngSpelling = true};
    WipedText pin;
    switch (logInToToken(request, &pin.text)) {
        case LoginOutcome::SingleSignOn:
            storeValidatedPin(serialNumber, std::string());
            return true;
        case LoginOutcome::PinValidated:
            storeValidatedPin(serialNumber, pin.text);
            return true;
        case LoginOutcome::Cancelled:
            logDebug("KSP: User cancelled password dialog");
            return false;
        case LoginOutcome::SilentRefused:
        case LoginOutcome::Locked:
            break;
    }
    return false;
}
