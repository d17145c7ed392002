// Helpers of the CryptoAPI client tests: the provider registered as an installer registers it, soft
// tokens made with calyth-token in the program's own store, scratch files and OpenSSL cross-checks.
// The programs reach the provider only through advapi32 and crypt32, as any application does.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <string>
#include <vector>

#include "util/encoding.h"

namespace clienttest {

constexpr const char* kProviderName = "Calyth Cryptographic Provider CSP";
constexpr const char* kProviderKey =
    "Software\\Microsoft\\Cryptography\\Defaults\\Provider\\Calyth Cryptographic Provider CSP";

// The folder of this program (ends in a backslash); CalythCSP.dll, CalythDSCLibrary.dll and
// calyth-token.exe are built into the same folder.
std::string programFolder();
// Full Windows path of the CalythCSP.dll beside this program.
std::string providerImagePath();

// Writes the provider's CryptoAPI registration: HKLM\<kProviderKey> with "Image Path" (REG_SZ, the
// full path of CalythCSP.dll) and "Type" (REG_DWORD 1, PROV_RSA_FULL). Answers the registry status.
LONG registerProvider();
// Reads back the registered image path and type; false when the key or a value is missing.
bool readRegistration(std::string* imagePath, DWORD* type);

// Points CALYTH_TOKEN_STORE of this process (read by the device library on every call and inherited
// by calyth-token) at an empty folder <temp>\<name>; answers the folder.
std::string useFreshTokenStore(const std::string& name = "store");

// Runs calyth-token.exe with `arguments`; answers its exit code, its output in *output.
int calythToken(const std::string& arguments, std::string* output = nullptr);
// calyth-token init; false (with the output in a test failure) when it fails.
bool createToken(const std::string& serial, const std::string& pin);
// calyth-token genkey; answers the 32-character key id it prints, "" on failure.
std::string generateKey(const std::string& serial, const std::string& usage = "both",
                        const std::string& label = "");
// calyth-token export-pubkey into <temp>\<fileName>; answers the Windows path, "" on failure.
std::string exportPublicKey(const std::string& serial, const std::string& keyId, const std::string& fileName);
// The key ids of `serial` in the token's own order, read from calyth-token list.
std::vector<std::string> listedKeyIds(const std::string& serial);
// The lines of calyth-token list --serial that start with `word` ("key", "certificate",
// "secret-key"), trimmed, in the token's order.
std::vector<std::string> listedLines(const std::string& serial, const std::string& word);

// Scratch files in the program's private temp folder.
std::string tempPath(const std::string& fileName);
std::string writeTemp(const std::string& fileName, const Bytes& bytes);
Bytes readTemp(const std::string& fileName);
Bytes bytesOf(const std::string& text);
Bytes reversed(Bytes bytes);

// openssl with file arguments given as Windows paths of scratch files turned into Unix paths by the
// caller (testsupport::unixPath); answers the exit code, the output in *output.
int openssl(const std::string& arguments, std::string* output = nullptr);
// The RSA modulus of a PEM public key as OpenSSL reads it (big-endian, no leading zero).
Bytes opensslModulus(const std::string& publicKeyPemPath);

// A CryptoAPI PUBLICKEYBLOB (RSA1, exponent 65537) for a big-endian modulus.
Bytes publicKeyBlob(const Bytes& modulusBigEndian, ALG_ID algorithm = CALG_RSA_KEYX);

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

}  // namespace clienttest
