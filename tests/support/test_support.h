// Helpers shared by the test programs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace testsupport {

// How long a test waits for something that takes milliseconds on an idle machine: long enough
// for a loaded one, short enough that a hang still fails the test.
constexpr uint32_t kGenerousWaitMs = 20000;

// Points TMP and TEMP of this process at <temp>\calyth-tests\<program>, emptied first.
void usePrivateTempFolder();
// The temporary folder as GetTempPathA answers it (ends in a backslash).
std::string tempFolder();

// Sets HKLM\Software\Quorvik Labs\Calyth "logLevel" as a REG_DWORD, or removes the value.
void setLogLevel(uint32_t level);
void removeLogLevel();
// Sets "logLevel" with any registry value type and raw data (REG_SZ, REG_BINARY, ...).
void setLogLevelRaw(uint32_t type, const std::vector<unsigned char>& data);

// Path of today's log file of the process named `process` (its program's name without ".exe"; ""
// for this program), and its whole content ("" when missing).
std::string logFilePath(const std::string& process = "");
std::string readLog(const std::string& process = "");
// Lines of today's log file without the "dd/mm::hh:mm:ss:mmm-> ->TAG ::=>" prefix.
std::vector<std::string> logMessages(const std::string& process = "");
// Messages of the lines written at `level` ("DEBUG", "ERROR", "INFO", "EXCEP"), in order.
std::vector<std::string> logMessagesAt(const std::string& level, const std::string& process = "");
// Every line as "<level>:<message>" ("DEBUG:CPAcquireContext"), in order.
std::vector<std::string> logEntries();
// Makes the log facility's folders for this process (it loses the lines written while it makes
// them, one folder per line), so that the next line is written. Tests that read the log call it first;
// only programs linked with the provider's log facility can (tests/support/log_folders.cpp).
void makeLogFolders();
// Empties today's log file.
void clearLog();
// Two ways to read the log, named for how they match:
// substring: lines that hold `text` anywhere (a prefix, a value);
bool logContains(const std::string& text);
size_t logSubstringCount(const std::string& text);
// whole line: lines written at `level` ("DEBUG", "ERROR", "INFO", "EXCEP") whose message is
// exactly `message`.
bool logHasLine(const std::string& level, const std::string& message);
size_t logLineCount(const std::string& level, const std::string& message);

// Polls `condition` every 10 ms until it holds (true) or `timeoutMs` has passed (false). Tests
// wait for the event itself with a generous deadline, never for a fixed time.
bool waitUntil(const std::function<bool()>& condition, uint32_t timeoutMs = kGenerousWaitMs);

std::vector<unsigned char> readFile(const std::string& path);
bool pathExists(const std::string& path);
// Deletes a folder with everything in it.
void removeFolder(const std::string& folder);
void writeFile(const std::string& path, const std::vector<unsigned char>& bytes);

// The Unix path of a Windows path (Wine's own mapping), for native programs such as openssl.
std::string unixPath(const std::string& windowsPath);

// Runs a Windows command line, waits for it and returns its exit code; stdout and stderr together
// go to *output when given.
int runCommand(const std::string& commandLine, std::string* output = nullptr);

// Starts a command line without handing it any of this process's handles and without waiting;
// false when it could not be started. With `processHandle`, the process handle goes there for the
// caller to close (Wine gives none for a native program). Under load Wine now and then refuses to
// start a process at the first try: it is tried up to five times.
bool startProcess(const std::string& commandLine, void** processHandle);

// Runs a native (Linux) command line through /bin/sh and returns its exit code, with its stdout
// and stderr in *output. The command line must not contain double quotes.
int runNative(const std::string& commandLine, std::string* output = nullptr);

// Runs /usr/bin/openssl with the given arguments (file arguments as Unix paths, see unixPath).
int runOpenSsl(const std::string& arguments, std::string* output = nullptr);

}  // namespace testsupport
