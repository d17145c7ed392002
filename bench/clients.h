// The two ways an application reaches the provider: CryptoAPI through advapi32 (the provider
// registered with the CalythCSP.dll beside this program), and the CNG key storage function table
// of that same DLL, driven as the NCrypt router drives it.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <string>
#include <vector>

#include "ksp/ksp_interface.h"

namespace bench {

using Bytes = std::vector<unsigned char>;

// The PIN of every benchmark token.
constexpr const char* kPin = "1234";

std::string programFolder();  // ends in a backslash

// HKLM CryptoAPI registration pointing at the CalythCSP.dll beside this program.
bool registerProviderBesideProgram();

// Key pairs on the first token of the device library that the provider loaded; -1 when none is
// loaded or no token is connected.
int keysOnFirstToken();

// CryptAcquireContext on the key's container (empty: none), then PP_SIGNATURE_PIN unless `pin`
// is null. Releases and answers 0 on failure.
HCRYPTPROV acquireContext(const std::string& container, const char* pin, DWORD flags = 0);
// CryptAcquireContext on the container and CryptReleaseContext, no PIN.
bool acquireOnce(const std::string& container);
// The same through advapi32 on Wine's own enhanced provider, verify-only: what advapi32 itself
// spends on an acquisition and a release (provider lookup in the registry, loading, binding the
// entry points), next to nothing of that provider's own.
bool acquireBuiltInOnce();
// One signature as an application makes it: create a SHA-256 hash, hash `document`, sign with
// AT_SIGNATURE, destroy the hash.
bool signDocument(HCRYPTPROV provider, const Bytes& document);

// The function table of the CalythCSP.dll beside this program (loaded once, kept loaded).
const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* kspTable();

struct KspKey {
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE key = 0;
};
// OpenProvider, "SmartCardPin" unless `pin` is null, OpenKey by name; closes what it opened and
// answers false on failure.
bool openKspKey(const std::string& keyName, const char* pin, KspKey& out);
void closeKspKey(KspKey& key);
// OpenProvider, OpenKey, FreeKey, FreeProvider, no PIN.
bool openOnce(const std::string& keyName);
// One SignHash of a SHA-256 digest: PKCS #1 for RSA keys, plain for EC keys.
bool kspSign(const KspKey& key, const Bytes& digest, bool ec);

}  // namespace bench
