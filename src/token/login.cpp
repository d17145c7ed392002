#include "token/login.h"

#include <cstring>

#include "log/log.h"
#include "token/device_library.h"
#include "token/pin_dialog.h"
#include "token/secret_text.h"
#include "token/token_table.h"

namespace {

constexpr const char* kMessageCaption = "Calyth";

// The user is already logged in on the token (the maker's single sign-on): the token answered
// with a label, and both the login and the sign-on flags are set.
bool singleSignOnActive(const std::string& serial, void* deviceContext) {
    TokenInfo info = calyth_getTokenInfo(serial.c_str(), deviceContext);
    return !info.label.empty() && info.userLoggedIn == 1 && info.ssoValid == 1;
}

std::string askForPin() {
    showPasswordDialog();
    return getEnteredPassword();
}

void tellUser(const std::string& text) {
    MessageBoxA(nullptr, text.c_str(), kMessageCaption, MB_OK);
}

// What each front-end says while it asks for the PIN: the two keep their own texts and levels.
struct PinPromptTexts {
    bool cngSpelling;          // spelling of the time-mismatch message
    bool cancelledIsError;     // level of the cancelled line
    const char* cancelled;     // when the dialog gives an empty text
    const char* lockedOrNull;  // ERROR line when no attempt is left; null for none
};

constexpr PinPromptTexts kCspPrompt{false, true, "loginUser: user cancelled password dialog, return FALSE",
                                    "loginUser: PIN locked, retryCount=0, return FALSE"};
constexpr PinPromptTexts kKspPrompt{true, false, "KSP: User cancelled password dialog", nullptr};

// Forgets the token's PIN, shows the dialog and has the device check each text entered until one is
// right (true, *pin set), the user cancels, or no attempt is left. Every wrong PIN is told in a
// message box before the dialog opens again.
bool promptForValidPin(const std::string& serial, void* deviceContext, const PinPromptTexts& texts,
                       std::string* pin) {
    clearValidatedPin(serial);
    for (WipedText entered{askForPin()};; entered.text = askForPin()) {
        if (entered.text.empty()) {
            if (texts.cancelledIsError)
                logError(texts.cancelled);
            else
                logDebug(texts.cancelled);
            return false;
        }
        int remaining = 0;
        int result = calyth_validatePassword(serial.c_str(), entered.c_str(), 1, &remaining, deviceContext);
        if (result == CALYTH_OK) {
            *pin = entered.text;
            return true;
        }
        wipeText(&entered.text);
        tellUser(pinFailureMessage(result, remaining, texts.cngSpelling));
        // A time mismatch leaves the count at 0 as well, so it ends the login here.
        if (remaining == 0) {
            if (texts.lockedOrNull != nullptr)
                logError(texts.lockedOrNull);
            return false;
        }
    }
}

}  // namespace

std::string pinFailureMessage(int result, int remaining, bool cngSpelling) {
    std::string message = "Login failed, please try again";
    if (result == CALYTH_SYSTEM_TIME_MISMATCH) {
        // Each front-end keeps its own spelling of this text.
        message = cngSpelling ? "System time mismatch, Kindly login to Vault Desk"
                              : "System time mismatch, Kidly login to Vault Desk";
    } else if (remaining != 0) {
        message = "Invalid user pin. Remaining attempts(" + std::to_string(remaining) + ")";
    } else {
        message = "User pin locked, re-initialise device";
    }
    return message;
}

bool ensurePasswordValidated(CspContext* context) {
    if (context == nullptr) {
        SetLastError(static_cast<DWORD>(NTE_BAD_UID));
        return false;
    }
    if (hasValidatedPin(context->serialNumber)) {
        logDebug("ensurePasswordValidated: PIN already validated, return true");
        return true;
    }
    if (context->silent) {
        logError("ensurePasswordValidated: CRYPT_SILENT set, cannot prompt for PIN, return false");
        SetLastError(static_cast<DWORD>(NTE_SILENT_CONTEXT));
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
    SetLastError(static_cast<DWORD>(NTE_FAIL));
    return false;
}

BOOL loginUser(CspContext* context, char* pinOut) {
    logDebug("loginUser: enter");
    if (context == nullptr) {
        SetLastError(static_cast<DWORD>(NTE_BAD_UID));
        return FALSE;
    }
    const std::string& serial = context->serialNumber;
    if (singleSignOnActive(serial, context->deviceContext)) {
        logDebug("loginUser: SSO already validated, return TRUE");
        return TRUE;
    }
    if (context->silent) {
        logError("loginUser: CRYPT_SILENT set, cannot show PIN dialog, return FALSE");
        SetLastError(static_cast<DWORD>(NTE_SILENT_CONTEXT));
        return FALSE;
    }
    WipedText pin;
    if (!promptForValidPin(serial, context->deviceContext, kCspPrompt, &pin.text))
        return FALSE;
    if (pinOut != nullptr) {
        std::strncpy(pinOut, pin.c_str(), PIN_BUFFER_SIZE - 1);
        pinOut[PIN_BUFFER_SIZE - 1] = '\0';
    }
    logDebug("loginUser: password validated, return TRUE");
    return TRUE;
}

bool kspEnsurePasswordValidated(const std::string& serialNumber, void* deviceContext) {
    if (hasValidatedPin(serialNumber)) {
        logDebug("KSP: PIN already validated");
        return true;
    }
    logDebug("KSP: Password not validated, checking SSO");
    if (singleSignOnActive(serialNumber, deviceContext)) {
        storeValidatedPin(serialNumber, std::string());
        return true;
    }
    WipedText pin;
    if (!promptForValidPin(serialNumber, deviceContext, kKspPrompt, &pin.text))
        return false;
    storeValidatedPin(serialNumber, pin.text);
    return true;
}
