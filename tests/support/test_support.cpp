#include "support/test_support.h"

#include <windows.h>

#include <psapi.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

namespace testsupport {
namespace {

const char* kLogKey = "Software\\Quorvik Labs\\Calyth";

}  // namespace

void removeFolder(const std::string& folder) {
    WIN32_FIND_DATAA data;
    HANDLE find = FindFirstFileA((folder + "\\*").c_str(), &data);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            std::string name = data.cFileName;
            if (name == "." || name == "..")
                continue;
            std::string path = folder + "\\" + name;
            if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
                removeFolder(path);
            } else {
                DeleteFileA(path.c_str());
            }
        } while (FindNextFileA(find, &data));
        FindClose(find);
    }
    RemoveDirectoryA(folder.c_str());
}

bool pathExists(const std::string& path) {
    return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

namespace {

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
    removeFolder(folder);
    CreateDirectoryA(folder.c_str(), nullptr);
    std::string withSlash = folder + "\\";
    SetEnvironmentVariableA("TMP", withSlash.c_str());
    SetEnvironmentVariableA("TEMP", withSlash.c_str());
}

std::string unixPath(const std::string& windowsPath) {
    using WineGetUnixFileName = char*(CDECL*)(const wchar_t*);
    auto convert = reinterpret_cast<WineGetUnixFileName>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernel32.dll"), "wine_get_unix_file_name")));
    if (!convert)
        return windowsPath;
    wchar_t wide[MAX_PATH * 4] = {};
    MultiByteToWideChar(CP_ACP, 0, windowsPath.c_str(), -1, wide, MAX_PATH * 4);
    char* unix = convert(wide);
    if (!unix)
        return windowsPath;
    std::string out = unix;
    HeapFree(GetProcessHeap(), 0, unix);
    return out;
}

namespace {

constexpr DWORD kCommandTimeoutMs = 120000;

// Reads what the pipe holds now, without waiting for more.
void drainPipe(HANDLE pipe, std::string& out) {
    DWORD available = 0;
    while (PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr) && available > 0) {
        char buffer[4096];
        DWORD got = 0;
        DWORD wanted = available < sizeof buffer ? available : static_cast<DWORD>(sizeof buffer);
        if (!ReadFile(pipe, buffer, wanted, &got, nullptr) || got == 0)
            return;
        out.append(buffer, got);
    }
}

// A job object whose processes are killed when its last handle closes; null when Wine refuses one.
HANDLE killOnCloseJob() {
    HANDLE job = CreateJobObjectA(nullptr, nullptr);
    if (!job)
        return nullptr;
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    if (!SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits)) {
        CloseHandle(job);
        return nullptr;
    }
    return job;
}

// Ends every process still alive in the job, one at a time, and returns when none is left.
// Wine 8's server reads freed memory when closing a kill-on-close job ends a live process that holds
// the last handle to an ended process of the same job (its walk over the job's processes keeps a
// pointer to the one that the first kill frees), and the run's wineserver then crashes now and
// then. Ended one by one here, the job has only ended processes left when its handle closes, and
// nothing is freed during that walk. Kill-on-close stays for the case that this program is killed.
void endJobProcesses(HANDLE job) {
    for (int pass = 0; pass < 20; ++pass) {
        struct {
            JOBOBJECT_BASIC_PROCESS_ID_LIST list;
            ULONG_PTR more[63];
        } ids{};
        ids.list.NumberOfAssignedProcesses = 64;
        if (!QueryInformationJobObject(job, JobObjectBasicProcessIdList, &ids, sizeof ids, nullptr) ||
            ids.list.NumberOfProcessIdsInList == 0)
            return;
        for (DWORD i = 0; i < ids.list.NumberOfProcessIdsInList; ++i) {
            HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE,
                                         static_cast<DWORD>(ids.list.ProcessIdList[i]));
            if (!process)
                continue;
            TerminateProcess(process, 1);
            WaitForSingleObject(process, 5000);
            CloseHandle(process);
        }
    }
}

