// Key blobs made by OpenSSL and by Wine's bcrypt, imported through the provider and then used:
// public keys verify signatures and encrypt for the key's owner, AES key material lands on the
// token (plain or wrapped under a token key-encryption key), and an AES key sent to a token RSA key
// encrypts and decrypts in the key object, with OpenSSL decrypting the result.
#include <windows.h>

#include <bcrypt.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "blobs_support.h"
#include "support/cng_client.h"
#include "support/ecdsa_signature.h"
#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/test_support.h"
#include "support/token_tool.h"
#include "util/encoding.h"
#include "util/utils.h"

using namespace blobsys;
using namespace cngtest;
using testsupport::hex;

namespace {

constexpr SECURITY_STATUS kBadSignature = static_cast<SECURITY_STATUS>(0x80090006);
constexpr SECURITY_STATUS kBadKey = static_cast<SECURITY_STATUS>(0x80090003);

class CngBlobImportTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(makeTokenInFreshStore("cng-blobs-import", kToken));
        transportKey_ = generateKey(kToken.serial, "rsa2048", "exchange");
    }

    // The secret keys calyth-token lists, as "<id> type=<n>".
    static std::vector<std::string> secretKeys() {
        std::vector<std::string> keys;
        for (const std::string& line : testsupport::listedLines(kToken.serial, "secret-key")) {
            std::string rest = line.substr(11);
            keys.push_back(rest.substr(0, rest.find(" bits=")));
        }
        return keys;
    }

    static bool unwrappedWith(const std::string& kekId) {
        return testsupport::logContains("KSP: Successfully unwrapped key with KEK: " + kekId);
    }

    // A file of the program's temp folder.
    static std::string file(const std::string& name, const Bytes& bytes) {
        testsupport::writeTemp(name, bytes);
        return unixTemp(name);
    }

    static std::string transportKey_;
    cngtest::CngClient client_;
};

std::string CngBlobImportTest::transportKey_;

const Bytes kMessage = testsupport::bytesOf("a message signed outside and verified by the provider");

TEST_F(CngBlobImportTest, RsaBlobsFromOpenSslVerifyAndEncrypt) {
    ASSERT_TRUE(openssl("genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out " + unixTemp("rsa.pem")));
    ASSERT_TRUE(openssl("rsa -in " + unixTemp("rsa.pem") + " -pubout -out " + unixTemp("rsa.pub.pem")));
    Bytes modulus = testsupport::opensslModulus(testsupport::tempPath("rsa.pub.pem"));
    ASSERT_EQ(modulus.size(), 256u);
    ASSERT_TRUE(openssl("dgst -sha256 -sign " + unixTemp("rsa.pem") + " -out " + unixTemp("rsa.sig") + " " +
                        file("message.txt", kMessage)));
    Bytes signature = testsupport::readTemp("rsa.sig");
    Bytes hash = nativeHash(BCRYPT_SHA256_ALGORITHM, kMessage);

    ProviderSession session(client_, kToken.pin);
    struct Case {
        const wchar_t* type;
        Bytes blob;
    };
    for (const Case& c : {Case{L"RSAPUBLICBLOB", rsaPublicBlob({0x01, 0x00, 0x01}, modulus)},
                          Case{L"CAPIPUBLICBLOB", testsupport::publicKeyBlob(modulus)}}) {
        NCRYPT_KEY_HANDLE key = 0;
        ASSERT_EQ(session.importKey(c.type, c.blob, &key), 0);
        BCRYPT_PKCS1_PADDING_INFO pkcs1{BCRYPT_SHA256_ALGORITHM};
        EXPECT_EQ(client_.verifySignature(session.provider(), key, &pkcs1, hash, signature, BCRYPT_PAD_PKCS1),
                  0);
        Bytes tampered = signature;
        tampered[3] ^= 0x40;
        EXPECT_EQ(client_.verifySignature(session.provider(), key, &pkcs1, hash, tampered, BCRYPT_PAD_PKCS1),
                  kBadSignature);

        for (DWORD padding : {DWORD{NCRYPT_PAD_PKCS1_FLAG}, DWORD{NCRYPT_PAD_OAEP_FLAG}}) {
            Bytes secret = randomBytes(32);
            Bytes encrypted;
            BCRYPT_OAEP_PADDING_INFO oaep{BCRYPT_SHA1_ALGORITHM, nullptr, 0};
            ASSERT_EQ(client_.encrypt(session.provider(), key, secret,
                                      padding == NCRYPT_PAD_OAEP_FLAG ? &oaep : nullptr, &encrypted, padding),
                      0);
            ASSERT_TRUE(openssl("pkeyutl -decrypt -inkey " + unixTemp("rsa.pem") +
                                (padding == NCRYPT_PAD_OAEP_FLAG ? " -pkeyopt rsa_padding_mode:oaep" : "") +
                                " -in " + file("rsa.enc", encrypted) + " -out " + unixTemp("rsa.dec")));
            EXPECT_EQ(testsupport::readTemp("rsa.dec"), secret);
        }
    }
}

