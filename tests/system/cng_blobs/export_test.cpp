// Public blobs exported by the provider describe the soft token's keys: OpenSSL compares the keys
// built from them with calyth-token export-pubkey, and Wine's bcrypt imports them to verify
// signatures the provider made.
#include <windows.h>

#include <bcrypt.h>

#include <gtest/gtest.h>
#include <string>

#include "blobs_support.h"
#include "support/cng_client.h"
#include "support/ecdsa_signature.h"
#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/token_tool.h"
#include "util/encoding.h"

using namespace blobsys;
using namespace cngtest;
using testsupport::hex;

namespace {

constexpr NTSTATUS kInvalidSignature = static_cast<NTSTATUS>(0xC000A000);
constexpr NTSTATUS kNotSupported = static_cast<NTSTATUS>(0xC00000BB);

struct TokenKeys {
    std::string rsa2048;
    std::string rsa3072;
    std::string p256;
    std::string p384Exchange;
    std::string p384;
    std::string p521;
};

class CngBlobExportTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(makeTokenInFreshStore("cng-blobs-export", kToken));
        keys_.rsa2048 = generateKey(kToken.serial, "rsa2048", "sign");
        keys_.rsa3072 = generateKey(kToken.serial, "rsa3072", "both");
        keys_.p256 = generateKey(kToken.serial, "p256", "sign");
        keys_.p384Exchange = generateKey(kToken.serial, "p384", "exchange");
        keys_.p384 = generateKey(kToken.serial, "p384", "sign");
        keys_.p521 = generateKey(kToken.serial, "p521", "sign");
    }

    // The key as calyth-token exports it, in OpenSSL's DER form.
    Bytes tokenPublicDer(const std::string& keyId) {
        tokenPublicKey(kToken.serial, keyId);
        return opensslPublicDer(keyId + ".pem", false);
    }
    Bytes opensslForm(const std::string& fileName, const Bytes& der) {
        testsupport::writeTemp(fileName, der);
        return opensslPublicDer(fileName, true);
    }

    static TokenKeys keys_;
    cngtest::CngClient client_;
};

TokenKeys CngBlobExportTest::keys_;

TEST_F(CngBlobExportTest, RsaPublicBlobsCarryTheTokensModulus) {
    ProviderSession session(client_, kToken.pin);
    for (const std::string& id : {keys_.rsa2048, keys_.rsa3072}) {
        NCRYPT_KEY_HANDLE key = session.openKey(id);
        Bytes blob;
        ASSERT_EQ(session.exportKey(key, L"RSAPUBLICBLOB", &blob), 0);
        ASSERT_GE(blob.size(), 27u);
        uint32_t cbModulus = wordAt(blob, 12);
        ASSERT_EQ(wordAt(blob, 0), 0x31415352u);
        ASSERT_EQ(wordAt(blob, 8), 3u);
        ASSERT_EQ(blob.size(), 27u + cbModulus);
        EXPECT_EQ(wordAt(blob, 4), cbModulus * 8);
        Bytes exponent(blob.begin() + 24, blob.begin() + 27);
        Bytes modulus(blob.begin() + 27, blob.end());

        Bytes tokenKey = tokenPublicDer(id);
        ASSERT_FALSE(tokenKey.empty());
        EXPECT_EQ(opensslForm(id + "-bcrypt.der", buildRsaSubjectPublicKeyInfo(hex(modulus), hex(exponent))),
                  tokenKey);
        EXPECT_EQ(modulus, testsupport::opensslModulus(testsupport::tempPath(id + ".pem")));

        Bytes publicBlob;
        ASSERT_EQ(session.exportKey(key, L"PUBLICBLOB", &publicBlob), 0);
        EXPECT_EQ(publicBlob, blob);

        Bytes legacy;
        ASSERT_EQ(session.exportKey(key, L"CAPIPUBLICBLOB", &legacy), 0);
        ASSERT_EQ(legacy.size(), 20u + cbModulus);
        EXPECT_EQ(legacy[0], PUBLICKEYBLOB);
        EXPECT_EQ(wordAt(legacy, 4), static_cast<uint32_t>(CALG_RSA_KEYX));
        EXPECT_EQ(wordAt(legacy, 12), cbModulus * 8);
        EXPECT_EQ(wordAt(legacy, 16), 65537u);
        Bytes legacyModulus = testsupport::reversed(Bytes(legacy.begin() + 20, legacy.end()));
        EXPECT_EQ(opensslForm(id + "-legacy.der", buildRsaSubjectPublicKeyInfo(hex(legacyModulus), "010001")),
                  tokenKey);
    }
}

