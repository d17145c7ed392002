// Shared plumbing of the CryptoAPI entry points: one ERROR line plus the thread's last error for a
// failure, and a guard that keeps every exception inside the provider.
#pragma once

#include <windows.h>

#include <new>
#include <string>

#include "log/log.h"

// Logs `message` at ERROR, sets `error` as the thread's last error and answers FALSE.
inline BOOL failWithError(DWORD error, const std::string& message) {
    logError(message);
    SetLastError(error);
    return FALSE;
}

// Runs the body of an entry point; an escaping exception becomes FALSE with NTE_NO_MEMORY (out of
// memory) or NTE_FAIL (anything else) and one ERROR line naming the entry point.
template <typename Body>
BOOL runEntryPoint(const char* name, Body body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return failWithError(static_cast<DWORD>(NTE_NO_MEMORY), std::string(name) + ": out of memory");
    } catch (...) {
        return failWithError(static_cast<DWORD>(NTE_FAIL), std::string(name) + ": unexpected failure");
    }
}
