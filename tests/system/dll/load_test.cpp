// A real load of CalythCSP.dll, imports resolved against CalythDSCLibrary.dll beside it, as a host
// application loads the provider.
#include <windows.h>

#include <gtest/gtest.h>
#include <string>

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

TEST(ProviderLoad, DeviceLibraryIsLoadedWithTheProviderWhenImported) {
    PeFile pe = readPeFile(providerDllPath());
    ASSERT_TRUE(pe.valid);
    bool importsDevice = false;
    for (const std::string& dll : pe.imports)
        importsDevice = importsDevice || _stricmp(dll.c_str(), "CalythDSCLibrary.dll") == 0;
    HMODULE module = LoadLibraryA(providerDllPath().c_str());
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(GetModuleHandleA("CalythDSCLibrary.dll") != nullptr, importsDevice);
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
