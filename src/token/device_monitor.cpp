// The device monitor: one thread per process that polls the connected tokens every second and
// erases from the token table every token that is no longer connected.
//
// Unloading. The monitor is stopped by a static object's destructor, which the runtime runs when
// the library is detached (FreeLibrary or process exit) and, when the code is linked into a
// program, at exit(). Three situations:
//  - Process exit: the system has already ended every other thread before the library is
//    detached, so the stop only sets the flags (waiting there would be pointless).
//  - FreeLibrary: the detach runs under the loader lock, and a thread that ends needs that lock
//    for its own detach notifications, so joining the monitor there would deadlock. Instead, the
//    running monitor holds a reference on the provider library (GetModuleHandleEx when it is
//    started). While it runs, the library cannot be unloaded under it: a host's FreeLibrary
//    (advapi32 frees a provider when its last context is released) only drops the host's own
//    reference, the library stays, and the token table and validated PINs survive until the
//    next acquisition. Should the monitor ever be stopped while the library is loaded, it leaves
//    through FreeLibraryAndExitThread, which never returns into code that may be gone. With no
//    monitor started, unloading only sets the flags.
//  - Linked into a program (test programs): nothing to pin; exit() runs the stop while the
//    thread still lives, and the stop waits for it (bounded, one polling period and a device
//    call at most) and logs the join.
// Measured under Wine 8 (tests/system/access/unload_test.cpp):
//  - no monitor: 100 LoadLibrary/verify-only context/FreeLibrary cycles take 2.8 s and unload the
//    library every time; advapi32 frees the provider at every last CryptReleaseContext.
//  - monitor running: FreeLibrary returns at once and the library stays; 50 FreeLibrary/
//    LoadLibrary/token-context cycles take 0.3 s, 50 CryptAcquireContext/CryptReleaseContext
//    cycles 0.25 s, one monitor throughout.
//  - a process ending while the monitor polls (returning from main, or ExitProcess from another
//    thread) ends at once, with or without an earlier FreeLibrary.
//  - for comparison, without the module reference every FreeLibrary with the monitor running
//    blocked for the whole bounded wait (5 s): the thread cannot end while the detaching thread
//    holds the loader lock, so a plain join would never return.
#include "token/device_monitor.h"

#include <windows.h>

#include <atomic>
#include <exception>
#include <set>
#include <string>
#include <vector>

#include "log/log.h"
#include "token/device_library.h"
#include "token/token_table.h"

namespace {

constexpr DWORD kPollIntervalMs = 1000;
// A join waits at most for one polling period plus one device-list call.
constexpr DWORD kJoinTimeoutMs = 5000;

std::atomic<bool> g_monitorRunning{false};
std::atomic<bool> g_monitorStopRequested{false};
std::atomic<HANDLE> g_monitorThread{nullptr};
std::atomic<DWORD> g_monitorThreadId{0};
// Wakes the thread from its pause between polls when a stop is requested. Created once, kept for
// the life of the process.
std::atomic<HANDLE> g_wakeEvent{nullptr};

HANDLE wakeEvent() {
    HANDLE event = g_wakeEvent.load();
    if (event)
        return event;
    HANDLE created = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE expected = nullptr;
    if (!g_wakeEvent.compare_exchange_strong(expected, created)) {
        CloseHandle(created);
        return expected;
    }
    return created;
}

// True while the process is ending: the loader is detaching libraries after every other thread
// has been ended.
bool processIsTerminating() {
    using ShutdownInProgress = BOOLEAN(NTAPI*)();
    HMODULE ntdll = GetModuleHandleA("ntdll.dll");
    auto query = ntdll ? reinterpret_cast<ShutdownInProgress>(
                             reinterpret_cast<void*>(GetProcAddress(ntdll, "RtlDllShutdownInProgress")))
                       : nullptr;
    return query != nullptr && query() != 0;
}

// A reference on the library that holds this code, or null when the code is part of the program
// itself (nothing can unload it then).
HMODULE referenceOwnModule() {
    HMODULE module = nullptr;
    const auto* address = reinterpret_cast<LPCSTR>(&startDeviceMonitor);
    if (!GetModuleHandleExA(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT, address,
            &module) ||
        module == GetModuleHandleA(nullptr)) {
        return nullptr;
    }
    HMODULE referenced = nullptr;
    if (!GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, address, &referenced))
        return nullptr;
    return referenced;
}

void endMonitorThread() {
    logDebug("Device monitor thread stopped.");
    g_monitorRunning = false;
}

