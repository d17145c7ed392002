#include "token/login.h"

#include <windows.h>

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

LoginOutcome promptForValidPin(const LoginRequest& request, std::string* pin) {
    clearValidatedPin(request.serial);
    WipedText entered{askForPin()};
    while (!entered.text.empty()) {
        int remaining = 0;
        int result = calyth_validatePassword(request.serial.c_str(), entered.c_str(), 1, &remaining,
                                             request.deviceContext);
        if (result == CALYTH_OK) {
            *pin = entered.text;
            return LoginOutcome::PinValidated;
        }
        wipeText(&entered.text);
        tellUser(pinFailureMessage(result, remaining, request.cngSpelling));
        // A time mismatch leaves the count at 0 as well, so it ends the login here.
        if (remaining == 0)
            return LoginOutcome::Locked;
        entered.text = askForPin();
    }
    return LoginOutcome::Cancelled;
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

LoginOutcome logInToToken(const LoginRequest& request, std::string* pin) {
    if (singleSignOnActive(request.serial, request.deviceContext))
        return LoginOutcome::SingleSignOn;
    if (request.silent)
        return LoginOutcome::SilentRefused;
    return promptForValidPin(request, pin);
}
