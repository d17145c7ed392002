// KSPExportKey: the three public blob forms, refusals, size rules and the refill from the token.
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "../ksp/ksp_fixture.h"
#include "blob_builders.h"
#include "support/test_support.h"
#include "token/token_table.h"
#include "util/encoding.h"

using namespace ksptest;
using blobtest::Bytes;
using blobtest::wordAt;

namespace {

constexpr const char* kP384SignId = "D4D4D4D4D4D4D4D4D4D4D4D4D4D4D4D4";
constexpr const char* kP384ExchangeId = "E5E5E5E5E5E5E5E5E5E5E5E5E5E5E5E5";
constexpr const char* kP256ExchangeId = "F6F6F6F6F6F6F6F6F6F6F6F6F6F6F6F6";
constexpr const char* kP521SignId = "07070707070707070707070707070707";
constexpr const char* kP521ExchangeId = "18181818181818181818181818181818";
constexpr unsigned char kSentinel = 0xEE;

class KspExportTest : public KspTest {
protected:
    void SetUp() override {
        KspTest::SetUp();
        fake::addKeyPair("SN1", fake::makeKeyPair(kP384SignId, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_EC_P384));
        fake::addKeyPair("SN1",
                         fake::makeKeyPair(kP384ExchangeId, CALYTH_USAGE_EXCHANGE, CALYTH_KEY_EC_P384));
        fake::addKeyPair("SN1",
                         fake::makeKeyPair(kP256ExchangeId, CALYTH_USAGE_EXCHANGE, CALYTH_KEY_EC_P256));
        fake::addKeyPair("SN1", fake::makeKeyPair(kP521SignId, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_EC_P521));
        fake::addKeyPair("SN1",
                         fake::makeKeyPair(kP521ExchangeId, CALYTH_USAGE_EXCHANGE, CALYTH_KEY_EC_P521));
        makeProvider();
        fake::clearCalls();
    }

    // Size query, then the blob into a buffer of exactly that size followed by sentinel bytes that
    // must stay untouched.
    SECURITY_STATUS exportBlob(NCRYPT_KEY_HANDLE key, const wchar_t* type, Bytes* blob) {
        DWORD size = 0;
        SECURITY_STATUS status = KSPExportKey(provider_, key, 0, type, nullptr, nullptr, 0, &size, 0);
        if (status != 0)
            return status;
        Bytes buffer(size + 16, kSentinel);
        DWORD written = 0;
        status = KSPExportKey(provider_, key, 0, type, nullptr, buffer.data(), size, &written, 0);
        EXPECT_EQ(written, size);
        EXPECT_TRUE(std::all_of(buffer.begin() + size, buffer.end(), [](unsigned char b) {
            return b == kSentinel;
        })) << "written past the caller's buffer";
        buffer.resize(size);
        *blob = buffer;
        return status;
    }

    Bytes storedPublicKey(const std::string& keyIdHex) {
        for (const CalythKeyPair& keyPair : fake::token("SN1").keyPairs) {
            if (fake::hex(keyPair.keyId, 16) == keyIdHex)
                return Bytes(keyPair.publicKey, keyPair.publicKey + keyPair.publicKeyLength);
        }
        ADD_FAILURE() << "no key " << keyIdHex;
        return {};
    }
};

TEST_F(KspExportTest, NullOrUninitialisedProviderIsAnInvalidHandle) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    DWORD size = 0;
    EXPECT_EQ(KSPExportKey(0, key, 0, L"RSAPUBLICBLOB", nullptr, nullptr, 0, &size, 0),
              KSP_NTE_INVALID_HANDLE);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPExportKey"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPExportKey: provider handle is null or not initialized"));

    NCRYPT_PROV_HANDLE closed = makeProvider();
    kspProviderFrom(closed)->initialized = 0;
    EXPECT_EQ(KSPExportKey(closed, key, 0, L"RSAPUBLICBLOB", nullptr, nullptr, 0, &size, 0),
              KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(size, 0u);
}

