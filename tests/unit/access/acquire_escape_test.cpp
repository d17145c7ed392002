// CPAcquireContext answers an exception escaping from below with its own lines: running out of
// memory like the failed allocation of the context, any other exception by its text.
#include <new>
#include <stdexcept>

#include "access_test_support.h"
#include "csp/csp_entry_points.h"
#include "token/device_monitor.h"

using namespace access_test;

namespace {

class AcquireEscape : public AccessTest {
protected:
    void TearDown() override {
        fake::hooks().afterCall = nullptr;
        stopDeviceMonitor();
        AccessTest::TearDown();
    }
    // The first device call of the acquisition (made before the device monitor starts) throws
    // what `raise` throws; the answer is FALSE with the handle untouched.
    void acquireWhileThrowing(void (*raise)()) {
        fake::addToken("S1");
        fake::hooks().afterCall = [raise](const fake::Call& call) {
            if (call.function == "calyth_init")
                raise();
        };
        HCRYPTPROV handle = 77;
        SetLastError(0);
        EXPECT_FALSE(CPAcquireContext(&handle, nullptr, 0, &vtable));
        error = GetLastError();
        EXPECT_EQ(handle, 77u);
        EXPECT_FALSE(isDeviceMonitorRunning());
    }
    VTableProvStruc vtable{};
    DWORD error = 0;
};

}  // namespace

TEST_F(AcquireEscape, RunningOutOfMemoryIsTheFailedAllocation) {
    acquireWhileThrowing([] { throw std::bad_alloc(); });
    EXPECT_EQ(error, static_cast<DWORD>(NTE_NO_MEMORY));
    EXPECT_EQ(
        testsupport::logLineCount("ERROR", "CPAcquireContext: failed to allocate CSP context, return FALSE"),
        1u);
}

TEST_F(AcquireEscape, AStandardExceptionIsLoggedWithItsText) {
    acquireWhileThrowing([] { throw std::runtime_error("device gone"); });
    EXPECT_EQ(error, static_cast<DWORD>(NTE_FAIL));
    EXPECT_EQ(testsupport::logLineCount("ERROR", "CPAcquireContext: exception - device gone"), 1u);
}

TEST_F(AcquireEscape, AnyOtherExceptionIsUnknown) {
    acquireWhileThrowing([] { throw 42; });
    EXPECT_EQ(error, static_cast<DWORD>(NTE_FAIL));
    EXPECT_EQ(testsupport::logLineCount("ERROR", "CPAcquireContext: unknown exception"), 1u);
}
