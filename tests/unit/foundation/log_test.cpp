// The log facility against the real registry value and the real temporary folder of this program.
// The program changes the machine-wide "logLevel" value: it runs alone and puts back level 3.
#include "log/log.h"

#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "support/test_support.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// The facility stamps its lines with kernel32's GetLocalTime, reached through this program's import
// table. While one of these lives, that entry answers a time that stands still, so that lines share
// one millisecond however slow the machine is.
SYSTEMTIME g_frozenTime;

void WINAPI frozenLocalTime(LPSYSTEMTIME time) {
    *time = g_frozenTime;
}

// The import slot of `function` from `dll` in this program's image; null when it imports no such name.
ULONG_PTR* importSlot(const char* dll, const char* function) {
    BYTE* base = reinterpret_cast<BYTE*>(GetModuleHandleA(nullptr));
    auto* nt =
        reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (auto* module = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
         module->Name; ++module) {
        if (_stricmp(reinterpret_cast<char*>(base + module->Name), dll) != 0)
            continue;
        DWORD namesAt = module->OriginalFirstThunk ? module->OriginalFirstThunk : module->FirstThunk;
        auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + namesAt);
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + module->FirstThunk);
        for (; names->u1.AddressOfData; ++names, ++slots) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal))
                continue;
            auto* byName = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            if (std::strcmp(reinterpret_cast<char*>(byName->Name), function) == 0)
                return &slots->u1.Function;
        }
    }
    return nullptr;
}

void setSlot(ULONG_PTR* slot, ULONG_PTR value) {
    DWORD old = 0;
    VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &old);
    *slot = value;
    VirtualProtect(slot, sizeof *slot, old, &old);
}

class FrozenLocalTime {
public:
    FrozenLocalTime() : slot_(importSlot("kernel32.dll", "GetLocalTime")) {
        GetLocalTime(&g_frozenTime);
        if (slot_) {
            saved_ = *slot_;
            setSlot(slot_, reinterpret_cast<ULONG_PTR>(&frozenLocalTime));
        }
    }
    ~FrozenLocalTime() {
        if (slot_)
            setSlot(slot_, saved_);
    }
    bool installed() const { return slot_ != nullptr; }

private:
    ULONG_PTR* slot_;
    ULONG_PTR saved_ = 0;
};

std::string today() {
    char date[32];
    time_t now = time(nullptr);
    strftime(date, sizeof date, "%Y-%m-%d", localtime(&now));
    return date;
}

// <temp>\Quorvik Labs, the folder the facility creates first.
std::string logRoot() {
    return testsupport::tempFolder() + "Quorvik Labs";
}

std::string programFolder() {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, sizeof path);
    std::string s = path;
    return s.substr(0, s.find_last_of('\\') + 1);
}

std::string withoutCarriageReturns(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    return text;
}

// Sends this process's standard output (the C runtime's descriptor 1) into a binary file until
// stop(), and answers what was printed, byte for byte.
class StdoutCapture {
public:
    StdoutCapture() : path_(testsupport::tempFolder() + "stdout.txt") {
        std::fflush(stdout);
        saved_ = _dup(_fileno(stdout));
        int fd = _open(path_.c_str(), _O_WRONLY | _O_CREAT | _O_TRUNC | _O_BINARY, _S_IREAD | _S_IWRITE);
        _dup2(fd, _fileno(stdout));
        _close(fd);
    }
    ~StdoutCapture() { stop(); }
    std::string stop() {
        if (saved_ >= 0) {
            std::fflush(stdout);
            _dup2(saved_, _fileno(stdout));
            _close(saved_);
            saved_ = -1;
        }
        std::vector<unsigned char> bytes = testsupport::readFile(path_);
        return std::string(bytes.begin(), bytes.end());
    }

private:
    std::string path_;
    int saved_ = -1;
};

// Points TMP and TEMP at another folder for the lifetime of the object.
class TempFolderOverride {
public:
    explicit TempFolderOverride(const std::string& folder) : old_(testsupport::tempFolder()) {
        SetEnvironmentVariableA("TMP", folder.c_str());
        SetEnvironmentVariableA("TEMP", folder.c_str());
    }
    ~TempFolderOverride() {
        SetEnvironmentVariableA("TMP", old_.c_str());
        SetEnvironmentVariableA("TEMP", old_.c_str());
    }

private:
    std::string old_;
};

