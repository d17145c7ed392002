// CPAcquireContext and CPReleaseContext against the scriptable device library.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <thread>

#include "access_test_support.h"
#include "csp/csp_entry_points.h"
#include "csp/csp_login.h"
#include "ksp/ksp_login.h"
#include "token/device_monitor.h"
#include "token/token_table.h"

using namespace access_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// While set, allocations that may fail (new (std::nothrow)) fail, as on a host out of memory.
static std::atomic<bool> g_failNothrowNew{false};

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (g_failNothrowNew)
        return nullptr;
    return std::malloc(size == 0 ? 1 : size);
}

namespace {

constexpr DWORD kNoToken = 0x80090023;

class AcquireContext : public AccessTest {
protected:
    void SetUp() override {
        stopDeviceMonitor();
        AccessTest::SetUp();
        testThread = GetCurrentThreadId();
        monitorSeen = false;
        fake::hooks().afterCall = [this](const fake::Call& call) { waitForMonitorStart(call); };
    }
    // The monitor thread writes its first line while the acquisition goes on, and the log file is
    // shared without a lock, so a line of either could be lost. The first device list of the test
    // thread (after the monitor was started) waits until the monitor's line is written; the
    // monitor writes nothing else unless a known token goes away.
    void waitForMonitorStart(const fake::Call& call) {
        if (monitorSeen || call.threadId != testThread || call.function != "calyth_getConnectedDeviceList")
            return;
        monitorSeen = testsupport::waitUntil(
            [] { return testsupport::logHasLine("DEBUG", "Device monitor thread started."); });
    }
    void TearDown() override {
        for (HCRYPTPROV handle : opened)
            CPReleaseContext(handle, 0);
        stopDeviceMonitor();
        fake::hooks().afterCall = nullptr;
        AccessTest::TearDown();
    }
    // Acquires and remembers the handle for release; the last error is kept for the caller.
    BOOL acquire(HCRYPTPROV* handle, const char* container, DWORD flags) {
        BOOL ok = CPAcquireContext(handle, container, flags, &vtable);
        DWORD error = GetLastError();
        if (ok && *handle)
            opened.push_back(*handle);
        SetLastError(error);
        return ok;
    }
    void forget(HCRYPTPROV handle) {
        opened.erase(std::remove(opened.begin(), opened.end(), handle), opened.end());
    }
    VTableProvStruc vtable{};
    std::vector<HCRYPTPROV> opened;
    unsigned long testThread = 0;
    bool monitorSeen = false;
};

CspContext& contextOf(HCRYPTPROV handle) {
    return *cspContextFrom(handle);
}

std::vector<std::string> namesFromThisThread() {
    std::vector<std::string> out;
    for (const fake::Call& call : fake::callsFromThisThread())
        out.push_back(call.function + (call.serial.empty() ? "" : "(" + call.serial + ")"));
    return out;
}

std::string lower(std::string text) {
    for (char& c : text)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}

}  // namespace

TEST_F(AcquireContext, ANullHandlePointerIsAnInvalidParameter) {
    fake::addToken("S1");
    SetLastError(0);
    EXPECT_FALSE(CPAcquireContext(nullptr, nullptr, 0, &vtable));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_THAT(testsupport::logEntries(),
                ElementsAre("DEBUG:CPAcquireContext",
                            "ERROR:CPAcquireContext: invalid parameter - phProv=0 pVTable=" +
                                std::to_string(reinterpret_cast<uintptr_t>(&vtable))));
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_FALSE(isDeviceMonitorRunning());
}