void pollOnce() {
    try {
        std::vector<std::string> serials = calyth_getConnectedDeviceList(false, nullptr);
        std::set<std::string> connected(serials.begin(), serials.end());
        eraseDisconnectedDevices(connected);
    } catch (const std::exception& e) {
        logError(std::string("Device monitor poll failed : ") + e.what());
    } catch (...) {
        logError("Device monitor poll failed");
    }
}

// One polling period, cut short when a stop is requested. Without the wake event (the system
// refused to create it) a plain sleep: a wait on no handle returns at once, and the thread would
// poll the device list and take the table's mutex without pause.
void pauseBetweenPolls() {
    HANDLE event = wakeEvent();
    if (event == nullptr || WaitForSingleObject(event, kPollIntervalMs) == WAIT_FAILED)
        Sleep(kPollIntervalMs);
}

void runMonitor() {
    logDebug("Device monitor thread started.");
    g_monitorRunning = true;
    if (g_monitorStopRequested) {
        endMonitorThread();
        return;
    }
    for (;;) {
        pollOnce();
        pauseBetweenPolls();
        if (g_monitorStopRequested) {
            endMonitorThread();
            return;
        }
    }
}

DWORD WINAPI monitorThreadMain(LPVOID parameter) {
    runMonitor();
    if (HMODULE pinned = static_cast<HMODULE>(parameter))
        FreeLibraryAndExitThread(pinned, 0);
    return 0;
}

// Stops the monitor when the library is detached or the program exits.
struct MonitorStopAtUnload {
    MonitorStopAtUnload() = default;
    MonitorStopAtUnload(const MonitorStopAtUnload&) = delete;
    MonitorStopAtUnload& operator=(const MonitorStopAtUnload&) = delete;
    ~MonitorStopAtUnload() { stopDeviceMonitor(); }
};
MonitorStopAtUnload g_stopAtUnload;

}  // namespace

void startDeviceMonitor() {
    bool expected = false;
    if (!g_monitorRunning.compare_exchange_strong(expected, true)) {
        // After a stop whose wait ran out, the thread still runs with the stop request pending: it
        // goes on as the monitor rather than a second one starting beside it. Should it be past its
        // last check already, it ends and the next start makes a new one.
        if (g_monitorStopRequested) {
            if (HANDLE event = g_wakeEvent.load())
                ResetEvent(event);
            g_monitorStopRequested = false;
        }
        logDebug("Monitor thread already running, not starting again.");
        return;
    }
    g_monitorStopRequested = false;
    ResetEvent(wakeEvent());
    // A thread that ended earlier (stopped, then started again) leaves its handle behind.
    if (HANDLE previous = g_monitorThread.exchange(nullptr))
        CloseHandle(previous);
    HMODULE pinned = referenceOwnModule();
    DWORD threadId = 0;
    // Created suspended and let go after this line is written: the log file is shared without a
    // lock, and the thread's own first line would otherwise race with this one.
    HANDLE thread = CreateThread(nullptr, 0, monitorThreadMain, pinned, CREATE_SUSPENDED, &threadId);
    if (!thread) {
        logError("Monitor thread creation failed : " + std::to_string(GetLastError()));
        if (pinned)
            FreeLibrary(pinned);
        g_monitorRunning = false;
        return;
    }
    g_monitorThreadId = threadId;
    g_monitorThread = thread;
    try {
        logDebug("Monitor thread started (startDeviceMonitor).");
    } catch (...) {
    }
    ResumeThread(thread);
}

void stopDeviceMonitor() {
    g_monitorStopRequested = true;
    if (HANDLE event = g_wakeEvent.load())
        SetEvent(event);
    HANDLE thread = g_monitorThread.load();
    bool threadLivesOn = false;
    if (thread != nullptr) {
        if (GetCurrentThreadId() == g_monitorThreadId.load()) {
            // The monitor itself is detaching the library on its way out.
        } else if (!processIsTerminating()) {
            if (WaitForSingleObject(thread, kJoinTimeoutMs) == WAIT_OBJECT_0) {
                if (g_monitorThread.compare_exchange_strong(thread, nullptr))
                    CloseHandle(thread);
                logDebug("Monitor thread joined (stopDeviceMonitor).");
            } else {
                // Held up in a device call beyond the wait: the thread is still the monitor and
                // clears the flag itself when it ends, so that no start runs a second one meanwhile.
                threadLivesOn = true;
            }
        }
    }
    if (!threadLivesOn)
        g_monitorRunning = false;
}

bool isDeviceMonitorRunning() {
    return g_monitorRunning;
}

bool isDeviceMonitorStopRequested() {
    return g_monitorStopRequested;
}
