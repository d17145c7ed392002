// "SmartCardPin", set on the provider or on a key: the token checks the PIN and, when it takes it,
// the PIN is held for the token as its validated password.
#pragma once

#include <windows.h>

#include "ksp/ksp_common.h"

// pbInput is not null (the callers check it with their own failure line). NTE_VALIDATION_FAILED
// when the token refuses the PIN, otherwise 0.
SECURITY_STATUS validatePinProperty(const KspProvider* provider, const BYTE* pbInput, DWORD cbInput);
