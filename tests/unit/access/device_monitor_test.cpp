// The device monitor thread: one per process, a poll per second, removed tokens forgotten.
#include "token/device_monitor.h"

#include <atomic>
#include <functional>
#include <thread>

#include "access_test_support.h"
#include "token/token_table.h"

using namespace access_test;
using ::testing::ElementsAre;

namespace {

// Holding the monitor up in a device call. Process-wide, since the monitor may still be in the hook
// when a failed assertion ends a test; the tear-down lets it go.
HANDLE g_release = CreateEventA(nullptr, TRUE, FALSE, nullptr);
std::atomic<bool> g_holdUp{false};
std::atomic<int> g_heldUp{0};

class DeviceMonitor : public AccessTest {
protected:
    void TearDown() override {
        g_holdUp = false;
        SetEvent(g_release);
        stopDeviceMonitor();
        AccessTest::TearDown();
    }
};

std::vector<std::string> monitorLines() {
    std::vector<std::string> out;
    for (const std::string& entry : testsupport::logEntries())
        if (entry.find("onitor") != std::string::npos ||
            entry.find("Device disconnected") != std::string::npos)
            out.push_back(entry);
    return out;
}

}  // namespace

// First in this program: nothing has started a monitor yet.
TEST_F(DeviceMonitor, UnloadingWithNoMonitorStartedOnlySetsTheFlags) {
    ASSERT_FALSE(isDeviceMonitorRunning());
    // No thread to wait for: a bound that only catches a hang; the lines and calls below show that
    // nothing was waited for.
    DWORD start = GetTickCount();
    stopDeviceMonitor();
    EXPECT_LT(GetTickCount() - start, testsupport::kGenerousWaitMs);
    EXPECT_TRUE(isDeviceMonitorStopRequested());
    EXPECT_FALSE(isDeviceMonitorRunning());
    EXPECT_THAT(monitorLines(), ElementsAre());
    EXPECT_THAT(fake::calls(), ElementsAre());
}

TEST_F(DeviceMonitor, StartingPollsTheConnectedTokensEverySecond) {
    startDeviceMonitor();
    EXPECT_TRUE(isDeviceMonitorRunning());
    EXPECT_FALSE(isDeviceMonitorStopRequested());
    // Not faster than once a second: three polls span two intervals (a lower bound, which load
    // cannot break). How soon they come depends on the machine's load, so the wait is generous.
    DWORD started = GetTickCount();
    ASSERT_TRUE(testsupport::waitUntil([] { return monitorPolls() >= 3; }));
    EXPECT_GE(GetTickCount() - started, 1900u);
    size_t polls = monitorPolls();
    EXPECT_GE(polls, 3u);
    EXPECT_LE(polls, 4u);
    for (const fake::Call& call : fake::callsTo("calyth_getConnectedDeviceList"))
        EXPECT_THAT(call.args, ElementsAre("false", "null"));
    // The monitor asks for nothing else.
    EXPECT_EQ(fake::calls().size(), polls);
    // The starting thread's line comes first: the thread runs only once it is written.
    EXPECT_THAT(monitorLines(), ElementsAre("DEBUG:Monitor thread started (startDeviceMonitor).",
                                            "DEBUG:Device monitor thread started."));
}

TEST_F(DeviceMonitor, ASecondStartIsALoggedNoOp) {
    startDeviceMonitor();
    // The thread's first line is written before the second start writes its own (the two threads
    // share the log file without a lock).
    ASSERT_TRUE(testsupport::waitUntil(
        [] { return testsupport::logHasLine("DEBUG", "Device monitor thread started."); }));
    // A second monitor thread would write its first line before its first poll.
    size_t polls = monitorPolls();
    startDeviceMonitor();
    ASSERT_TRUE(testsupport::waitUntil([polls] { return monitorPolls() > polls; }));
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "Monitor thread started (startDeviceMonitor)."), 1u);
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "Monitor thread already running, not starting again."), 1u);
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "Device monitor thread started."), 1u);
}

