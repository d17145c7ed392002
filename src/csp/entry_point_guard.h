// Shared plumbing of the CryptoAPI entry points: one ERROR line plus the thread's last error for a
// failure, and a guard that keeps every exception inside the provider.
#pragma once

#include <windows.h>

#include <string>

#include "log/log.h"
#include "token/last_error.h"
#include "util/entry_guard.h"

// Logs `message` at ERROR, sets `error` (an NTE_ or ERROR_ code) as the thread's last error and
// answers FALSE.
inline BOOL failWithError(HRESULT error, const std::string& message) {
    logError(message);
    setLastErrorCode(error);
    return FALSE;
}

// The usual answer to an escaping exception: one ERROR line naming the entry point, with
// NTE_NO_MEMORY when memory ran out and NTE_FAIL for anything else.
inline BOOL failByCause(const EscapedException& escaped) {
    return failWithError(escaped.outOfMemory ? NTE_NO_MEMORY : NTE_FAIL, escaped.message);
}

// The answer of CPGetProvParam and CPSetProvParam: "<name>: unexpected failure" with NTE_FAIL,
// whatever escaped (running out of memory too).
inline BOOL failUnexpectedly(const EscapedException& escaped) {
    return failWithError(NTE_FAIL, std::string(escaped.entryPoint) + ": unexpected failure");
}

// Runs the body of an entry point; an escaping exception becomes FALSE with the answer of
// `onEscape` (failByCause unless the entry point keeps answers of its own).
template <typename Body, typename OnEscape = BOOL (*)(const EscapedException&)>
BOOL runEntryPoint(const char* name, Body body, OnEscape onEscape = failByCause) {
    return guardEntryPoint<BOOL>(name, body, onEscape);
}