// Runs the command once; see runCommand.
int runCommandOnce(const std::string& commandLine, std::string* output) {
    // The first process of a Wine session that uses a window function starts Wine's desktop
    // process, which keeps the standard handles it was started with and would belong to the
    // child's job: a child that started it would leave the output pipe open for ever, or end the
    // desktop with the job. The test bed keeps one desktop for the whole run; outside it, this
    // program starts the desktop itself first.
    GetDesktopWindow();
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &inherit, 0))
        return -1;
    SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = writeEnd;
    startup.hStdError = writeEnd;
    PROCESS_INFORMATION process{};
    std::vector<char> line(commandLine.begin(), commandLine.end());
    line.push_back('\0');
    // The child and everything it starts live in a job that dies with its handle: with this program
    // when it ends or is killed, and at the end of this call, so that no grandchild outlives the test.
    HANDLE job = killOnCloseJob();
    // Under load Wine now and then refuses to start a process at the first try.
    BOOL started = FALSE;
    DWORD startError = 0;
    for (int attempt = 0; attempt < 5 && !started; ++attempt) {
        if (attempt > 0)
            Sleep(200);
        started = CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr,
                                 nullptr, &startup, &process);
        if (!started)
            startError = GetLastError();
    }
    if (started) {
        if (job && !AssignProcessToJobObject(job, process.hProcess)) {
            CloseHandle(job);
            job = nullptr;
        }
        ResumeThread(process.hThread);
    }
    CloseHandle(writeEnd);
    std::string collected;
    if (!started)
        collected = "(runCommand: CreateProcess failed, error " + std::to_string(startError) + ")";
    bool timedOut = false;
    if (started) {
        // The end of the child, not the end of the pipe, ends the wait: a Wine system process that
        // the child started may hold the pipe's write end long after the child is gone.
        DWORD begin = GetTickCount();
        for (;;) {
            drainPipe(readEnd, collected);
            if (WaitForSingleObject(process.hProcess, 20) == WAIT_OBJECT_0) {
                drainPipe(readEnd, collected);
                break;
            }
            if (GetTickCount() - begin > kCommandTimeoutMs) {
                TerminateProcess(process.hProcess, 1);
                collected +=
                    "\n(runCommand: no end after " + std::to_string(kCommandTimeoutMs / 1000) + " s)";
                timedOut = true;
                break;
            }
        }
    }
    CloseHandle(readEnd);
    if (job) {
        endJobProcesses(job);
        CloseHandle(job);
    }
    if (output)
        *output = collected;
    if (!started)
        return -1;
    DWORD code = 0;
    GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hProcess);
    CloseHandle(process.hThread);
    return timedOut ? -1 : static_cast<int>(code);
}

// Under load Wine now and then ends a new process before its entry point, while its system
// libraries initialise (STATUS_DLL_INIT_FAILED): the program never ran, so it is started again.
constexpr int kDllInitFailed = static_cast<int>(0xC0000142);

}  // namespace

int runCommand(const std::string& commandLine, std::string* output) {
    int code = runCommandOnce(commandLine, output);
    for (int attempt = 1; attempt < 3 && code == kDllInitFailed; ++attempt) {
        std::fprintf(stderr, "runCommand: Wine failed [%s] before it ran (0xC0000142); starting it again\n",
                     commandLine.c_str());
        Sleep(200);
        code = runCommandOnce(commandLine, output);
    }
    return code;
}

bool startProcess(const std::string& commandLine, HANDLE* processHandle) {
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    std::vector<char> line(commandLine.begin(), commandLine.end());
    line.push_back('\0');
    BOOL started = FALSE;
    for (int attempt = 0; attempt < 5 && !started; ++attempt) {
        if (attempt > 0)
            Sleep(200);
        started = CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                                 &process);
    }
    if (!started)
        return false;
    CloseHandle(process.hThread);
    if (processHandle)
        *processHandle = process.hProcess;
    else if (process.hProcess)
        CloseHandle(process.hProcess);
    return true;
}

namespace {

// Starts a command line without handing it any of this process's handles, and without waiting.
bool startDetached(const std::string& commandLine) {
    return startProcess(commandLine, nullptr);
}

}  // namespace

int runNative(const std::string& commandLine, std::string* output) {
    // A native program started from Wine neither writes into a Windows pipe nor can be waited for
    // through its process handle: the shell writes the output and then the exit code to files,
    // and the exit-code file tells that the command has ended.
    static volatile LONG sequence = 0;
    std::string base = tempFolder() + "native-" + std::to_string(GetCurrentProcessId()) + "-" +
                       std::to_string(InterlockedIncrement(&sequence));
    std::string capture = base + ".out";
    std::string status = base + ".rc";
    std::string partial = base + ".rc.tmp";
    if (!startDetached("/bin/sh -c \"" + commandLine + " >'" + unixPath(capture) + "' 2>&1; echo $? >'" +
                       unixPath(partial) + "'; mv '" + unixPath(partial) + "' '" + unixPath(status) +
                       "'\"")) {
        return -1;
    }
    for (int waited = 0; GetFileAttributesA(status.c_str()) == INVALID_FILE_ATTRIBUTES; waited += 10) {
        if (waited > 120000)
            return -1;
        Sleep(10);
    }
    if (output) {
        std::vector<unsigned char> bytes = readFile(capture);
        output->assign(bytes.begin(), bytes.end());
    }
    std::vector<unsigned char> code = readFile(status);
    DeleteFileA(capture.c_str());
    DeleteFileA(status.c_str());
    return std::atoi(std::string(code.begin(), code.end()).c_str());
}