TEST_F(KspExportTest, NullKeyBlobTypeOrResultIsAnInvalidParameter) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    DWORD size = 0;
    const std::string line = "KSPExportKey: key handle, pszBlobType, or pcbResult is null";
    EXPECT_EQ(KSPExportKey(provider_, 0, 0, L"RSAPUBLICBLOB", nullptr, nullptr, 0, &size, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPExportKey(provider_, key, 0, nullptr, nullptr, nullptr, 0, &size, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPExportKey(provider_, key, 0, L"RSAPUBLICBLOB", nullptr, nullptr, 0, nullptr, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"), (std::vector<std::string>{line, line, line}));
    EXPECT_TRUE(fake::callsFromThisThread().empty());
}

TEST_F(KspExportTest, PrivateBlobsAreRefusedBeforeTheKeyIsLookedAt) {
    // An empty key object: had the type been looked at, the token's list would have been read.
    NCRYPT_KEY_HANDLE key = makeEmptyKey();
    for (const wchar_t* type : {L"PRIVATEBLOB", L"CAPIPRIVATEBLOB"}) {
        testsupport::clearLog();
        DWORD size = 12345;
        EXPECT_EQ(KSPExportKey(provider_, key, 0, type, nullptr, nullptr, 0, &size, 0),
                  KSP_NTE_NOT_SUPPORTED);
        EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPExportKey: private key export not supported"));
        EXPECT_EQ(size, 12345u);
    }
    EXPECT_EQ(fake::countCalls("calyth_getKeyPairList"), 0u);
}

TEST_F(KspExportTest, UnknownAndWronglyCasedBlobTypesAreNotSupported) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    for (const wchar_t* type :
         {L"rsapublicblob", L"privateblob", L"ECCPRIVATEBLOB", L"", L"RSAFULLPRIVATEBLOB"}) {
        testsupport::clearLog();
        DWORD size = 0;
        EXPECT_EQ(KSPExportKey(provider_, key, 0, type, nullptr, nullptr, 0, &size, 0),
                  KSP_NTE_NOT_SUPPORTED);
        EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
                  std::vector<std::string>{"KSP: Unsupported blob type for export"});
    }
}

TEST_F(KspExportTest, Rsa2048ExportsA283ByteBcryptBlob) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    Bytes modulus = storedPublicKey(kRsaSignId);
    ASSERT_EQ(modulus.size(), 256u);
    Bytes blob;
    ASSERT_EQ(exportBlob(key, L"RSAPUBLICBLOB", &blob), 0);
    ASSERT_EQ(blob.size(), 283u);
    EXPECT_EQ(wordAt(blob, 0), 0x31415352u);
    EXPECT_EQ(wordAt(blob, 4), 2048u);
    EXPECT_EQ(wordAt(blob, 8), 3u);
    EXPECT_EQ(wordAt(blob, 12), 256u);
    EXPECT_EQ(wordAt(blob, 16), 0u);
    EXPECT_EQ(wordAt(blob, 20), 0u);
    EXPECT_EQ(Bytes(blob.begin() + 24, blob.begin() + 27), (Bytes{0x01, 0x00, 0x01}));
    EXPECT_EQ(Bytes(blob.begin() + 27, blob.end()), modulus);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Public key exported, bits=2048"));
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 0u);
    EXPECT_TRUE(fake::callsFromThisThread().empty()) << "the key object held its public key";

    Bytes publicBlob;
    ASSERT_EQ(exportBlob(key, L"PUBLICBLOB", &publicBlob), 0);
    EXPECT_EQ(publicBlob, blob);
}

