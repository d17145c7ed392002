// The test bed itself. A test's commands leave no process behind them, and a dialog reaches the
// run's display even while a headless program of the same run holds Wine's desktop (a headless
// program that started the desktop used to leave every dialog beside it without a display).
#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <gmock/gmock.h>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"

using testsupport::readFile;
using testsupport::runCommand;
using testsupport::tempFolder;

namespace {

std::string childProgram() {
    char self[MAX_PATH];
    GetModuleFileNameA(nullptr, self, MAX_PATH);
    std::string path(self);
    return path.substr(0, path.find_last_of('\\') + 1) + "test_bed_child.exe";
}

DWORD processIdIn(const std::string& path) {
    std::vector<unsigned char> text = readFile(path);
    return static_cast<DWORD>(std::strtoul(std::string(text.begin(), text.end()).c_str(), nullptr, 10));
}

bool waitForFile(const std::string& path, DWORD milliseconds) {
    for (DWORD waited = 0; waited < milliseconds; waited += 20) {
        if (testsupport::pathExists(path))
            return true;
        Sleep(20);
    }
    return testsupport::pathExists(path);
}

TEST(TestBed, ACommandsOwnChildrenEndWithIt) {
    std::string pidFile = tempFolder() + "sleeper.pid";
    DeleteFileA(pidFile.c_str());
    ASSERT_EQ(runCommand("\"" + childProgram() + "\" spawn-sleeper \"" + pidFile + "\""), 0);
    DWORD pid = processIdIn(pidFile);
    ASSERT_NE(pid, 0u);
    HANDLE sleeper = OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, pid);
    if (!sleeper)
        return;  // already gone, and its id not reused yet
    DWORD waited = WaitForSingleObject(sleeper, 15000);
    if (waited != WAIT_OBJECT_0)
        TerminateProcess(sleeper, 1);
    CloseHandle(sleeper);
    EXPECT_EQ(waited, WAIT_OBJECT_0) << "the command's child outlived it";
}

TEST(TestBed, ADialogReachesTheDisplayWhileAHeadlessProgramHoldsTheDesktop) {
    ASSERT_NE(std::getenv("DISPLAY"), nullptr) << "run with the test bed's display";
    std::string readyFile = tempFolder() + "holder.ready";
    DeleteFileA(readyFile.c_str());
    // A Windows process hands its children its own display whatever their environment block
    // says: the headless holder is started from the shell, as the test command starts programs.
    ASSERT_EQ(testsupport::runNative("env -u DISPLAY wine '" + testsupport::unixPath(childProgram()) +
                                     "' hold-desktop '" + readyFile + "' 20 &"),
              0);
    // This process has not touched a window yet: the headless holder reaches the desktop first.
    ASSERT_TRUE(waitForFile(readyFile, 60000));

    const char* caption = "test bed display probe";
    std::atomic<int> answer{0};
    std::thread box([&] { answer = MessageBoxA(nullptr, "probe", caption, MB_OK); });
    // Pressed as a user would, once the box is on screen; a click that comes before the box is
    // ready is lost, so it is repeated until the box answers.
    bool appeared = false;
    for (int waited = 0; waited < 20000 && answer == 0; waited += 50) {
        HWND window = FindWindowA(nullptr, caption);
        if (window && IsWindowVisible(window)) {
            appeared = true;
            if (HWND ok = FindWindowExA(window, nullptr, "Button", nullptr))
                PostMessageA(ok, BM_CLICK, 0, 0);
        }
        Sleep(50);
    }
    if (answer == 0)
        box.detach();  // never answered: the failure below ends the program with it
    else
        box.join();
    if (HANDLE holder = OpenProcess(PROCESS_TERMINATE, FALSE, processIdIn(readyFile))) {
        TerminateProcess(holder, 0);
        CloseHandle(holder);
    }
    EXPECT_TRUE(appeared) << "the message box did not appear (MessageBoxA answered " << answer << ")";
    ASSERT_EQ(answer, IDOK);
}

}  // namespace
