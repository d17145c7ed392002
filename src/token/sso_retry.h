// The single-sign-on retry shared by every private-key operation of both front-ends: when the token
// answers that its single sign-on has expired (49), the PIN held for the token is forgotten, the PIN
// check runs again (it may show the dialog) and the device call is repeated once. The second
// answer is final, 49 included.
#pragma once

#include <functional>
#include <string>

// Each front-end's log lines; built by name, since both are plain texts.
struct SsoRetryTexts {
    const char* expired;        // DEBUG line when the token answers 49
    const char* recheckFailed;  // ERROR line when the PIN check after it fails
};

enum class SsoRetryOutcome {
    DeviceAnswered,    // *result is the device's last answer, whatever it is
    PinRecheckFailed,  // the token's sign-on expired and the PIN check after it failed: the device
                       // call ran once and the operation fails
};

// Runs deviceCall (which must set up its own outputs afresh on every run) and stores its last result
// in *result.
SsoRetryOutcome callWithSsoRetry(const std::string& serial, const SsoRetryTexts& texts,
                                 const std::function<int()>& deviceCall,
                                 const std::function<bool()>& passwordCheck, int* result);
