// CryptoAPI key blobs: the blob front of every type, the data length, and RSA public key blobs down to
// the DER SubjectPublicKeyInfo the provider builds from them, read back for its modulus.
#include "exact_copy.h"
#include "util/capi_blobs.h"
#include "util/encoding.h"
#include "util/rsa_key_fields.h"
#include "util/utils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ExactCopy blob(data, size);
    CapiBlobFront front = readCapiBlobFront(blob.data(), blob.size);
    int dataLength = capiBlobDataLength(blob.size);
    FUZZ_CHECK(dataLength == static_cast<int>(size) - 12);
    (void)front;

    CapiRsaPublicKey key;
    if (parseCapiRsaPublicKey(blob.data(), blob.size, &key) != CapiPublicKeyResult::Ok)
        return 0;
    FUZZ_CHECK(key.required <= size && key.modulus.size() == key.bitLength / 8);
    Utils utils;
    Bytes exponent = exponentBytes(key.exponent);
    Bytes der = buildRsaSubjectPublicKeyInfo(
        utils.bytesToHex(key.modulus.data(), static_cast<int>(key.modulus.size())),
        utils.bytesToHex(exponent.data(), static_cast<int>(exponent.size())));
    // Read back without its leading zero bytes (one kept for an all-zero modulus).
    Bytes expected = key.modulus;
    while (expected.size() > 1 && expected.front() == 0)
        expected.erase(expected.begin());
    Bytes modulus;
    bool readBack = rsaModulusFromDer(der.data(), static_cast<int>(der.size()), &modulus);
    FUZZ_CHECK(readBack == !expected.empty());
    FUZZ_CHECK(!readBack || modulus == expected);
    return 0;
}