TEST_F(KspExportTest, Rsa2048ExportsA276ByteLegacyBlobWithTheModulusReversed) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaExchangeId);
    Bytes modulus = storedPublicKey(kRsaExchangeId);
    Bytes blob;
    ASSERT_EQ(exportBlob(key, L"CAPIPUBLICBLOB", &blob), 0);
    ASSERT_EQ(blob.size(), 276u);
    EXPECT_EQ(Bytes(blob.begin(), blob.begin() + 4), (Bytes{0x06, 0x02, 0x00, 0x00}));
    EXPECT_EQ(wordAt(blob, 4), 0xA400u);
    EXPECT_EQ(wordAt(blob, 8), 0x31415352u);
    EXPECT_EQ(wordAt(blob, 12), 2048u);
    EXPECT_EQ(wordAt(blob, 16), 0x10001u);
    EXPECT_EQ(Bytes(blob.begin() + 20, blob.end()), Bytes(modulus.rbegin(), modulus.rend()));
    // The legacy form logs nothing of its own.
    EXPECT_EQ(testsupport::logMessagesAt("DEBUG"),
              (std::vector<std::string>{"KSPExportKey", "KSPExportKey"}));
    EXPECT_TRUE(testsupport::logMessagesAt("ERROR").empty());
}

TEST_F(KspExportTest, SizeQueryAnswersTheSizeAndWritesNothing) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    NCRYPT_KEY_HANDLE ec = makeKey(kP384SignId);
    struct Case {
        NCRYPT_KEY_HANDLE key;
        const wchar_t* type;
        DWORD size;
    };
    for (const Case& c : {Case{key, L"RSAPUBLICBLOB", 283}, Case{key, L"CAPIPUBLICBLOB", 276},
                          Case{ec, L"ECCPUBLICBLOB", 104}}) {
        testsupport::clearLog();
        DWORD size = 0;
        // A null output with a non-zero cbOutput is still a size query.
        EXPECT_EQ(KSPExportKey(provider_, c.key, 0, c.type, nullptr, nullptr, 600, &size, 0), 0);
        EXPECT_EQ(size, c.size);
        EXPECT_TRUE(testsupport::logMessagesAt("ERROR").empty());
        EXPECT_FALSE(testsupport::logHasLine("DEBUG", "KSP: Public key exported, bits=2048"));
        EXPECT_FALSE(testsupport::logHasLine("DEBUG", "KSPExportKey: ECC public key exported, cbKey=48"));
    }
}

TEST_F(KspExportTest, ShortBuffersAreRefusedWithTheRequiredSizeAndLeftUntouched) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    NCRYPT_KEY_HANDLE ec = makeKey(kEcSignId);
    struct Case {
        NCRYPT_KEY_HANDLE key;
        const wchar_t* type;
        DWORD size;
        std::string line;
    };
    for (const Case& c : {Case{key, L"RSAPUBLICBLOB", 283,
                               "KSPExportKey: BCRYPT_RSAPUBLIC_BLOB output buffer too small, required=283"},
                          Case{key, L"PUBLICBLOB", 283,
                               "KSPExportKey: BCRYPT_RSAPUBLIC_BLOB output buffer too small, required=283"},
                          Case{key, L"CAPIPUBLICBLOB", 276,
                               "KSPExportKey: LEGACY_RSAPUBLIC_BLOB output buffer too small, required=276"},
                          Case{ec, L"ECCPUBLICBLOB", 72,
                               "KSPExportKey: BCRYPT_ECCPUBLIC_BLOB buffer too small, required=72"}}) {
        testsupport::clearLog();
        Bytes buffer(c.size, kSentinel);
        DWORD size = 0;
        EXPECT_EQ(KSPExportKey(provider_, c.key, 0, c.type, nullptr, buffer.data(), c.size - 1, &size, 0),
                  KSP_NTE_BUFFER_TOO_SMALL);
        EXPECT_EQ(size, c.size);
        EXPECT_EQ(testsupport::logMessagesAt("ERROR"), std::vector<std::string>{c.line});
        EXPECT_TRUE(
            std::all_of(buffer.begin(), buffer.end(), [](unsigned char b) { return b == kSentinel; }));
    }
}

