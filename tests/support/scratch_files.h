// Scratch files in the program's private temp folder, byte helpers and OpenSSL cross-checks.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <string>

#include "util/encoding.h"

namespace testsupport {

std::string tempPath(const std::string& fileName);
std::string writeTemp(const std::string& fileName, const Bytes& bytes);
Bytes readTemp(const std::string& fileName);

Bytes bytesOf(const std::string& text);
Bytes reversed(Bytes bytes);
// Upper-case hex digits, and back.
std::string hex(const Bytes& bytes);
Bytes unhex(const std::string& text);

// The RSA modulus of a PEM public key as OpenSSL reads it (big-endian, no leading zero).
Bytes opensslModulus(const std::string& publicKeyPemPath);
// A CryptoAPI PUBLICKEYBLOB (RSA1, exponent 65537) for a big-endian modulus.
Bytes publicKeyBlob(const Bytes& modulusBigEndian, ALG_ID algorithm = CALG_RSA_KEYX);

}  // namespace testsupport
