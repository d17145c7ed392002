// The provider's diagnostic log: one line per call, appended to
// <temp folder>/Quorvik Labs/<process name>/<YYYY-MM-DD>.LOG.
// The level is read from HKLM\Software\Quorvik Labs\Calyth "logLevel" on every call; nothing is
// cached and no failure ever reaches the caller.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

constexpr int32_t LOG_LEVEL_EXCEPTION = 1;
constexpr int32_t LOG_LEVEL_ERROR = 2;
constexpr int32_t LOG_LEVEL_DEBUG = 3;

void logDebug(std::string message);
void logError(std::string message);

// Writes one line without testing the level (logDebug and logError test it first).
void writeLog(int32_t level, const std::string& message);

int getLogLevel();
// Fills a 1,024-byte buffer with the temporary folder; 0 on success, -1 on failure.
int getLogBaseFolderPath(char* buffer);
std::string getProcessName();
// The file this process's lines go to today, as writeLog builds it:
// <temp folder>/Quorvik Labs/<process name>/<YYYY-MM-DD>.LOG.
std::string logFilePath();
// Creates the folders of a '/'-separated path, stopping after the first folder it creates.
int createLogFolder(const char* path);

// Optional serialisation of the open-write-close sequence. Nothing sets it: concurrent lines rely
// on append mode alone.
extern std::mutex* g_logMutex;
