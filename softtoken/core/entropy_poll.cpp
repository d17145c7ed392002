// libgcrypt's Windows entropy poll calls NtQuerySystemInformation for every information class
// below 64, SystemHandleInformation (16) among them: a list of every handle of every process.
// Wine 8's server reads past the end of a process's handle table while it answers that query
// (AddressSanitizer: heap-buffer-overflow in enum_handles), and now and then dies of it, ending
// every program of the session. libgcrypt finds the function through GetProcAddress, so this
// module's import of GetProcAddress is pointed at a filter that hands out, for
// NtQuerySystemInformation only, a version that refuses the two handle-list classes; libgcrypt
// skips a class that fails. Every other class and every other lookup is passed on unchanged, and
// the system's own random source, which libgcrypt reads as well, is untouched.
#include "entropy_poll.h"

#include <windows.h>

#include <mutex>

namespace softtoken {
namespace {

using QuerySystemInformation = LONG(WINAPI*)(ULONG, PVOID, ULONG, PULONG);
using ProcAddressLookup = FARPROC(WINAPI*)(HMODULE, LPCSTR);

constexpr ULONG kSystemHandleInformation = 16;
constexpr ULONG kSystemExtendedHandleInformation = 64;
constexpr LONG kStatusNotImplemented = static_cast<LONG>(0xC0000002);

QuerySystemInformation g_query = nullptr;
ProcAddressLookup g_lookup = nullptr;

LONG WINAPI queryWithoutHandleLists(ULONG infoClass, PVOID buffer, ULONG length, PULONG returned) {
    if (infoClass == kSystemHandleInformation || infoClass == kSystemExtendedHandleInformation) {
        if (returned)
            *returned = 0;
        return kStatusNotImplemented;
    }
    return g_query(infoClass, buffer, length, returned);
}

// Compares addresses, not names: a lookup may name its function by ordinal.
FARPROC WINAPI lookupWithFilter(HMODULE module, LPCSTR name) {
    FARPROC found = g_lookup(module, name);
    if (found != nullptr && reinterpret_cast<void*>(found) == reinterpret_cast<void*>(g_query))
        return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&queryWithoutHandleLists));
    return found;
}

// Replaces every import slot of `module` that holds `original`; false when there was none.
bool redirectImports(HMODULE module, const void* original, const void* replacement) {
    auto* base = reinterpret_cast<BYTE*>(module);
    auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
    auto* headers = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& imports = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (imports.VirtualAddress == 0)
        return false;
    bool redirected = false;
    for (auto* library = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
         library->Name != 0; ++library) {
        for (auto* slot = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->FirstThunk);
             slot->u1.Function != 0; ++slot) {
            if (reinterpret_cast<const void*>(slot->u1.Function) != original)
                continue;
            DWORD protection = 0;
            if (!VirtualProtect(&slot->u1.Function, sizeof slot->u1.Function, PAGE_READWRITE, &protection))
                return false;
            slot->u1.Function = reinterpret_cast<ULONG_PTR>(replacement);
            VirtualProtect(&slot->u1.Function, sizeof slot->u1.Function, protection, &protection);
            redirected = true;
        }
    }
    return redirected;
}

}  // namespace

bool keepEntropyPollOffHandleLists() {
    static std::once_flag once;
    static bool done = false;
    std::call_once(once, [] {
        HMODULE self = nullptr;
        HMODULE ntdll = GetModuleHandleA("ntdll.dll");
        if (!ntdll || !GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                              GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                                          reinterpret_cast<LPCSTR>(&queryWithoutHandleLists), &self))
            return;
        g_query = reinterpret_cast<QuerySystemInformation>(
            reinterpret_cast<void*>(GetProcAddress(ntdll, "NtQuerySystemInformation")));
        g_lookup = &GetProcAddress;
        if (!g_query)
            return;
        done = redirectImports(self, reinterpret_cast<const void*>(g_lookup),
                               reinterpret_cast<const void*>(&lookupWithFilter));
    });
    return done;
}

}  // namespace softtoken
