// Helpers of the CNG blob tests: soft-token keys, key blobs and public keys in the forms OpenSSL
// reads, ECDSA signature forms, hashes and Wine's bcrypt.
#pragma once

#include <windows.h>

#include <bcrypt.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/cng_client.h"

namespace blobsys {

using Bytes = std::vector<unsigned char>;

// calyth-token genkey on `serial`; the 32-character key id, "" on failure (a test failure too).
std::string generateKey(const std::string& serial, const std::string& type, const std::string& usage);

// Unix path of a scratch file of the program's temp folder, for OpenSSL arguments.
std::string unixTemp(const std::string& fileName);
// Runs openssl; a non-zero exit is a test failure showing the output.
bool openssl(const std::string& arguments, std::string* output = nullptr);
// The DER SubjectPublicKeyInfo OpenSSL writes for a public key file (PEM or DER), so that keys
// from different sources compare byte for byte.
Bytes opensslPublicDer(const std::string& fileName, bool der);

std::string hex(const Bytes& bytes);
uint32_t wordAt(const Bytes& blob, size_t offset);
void putWord(Bytes* blob, uint32_t value);
Bytes randomBytes(size_t count);

// SubjectPublicKeyInfo of an EC point (04||X||Y) on P-256, P-384 or P-521 (by bits).
Bytes ecSubjectPublicKeyInfo(const Bytes& point, uint32_t bits);
// The point at the end of an EC SubjectPublicKeyInfo (the last 2 * coordinate + 1 bytes).
Bytes ecPointOf(const Bytes& spki, size_t coordinate);

// ECDSA signatures: DER SEQUENCE { r, s } <-> r||s with coordinate-sized halves.
Bytes ecdsaDerToRaw(const Bytes& der, size_t coordinate);
Bytes ecdsaRawToDer(const Bytes& raw);

// A hash made by Wine's bcrypt: "SHA256", "SHA384", "SHA512".
Bytes hashOf(const wchar_t* algorithm, const Bytes& data);

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

// A provider on the soft token with the PIN given, and the keys opened or imported through it,
// all freed when the session ends.
class Session {
public:
    explicit Session(cngtest::CngClient& client);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    NCRYPT_PROV_HANDLE provider() const { return provider_; }
    // Opens a token key by its id; 0 (and a test failure) when it cannot.
    NCRYPT_KEY_HANDLE open(const std::string& keyId);
    // KSPImportKey; the key is freed with the session.
    SECURITY_STATUS import(const wchar_t* blobType, const Bytes& blob, NCRYPT_KEY_HANDLE* key,
                           NCRYPT_KEY_HANDLE importKey = 0);
    SECURITY_STATUS exportBlob(NCRYPT_KEY_HANDLE key, const wchar_t* blobType, Bytes* blob);

private:
    cngtest::CngClient& client_;
    NCRYPT_PROV_HANDLE provider_ = 0;
    std::vector<NCRYPT_KEY_HANDLE> keys_;
};

}  // namespace blobsys