class Log : public testing::Test {
protected:
    void SetUp() override {
        testsupport::setLogLevel(3);
        // Folders present, file empty: every call writes from the first one on.
        CreateDirectoryA(logRoot().c_str(), nullptr);
        CreateDirectoryA((logRoot() + "\\log_test").c_str(), nullptr);
        testsupport::clearLog();
    }
    void TearDown() override { testsupport::setLogLevel(3); }
};

// A fresh temporary folder without the log folders, at the given level.
class FreshLog : public testing::Test {
protected:
    void SetUp() override { testsupport::removeFolder(logRoot()); }
    void TearDown() override { testsupport::setLogLevel(3); }
};

// ---- level ----

TEST_F(Log, WithoutLogLevelValueOnlyErrorLinesAreWritten) {
    testsupport::removeLogLevel();
    EXPECT_EQ(getLogLevel(), 2);
    logDebug("debug line");
    logError("error line");
    EXPECT_THAT(testsupport::logMessages(), ElementsAre("error line"));
    EXPECT_THAT(testsupport::readLog(), testing::HasSubstr("-> ->ERROR ::=>error line\n"));
}

TEST_F(Log, DwordThreeWritesDebugAndErrorLines) {
    testsupport::setLogLevel(3);
    EXPECT_EQ(getLogLevel(), 3);
    logDebug("debug line");
    logError("error line");
    EXPECT_THAT(testsupport::logMessages(), ElementsAre("debug line", "error line"));
    std::string log = testsupport::readLog();
    EXPECT_THAT(log, testing::HasSubstr("-> ->DEBUG ::=>debug line\n"));
    EXPECT_THAT(log, testing::HasSubstr("-> ->ERROR ::=>error line\n"));
}

TEST_F(Log, DwordTwoWritesErrorLinesOnly) {
    testsupport::setLogLevel(2);
    EXPECT_EQ(getLogLevel(), 2);
    logDebug("debug line");
    logError("error line");
    EXPECT_THAT(testsupport::logMessages(), ElementsAre("error line"));
}

TEST_F(FreshLog, DwordOneCreatesNoFileAndNoFolder) {
    testsupport::setLogLevel(1);
    EXPECT_EQ(getLogLevel(), 1);
    for (int i = 0; i < 3; ++i) {
        logDebug("debug line");
        logError("error line");
    }
    EXPECT_FALSE(testsupport::pathExists(logRoot()));
}

TEST_F(FreshLog, DwordZeroCreatesNoFileAndNoFolder) {
    testsupport::setLogLevel(0);
    EXPECT_EQ(getLogLevel(), 0);
    for (int i = 0; i < 3; ++i) {
        logDebug("debug line");
        logError("error line");
    }
    EXPECT_FALSE(testsupport::pathExists(logRoot()));
}

TEST_F(Log, DwordOneWritesNothingIntoAnExistingFile) {
    testsupport::setLogLevel(1);
    logDebug("debug line");
    logError("error line");
    EXPECT_EQ(testsupport::readLog(), "");
}

TEST_F(Log, Dword259ReadsAsThreeFromItsLowByte) {
    testsupport::setLogLevel(259);
    EXPECT_EQ(getLogLevel(), 3);
    logDebug("debug line");
    EXPECT_THAT(testsupport::logMessages(), ElementsAre("debug line"));
}

TEST_F(Log, DwordAboveThreeReadsAsTwo) {
    testsupport::setLogLevel(4);
    EXPECT_EQ(getLogLevel(), 2);
    testsupport::setLogLevel(127);
    EXPECT_EQ(getLogLevel(), 2);
    logDebug("debug line");
    logError("error line");
    EXPECT_THAT(testsupport::logMessages(), ElementsAre("error line"));
}

TEST_F(Log, StringThreeIsTreatedAsTwo) {
    testsupport::setLogLevelRaw(REG_SZ, {'3', 0});
    EXPECT_EQ(getLogLevel(), 2);
    logDebug("debug line");
    logError("error line");
    EXPECT_THAT(testsupport::logMessages(), ElementsAre("error line"));
}

TEST_F(Log, StringStartingWithAControlByteCountsThatByte) {
    // The first byte is all that counts, whatever the type: "\x03" is level 3.
    testsupport::setLogLevelRaw(REG_SZ, {3, 0});
    EXPECT_EQ(getLogLevel(), 3);
}

