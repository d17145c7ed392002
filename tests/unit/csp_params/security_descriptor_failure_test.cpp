// PP_KEYSET_SEC_DESCR when the operating system refuses to make the self-relative descriptor. The
// program routes the provider's MakeSelfRelativeSD import through a switch that can make it fail;
// otherwise the real function answers.
#include <windows.h>

#include <gtest/gtest.h>
#include <vector>

#include "csp/csp_entry_points.h"
#include "log/log.h"
#include "support/test_support.h"
#include "token/csp_context.h"

namespace {

bool g_refuseCopy = false;  // fail the call that writes into a buffer

BOOL WINAPI switchableMakeSelfRelativeSD(PSECURITY_DESCRIPTOR absolute, PSECURITY_DESCRIPTOR relative,
                                         LPDWORD length) {
    using Real = BOOL(WINAPI*)(PSECURITY_DESCRIPTOR, PSECURITY_DESCRIPTOR, LPDWORD);
    static Real real = reinterpret_cast<Real>(
        reinterpret_cast<void*>(GetProcAddress(LoadLibraryA("advapi32.dll"), "MakeSelfRelativeSD")));
    if (g_refuseCopy && relative != nullptr) {
        SetLastError(ERROR_INVALID_SECURITY_DESCR);
        return FALSE;
    }
    return real(absolute, relative, length);
}

}  // namespace

// The import slot the provider's code calls through.
extern "C" {
void* __imp_MakeSelfRelativeSD = reinterpret_cast<void*>(&switchableMakeSelfRelativeSD);
}

TEST(SecurityDescriptorFailure, RefusedDescriptorFailsWithNteFail) {
    static const bool logReady =
        (logDebug("log warm-up"), logDebug("log warm-up"), logDebug("log warm-up"), true);
    (void)logReady;
    testsupport::clearLog();
    CspContext context;
    context.initialized = true;
    HCRYPTPROV handle = reinterpret_cast<HCRYPTPROV>(&context);

    DWORD length = 0;
    ASSERT_TRUE(CPGetProvParam(handle, PP_KEYSET_SEC_DESCR, nullptr, &length, 0));
    ASSERT_GT(length, 0u);
    std::vector<BYTE> data(length);

    g_refuseCopy = true;
    SetLastError(0);
    EXPECT_FALSE(CPGetProvParam(handle, PP_KEYSET_SEC_DESCR, data.data(), &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPGetProvParam PP_KEYSET_SEC_DESCR: MakeSelfRelativeSD failed"));

    g_refuseCopy = false;
    EXPECT_TRUE(CPGetProvParam(handle, PP_KEYSET_SEC_DESCR, data.data(), &length, 0));
    EXPECT_TRUE(IsValidSecurityDescriptor(data.data()));
}
