// Entry point of CalythDSCLibrary.dll: nothing happens at load; the per-thread lists are freed when
// a thread ends or the library is unloaded.
#include <windows.h>

#include "thread_lists.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
    switch (reason) {
        case DLL_THREAD_DETACH:
            softtoken::releaseThreadLists();
            break;
        case DLL_PROCESS_DETACH:
            // At process exit other threads are gone without notice: leave the memory to the system.
            if (reserved == nullptr)
                softtoken::releaseAllThreadLists();
            break;
        default:
            break;
    }
    return TRUE;
}