TEST_F(CngBlobExportTest, EccPublicBlobsCarryTheTokensPoint) {
    struct Case {
        std::string id;
        uint32_t bits;
        uint32_t magic;
    };
    ProviderSession session(client_, kToken.pin);
    for (const Case& c : {Case{keys_.p256, 256, BCRYPT_ECDSA_PUBLIC_P256_MAGIC},
                          Case{keys_.p384Exchange, 384, BCRYPT_ECDH_PUBLIC_P384_MAGIC},
                          Case{keys_.p384, 384, BCRYPT_ECDSA_PUBLIC_P384_MAGIC},
                          Case{keys_.p521, 521, BCRYPT_ECDSA_PUBLIC_P521_MAGIC}}) {
        Bytes blob;
        ASSERT_EQ(session.exportKey(session.openKey(c.id), L"ECCPUBLICBLOB", &blob), 0);
        uint32_t cbKey = (c.bits + 7) / 8;
        ASSERT_EQ(blob.size(), 8u + 2 * cbKey);
        EXPECT_EQ(wordAt(blob, 0), c.magic);
        EXPECT_EQ(wordAt(blob, 4), cbKey);
        Bytes point{0x04};
        point.insert(point.end(), blob.begin() + 8, blob.end());
        EXPECT_EQ(opensslForm(c.id + "-ecc.der", ecSubjectPublicKeyInfo(point, c.bits)), tokenPublicDer(c.id))
            << c.bits;
    }
}

TEST_F(CngBlobExportTest, WineBcryptVerifiesRsaSignaturesWithTheExportedBlob) {
    ProviderSession session(client_, kToken.pin);
    NCRYPT_KEY_HANDLE key = session.openKey(keys_.rsa2048);
    Bytes blob;
    ASSERT_EQ(session.exportKey(key, L"RSAPUBLICBLOB", &blob), 0);
    BcryptAlgorithm rsa(BCRYPT_RSA_ALGORITHM);
    ASSERT_EQ(rsa.status, 0);
    BcryptKey publicKey;
    ASSERT_EQ(BCryptImportKeyPair(rsa.handle, nullptr, BCRYPT_RSAPUBLIC_BLOB, &publicKey.handle, blob.data(),
                                  static_cast<ULONG>(blob.size()), 0),
              0);

    Bytes hash =
        nativeHash(BCRYPT_SHA256_ALGORITHM, testsupport::bytesOf("signed by the token, checked by bcrypt"));
    BCRYPT_PKCS1_PADDING_INFO pkcs1{BCRYPT_SHA256_ALGORITHM};
    Bytes signature;
    ASSERT_EQ(client_.signHash(session.provider(), key, &pkcs1, hash, &signature, BCRYPT_PAD_PKCS1), 0);
    EXPECT_EQ(BCryptVerifySignature(publicKey.handle, &pkcs1, hash.data(), static_cast<ULONG>(hash.size()),
                                    signature.data(), static_cast<ULONG>(signature.size()), BCRYPT_PAD_PKCS1),
              0);
    signature[10] ^= 0x01;
    EXPECT_EQ(BCryptVerifySignature(publicKey.handle, &pkcs1, hash.data(), static_cast<ULONG>(hash.size()),
                                    signature.data(), static_cast<ULONG>(signature.size()), BCRYPT_PAD_PKCS1),
              kInvalidSignature);

    BCRYPT_PSS_PADDING_INFO pss{BCRYPT_SHA256_ALGORITHM, 32};
    ASSERT_EQ(client_.signHash(session.provider(), key, &pss, hash, &signature, BCRYPT_PAD_PSS), 0);
    EXPECT_EQ(BCryptVerifySignature(publicKey.handle, &pss, hash.data(), static_cast<ULONG>(hash.size()),
                                    signature.data(), static_cast<ULONG>(signature.size()), BCRYPT_PAD_PSS),
              0);
}

TEST_F(CngBlobExportTest, OpenSslVerifiesWithTheKeyOfTheLegacyBlob) {
    // Wine's bcrypt does not import legacy (CryptoAPI) public blobs: OpenSSL takes the key instead.
    ProviderSession session(client_, kToken.pin);
    NCRYPT_KEY_HANDLE key = session.openKey(keys_.rsa3072);
    Bytes legacy;
    ASSERT_EQ(session.exportKey(key, L"CAPIPUBLICBLOB", &legacy), 0);
    BcryptAlgorithm rsa(BCRYPT_RSA_ALGORITHM);
    BcryptKey probe;
    EXPECT_EQ(BCryptImportKeyPair(rsa.handle, nullptr, LEGACY_RSAPUBLIC_BLOB, &probe.handle, legacy.data(),
                                  static_cast<ULONG>(legacy.size()), 0),
              kNotSupported)
        << "Wine's bcrypt takes legacy blobs now: verify with it here too";

    Bytes modulus = testsupport::reversed(Bytes(legacy.begin() + 20, legacy.end()));
    testsupport::writeTemp("legacy.der", buildRsaSubjectPublicKeyInfo(hex(modulus), "010001"));
    Bytes hash = nativeHash(BCRYPT_SHA384_ALGORITHM, testsupport::bytesOf("legacy blob"));
    BCRYPT_PKCS1_PADDING_INFO pkcs1{BCRYPT_SHA384_ALGORITHM};
    Bytes signature;
    ASSERT_EQ(client_.signHash(session.provider(), key, &pkcs1, hash, &signature, BCRYPT_PAD_PKCS1), 0);
    testsupport::writeTemp("legacy.hash", hash);
    testsupport::writeTemp("legacy.sig", signature);
    std::string output;
    EXPECT_TRUE(openssl("pkeyutl -verify -pubin -keyform DER -inkey " + unixTemp("legacy.der") +
                            " -pkeyopt digest:sha384 -in " + unixTemp("legacy.hash") + " -sigfile " +
                            unixTemp("legacy.sig"),
                        &output));
    EXPECT_NE(output.find("Signature Verified Successfully"), std::string::npos) << output;
}

