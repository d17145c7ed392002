// Shared plumbing of the CryptoAPI entry points: one ERROR line plus the thread's last error for a
// failure, and a guard that keeps every exception inside the provider.
#pragma once

#include <windows.h>

#include <string>

#include "log/log.h"
#include "util/entry_guard.h"

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
    return guardEntryPoint<BOOL>(name, body, [](bool outOfMemory, const std::string& message) {
        return failWithError(static_cast<DWORD>(outOfMemory ? NTE_NO_MEMORY : NTE_FAIL), message);
    });
}
