// Every shipped program answers --version with its name and the project's version, the version
// that the DLLs' VERSIONINFO and the installer carry.
#include <windows.h>

#include <gmock/gmock.h>
#include <string>

#include "calyth_version.h"
#include "support/test_support.h"

namespace {

std::string programBeside(const std::string& name) {
    char self[MAX_PATH];
    GetModuleFileNameA(nullptr, self, MAX_PATH);
    std::string path(self);
    return path.substr(0, path.find_last_of('\\') + 1) + name + ".exe";
}

class ToolVersion : public testing::TestWithParam<const char*> {};

TEST_P(ToolVersion, PrintsItsNameAndTheProjectVersion) {
    std::string output;
    ASSERT_EQ(testsupport::runCommand("\"" + programBeside(GetParam()) + "\" --version", &output), 0)
        << output;
    // One line; the line end is the console's (CR LF in text mode).
    while (!output.empty() && (output.back() == '\n' || output.back() == '\r'))
        output.pop_back();
    EXPECT_EQ(output, std::string(GetParam()) + " " + CALYTH_VERSION_TEXT);
}

INSTANTIATE_TEST_SUITE_P(Tools, ToolVersion,
                         testing::Values("calyth-token", "calyth-sign", "calyth-doctor", "calyth-register",
                                         "calyth-agent"));

}  // namespace
