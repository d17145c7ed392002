// The fixture of the CNG system tests: a soft token with its keys in a store of the test's own,
// made with calyth-token; a provider opened through the CNG client (support/cng_client.h), with
// the PIN handed over through "SmartCardPin" when the test wants no dialog; digests from Windows'
// own BCrypt; and OpenSSL as the judge of what the provider made. What differs between the test
// groups (the token's serial and PIN, one store per test or per suite, whether a PIN is handed
// over) is a parameter.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "support/cng_client.h"

namespace cngtest {

// A soft token: its serial and its user PIN.
struct TokenSetup {
    std::string serial;
    std::string pin;
};

// Points the token store at a fresh folder <temp>\<store> and makes the token there. False, with a
// fatal failure of the test (ASSERT_NO_FATAL_FAILURE sees it), when calyth-token fails.
bool makeTokenInFreshStore(const std::string& store, const TokenSetup& token);

// calyth-token genkey --type TYPE --usage USAGE (sign, exchange, both) on the token `serial`; the
// 32-character key id, "" (and a test failure) when that fails.
std::string generateKey(const std::string& serial, const std::string& type, const std::string& usage);
// calyth-token import-key of an OpenSSL private key file; the key id, "" (and a test failure) when
// that fails.
std::string importKeyFile(const std::string& serial, const std::string& keyFile, const std::string& usage);
// The key's public key as calyth-token exports it, in the scratch file <keyId>.pem; its Windows
// path, "" (and a test failure) when the export fails.
std::string tokenPublicKey(const std::string& serial, const std::string& keyId);

// A token with one key and the key's public key as OpenSSL reads it.
struct TokenKey {
    std::string serial;
    std::string keyId;
    std::string publicPem;  // Windows path
};
// A fresh store named after the serial (so the token is the only one connected), the token, one
// key of `type` and `usage`, and its exported public key. False, with a test failure, when a step
// fails.
bool makeTokenKey(const TokenSetup& token, const std::string& type, const std::string& usage, TokenKey* made);

// A provider opened through the client and the keys opened or imported through it; all are freed
// once, keys first, when the session closes or ends. The provider opens on first use; with a PIN
// given, "SmartCardPin" hands it over right after.
class ProviderSession {
public:
    explicit ProviderSession(CngClient& client, const std::string& pin = "");
    ~ProviderSession();
    ProviderSession(const ProviderSession&) = delete;
    ProviderSession& operator=(const ProviderSession&) = delete;

    CngClient& client() const { return client_; }

    // OpenProvider (once), then the PIN; the first failing status, else 0.
    SECURITY_STATUS open();
    // The provider, opened if need be; 0 (and a test failure) when it cannot be.
    NCRYPT_PROV_HANDLE provider();
    // OpenKey of a token key by its id; the first failing status, else 0.
    SECURITY_STATUS openKey(const std::string& keyId, NCRYPT_KEY_HANDLE* key);
    // The same for a key that must open: 0 (and a test failure) when it does not.
    NCRYPT_KEY_HANDLE openKey(const std::string& keyId);
    SECURITY_STATUS importKey(const wchar_t* blobType, const Bytes& blob, NCRYPT_KEY_HANDLE* key,
                              NCRYPT_KEY_HANDLE importKey = 0);
    SECURITY_STATUS exportKey(NCRYPT_KEY_HANDLE key, const wchar_t* blobType, Bytes* blob);
    // Frees a key before the session ends (any key of the provider, also one opened past the
    // session); a failing FreeKey is a test failure.
    void freeKey(NCRYPT_KEY_HANDLE key);
    // Frees the keys, then the provider; the first failing status, else 0.
    SECURITY_STATUS close();

private:
    CngClient& client_;
    std::string pin_;
    NCRYPT_PROV_HANDLE provider_ = 0;
    std::vector<NCRYPT_KEY_HANDLE> keys_;
};

// A test with a token of its own: a fresh store named after the test holding `token`, and a
// provider session with the token's PIN handed over.
class CngTokenTest : public ::testing::Test {
protected:
    explicit CngTokenTest(TokenSetup setup) : token(std::move(setup)), session_(client, token.pin) {}
    void SetUp() override;
    // Closes the session; a failing free is a test failure.
    void TearDown() override;

    NCRYPT_PROV_HANDLE provider() { return session_.provider(); }
    NCRYPT_KEY_HANDLE openKey(const std::string& keyId) { return session_.openKey(keyId); }
    void freeKey(NCRYPT_KEY_HANDLE key) { session_.freeKey(key); }

    const TokenSetup token;
    CngClient client;

private:
    ProviderSession session_;
};

// SHA1, SHA256, SHA384 or SHA512 (BCrypt algorithm names) computed by Windows' own BCrypt.
Bytes nativeHash(const wchar_t* algorithm, const Bytes& data);
// Signs the SHA-256 digest of `document` with PKCS #1 padding and the given flags.
SECURITY_STATUS signDocument(ProviderSession& session, NCRYPT_KEY_HANDLE key, const Bytes& document,
                             Bytes* signature, DWORD flags = 0);

// Unix path of a scratch file, for openssl arguments.
std::string unixTemp(const std::string& fileName);
// Runs openssl; a non-zero exit is a test failure showing the output.
bool openssl(const std::string& arguments, std::string* output = nullptr);
// An OpenSSL private key in the scratch folder, made with `genpkeyArguments` ("-algorithm RSA
// -pkeyopt rsa_keygen_bits:2048"); answers its Windows path.
std::string opensslKey(const std::string& fileName, const std::string& genpkeyArguments);
// openssl dgst -<hash> -verify <publicKeyPem> of `message` and `signature` (written to scratch
// files) with further `options` (-sigopt ...); true when OpenSSL says "Verified OK", else false
// and a test failure.
bool opensslVerifies(const std::string& publicKeyPem, const std::string& hash, const Bytes& message,
                     const Bytes& signature, const std::string& options = "");

// Makes the provider's log folders for this program (the first log calls of a process only
// create them, and lose their lines) and empties today's log.
void startProviderLog();
// "0x<status in hex>" for failure messages.
std::string hexStatus(SECURITY_STATUS status);

}  // namespace cngtest