TEST_F(KspExportTest, P384SigningKeyExportsA104ByteEccBlob) {
    NCRYPT_KEY_HANDLE key = makeKey(kP384SignId);
    Bytes point = storedPublicKey(kP384SignId);
    ASSERT_EQ(point.size(), 97u);
    Bytes blob;
    ASSERT_EQ(exportBlob(key, L"ECCPUBLICBLOB", &blob), 0);
    ASSERT_EQ(blob.size(), 104u);
    EXPECT_EQ(wordAt(blob, 0), 0x33534345u);
    EXPECT_EQ(wordAt(blob, 4), 48u);
    EXPECT_EQ(Bytes(blob.begin() + 8, blob.end()), Bytes(point.begin() + 1, point.end()));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Enter to the BCRYPT_ECCPUBLIC_BLOB"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPExportKey: ECC public key exported, cbKey=48"));
}

TEST_F(KspExportTest, EccMagicFollowsCurveAndUsage) {
    struct Case {
        const char* keyId;
        uint32_t magic;
        uint32_t cbKey;
    };
    for (const Case& c : {Case{kEcSignId, 0x31534345, 32}, Case{kP256ExchangeId, 0x314B4345, 32},
                          Case{kP384SignId, 0x33534345, 48}, Case{kP384ExchangeId, 0x334B4345, 48},
                          Case{kP521SignId, 0x35534345, 66}, Case{kP521ExchangeId, 0x354B4345, 66}}) {
        Bytes blob;
        ASSERT_EQ(exportBlob(makeKey(c.keyId), L"ECCPUBLICBLOB", &blob), 0) << c.keyId;
        EXPECT_EQ(wordAt(blob, 0), c.magic) << c.keyId;
        EXPECT_EQ(wordAt(blob, 4), c.cbKey) << c.keyId;
        EXPECT_EQ(blob.size(), 8 + 2 * c.cbKey);
    }
    // Usage 3 (both) is not an exchange key here.
    NCRYPT_KEY_HANDLE both = makeKey(kP384SignId);
    kspKeyFrom(both)->usage = CALYTH_USAGE_BOTH;
    Bytes blob;
    ASSERT_EQ(exportBlob(both, L"ECCPUBLICBLOB", &blob), 0);
    EXPECT_EQ(wordAt(blob, 0), 0x33534345u);
}

TEST_F(KspExportTest, EmptyKeyObjectIsRefilledFromTheTokenOnce) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaExchangeId);
    KspKey* object = kspKeyFrom(key);
    std::memset(object->publicKey, 0, sizeof object->publicKey);
    object->publicKeyLength = 0;

    Bytes blob;
    ASSERT_EQ(exportBlob(key, L"RSAPUBLICBLOB", &blob), 0);
    EXPECT_EQ(Bytes(blob.begin() + 27, blob.end()), storedPublicKey(kRsaExchangeId));
    std::vector<fake::Call> lists = fake::callsTo("calyth_getKeyPairList");
    ASSERT_EQ(lists.size(), 1u) << "the size query refilled; the second call used the kept bytes";
    EXPECT_EQ(lists[0].serial, "SN1");
    EXPECT_EQ(object->publicKeyLength, 256u);
    EXPECT_EQ(Bytes(object->publicKey, object->publicKey + 256), storedPublicKey(kRsaExchangeId));

    ASSERT_EQ(exportBlob(key, L"CAPIPUBLICBLOB", &blob), 0);
    EXPECT_EQ(fake::countCalls("calyth_getKeyPairList"), 1u);
}

TEST_F(KspExportTest, EmptyEcKeyObjectIsRefilledToo) {
    NCRYPT_KEY_HANDLE key = makeKey(kP521SignId);
    kspKeyFrom(key)->publicKeyLength = 0;
    Bytes blob;
    ASSERT_EQ(exportBlob(key, L"ECCPUBLICBLOB", &blob), 0);
    EXPECT_EQ(blob.size(), 140u);
    EXPECT_EQ(fake::countCalls("calyth_getKeyPairList"), 1u);
}

