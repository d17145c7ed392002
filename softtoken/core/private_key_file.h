// Private keys made elsewhere (by OpenSSL, say), to be stored on a token: RSA as PKCS #1
// RSAPrivateKey or PKCS #8, EC P-256/384/521 as SEC1 ECPrivateKey or PKCS #8, each as DER or PEM.
#pragma once

#include <cstdint>

#include "util/encoding.h"

namespace softtoken {

struct ImportedKeyPair {
    int32_t sizeCode = 0;  // 1-4 RSA, 5-7 EC
    Bytes publicKey;       // raw big-endian modulus, or 04||X||Y
    Bytes privateKey;      // canonical S-expression, as generateKeyPair makes it
};

// kOk, kBadArgument for bytes that are no such key, kNotSupported for another key size or curve,
// kCryptoFailure when the key's parts do not belong together.
int readPrivateKeyFile(const Bytes& content, ImportedKeyPair& out);

}  // namespace softtoken
