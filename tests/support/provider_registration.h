// The provider as an installer registers it, and reached as applications reach it: CalythCSP.dll
// beside the test program, registered under the CryptoAPI provider keys (PROV_RSA_FULL).
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <string>

namespace testsupport {

constexpr const char* kProviderName = "Calyth Cryptographic Provider CSP";
constexpr const char* kProviderKey =
    "Software\\Microsoft\\Cryptography\\Defaults\\Provider\\Calyth Cryptographic Provider CSP";

// The folder of this program (ends in a backslash); CalythCSP.dll, CalythDSCLibrary.dll and
// calyth-token.exe are built into the same folder.
std::string programFolder();
// Full Windows path of the CalythCSP.dll beside this program.
std::string providerImagePath();

// Writes HKLM\<kProviderKey> with "Image Path" (REG_SZ, providerImagePath()) and "Type"
// (REG_DWORD 1, PROV_RSA_FULL). Answers the registry status.
LONG registerProvider();
// The same with another image path.
LONG registerProviderAt(const std::string& image);
// Reads back the registered image path and type; false when the key or a value is missing.
bool readRegistration(std::string* imagePath, DWORD* type);

// A provider handle released when it goes out of scope.
struct Provider {
    HCRYPTPROV handle = 0;
    Provider() = default;
    Provider(const Provider&) = delete;
    Provider& operator=(const Provider&) = delete;
    ~Provider() {
        if (handle)
            CryptReleaseContext(handle, 0);
    }
};

// CryptAcquireContextA on this provider (PROV_RSA_FULL); container may be null.
BOOL acquire(Provider& provider, const char* container, DWORD flags = 0);

// CryptGetProvParam(PP_NAME)-style string parameter; "" when it fails.
std::string stringProvParam(HCRYPTPROV provider, DWORD param, DWORD flags = 0);

}  // namespace testsupport