TEST_F(CngBlobImportTest, RsaBlobFromWineBcryptVerifiesAndEncrypts) {
    BcryptAlgorithm rsa(BCRYPT_RSA_ALGORITHM);
    BcryptKey pair;
    ASSERT_EQ(BCryptGenerateKeyPair(rsa.handle, &pair.handle, 2048, 0), 0);
    ASSERT_EQ(BCryptFinalizeKeyPair(pair.handle, 0), 0);
    Bytes blob;
    ASSERT_EQ(bcryptExport(pair.handle, BCRYPT_RSAPUBLIC_BLOB, &blob), 0);

    ProviderSession session(client_, kToken.pin);
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ(session.importKey(L"RSAPUBLICBLOB", blob, &key), 0);

    Bytes hash = nativeHash(BCRYPT_SHA256_ALGORITHM, kMessage);
    BCRYPT_PKCS1_PADDING_INFO pkcs1{BCRYPT_SHA256_ALGORITHM};
    ULONG size = 0;
    ASSERT_EQ(BCryptSignHash(pair.handle, &pkcs1, hash.data(), static_cast<ULONG>(hash.size()), nullptr, 0,
                             &size, BCRYPT_PAD_PKCS1),
              0);
    Bytes signature(size);
    ASSERT_EQ(BCryptSignHash(pair.handle, &pkcs1, hash.data(), static_cast<ULONG>(hash.size()),
                             signature.data(), size, &size, BCRYPT_PAD_PKCS1),
              0);
    EXPECT_EQ(client_.verifySignature(session.provider(), key, &pkcs1, hash, signature, BCRYPT_PAD_PKCS1), 0);

    Bytes secret = randomBytes(24);
    Bytes encrypted;
    ASSERT_EQ(client_.encrypt(session.provider(), key, secret, nullptr, &encrypted, NCRYPT_PAD_PKCS1_FLAG),
              0);
    Bytes decrypted(256);
    ASSERT_EQ(BCryptDecrypt(pair.handle, encrypted.data(), static_cast<ULONG>(encrypted.size()), nullptr,
                            nullptr, 0, decrypted.data(), 256, &size, BCRYPT_PAD_PKCS1),
              0);
    decrypted.resize(size);
    EXPECT_EQ(decrypted, secret);
}

