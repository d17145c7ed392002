// DER: the length header of a certificate, the modulus of a DER RSA public key (SubjectPublicKeyInfo
// or RSAPublicKey), stored public keys, and DER lengths written and read back.
#include "exact_copy.h"
#include "util/der_header.h"
#include "util/encoding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ExactCopy der(data, size);
    uint32_t total = 0;
    if (derTotalLength(der.data(), der.size, &total) == DerHeaderResult::Ok)
        FUZZ_CHECK(total >= 2);

    Bytes modulus;
    if (rsaModulusFromDer(der.data(), static_cast<int>(der.size), &modulus))
        FUZZ_CHECK(modulus.size() <= size);
    Bytes stored = derPublicKeyFromStored(der.data(), static_cast<int>(der.size));
    FUZZ_CHECK(isDerPublicKey(der.data(), static_cast<int>(der.size)) == (size == 0 || data[0] == 0x30));

    if (size >= 3) {
        size_t length = data[0] | data[1] << 8 | data[2] << 16;
        Bytes header{0x30};
        Bytes encoded = encodeDerLength(length);
        header.insert(header.end(), encoded.begin(), encoded.end());
        uint32_t decoded = 0;
        FUZZ_CHECK(derTotalLength(header.data(), header.size(), &decoded) == DerHeaderResult::Ok);
        FUZZ_CHECK(decoded == header.size() + length);
    }
    return 0;
}
