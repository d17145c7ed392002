// ECDH of token P-256, P-384 and P-521 keys with OpenSSL peer keys through the provider's key
// storage function table, checked against OpenSSL computing from the peer's side.
#include <windows.h>

#include <bcrypt.h>

#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "ksp/ksp_objects.h"
#include "support/scratch_files.h"
#include "support/test_support.h"
#include "system/cng/cng_support.h"

namespace cngtest {
namespace {

// The buffer types the provider reads for SP800_56ACONCAT.
constexpr ULONG kAlgorithmId = 13;
constexpr ULONG kPartyUInfo = 14;
constexpr ULONG kPartyVInfo = 15;

struct Curve {
    const char* tokenType;     // calyth-token genkey --type
    const char* opensslCurve;  // genpkey ec_paramgen_curve
    ULONG magic;               // BCRYPT_ECDH_PUBLIC_Px_MAGIC
    size_t coordinate;         // bytes per coordinate
    const wchar_t* hashName;   // KDF_HASH_ALGORITHM for the concatenation test
    const char* opensslHash;
};

const Curve kCurves[] = {
    {"p256", "P-256", BCRYPT_ECDH_PUBLIC_P256_MAGIC, 32, L"SHA256", "sha256"},
    {"p384", "P-384", BCRYPT_ECDH_PUBLIC_P384_MAGIC, 48, L"SHA384", "sha384"},
    {"p521", "P-521", BCRYPT_ECDH_PUBLIC_P521_MAGIC, 66, L"SHA512", "sha512"},
};

Bytes concat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class Ecdh : public CngSystemTest, public ::testing::WithParamInterface<Curve> {
protected:
    // An OpenSSL peer key on the curve; its uncompressed point goes into an ECCPUBLICBLOB.
    Bytes peerBlob(const std::string& peerPemPath) {
        std::string der = testsupport::tempPath("peer_public.der");
        std::string output;
        EXPECT_EQ(testsupport::runOpenSsl("pkey -in " + testsupport::unixPath(peerPemPath) +
                                              " -pubout -outform DER -out " + testsupport::unixPath(der),
                                          &output),
                  0)
            << output;
        Bytes spki = testsupport::readTemp("peer_public.der");
        size_t pointSize = 1 + 2 * GetParam().coordinate;
        if (spki.size() < pointSize) {
            ADD_FAILURE() << "short public key";
            return {};
        }
        Bytes point(spki.end() - pointSize, spki.end());
        EXPECT_EQ(point[0], 0x04);
        BCRYPT_ECCKEY_BLOB header{GetParam().magic, static_cast<ULONG>(GetParam().coordinate)};
        Bytes blob(sizeof header);
        std::memcpy(blob.data(), &header, sizeof header);
        blob.insert(blob.end(), point.begin() + 1, point.end());
        return blob;
    }

    // What OpenSSL computes from the peer's side with the token key's public key.
    Bytes opensslSecret(const std::string& peerPemPath, const std::string& keyId) {
        std::string tokenPem = tokenPublicKey(kSerial, keyId);
        EXPECT_FALSE(tokenPem.empty());
        std::string output;
        EXPECT_EQ(testsupport::runOpenSsl("pkeyutl -derive -inkey " + testsupport::unixPath(peerPemPath) +
                                              " -peerkey " + testsupport::unixPath(tokenPem) + " -out " +
                                              unixTemp("z.bin"),
                                          &output),
                  0)
            << output;
        return testsupport::readTemp("z.bin");
    }

    // openssl dgst -<hash> -binary over `data`.
    Bytes opensslDigest(const std::string& hash, const Bytes& data) {
        testsupport::writeTemp("kdf_input.bin", data);
        std::string output;
        EXPECT_EQ(testsupport::runOpenSsl("dgst -" + hash + " -binary -out " + unixTemp("digest.bin") + " " +
                                              unixTemp("kdf_input.bin"),
                                          &output),
                  0)
            << output;
        return testsupport::readTemp("digest.bin");
    }

    // Token key, peer key (imported from its ECCPUBLICBLOB) and their secret.
    void agree() {
        const Curve& curve = GetParam();
        tokenKeyId = generateKey(kSerial, curve.tokenType, "exchange");
        ASSERT_EQ(tokenKeyId.size(), 32u);
        peerKeyPath = opensslKey(
            "peer.pem", std::string("-algorithm EC -pkeyopt ec_paramgen_curve:") + curve.opensslCurve);
        privateKey = openKey(tokenKeyId);
        ASSERT_NE(privateKey, 0u);
        Bytes blob = peerBlob(peerKeyPath);
        ASSERT_FALSE(blob.empty());
        ASSERT_EQ(client.importKey(provider(), 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &peerKey, blob), 0);
        ASSERT_EQ(client.secretAgreement(provider(), privateKey, peerKey, &secret), 0);
        z = opensslSecret(peerKeyPath, tokenKeyId);
        ASSERT_EQ(z.size(), curve.coordinate);
    }

    void TearDown() override {
        if (secret != 0) {
            EXPECT_EQ(client.freeSecret(provider(), secret), 0);
        }
        freeKey(peerKey);
        freeKey(privateKey);
        CngSystemTest::TearDown();
    }

    std::string tokenKeyId;
    std::string peerKeyPath;
    NCRYPT_KEY_HANDLE privateKey = 0;
    NCRYPT_KEY_HANDLE peerKey = 0;
    NCRYPT_SECRET_HANDLE secret = 0;
    Bytes z;
};

TEST_P(Ecdh, SharedSecretEqualsOpenSslFromThePeersSide) {
    ASSERT_NO_FATAL_FAILURE(agree());
    // The provider runs in this process: its handle is the secret object.
    const KspSecret* record = reinterpret_cast<const KspSecret*>(secret);
    EXPECT_EQ(Bytes(record->secret, record->secret + record->length), z);
}

TEST_P(Ecdh, DerivationWithoutKdfNameIsSha256OfTheSecret) {
    ASSERT_NO_FATAL_FAILURE(agree());
    Bytes derived;
    ASSERT_EQ(client.deriveKey(provider(), secret, nullptr, nullptr, &derived), 0);
    EXPECT_EQ(derived, opensslDigest("sha256", z));
}

TEST_P(Ecdh, ConcatDerivationHashesAlgorithmIdPartyUAndSecret) {
    ASSERT_NO_FATAL_FAILURE(agree());
    Bytes algorithmId = testsupport::bytesOf("AES256-GCM");
    Bytes partyU = testsupport::bytesOf("alice");
    Bytes partyV = testsupport::bytesOf("bob");
    std::wstring hashName = GetParam().hashName;
    NCryptBuffer buffers[] = {
        {static_cast<ULONG>((hashName.size() + 1) * sizeof(wchar_t)), KDF_HASH_ALGORITHM, &hashName[0]},
        {static_cast<ULONG>(algorithmId.size()), kAlgorithmId, algorithmId.data()},
        {static_cast<ULONG>(partyU.size()), kPartyUInfo, partyU.data()},
        {static_cast<ULONG>(partyV.size()), kPartyVInfo, partyV.data()},
    };
    NCryptBufferDesc list{NCRYPTBUFFER_VERSION, 4, buffers};
    Bytes derived;
    ASSERT_EQ(client.deriveKey(provider(), secret, L"SP800_56ACONCAT", &list, &derived), 0);
    EXPECT_EQ(derived, opensslDigest(GetParam().opensslHash, concat(concat(algorithmId, partyU), z)));
}

INSTANTIATE_TEST_SUITE_P(Curves, Ecdh, ::testing::ValuesIn(kCurves),
                         [](const ::testing::TestParamInfo<Curve>& testInfo) {
                             return std::string(testInfo.param.tokenType);
                         });

}  // namespace
}  // namespace cngtest
