// Public keys in the forms the token meets them: a DER SubjectPublicKeyInfo, a DER RSAPublicKey,
// a raw EC point 04||X||Y or a raw big-endian modulus. DER is read with the crypt32 decoders.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include "crypto.h"

namespace softtoken {

// Reads any of the four forms. A raw modulus gets the exponent 65537.
bool parsePublicKey(const unsigned char* bytes, int length, PublicKey& out);
// Reads a certificate's SubjectPublicKeyInfo.
bool parsePublicKeyInfo(const CERT_PUBLIC_KEY_INFO& info, PublicKey& out);

// The form a key pair record and CertificateDetails carry: modulus without leading zero, or the point.
Bytes comparableForm(const PublicKey& key);
// DER SubjectPublicKeyInfo (rsaEncryption, or id-ecPublicKey with the named curve).
Bytes subjectPublicKeyInfo(const PublicKey& key);
// The key-size code of an RSA modulus length (1-4), 0 when it is not one of the four sizes.
int32_t rsaSizeCode(size_t modulusBits);

}  // namespace softtoken
