#include "level_reads.h"

#include <windows.h>

#include <algorithm>
#include <string>

#include "log/log.h"

namespace bench {
namespace {

const char* kLogKey = "Software\\Quorvik Labs\\Calyth";

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

double logCallsPerOperationBesideMonitor(int runs, const std::function<bool()>& operation) {
    double first = logCallsPerOperation(runs, operation);
    double second = logCallsPerOperation(runs, operation);
    return first < 0 || second < 0 ? -1 : std::min(first, second);
}

bool logCallsAsDesigned(double measured, int prescribed) {
    // Whole lines over whole runs: a count that matches is the prescribed integer exactly.
    return measured == static_cast<double>(prescribed);
}

}  // namespace bench
