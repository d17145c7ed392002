// DllRegisterServer and DllUnregisterServer as the system's tools call them: through a host program
// that loads a recording bcrypt.dll in place of the system's (every argument checked), and through
// regsvr32 on Wine's own bcrypt, whose registration functions accept everything.
#include <windows.h>

#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace {

using Lines = std::vector<std::string>;

const std::string kProvider = "\"Calyth Cryptographic Provider CSP\"";
const std::string kRemove = "BCryptRemoveContextFunctionProvider 1 (null) 65537 \"KEY_STORAGE\" " + kProvider;
const std::string kUnregister = "BCryptUnregisterProvider " + kProvider;
const std::string kRegister =
    "BCryptRegisterProvider " + kProvider +
    " 0 {cAliases=0 rgpszAliases=(null) pUM={pszImage=\"CalythCSP.dll\" cInterfaces=1 "
    "rgpInterfaces=[{dwInterface=65537 dwFlags=1 cFunctions=1 "
    "rgpszFunctions=[\"KEY_STORAGE\"]}]} pKM=(null)}";
const std::string kAddContext =
    "BCryptAddContextFunctionProvider 1 (null) 65537 \"KEY_STORAGE\" " + kProvider + " 4294967295";

const char* const kRegisterStart = "DllRegisterServer: Registering KSP via CNG API";
const char* const kRegisterDone = "DllRegisterServer: KSP registered successfully";
const char* const kUnregisterStart = "DllUnregisterServer: Unregistering KSP via CNG API";
const char* const kUnregisterDone = "DllUnregisterServer: KSP unregistered successfully";

std::string binFolder() {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, sizeof path);
    std::string folder(path);
    return folder.substr(0, folder.find_last_of('\\') + 1);
}

Lines splitLines(const std::string& text) {
    Lines lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!line.empty())
            lines.push_back(line);
    }
    return lines;
}

struct HostRun {
    int exitCode = -1;
    std::string output;
    Lines records;
};

// Wine reads WINEDLLOVERRIDES from the environment it was started with, not from the one a Windows
// parent hands to CreateProcess; the per-program DllOverrides key has the same effect and reaches
// registration_host.exe only.
const char* const kHostOverrides = "Software\\Wine\\AppDefaults\\registration_host.exe\\DllOverrides";

void useRecordingBcrypt(bool on) {
    if (on)
        RegSetKeyValueA(HKEY_CURRENT_USER, kHostOverrides, "bcrypt", REG_SZ, "native", 7);
    else
        RegDeleteTreeA(HKEY_CURRENT_USER, "Software\\Wine\\AppDefaults\\registration_host.exe");
}

// The provider's log loses the line that creates a missing log folder: the folders exist first.
void prepareLogFolder(const std::string& process) {
    std::string folder = testsupport::tempFolder() + "Quorvik Labs";
    CreateDirectoryA(folder.c_str(), nullptr);
    CreateDirectoryA((folder + "\\" + process).c_str(), nullptr);
    DeleteFileA(testsupport::logFilePath(process).c_str());
}

// Runs registration_host.exe of `folder` with its recording bcrypt.dll, telling it which functions
// fail ("Name=0xSTATUS,...").
HostRun runHost(const std::string& folder, const std::string& verb, const std::string& failures = "") {
    std::string recordFile = testsupport::tempFolder() + "bcrypt-calls.txt";
    DeleteFileA(recordFile.c_str());
    SetEnvironmentVariableA("CALYTH_BCRYPT_RECORD", recordFile.c_str());
    SetEnvironmentVariableA("CALYTH_BCRYPT_FAIL", failures.empty() ? nullptr : failures.c_str());
    HostRun run;
    run.exitCode = testsupport::runCommand("\"" + binFolder() + folder + "\\registration_host.exe\" " + verb,
                                           &run.output);
    SetEnvironmentVariableA("CALYTH_BCRYPT_RECORD", nullptr);
    SetEnvironmentVariableA("CALYTH_BCRYPT_FAIL", nullptr);
    std::vector<unsigned char> bytes = testsupport::readFile(recordFile);
    run.records = splitLines(std::string(bytes.begin(), bytes.end()));
    return run;
}

class Registration : public ::testing::Test {
protected:
    void SetUp() override {
        prepareLogFolder("registration_host");
        useRecordingBcrypt(true);
    }
    void TearDown() override { useRecordingBcrypt(false); }
    static Lines debugLines() { return testsupport::logMessagesAt("DEBUG", "registration_host"); }
    static Lines errorLines() { return testsupport::logMessagesAt("ERROR", "registration_host"); }
};

TEST_F(Registration, ClearsEarlierEntriesThenRegistersTheProviderAndItsContextEntry) {
    HostRun run = runHost("registration_full", "register");
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_NE(run.output.find("hr=0x00000000"), std::string::npos) << run.output;
    EXPECT_EQ(run.records, (Lines{kRemove, kUnregister, kRegister, kAddContext}));
    EXPECT_EQ(debugLines(), (Lines{kRegisterStart, kRegisterDone}));
    EXPECT_EQ(errorLines(), Lines{});
}

