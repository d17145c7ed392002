// The agent in the background of the user's session: one instance per session, a look at the
// connected tokens once a second, a pass whenever what they hold changed.
#pragma once

#include "device_functions.h"
#include "user_store.h"

namespace agent {

// Where the installer sets the agent to start at every user's logon (HKLM, the 64-bit view).
constexpr const char* kLogonRunKey = "Software\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr const char* kLogonRunValue = "Calyth Certificate Agent";

constexpr const char* kInstanceMutexName = "Local\\CalythCertificateAgent";
constexpr const char* kStopEventName = "Local\\CalythCertificateAgentStop";
constexpr unsigned kPollMilliseconds = 1000;
// Even when the tokens did not change, the stores are compared with them once a minute, so that a
// certificate the user deleted from the store by hand comes back.
constexpr unsigned kPollsPerFullPass = 60;

enum BackgroundExit { kStopped = 0, kFailed = 1, kAlreadyRunning = 3 };

// Runs until --stop signals the stop event. Answers kAlreadyRunning at once when another instance
// runs in this session.
BackgroundExit runInBackground(const tokenview::DeviceFunctions& library, const StoreNames& names);

// Signals the instance of this session to stop and waits until it has (its pass may be under way);
// false when none runs.
bool stopBackgroundInstance();

}  // namespace agent
