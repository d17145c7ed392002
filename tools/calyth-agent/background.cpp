#include "background.h"

#include <windows.h>

#include <memory>
#include <string>

#include "agent_pass.h"
#include "log/log.h"

namespace agent {
namespace {

struct HandleClose {
    void operator()(HANDLE handle) const {
        if (handle)
            CloseHandle(handle);
    }
};
using Handle = std::unique_ptr<void, HandleClose>;

std::set<std::string> serialsOf(const std::vector<TokenContents>& tokens) {
    std::set<std::string> serials;
    for (const TokenContents& token : tokens)
        serials.insert(token.serial);
    return serials;
}

}  // namespace

BackgroundExit runInBackground(const tokenview::DeviceFunctions& library, const StoreNames& names) {
    Handle instance(CreateMutexA(nullptr, TRUE, kInstanceMutexName));
    if (!instance || GetLastError() == ERROR_ALREADY_EXISTS) {
        logError("calyth-agent: another instance runs in this session; this one exits");
        return kAlreadyRunning;
    }
    Handle stop(CreateEventA(nullptr, TRUE, FALSE, kStopEventName));
    if (!stop) {
        logError("calyth-agent: cannot create the stop event, error " + std::to_string(GetLastError()));
        return kFailed;
    }
    logDebug("calyth-agent: started, looking at the connected tokens every second");
    DeviceSession session{&library, {}};
    std::string lastFingerprint;
    std::set<std::string> lastSerials = markedSerials(names);
    unsigned pollsSinceFullPass = kPollsPerFullPass;
    do {
        std::vector<TokenContents> tokens = readConnectedTokens(&session, lastSerials);
        std::string current = fingerprint(tokens);
        if (current != lastFingerprint || ++pollsSinceFullPass >= kPollsPerFullPass) {
            PassResult result = propagate(tokens, names);
            // A pass that failed is tried again on the next look.
            lastFingerprint = result.error.empty() ? current : std::string();
            pollsSinceFullPass = 0;
        }
        lastSerials = serialsOf(tokens);
    } while (WaitForSingleObject(stop.get(), kPollMilliseconds) == WAIT_TIMEOUT);
    logDebug("calyth-agent: stopped");
    return kStopped;
}

bool stopBackgroundInstance() {
    Handle stop(OpenEventA(EVENT_MODIFY_STATE, FALSE, kStopEventName));
    if (!stop || !SetEvent(stop.get()))
        return false;
    // The instance holds its mutex until it has left its loop.
    Handle instance(OpenMutexA(SYNCHRONIZE, FALSE, kInstanceMutexName));
    if (instance) {
        DWORD waited = WaitForSingleObject(instance.get(), 30000);
        if (waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED)
            ReleaseMutex(instance.get());
    }
    return true;
}

}  // namespace agent
