#include "softtoken_support.h"

#include <windows.h>

#include <cstring>
#include <sstream>

#include "support/test_support.h"
#include "util/utils.h"

namespace st {
namespace {

std::string programFolder() {
    char path[MAX_PATH];
    DWORD length = GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string text(path, length);
    return text.substr(0, text.find_last_of("\\/") + 1);
}

std::string testName() {
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(info->test_suite_name()) + "-" + info->name();
    for (char& c : name)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-')
            c = '_';
    return name;
}

}  // namespace

void StoreTest::SetUp() {
    std::string base = testsupport::tempFolder() + testName();
    store = base + "\\store";
    scratch = base + "\\files\\";
    CreateDirectoryA(base.c_str(), nullptr);
    CreateDirectoryA(store.c_str(), nullptr);
    CreateDirectoryA(scratch.c_str(), nullptr);
    SetEnvironmentVariableA("CALYTH_TOKEN_STORE", store.c_str());
}

std::string StoreTest::file(const std::string& name) const {
    return scratch + name;
}

int tool(const std::string& arguments, std::string* output) {
    return testsupport::runCommand("\"" + programFolder() + "calyth-token.exe\" " + arguments, output);
}

void makeToken(const std::string& serial, const std::string& more) {
    std::string output;
    std::string pin = more.find("--pin") == std::string::npos ? " --pin 1234" : "";
    ASSERT_EQ(tool("init --serial " + serial + pin + " " + more, &output), 0) << output;
}

Bytes makeKey(const std::string& serial, const std::string& type, const std::string& more) {
    std::string output;
    int code = tool("genkey --serial " + serial + " --type " + type + " " + more, &output);
    EXPECT_EQ(code, 0) << output;
    std::string id = output.substr(0, output.find_first_of("\r\n"));
    EXPECT_EQ(id.size(), 32u) << output;
    return unhex(id);
}

CalythKeyPair keyRecord(const std::string& serial, const Bytes& keyId) {
    std::vector<CalythKeyPair> keys = calyth_getKeyPairList(serial.c_str(), nullptr);
    for (const CalythKeyPair& key : keys)
        if (keyId.size() == 16 && std::memcmp(key.keyId, keyId.data(), 16) == 0)
            return key;
    CalythKeyPair none;
    std::memset(&none, 0, sizeof none);
    return none;
}

std::string exportPublicKey(const std::string& serial, const Bytes& keyId, const std::string& path) {
    std::string output;
    EXPECT_EQ(tool("export-pubkey --serial " + serial + " --key " + hex(keyId) + " --out \"" + path + "\"",
                   &output),
              0)
        << output;
    return path;
}

std::string hex(const Bytes& bytes) {
    return Utils().bytesToHex(bytes.data(), static_cast<int>(bytes.size()));
}
Bytes unhex(const std::string& text) {
    return hexToBytes(text);
}
Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}
void writeBytes(const std::string& path, const Bytes& bytes) {
    testsupport::writeFile(path, bytes);
}
Bytes readBytes(const std::string& path) {
    return testsupport::readFile(path);
}

Bytes digest(int hashCode, const Bytes& data) {
    void* handle = nullptr;
    EXPECT_EQ(calyth_initHash("", hashCode, &handle, nullptr), 0);
    EXPECT_EQ(calyth_updateHash(handle, data.data(), static_cast<int>(data.size()), nullptr), 0);
    Bytes out(64);
    int length = 64;
    EXPECT_EQ(calyth_finalHash(handle, out.data(), &length, nullptr), 0);
    out.resize(static_cast<size_t>(length));
    return out;
}

std::string u(const std::string& windowsPath) {
    return testsupport::unixPath(windowsPath);
}

}  // namespace st