TEST_F(AcquireContext, ANullTableIsAnInvalidParameter) {
    HCRYPTPROV handle = 77;
    SetLastError(0);
    EXPECT_FALSE(CPAcquireContext(&handle, nullptr, CRYPT_VERIFYCONTEXT, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(handle, 77u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPAcquireContext: invalid parameter - phProv=" +
                                                     std::to_string(reinterpret_cast<uintptr_t>(&handle)) +
                                                     " pVTable=0"));
}

TEST_F(AcquireContext, DeletingAKeySetIsANoOpTestedBeforeVerifyOnly) {
    fake::addToken("S1");
    HCRYPTPROV handle = 77;
    EXPECT_TRUE(acquire(&handle, "anything", CRYPT_DELETEKEYSET | CRYPT_VERIFYCONTEXT));
    EXPECT_EQ(handle, 0u);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_FALSE(isDeviceMonitorRunning());
    EXPECT_THAT(testsupport::logEntries(),
                ElementsAre("DEBUG:CPAcquireContext", "DEBUG:CPAcquireContext - dwFlags : 4026531856",
                            "DEBUG:CPAcquireContext: CRYPT_DELETEKEYSET, return TRUE"));
}

TEST_F(AcquireContext, DeletingAKeySetLeavesTheLastErrorAlone) {
    HCRYPTPROV handle = 77;
    SetLastError(0x1234);
    EXPECT_TRUE(acquire(&handle, nullptr, CRYPT_DELETEKEYSET));
    EXPECT_EQ(GetLastError(), 0x1234u);
    EXPECT_EQ(handle, 0u);
}

TEST_F(AcquireContext, AFailedAllocationIsNoMemory) {
    fake::addToken("S1");
    HCRYPTPROV handle = 0;
    SetLastError(0);
    g_failNothrowNew = true;
    BOOL ok = CPAcquireContext(&handle, nullptr, 0, &vtable);
    DWORD error = GetLastError();
    g_failNothrowNew = false;
    EXPECT_FALSE(ok);
    EXPECT_EQ(error, static_cast<DWORD>(NTE_NO_MEMORY));
    EXPECT_EQ(handle, 0u);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPAcquireContext: failed to allocate CSP context, return FALSE"));
    EXPECT_THAT(fake::calls(), IsEmpty());
}

TEST_F(AcquireContext, AVerifyOnlyContextTouchesNoToken) {
    fake::addToken("S1");
    HCRYPTPROV handle = 0;
    EXPECT_TRUE(acquire(&handle, "SomeContainer", CRYPT_VERIFYCONTEXT));
    ASSERT_NE(handle, 0u);
    CspContext& context = contextOf(handle);
    EXPECT_TRUE(context.initialized);
    EXPECT_EQ(context.keysetType, 0x1000u);
    EXPECT_EQ(context.serialNumber, "");
    EXPECT_EQ(context.containerName, "");
    EXPECT_THAT(context.keyIds, IsEmpty());
    EXPECT_FALSE(context.silent);
    EXPECT_EQ(context.deviceContext, nullptr);
    EXPECT_EQ(context.clientWindow, nullptr);
    EXPECT_EQ(context.containerQueried, 0);
    EXPECT_EQ(context.algorithmEnumIndex, 0u);
    EXPECT_EQ(context.containerEnumIndex, 0u);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_FALSE(isDeviceMonitorRunning());
    EXPECT_THAT(testsupport::logEntries(),
                ElementsAre("DEBUG:CPAcquireContext", "DEBUG:CPAcquireContext - dwFlags : 4026531840",
                            "DEBUG:CPAcquireContext - isSilent : 0",
                            "DEBUG:CPAcquireContext: CRYPT_VERIFYCONTEXT, no token required, return TRUE"));
    // A context without a token cannot log in: there is nothing to ask.
    EXPECT_FALSE(hasValidatedPin(context.serialNumber));
}

TEST_F(AcquireContext, AnyBitOfTheVerifyGroupMeansVerifyOnly) {
    fake::addToken("S1");
    for (DWORD flags : {0x10000000u, 0x20000000u, 0x40000000u, 0x80000000u | CRYPT_SILENT}) {
        HCRYPTPROV handle = 0;
        EXPECT_TRUE(acquire(&handle, nullptr, flags)) << flags;
        ASSERT_NE(handle, 0u);
        EXPECT_EQ(contextOf(handle).serialNumber, "");
        EXPECT_EQ(contextOf(handle).silent, (flags & CRYPT_SILENT) != 0);
    }
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPAcquireContext - dwFlags : 268435456"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPAcquireContext - isSilent : 1"));
    EXPECT_FALSE(isDeviceMonitorRunning());
}

