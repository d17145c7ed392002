// Figure 5, one side: a process that holds the provider and does nothing. tools/bench.sh runs one
// with the device monitor started and one without at the same time and compares their CPU time;
// beside them a third side, calyth-agent.exe in the background, measured from outside.
#include <cstdio>

#include "bench_stores.h"
#include "clients.h"
#include "figures.h"
#include "measure.h"

namespace bench {

int idleProcess(const std::string& root, bool withMonitor, int windowSeconds, int windows) {
    if (!registerProviderBesideProgram())
        return 1;
    useStore(root, "k1");
    // A context on the token starts the monitor; a verify-only one loads the provider without it.
    HCRYPTPROV provider = acquireContext("", nullptr, withMonitor ? 0 : CRYPT_VERIFYCONTEXT);
    if (!provider) {
        std::fprintf(stderr, "cannot acquire a context\n");
        return 1;
    }
    CryptReleaseContext(provider, 0);
    Sleep(500);
    std::printf("%s", withMonitor ? "monitor" : "plain");
    for (int i = 0; i < windows; ++i) {
        double before = processCpuSeconds();
        Sleep(static_cast<DWORD>(windowSeconds) * 1000);
        std::printf(" %.6f", processCpuSeconds() - before);
    }
    std::printf("\n");
    return 0;
}

int idleAgent(const std::string& root, int windowSeconds, int windows) {
    useStore(root, "k1");
    std::string agent = "\"" + programFolder() + "calyth-agent.exe\"";
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION child{};
    std::string command = agent;
    if (!CreateProcessA(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &child)) {
        std::fprintf(stderr, "cannot start %s\n", agent.c_str());
        return 1;
    }
    Sleep(3000);  // its first pass is over
    std::printf("agent");
    for (int i = 0; i < windows; ++i) {
        double before = processCpuSeconds(child.hProcess);
        Sleep(static_cast<DWORD>(windowSeconds) * 1000);
        std::printf(" %.6f", processCpuSeconds(child.hProcess) - before);
    }
    std::printf("\n");
    command = agent + " --remove-all";  // stops it, and leaves the bench prefix's store as it was
    PROCESS_INFORMATION stopper{};
    if (CreateProcessA(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                       &stopper)) {
        WaitForSingleObject(stopper.hProcess, 30000);
        CloseHandle(stopper.hProcess);
        CloseHandle(stopper.hThread);
    }
    bool stopped = WaitForSingleObject(child.hProcess, 30000) == WAIT_OBJECT_0;
    CloseHandle(child.hProcess);
    CloseHandle(child.hThread);
    return stopped ? 0 : 1;
}

}  // namespace bench
