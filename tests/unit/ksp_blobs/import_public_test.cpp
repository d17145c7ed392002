// KSPImportKey: argument checks, dispatch, and the RSA, ECC and legacy RSA public blobs.
#include <windows.h>

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "import_fixture.h"
#include "support/test_support.h"
#include "util/encoding.h"
#include "util/utils.h"

using namespace ksptest;
using namespace blobtest;

namespace {

class KspImportPublicTest : public KspImportTest {
protected:
    // Expects exactly one ERROR line and no device call.
    void expectRefused(const std::string& line) {
        EXPECT_EQ(testsupport::logMessagesAt("ERROR"), std::vector<std::string>{line});
        EXPECT_TRUE(fake::callsFromThisThread().empty());
    }
};

Bytes modulusOf(size_t bytes) {
    Bytes modulus = pattern(bytes, 0x11);
    modulus[0] = 0xC7;
    return modulus;
}

const Bytes kExponent{0x01, 0x00, 0x01};

TEST_F(KspImportPublicTest, NullOrUninitialisedProviderIsAnInvalidHandle) {
    Bytes blob = rsaPublicBlob(0x31415352, 2048, kExponent, modulusOf(256));
    NCRYPT_KEY_HANDLE key = kUntouched;
    EXPECT_EQ(KSPImportKey(0, 0, L"RSAPUBLICBLOB", nullptr, &key, blob.data(), 283, 0),
              KSP_NTE_INVALID_HANDLE);
    kspProviderFrom(provider_)->initialized = 0;
    EXPECT_EQ(KSPImportKey(provider_, 0, L"RSAPUBLICBLOB", nullptr, &key, blob.data(), 283, 0),
              KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(key, kUntouched);
    EXPECT_EQ(testsupport::logMessagesAt("DEBUG"),
              (std::vector<std::string>{"KSPImportKey", "KSPImportKey"}));
    const std::string line = "KSPImportKey: provider handle is null or not initialized";
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"), (std::vector<std::string>{line, line}));
}

TEST_F(KspImportPublicTest, MissingTypeOutputOrDataIsAnInvalidParameter) {
    Bytes blob = rsaPublicBlob(0x31415352, 2048, kExponent, modulusOf(256));
    NCRYPT_KEY_HANDLE key = kUntouched;
    EXPECT_EQ(KSPImportKey(provider_, 0, nullptr, nullptr, &key, blob.data(), 283, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPImportKey(provider_, 0, L"RSAPUBLICBLOB", nullptr, nullptr, blob.data(), 283, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPImportKey(provider_, 0, L"RSAPUBLICBLOB", nullptr, &key, nullptr, 283, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPImportKey(provider_, 0, L"RSAPUBLICBLOB", nullptr, &key, blob.data(), 0, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(key, kUntouched);
    const std::string line = "KSPImportKey: invalid parameters";
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"), (std::vector<std::string>{line, line, line, line}));
}

TEST_F(KspImportPublicTest, UnknownBlobTypeWithoutImportKeyIsNotSupported) {
    NCRYPT_KEY_HANDLE key;
    for (const wchar_t* type : {L"rsapublicblob", L"SOMEBLOB", L"opaquekeyblob", L""}) {
        testsupport::clearLog();
        EXPECT_EQ(import(type, pattern(32, 1), &key), KSP_NTE_NOT_SUPPORTED);
        expectRefused("KSP: Unsupported blob type for import");
    }
}

TEST_F(KspImportPublicTest, RsaPublicBlobBecomesAPublicKeyObject) {
    Bytes modulus = modulusOf(256);
    NCRYPT_KEY_HANDLE key;
    ASSERT_EQ(import(L"RSAPUBLICBLOB", rsaPublicBlob(0x31415352, 2048, kExponent, modulus), &key), 0);
    const KspKey* object = kspKeyFrom(key);
    EXPECT_EQ(Bytes(object->publicKey, object->publicKey + object->publicKeyLength), modulus);
    EXPECT_EQ(object->bits, 2048u);
    EXPECT_EQ(object->algorithm, CALYTH_KEY_RSA_2048);
    EXPECT_EQ(object->finalized, 1);
    EXPECT_EQ(object->keyIdLength, 0u);
    EXPECT_EQ(object->usage, 0);
    EXPECT_EQ(object->symmetricKeyLength, 0u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: RSA public key imported, bits=2048"));
    EXPECT_TRUE(fake::callsFromThisThread().empty()) << "nothing is written to the token";
}

TEST_F(KspImportPublicTest, EveryRsaSizeGetsItsCodeAndPublicBlobIsTheSameReader) {
    struct Case {
        uint32_t bits;
        int32_t code;
    };
    for (const Case& c : {Case{1024, 1}, Case{2048, 2}, Case{3072, 3}, Case{4096, 4}}) {
        for (const wchar_t* type : {L"RSAPUBLICBLOB", L"PUBLICBLOB"}) {
            NCRYPT_KEY_HANDLE key;
            Bytes modulus = modulusOf(c.bits / 8);
            ASSERT_EQ(import(type, rsaPublicBlob(0x31415352, c.bits, kExponent, modulus), &key), 0) << c.bits;
            EXPECT_EQ(kspKeyFrom(key)->algorithm, c.code);
            EXPECT_EQ(kspKeyFrom(key)->publicKeyLength, c.bits / 8);
        }
    }
}

TEST_F(KspImportPublicTest, RsaBlobOfExactlyItsSizeIsAcceptedAndOneByteLessIsNot) {
    Bytes blob = rsaPublicBlob(0x31415352, 1024, kExponent, modulusOf(128));
    ASSERT_EQ(blob.size(), 24u + 3u + 128u);
    NCRYPT_KEY_HANDLE key;
    EXPECT_EQ(import(L"RSAPUBLICBLOB", blob, &key), 0);

    testsupport::clearLog();
    blob.pop_back();
    EXPECT_EQ(import(L"RSAPUBLICBLOB", blob, &key), KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: BCRYPT_RSAPUBLIC_BLOB data too small for key material");
}

TEST_F(KspImportPublicTest, RsaBlobShorterThanItsHeaderIsBadData) {
    NCRYPT_KEY_HANDLE key;
    Bytes header = rsaHeader(0x31415352, 2048, 0, 0);
    header.pop_back();
    EXPECT_EQ(import(L"RSAPUBLICBLOB", header, &key), KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: BCRYPT_RSAPUBLIC_BLOB data too small");
}

TEST_F(KspImportPublicTest, RsaBlobWithAnotherMagicIsBadData) {
    NCRYPT_KEY_HANDLE key;
    // A private-key magic ("RSA2"), with lengths that would also fail: the magic is checked first.
    EXPECT_EQ(import(L"RSAPUBLICBLOB", rsaHeader(0x32415352, 2048, 3, 256), &key), KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: BCRYPT_RSAPUBLIC_BLOB invalid magic");
}

TEST_F(KspImportPublicTest, PublicBlobHoldingAnEcKeyFailsTheRsaMagicCheck) {
    NCRYPT_KEY_HANDLE key;
    EXPECT_EQ(import(L"PUBLICBLOB", eccPublicBlob(0x31534345, 32, pattern(64, 3)), &key), KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: BCRYPT_RSAPUBLIC_BLOB invalid magic");
}

TEST_F(KspImportPublicTest, RsaHeaderLengthsAreAddedWithoutWrapping) {
    // 24 + 0xFFFFFFFF + 1 wraps to 24 in 32 bits; the blob holds only its header and one byte.
    Bytes blob = rsaHeader(0x31415352, 2048, 0xFFFFFFFF, 1);
    blob.push_back(0x01);
    NCRYPT_KEY_HANDLE key;
    EXPECT_EQ(import(L"RSAPUBLICBLOB", blob, &key), KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: BCRYPT_RSAPUBLIC_BLOB data too small for key material");

    testsupport::clearLog();
    blob = rsaHeader(0x31415352, 2048, 0x80000000, 0x80000000);
    EXPECT_EQ(import(L"RSAPUBLICBLOB", blob, &key), KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: BCRYPT_RSAPUBLIC_BLOB data too small for key material");
}

TEST_F(KspImportPublicTest, Rsa1536IsNotSupportedAfterTheLayoutChecks) {
    NCRYPT_KEY_HANDLE key;
    EXPECT_EQ(import(L"RSAPUBLICBLOB", rsaPublicBlob(0x31415352, 1536, kExponent, modulusOf(192)), &key),
              KSP_NTE_NOT_SUPPORTED);
    expectRefused("KSP: Unsupported RSA key size: 1536");
}

TEST_F(KspImportPublicTest, ModulusLongerThanTheKeyObjectHoldsIsNotSupported) {
    // BitLength and cbModulus are not compared; one byte more than the object's field is refused.
    const size_t tooLong = KSP_PUBLIC_KEY_ROOM + 1;
    NCRYPT_KEY_HANDLE key;
    EXPECT_EQ(import(L"RSAPUBLICBLOB", rsaPublicBlob(0x31415352, 4096, kExponent, modulusOf(tooLong)), &key),
              KSP_NTE_NOT_SUPPORTED);
    expectRefused("KSPImportKey: BCRYPT_RSAPUBLIC_BLOB modulus too long, cbModulus=" +
                  std::to_string(tooLong));
}

TEST_F(KspImportPublicTest, ExponentAndModulusAreTakenFromTheirOwnPlaces) {
    // A four-byte exponent moves the modulus; only cbModulus bytes after it are kept.
    Bytes modulus = modulusOf(128);
    Bytes blob = concat(rsaPublicBlob(0x31415352, 1024, Bytes{0x00, 0x01, 0x00, 0x01}, modulus), Bytes{0xAB});
    NCRYPT_KEY_HANDLE key;
    ASSERT_EQ(import(L"RSAPUBLICBLOB", blob, &key), 0);
    const KspKey* object = kspKeyFrom(key);
    EXPECT_EQ(Bytes(object->publicKey, object->publicKey + object->publicKeyLength), modulus);
}

TEST_F(KspImportPublicTest, EccPublicBlobBecomesAPointWithCurveAndUsageFromTheMagic) {
    struct Case {
        uint32_t magic;
        uint32_t cbKey;
        int32_t code;
        uint32_t bits;
        int32_t usage;
    };
    for (const Case& c : {Case{0x31534345, 32, 5, 256, 1}, Case{0x314B4345, 32, 5, 256, 2},
                          Case{0x33534345, 48, 6, 384, 1}, Case{0x334B4345, 48, 6, 384, 2},
                          Case{0x35534345, 66, 7, 521, 1}, Case{0x354B4345, 66, 7, 521, 2}}) {
        testsupport::clearLog();
        Bytes coordinates = pattern(2 * c.cbKey, 0x40);
        NCRYPT_KEY_HANDLE key;
        ASSERT_EQ(import(L"ECCPUBLICBLOB", eccPublicBlob(c.magic, c.cbKey, coordinates), &key), 0);
        const KspKey* object = kspKeyFrom(key);
        EXPECT_EQ(object->publicKeyLength, 2 * c.cbKey + 1);
        EXPECT_EQ(object->publicKey[0], 0x04);
        EXPECT_EQ(Bytes(object->publicKey + 1, object->publicKey + object->publicKeyLength), coordinates);
        EXPECT_EQ(object->algorithm, c.code);
        EXPECT_EQ(object->bits, c.bits);
        EXPECT_EQ(object->usage, c.usage);
        EXPECT_EQ(object->finalized, 1);
        EXPECT_EQ(object->keyIdLength, 0u);
        EXPECT_TRUE(testsupport::logHasLine(
            "DEBUG", "KSPImportKey: ECC public key imported, cbKey=" + std::to_string(c.cbKey)));
    }
    EXPECT_TRUE(fake::callsFromThisThread().empty());
}

TEST_F(KspImportPublicTest, Eck3KeyIsReportedAsEcdhP384) {
    NCRYPT_KEY_HANDLE key;
    ASSERT_EQ(import(L"ECCPUBLICBLOB", eccPublicBlob(0x334B4345, 48, pattern(96, 9)), &key), 0);
    wchar_t name[32] = {};
    DWORD size = 0;
    ASSERT_EQ(KSPGetKeyProperty(provider_, key, L"Algorithm Name", reinterpret_cast<PBYTE>(name), sizeof name,
                                &size, 0),
              0);
    EXPECT_EQ(std::wstring(name), L"ECDH_P384");
}

TEST_F(KspImportPublicTest, ImportedEccKeyExportsTheSameBlob) {
    Bytes blob = eccPublicBlob(0x35534345, 66, pattern(132, 0x80));
    NCRYPT_KEY_HANDLE key;
    ASSERT_EQ(import(L"ECCPUBLICBLOB", blob, &key), 0);
    Bytes exported(blob.size());
    DWORD size = 0;
    ASSERT_EQ(KSPExportKey(provider_, key, 0, L"ECCPUBLICBLOB", nullptr, exported.data(),
                           static_cast<DWORD>(exported.size()), &size, 0),
              0);
    EXPECT_EQ(exported, blob);
}

TEST_F(KspImportPublicTest, EccBlobShorterThanItsHeaderIsBadData) {
    NCRYPT_KEY_HANDLE key;
    EXPECT_EQ(import(L"ECCPUBLICBLOB", Bytes{0x45, 0x43, 0x53, 0x31, 0x20, 0x00, 0x00}, &key),
              KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: BCRYPT_ECCPUBLIC_BLOB too small");
}

TEST_F(KspImportPublicTest, EccCoordinatesAreCheckedBeforeTheMagic) {
    NCRYPT_KEY_HANDLE key;
    Bytes blob = eccPublicBlob(0x12345678, 32, pattern(63, 1));
    EXPECT_EQ(import(L"ECCPUBLICBLOB", blob, &key), KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: BCRYPT_ECCPUBLIC_BLOB data too small for key material");

    testsupport::clearLog();
    blob.push_back(0x40);
    EXPECT_EQ(import(L"ECCPUBLICBLOB", blob, &key), KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: unknown ECC blob magic");

    // Twice 0x80000000 wraps to 0 in 32 bits.
    testsupport::clearLog();
    EXPECT_EQ(import(L"ECCPUBLICBLOB", eccPublicBlob(0x31534345, 0x80000000, {}), &key), KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: BCRYPT_ECCPUBLIC_BLOB data too small for key material");
}

TEST_F(KspImportPublicTest, PrivateEccMagicIsUnknown) {
    NCRYPT_KEY_HANDLE key;
    EXPECT_EQ(import(L"ECCPUBLICBLOB", eccPublicBlob(0x32534345, 32, pattern(96, 1)), &key),
              KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: unknown ECC blob magic");
}

TEST_F(KspImportPublicTest, CoordinateLengthIsNotHeldToTheCurve) {
    NCRYPT_KEY_HANDLE key;
    ASSERT_EQ(import(L"ECCPUBLICBLOB", eccPublicBlob(0x33534345, 32, pattern(64, 1)), &key), 0);
    EXPECT_EQ(kspKeyFrom(key)->publicKeyLength, 65u);
    EXPECT_EQ(kspKeyFrom(key)->bits, 384u);
}

TEST_F(KspImportPublicTest, PointLongerThanTheKeyObjectHoldsIsNotSupported) {
    // 2 x cbKey + 1 bytes: one coordinate byte more than the object's field holds is refused.
    const DWORD fits = static_cast<DWORD>((KSP_PUBLIC_KEY_ROOM - 1) / 2);
    NCRYPT_KEY_HANDLE key;
    ASSERT_EQ(import(L"ECCPUBLICBLOB", eccPublicBlob(0x31534345, fits, pattern(2 * fits, 1)), &key), 0);
    EXPECT_EQ(kspKeyFrom(key)->publicKeyLength, 2 * fits + 1);
    testsupport::clearLog();
    EXPECT_EQ(import(L"ECCPUBLICBLOB", eccPublicBlob(0x31534345, fits + 1, pattern(2 * fits + 2, 1)), &key),
              KSP_NTE_NOT_SUPPORTED);
    expectRefused("KSPImportKey: BCRYPT_ECCPUBLIC_BLOB point too long, cbKey=" + std::to_string(fits + 1));
}

TEST_F(KspImportPublicTest, LegacyBlobBecomesADerPublicKey) {
    Bytes modulus = modulusOf(256);
    Bytes blob = legacyPublicBlob(0x31415352, 2048, 65537, Bytes(modulus.rbegin(), modulus.rend()));
    NCRYPT_KEY_HANDLE key;
    ASSERT_EQ(import(L"CAPIPUBLICBLOB", blob, &key), 0);
    const KspKey* object = kspKeyFrom(key);
    Utils utils;
    Bytes der = buildRsaSubjectPublicKeyInfo(utils.bytesToHex(modulus.data(), 256), "010001");
    EXPECT_EQ(Bytes(object->publicKey, object->publicKey + object->publicKeyLength), der);
    EXPECT_EQ(object->keyIdLength, 16u);
    EXPECT_EQ(Bytes(object->keyId, object->keyId + 16), Bytes(16, 0));
    EXPECT_EQ(object->bits, 2048u);
    EXPECT_EQ(object->algorithm, CALYTH_KEY_RSA_2048);
    EXPECT_EQ(object->finalized, 1);
    EXPECT_EQ(testsupport::logMessagesAt("DEBUG"),
              (std::vector<std::string>{"KSPImportKey", "KSP: Public exponent : 010001",
                                        "KSP: Legacy RSA public key imported successfully"}));
    EXPECT_TRUE(fake::callsFromThisThread().empty());
}

TEST_F(KspImportPublicTest, LegacyExponentIsAlwaysThreeBytes) {
    Bytes modulus = modulusOf(128);
    NCRYPT_KEY_HANDLE key;
    ASSERT_EQ(import(L"CAPIPUBLICBLOB",
                     legacyPublicBlob(0x31415352, 1024, 3, Bytes(modulus.rbegin(), modulus.rend())), &key),
              0);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Public exponent : 000003"));
    const KspKey* object = kspKeyFrom(key);
    Bytes stored(object->publicKey, object->publicKey + object->publicKeyLength);
    Bytes exponent{0x02, 0x03, 0x00, 0x00, 0x03};
    ASSERT_GE(stored.size(), exponent.size());
    EXPECT_EQ(Bytes(stored.end() - 5, stored.end()), exponent);
}

TEST_F(KspImportPublicTest, LegacyBlobFailuresAreBadData) {
    NCRYPT_KEY_HANDLE key;
    Bytes header = legacyPublicBlob(0x31415352, 1024, 65537, {});
    header.pop_back();
    EXPECT_EQ(import(L"CAPIPUBLICBLOB", header, &key), KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: LEGACY_RSAPUBLIC_BLOB data too small for header");

    testsupport::clearLog();
    EXPECT_EQ(import(L"CAPIPUBLICBLOB", legacyPublicBlob(0x32415352, 1024, 65537, modulusOf(128)), &key),
              KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: LEGACY_RSAPUBLIC_BLOB invalid magic");

    testsupport::clearLog();
    EXPECT_EQ(import(L"CAPIPUBLICBLOB", legacyPublicBlob(0x31415352, 1024, 65537, modulusOf(127)), &key),
              KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: LEGACY_RSAPUBLIC_BLOB data too small for modulus");

    testsupport::clearLog();
    EXPECT_EQ(import(L"CAPIPUBLICBLOB", legacyPublicBlob(0x31415352, 0xFFFFFFFF, 65537, modulusOf(64)), &key),
              KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: LEGACY_RSAPUBLIC_BLOB data too small for modulus");
}

TEST_F(KspImportPublicTest, LegacyBlobOfAnOddSizeIsNotSupported) {
    NCRYPT_KEY_HANDLE key;
    EXPECT_EQ(import(L"CAPIPUBLICBLOB", legacyPublicBlob(0x31415352, 1536, 65537, modulusOf(192)), &key),
              KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"), std::vector<std::string>{"KSP: Unsupported RSA key size"});
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Public exponent : 010001"));
}

TEST_F(KspImportPublicTest, Legacy4096BitKeyIsImportedExportedAndReportedWithItsDer) {
    Bytes modulus = modulusOf(512);  // little-endian, as the blob carries it
    Bytes bigEndian(modulus.rbegin(), modulus.rend());
    Utils utils;
    Bytes der = buildRsaSubjectPublicKeyInfo(utils.bytesToHex(bigEndian.data(), 512), "010001");
    ASSERT_GT(der.size(), 512u);
    NCRYPT_KEY_HANDLE key;
    ASSERT_EQ(import(L"CAPIPUBLICBLOB", legacyPublicBlob(0x31415352, 4096, 65537, modulus), &key), 0);
    EXPECT_TRUE(testsupport::logMessagesAt("ERROR").empty());
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Legacy RSA public key imported successfully"));
    EXPECT_EQ(kspKeyFrom(key)->algorithm, CALYTH_KEY_RSA_4096);
    EXPECT_EQ(
        Bytes(kspKeyFrom(key)->publicKey, kspKeyFrom(key)->publicKey + kspKeyFrom(key)->publicKeyLength),
        der);

    EXPECT_EQ(lengthProperty(key), 4096u);

    // Export hands the stored bytes on as they stand: the DER is the modulus of both forms.
    DWORD size = 0;
    ASSERT_EQ(KSPExportKey(provider_, key, 0, L"RSAPUBLICBLOB", nullptr, nullptr, 0, &size, 0), 0);
    Bytes blob(size);
    ASSERT_EQ(KSPExportKey(provider_, key, 0, L"RSAPUBLICBLOB", nullptr, blob.data(), size, &size, 0), 0);
    ASSERT_EQ(blob.size(), 27 + der.size());
    EXPECT_EQ(Bytes(blob.begin() + 27, blob.end()), der);
    ASSERT_EQ(KSPExportKey(provider_, key, 0, L"CAPIPUBLICBLOB", nullptr, nullptr, 0, &size, 0), 0);
    Bytes legacy(size);
    ASSERT_EQ(KSPExportKey(provider_, key, 0, L"CAPIPUBLICBLOB", nullptr, legacy.data(), size, &size, 0), 0);
    ASSERT_EQ(legacy.size(), 20 + der.size());
    EXPECT_EQ(Bytes(legacy.begin() + 20, legacy.end()), Bytes(der.rbegin(), der.rend()));
}

}  // namespace