TEST_F(AcquireContext, NoTokenConnectedFailsWithTheNoTokenCode) {
    HCRYPTPROV handle = 0;
    SetLastError(0);
    EXPECT_FALSE(acquire(&handle, nullptr, 0));
    EXPECT_EQ(GetLastError(), kNoToken);
    EXPECT_EQ(handle, 0u);
    EXPECT_THAT(namesFromThisThread(), ElementsAre("calyth_init", "calyth_getConnectedDeviceList"));
    auto init = fake::callsTo("calyth_init");
    EXPECT_THAT(init[0].args, ElementsAre("0", "null", "2"));
    // The monitor is started before the tokens are listed.
    EXPECT_TRUE(isDeviceMonitorRunning());
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Monitor thread started (startDeviceMonitor)."));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPAcquireContext: valid token not connected, return FALSE"));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "CPAcquireContext - Container name not provided"));
}

TEST_F(AcquireContext, OneTokenInTheDocumentedOrder) {
    fake::addToken("S1");
    fake::addKeyPair("S1", fake::makeKeyPair(keyIdHex(1), CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048));
    fake::addKeyPair("S1", fake::makeKeyPair(keyIdHex(2), CALYTH_USAGE_SIGNATURE, CALYTH_KEY_EC_P256));
    HCRYPTPROV handle = 0;
    EXPECT_TRUE(acquire(&handle, nullptr, 0));
    ASSERT_NE(handle, 0u);
    EXPECT_THAT(
        namesFromThisThread(),
        ElementsAre("calyth_init", "calyth_getConnectedDeviceList", "calyth_init", "calyth_initDevice(S1)",
                    "calyth_getConnectedDeviceList", "calyth_getKeyPairList(S1)"));
    for (const fake::Call& call : fake::callsFromThisThread()) {
        if (call.function == "calyth_getConnectedDeviceList") {
            EXPECT_THAT(call.args, ElementsAre("false", "null"));
        }
        if (call.function == "calyth_initDevice") {
            EXPECT_THAT(call.args, ElementsAre("false"));
        }
    }
    CspContext& context = contextOf(handle);
    EXPECT_TRUE(context.initialized);
    EXPECT_EQ(context.keysetType, 0x1000u);
    EXPECT_EQ(context.serialNumber, "S1");
    EXPECT_EQ(context.containerName, "");
    EXPECT_THAT(context.keyIds, ElementsAre(keyIdHex(1), keyIdHex(2)));
    EXPECT_EQ(context.deviceContext, nullptr);
    EXPECT_TRUE(isDeviceInitialized("S1"));
    EXPECT_FALSE(isPinValidated("S1"));

    std::vector<std::string> lines;
    for (const std::string& entry : testsupport::logEntries())
        if (entry.find("onitor") == std::string::npos)
            lines.push_back(entry);
    EXPECT_THAT(lines, ElementsAre("DEBUG:CPAcquireContext", "DEBUG:CPAcquireContext - dwFlags : 0",
                                   "DEBUG:CPAcquireContext - isSilent : 0",
                                   "DEBUG:CPAcquireContext - Container name not provided",
                                   "DEBUG:" + keyIdHex(1), "DEBUG:" + keyIdHex(2),
                                   "DEBUG:CPAcquireContext: container= serial=S1 silent=0, return TRUE"));
}

TEST_F(AcquireContext, ANullContainerWithTwoTokensOpensTheFirst) {
    fake::addToken("S1");
    fake::addToken("S2");
    fake::addKeyPair("S2", fake::makeKeyPair(keyIdHex(2), CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048));
    HCRYPTPROV handle = 0;
    EXPECT_TRUE(acquire(&handle, nullptr, 0));
    EXPECT_EQ(contextOf(handle).serialNumber, "S1");
    EXPECT_THAT(contextOf(handle).keyIds, IsEmpty());
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Acquire Context :: Key List is empty"));
    EXPECT_THAT(serialsOf("calyth_initDevice"), ElementsAre("S1", "S2"));
}

