// Plumbing shared by the CNG operations: status plus one ERROR line for a failure, a guard that keeps
// exceptions inside the provider, handle checks, wide and narrow text, the size rule of outputs, the
// firmware comparison and the PIN gate before private-key work.
#pragma once

#include <windows.h>

#include <ncrypt.h>

#include <climits>
#include <string>

#include "ksp/ksp_interface.h"
#include "ksp/ksp_objects.h"
#include "log/log.h"
#include "token/secret_text.h"
#include "util/bounded_length.h"
#include "util/entry_guard.h"

// Logs `message` at ERROR and answers `status`.
inline SECURITY_STATUS kspFail(SECURITY_STATUS status, const std::string& message) {
    logError(message);
    return status;
}

// Runs the body of an operation; an escaping exception becomes NTE_NO_MEMORY (out of memory) or
// NTE_INTERNAL_ERROR (anything else) with one ERROR line naming the operation.
template <typename Body>
SECURITY_STATUS runKspOperation(const char* name, Body body) {
    return guardEntryPoint<SECURITY_STATUS>(name, body, [](const EscapedException& escaped) {
        return kspFail(escaped.outOfMemory ? KSP_NTE_NO_MEMORY : KSP_NTE_INTERNAL_ERROR, escaped.message);
    });
}

// The provider object behind a handle when it is non-null and initialised, else null.
KspProvider* usableProvider(NCRYPT_PROV_HANDLE handle);

// Each wide character cut to its low byte; null gives "".
std::string narrowText(LPCWSTR text);
// Each narrow character widened as it is (the names handled here are ASCII).
std::wstring wideText(const std::string& text);
// A malloc'ed wide copy that the router releases through KSPFreeBuffer; null when memory is short.
wchar_t* mallocWideCopy(const std::wstring& text);
// Exact, case-sensitive comparison of a caller's wide text with a name; null matches nothing.
bool sameWide(LPCWSTR text, const wchar_t* name);

bool isEcAlgorithm(int32_t algorithm);

// Copies what the token stores for a key pair into a key object: identifier (length 16), public
// key, link identifier, label and token flag; the reserved word becomes 0. Link identifier and label
// are bounded by the object's fields; a public key too long for its field is refused (below).
// Algorithm, usage and length are the caller's affair.
void copyTokenKeyData(const CalythKeyPair& keyPair, KspKey* key);
// The key pair's public key into the key object. One longer than the object's field is refused, not
// cut short: logged, and the object keeps no public key (false).
bool copyTokenPublicKey(const CalythKeyPair& keyPair, KspKey* key);

// The size rule of every output: *pcbResult = size; a null output is a size query (success); a
// shorter output gives NTE_BUFFER_TOO_SMALL without a log line and without writing; else the value
// is copied.
SECURITY_STATUS writeSizedOutput(const void* value, DWORD size, PBYTE pbOutput, DWORD cbOutput,
                                 DWORD* pcbResult);

// Dotted version comparison: pieces split at '.', read as decimal numbers, compared left to right,
// a missing piece counting as 0 ("2.0" equals "2.0.0", "10.0.0" is above it).
bool firmwareAtLeast(const std::string& firmware, const std::string& minimum);

// The password held for the provider's token ("" when none).
std::string devicePassword(const KspProvider* provider);
// The token's PIN check (single sign-on, held PIN, or the dialog); it may show the dialog whatever
// flags the caller gave.
bool kspPinCheckIgnoringSilent(const KspProvider* provider);
// The gate before signing, RSA decryption and the like, which honours NCRYPT_SILENT_FLAG: with it
// and no validated PIN "<operation>: silent mode requested but PIN not validated" and
// NTE_SILENT_CONTEXT; a failed PIN check "<operation>: password validation failed" and NTE_FAIL;
// otherwise 0.
SECURITY_STATUS kspPinGateHonouringSilent(const KspProvider* provider, DWORD flags,
                                          const std::string& operation);
