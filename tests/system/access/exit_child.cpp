// A host process for the unload tests: loads CalythCSP.dll, does what its arguments say and ends,
// so that the parent can watch how the provider behaves while a process ends.
//   access_exit_child <provider dll> <steps...>
// Steps: "verify" (verify-only context, released), "token" (token context, released; starts the
// device monitor), "free" (FreeLibrary), "load" (LoadLibrary again), "sleep" (1.5 s),
// "exitprocess" (ExitProcess(0) from another thread while this one sleeps).
#include <windows.h>

#include <wincrypt.h>

#include <cstdio>
#include <cstring>

#include "csp/csp_entry_points.h"

namespace {

using VTable = VTableProvStruc;
using Acquire = decltype(&CPAcquireContext);
using Release = BOOL(WINAPI*)(HCRYPTPROV, DWORD);

HMODULE g_provider = nullptr;

bool openAndClose(DWORD flags) {
    auto acquire =
        reinterpret_cast<Acquire>(reinterpret_cast<void*>(GetProcAddress(g_provider, "CPAcquireContext")));
    auto release =
        reinterpret_cast<Release>(reinterpret_cast<void*>(GetProcAddress(g_provider, "CPReleaseContext")));
    if (!acquire || !release)
        return false;
    VTable table{};
    HCRYPTPROV handle = 0;
    if (!acquire(&handle, nullptr, flags, &table))
        return false;
    return release(handle, 0) != FALSE;
}

DWORD WINAPI exitFromElsewhere(LPVOID) {
    ExitProcess(0);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2)
        return 2;
    g_provider = LoadLibraryA(argv[1]);
    if (!g_provider)
        return 3;
    for (int i = 2; i < argc; ++i) {
        const char* step = argv[i];
        if (std::strcmp(step, "verify") == 0) {
            if (!openAndClose(CRYPT_VERIFYCONTEXT))
                return 4;
        } else if (std::strcmp(step, "token") == 0) {
            if (!openAndClose(0))
                return 5;
        } else if (std::strcmp(step, "free") == 0) {
            if (!FreeLibrary(g_provider))
                return 6;
        } else if (std::strcmp(step, "load") == 0) {
            g_provider = LoadLibraryA(argv[1]);
            if (!g_provider)
                return 7;
        } else if (std::strcmp(step, "sleep") == 0) {
            Sleep(1500);
        } else if (std::strcmp(step, "exitprocess") == 0) {
            CreateThread(nullptr, 0, exitFromElsewhere, nullptr, 0, nullptr);
            Sleep(INFINITE);
        } else {
            return 8;
        }
    }
    std::printf("done\n");
    return 0;
}
