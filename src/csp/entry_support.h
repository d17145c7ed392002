// Small shared pieces of the CryptoAPI entry points: the number formats of their log lines, the
// one-line failure exit, and the guard that keeps exceptions inside the provider.
#pragma once

#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>

#include "log/log.h"

// Eight upper-case hexadecimal digits, as "%08X" writes them.
inline std::string hex8Text(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(value));
    return text;
}

// A pointer in upper-case hexadecimal without leading zeros.
inline std::string pointerHexText(const void* pointer) {
    char text[32];
    std::snprintf(text, sizeof text, "%llX",
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pointer)));
    return text;
}

// A pointer or handle value in decimal, as the "invalid parameter" lines print them.
inline std::string decimalText(const void* pointer) {
    return std::to_string(static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pointer)));
}
inline std::string decimalText(ULONG_PTR handle) {
    return std::to_string(static_cast<unsigned long long>(handle));
}

// Logs the failure at ERROR, sets the thread's last error and answers FALSE.
inline BOOL failWith(const std::string& message, DWORD error) {
    logError(message);
    SetLastError(error);
    return FALSE;
}

// Logs the failure at ERROR and answers FALSE with the last error that the failed step set (the
// log writer's own file calls would otherwise overwrite it).
inline BOOL failKeepingLastError(const std::string& message) {
    DWORD error = GetLastError();
    logError(message);
    SetLastError(error);
    return FALSE;
}

// Runs an entry point's body; an exception that escapes it (out of memory while copying a device
// list, for instance) becomes NTE_FAIL instead of crossing into the caller.
template <typename Body>
BOOL runEntryPoint(const char* name, Body&& body) {
    try {
        return body();
    } catch (const std::exception& e) {
        try {
            return failWith(std::string(name) + ": unexpected exception - " + e.what(),
                            static_cast<DWORD>(NTE_FAIL));
        } catch (...) {
        }
    } catch (...) {
    }
    SetLastError(static_cast<DWORD>(NTE_FAIL));
    return FALSE;
}