TEST_F(Registration, RegisteringTwiceSucceedsBothTimes) {
    for (int round = 0; round < 2; ++round) {
        HostRun run = runHost("registration_full", "register");
        EXPECT_NE(run.output.find("hr=0x00000000"), std::string::npos) << run.output;
        EXPECT_EQ(run.records, (Lines{kRemove, kUnregister, kRegister, kAddContext}));
    }
    EXPECT_EQ(debugLines(), (Lines{kRegisterStart, kRegisterDone, kRegisterStart, kRegisterDone}));
}

TEST_F(Registration, NothingToClearDoesNotStopRegistering) {
    HostRun run =
        runHost("registration_full", "register",
                "BCryptRemoveContextFunctionProvider=0xC0000225,BCryptUnregisterProvider=0xC0000225");
    EXPECT_NE(run.output.find("hr=0x00000000"), std::string::npos) << run.output;
    EXPECT_EQ(run.records, (Lines{kRemove, kUnregister, kRegister, kAddContext}));
    EXPECT_EQ(errorLines(), Lines{});
}

TEST_F(Registration, RefusedRegistrationReturnsTheStatusAsAnNtHresult) {
    HostRun run = runHost("registration_full", "register", "BCryptRegisterProvider=0xC0000022");
    EXPECT_NE(run.output.find("hr=0xD0000022"), std::string::npos) << run.output;
    EXPECT_EQ(run.records, (Lines{kRemove, kUnregister, kRegister}));
    EXPECT_EQ(errorLines(), Lines{"BCryptRegisterProvider failed: 0x-1073741790"});
    EXPECT_EQ(debugLines(), Lines{kRegisterStart});
}

TEST_F(Registration, RefusedContextEntryReturnsTheStatusAsAnNtHresult) {
    HostRun run = runHost("registration_full", "register", "BCryptAddContextFunctionProvider=0xC00000BB");
    EXPECT_NE(run.output.find("hr=0xD00000BB"), std::string::npos) << run.output;
    EXPECT_EQ(run.records, (Lines{kRemove, kUnregister, kRegister, kAddContext}));
    EXPECT_EQ(errorLines(), Lines{"BCryptAddContextFunctionProvider failed: 0x-1073741637"});
}

TEST_F(Registration, UnregisteringWhenNotRegisteredSucceeds) {
    HostRun run =
        runHost("registration_full", "unregister",
                "BCryptRemoveContextFunctionProvider=0xC0000225,BCryptUnregisterProvider=0xC0000225");
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_NE(run.output.find("hr=0x00000000"), std::string::npos) << run.output;
    EXPECT_EQ(run.records, (Lines{kRemove, kUnregister}));
    EXPECT_EQ(debugLines(), (Lines{kUnregisterStart, kUnregisterDone}));
    EXPECT_EQ(errorLines(), Lines{});
}

TEST_F(Registration, ContextRemovalIsOptional) {
    HostRun reg = runHost("registration_no_removal", "register");
    EXPECT_NE(reg.output.find("hr=0x00000000"), std::string::npos) << reg.output;
    EXPECT_EQ(reg.records, (Lines{kUnregister, kRegister, kAddContext}));
    HostRun unreg = runHost("registration_no_removal", "unregister");
    EXPECT_NE(unreg.output.find("hr=0x00000000"), std::string::npos) << unreg.output;
    EXPECT_EQ(unreg.records, Lines{kUnregister});
}

TEST_F(Registration, MissingContextFunctionFailsBeforeAnyCall) {
    HostRun run = runHost("registration_no_context", "register");
    EXPECT_NE(run.output.find("hr=0x80004005"), std::string::npos) << run.output;
    EXPECT_EQ(run.records, Lines{});
    EXPECT_EQ(errorLines(), Lines{"Failed to find BCrypt registration functions"});
    // Unregistering needs only what is there.
    HostRun unreg = runHost("registration_no_context", "unregister");
    EXPECT_NE(unreg.output.find("hr=0x00000000"), std::string::npos) << unreg.output;
    EXPECT_EQ(unreg.records, (Lines{kRemove, kUnregister}));
}

TEST(Regsvr32, RegistersAndUnregistersOnWinesBcrypt) {
    std::string dll = binFolder() + "CalythCSP.dll";
    prepareLogFolder("regsvr32");
    std::string output;
    EXPECT_EQ(testsupport::runCommand("regsvr32 /s \"" + dll + "\"", &output), 0) << output;
    EXPECT_EQ(testsupport::logMessagesAt("DEBUG", "regsvr32"), (Lines{kRegisterStart, kRegisterDone}));
    EXPECT_EQ(testsupport::runCommand("regsvr32 /s /u \"" + dll + "\"", &output), 0) << output;
    EXPECT_EQ(testsupport::logMessagesAt("DEBUG", "regsvr32"),
              (Lines{kRegisterStart, kRegisterDone, kUnregisterStart, kUnregisterDone}));
    EXPECT_EQ(testsupport::logMessagesAt("ERROR", "regsvr32"), Lines{});
}

}  // namespace
