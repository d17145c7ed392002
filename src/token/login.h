// The PIN check run before any private-key operation, shared by both front-ends: it reports how the
// login ended and each front-end maps that to its own status, last error and log lines.
#pragma once

#include <string>

// How a login ended.
enum class LoginOutcome {
    SingleSignOn,   // the token's own single sign-on is active: no PIN was asked for
    PinValidated,   // the dialog gave a PIN the device accepted
    SilentRefused,  // the dialog was needed, but the caller may not show one
    Cancelled,      // the user closed the dialog without a PIN
    Locked,         // a refused PIN left no attempt (a time mismatch reads the same)
};

struct LoginRequest {
    std::string serial;
    void* deviceContext = nullptr;
    bool silent = false;       // answer SilentRefused rather than show the dialog
    bool cngSpelling = false;  // the CNG front-end's spelling of the time-mismatch message
};

// Single sign-on; else, unless silent, the PIN dialog and the device's check of each text entered
// until one is right, the user cancels, or no attempt is left (every refused PIN is told in a message
// box). Forgets the token's held PIN before the dialog opens; *pin gets the accepted PIN.
LoginOutcome logInToToken(const LoginRequest& request, std::string* pin);

// The message-box texts of a failed PIN validation, shared by both front-ends.
std::string pinFailureMessage(int result, int remaining, bool cngSpelling);
