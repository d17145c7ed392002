// A CalythDSCLibrary.dll planted beside the host program is never used. This program runs from a
// folder of its own that holds a different device library (the null device, whose only token is
// "NULL0"); the provider is registered from the build's folder, beside the soft token, and a copy
// of the provider sits alone in a third folder without any device library.
#include <windows.h>

#include <wincrypt.h>

#include <psapi.h>

#include <cctype>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "csp/csp_entry_points.h"
#include "ksp/ksp_interface.h"
#include "support/cng_client.h"
#include "support/provider_registration.h"
#include "support/test_support.h"
#include "support/token_tool.h"

using namespace testsupport;

namespace {

constexpr const char* kSerial = "PLANTED-SOFT-01";
constexpr DWORD kProviderDllFail = 0x8009001D;  // NTE_PROVIDER_DLL_FAIL

std::string lower(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// <build>\bin\: the parent of this program's folder.
std::string buildBinFolder() {
    std::string own = programFolder();
    own.pop_back();
    return own.substr(0, own.find_last_of('\\') + 1);
}

std::string plantedLibraryPath() {
    return programFolder() + "CalythDSCLibrary.dll";
}

// Full paths of every CalythDSCLibrary.dll loaded in this process, lower case.
std::vector<std::string> loadedDeviceLibraries() {
    std::vector<HMODULE> modules(1024);
    DWORD needed = 0;
    EnumProcessModules(GetCurrentProcess(), modules.data(),
                       static_cast<DWORD>(modules.size() * sizeof(HMODULE)), &needed);
    modules.resize(needed / sizeof(HMODULE));
    std::vector<std::string> found;
    for (HMODULE module : modules) {
        char path[MAX_PATH] = {};
        GetModuleFileNameA(module, path, MAX_PATH);
        std::string name = lower(path);
        if (name.size() >= 20 && name.compare(name.size() - 20, 20, "calythdsclibrary.dll") == 0)
            found.push_back(name);
    }
    return found;
}

class PlantedLibrary : public TokenStoreTest {};

TEST_F(PlantedLibrary, TheTestBedPlantsADifferentLibraryBesideTheHost) {
    ASSERT_TRUE(pathExists(plantedLibraryPath()));
    ASSERT_TRUE(pathExists(buildBinFolder() + "CalythCSP.dll"));
    ASSERT_TRUE(pathExists(buildBinFolder() + "CalythDSCLibrary.dll"));
    // The planted library answers a token the soft token does not have.
    HMODULE planted = LoadLibraryA(plantedLibraryPath().c_str());
    ASSERT_NE(planted, nullptr);
    using DeviceList = std::vector<std::string> (*)(bool, void*);
    auto list = reinterpret_cast<DeviceList>(
        reinterpret_cast<void*>(GetProcAddress(planted, "calyth_getConnectedDeviceList")));
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list(false, nullptr), std::vector<std::string>{"NULL0"});
    FreeLibrary(planted);
    EXPECT_TRUE(loadedDeviceLibraries().empty());
}

TEST_F(PlantedLibrary, CryptoApiSeesOnlyTheTokensOfTheLibraryBesideTheProvider) {
    ASSERT_TRUE(makeToken(kSerial));
    const std::string keyId = makeKey(kSerial, "rsa2048", "--usage sign");
    ASSERT_EQ(keyId.size(), 32u);
    ASSERT_EQ(registerProviderAt(buildBinFolder() + "CalythCSP.dll"), ERROR_SUCCESS);

    HCRYPTPROV provider = 0;
    ASSERT_TRUE(CryptAcquireContextA(&provider, keyId.c_str(), kProviderName, PROV_RSA_FULL, CRYPT_SILENT))
        << std::hex << GetLastError();
    char container[64] = {};
    DWORD length = sizeof container;
    EXPECT_TRUE(CryptGetProvParam(provider, PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(container), &length,
                                  CRYPT_FIRST));
    EXPECT_STREQ(container, keyId.c_str());
    EXPECT_EQ(loadedDeviceLibraries(),
              std::vector<std::string>{lower(buildBinFolder() + "CalythDSCLibrary.dll")});
    CryptReleaseContext(provider, 0);
}

TEST_F(PlantedLibrary, CngSeesOnlyTheTokensOfTheLibraryBesideTheProvider) {
    ASSERT_TRUE(makeToken(kSerial));
    const std::string keyId = makeKey(kSerial, "p256", "--usage sign");
    ASSERT_EQ(keyId.size(), 32u);

    cngtest::CngClient client(buildBinFolder() + "CalythCSP.dll");
    ASSERT_TRUE(client.loaded());
    NCRYPT_PROV_HANDLE provider = 0;
    ASSERT_EQ(client.openProvider(&provider), KSP_SUCCESS);
    std::vector<cngtest::KeyName> keys;
    EXPECT_EQ(client.listKeys(provider, &keys), KSP_SUCCESS);
    ASSERT_EQ(keys.size(), 1u);
    EXPECT_EQ(keys[0].name, std::wstring(keyId.begin(), keyId.end()));
    EXPECT_EQ(loadedDeviceLibraries(),
              std::vector<std::string>{lower(buildBinFolder() + "CalythDSCLibrary.dll")});
    client.freeProvider(provider);
}

// The provider without a device library beside it: loading still works (nothing happens at load),
// both front-ends refuse to open with NTE_PROVIDER_DLL_FAIL, and the planted library stays unloaded.
TEST_F(PlantedLibrary, AProviderWithoutItsLibraryFailsToOpenAndLoadsNoOther) {
    const std::string alone = buildBinFolder() + "provider-alone\\CalythCSP.dll";
    ASSERT_TRUE(pathExists(alone));
    ASSERT_FALSE(pathExists(buildBinFolder() + "provider-alone\\CalythDSCLibrary.dll"));

    cngtest::CngClient client(alone);
    ASSERT_TRUE(client.loaded());
    NCRYPT_PROV_HANDLE provider = 0;
    EXPECT_EQ(client.openProvider(&provider), static_cast<SECURITY_STATUS>(kProviderDllFail));
    EXPECT_EQ(provider, 0u);

    using AcquireFn = BOOL(WINAPI*)(HCRYPTPROV*, LPCSTR, DWORD, PVTableProvStruc);
    auto acquire = reinterpret_cast<AcquireFn>(
        reinterpret_cast<void*>(GetProcAddress(client.module(), "CPAcquireContext")));
    ASSERT_NE(acquire, nullptr);
    VTableProvStruc table = {};
    table.Version = 3;
    for (DWORD flags : {DWORD{0}, DWORD{CRYPT_VERIFYCONTEXT}}) {
        HCRYPTPROV context = 0;
        SetLastError(0);
        EXPECT_FALSE(acquire(&context, nullptr, flags, &table)) << flags;
        EXPECT_EQ(GetLastError(), kProviderDllFail) << flags;
    }
    // The soft token of the tests above stays loaded (the provider keeps it for the process);
    // the library beside this program was never taken.
    for (const std::string& loaded : loadedDeviceLibraries())
        EXPECT_NE(loaded, lower(plantedLibraryPath()));
}

}  // namespace
