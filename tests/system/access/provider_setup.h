// The real provider and the soft token as a host application meets them: CalythCSP.dll registered
// as a CryptoAPI provider, tokens made with calyth-token.exe in a store folder of each test's own.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

namespace access_system {

constexpr const char* kProviderName = "Calyth Cryptographic Provider CSP";
constexpr DWORD kNoToken = 0x80090023;

// The folder of this program (build/bin), with a trailing backslash.
std::string binFolder();
std::string providerPath();

// Registers CalythCSP.dll of this build under the CryptoAPI provider keys (type PROV_RSA_FULL).
void registerProvider();

// Runs calyth-token.exe with the arguments; its exit code, its output in *output.
int tokenTool(const std::string& arguments, std::string* output = nullptr);
// A token with PIN 1234 (more: further init options).
void makeToken(const std::string& serial, const std::string& more = "");
// A key pair; its 32-character identifier (the container name).
std::string makeKey(const std::string& serial, const std::string& type, const std::string& usage);

// Creates the provider's log folders for the named process, so that no line is lost to the
// folder creation of the first calls, and empties its log of today; returns the log file's path.
std::string prepareLog(const std::string& processName);

// The program's token store (CALYTH_TOKEN_STORE, inherited by the admin command and by child
// processes), a scratch folder per test and an empty log. The store is shared by the tests of a
// program, each with serials of its own: a token that vanished between tests would have the
// device monitor write lines in the middle of the next test's, and lines of concurrent writers
// may be lost in the shared log file.
class TokenStoreTest : public ::testing::Test {
protected:
    void SetUp() override;
    std::string store;
    std::string scratch;  // ends with a backslash
};

}  // namespace access_system
