// A host for one registration call: loads CalythCSP.dll from its own folder, calls
// DllRegisterServer ("register") or DllUnregisterServer ("unregister") and prints the HRESULT as
// "hr=0xXXXXXXXX". It imports nothing beyond the system's basics, so that a bcrypt.dll put in its
// place affects only the provider. Exit code 0 once the call was made, 2 otherwise.
#include <windows.h>

#include <cstdio>
#include <cstring>

typedef HRESULT(WINAPI* RegistrationFn)();

int main(int argc, char** argv) {
    if (argc != 2 || (std::strcmp(argv[1], "register") != 0 && std::strcmp(argv[1], "unregister") != 0)) {
        std::printf("usage: registration_host register|unregister\n");
        return 2;
    }
    HMODULE provider = LoadLibraryA("CalythCSP.dll");
    if (provider == nullptr) {
        std::printf("LoadLibrary(CalythCSP.dll) failed: %lu\n", GetLastError());
        return 2;
    }
    const char* name = std::strcmp(argv[1], "register") == 0 ? "DllRegisterServer" : "DllUnregisterServer";
    auto call = reinterpret_cast<RegistrationFn>(reinterpret_cast<void*>(GetProcAddress(provider, name)));
    if (call == nullptr) {
        std::printf("%s not exported\n", name);
        return 2;
    }
    HRESULT result = call();
    std::printf("hr=0x%08lX\n", static_cast<unsigned long>(result));
    FreeLibrary(provider);
    return 0;
}
