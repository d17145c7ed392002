// Public-key work of the soft token on top of libgcrypt: key generation, signatures, RSA
// encryption and decryption, ECDH. All byte strings are big-endian, as the token answers them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "util/encoding.h"

struct gcry_sexp;

namespace softtoken {

// Starts libgcrypt once per process (thread-safe) and silences its informational log lines.
void ensureCryptoReady();
void randomBytes(unsigned char* out, size_t length);
Bytes randomVector(size_t length);
Bytes sha1(const Bytes& data);

bool isRsaCode(int32_t sizeCode);
bool isEcCode(int32_t sizeCode);
int rsaBits(int32_t sizeCode);              // 1024 ... 4096, 0 for other codes
const char* curveName(int32_t sizeCode);    // "NIST P-256" ..., nullptr for other codes
size_t coordinateLength(int32_t sizeCode);  // 32, 48, 66; 0 for other codes
// The hash that a digest of this length comes from: libgcrypt name, or nullptr.
const char* hashNameForLength(int digestLength);

// A public key in the token's forms.
struct PublicKey {
    int32_t sizeCode = 0;  // 1-4 RSA, 5-7 EC, 0 when unknown (RSA of another size)
    bool rsa = false;
    Bytes modulus;   // RSA, big-endian, no leading zero
    Bytes exponent;  // RSA, big-endian, no leading zero
    Bytes point;     // EC, 04||X||Y
    size_t bits() const;
};

// A private key read from its canonical S-expression. Read-only after creation, so threads share it.
class PrivateKey {
public:
    static std::shared_ptr<PrivateKey> fromCanonical(const Bytes& canonical, int32_t sizeCode);
    ~PrivateKey();
    PrivateKey(const PrivateKey&) = delete;
    PrivateKey& operator=(const PrivateKey&) = delete;

    gcry_sexp* sexp() const { return sexp_; }
    int32_t sizeCode() const { return sizeCode_; }
    // Length of a signature: the modulus length for RSA, twice the coordinate length for EC.
    size_t signatureLength() const;

private:
    PrivateKey(gcry_sexp* sexp, int32_t sizeCode, size_t modulusLength)
        : sexp_(sexp), sizeCode_(sizeCode), modulusLength_(modulusLength) {}
    gcry_sexp* sexp_;
    int32_t sizeCode_;
    size_t modulusLength_;
};

// Makes a key pair. publicKey: raw modulus (RSA) or 04||X||Y (EC); privateKey: canonical
// S-expression for PrivateKey::fromCanonical.
int generateKeyPair(int32_t sizeCode, Bytes& publicKey, Bytes& privateKey);

// RSA: PKCS #1 v1.5 with the DigestInfo of the hash the length names, or PSS (MGF1 with the same
// hash, salt as long as the hash). EC: ECDSA, r||s of the curve's coordinate length.
int signDigest(const PrivateKey& key, const unsigned char* digest, int digestLength, bool pss,
               Bytes& signature);
int verifyDigest(const PublicKey& key, const unsigned char* digest, int digestLength,
                 const unsigned char* signature, int signatureLength, bool pss);

// padding: 1 PKCS #1 v1.5, 4 OAEP with SHA-1. Output as long as the modulus.
int rsaEncrypt(const PublicKey& key, int padding, const unsigned char* data, int dataLength, Bytes& out);
// Finds the padding itself (OAEP with SHA-1, then PKCS #1 v1.5).
int rsaDecrypt(const PrivateKey& key, const unsigned char* data, int dataLength, Bytes& out);
// The X coordinate of d * peer, peer an uncompressed point of the key's curve.
int ecdhSharedSecret(const PrivateKey& key, const unsigned char* peer, int peerLength, Bytes& secret);

}  // namespace softtoken
