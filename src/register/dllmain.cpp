#include <windows.h>

#include "register/module_instance.h"

// Loading does nothing but remember the module: all state starts empty and is built on first use.
BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID /*reserved*/) {
    if (reason == DLL_PROCESS_ATTACH) {
        g_moduleInstance = instance;
    }
    return TRUE;
}
