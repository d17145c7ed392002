// The CryptoAPI front-end's PIN checks: the token's login mapped to CryptoAPI last errors and log
// lines.
#pragma once

#include <windows.h>

#include "csp/csp_context.h"

constexpr size_t PIN_BUFFER_SIZE = 64;

// True when the token's PIN is (now) validated; on false the last error is set (NTE_SILENT_CONTEXT
// or NTE_FAIL).
bool ensurePasswordValidated(CspContext* context);
// Single sign-on, or the PIN dialog and the device's check; writes the PIN into a 64-byte buffer.
// Also called directly by CPSetKeyParam.
BOOL loginUser(CspContext* context, char* pinOut);
