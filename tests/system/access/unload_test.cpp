// Unloading the provider, and loading it again, with and without a running device monitor: the
// host must never hang or crash, whether it frees the library itself, lets CryptoAPI do it, or
// simply ends.
#include "csp/csp_entry_points.h"
#include "support/provider_registration.h"
#include "support/test_support.h"
#include "support/token_tool.h"

using namespace testsupport;

namespace {

using VTable = VTableProvStruc;
using Acquire = decltype(&CPAcquireContext);
using Release = BOOL(WINAPI*)(HCRYPTPROV, DWORD);

class Unload : public ProviderStoreTest {};

bool providerLoaded() {
    return GetModuleHandleA("CalythCSP.dll") != nullptr;
}

// One context opened and closed through the library's own exports.
bool openAndClose(HMODULE module, DWORD flags) {
    auto acquire =
        reinterpret_cast<Acquire>(reinterpret_cast<void*>(GetProcAddress(module, "CPAcquireContext")));
    auto release =
        reinterpret_cast<Release>(reinterpret_cast<void*>(GetProcAddress(module, "CPReleaseContext")));
    if (!acquire || !release)
        return false;
    VTable table{};
    HCRYPTPROV handle = 0;
    if (!acquire(&handle, nullptr, flags, &table))
        return false;
    return release(handle, 0) != FALSE;
}

struct ChildRun {
    int exitCode;
    DWORD milliseconds;
    std::string output;
    std::vector<std::string> log;
};

// Runs access_exit_child with the steps; its exit code, duration and log lines.
ChildRun runChild(const std::string& steps) {
    prepareLog("access_exit_child");
    ChildRun run{};
    DWORD start = GetTickCount();
    run.exitCode = testsupport::runCommand(
        "\"" + programFolder() + "access_exit_child.exe\" \"" + providerImagePath() + "\" " + steps,
        &run.output);
    run.milliseconds = GetTickCount() - start;
    run.log = testsupport::logMessages("access_exit_child");
    return run;
}

bool contains(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

}  // namespace

// First: no monitor has been started in this process.
TEST_F(Unload, WithoutAMonitorFreeLibraryReallyUnloadsEveryTime) {
    ASSERT_FALSE(providerLoaded());
    constexpr int kCycles = 100;
    DWORD start = GetTickCount();
    for (int i = 0; i < kCycles; ++i) {
        HMODULE module = LoadLibraryA(providerImagePath().c_str());
        ASSERT_NE(module, nullptr) << i;
        ASSERT_TRUE(openAndClose(module, CRYPT_VERIFYCONTEXT)) << i;
        ASSERT_TRUE(FreeLibrary(module)) << i;
        ASSERT_FALSE(providerLoaded()) << i;
    }
    std::printf("%d load/verify context/free cycles without a monitor: %lu ms\n", kCycles,
                GetTickCount() - start);
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "Monitor thread started (startDeviceMonitor)."));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "Monitor thread joined (stopDeviceMonitor)."));
}

TEST_F(Unload, WithoutAMonitorCryptoApiLoadsAndFreesTheProviderPerContext) {
    constexpr int kCycles = 50;
    DWORD start = GetTickCount();
    for (int i = 0; i < kCycles; ++i) {
        HCRYPTPROV handle = 0;
        ASSERT_TRUE(CryptAcquireContextA(&handle, nullptr, kProviderName, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT))
            << i;
        ASSERT_TRUE(providerLoaded());
        ASSERT_TRUE(CryptReleaseContext(handle, 0)) << i;
        ASSERT_FALSE(providerLoaded()) << i;
    }
    std::printf("%d CryptAcquireContext/CryptReleaseContext cycles without a monitor: %lu ms\n", kCycles,
                GetTickCount() - start);
}

TEST_F(Unload, AProcessEndingWithoutAMonitorEndsPromptly) {
    ChildRun run = runChild("verify free");
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_LT(run.milliseconds, 10000u);
    EXPECT_TRUE(contains(run.log, "CPAcquireContext: CRYPT_VERIFYCONTEXT, no token required, return TRUE"));
    EXPECT_FALSE(contains(run.log, "Device monitor thread started."));
    std::printf("child without a monitor: %lu ms\n", run.milliseconds);
}

