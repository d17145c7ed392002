#include "checks.h"
#include "files.h"
#include "log/log.h"

namespace doctor {
namespace {

constexpr const char* kLevelKey = "Software\\Quorvik Labs\\Calyth";
constexpr const char* kSetLevel =
    "reg add \"HKLM\\Software\\Quorvik Labs\\Calyth\" /v logLevel /t REG_DWORD /d 3 /f";

const char* typeName(DWORD type) {
    switch (type) {
        case REG_DWORD:
            return "REG_DWORD";
        case REG_SZ:
            return "REG_SZ";
        case REG_EXPAND_SZ:
            return "REG_EXPAND_SZ";
        case REG_BINARY:
            return "REG_BINARY";
        case REG_QWORD:
            return "REG_QWORD";
        case REG_MULTI_SZ:
            return "REG_MULTI_SZ";
        default:
            return "another type";
    }
}

// The stored value as a person reads it, to explain the level the provider makes of it.
std::string storedValue(bool* present, DWORD* type) {
    BYTE data[32] = {};
    DWORD size = sizeof data;
    LONG status = RegGetValueA(HKEY_LOCAL_MACHINE, kLevelKey, "logLevel", RRF_RT_ANY, type, data, &size);
    *present = status == ERROR_SUCCESS;
    if (status == ERROR_MORE_DATA)
        return "a value longer than 32 bytes";
    if (!*present)
        return "no logLevel value";
    std::string text = std::string(typeName(*type)) + " ";
    if (*type == REG_DWORD && size == 4)
        return text + std::to_string(*reinterpret_cast<DWORD*>(data));
    if (*type == REG_SZ || *type == REG_EXPAND_SZ)
        return text + "\"" +
               std::string(reinterpret_cast<char*>(data), strnlen(reinterpret_cast<char*>(data), size)) +
               "\"";
    char hex[4];
    (void)std::snprintf(hex, sizeof hex, "%02X", data[0]);
    return text + "starting with byte " + hex;
}

std::string levelMeaning(int level) {
    if (level >= LOG_LEVEL_DEBUG)
        return "DEBUG and ERROR lines";
    if (level == LOG_LEVEL_ERROR)
        return "ERROR lines only";
    return "nothing is written";
}

// Today's file of every process folder under <temp>\Quorvik Labs.
std::vector<std::string> todaysFiles(const std::string& logFolder) {
    std::vector<std::string> files;
    WIN32_FIND_DATAA found;
    HANDLE search = FindFirstFileA((logFolder + "\\*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE)
        return files;
    std::string today = todayText() + ".LOG";
    do {
        std::string name = found.cFileName;
        if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) || name == "." || name == "..")
            continue;
        std::string file = logFolder + "\\" + name + "\\" + today;
        if (fileExists(file))
            files.push_back(file + " (" + sizeText(fileSize(file)) + ")");
    } while (FindNextFileA(search, &found));
    FindClose(search);
    return files;
}

}  // namespace

void checkLog(Report* report) {
    int level = getLogLevel();
    bool present = false;
    DWORD type = REG_NONE;
    std::string stored = storedValue(&present, &type);
    Check check =
        makeCheck("Log", Verdict::Ok,
                  "level " + std::to_string(level) + " (" + levelMeaning(level) + ") from " + stored);
    if (present && type != REG_DWORD) {
        check.verdict = Verdict::Warn;
        check.remedy = "the provider reads only the first byte of logLevel, so a " +
                       std::string(typeName(type)) + " rarely means what it seems: " + kSetLevel;
    } else if (level < LOG_LEVEL_ERROR) {
        check.verdict = Verdict::Warn;
        check.remedy =
            "the provider logs nothing, not even its errors; for a support case: " + std::string(kSetLevel);
    }

    char base[1024];
    if (getLogBaseFolderPath(base) != 0) {
        check.verdict = Verdict::Fail;
        check.detail += "; the temporary folder does not exist, so nothing can be logged";
        check.remedy = "set TMP and TEMP of the user to an existing folder";
        report->push_back(check);
        return;
    }
    // The provider writes <temp>/Quorvik Labs/<process>/<date>.LOG for the user running the application.
    std::string logFolder = std::string(base) + "Quorvik Labs";
    check.facts.push_back("log folder of this user: " + logFolder +
                          (folderExists(logFolder) ? "" : " (not made yet)"));
    std::vector<std::string> files = todaysFiles(logFolder);
    if (files.empty())
        check.facts.push_back("no log file of today (" + todayText() + ".LOG)");
    for (const std::string& file : files)
        check.facts.push_back("today: " + file);
    report->push_back(check);
}

}  // namespace doctor