TEST_F(CngBlobExportTest, WineBcryptVerifiesEcdsaSignaturesWithTheExportedBlob) {
    struct Case {
        std::string id;
        const wchar_t* algorithm;
        const wchar_t* hash;
    };
    ProviderSession session(client_, kToken.pin);
    for (const Case& c : {Case{keys_.p256, BCRYPT_ECDSA_P256_ALGORITHM, BCRYPT_SHA256_ALGORITHM},
                          Case{keys_.p384, BCRYPT_ECDSA_P384_ALGORITHM, BCRYPT_SHA384_ALGORITHM}}) {
        NCRYPT_KEY_HANDLE key = session.openKey(c.id);
        Bytes blob;
        ASSERT_EQ(session.exportKey(key, L"ECCPUBLICBLOB", &blob), 0);
        BcryptAlgorithm ecdsa(c.algorithm);
        ASSERT_EQ(ecdsa.status, 0);
        BcryptKey publicKey;
        ASSERT_EQ(BCryptImportKeyPair(ecdsa.handle, nullptr, BCRYPT_ECCPUBLIC_BLOB, &publicKey.handle,
                                      blob.data(), static_cast<ULONG>(blob.size()), 0),
                  0);
        Bytes hash = nativeHash(c.hash, testsupport::bytesOf("an ECDSA signature from the token"));
        Bytes signature;
        ASSERT_EQ(client_.signHash(session.provider(), key, nullptr, hash, &signature, 0), 0);
        EXPECT_EQ(
            BCryptVerifySignature(publicKey.handle, nullptr, hash.data(), static_cast<ULONG>(hash.size()),
                                  signature.data(), static_cast<ULONG>(signature.size()), 0),
            0);
        signature.back() ^= 0x01;
        EXPECT_EQ(
            BCryptVerifySignature(publicKey.handle, nullptr, hash.data(), static_cast<ULONG>(hash.size()),
                                  signature.data(), static_cast<ULONG>(signature.size()), 0),
            kInvalidSignature);
    }
}

TEST_F(CngBlobExportTest, OpenSslVerifiesP521SignaturesWithTheExportedBlob) {
    // Wine's bcrypt has no P-521: OpenSSL takes the key built from the blob instead.
    BcryptAlgorithm p521(BCRYPT_ECDSA_P521_ALGORITHM);
    BcryptKey probe;
    ProviderSession session(client_, kToken.pin);
    NCRYPT_KEY_HANDLE key = session.openKey(keys_.p521);
    Bytes blob;
    ASSERT_EQ(session.exportKey(key, L"ECCPUBLICBLOB", &blob), 0);
    EXPECT_NE(p521.status == 0
                  ? BCryptImportKeyPair(p521.handle, nullptr, BCRYPT_ECCPUBLIC_BLOB, &probe.handle,
                                        blob.data(), static_cast<ULONG>(blob.size()), 0)
                  : p521.status,
              0)
        << "Wine's bcrypt takes P-521 keys now: verify with it here too";

    Bytes point{0x04};
    point.insert(point.end(), blob.begin() + 8, blob.end());
    testsupport::writeTemp("p521.der", ecSubjectPublicKeyInfo(point, 521));
    Bytes hash = nativeHash(BCRYPT_SHA512_ALGORITHM, testsupport::bytesOf("P-521"));
    Bytes signature;
    ASSERT_EQ(client_.signHash(session.provider(), key, nullptr, hash, &signature, 0), 0);
    ASSERT_EQ(signature.size(), 132u);
    testsupport::writeTemp("p521.hash", hash);
    testsupport::writeTemp("p521.sig", testsupport::ecdsaSignatureToDer(signature));
    std::string output;
    EXPECT_TRUE(openssl("pkeyutl -verify -pubin -keyform DER -inkey " + unixTemp("p521.der") + " -in " +
                            unixTemp("p521.hash") + " -sigfile " + unixTemp("p521.sig"),
                        &output));
    EXPECT_NE(output.find("Signature Verified Successfully"), std::string::npos) << output;
}

}  // namespace
