// Helpers of the CNG blob tests: the token they share, key blobs and public keys in the forms
// OpenSSL reads, and Wine's bcrypt. Token, provider session, hashes and OpenSSL runs come from the
// CNG fixture (tests/support/cng_fixture.h).
#pragma once

#include <windows.h>

#include <bcrypt.h>

#include <cstdint>
#include <string>

#include "support/cng_fixture.h"
#include "util/encoding.h"

namespace blobsys {

// One token for a whole program, in a store of the program's own.
const cngtest::TokenSetup kToken{"SN1", "1234"};

// The DER SubjectPublicKeyInfo OpenSSL writes for a public key file (PEM or DER) of the scratch
// folder, so that keys from different sources compare byte for byte.
Bytes opensslPublicDer(const std::string& fileName, bool der);

uint32_t wordAt(const Bytes& blob, size_t offset);
void putWord(Bytes* blob, uint32_t value);
Bytes randomBytes(size_t count);

// SubjectPublicKeyInfo of an EC point (04||X||Y) on P-256, P-384 or P-521 (by bits).
Bytes ecSubjectPublicKeyInfo(const Bytes& point, uint32_t bits);
// The point at the end of an EC SubjectPublicKeyInfo (the last 2 * coordinate + 1 bytes).
Bytes ecPointOf(const Bytes& spki, size_t coordinate);

// BCRYPT_RSAPUBLIC_BLOB from big-endian exponent and modulus; BCRYPT_ECCPUBLIC_BLOB from a point.
Bytes rsaPublicBlob(const Bytes& exponent, const Bytes& modulus);
Bytes eccPublicBlob(uint32_t magic, const Bytes& point);
Bytes keyDataBlob(const Bytes& key);

// Wine's bcrypt: an algorithm provider and key handle closed when they go out of scope.
struct BcryptAlgorithm {
    BCRYPT_ALG_HANDLE handle = nullptr;
    NTSTATUS status;
    explicit BcryptAlgorithm(const wchar_t* name)
        : status(BCryptOpenAlgorithmProvider(&handle, name, nullptr, 0)) {}
    ~BcryptAlgorithm() {
        if (handle)
            BCryptCloseAlgorithmProvider(handle, 0);
    }
    BcryptAlgorithm(const BcryptAlgorithm&) = delete;
    BcryptAlgorithm& operator=(const BcryptAlgorithm&) = delete;
};
struct BcryptKey {
    BCRYPT_KEY_HANDLE handle = nullptr;
    BcryptKey() = default;
    ~BcryptKey() {
        if (handle)
            BCryptDestroyKey(handle);
    }
    BcryptKey(const BcryptKey&) = delete;
    BcryptKey& operator=(const BcryptKey&) = delete;
};
// BCryptExportKey with a size query first; the status of the second call.
NTSTATUS bcryptExport(BCRYPT_KEY_HANDLE key, const wchar_t* blobType, Bytes* blob);

}  // namespace blobsys