TEST_F(KspExportTest, KeyMissingFromTheTokenHasNoPublicKey) {
    NCRYPT_KEY_HANDLE key = makeEmptyKey();
    std::memset(kspKeyFrom(key)->keyId, 0x99, 16);
    DWORD size = 77;
    EXPECT_EQ(KSPExportKey(provider_, key, 0, L"RSAPUBLICBLOB", nullptr, nullptr, 0, &size, 0),
              KSP_NTE_BAD_KEY);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: No public key data available for export"));
    EXPECT_EQ(size, 77u);
    EXPECT_EQ(KSPExportKey(provider_, key, 0, L"ECCPUBLICBLOB", nullptr, nullptr, 0, &size, 0),
              KSP_NTE_BAD_KEY);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "KSPExportKey: ECC public key not available or invalid format"));
    EXPECT_EQ(kspKeyFrom(key)->publicKeyLength, 0u);
    EXPECT_EQ(fake::countCalls("calyth_getKeyPairList"), 2u) << "no match leaves the length at 0";
}

TEST_F(KspExportTest, TokenPublicKeysLongerThanTheObjectFieldAreRefusedNotCut) {
    CalythKeyPair oversized = fake::makeKeyPair("2A2A2A2A2A2A2A2A2A2A2A2A2A2A2A2A", 1, CALYTH_KEY_RSA_4096);
    oversized.publicKeyLength = static_cast<int32_t>(KSP_PUBLIC_KEY_ROOM + 1);
    fake::addKeyPair("SN1", oversized);
    CalythKeyPair negative = fake::makeKeyPair("3B3B3B3B3B3B3B3B3B3B3B3B3B3B3B3B", 1, CALYTH_KEY_RSA_2048);
    negative.publicKeyLength = -5;
    fake::addKeyPair("SN1", negative);

    NCRYPT_KEY_HANDLE big = makeEmptyKey();
    std::memcpy(kspKeyFrom(big)->keyId, oversized.keyId, 16);
    DWORD size = 0;
    EXPECT_EQ(KSPExportKey(provider_, big, 0, L"RSAPUBLICBLOB", nullptr, nullptr, 0, &size, 0),
              KSP_NTE_BAD_KEY);
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "KSP: Public key from the token too long for the key object, length=" +
                     std::to_string(KSP_PUBLIC_KEY_ROOM + 1)));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: No public key data available for export"));
    EXPECT_EQ(kspKeyFrom(big)->publicKeyLength, 0u);

    NCRYPT_KEY_HANDLE none = makeEmptyKey();
    std::memcpy(kspKeyFrom(none)->keyId, negative.keyId, 16);
    EXPECT_EQ(KSPExportKey(provider_, none, 0, L"RSAPUBLICBLOB", nullptr, nullptr, 0, &size, 0),
              KSP_NTE_BAD_KEY);
}

// A token RSA-4096 key stored as DER (550 bytes) is kept whole by opening and by the refill.
TEST_F(KspExportTest, ATokenRsa4096KeyKeepsItsWholeDer) {
    const std::string id = "4C4C4C4C4C4C4C4C4C4C4C4C4C4C4C4C";
    CalythKeyPair pair = fake::makeKeyPair(id, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_4096);
    Bytes der = buildRsaSubjectPublicKeyInfo(fake::hex(pair.publicKey, 512), "010001");
    ASSERT_GT(der.size(), 512u);
    std::memcpy(pair.publicKey, der.data(), der.size());
    pair.publicKeyLength = static_cast<int32_t>(der.size());
    fake::addKeyPair("SN1", pair);

    NCRYPT_KEY_HANDLE opened = openKey(id);
    ASSERT_EQ(kspKeyFrom(opened)->publicKeyLength, der.size());
    EXPECT_EQ(lengthProperty(opened), 4096u);
    Bytes blob;
    ASSERT_EQ(exportBlob(opened, L"RSAPUBLICBLOB", &blob), 0);
    EXPECT_EQ(Bytes(blob.begin() + 27, blob.end()), der);

    NCRYPT_KEY_HANDLE refilled = makeEmptyKey();
    std::memcpy(kspKeyFrom(refilled)->keyId, pair.keyId, 16);
    ASSERT_EQ(exportBlob(refilled, L"CAPIPUBLICBLOB", &blob), 0);
    EXPECT_EQ(Bytes(blob.begin() + 20, blob.end()), Bytes(der.rbegin(), der.rend()));
    EXPECT_TRUE(testsupport::logMessagesAt("ERROR").empty());
}

