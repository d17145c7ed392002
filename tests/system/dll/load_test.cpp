// A real load of CalythCSP.dll as a host application loads the provider; the device library is
// delay-loaded from beside it when a front-end first opens.
#include <windows.h>

#include <wincrypt.h>

#include <gtest/gtest.h>
#include <string>

#include "csp/csp_entry_points.h"
#include "pe_file.h"
#include "provider_exports.h"
#include "support/test_support.h"

namespace {

TEST(ProviderLoad, LoadsFindsEveryExportAndUnloads) {
    HMODULE module = LoadLibraryA(providerDllPath().c_str());
    ASSERT_NE(module, nullptr) << "LoadLibrary failed with " << GetLastError();
    int count = 0;
    for (const char* const* name = kProviderExports; *name; ++name, ++count) {
        EXPECT_NE(reinterpret_cast<void*>(GetProcAddress(module, *name)), nullptr) << *name;
    }
    EXPECT_EQ(reinterpret_cast<void*>(GetProcAddress(module, "NoSuchExport")), nullptr);
    char loadedFrom[MAX_PATH] = {};
    GetModuleFileNameA(module, loadedFrom, sizeof loadedFrom);
    EXPECT_STRCASEEQ(loadedFrom, providerDllPath().c_str());
    EXPECT_TRUE(FreeLibrary(module));
    std::printf("%d exports found\n", count);
}

TEST(ProviderLoad, DeviceLibraryIsLoadedOnlyWhenAFrontEndOpens) {
    // Loading does nothing: the device library is delay-loaded from the provider's folder when a
    // front-end opens.
    HMODULE module = LoadLibraryA(providerDllPath().c_str());
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(GetModuleHandleA("CalythDSCLibrary.dll"), nullptr);
    using AcquireFn = BOOL(WINAPI*)(HCRYPTPROV*, LPCSTR, DWORD, PVTableProvStruc);
    auto acquire =
        reinterpret_cast<AcquireFn>(reinterpret_cast<void*>(GetProcAddress(module, "CPAcquireContext")));
    ASSERT_NE(acquire, nullptr);
    VTableProvStruc table = {};
    table.Version = 3;
    HCRYPTPROV context = 0;
    ASSERT_TRUE(acquire(&context, nullptr, CRYPT_VERIFYCONTEXT, &table)) << std::hex << GetLastError();
    HMODULE device = GetModuleHandleA("CalythDSCLibrary.dll");
    ASSERT_NE(device, nullptr);
    char devicePath[MAX_PATH] = {};
    GetModuleFileNameA(device, devicePath, sizeof devicePath);
    const std::string provider = providerDllPath();
    EXPECT_STRCASEEQ(devicePath,
                     (provider.substr(0, provider.find_last_of('\\') + 1) + "CalythDSCLibrary.dll").c_str());
    using ReleaseFn = BOOL(WINAPI*)(HCRYPTPROV, DWORD);
    auto release =
        reinterpret_cast<ReleaseFn>(reinterpret_cast<void*>(GetProcAddress(module, "CPReleaseContext")));
    ASSERT_NE(release, nullptr);
    EXPECT_TRUE(release(context, 0));
    FreeLibrary(module);
}

TEST(ProviderLoad, LoadingWritesNoLogAndTouchesNoToken) {
    // The entry point only remembers its module: no log folder appears in this program's temp.
    testsupport::removeFolder(testsupport::tempFolder() + "Quorvik Labs");
    HMODULE module = LoadLibraryA(providerDllPath().c_str());
    ASSERT_NE(module, nullptr);
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_FALSE(testsupport::pathExists(testsupport::tempFolder() + "Quorvik Labs"));
}

}  // namespace