TEST_F(CngBlobImportTest, EccBlobsFromOpenSslVerify) {
    struct Case {
        const char* curve;
        size_t coordinate;
        uint32_t magic;
        const wchar_t* hash;
        const char* digest;
    };
    ProviderSession session(client_, kToken.pin);
    for (const Case& c :
         {Case{"P-256", 32, BCRYPT_ECDSA_PUBLIC_P256_MAGIC, BCRYPT_SHA256_ALGORITHM, "sha256"},
          Case{"P-384", 48, BCRYPT_ECDSA_PUBLIC_P384_MAGIC, BCRYPT_SHA384_ALGORITHM, "sha384"},
          Case{"P-521", 66, BCRYPT_ECDSA_PUBLIC_P521_MAGIC, BCRYPT_SHA512_ALGORITHM, "sha512"}}) {
        std::string name = std::string("ec-") + c.curve;
        ASSERT_TRUE(openssl("genpkey -algorithm EC -pkeyopt ec_paramgen_curve:" + std::string(c.curve) +
                            " -out " + unixTemp(name + ".pem")));
        ASSERT_TRUE(openssl("pkey -in " + unixTemp(name + ".pem") + " -pubout -outform DER -out " +
                            unixTemp(name + ".pub.der")));
        ASSERT_TRUE(openssl("dgst -" + std::string(c.digest) + " -sign " + unixTemp(name + ".pem") +
                            " -out " + unixTemp(name + ".sig") + " " + file("message.txt", kMessage)));
        Bytes point = ecPointOf(testsupport::readTemp(name + ".pub.der"), c.coordinate);
        ASSERT_EQ(point.at(0), 0x04);

        NCRYPT_KEY_HANDLE key = 0;
        ASSERT_EQ(session.importKey(L"ECCPUBLICBLOB", eccPublicBlob(c.magic, point), &key), 0) << c.curve;
        Bytes signature =
            testsupport::ecdsaSignatureFromDer(testsupport::readTemp(name + ".sig"), c.coordinate);
        Bytes hash = nativeHash(c.hash, kMessage);
        EXPECT_EQ(client_.verifySignature(session.provider(), key, nullptr, hash, signature, 0), 0)
            << c.curve;
        signature[5] ^= 0x01;
        EXPECT_EQ(client_.verifySignature(session.provider(), key, nullptr, hash, signature, 0),
                  kBadSignature);
    }
}

TEST_F(CngBlobImportTest, EcdhMagicMakesAnExchangeKey) {
    ASSERT_TRUE(
        openssl("genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-384 -out " + unixTemp("ecdh.pem")));
    ASSERT_TRUE(openssl("pkey -in " + unixTemp("ecdh.pem") + " -pubout -outform DER -out " +
                        unixTemp("ecdh.pub.der")));
    Bytes point = ecPointOf(testsupport::readTemp("ecdh.pub.der"), 48);
    ProviderSession session(client_, kToken.pin);
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ(session.importKey(L"ECCPUBLICBLOB", eccPublicBlob(BCRYPT_ECDH_PUBLIC_P384_MAGIC, point), &key),
              0);
    std::wstring algorithm;
    ASSERT_EQ(client_.getKeyProperty(session.provider(), key, L"Algorithm Name", &algorithm), 0);
    EXPECT_EQ(algorithm, L"ECDH_P384");
    Bytes exported;
    ASSERT_EQ(session.exportKey(key, L"ECCPUBLICBLOB", &exported), 0);
    EXPECT_EQ(exported, eccPublicBlob(BCRYPT_ECDH_PUBLIC_P384_MAGIC, point));
}

TEST_F(CngBlobImportTest, EccBlobsFromWineBcryptVerify) {
    struct Case {
        const wchar_t* algorithm;
        ULONG bits;
        const wchar_t* hash;
    };
    ProviderSession session(client_, kToken.pin);
    for (const Case& c : {Case{BCRYPT_ECDSA_P256_ALGORITHM, 256, BCRYPT_SHA256_ALGORITHM},
                          Case{BCRYPT_ECDSA_P384_ALGORITHM, 384, BCRYPT_SHA384_ALGORITHM}}) {
        BcryptAlgorithm ecdsa(c.algorithm);
        ASSERT_EQ(ecdsa.status, 0);
        BcryptKey pair;
        ASSERT_EQ(BCryptGenerateKeyPair(ecdsa.handle, &pair.handle, c.bits, 0), 0);
        ASSERT_EQ(BCryptFinalizeKeyPair(pair.handle, 0), 0);
        Bytes blob;
        ASSERT_EQ(bcryptExport(pair.handle, BCRYPT_ECCPUBLIC_BLOB, &blob), 0);
        NCRYPT_KEY_HANDLE key = 0;
        ASSERT_EQ(session.importKey(L"ECCPUBLICBLOB", blob, &key), 0) << c.bits;

        Bytes hash = nativeHash(c.hash, kMessage);
        // Wine's size query for ECDSA signatures does not answer the size: r||s is asked for directly.
        ULONG size = 2 * ((c.bits + 7) / 8);
        Bytes signature(size);
        ASSERT_EQ(BCryptSignHash(pair.handle, nullptr, hash.data(), static_cast<ULONG>(hash.size()),
                                 signature.data(), size, &size, 0),
                  0);
        ASSERT_EQ(size, signature.size());
        EXPECT_EQ(client_.verifySignature(session.provider(), key, nullptr, hash, signature, 0), 0) << c.bits;
    }
}

