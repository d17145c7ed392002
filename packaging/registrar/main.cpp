// calyth-register.exe: the installer's way to reach the provider's own CNG registration (wixl has
// no self-registration). "register <dll> [ui level]" loads the provider and calls
// DllRegisterServer, "unregister <dll> [ui level]" DllUnregisterServer; the exit code is 0 on
// success. When the provider cannot load because no device library CalythDSCLibrary.dll is
// found, registration is left for later: the installation goes on with a warning (a message box
// only when the installer shows a full user interface, UI level 5).
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "calyth_version.h"

namespace {

constexpr int kFullUiLevel = 5;

void warnNoDeviceLibrary(const char* dll, int uiLevel) {
    char text[1024];
    std::snprintf(text, sizeof text,
                  "CalythDSCLibrary.dll, the token's device library, was not found, so %s cannot load "
                  "yet. Install the token maker's device library, then run: regsvr32 \"%s\"",
                  dll, dll);
    std::fprintf(stderr, "calyth-register: warning: %s\n", text);
    if (uiLevel >= kFullUiLevel)
        MessageBoxA(nullptr, text, "Calyth", MB_OK | MB_ICONWARNING);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("calyth-register %s\n", CALYTH_VERSION_TEXT);
        return 0;
    }
    if (argc < 3 || (std::strcmp(argv[1], "register") != 0 && std::strcmp(argv[1], "unregister") != 0)) {
        std::fprintf(stderr,
                     "usage: calyth-register register|unregister <path of CalythCSP.dll> [ui level]\n"
                     "       calyth-register --version\n");
        return 2;
    }
    const bool registering = std::strcmp(argv[1], "register") == 0;
    const char* dll = argv[2];
    const int uiLevel = argc > 3 ? std::atoi(argv[3]) : 0;

    HMODULE module = LoadLibraryExA(dll, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (!module) {
        const DWORD error = GetLastError();
        if (error == ERROR_MOD_NOT_FOUND && GetFileAttributesA(dll) != INVALID_FILE_ATTRIBUTES) {
            // Without the provider loaded there is nothing to unregister either.
            if (registering)
                warnNoDeviceLibrary(dll, uiLevel);
            return 0;
        }
        std::fprintf(stderr, "calyth-register: cannot load %s (error %lu)\n", dll, error);
        return 1;
    }
    typedef HRESULT(WINAPI * RegistrationFn)();
    auto function = reinterpret_cast<RegistrationFn>(reinterpret_cast<void*>(
        GetProcAddress(module, registering ? "DllRegisterServer" : "DllUnregisterServer")));
    HRESULT result = function ? function() : E_NOTIMPL;
    FreeLibrary(module);
    if (FAILED(result)) {
        std::fprintf(stderr, "calyth-register: %s failed: 0x%08lX\n", argv[1],
                     static_cast<unsigned long>(result));
        return 1;
    }
    std::printf("calyth-register: %s %s\n", registering ? "registered" : "unregistered", dll);
    return 0;
}
