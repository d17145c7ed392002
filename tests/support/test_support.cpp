#include "support/test_support.h"

#include <windows.h>

#include <psapi.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <sstream>

namespace testsupport {
namespace {

const char* kLogKey = "Software\\Quorvik Labs\\Calyth";

void removeTree(const std::string& folder) {
    WIN32_FIND_DATAA data;
    HANDLE find = FindFirstFileA((folder + "\\*").c_str(), &data);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            std::string name = data.cFileName;
            if (name == "." || name == "..")
                continue;
            std::string path = folder + "\\" + name;
            if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
                removeTree(path);
            } else {
                DeleteFileA(path.c_str());
            }
        } while (FindNextFileA(find, &data));
        FindClose(find);
    }
    RemoveDirectoryA(folder.c_str());
}

// The host name without its extension, as the provider's log names its folder.
std::string getProcessName() {
    char name[1024] = {};
    K32GetModuleBaseNameA(GetCurrentProcess(), nullptr, name, sizeof name);
    std::string s = name;
    return s.substr(0, s.find('.'));
}

}  // namespace

std::string tempFolder() {
    char buffer[MAX_PATH + 1] = {};
    GetTempPathA(sizeof buffer, buffer);
    return buffer;
}

void usePrivateTempFolder() {
    std::string base = tempFolder() + "calyth-tests";
    CreateDirectoryA(base.c_str(), nullptr);
    std::string folder = base + "\\" + getProcessName();
    removeTree(folder);
    CreateDirectoryA(folder.c_str(), nullptr);
    std::string withSlash = folder + "\\";
    SetEnvironmentVariableA("TMP", withSlash.c_str());
    SetEnvironmentVariableA("TEMP", withSlash.c_str());
}

void setLogLevel(uint32_t level) {
    HKEY key = nullptr;
    if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, kLogKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key, nullptr) ==
        ERROR_SUCCESS) {
        RegSetValueExA(key, "logLevel", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&level), sizeof level);
        RegCloseKey(key);
    }
}

void removeLogLevel() {
    RegDeleteKeyValueA(HKEY_LOCAL_MACHINE, kLogKey, "logLevel");
}

std::string logFilePath() {
    char date[32];
    time_t now = time(nullptr);
    strftime(date, sizeof date, "%Y-%m-%d", localtime(&now));
    return tempFolder() + "/Quorvik Labs/" + getProcessName() + "/" + date + ".LOG";
}

std::string readLog() {
    std::ifstream in(logFilePath(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> logMessages() {
    std::vector<std::string> out;
    std::istringstream in(readLog());
    std::string line;
    while (std::getline(in, line)) {
        size_t marker = line.find("::=>");
        out.push_back(marker == std::string::npos ? line : line.substr(marker + 4));
    }
    return out;
}

void clearLog() {
    std::ofstream out(logFilePath(), std::ios::binary | std::ios::trunc);
}

bool logContains(const std::string& text) {
    return readLog().find(text) != std::string::npos;
}

std::vector<unsigned char> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const std::vector<unsigned char>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace testsupport