TEST_F(FreshLog, BinaryStartingWithFFIsMinusOneAndWritesNothing) {
    testsupport::setLogLevelRaw(REG_BINARY, {0xFF, 0x03, 0x03, 0x03});
    EXPECT_EQ(getLogLevel(), -1);
    logDebug("debug line");
    logError("error line");
    logError("error line");
    logError("error line");
    EXPECT_FALSE(testsupport::pathExists(logRoot()));
}

TEST_F(Log, FirstByteFrom0x80IsNegative) {
    testsupport::setLogLevelRaw(REG_BINARY, {0x80});
    EXPECT_EQ(getLogLevel(), -128);
    testsupport::setLogLevelRaw(REG_DWORD, {0xFE, 0x00, 0x00, 0x00});
    EXPECT_EQ(getLogLevel(), -2);
    logError("error line");
    EXPECT_EQ(testsupport::readLog(), "");
}

TEST_F(Log, DataLongerThan32BytesIsTheDefault) {
    std::vector<unsigned char> data(33, 0x03);
    testsupport::setLogLevelRaw(REG_BINARY, data);
    EXPECT_EQ(getLogLevel(), 2);
    data.resize(32);
    testsupport::setLogLevelRaw(REG_BINARY, data);
    EXPECT_EQ(getLogLevel(), 3);
}

TEST_F(Log, LevelIsReadAgainOnEveryCall) {
    testsupport::setLogLevel(3);
    logDebug("one");
    testsupport::setLogLevel(2);
    logDebug("two");
    logError("three");
    testsupport::setLogLevel(0);
    logError("four");
    testsupport::setLogLevel(3);
    logDebug("five");
    EXPECT_THAT(testsupport::logMessages(), ElementsAre("one", "three", "five"));
}

// ---- line format ----

TEST_F(Log, LineIsDayMonthTimeDoubledArrowTagAndMessageEndingInOneLineFeed) {
    SYSTEMTIME before;
    GetLocalTime(&before);
    logError("message");
    SYSTEMTIME after;
    GetLocalTime(&after);
    std::string log = testsupport::readLog();
    std::smatch m;
    ASSERT_TRUE(std::regex_match(
        log, m,
        std::regex("^(\\d\\d)/(\\d\\d)::(\\d\\d):(\\d\\d):(\\d\\d):(\\d\\d\\d)-> ->ERROR ::=>message\n$")))
        << log;
    int day = std::stoi(m[1]);
    int month = std::stoi(m[2]);
    EXPECT_TRUE((day == before.wDay && month == before.wMonth) ||
                (day == after.wDay && month == after.wMonth))
        << log;
    EXPECT_LT(std::stoi(m[3]), 24);
    EXPECT_LT(std::stoi(m[4]), 60);
    EXPECT_LT(std::stoi(m[5]), 60);
}

TEST_F(Log, DebugLineCarriesTheDebugTag) {
    logDebug("message");
    EXPECT_TRUE(std::regex_match(
        testsupport::readLog(),
        std::regex("^\\d\\d/\\d\\d::\\d\\d:\\d\\d:\\d\\d:\\d\\d\\d-> ->DEBUG ::=>message\n$")))
        << testsupport::readLog();
}

TEST_F(Log, LineEndsInASingleLineFeedByte) {
    logError("first");
    logDebug("second");
    std::string log = testsupport::readLog();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), '\n');
    EXPECT_EQ(log.find('\r'), std::string::npos);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2);
    EXPECT_NE(log.find("first\n"), std::string::npos);
    EXPECT_NE(log.find("second\n"), std::string::npos);
}

TEST_F(Log, WriteLogUsesTheTagOfItsLevel) {
    writeLog(1, "one");
    writeLog(2, "two");
    writeLog(3, "three");
    writeLog(0, "zero");
    writeLog(4, "four");
    writeLog(-1, "minus one");
    std::string log = testsupport::readLog();
    EXPECT_THAT(log, testing::HasSubstr("-> ->EXCEP ::=>one\n"));
    EXPECT_THAT(log, testing::HasSubstr("-> ->ERROR ::=>two\n"));
    EXPECT_THAT(log, testing::HasSubstr("-> ->DEBUG ::=>three\n"));
    EXPECT_THAT(log, testing::HasSubstr("-> ->INFO  ::=>zero\n"));
    EXPECT_THAT(log, testing::HasSubstr("-> ->INFO  ::=>four\n"));
    EXPECT_THAT(log, testing::HasSubstr("-> ->INFO  ::=>minus one\n"));
}

