#include "provider_setup.h"

#include <cctype>
#include <cstring>

#include "support/test_support.h"

namespace access_system {
namespace {

std::string testName() {
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(info->test_suite_name()) + "-" + info->name();
    for (char& c : name)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-')
            c = '_';
    return name;
}

std::string currentProcessName() {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string name = path;
    name = name.substr(name.find_last_of("\\/") + 1);
    return name.substr(0, name.find('.'));
}

}  // namespace

std::string binFolder() {
    char path[MAX_PATH] = {};
    DWORD length = GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string text(path, length);
    return text.substr(0, text.find_last_of("\\/") + 1);
}

std::string providerPath() {
    return binFolder() + "CalythCSP.dll";
}

void registerProvider() {
    HKEY key = nullptr;
    std::string name = std::string("Software\\Microsoft\\Cryptography\\Defaults\\Provider\\") + kProviderName;
    ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, name.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key,
                              nullptr),
              ERROR_SUCCESS);
    std::string image = providerPath();
    DWORD type = PROV_RSA_FULL;
    RegSetValueExA(key, "Image Path", 0, REG_SZ, reinterpret_cast<const BYTE*>(image.c_str()),
                   static_cast<DWORD>(image.size() + 1));
    RegSetValueExA(key, "Type", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&type), sizeof type);
    RegCloseKey(key);
}

int tokenTool(const std::string& arguments, std::string* output) {
    return testsupport::runCommand("\"" + binFolder() + "calyth-token.exe\" " + arguments, output);
}

void makeToken(const std::string& serial, const std::string& more) {
    std::string output;
    ASSERT_EQ(tokenTool("init --serial " + serial + " --pin 1234 " + more, &output), 0) << output;
}

std::string makeKey(const std::string& serial, const std::string& type, const std::string& usage) {
    std::string output;
    EXPECT_EQ(tokenTool("genkey --serial " + serial + " --type " + type + " --usage " + usage, &output), 0)
        << output;
    std::string id = output.substr(0, output.find_first_of("\r\n"));
    EXPECT_EQ(id.size(), 32u) << output;
    return id;
}

std::string prepareLog(const std::string& processName) {
    std::string folder = testsupport::tempFolder() + "Quorvik Labs";
    CreateDirectoryA(folder.c_str(), nullptr);
    folder += "\\" + processName;
    CreateDirectoryA(folder.c_str(), nullptr);
    char date[32];
    time_t now = time(nullptr);
    strftime(date, sizeof date, "%Y-%m-%d", localtime(&now));
    std::string path = folder + "\\" + date + ".LOG";
    testsupport::writeFile(path, {});
    return path;
}

void TokenStoreTest::SetUp() {
    store = testsupport::tempFolder() + "token-store";
    scratch = testsupport::tempFolder() + testName() + "\\";
    CreateDirectoryA(store.c_str(), nullptr);
    CreateDirectoryA(scratch.c_str(), nullptr);
    SetEnvironmentVariableA("CALYTH_TOKEN_STORE", store.c_str());
    prepareLog(currentProcessName());
    registerProvider();
}

}  // namespace access_system
