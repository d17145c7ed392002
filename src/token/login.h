// The PIN checks run before any private-key operation.
#pragma once

#include <windows.h>

#include <string>

#include "token/csp_context.h"

constexpr size_t PIN_BUFFER_SIZE = 64;

// CryptoAPI: true when the token's PIN is (now) validated; on false the last error is set
// (NTE_SILENT_CONTEXT or NTE_FAIL).
bool ensurePasswordValidated(CspContext* context);
// CryptoAPI: single sign-on, or the PIN dialog and the device's check; writes the PIN into a
// 64-byte buffer. Also called directly by CPSetKeyParam.
BOOL loginUser(CspContext* context, char* pinOut);
// CNG: the same check for a provider or key object's token; never sets a status itself.
bool kspEnsurePasswordValidated(const std::string& serialNumber, void* deviceContext);

// The message-box texts of a failed PIN validation, shared by both front-ends.
std::string pinFailureMessage(int result, int remaining, bool cngSpelling);