TEST_F(Log, TheTestReadersNameEveryLevelAsTheLogDoes) {
    writeLog(1, "one");
    writeLog(2, "two");
    writeLog(3, "three");
    writeLog(0, "zero");
    EXPECT_TRUE(testsupport::logHasLine("EXCEP", "one"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "two"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "three"));
    EXPECT_TRUE(testsupport::logHasLine("INFO", "zero"));
    EXPECT_FALSE(testsupport::logHasLine("INFO", "one"));
    EXPECT_THAT(testsupport::logMessagesAt("INFO"), ElementsAre("zero"));
    EXPECT_THAT(testsupport::logEntries(), ElementsAre("EXCEP:one", "ERROR:two", "DEBUG:three", "INFO:zero"));
}

TEST_F(Log, WriteLogDoesNotTestTheLevelAgain) {
    testsupport::setLogLevel(0);
    writeLog(3, "written anyway");
    EXPECT_THAT(testsupport::logMessages(), ElementsAre("written anyway"));
}

TEST_F(Log, MessageIsWrittenAsItStands) {
    logError("100% %s %d %n \\ \t end");
    EXPECT_THAT(testsupport::logMessages(), ElementsAre("100% %s %d %n \\ \t end"));
}

TEST_F(Log, LinesInTheSameMillisecondKeepTheirCallOrder) {
    // The clock stands still while the lines are written, so neighbours carry the same time stamp
    // on any machine; all stay in call order.
    FrozenLocalTime frozen;
    ASSERT_TRUE(frozen.installed()) << "no GetLocalTime import from kernel32.dll in this program";
    std::regex stamp("^(\\d\\d/\\d\\d::\\d\\d:\\d\\d:\\d\\d:\\d\\d\\d)-> ->ERROR ::=>line (\\d+)$");
    bool sameMillisecond = false;
    int written = 0;
    for (int round = 0; round < 20 && !sameMillisecond; ++round) {
        for (int i = 0; i < 50; ++i) {
            logError("line " + std::to_string(written++));
        }
        std::vector<std::string> lines;
        std::istringstream in(testsupport::readLog());
        std::string line;
        std::string previousStamp;
        int expected = 0;
        while (std::getline(in, line)) {
            std::smatch m;
            ASSERT_TRUE(std::regex_match(line, m, stamp)) << line;
            ASSERT_EQ(std::stoi(m[2]), expected++) << "line out of order";
            if (m[1] == previousStamp)
                sameMillisecond = true;
            previousStamp = m[1];
        }
        ASSERT_EQ(expected, written);
    }
    EXPECT_TRUE(sameMillisecond) << "no two lines in the same millisecond after " << written << " lines";
}

// ---- files and folders ----

TEST_F(Log, FileIsNamedAfterTheProcessAndTheDay) {
    logError("where");
    std::string expected = testsupport::tempFolder() + "Quorvik Labs\\log_test\\" + today() + ".LOG";
    std::vector<unsigned char> bytes = testsupport::readFile(expected);
    std::string content(bytes.begin(), bytes.end());
    EXPECT_THAT(content, testing::EndsWith("->ERROR ::=>where\n"));
}

TEST_F(Log, LinesAreAppendedToTheExistingFile) {
    testsupport::writeFile(testsupport::logFilePath(), {'o', 'l', 'd', '\n'});
    logError("new");
    std::string log = testsupport::readLog();
    EXPECT_EQ(log.substr(0, 4), "old\n");
    EXPECT_THAT(log, testing::EndsWith("-> ->ERROR ::=>new\n"));
}