TEST_F(CngBlobImportTest, KeyDataBlobsAreStoredOnTheTokenAndServeAsKeyEncryptionKeys) {
    struct Case {
        size_t length;
        std::string type;  // as calyth-token lists it
        const char* wrap;  // OpenSSL's RFC 3394 cipher for this key, none for the 3DES type
    };
    ProviderSession session(client_, kToken.pin);
    for (const Case& c : {Case{16, "type=8", "id-aes128-wrap"}, Case{24, "type=11", nullptr},
                          Case{32, "type=10", "id-aes256-wrap"}}) {
        // 16 and 32 bytes exported by Wine's bcrypt, 24 bytes built here.
        Bytes material = randomBytes(c.length);
        Bytes blob = keyDataBlob(material);
        if (c.length != 24) {
            BcryptAlgorithm aes(BCRYPT_AES_ALGORITHM);
            BcryptKey secretKey;
            ASSERT_EQ(BCryptGenerateSymmetricKey(aes.handle, &secretKey.handle, nullptr, 0, material.data(),
                                                 static_cast<ULONG>(material.size()), 0),
                      0);
            ASSERT_EQ(bcryptExport(secretKey.handle, BCRYPT_KEY_DATA_BLOB, &blob), 0);
            ASSERT_EQ(blob, keyDataBlob(material));
        }
        std::vector<std::string> before = secretKeys();
        NCRYPT_KEY_HANDLE key = 0;
        ASSERT_EQ(session.importKey(L"KeyDataBlob", blob, &key), 0) << c.length;
        std::vector<std::string> after = secretKeys();
        ASSERT_EQ(after.size(), before.size() + 1);
        std::string stored = after.back();
        EXPECT_NE(stored.find(c.type), std::string::npos) << stored;
        if (c.wrap == nullptr)
            continue;

        // Another AES key wrapped under the imported bytes unwraps on the token: they arrived intact.
        std::string kekId = stored.substr(0, 32);
        Bytes wrapped;
        ASSERT_TRUE(openssl(std::string("enc -") + c.wrap + " -K " + hex(material) +
                            " -iv A6A6A6A6A6A6A6A6 -in " + file("inner.key", randomBytes(16)) + " -out " +
                            unixTemp("inner.wrapped")));
        NCRYPT_KEY_HANDLE inner = 0;
        ASSERT_EQ(session.importKey(L"OpaqueKeyBlob", testsupport::readTemp("inner.wrapped"), &inner), 0);
        EXPECT_TRUE(unwrappedWith(kekId)) << kekId;
    }
}

TEST_F(CngBlobImportTest, OpaqueBlobIsUnwrappedByATokenKeyEncryptionKey) {
    Bytes kek = randomBytes(32);
    std::string output;
    ASSERT_EQ(testsupport::calythToken(
                  "import-aes --serial " + kToken.serial + " --type aes256 --key " + hex(kek), &output),
              0)
        << output;
    std::string kekId = Utils().trim(output).substr(0, 32);

    Bytes material = randomBytes(32);
    ASSERT_TRUE(openssl("enc -id-aes256-wrap -K " + hex(kek) + " -iv A6A6A6A6A6A6A6A6 -in " +
                        file("wrapped.key", material) + " -out " + unixTemp("wrapped.bin")));
    Bytes wrapped = testsupport::readTemp("wrapped.bin");
    ASSERT_EQ(wrapped.size(), 40u);

    ProviderSession session(client_, kToken.pin);
    std::vector<std::string> before = secretKeys();
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ(session.importKey(L"OpaqueKeyBlob", wrapped, &key), 0);
    EXPECT_TRUE(unwrappedWith(kekId));
    std::vector<std::string> after = secretKeys();
    ASSERT_EQ(after.size(), before.size() + 1);
    EXPECT_NE(after.back().find("type=10"), std::string::npos) << after.back();

    // The stored key is the unwrapped one: a key wrapped under it unwraps in turn.
    std::string storedId = after.back().substr(0, 32);
    ASSERT_TRUE(openssl("enc -id-aes256-wrap -K " + hex(material) + " -iv A6A6A6A6A6A6A6A6 -in " +
                        file("second.key", randomBytes(16)) + " -out " + unixTemp("second.bin")));
    NCRYPT_KEY_HANDLE second = 0;
    ASSERT_EQ(session.importKey(L"OpaqueKeyBlob", testsupport::readTemp("second.bin"), &second), 0);
    EXPECT_TRUE(unwrappedWith(storedId)) << storedId;

    // Wrapped under a key the token does not hold: no key-encryption key unwraps it.
    ASSERT_TRUE(openssl("enc -id-aes256-wrap -K " + hex(randomBytes(32)) + " -iv A6A6A6A6A6A6A6A6 -in " +
                        file("stray.key", randomBytes(32)) + " -out " + unixTemp("stray.bin")));
    NCRYPT_KEY_HANDLE stray = 0;
    EXPECT_EQ(session.importKey(L"OpaqueKeyBlob", testsupport::readTemp("stray.bin"), &stray), kBadKey);
    EXPECT_TRUE(
        testsupport::logContains("KSP: Failed to unwrap BCRYPT_OPAQUE_KEY_BLOB with any available KEK"));
}

