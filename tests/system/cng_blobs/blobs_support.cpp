#include "blobs_support.h"

#include <gtest/gtest.h>

#include "support/scratch_files.h"

namespace blobsys {

Bytes opensslPublicDer(const std::string& fileName, bool der) {
    std::string out = fileName + ".normal.der";
    if (!cngtest::openssl("pkey -pubin -in " + cngtest::unixTemp(fileName) + (der ? " -inform DER" : "") +
                          " -outform DER -out " + cngtest::unixTemp(out)))
        return {};
    return testsupport::readTemp(out);
}

uint32_t wordAt(const Bytes& blob, size_t offset) {
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i)
        value = value << 8 | blob.at(offset + i);
    return value;
}

void putWord(Bytes* blob, uint32_t value) {
    for (int i = 0; i < 4; ++i)
        blob->push_back(static_cast<unsigned char>(value >> (8 * i)));
}

Bytes randomBytes(size_t count) {
    Bytes out(count);
    EXPECT_EQ(
        BCryptGenRandom(nullptr, out.data(), static_cast<ULONG>(count), BCRYPT_USE_SYSTEM_PREFERRED_RNG), 0);
    return out;
}

Bytes ecSubjectPublicKeyInfo(const Bytes& point, uint32_t bits) {
    const Bytes ecPublicKey{0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};
    Bytes curve;
    if (bits == 256)
        curve = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
    else if (bits == 384)
        curve = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};
    else
        curve = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23};
    Bytes algorithm = ecPublicKey;
    algorithm.insert(algorithm.end(), curve.begin(), curve.end());
    Bytes bitString{0x00};
    bitString.insert(bitString.end(), point.begin(), point.end());
    Bytes body = encodeDerTlv(0x30, algorithm);
    Bytes key = encodeDerTlv(0x03, bitString);
    body.insert(body.end(), key.begin(), key.end());
    return encodeDerTlv(0x30, body);
}

Bytes ecPointOf(const Bytes& spki, size_t coordinate) {
    size_t length = 2 * coordinate + 1;
    return spki.size() >= length ? Bytes(spki.end() - length, spki.end()) : Bytes();
}

Bytes rsaPublicBlob(const Bytes& exponent, const Bytes& modulus) {
    Bytes blob;
    for (uint32_t word :
         {0x31415352u, static_cast<uint32_t>(modulus.size() * 8), static_cast<uint32_t>(exponent.size()),
          static_cast<uint32_t>(modulus.size()), 0u, 0u})
        putWord(&blob, word);
    blob.insert(blob.end(), exponent.begin(), exponent.end());
    blob.insert(blob.end(), modulus.begin(), modulus.end());
    return blob;
}

Bytes eccPublicBlob(uint32_t magic, const Bytes& point) {
    Bytes blob;
    putWord(&blob, magic);
    putWord(&blob, static_cast<uint32_t>((point.size() - 1) / 2));
    blob.insert(blob.end(), point.begin() + 1, point.end());
    return blob;
}

Bytes keyDataBlob(const Bytes& key) {
    Bytes blob;
    putWord(&blob, BCRYPT_KEY_DATA_BLOB_MAGIC);
    putWord(&blob, BCRYPT_KEY_DATA_BLOB_VERSION1);
    putWord(&blob, static_cast<uint32_t>(key.size()));
    blob.insert(blob.end(), key.begin(), key.end());
    return blob;
}

NTSTATUS bcryptExport(BCRYPT_KEY_HANDLE key, const wchar_t* blobType, Bytes* blob) {
    ULONG size = 0;
    // Wine answers some size queries with STATUS_BUFFER_TOO_SMALL and the size.
    NTSTATUS status = BCryptExportKey(key, nullptr, blobType, nullptr, 0, &size, 0);
    if (status != 0 && status != static_cast<NTSTATUS>(0xC0000023))
        return status;
    blob->assign(size, 0);
    status = BCryptExportKey(key, nullptr, blobType, blob->data(), size, &size, 0);
    blob->resize(size);
    return status;
}

}  // namespace blobsys