TEST_F(Unload, AProcessEndingWhileTheMonitorPollsEndsPromptly) {
    makeToken("UNL-1");
    for (const char* steps :
         {"token sleep", "token free sleep", "token free load token sleep", "token exitprocess"}) {
        ChildRun run = runChild(steps);
        EXPECT_EQ(run.exitCode, 0) << steps << ": " << run.output;
        EXPECT_LT(run.milliseconds, 10000u) << steps;
        EXPECT_TRUE(contains(run.log, "Monitor thread started (startDeviceMonitor).")) << steps;
        // The process ended the monitor thread itself: nothing waited for it.
        EXPECT_FALSE(contains(run.log, "Monitor thread joined (stopDeviceMonitor).")) << steps;
        std::printf("child '%s': %lu ms\n", steps, run.milliseconds);
    }
}

TEST_F(Unload, WithTheMonitorRunningTheLibraryStaysAndReloadsIntoTheSameState) {
    makeToken("UNL-2");
    HMODULE first = LoadLibraryA(providerImagePath().c_str());
    ASSERT_NE(first, nullptr);
    ASSERT_TRUE(openAndClose(first, 0));
    ASSERT_TRUE(testsupport::logHasLine("DEBUG", "Monitor thread started (startDeviceMonitor)."));

    constexpr int kCycles = 50;
    DWORD start = GetTickCount();
    for (int i = 0; i < kCycles; ++i) {
        DWORD before = GetTickCount();
        ASSERT_TRUE(FreeLibrary(i == 0 ? first : GetModuleHandleA("CalythCSP.dll"))) << i;
        ASSERT_LT(GetTickCount() - before, 500u) << i;
        // The monitor's own reference keeps the code in place.
        ASSERT_TRUE(providerLoaded()) << i;
        HMODULE again = LoadLibraryA(providerImagePath().c_str());
        ASSERT_EQ(again, first) << i;
        ASSERT_TRUE(openAndClose(again, 0)) << i;
    }
    std::printf("%d free/load/token context cycles with the monitor running: %lu ms\n", kCycles,
                GetTickCount() - start);
    // One monitor throughout. (Counted through the starting thread's line, which is written
    // before the monitor runs; the monitor's own first line may meet the acquisition's lines.)
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "Monitor thread started (startDeviceMonitor)."), 1u);
    EXPECT_GE(testsupport::logLineCount("DEBUG", "Monitor thread already running, not starting again."), 1u);
    // The monitor still works after all this: an unplugged token is forgotten.
    ASSERT_EQ(calythToken("unplug --serial UNL-2"), 0);
    EXPECT_TRUE(testsupport::waitUntil(
        [] { return testsupport::logHasLine("DEBUG", "Device disconnected: UNL-2"); }));
    FreeLibrary(first);
}

TEST_F(Unload, WithTheMonitorRunningCryptoApiCyclesNeverHang) {
    makeToken("UNL-0");  // sorts first, so it is the token a context without a container opens
    constexpr int kCycles = 50;
    DWORD start = GetTickCount();
    for (int i = 0; i < kCycles; ++i) {
        HCRYPTPROV handle = 0;
        ASSERT_TRUE(CryptAcquireContextA(&handle, nullptr, kProviderName, PROV_RSA_FULL, 0)) << i;
        ASSERT_TRUE(CryptReleaseContext(handle, 0)) << i;
        ASSERT_TRUE(providerLoaded()) << i;
    }
    std::printf("%d CryptAcquireContext/CryptReleaseContext cycles with the monitor running: %lu ms\n",
                kCycles, GetTickCount() - start);
    EXPECT_TRUE(
        testsupport::logHasLine("DEBUG", "CPAcquireContext: container= serial=UNL-0 silent=0, return TRUE"));
    // The monitor was started by an earlier test and is still the only one.
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "Monitor thread started (startDeviceMonitor)."), 0u);
    EXPECT_GE(testsupport::logLineCount("DEBUG", "Monitor thread already running, not starting again."), 1u);
}
