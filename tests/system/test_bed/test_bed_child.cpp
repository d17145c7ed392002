// The test bed's own child process, for test_bed_test:
//   test_bed_child sleep <pid file>              writes its process id, then sleeps two minutes
//   test_bed_child spawn-sleeper <pid file>      starts "sleep" as its own child, ends once it has
//                                                written its process id
//   test_bed_child hold-desktop <ready file> <s>  one hidden window for <s> seconds; writes its
//                                                process id to the ready file first
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

bool writeText(const char* path, const std::string& text) {
    FILE* file = std::fopen(path, "wb");
    if (!file)
        return false;
    bool ok = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    return std::fclose(file) == 0 && ok;
}

int sleepLong(const char* pidFile) {
    if (!writeText(pidFile, std::to_string(GetCurrentProcessId())))
        return 2;
    Sleep(120000);
    return 0;
}

int spawnSleeper(const char* pidFile) {
    char self[MAX_PATH];
    if (!GetModuleFileNameA(nullptr, self, MAX_PATH))
        return 2;
    std::string line = std::string("\"") + self + "\" sleep \"" + pidFile + "\"";
    std::vector<char> buffer(line.begin(), line.end());
    buffer.push_back('\0');
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessA(nullptr, buffer.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &process))
        return 3;
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    for (int waited = 0; GetFileAttributesA(pidFile) == INVALID_FILE_ATTRIBUTES; waited += 20) {
        if (waited > 30000)
            return 4;
        Sleep(20);
    }
    return 0;
}

int holdDesktop(const char* readyFile, int seconds) {
    HWND window = CreateWindowExA(0, "STATIC", "test bed headless holder", 0, 0, 0, 0, 0, nullptr, nullptr,
                                  nullptr, nullptr);
    // Ready either way (without a display the window may fail, but the desktop is attached): the
    // file holds the process id, so that the test can end this process early.
    (void)window;
    if (!writeText(readyFile, std::to_string(GetCurrentProcessId())))
        return 2;
    DWORD end = GetTickCount() + static_cast<DWORD>(seconds) * 1000;
    while (static_cast<LONG>(end - GetTickCount()) > 0) {
        MSG message;
        while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE))
            DispatchMessageA(&message);
        Sleep(20);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "sleep" && argc == 3)
        return sleepLong(argv[2]);
    if (mode == "spawn-sleeper" && argc == 3)
        return spawnSleeper(argv[2]);
    if (mode == "hold-desktop" && argc == 4)
        return holdDesktop(argv[2], std::atoi(argv[3]));
    std::fprintf(stderr,
                 "usage: test_bed_child sleep|spawn-sleeper <pid file> | hold-desktop <ready file> <s>\n");
    return 1;
}