TEST_F(AcquireContext, ALowerCaseKeyIdentifierOpensTheSecondTokenAndKeepsItsCase) {
    fake::addToken("S1");
    fake::addToken("S2");
    fake::addKeyPair("S1", fake::makeKeyPair(keyIdHex(1), CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048));
    fake::addKeyPair("S2", fake::makeKeyPair(keyIdHex(2), CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048));
    fake::addKeyPair("S2", fake::makeKeyPair(keyIdHex(3), CALYTH_USAGE_SIGNATURE, CALYTH_KEY_EC_P384));
    std::string name = lower(keyIdHex(2));
    HCRYPTPROV handle = 0;
    EXPECT_TRUE(acquire(&handle, name.c_str(), CRYPT_SILENT));
    CspContext& context = contextOf(handle);
    EXPECT_EQ(context.serialNumber, "S2");
    EXPECT_EQ(context.containerName, name);
    EXPECT_THAT(context.keyIds, ElementsAre(keyIdHex(2), keyIdHex(3)));
    EXPECT_TRUE(context.silent);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPAcquireContext - Container name : " + name));
    EXPECT_TRUE(testsupport::logHasLine(
        "DEBUG", "CPAcquireContext: container=" + name + " serial=S2 silent=1, return TRUE"));
    EXPECT_FALSE(testsupport::logHasLine(
        "DEBUG", "CPAcquireContext - resolved container " + name + " -> " + keyIdHex(2)));
}

TEST_F(AcquireContext, TheContainerTableResolvesTheNameButDoesNotPickTheToken) {
    fake::addToken("S1");
    fake::addToken("S2");
    fake::addKeyPair("S2", fake::makeKeyPair(keyIdHex(2), CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048));
    recordResolvedContainer("MyApplicationKeys", keyIdHex(2));
    HCRYPTPROV handle = 0;
    EXPECT_TRUE(acquire(&handle, "MyApplicationKeys", 0));
    EXPECT_EQ(contextOf(handle).containerName, keyIdHex(2));
    EXPECT_EQ(contextOf(handle).serialNumber, "S1");
    EXPECT_TRUE(testsupport::logHasLine(
        "DEBUG", "CPAcquireContext - resolved container MyApplicationKeys -> " + keyIdHex(2)));
    EXPECT_TRUE(testsupport::logHasLine(
        "DEBUG", "CPAcquireContext: container=" + keyIdHex(2) + " serial=S1 silent=0, return TRUE"));
    // The table matches case-sensitively.
    HCRYPTPROV other = 0;
    EXPECT_TRUE(acquire(&other, "myapplicationkeys", 0));
    EXPECT_EQ(contextOf(other).containerName, "myapplicationkeys");
}

TEST_F(AcquireContext, AcquiringTwiceInitialisesEachTokenOnce) {
    fake::addToken("S1");
    fake::addToken("S2");
    HCRYPTPROV first = 0;
    HCRYPTPROV second = 0;
    EXPECT_TRUE(acquire(&first, nullptr, 0));
    fake::clearCalls();
    EXPECT_TRUE(acquire(&second, nullptr, 0));
    EXPECT_NE(first, second);
    EXPECT_EQ(fake::countCalls("calyth_initDevice"), 0u);
    EXPECT_THAT(namesFromThisThread(),
                ElementsAre("calyth_init", "calyth_getConnectedDeviceList", "calyth_getConnectedDeviceList",
                            "calyth_getKeyPairList(S1)"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Monitor thread already running, not starting again."));
}

TEST_F(AcquireContext, AFailedInitialisationIsLoggedAndTheAcquisitionGoesOn) {
    fake::addToken("S1").initResult = 9;
    fake::addToken("S2");
    HCRYPTPROV handle = 0;
    EXPECT_TRUE(acquire(&handle, nullptr, 0));
    // The first token is still the one selected.
    EXPECT_EQ(contextOf(handle).serialNumber, "S1");
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Init device failed for S1 : 9"));
    EXPECT_FALSE(isDeviceInitialized("S1"));
    EXPECT_TRUE(isDeviceInitialized("S2"));
    // The next acquisition tries the failed token again, and only that one.
    fake::token("S1").initResult = 0;
    fake::clearCalls();
    HCRYPTPROV again = 0;
    EXPECT_TRUE(acquire(&again, nullptr, 0));
    EXPECT_THAT(serialsOf("calyth_initDevice"), ElementsAre("S1"));
    EXPECT_TRUE(isDeviceInitialized("S1"));
}

TEST_F(AcquireContext, ATokenGoneBeforeSelectionFailsWithTheNoTokenCode) {
    fake::addToken("S1");
    fake::hooks().afterCall = [this](const fake::Call& call) {
        waitForMonitorStart(call);
        if (call.function == "calyth_initDevice")
            fake::setConnected("S1", false);
    };
    HCRYPTPROV handle = 0;
    SetLastError(0);
    EXPECT_FALSE(acquire(&handle, nullptr, 0));
    EXPECT_EQ(GetLastError(), kNoToken);
    EXPECT_EQ(handle, 0u);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPAcquireContext: no initialized device found, return FALSE"));
    EXPECT_EQ(fake::countCalls("calyth_getKeyPairList"), 0u);
}

TEST_F(AcquireContext, ReleasingWithFlagsKeepsTheContextUsable) {
    fake::addToken("S1");
    HCRYPTPROV handle = 0;
    ASSERT_TRUE(acquire(&handle, nullptr, 0));
    fake::clearCalls();
    SetLastError(0);
    EXPECT_FALSE(CPReleaseContext(handle, 1));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_FLAGS));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPReleaseContext: invalid dwFlags=0x00000001"));
    EXPECT_FALSE(CPReleaseContext(handle, 0xABCD0010));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPReleaseContext: invalid dwFlags=0xABCD0010"));
    EXPECT_TRUE(isUsableContext(handle));
    EXPECT_EQ(contextOf(handle).serialNumber, "S1");
    forget(handle);
    EXPECT_TRUE(CPReleaseContext(handle, 0));
    EXPECT_THAT(namesFromThisThread(), IsEmpty());
}

