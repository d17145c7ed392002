#include "level_reads.h"

#include <windows.h>

#include <psapi.h>

#include <ctime>
#include <string>

namespace bench {
namespace {

const char* kLogKey = "Software\\Quorvik Labs\\Calyth";

// Today's log file of this process: <temp>\Quorvik Labs\<program name>\<yyyy-mm-dd>.LOG.
std::string logFilePath() {
    char temp[MAX_PATH] = {};
    GetTempPathA(MAX_PATH, temp);
    char module[MAX_PATH] = {};
    K32GetModuleBaseNameA(GetCurrentProcess(), nullptr, module, MAX_PATH);
    std::string name(module);
    name = name.substr(0, name.find('.'));
    char date[16] = {};
    std::time_t now = std::time(nullptr);
    std::strftime(date, sizeof date, "%Y-%m-%d", std::localtime(&now));
    return std::string(temp) + "Quorvik Labs\\" + name + "\\" + date + ".LOG";
}

long long fileSize(const std::string& path) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data))
        return 0;
    return (static_cast<long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

// Line ends in the file from `offset` on; -1 when it cannot be read.
long long linesFrom(const std::string& path, long long offset) {
    HANDLE file = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return -1;
    LARGE_INTEGER start;
    start.QuadPart = offset;
    long long lines = 0;
    if (SetFilePointerEx(file, start, nullptr, FILE_BEGIN)) {
        char buffer[65536];
        DWORD got = 0;
        while (ReadFile(file, buffer, sizeof buffer, &got, nullptr) && got > 0)
            for (DWORD i = 0; i < got; ++i)
                lines += buffer[i] == '\n';
    } else {
        lines = -1;
    }
    CloseHandle(file);
    return lines;
}

bool setLevel(DWORD level) {
    return RegSetKeyValueA(HKEY_LOCAL_MACHINE, kLogKey, "logLevel", REG_DWORD, &level, sizeof level) ==
           ERROR_SUCCESS;
}

// The level value as stored (REG_DWORD), or 2 when it is missing or of another kind.
DWORD storedLevel() {
    DWORD value = 2;
    DWORD size = sizeof value;
    if (RegGetValueA(HKEY_LOCAL_MACHINE, kLogKey, "logLevel", RRF_RT_REG_DWORD, nullptr, &value, &size) !=
        ERROR_SUCCESS)
        return 2;
    return value;
}

}  // namespace

double logCallsPerOperation(int runs, const std::function<bool()>& operation) {
    DWORD before = storedLevel();
    if (!setLevel(3))
        return -1;
    // The first lines of a new day or program make the log's folders and are lost: warm up first.
    bool ok = operation() && operation();
    std::string path = logFilePath();
    long long start = fileSize(path);
    for (int i = 0; ok && i < runs; ++i)
        ok = operation();
    long long lines = ok ? linesFrom(path, start) : -1;
    setLevel(before);
    return lines < 0 ? -1 : static_cast<double>(lines) / runs;
}

}  // namespace bench
