// Well-formed inputs the in-Wine harness mutates: one of each key blob type and a certificate.
#pragma once

#include <cstddef>

#include "system/fuzz_wine/mutator.h"

namespace fuzzwine {

// CryptoAPI: PUBLICKEYBLOB (RSA-2048), SIMPLEBLOB (AES-128 under RSA), PLAINTEXTKEYBLOB (AES-128),
// SYMMETRICWRAPKEYBLOB (AES-256, 40 wrapped bytes).
Bytes capiPublicKeyBlob();
Bytes capiSimpleBlob();
Bytes capiPlainTextKeyBlob();
Bytes capiSymmetricWrapKeyBlob();

// CNG: RSA public (2048), ECC public (P-256 ECDSA, the curve's generator), key data (AES-256),
// opaque (40 wrapped bytes), legacy RSA public (as the CryptoAPI one).
Bytes cngRsaPublicBlob();
Bytes cngEccPublicBlob(unsigned long magic);
Bytes cngKeyDataBlob();
Bytes cngOpaqueBlob();

// An RSA-2048 leaf certificate made by openssl (tests/support/test_certificates.h).
Bytes testCertificate();

// The total length a DER header announces (tag, length); 0 when it announces none.
size_t announcedLength(const Bytes& der);

}  // namespace fuzzwine
