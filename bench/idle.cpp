// Figure 5, one side: a process that holds the provider and does nothing. tools/bench.sh runs one
// with the device monitor started and one without at the same time and compares their CPU time.
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

}  // namespace bench