TEST_F(KspExportTest, RsaKeyAskedForAnEccBlobFailsOnItsFirstByteBeforeTheAlgorithmCheck) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    DWORD size = 0;
    EXPECT_EQ(KSPExportKey(provider_, key, 0, L"ECCPUBLICBLOB", nullptr, nullptr, 0, &size, 0),
              KSP_NTE_BAD_KEY);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>{"KSPExportKey: ECC public key not available or invalid format"});
}

TEST_F(KspExportTest, PointShorterThanThreeBytesIsInvalid) {
    NCRYPT_KEY_HANDLE key = makeKey(kEcSignId);
    kspKeyFrom(key)->publicKeyLength = 2;
    DWORD size = 0;
    EXPECT_EQ(KSPExportKey(provider_, key, 0, L"ECCPUBLICBLOB", nullptr, nullptr, 0, &size, 0),
              KSP_NTE_BAD_KEY);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "KSPExportKey: ECC public key not available or invalid format"));

    kspKeyFrom(key)->publicKeyLength = 3;  // 04 X Y of one byte each
    Bytes blob;
    ASSERT_EQ(exportBlob(key, L"ECCPUBLICBLOB", &blob), 0);
    EXPECT_EQ(blob.size(), 10u);
}

TEST_F(KspExportTest, PointWithANonEcAlgorithmIsNotEcc) {
    NCRYPT_KEY_HANDLE key = makeKey(kEcSignId);
    kspKeyFrom(key)->algorithm = CALYTH_KEY_RSA_2048;
    DWORD size = 0;
    EXPECT_EQ(KSPExportKey(provider_, key, 0, L"ECCPUBLICBLOB", nullptr, nullptr, 0, &size, 0),
              KSP_NTE_NOT_SUPPORTED);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPExportKey: key is not ECC"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Enter to the BCRYPT_ECCPUBLIC_BLOB"));
}

TEST_F(KspExportTest, EcKeyAskedForAnRsaBlobExportsThePointAsModulus) {
    NCRYPT_KEY_HANDLE key = makeKey(kEcSignId);
    Bytes point = storedPublicKey(kEcSignId);
    Bytes blob;
    ASSERT_EQ(exportBlob(key, L"RSAPUBLICBLOB", &blob), 0);
    ASSERT_EQ(blob.size(), 65u + 27u);
    EXPECT_EQ(wordAt(blob, 4), 520u);
    EXPECT_EQ(Bytes(blob.begin() + 27, blob.end()), point);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Public key exported, bits=520"));
}

TEST_F(KspExportTest, DerPublicKeyIsExportedAsItStands) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    Bytes der = buildRsaSubjectPublicKeyInfo("C1020304", "010001");
    KspKey* object = kspKeyFrom(key);
    std::memcpy(object->publicKey, der.data(), der.size());
    object->publicKeyLength = static_cast<uint32_t>(der.size());
    Bytes blob;
    ASSERT_EQ(exportBlob(key, L"RSAPUBLICBLOB", &blob), 0);
    EXPECT_EQ(Bytes(blob.begin() + 27, blob.end()), der);
    ASSERT_EQ(exportBlob(key, L"CAPIPUBLICBLOB", &blob), 0);
    EXPECT_EQ(Bytes(blob.begin() + 20, blob.end()), Bytes(der.rbegin(), der.rend()));
}

}  // namespace
