// A bcrypt.dll that only knows the four registration functions. Each call appends one line with
// every argument, nested registration records included, to the file named by CALYTH_BCRYPT_RECORD.
// CALYTH_BCRYPT_FAIL holds "Name=0xSTATUS" pairs (comma separated): the named function answers that
// status, otherwise 0. A test loads it in place of the system's for one program with a native
// load order for bcrypt (DllOverrides).
#include <windows.h>

#include <bcrypt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>

#include "register/bcrypt_registration.h"

namespace {

std::string environment(const char* name) {
    char value[1024] = {};
    DWORD length = GetEnvironmentVariableA(name, value, sizeof value);
    return length > 0 && length < sizeof value ? std::string(value, length) : std::string();
}

std::string text(LPCWSTR wide) {
    if (wide == nullptr)
        return "(null)";
    std::string out;
    for (; *wide != L'\0'; ++wide)
        out.push_back(static_cast<char>(*wide & 0xFF));
    return "\"" + out + "\"";
}

std::string number(unsigned long value) {
    return std::to_string(value);
}

void record(const std::string& line) {
    std::string path = environment("CALYTH_BCRYPT_RECORD");
    if (path.empty())
        return;
    HANDLE file = CreateFileA(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return;
    std::string withEnd = line + "\n";
    DWORD written = 0;
    WriteFile(file, withEnd.data(), static_cast<DWORD>(withEnd.size()), &written, nullptr);
    CloseHandle(file);
}

NTSTATUS answer(const char* function) {
    std::string failures = environment("CALYTH_BCRYPT_FAIL");
    std::string key = std::string(function) + "=";
    size_t at = failures.find(key);
    if (at == std::string::npos)
        return 0;
    return static_cast<NTSTATUS>(std::strtoul(failures.c_str() + at + key.size(), nullptr, 16));
}

std::string interfaceText(const CRYPT_INTERFACE_REG* reg) {
    if (reg == nullptr)
        return "(null)";
    std::string out = "{dwInterface=" + number(reg->dwInterface) + " dwFlags=" + number(reg->dwFlags) +
                      " cFunctions=" + number(reg->cFunctions) + " rgpszFunctions=";
    if (reg->rgpszFunctions == nullptr)
        return out + "(null)}";
    out += "[";
    for (ULONG i = 0; i < reg->cFunctions; ++i)
        out += (i ? " " : "") + text(reg->rgpszFunctions[i]);
    return out + "]}";
}

std::string imageText(const CRYPT_IMAGE_REG* reg) {
    if (reg == nullptr)
        return "(null)";
    std::string out =
        "{pszImage=" + text(reg->pszImage) + " cInterfaces=" + number(reg->cInterfaces) + " rgpInterfaces=";
    if (reg->rgpInterfaces == nullptr)
        return out + "(null)}";
    out += "[";
    for (ULONG i = 0; i < reg->cInterfaces; ++i)
        out += (i ? " " : "") + interfaceText(reg->rgpInterfaces[i]);
    return out + "]}";
}

std::string providerText(const CRYPT_PROVIDER_REG* reg) {
    if (reg == nullptr)
        return "(null)";
    std::string out = "{cAliases=" + number(reg->cAliases) + " rgpszAliases=";
    if (reg->rgpszAliases == nullptr) {
        out += "(null)";
    } else {
        out += "[";
        for (ULONG i = 0; i < reg->cAliases; ++i)
            out += (i ? " " : "") + text(reg->rgpszAliases[i]);
        out += "]";
    }
    return out + " pUM=" + imageText(reg->pUM) + " pKM=" + imageText(reg->pKM) + "}";
}

}  // namespace

extern "C" {

NTSTATUS WINAPI BCryptRegisterProvider(LPCWSTR pszProvider, ULONG dwFlags, PCRYPT_PROVIDER_REG pReg) {
    record("BCryptRegisterProvider " + text(pszProvider) + " " + number(dwFlags) + " " + providerText(pReg));
    return answer("BCryptRegisterProvider");
}

NTSTATUS WINAPI BCryptUnregisterProvider(LPCWSTR pszProvider) {
    record("BCryptUnregisterProvider " + text(pszProvider));
    return answer("BCryptUnregisterProvider");
}

NTSTATUS WINAPI BCryptAddContextFunctionProvider(ULONG dwTable, LPCWSTR pszContext, ULONG dwInterface,
                                                 LPCWSTR pszFunction, LPCWSTR pszProvider, ULONG dwPosition) {
    record("BCryptAddContextFunctionProvider " + number(dwTable) + " " + text(pszContext) + " " +
           number(dwInterface) + " " + text(pszFunction) + " " + text(pszProvider) + " " +
           number(dwPosition));
    return answer("BCryptAddContextFunctionProvider");
}

NTSTATUS WINAPI BCryptRemoveContextFunctionProvider(ULONG dwTable, LPCWSTR pszContext, ULONG dwInterface,
                                                    LPCWSTR pszFunction, LPCWSTR pszProvider) {
    record("BCryptRemoveContextFunctionProvider " + number(dwTable) + " " + text(pszContext) + " " +
           number(dwInterface) + " " + text(pszFunction) + " " + text(pszProvider));
    return answer("BCryptRemoveContextFunctionProvider");
}

}  // extern "C"

// The functions above have exactly the types through which the provider calls them.
static_assert(std::is_same_v<decltype(&BCryptRegisterProvider), BCryptRegisterProviderFn>);
static_assert(std::is_same_v<decltype(&BCryptUnregisterProvider), BCryptUnregisterProviderFn>);
static_assert(
    std::is_same_v<decltype(&BCryptAddContextFunctionProvider), BCryptAddContextFunctionProviderFn>);
static_assert(
    std::is_same_v<decltype(&BCryptRemoveContextFunctionProvider), BCryptRemoveContextFunctionProviderFn>);
