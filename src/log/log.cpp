#include "log/log.h"

#include <windows.h>

#include <psapi.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <vector>

#include "util/utils.h"

std::mutex* g_logMutex = nullptr;

namespace {

// The log file's path is built in a fixed buffer of this size (getLogBaseFolderPath fills 1,024 bytes).
constexpr size_t kLogPathSize = 1024;

const char* tagOf(int32_t level) {
    switch (level) {
        case LOG_LEVEL_EXCEPTION:
            return "EXCEP ::=>";
        case LOG_LEVEL_ERROR:
            return "ERROR ::=>";
        case LOG_LEVEL_DEBUG:
            return "DEBUG ::=>";
        default:
            return "INFO  ::=>";
    }
}

// Bounded append into a fixed buffer, as strncat with the room that is left.
void appendBounded(char* buffer, size_t size, const char* text) {
    size_t used = std::strlen(buffer);
    if (used + 1 >= size)
        return;
    std::strncat(buffer, text, size - used - 1);
}

// <temp folder>/Quorvik Labs/<process name>/ into an empty 1,024-byte buffer, cut where it is full.
void appendLogFolder(char* path) {
    if (getLogBaseFolderPath(path) != 0) {
        std::printf("\nUnable to getLogBaseFolderPath");
    }
    appendBounded(path, kLogPathSize, "/Quorvik Labs/");
    appendBounded(path, kLogPathSize, getProcessName().c_str());
    appendBounded(path, kLogPathSize, "/");
}

// Today's file name, <YYYY-MM-DD>.LOG, after the folder.
void appendLogFileName(char* path) {
    // GetLocalTime, not localtime: no buffer shared between threads, no null result.
    SYSTEMTIME today;
    GetLocalTime(&today);
    char date[16];
    (void)std::snprintf(date, sizeof date, "%04d-%02d-%02d", today.wYear, today.wMonth,  // always fits
                        today.wDay);
    appendBounded(path, kLogPathSize, date);
    appendBounded(path, kLogPathSize, ".LOG");
}

}  // namespace

int getLogLevel() {
    unsigned char data[32];
    std::memset(data, 0, sizeof data);
    DWORD size = sizeof data;
    LSTATUS status = RegGetValueA(HKEY_LOCAL_MACHINE, "Software\\Quorvik Labs\\Calyth", "logLevel",
                                  RRF_RT_ANY, nullptr, data, &size);
    if (status != ERROR_SUCCESS) {
        return LOG_LEVEL_ERROR;
    }
    // Only the first byte counts, read as a signed byte: a REG_DWORD 259 reads as 3 and a
    // REG_SZ "3" as 51 (so the default), a first byte 0xFF as -1.
    int level = data[0] > 127 ? data[0] - 256 : data[0];
    return level <= LOG_LEVEL_DEBUG ? level : LOG_LEVEL_ERROR;
}

int getLogBaseFolderPath(char* buffer) {
    try {
        std::memset(buffer, 0, 1024);
        GetTempPathA(1024, buffer);
        DWORD attributes = GetFileAttributesA(buffer);
        if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY)) {
            return 0;
        }
        std::memset(buffer, 0, 1024);
        return -1;
    } catch (const std::exception& e) {
        std::printf("Exception in getLogBaseFolderPath(): %s\n", e.what());
        return -1;
    }
}

std::string getProcessName() {
    char name[1024];
    std::memset(name, 0, sizeof name);
    try {
        if (K32GetModuleBaseNameA(GetCurrentProcess(), nullptr, name, sizeof name) != 0) {
            Utils utils;
            std::vector<std::string> pieces = utils.split(name, ".");
            if (!pieces.empty()) {
                return pieces.front();
            }
        }
    } catch (const std::exception& e) {
        std::printf("Exception in getProcessName(): %s", e.what());
    }
    return name;
}

int createLogFolder(const char* path) {
    try {
        char buffer[1024];
        (void)std::snprintf(buffer, sizeof buffer, "%s", path);  // a longer path is cut, as before
        // Stops after the first folder it actually creates: on a fresh machine the first log
        // call makes only "Quorvik Labs", the second the process folder, and lines are written
        // from the third call on. Existing folders make CreateDirectoryA fail and the walk go on.
        // The walk starts at the second character; an empty path has none.
        for (size_t i = 1; buffer[0] != '\0' && buffer[i] != '\0'; ++i) {
            if (buffer[i] != '/')
                continue;
            buffer[i] = '\0';
            if (CreateDirectoryA(buffer, nullptr)) {
                return -1;
            }
            buffer[i] = '/';
        }
        return CreateDirectoryA(buffer, nullptr);
    } catch (const std::exception& e) {
        std::printf("Exception in Create Log Folder: %s", e.what());
        return -1;
    }
}

std::string logFilePath() {
    char path[kLogPathSize];
    std::memset(path, 0, sizeof path);
    appendLogFolder(path);
    appendLogFileName(path);
    return path;
}

void writeLog(int32_t level, const std::string& message) {
    try {
        char path[kLogPathSize];
        std::memset(path, 0, sizeof path);
        appendLogFolder(path);
        std::string folders = path;
        appendLogFileName(path);

        if (g_logMutex)
            g_logMutex->lock();
        // The file is opened before the missing folders are made, and each call makes at most
        // one folder: on a machine without them, the first line creates "Quorvik Labs", the second
        // the process folder, both are lost with "Unable to write log", and the third is written.
        std::ofstream file(path, std::ios::app | std::ios::binary);
        createLogFolder(folders.c_str());
        if (!file.good()) {
            std::printf("\nUnable to write log");
        } else {
            SYSTEMTIME t;
            GetLocalTime(&t);
            char stamp[64];
            (void)std::snprintf(stamp, sizeof stamp, "%02d/%02d::%02d:%02d:%02d:%03d-> ",  // always fits
                                t.wDay, t.wMonth, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
            // One buffer, one flush: concurrent writers rely on append mode alone.
            std::string line = std::string(stamp) + "->" + tagOf(level) + message + "\n";
            file.write(line.data(), static_cast<std::streamsize>(line.size()));
            file.flush();
        }
        file.close();
        if (g_logMutex)
            g_logMutex->unlock();
    } catch (const std::exception& e) {
        std::printf("Exception in write log : %s\n", e.what());
    }
}

namespace {

// Logging must not disturb the caller's thread last error: entry points log a failure right
// before or after setting it, and the registry read, folder creation and file open all change it.
class LastErrorKeeper {
public:
    LastErrorKeeper() : saved_(GetLastError()) {}
    ~LastErrorKeeper() { SetLastError(saved_); }

private:
    DWORD saved_;
};

}  // namespace

void logDebug(std::string message) {
    LastErrorKeeper keeper;
    if (getLogLevel() >= LOG_LEVEL_DEBUG) {
        writeLog(LOG_LEVEL_DEBUG, message);
    }
}

void logError(std::string message) {
    LastErrorKeeper keeper;
    if (getLogLevel() >= LOG_LEVEL_ERROR) {
        writeLog(LOG_LEVEL_ERROR, message);
    }
}
