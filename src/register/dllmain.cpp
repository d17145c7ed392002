#include <windows.h>

#include "token/module_handle.h"

// Loading does nothing but remember the module: all state starts empty and is built on first use.
BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID /*reserved*/) {
    if (reason == DLL_PROCESS_ATTACH) {
        setProviderModule(instance);
    }
    return TRUE;
}