TEST_F(Log, FileCanBeWrittenWhileAnotherHandleHoldsItOpen) {
    logError("first");
    HANDLE other = CreateFileA(testsupport::logFilePath().c_str(), GENERIC_READ | GENERIC_WRITE,
                               FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(other, INVALID_HANDLE_VALUE);
    StdoutCapture capture;
    logError("second");
    std::string printed = capture.stop();
    CloseHandle(other);
    EXPECT_EQ(printed, "");
    EXPECT_THAT(testsupport::logMessages(), ElementsAre("first", "second"));
}

TEST_F(Log, PathIsBuiltAgainOnEveryCall) {
    std::string other = testsupport::tempFolder() + "other-temp\\";
    testsupport::removeFolder(other);
    CreateDirectoryA(other.c_str(), nullptr);
    logError("before");
    {
        TempFolderOverride temp(other);
        logError("elsewhere 1");
        logError("elsewhere 2");
        logError("elsewhere 3");
    }
    logError("after");
    EXPECT_THAT(testsupport::logMessages(), ElementsAre("before", "after"));
    std::vector<unsigned char> bytes =
        testsupport::readFile(other + "Quorvik Labs\\log_test\\" + today() + ".LOG");
    std::string moved(bytes.begin(), bytes.end());
    EXPECT_THAT(moved, testing::HasSubstr("::=>elsewhere 3\n"));
    EXPECT_THAT(moved, testing::Not(testing::HasSubstr("elsewhere 1")));
}

TEST_F(FreshLog, FirstTwoCallsOfAFreshMachineWriteNothingAndTheThirdWrites) {
    testsupport::setLogLevel(3);
    std::string processFolder = logRoot() + "\\log_test";
    StdoutCapture capture;
    logError("first");
    bool rootAfterFirst = testsupport::pathExists(logRoot());
    bool processAfterFirst = testsupport::pathExists(processFolder);
    logDebug("second");
    bool processAfterSecond = testsupport::pathExists(processFolder);
    bool fileAfterSecond = testsupport::pathExists(testsupport::logFilePath());
    logError("third");
    logError("fourth");
    std::string printed = capture.stop();

    EXPECT_TRUE(rootAfterFirst);
    EXPECT_FALSE(processAfterFirst);
    EXPECT_TRUE(processAfterSecond);
    EXPECT_FALSE(fileAfterSecond);
    EXPECT_EQ(printed, "\nUnable to write log\nUnable to write log");
    EXPECT_THAT(testsupport::logMessages(), ElementsAre("third", "fourth"));
}

TEST_F(FreshLog, MissingProcessFolderCostsOneLine) {
    testsupport::setLogLevel(3);
    CreateDirectoryA(logRoot().c_str(), nullptr);
    StdoutCapture capture;
    logError("first");
    logError("second");
    EXPECT_EQ(capture.stop(), "\nUnable to write log");
    EXPECT_THAT(testsupport::logMessages(), ElementsAre("second"));
}

TEST_F(FreshLog, HostNamedABExeWritesUnderFolderA) {
    std::string folder = testsupport::tempFolder() + "host-a.b\\";
    testsupport::removeFolder(folder);
    ASSERT_TRUE(CreateDirectoryA(folder.c_str(), nullptr));
    std::string output;
    int code;
    {
        TempFolderOverride temp(folder);
        code = testsupport::runCommand("\"" + programFolder() + "a.b.exe\" one two three", &output);
    }
    ASSERT_EQ(code, 0);
    // The fresh folder costs the host its first two lines, printed on its standard output.
    EXPECT_EQ(withoutCarriageReturns(output), "\nUnable to write log\nUnable to write log");
    std::vector<unsigned char> bytes = testsupport::readFile(folder + "Quorvik Labs\\a\\" + today() + ".LOG");
    std::string log(bytes.begin(), bytes.end());
    EXPECT_TRUE(std::regex_match(
        log, std::regex("^\\d\\d/\\d\\d::\\d\\d:\\d\\d:\\d\\d:\\d\\d\\d-> ->ERROR ::=>three\n$")))
        << log;
    EXPECT_FALSE(testsupport::pathExists(folder + "Quorvik Labs\\a.b"));
    testsupport::removeFolder(folder);
}

// ---- the helpers of the writer ----

TEST(LogHelpers, BaseFolderIsTheTemporaryFolder) {
    char buffer[1024];
    std::memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(getLogBaseFolderPath(buffer), 0);
    EXPECT_EQ(std::string(buffer), testsupport::tempFolder());
    EXPECT_EQ(std::string(buffer).back(), '\\');
}

TEST(LogHelpers, BaseFolderFailsAndIsZeroedWhenTheTemporaryFolderIsNoFolder) {
    std::string file = testsupport::tempFolder() + "plain-file";
    testsupport::writeFile(file, {'x'});
    char buffer[1024];
    {
        TempFolderOverride temp(file);
        std::memset(buffer, 'x', sizeof buffer);
        EXPECT_EQ(getLogBaseFolderPath(buffer), -1);
    }
    EXPECT_EQ(std::count(buffer, buffer + sizeof buffer, '\0'), 1024);
    {
        TempFolderOverride temp(testsupport::tempFolder() + "no-such-folder\\");
        std::memset(buffer, 'x', sizeof buffer);
        EXPECT_EQ(getLogBaseFolderPath(buffer), -1);
    }
    EXPECT_EQ(std::count(buffer, buffer + sizeof buffer, '\0'), 1024);
}

TEST(LogHelpers, ProcessNameIsTheExecutableWithoutExtension) {
    EXPECT_EQ(getProcessName(), "log_test");
}

TEST(LogHelpers, CreateLogFolderMakesOneMissingFolderPerCall) {
    std::string base = testsupport::tempFolder() + "folders";
    testsupport::removeFolder(base);
    ASSERT_TRUE(CreateDirectoryA(base.c_str(), nullptr));
    std::string path = base + "/x/y/z";

    EXPECT_EQ(createLogFolder(path.c_str()), -1);
    EXPECT_TRUE(testsupport::pathExists(base + "\\x"));
    EXPECT_FALSE(testsupport::pathExists(base + "\\x\\y"));

    EXPECT_EQ(createLogFolder(path.c_str()), -1);
    EXPECT_TRUE(testsupport::pathExists(base + "\\x\\y"));
    EXPECT_FALSE(testsupport::pathExists(base + "\\x\\y\\z"));

    // Every '/' names an existing folder now: the whole path is created and its result returned.
    EXPECT_EQ(createLogFolder(path.c_str()), 1);
    EXPECT_TRUE(testsupport::pathExists(base + "\\x\\y\\z"));
    EXPECT_EQ(createLogFolder(path.c_str()), 0);
    testsupport::removeFolder(base);
}

TEST(LogHelpers, CreateLogFolderTreatsABackslashAsNoSeparator) {
    std::string base = testsupport::tempFolder() + "backslash";
    testsupport::removeFolder(base);
    ASSERT_TRUE(CreateDirectoryA(base.c_str(), nullptr));
    std::string path = base + "/p\\q/";
    EXPECT_EQ(createLogFolder(path.c_str()), 0);
    EXPECT_EQ(createLogFolder(path.c_str()), 0);
    EXPECT_FALSE(testsupport::pathExists(base + "\\p"));
    testsupport::removeFolder(base);
}

TEST(LogHelpers, CreateLogFolderOfAnEmptyPathCreatesNothing) {
    EXPECT_EQ(createLogFolder(""), 0);
    EXPECT_EQ(createLogFolder("/"), 0);
}

TEST(LogHelpers, MutexHookIsUnsetAndLockedAroundTheWriteWhenSet) {
    EXPECT_EQ(g_logMutex, nullptr);
    testsupport::setLogLevel(3);
    CreateDirectoryA(logRoot().c_str(), nullptr);
    CreateDirectoryA((logRoot() + "\\log_test").c_str(), nullptr);
    testsupport::clearLog();

    std::mutex mutex;
    g_logMutex = &mutex;
    mutex.lock();
    std::atomic<bool> done{false};
    std::thread writer([&] {
        logError("waits for the mutex");
        done = true;
    });
    // The subject is a duration: the writer stays blocked for as long as the mutex is held, here
    // 200 ms. Load can only make a writer that does not wait look like one that does, never fail
    // a correct one.
    Sleep(200);
    bool writtenWhileLocked = done || testsupport::logContains("waits for the mutex");
    mutex.unlock();
    writer.join();
    bool unlockedAfter = mutex.try_lock();
    if (unlockedAfter)
        mutex.unlock();
    g_logMutex = nullptr;

    EXPECT_FALSE(writtenWhileLocked);
    EXPECT_TRUE(unlockedAfter);
    EXPECT_THAT(testsupport::logMessages(), ElementsAre("waits for the mutex"));
}

// Other programs rely on level 3 being set after this one.
class RestoreLevel : public testing::Environment {
public:
    void TearDown() override { testsupport::setLogLevel(3); }
};
const testing::Environment* const kRestoreLevel = testing::AddGlobalTestEnvironment(new RestoreLevel);

}  // namespace

// ---- the caller's last error ----

TEST_F(Log, LoggingKeepsTheCallersLastError) {
    SetLastError(0x80090023);
    logError("failure after the last error was set");
    EXPECT_EQ(GetLastError(), 0x80090023u);
    SetLastError(ERROR_MORE_DATA);
    logDebug("debug line after the last error was set");
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_TRUE(testsupport::logContains("failure after the last error was set"));
}

TEST_F(FreshLog, LoggingKeepsTheLastErrorEvenWhenFoldersAreCreated) {
    testsupport::setLogLevel(3);
    SetLastError(0x80090020);
    logError("lost line");
    EXPECT_EQ(GetLastError(), 0x80090020u);
}
