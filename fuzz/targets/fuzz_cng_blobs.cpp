// CNG key blobs: the first byte picks the reader (RSA public, ECC public, key data), the rest is the
// blob. On success every pointer and length the record gives lies inside the blob.
#include "exact_copy.h"
#include "util/cng_blobs.h"

namespace {

constexpr size_t kPublicKeyRoom = 512;  // the key object's public key field

bool inside(const ExactCopy& blob, const unsigned char* p, uint64_t length) {
    return p >= blob.data() && static_cast<uint64_t>(p - blob.data()) + length <= blob.size;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    ExactCopy blob(data + 1, size - 1);
    switch (data[0] % 3) {
        case 0: {
            CngRsaPublicBlob rsa;
            if (parseCngRsaPublicBlob(blob.data(), blob.size, kPublicKeyRoom, &rsa) == CngBlobResult::Ok)
                FUZZ_CHECK(inside(blob, rsa.modulus, rsa.modulusLength) &&
                           rsa.modulusLength <= kPublicKeyRoom && rsa.sizeCode != 0);
            break;
        }
        case 1: {
            CngEccPublicBlob ecc;
            if (parseCngEccPublicBlob(blob.data(), blob.size, kPublicKeyRoom, &ecc) == CngBlobResult::Ok)
                FUZZ_CHECK(inside(blob, ecc.point, 2 * uint64_t{ecc.keyLength}) &&
                           1 + 2 * uint64_t{ecc.keyLength} <= kPublicKeyRoom);
            break;
        }
        default: {
            CngKeyDataBlob key;
            if (parseCngKeyDataBlob(blob.data(), blob.size, &key) == CngBlobResult::Ok)
                FUZZ_CHECK(inside(blob, key.key, key.keyLength) &&
                           cngAesTypeForLength(key.keyLength) == key.type);
            break;
        }
    }
    return 0;
}