TEST_F(DeviceMonitor, ConcurrentStartsStartExactlyOneThread) {
    constexpr int kThreads = 8;
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&ready] {
            ++ready;
            while (ready < kThreads)
                std::this_thread::yield();
            startDeviceMonitor();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    // A second polling thread would have made its first call by the second poll.
    ASSERT_TRUE(testsupport::waitUntil([] { return monitorPolls() >= 2; }));
    // One thread polls: about one call per second, not eight.
    EXPECT_EQ(otherThreadsCalling("calyth_getConnectedDeviceList", {GetCurrentThreadId()}), 1u);
    EXPECT_LE(monitorPolls(), 3u);
    // Concurrent writers may lose a line of the shared log file (append mode alone), so the lines
    // are bounded rather than counted exactly.
    EXPECT_LE(testsupport::logLineCount("DEBUG", "Monitor thread started (startDeviceMonitor)."), 1u);
    EXPECT_LE(testsupport::logLineCount("DEBUG", "Monitor thread already running, not starting again."),
              kThreads - 1u);
    EXPECT_GE(testsupport::logLineCount("DEBUG", "Monitor thread already running, not starting again."), 1u);
    EXPECT_LE(testsupport::logLineCount("DEBUG", "Device monitor thread started."), 1u);
}

TEST_F(DeviceMonitor, ARemovedTokenIsForgottenWithinASecond) {
    fake::addToken("S1");
    fake::addToken("S2");
    markDeviceInitialized("S1");
    storeValidatedPin("S1", "1234");
    markDeviceInitialized("S2");
    startDeviceMonitor();
    ASSERT_TRUE(testsupport::waitUntil([] { return monitorPolls() >= 1; }));
    EXPECT_TRUE(hasDeviceEntry("S1"));

    // Forgotten at the next poll: the one under way at the unplug may count on either side of it.
    size_t pollsAtUnplug = monitorPolls();
    fake::setConnected("S1", false);
    size_t pollsAtRemoval = 0;
    ASSERT_TRUE(testsupport::waitUntil([&pollsAtRemoval] {
        pollsAtRemoval = monitorPolls();
        return !hasDeviceEntry("S1");
    }));
    EXPECT_LE(pollsAtRemoval, pollsAtUnplug + 2);
    EXPECT_FALSE(isDeviceInitialized("S1"));
    EXPECT_FALSE(isPinValidated("S1"));
    EXPECT_EQ(getValidatedPin("S1"), "");
    EXPECT_TRUE(isDeviceInitialized("S2"));

    // Logged once, not at every later poll.
    size_t polls = monitorPolls();
    ASSERT_TRUE(testsupport::waitUntil([polls] { return monitorPolls() >= polls + 2; }));
    EXPECT_THAT(monitorLines(), testing::Contains("DEBUG:Device disconnected: S1"));
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "Device disconnected: S1"), 1u);
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "Device disconnected: S2"));
}

TEST_F(DeviceMonitor, AConnectedTokenNeverInitialisedHasNoEntryAndIsNotLogged) {
    fake::addToken("S3");
    startDeviceMonitor();
    ASSERT_TRUE(testsupport::waitUntil([] { return monitorPolls() >= 2; }));
    EXPECT_FALSE(hasDeviceEntry("S3"));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "Device disconnected: S3"));
    fake::setConnected("S3", false);
    size_t polls = monitorPolls();
    ASSERT_TRUE(testsupport::waitUntil([polls] { return monitorPolls() >= polls + 1; }));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "Device disconnected: S3"));
}