TEST_F(AcquireContext, ReleasingNothingOrAnUninitialisedContextIsRefused) {
    SetLastError(0);
    EXPECT_FALSE(CPReleaseContext(0, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    CspContext unfinished;
    SetLastError(0);
    EXPECT_FALSE(CPReleaseContext(reinterpret_cast<HCRYPTPROV>(&unfinished), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_EQ(testsupport::logLineCount("ERROR", "CPReleaseContext: invalid or uninitialized context"), 2u);
    // Flags are tested first.
    EXPECT_FALSE(CPReleaseContext(0, 2));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_FLAGS));
}

TEST_F(AcquireContext, ReleasingLogsOnlyItsNameAndLeavesTokenStateAndMonitor) {
    fake::addToken("S1");
    HCRYPTPROV handle = 0;
    ASSERT_TRUE(acquire(&handle, nullptr, 0));
    storeValidatedPin("S1", "1234");
    HCRYPTPROV verify = 0;
    ASSERT_TRUE(acquire(&verify, nullptr, CRYPT_VERIFYCONTEXT));
    fake::clearCalls();
    testsupport::clearLog();
    forget(handle);
    forget(verify);
    EXPECT_TRUE(CPReleaseContext(handle, 0));
    EXPECT_TRUE(CPReleaseContext(verify, 0));
    EXPECT_THAT(namesFromThisThread(), IsEmpty());
    std::vector<std::string> lines;
    for (const std::string& entry : testsupport::logEntries())
        if (entry.find("onitor") == std::string::npos)
            lines.push_back(entry);
    EXPECT_THAT(lines, ElementsAre("DEBUG:CPReleaseContext", "DEBUG:CPReleaseContext"));
    EXPECT_TRUE(isDeviceInitialized("S1"));
    EXPECT_EQ(getValidatedPin("S1"), "1234");
    EXPECT_TRUE(isDeviceMonitorRunning());
}

TEST_F(AcquireContext, AValidatedPinIsNotAskedAgainAfterANewAcquisition) {
    fake::addToken("S1");
    HCRYPTPROV handle = 0;
    ASSERT_TRUE(acquire(&handle, nullptr, 0));
    storeValidatedPin("S1", "1234");  // as a successful login leaves it
    forget(handle);
    ASSERT_TRUE(CPReleaseContext(handle, 0));
    HCRYPTPROV again = 0;
    ASSERT_TRUE(acquire(&again, nullptr, CRYPT_SILENT));
    fake::clearCalls();
    EXPECT_TRUE(ensurePasswordValidated(&contextOf(again)));
    EXPECT_TRUE(kspEnsurePasswordValidated("S1", nullptr));
    EXPECT_THAT(namesFromThisThread(), IsEmpty());
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "Password dialog show window"));
}

