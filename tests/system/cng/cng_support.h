// Helpers of the CNG system tests: each test gets a soft token of its own, made with calyth-token
// in a fresh store, and a CNG client of the CalythCSP.dll beside the program. The PIN is handed over
// with the "SmartCardPin" provider property, so no dialog is shown. OpenSSL judges the results.
#pragma once

#include <gtest/gtest.h>
#include <string>

#include "support/cng_client.h"
#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/token_tool.h"

namespace cngtest {

constexpr const char* kSerial = "CNG1";
constexpr const char* kPin = "1234";

class CngSystemTest : public ::testing::Test {
protected:
    // A fresh store named after the test, with the token kSerial (PIN kPin).
    void SetUp() override;
    void TearDown() override;

    // Opens the provider (once per test) and hands it the PIN.
    NCRYPT_PROV_HANDLE provider();
    // Opens a key by name; 0 (and a test failure) when that fails.
    NCRYPT_KEY_HANDLE openKey(const std::string& keyId);
    // Frees a key opened by openKey or created through the client.
    void freeKey(NCRYPT_KEY_HANDLE key);

    CngClient client;

private:
    NCRYPT_PROV_HANDLE provider_ = 0;
};

// calyth-token genkey --type TYPE --usage USAGE on kSerial; the key id, "" on failure.
std::string tokenKey(const std::string& type, const std::string& usage = "both");
// calyth-token import-key of an OpenSSL key file on kSerial; the key id, "" on failure.
std::string importKey(const std::string& keyFile, const std::string& usage = "both");
// An OpenSSL private key in the scratch folder, made with `genpkeyArguments` ("-algorithm RSA
// -pkeyopt rsa_keygen_bits:2048"); answers its Windows path.
std::string opensslKey(const std::string& fileName, const std::string& genpkeyArguments);

// SHA1, SHA256, SHA384 or SHA512 (BCrypt algorithm names) computed by Windows' own BCrypt.
Bytes nativeHash(const wchar_t* algorithm, const Bytes& data);

// Unix path of a scratch file, for openssl arguments.
std::string unixTemp(const std::string& fileName);

// openssl dgst -<hash> -verify <publicKeyPem> of `message` and `signature` (written to scratch
// files) with further `options` (-sigopt ...); true when OpenSSL says "Verified OK".
bool opensslVerifies(const std::string& publicKeyPem, const std::string& hash, const Bytes& message,
                     const Bytes& signature, const std::string& options = "");

}  // namespace cngtest