int runOpenSsl(const std::string& arguments, std::string* output) {
    return runNative("/usr/bin/openssl " + arguments, output);
}

void setLogLevel(uint32_t level) {
    HKEY key = nullptr;
    if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, kLogKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key, nullptr) ==
        ERROR_SUCCESS) {
        RegSetValueExA(key, "logLevel", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&level), sizeof level);
        RegCloseKey(key);
    }
}

void setLogLevelRaw(uint32_t type, const std::vector<unsigned char>& data) {
    RegSetKeyValueA(HKEY_LOCAL_MACHINE, kLogKey, "logLevel", type, data.data(),
                    static_cast<DWORD>(data.size()));
}

void removeLogLevel() {
    RegDeleteKeyValueA(HKEY_LOCAL_MACHINE, kLogKey, "logLevel");
}

std::string logFilePath(const std::string& process) {
    char date[32];
    time_t now = time(nullptr);
    strftime(date, sizeof date, "%Y-%m-%d", localtime(&now));
    return tempFolder() + "Quorvik Labs\\" + (process.empty() ? getProcessName() : process) + "\\" + date +
           ".LOG";
}

std::string readLog(const std::string& process) {
    std::ifstream in(logFilePath(process), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

namespace {

// The tag that precedes a message of this level: levels are padded to five characters ("INFO ").
std::string levelTag(const std::string& level) {
    std::string padded = level;
    if (padded.size() < 5)
        padded.resize(5, ' ');
    return "->" + padded + " ::=>";
}

// The log's lines without their line ends.
std::vector<std::string> logLines(const std::string& process = "") {
    std::vector<std::string> out;
    std::istringstream in(readLog(process));
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        out.push_back(line);
    }
    return out;
}

}  // namespace

std::vector<std::string> logMessages(const std::string& process) {
    std::vector<std::string> out;
    for (const std::string& line : logLines(process)) {
        size_t marker = line.find("::=>");
        out.push_back(marker == std::string::npos ? line : line.substr(marker + 4));
    }
    return out;
}

std::vector<std::string> logMessagesAt(const std::string& level, const std::string& process) {
    std::vector<std::string> out;
    std::string tag = levelTag(level);
    for (const std::string& line : logLines(process)) {
        size_t at = line.find(tag);
        if (at != std::string::npos)
            out.push_back(line.substr(at + tag.size()));
    }
    return out;
}

void clearLog() {
    std::ofstream out(logFilePath(), std::ios::binary | std::ios::trunc);
}

bool logContains(const std::string& text) {
    return logSubstringCount(text) != 0;
}

size_t logSubstringCount(const std::string& text) {
    size_t count = 0;
    for (const std::string& line : logLines())
        if (line.find(text) != std::string::npos)
            ++count;
    return count;
}

size_t logLineCount(const std::string& level, const std::string& message) {
    std::string tag = levelTag(level);
    size_t count = 0;
    for (const std::string& line : logLines()) {
        size_t at = line.find(tag);
        if (at != std::string::npos && line.compare(at + tag.size(), std::string::npos, message) == 0)
            ++count;
    }
    return count;
}

bool logHasLine(const std::string& level, const std::string& message) {
    return logLineCount(level, message) != 0;
}

std::vector<std::string> logEntries() {
    std::vector<std::string> out;
    for (const std::string& line : logLines()) {
        for (const char* level : {"DEBUG", "ERROR", "EXCEP", "INFO"}) {
            std::string tag = levelTag(level);
            size_t at = line.find(tag);
            if (at != std::string::npos) {
                out.push_back(std::string(level) + ":" + line.substr(at + tag.size()));
                break;
            }
        }
    }
    return out;
}

bool waitUntil(const std::function<bool()>& condition, uint32_t timeoutMs) {
    DWORD start = GetTickCount();
    while (!condition()) {
        if (GetTickCount() - start > timeoutMs)
            return false;
        Sleep(10);
    }
    return true;
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
