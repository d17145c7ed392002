// The device monitor when the system cannot give it an event to wait on: it still polls once a
// second instead of spinning. The program routes the provider's import of CreateEventA through a
// switch that refuses manual-reset events.
#include <windows.h>

#include <atomic>

#include "access_test_support.h"
#include "token/device_monitor.h"

using namespace access_test;

namespace {

std::atomic<bool> g_refuseEvents{false};

HANDLE WINAPI switchableCreateEventA(LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initialState,
                                     LPCSTR name) {
    using Real = HANDLE(WINAPI*)(LPSECURITY_ATTRIBUTES, BOOL, BOOL, LPCSTR);
    // Looked up at every call: a function-local static's guard may itself create an event.
    auto function = reinterpret_cast<Real>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernel32.dll"), "CreateEventA")));
    // Only manual-reset events, the kind the monitor waits on: the threads library's mutexes create
    // auto-reset events of their own when contended.
    if (g_refuseEvents && manualReset) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return function(attributes, manualReset, initialState, name);
}

}  // namespace

// The import slot the provider's code calls through.
extern "C" {
void* __imp_CreateEventA = reinterpret_cast<void*>(&switchableCreateEventA);
}

namespace {

class MonitorWithoutEvent : public AccessTest {
protected:
    void SetUp() override {
        AccessTest::SetUp();
        g_refuseEvents = true;
    }
    void TearDown() override {
        stopDeviceMonitor();
        g_refuseEvents = false;
        AccessTest::TearDown();
    }
};

}  // namespace

TEST_F(MonitorWithoutEvent, PollsOnceASecondWithoutItsWakeEvent) {
    startDeviceMonitor();
    // Three polls span at least two pauses; without them the thread would have made thousands by now.
    DWORD started = GetTickCount();
    ASSERT_TRUE(testsupport::waitUntil([] { return monitorPolls() >= 3; }));
    EXPECT_GE(GetTickCount() - started, 1900u);
    EXPECT_LE(monitorPolls(), 4u);

    stopDeviceMonitor();
    EXPECT_FALSE(isDeviceMonitorRunning());
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Monitor thread joined (stopDeviceMonitor)."));
}