TEST_F(DeviceMonitor, AKnownTokenThatIsNotConnectedIsErasedAtTheFirstPoll) {
    storeValidatedPin("GONE", "1234");
    startDeviceMonitor();
    ASSERT_TRUE(testsupport::waitUntil([] { return !hasDeviceEntry("GONE"); }));
    // Erased by the first poll: the next one comes a second later.
    EXPECT_EQ(monitorPolls(), 1u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Device disconnected: GONE"));
}

TEST_F(DeviceMonitor, StoppingEndsAndJoinsTheThreadPromptly) {
    startDeviceMonitor();
    ASSERT_TRUE(testsupport::waitUntil([] { return monitorPolls() >= 1; }));
    // The stop wakes the thread instead of waiting out its interval or its own join timeout; the
    // "joined" line below shows that the join succeeded, the bound only catches a hang.
    DWORD start = GetTickCount();
    stopDeviceMonitor();
    EXPECT_LT(GetTickCount() - start, testsupport::kGenerousWaitMs);
    EXPECT_FALSE(isDeviceMonitorRunning());
    EXPECT_TRUE(isDeviceMonitorStopRequested());
    std::vector<std::string> lines = monitorLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], "DEBUG:Device monitor thread stopped.");
    EXPECT_EQ(lines.back(), "DEBUG:Monitor thread joined (stopDeviceMonitor).");
    // The subject is a duration: no poll comes in the next interval (1 s) and more.
    size_t polls = monitorPolls();
    Sleep(1500);
    EXPECT_EQ(monitorPolls(), polls);
}

TEST_F(DeviceMonitor, AStoppedMonitorCanBeStartedAgain) {
    startDeviceMonitor();
    stopDeviceMonitor();
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "Device monitor thread stopped."), 1u);
    fake::clearCalls();
    startDeviceMonitor();
    EXPECT_TRUE(isDeviceMonitorRunning());
    ASSERT_TRUE(testsupport::waitUntil([] { return monitorPolls() >= 1; }));
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "Monitor thread started (startDeviceMonitor)."), 2u);
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "Monitor thread already running, not starting again."));
}

TEST_F(DeviceMonitor, AStopRightAfterTheStartEndsTheThread) {
    for (int i = 0; i < 5; ++i) {
        startDeviceMonitor();
        stopDeviceMonitor();
    }
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "Device monitor thread stopped."), 5u);
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "Monitor thread joined (stopDeviceMonitor)."), 5u);
    EXPECT_FALSE(isDeviceMonitorRunning());
}

// A stop whose wait ran out (the monitor was held up in a device call) leaves the thread alive; a
// later start must not run a second monitor beside it.

TEST_F(DeviceMonitor, AStartAfterAStopThatTimedOutRunsNoSecondMonitor) {
    ASSERT_NE(g_release, nullptr);
    ResetEvent(g_release);
    g_heldUp = 0;
    const DWORD testThread = GetCurrentThreadId();
    fake::hooks().afterCall = [testThread](const fake::Call& call) {
        if (call.function == "calyth_getConnectedDeviceList" && call.threadId != testThread && g_holdUp) {
            ++g_heldUp;
            WaitForSingleObject(g_release, 30000);
        }
    };
    startDeviceMonitor();
    ASSERT_TRUE(testsupport::waitUntil([] { return monitorPolls() >= 1; }));
    g_holdUp = true;
    ASSERT_TRUE(testsupport::waitUntil([] { return g_heldUp >= 1; }));

    stopDeviceMonitor();  // waits its bounded time and gives up: the thread is still in the call
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "Monitor thread joined (stopDeviceMonitor)."));
    startDeviceMonitor();
    g_holdUp = false;
    SetEvent(g_release);

    // Three more polls: one thread makes them all.
    fake::clearCalls();
    ASSERT_TRUE(testsupport::waitUntil([] { return monitorPolls() >= 3; }));
    EXPECT_EQ(otherThreadsCalling("calyth_getConnectedDeviceList", {testThread}), 1u);
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "Monitor thread started (startDeviceMonitor)."), 1u);
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "Device monitor thread started."), 1u);
    EXPECT_TRUE(isDeviceMonitorRunning());

    stopDeviceMonitor();
    EXPECT_FALSE(isDeviceMonitorRunning());
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Monitor thread joined (stopDeviceMonitor)."));
}
