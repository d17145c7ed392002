#include "level_read_stub.h"

#include <windows.h>

#include <cstring>

namespace bench {
namespace {

LSTATUS WINAPI levelTwoAtOnce(HKEY, LPCSTR, LPCSTR, DWORD, LPDWORD type, PVOID data, LPDWORD size) {
    if (type)
        *type = REG_DWORD;
    if (data && size && *size >= sizeof(DWORD)) {
        DWORD level = 2;
        std::memcpy(data, &level, sizeof level);
        *size = sizeof level;
    }
    return ERROR_SUCCESS;
}

// The import address table slot of RegGetValueA in `module`, or null.
ULONG_PTR* regGetValueSlot(HMODULE module) {
    auto* base = reinterpret_cast<BYTE*>(module);
    auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (imports.VirtualAddress == 0)
        return nullptr;
    for (auto* library = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
         library->Name != 0; ++library) {
        if (library->OriginalFirstThunk == 0)
            continue;
        auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->OriginalFirstThunk);
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++slots) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal))
                continue;
            auto* byName = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            if (std::strcmp(reinterpret_cast<const char*>(byName->Name), "RegGetValueA") == 0)
                return reinterpret_cast<ULONG_PTR*>(&slots->u1.Function);
        }
    }
    return nullptr;
}

}  // namespace

bool stubLevelReads(bool on) {
    HMODULE provider = GetModuleHandleA("CalythCSP.dll");
    ULONG_PTR* slot = provider ? regGetValueSlot(provider) : nullptr;
    if (!slot)
        return false;
    static const ULONG_PTR original = *slot;
    ULONG_PTR wanted = on ? reinterpret_cast<ULONG_PTR>(&levelTwoAtOnce) : original;
    DWORD before = 0;
    if (!VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &before))
        return false;
    *slot = wanted;
    DWORD ignored = 0;
    return VirtualProtect(slot, sizeof *slot, before, &ignored) != 0;
}

}  // namespace bench
