#include "blobs_support.h"

#include <gtest/gtest.h>

#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/test_support.h"
#include "support/token_tool.h"
#include "util/encoding.h"
#include "util/utils.h"

namespace blobsys {

std::string generateKey(const std::string& serial, const std::string& type, const std::string& usage) {
    std::string output;
    int code = testsupport::calythToken("genkey --serial " + serial + " --type " + type + " --usage " + usage,
                                        &output);
    EXPECT_EQ(code, 0) << output;
    std::string id = Utils().trim(output);
    EXPECT_EQ(id.size(), 32u) << output;
    return code == 0 && id.size() == 32 ? id : std::string();
}

std::string unixTemp(const std::string& fileName) {
    static const std::string folder = testsupport::unixPath(testsupport::tempFolder());
    return folder + fileName;
}

bool openssl(const std::string& arguments, std::string* output) {
    std::string text;
    int code = testsupport::runOpenSsl(arguments, &text);
    EXPECT_EQ(code, 0) << "openssl " << arguments << "\n" << text;
    if (output)
        *output = text;
    return code == 0;
}

Bytes opensslPublicDer(const std::string& fileName, bool der) {
    std::string out = fileName + ".normal.der";
    if (!openssl("pkey -pubin -in " + unixTemp(fileName) + (der ? " -inform DER" : "") +
                 " -outform DER -out " + unixTemp(out)))
        return {};
    return testsupport::readTemp(out);
}

std::string hex(const Bytes& bytes) {
    return Utils().bytesToHex(bytes.data(), static_cast<int>(bytes.size()));
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

namespace {

// One DER TLV at `at`: its content; `at` moves past it. Short forms and 0x81/0x82 lengths.
Bytes readTlv(const Bytes& der, size_t* at) {
    if (*at + 2 > der.size())
        return {};
    size_t length = der[*at + 1];
    size_t header = 2;
    if (length == 0x81) {
        length = der.at(*at + 2);
        header = 3;
    } else if (length == 0x82) {
        length = der.at(*at + 2) << 8 | der.at(*at + 3);
        header = 4;
    }
    if (*at + header + length > der.size())
        return {};
    Bytes content(der.begin() + *at + header, der.begin() + *at + header + length);
    *at += header + length;
    return content;
}

Bytes fixedWidth(Bytes integer, size_t width) {
    while (integer.size() > width && integer.front() == 0)
        integer.erase(integer.begin());
    integer.insert(integer.begin(), width - std::min(width, integer.size()), 0);
    return integer;
}

Bytes derInteger(Bytes value) {
    while (value.size() > 1 && value.front() == 0 && value[1] < 0x80)
        value.erase(value.begin());
    if (!value.empty() && value.front() >= 0x80)
        value.insert(value.begin(), 0);
    return encodeDerTlv(0x02, value);
}

}  // namespace

Bytes ecdsaDerToRaw(const Bytes& der, size_t coordinate) {
    size_t at = 0;
    Bytes sequence = readTlv(der, &at);
    at = 0;
    Bytes r = readTlv(sequence, &at);
    Bytes s = readTlv(sequence, &at);
    Bytes raw = fixedWidth(r, coordinate);
    Bytes second = fixedWidth(s, coordinate);
    raw.insert(raw.end(), second.begin(), second.end());
    return raw;
}

Bytes ecdsaRawToDer(const Bytes& raw) {
    size_t half = raw.size() / 2;
    Bytes body = derInteger(Bytes(raw.begin(), raw.begin() + half));
    Bytes s = derInteger(Bytes(raw.begin() + half, raw.end()));
    body.insert(body.end(), s.begin(), s.end());
    return encodeDerTlv(0x30, body);
}

Bytes hashOf(const wchar_t* algorithm, const Bytes& data) {
    BcryptAlgorithm provider(algorithm);
    EXPECT_EQ(provider.status, 0);
    DWORD length = 0;
    ULONG got = 0;
    BCryptGetProperty(provider.handle, BCRYPT_HASH_LENGTH, reinterpret_cast<PUCHAR>(&length), sizeof length,
                      &got, 0);
    Bytes digest(length);
    BCRYPT_HASH_HANDLE hash = nullptr;
    EXPECT_EQ(BCryptCreateHash(provider.handle, &hash, nullptr, 0, nullptr, 0, 0), 0);
    BCryptHashData(hash, const_cast<PUCHAR>(data.data()), static_cast<ULONG>(data.size()), 0);
    EXPECT_EQ(BCryptFinishHash(hash, digest.data(), length, 0), 0);
    BCryptDestroyHash(hash);
    return digest;
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

Session::Session(cngtest::CngClient& client) : client_(client) {
    EXPECT_TRUE(client_.loaded());
    EXPECT_EQ(client_.openProvider(&provider_), 0);
    if (provider_ != 0) {
        EXPECT_EQ(client_.setPin(provider_, "1234"), 0);
    }
}

Session::~Session() {
    for (NCRYPT_KEY_HANDLE key : keys_)
        client_.freeKey(provider_, key);
    if (provider_ != 0)
        client_.freeProvider(provider_);
}

NCRYPT_KEY_HANDLE Session::open(const std::string& keyId) {
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(client_.openKey(provider_, &key, cngtest::wide(keyId)), 0) << keyId;
    if (key != 0)
        keys_.push_back(key);
    return key;
}

SECURITY_STATUS Session::import(const wchar_t* blobType, const Bytes& blob, NCRYPT_KEY_HANDLE* key,
                                NCRYPT_KEY_HANDLE importKey) {
    *key = 0;
    SECURITY_STATUS status = client_.importKey(provider_, importKey, blobType, nullptr, key, blob);
    if (status == 0 && *key != 0)
        keys_.push_back(*key);
    return status;
}

SECURITY_STATUS Session::exportBlob(NCRYPT_KEY_HANDLE key, const wchar_t* blobType, Bytes* blob) {
    return client_.exportKey(provider_, key, 0, blobType, nullptr, blob);
}

}  // namespace blobsys
