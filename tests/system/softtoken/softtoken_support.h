// Helpers of the soft token tests: a private token store per test, the admin command, files and
// byte conversions for the OpenSSL cross-checks.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/ecdsa_signature.h"
#include "token/device_library.h"
#include "util/encoding.h"

namespace st {

// Every test gets an empty store folder of its own in CALYTH_TOKEN_STORE (inherited by the admin
// command the test starts).
class StoreTest : public ::testing::Test {
public:
    void SetUp() override;
    // A path in the test's own scratch folder.
    std::string file(const std::string& name) const;

protected:
    std::string store;
    std::string scratch;
};

// Runs calyth-token.exe (next to the test program) with `arguments`; returns its exit code.
int tool(const std::string& arguments, std::string* output = nullptr);

// Creates a token with calyth-token init (PIN "1234" unless given); fails the test otherwise.
void makeToken(const std::string& serial, const std::string& more = "");
// Generates a key with calyth-token genkey and returns its 16-byte id.
Bytes makeKey(const std::string& serial, const std::string& type, const std::string& more = "");
// The device record of a key, from calyth_getKeyPairList (zeroed record when missing).
CalythKeyPair keyRecord(const std::string& serial, const Bytes& keyId);
// Writes the key's public key as PEM (calyth-token export-pubkey) and returns the file's path.
std::string exportPublicKey(const std::string& serial, const Bytes& keyId, const std::string& path);

std::string hex(const Bytes& bytes);
Bytes unhex(const std::string& text);
Bytes bytesOf(const std::string& text);
void writeBytes(const std::string& path, const Bytes& bytes);
Bytes readBytes(const std::string& path);

// Digest through the library's hash functions (codes 2-5), without a token.
Bytes digest(int hashCode, const Bytes& data);
// r||s as a DER ECDSA-Sig-Value, the form OpenSSL verifies.
using testsupport::ecdsaSignatureToDer;
// The unix path of a scratch file, for openssl arguments.
std::string u(const std::string& windowsPath);

}  // namespace st
