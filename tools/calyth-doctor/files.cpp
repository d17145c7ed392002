#include "files.h"

#include <ctime>
#include <vector>

namespace doctor {

bool fileExists(const std::string& path) {
    DWORD attributes = GetFileAttributesA(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool folderExists(const std::string& path) {
    DWORD attributes = GetFileAttributesA(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

long long fileSize(const std::string& path) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data))
        return -1;
    return (static_cast<long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

std::string sizeText(long long bytes) {
    char text[32];
    if (bytes >= 1024LL * 1024)
        (void)std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / (1024.0 * 1024.0));
    else if (bytes >= 1024)
        (void)std::snprintf(text, sizeof text, "%lld KB", bytes / 1024);
    else
        (void)std::snprintf(text, sizeof text, "%lld bytes", bytes);
    return text;
}

std::string folderOf(const std::string& path) {
    size_t separator = path.find_last_of("\\/");
    return separator == std::string::npos ? std::string() : path.substr(0, separator);
}

std::string programFolder() {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    return folderOf(path);
}

std::string systemFolder() {
    char path[MAX_PATH] = {};
    GetSystemDirectoryA(path, MAX_PATH);
    return path;
}

std::string systemWow64Folder() {
    char path[MAX_PATH] = {};
    return GetSystemWow64DirectoryA(path, MAX_PATH) ? std::string(path) : std::string();
}

bool sameTextIgnoringCase(const std::string& a, const std::string& b) {
    return CompareStringA(LOCALE_INVARIANT, NORM_IGNORECASE, a.c_str(), static_cast<int>(a.size()), b.c_str(),
                          static_cast<int>(b.size())) == CSTR_EQUAL;
}

std::string expandEnvironment(const std::string& text) {
    DWORD needed = ExpandEnvironmentStringsA(text.c_str(), nullptr, 0);
    if (needed == 0)
        return text;
    std::vector<char> buffer(needed + 1, '\0');
    ExpandEnvironmentStringsA(text.c_str(), buffer.data(), static_cast<DWORD>(buffer.size()));
    return buffer.data();
}

std::string todayText() {
    // GetLocalTime, not localtime: no buffer shared between threads, no null result.
    SYSTEMTIME today;
    GetLocalTime(&today);
    char text[16] = {};
    (void)std::snprintf(text, sizeof text, "%04d-%02d-%02d", today.wYear, today.wMonth, today.wDay);
    return text;
}

}  // namespace doctor
