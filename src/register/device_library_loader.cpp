// The delay-load hook and the availability check of the device library (see
// token/device_library_loading.h). Linked into CalythCSP.dll only: unit tests link the fake.
#include <windows.h>

#include <delayimp.h>

#include <string>

#include "log/log.h"
#include "token/device_library_loading.h"
#include "token/module_handle.h"

namespace {

constexpr char kDeviceLibraryName[] = "CalythDSCLibrary.dll";

// The library's own dependencies are looked up in its folder and in System32 only, never beside
// the host program.
constexpr DWORD kSearchFlags = LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32;

// <folder of CalythCSP.dll>\CalythDSCLibrary.dll; empty when the module name cannot be read.
std::wstring deviceLibraryPath() {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetModuleFileNameW(providerModule(), &path[0], static_cast<DWORD>(path.size()));
        if (length == 0)
            return std::wstring();
        if (length < path.size()) {
            path.resize(length);
            break;
        }
        path.resize(path.size() * 2);
    }
    const size_t folderEnd = path.find_last_of(L"\\/");
    if (folderEnd == std::wstring::npos)
        return std::wstring();
    path.resize(folderEnd + 1);
    for (const char* c = kDeviceLibraryName; *c != '\0'; ++c)
        path.push_back(static_cast<wchar_t>(*c));
    return path;
}

// Each call adds a reference (the delay-load helper releases the extra one of a lost race).
HMODULE loadBesideProvider() {
    const std::wstring path = deviceLibraryPath();
    return path.empty() ? nullptr : LoadLibraryExW(path.c_str(), nullptr, kSearchFlags);
}

// This module's delay-import descriptor of the device library, or null. The build sets the data
// directory entry (cmake/set-delay-import-directory.sh); its size bounds the descriptors, since
// the linker puts no empty one after them.
const ImgDelayDescr* deviceDelayDescriptor(const BYTE* image) {
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(image);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(image + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& directory =
        nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT];
    const auto* descriptors = reinterpret_cast<const ImgDelayDescr*>(image + directory.VirtualAddress);
    const size_t count = directory.VirtualAddress == 0 ? 0 : directory.Size / sizeof(ImgDelayDescr);
    for (size_t i = 0; i < count && descriptors[i].rvaDLLName != 0; ++i) {
        if (lstrcmpiA(reinterpret_cast<const char*>(image + descriptors[i].rvaDLLName), kDeviceLibraryName) ==
            0)
            return &descriptors[i];
    }
    return nullptr;
}

// The first function this module imports from the device library that `library` does not export;
// empty when it has them all.
std::string firstMissingFunction(HMODULE library) {
    const auto* image = reinterpret_cast<const BYTE*>(providerModule());
    const ImgDelayDescr* descriptor = image == nullptr ? nullptr : deviceDelayDescriptor(image);
    if (descriptor == nullptr)
        return "(no delay-import table)";
    for (const auto* thunk = reinterpret_cast<const IMAGE_THUNK_DATA*>(image + descriptor->rvaINT);
         thunk->u1.AddressOfData != 0; ++thunk) {
        const auto* byName = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(image + thunk->u1.AddressOfData);
        const char* name = reinterpret_cast<const char*>(byName->Name);
        if (GetProcAddress(library, name) == nullptr)
            return name;
    }
    return std::string();
}

bool loadAndCheck() {
    HMODULE library = loadBesideProvider();
    if (library == nullptr) {
        const DWORD error = GetLastError();
        logError(std::string("Device library: cannot load ") + kDeviceLibraryName +
                 " from the provider's folder, error " + std::to_string(error));
        return false;
    }
    const std::string missing = firstMissingFunction(library);
    if (!missing.empty()) {
        logError(std::string("Device library: ") + kDeviceLibraryName + " lacks " + missing);
        FreeLibrary(library);
        return false;
    }
    // The reference is kept for the life of the process, as the delay-load helper keeps its own.
    return true;
}

// Before the helper's LoadLibraryA by name: the library by its full path instead. A null answer
// would let the helper search by name, so a failure answers kernel32 (always loaded, no calyth_
// export): the call then faults in the helper instead of running a library found elsewhere. The
// front-ends rule that out by asking deviceLibraryAvailable() before any device call.
FARPROC WINAPI deviceLibraryNotifyHook(unsigned notification, PDelayLoadInfo info) {
    if (notification != dliNotePreLoadLibrary || info == nullptr || info->szDll == nullptr ||
        lstrcmpiA(info->szDll, kDeviceLibraryName) != 0)
        return nullptr;
    HMODULE library = loadBesideProvider();
    if (library == nullptr)
        library = GetModuleHandleW(L"kernel32.dll");
    return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(library));
}

}  // namespace

// The mingw-w64 runtime's delay-load helper calls this hook; defining it here keeps the runtime's
// null default out of the link.
extern "C" {
PfnDliHook __pfnDliNotifyHook2 =
    deviceLibraryNotifyHook;  // NOLINT(bugprone-reserved-identifier): the runtime's name
}

bool deviceLibraryAvailable() {
    static const bool available = loadAndCheck();
    return available;
}
