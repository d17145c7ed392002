#include "system/fuzz_wine/fuzz_seeds.h"

#include <windows.h>

#include <wincrypt.h>

#include <bcrypt.h>

#include <cstring>

#include "support/test_certificates.h"

namespace fuzzwine {
namespace {

template <typename T>
void append(Bytes* out, const T& value) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&value);
    out->insert(out->end(), bytes, bytes + sizeof value);
}

Bytes counting(size_t length, unsigned char first = 1) {
    Bytes out(length);
    for (size_t i = 0; i < length; ++i)
        out[i] = static_cast<unsigned char>(first + i);
    return out;
}

Bytes withBody(Bytes head, const Bytes& body) {
    head.insert(head.end(), body.begin(), body.end());
    return head;
}

const unsigned char kP256GeneratorX[32] = {0x6B, 0x17, 0xD1, 0xF2, 0xE1, 0x2C, 0x42, 0x47, 0xF8, 0xBC, 0xE6,
                                           0xE5, 0x63, 0xA4, 0x40, 0xF2, 0x77, 0x03, 0x7D, 0x81, 0x2D, 0xEB,
                                           0x33, 0xA0, 0xF4, 0xA1, 0x39, 0x45, 0xD8, 0x98, 0xC2, 0x96};
const unsigned char kP256GeneratorY[32] = {0x4F, 0xE3, 0x42, 0xE2, 0xFE, 0x1A, 0x7F, 0x9B, 0x8E, 0xE7, 0xEB,
                                           0x4A, 0x7C, 0x0F, 0x9E, 0x16, 0x2B, 0xCE, 0x33, 0x57, 0x6B, 0x31,
                                           0x5E, 0xCE, 0xCB, 0xB6, 0x40, 0x68, 0x37, 0xBF, 0x51, 0xF5};

}  // namespace

Bytes capiPublicKeyBlob() {
    Bytes out;
    append(&out, BLOBHEADER{PUBLICKEYBLOB, CUR_BLOB_VERSION, 0, CALG_RSA_KEYX});
    append(&out, RSAPUBKEY{0x31415352, 2048, 65537});
    Bytes modulus = counting(256);
    modulus.back() |= 0x80;  // little-endian: the top byte comes last
    return withBody(out, modulus);
}

Bytes capiSimpleBlob() {
    Bytes out;
    append(&out, BLOBHEADER{SIMPLEBLOB, CUR_BLOB_VERSION, 0, CALG_AES_128});
    append(&out, ALG_ID{CALG_RSA_KEYX});
    return withBody(out, counting(256));
}

Bytes capiPlainTextKeyBlob() {
    Bytes out;
    append(&out, BLOBHEADER{PLAINTEXTKEYBLOB, CUR_BLOB_VERSION, 0, CALG_AES_128});
    append(&out, DWORD{16});
    return withBody(out, counting(16));
}

Bytes capiSymmetricWrapKeyBlob() {
    Bytes out;
    append(&out, BLOBHEADER{SYMMETRICWRAPKEYBLOB, CUR_BLOB_VERSION, 0, CALG_AES_256});
    return withBody(out, counting(44));
}

Bytes cngRsaPublicBlob() {
    Bytes out;
    append(&out, BCRYPT_RSAKEY_BLOB{BCRYPT_RSAPUBLIC_MAGIC, 2048, 3, 256, 0, 0});
    out.insert(out.end(), {0x01, 0x00, 0x01});
    Bytes modulus = counting(256);
    modulus.front() |= 0x80;
    return withBody(out, modulus);
}

Bytes cngEccPublicBlob(unsigned long magic) {
    Bytes out;
    append(&out, BCRYPT_ECCKEY_BLOB{magic, 32});
    out.insert(out.end(), kP256GeneratorX, kP256GeneratorX + 32);
    out.insert(out.end(), kP256GeneratorY, kP256GeneratorY + 32);
    return out;
}

Bytes cngKeyDataBlob() {
    Bytes out;
    append(&out, BCRYPT_KEY_DATA_BLOB_HEADER{BCRYPT_KEY_DATA_BLOB_MAGIC, BCRYPT_KEY_DATA_BLOB_VERSION1, 32});
    return withBody(out, counting(32));
}

Bytes cngOpaqueBlob() {
    return counting(40);
}

Bytes testCertificate() {
    return testcerts::opensslChain().leaf.der;
}

size_t announcedLength(const Bytes& der) {
    if (der.size() < 2)
        return 0;
    unsigned char first = der[1];
    if (first < 0x80)
        return 2 + first;
    size_t lengthBytes = first & 0x7F;
    if (lengthBytes == 0 || lengthBytes > 3 || der.size() < 2 + lengthBytes)
        return 0;
    size_t content = 0;
    for (size_t i = 0; i < lengthBytes; ++i)
        content = content << 8 | der[2 + i];
    return 2 + lengthBytes + content;
}

}  // namespace fuzzwine
