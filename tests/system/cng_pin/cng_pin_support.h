// Helpers of the CNG client programs on the soft token: a token with one key in a store of the
// test's own, a provider and key opened through the CNG client, SHA-256 digests and OpenSSL's
// verdict on a signature.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "support/cng_client.h"

namespace cngpin {

using Bytes = std::vector<unsigned char>;

constexpr const char* kPin = "5791";

// A soft token holding one RSA-2048 key (usage both) and the key's public key as OpenSSL reads it.
struct TokenKey {
    std::string serial;
    std::string keyId;
    std::string publicPem;  // Windows path
};

// A fresh store named after the serial (so the token is the only one connected), the token with
// kPin, the key and its exported public key. False, with a test failure, when a step fails.
bool makeTokenKey(const std::string& serial, TokenKey* made);

// Makes sure the provider's log folders exist (the first two log calls of a process only create
// them, and lose their lines) and empties today's log.
void startLog();

// A provider opened through the client on a key; both handles freed at the end of the scope.
struct OpenedKey {
    explicit OpenedKey(cngtest::CngClient& clientOfKey) : client(clientOfKey) {}
    ~OpenedKey();
    OpenedKey(const OpenedKey&) = delete;
    OpenedKey& operator=(const OpenedKey&) = delete;
    // OpenProvider, then OpenKey by the key id; the first failing status, else 0.
    SECURITY_STATUS open(const std::string& keyId);

    cngtest::CngClient& client;
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE key = 0;
};

Bytes bytesOf(const std::string& text);
// SHA-256 through Windows' own BCrypt.
Bytes sha256(const Bytes& data);

// Signs SHA-256(document) through the client with PKCS #1 padding and the given flags.
SECURITY_STATUS signDocument(OpenedKey& opened, const Bytes& document, Bytes* signature, DWORD flags = 0);

// openssl dgst -sha256 -verify with the public key: true when OpenSSL prints "Verified OK" for the
// big-endian signature of `document`. `name` names the scratch files.
bool opensslVerifies(const std::string& publicPem, const Bytes& document, const Bytes& signature,
                     const std::string& name);

// "<status in hex>" for failure messages.
std::string hexStatus(SECURITY_STATUS status);

}  // namespace cngpin