TEST_F(AcquireContext, AnUnpluggedTokenIsForgottenAndInitialisedAndAskedForAgain) {
    fake::addToken("S1");
    HCRYPTPROV handle = 0;
    ASSERT_TRUE(acquire(&handle, nullptr, 0));
    storeValidatedPin("S1", "1234");
    // Forgotten at the next poll: the one under way at the unplug may count on either side of it.
    size_t pollsAtUnplug = monitorPolls();
    fake::setConnected("S1", false);
    size_t pollsAtRemoval = 0;
    ASSERT_TRUE(testsupport::waitUntil([&pollsAtRemoval] {
        pollsAtRemoval = monitorPolls();
        return !hasDeviceEntry("S1");
    }));
    EXPECT_LE(pollsAtRemoval, pollsAtUnplug + 2);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Device disconnected: S1"));
    // The open context keeps its token.
    EXPECT_EQ(contextOf(handle).serialNumber, "S1");

    fake::setConnected("S1", true);
    fake::clearCalls();
    HCRYPTPROV again = 0;
    ASSERT_TRUE(acquire(&again, nullptr, 0));
    EXPECT_THAT(serialsOf("calyth_initDevice"), ElementsAre("S1"));
    EXPECT_TRUE(isDeviceInitialized("S1"));
    // The PIN is asked for again (no display here: the dialog cannot open and counts as cancelled).
    testsupport::clearLog();
    EXPECT_FALSE(ensurePasswordValidated(&contextOf(again)));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Password dialog show window"));
}

TEST_F(AcquireContext, ManyThreadsAcquiringAndReleasingStartOneMonitorAndCorruptNothing) {
    fake::addToken("S1");
    fake::addToken("S2");
    fake::addKeyPair("S2", fake::makeKeyPair(keyIdHex(2), CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048));
    constexpr int kThreads = 8;
    constexpr int kRounds = 25;
    std::atomic<int> ready{0};
    std::atomic<int> failures{0};
    std::vector<unsigned long> workers(kThreads + 1, GetCurrentThreadId());
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            workers[t] = GetCurrentThreadId();
            ++ready;
            while (ready < kThreads)
                std::this_thread::yield();
            VTableProvStruc table{};
            for (int i = 0; i < kRounds; ++i) {
                HCRYPTPROV handle = 0;
                const bool second = (t + i) % 2 == 0;
                const std::string name = second ? lower(keyIdHex(2)) : "";
                if (!CPAcquireContext(&handle, second ? name.c_str() : nullptr, 0, &table)) {
                    ++failures;
                    continue;
                }
                const CspContext& context = *cspContextFrom(handle);
                if (context.serialNumber != (second ? "S2" : "S1") || context.containerName != name)
                    ++failures;
                if (second && (context.keyIds.size() != 1 || context.keyIds[0] != keyIdHex(2)))
                    ++failures;
                if (!CPReleaseContext(handle, 0))
                    ++failures;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
    // Exactly one monitor polls. (Log lines are not counted here: concurrent writers share the
    // file through append mode alone, and a line may be lost when many threads write at once.)
    // Two polls from threads other than the workers: a second monitor started with the first would
    // have made its own first poll by the first monitor's second one.
    auto monitorCalls = [&workers] {
        size_t count = 0;
        for (const fake::Call& call : fake::callsTo("calyth_getConnectedDeviceList"))
            if (std::find(workers.begin(), workers.end(), call.threadId) == workers.end())
                ++count;
        return count;
    };
    ASSERT_TRUE(testsupport::waitUntil([&] { return monitorCalls() >= 2; }));
    EXPECT_EQ(otherThreadsCalling("calyth_getConnectedDeviceList", workers), 1u);
    EXPECT_LE(testsupport::logLineCount("DEBUG", "Monitor thread started (startDeviceMonitor)."), 1u);
    EXPECT_LE(testsupport::logLineCount("DEBUG", "Device monitor thread started."), 1u);
    EXPECT_TRUE(isDeviceMonitorRunning());
    EXPECT_TRUE(isDeviceInitialized("S1"));
    EXPECT_TRUE(isDeviceInitialized("S2"));
    // Racing first acquisitions may each initialise a token; after that, never again.
    EXPECT_LE(fake::countCalls("calyth_initDevice"), 2u * kThreads);
    fake::clearCalls();
    HCRYPTPROV handle = 0;
    EXPECT_TRUE(acquire(&handle, nullptr, 0));
    EXPECT_EQ(fake::countCalls("calyth_initDevice"), 0u);
}