TEST_F(CngBlobImportTest, TransportBlobFromOpenSslEncryptsAndDecrypts) {
    struct Case {
        size_t keyLength;
        const wchar_t* chaining;
        const char* padding;  // pkeyutl option for the key transport
        const char* cipher;   // openssl enc cipher
    };
    ProviderSession session(client_, kToken.pin);
    NCRYPT_KEY_HANDLE rsa = session.openKey(transportKey_);
    Bytes rsaBlob;
    ASSERT_EQ(session.exportKey(rsa, L"RSAPUBLICBLOB", &rsaBlob), 0);
    Bytes modulus(rsaBlob.begin() + 27, rsaBlob.end());
    std::string publicKey = file("transport.der", buildRsaSubjectPublicKeyInfo(hex(modulus), "010001"));

    for (const Case& c : {Case{32, L"ChainingModeCBC", "", "aes-256-cbc"},
                          Case{16, L"ChainingModeCBC", " -pkeyopt rsa_padding_mode:oaep", "aes-128-cbc"},
                          Case{16, L"ChainingModeECB", "", "aes-128-ecb"}}) {
        SCOPED_TRACE(c.cipher);
        Bytes aesKey = randomBytes(c.keyLength);
        ASSERT_TRUE(openssl("pkeyutl -encrypt -pubin -keyform DER -inkey " + publicKey + c.padding + " -in " +
                            file("aes.key", aesKey) + " -out " + unixTemp("aes.enc")));
        NCRYPT_KEY_HANDLE key = 0;
        ASSERT_EQ(session.importKey(L"OpaqueTransport", testsupport::readTemp("aes.enc"), &key, rsa), 0);

        std::wstring mode = c.chaining;
        Bytes modeBytes(reinterpret_cast<const unsigned char*>(mode.c_str()),
                        reinterpret_cast<const unsigned char*>(mode.c_str() + mode.size() + 1));
        ASSERT_EQ(client_.setKeyProperty(session.provider(), key, L"ChainingMode", modeBytes), 0);
        Bytes iv = randomBytes(16);
        bool cbc = mode == L"ChainingModeCBC";
        ASSERT_EQ(client_.setKeyProperty(session.provider(), key, L"IV", cbc ? iv : Bytes()), 0);

        Bytes plain = testsupport::bytesOf("forty-one bytes of text for the AES test!");
        Bytes encrypted;
        ASSERT_EQ(client_.encrypt(session.provider(), key, plain, nullptr, &encrypted, 0), 0);
        EXPECT_EQ(encrypted.size(), 48u) << "PKCS #7 padding to whole blocks";
        ASSERT_TRUE(openssl(std::string("enc -d -") + c.cipher + " -K " + hex(aesKey) +
                            (cbc ? " -iv " + hex(iv) : std::string()) + " -in " + file("aes.ct", encrypted) +
                            " -out " + unixTemp("aes.pt")));
        EXPECT_EQ(testsupport::readTemp("aes.pt"), plain);

        Bytes decrypted;
        ASSERT_EQ(client_.decrypt(session.provider(), key, encrypted, nullptr, &decrypted, 0), 0);
        EXPECT_EQ(decrypted, plain);
    }
}

}  // namespace
