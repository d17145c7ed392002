#include "token_tool.h"

#include <windows.h>

#include <cctype>
#include <sstream>

#include "support/provider_registration.h"
#include "support/test_support.h"

namespace testsupport {
namespace {

std::string trimmed(const std::string& text) {
    size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos)
        return std::string();
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

}  // namespace

int calythToken(const std::string& arguments, std::string* output) {
    return runCommand("\"" + programFolder() + "calyth-token.exe\" " + arguments, output);
}

bool makeToken(const std::string& serial, const std::string& more) {
    std::string output;
    std::string pin = more.find("--pin") == std::string::npos ? " --pin 1234" : "";
    int code = calythToken("init --serial " + serial + pin + " " + more, &output);
    [&] { ASSERT_EQ(code, 0) << output; }();
    return code == 0;
}

std::string makeKey(const std::string& serial, const std::string& type, const std::string& more) {
    std::string output;
    int code = calythToken("genkey --serial " + serial + " --type " + type + " " + more, &output);
    EXPECT_EQ(code, 0) << output;
    std::string id = trimmed(output.substr(0, output.find_first_of("\r\n")));
    EXPECT_EQ(id.size(), 32u) << output;
    return code == 0 && id.size() == 32 ? id : std::string();
}

std::string exportPublicKey(const std::string& serial, const std::string& keyId, const std::string& path) {
    std::string output;
    int code = calythToken("export-pubkey --serial " + serial + " --key " + keyId + " --out \"" + path + "\"",
                           &output);
    EXPECT_EQ(code, 0) << output;
    return code == 0 ? path : std::string();
}

std::vector<std::string> listedLines(const std::string& serial, const std::string& word) {
    std::string output;
    EXPECT_EQ(calythToken("list --serial " + serial, &output), 0) << output;
    std::vector<std::string> lines;
    std::istringstream in(output);
    std::string line;
    while (std::getline(in, line)) {
        std::string text = trimmed(line);
        if (text.compare(0, word.size() + 1, word + " ") == 0)
            lines.push_back(text);
    }
    return lines;
}

std::vector<std::string> listedKeyIds(const std::string& serial) {
    std::vector<std::string> ids;
    for (const std::string& line : listedLines(serial, "key"))
        ids.push_back(line.substr(4, 32));
    return ids;
}

std::string useFreshTokenStore(const std::string& name) {
    std::string folder = tempFolder() + name;
    removeFolder(folder);
    CreateDirectoryA(folder.c_str(), nullptr);
    SetEnvironmentVariableA("CALYTH_TOKEN_STORE", folder.c_str());
    return folder;
}

std::string testFileName() {
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(info->test_suite_name()) + "-" + info->name();
    for (char& c : name)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-')
            c = '_';
    return name;
}

void TokenStoreTest::SetUp() {
    std::string base = tempFolder() + testFileName();
    store = base + "\\store";
    scratch = base + "\\files\\";
    CreateDirectoryA(base.c_str(), nullptr);
    CreateDirectoryA(store.c_str(), nullptr);
    CreateDirectoryA(scratch.c_str(), nullptr);
    SetEnvironmentVariableA("CALYTH_TOKEN_STORE", store.c_str());
}

std::string TokenStoreTest::file(const std::string& name) const {
    return scratch + name;
}

std::string prepareLog(const std::string& processName) {
    std::string path = logFilePath(processName);
    std::string processFolder = path.substr(0, path.find_last_of('\\'));
    CreateDirectoryA(processFolder.substr(0, processFolder.find_last_of('\\')).c_str(), nullptr);
    CreateDirectoryA(processFolder.c_str(), nullptr);
    writeFile(path, {});
    return path;
}

void ProviderStoreTest::SetUp() {
    TokenStoreTest::SetUp();
    store = tempFolder() + "token-store";
    CreateDirectoryA(store.c_str(), nullptr);
    SetEnvironmentVariableA("CALYTH_TOKEN_STORE", store.c_str());
    prepareLog();
    ASSERT_EQ(registerProvider(), ERROR_SUCCESS);
}

}  // namespace testsupport
