// calyth-register.exe: the installer's way to reach the provider's own CNG registration (wixl has
// no self-registration). "register <dll> [ui level]" loads the provider and calls
// DllRegisterServer, "unregister <dll> [ui level]" DllUnregisterServer; the exit code is 0 on
// success. The provider loads and registers without its device library (it opens
// CalythDSCLibrary.dll from its own folder when a front-end first opens), so a library missing
// there is only a warning after registering (a message box only when the installer shows a full
// user interface, UI level 5): the token maker's package may come later.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "calyth_version.h"

namespace {

constexpr int kFullUiLevel = 5;

bool deviceLibraryBeside(const char* dll) {
    std::string library(dll);
    size_t separator = library.find_last_of("\\/");
    library = (separator == std::string::npos ? std::string() : library.substr(0, separator + 1)) +
              "CalythDSCLibrary.dll";
    return GetFileAttributesA(library.c_str()) != INVALID_FILE_ATTRIBUTES;
}

void warnNoDeviceLibrary(const char* dll, int uiLevel) {
    char text[1024];
    (void)std::snprintf(text, sizeof text,
                        "CalythDSCLibrary.dll, the token's device library, is not beside %s, so the "
                        "provider cannot open a token yet. Install the token maker's device library.",
                        dll);
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
        std::fprintf(stderr, "calyth-register: cannot load %s (error %lu)\n", dll, GetLastError());
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
    if (registering && !deviceLibraryBeside(dll))
        warnNoDeviceLibrary(dll, uiLevel);
    return 0;
}
