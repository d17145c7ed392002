// KSPSecretAgreement and KSPFreeSecret against the fake device library, whose default ECDH answers
// the peer point's X coordinate.
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>

#include "agreement_support.h"
#include "support/test_support.h"
#include "token/token_table.h"
#include "unit/ksp/ksp_fixture.h"

namespace {

using agreementtest::Bytes;

const char* const kEcExchangeId = "D4D4D4D4D4D4D4D4D4D4D4D4D4D4D4D4";

class SecretAgreement : public ksptest::KspTest {
protected:
    void SetUp() override {
        KspTest::SetUp();
        fake::addKeyPair("SN1", fake::makeKeyPair(kEcExchangeId, CALYTH_USAGE_EXCHANGE, CALYTH_KEY_EC_P256));
        makeProvider();
        privateKey = makeKey(kEcExchangeId);
        peerKey = makePeer(peerPoint(0x04, 32));
        fake::clearCalls();
    }
    void TearDown() override {
        if (secret != 0) {
            EXPECT_EQ(KSPFreeSecret(provider_, secret), 0);
        }
        KspTest::TearDown();
    }

    // 04 || X || Y with X = 01 02 ... and Y = 81 82 ...
    static Bytes peerPoint(unsigned char first, size_t coordinate) {
        Bytes point{first};
        for (size_t i = 0; i < coordinate; ++i)
            point.push_back(static_cast<unsigned char>(i + 1));
        for (size_t i = 0; i < coordinate; ++i)
            point.push_back(static_cast<unsigned char>(0x81 + i));
        return point;
    }
    // A public-only key object, as an imported peer key is: no token identifier.
    NCRYPT_KEY_HANDLE makePeer(const Bytes& point) {
        NCRYPT_KEY_HANDLE handle = makeEmptyKey();
        KspKey* key = kspKeyFrom(handle);
        std::memcpy(key->publicKey, point.data(), point.size());
        key->publicKeyLength = static_cast<uint32_t>(point.size());
        key->algorithm = CALYTH_KEY_EC_P256;
        key->usage = CALYTH_USAGE_EXCHANGE;
        return handle;
    }
    SECURITY_STATUS agree(NCRYPT_PROV_HANDLE provider = 0) {
        return KSPSecretAgreement(provider != 0 ? provider : provider_, privateKey, peerKey, &secret, 0);
    }
    Bytes secretBytes() const {
        const KspSecret* record = kspSecretFrom(secret);
        return Bytes(record->secret, record->secret + record->length);
    }

    NCRYPT_KEY_HANDLE privateKey = 0;
    NCRYPT_KEY_HANDLE peerKey = 0;
    NCRYPT_SECRET_HANDLE secret = 0;
};

TEST_F(SecretAgreement, ComputesTheSecretOnTheTokenWithTheHeldPin) {
    storeValidatedPin("SN1", "1234");
    ASSERT_EQ(agree(), 0);
    ASSERT_NE(secret, 0u);
    auto calls = fake::callsTo("calyth_ecdhDerive");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, "SN1");
    Bytes point = peerPoint(0x04, 32);
    EXPECT_EQ(calls[0].args, (std::vector<std::string>{kEcExchangeId, "1234", fake::hex(point), "65"}));
    EXPECT_EQ(secretBytes(), Bytes(point.begin() + 1, point.begin() + 33));
    EXPECT_EQ(kspSecretFrom(secret)->provider, provider());
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPSecretAgreement"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPSecretAgreement: ECDH shared secret computed, len=32"));
}

TEST_F(SecretAgreement, SecretOf80BytesIsKeptAs66) {
    storeValidatedPin("SN1", "1234");
    Bytes long80(80);
    for (size_t i = 0; i < long80.size(); ++i)
        long80[i] = static_cast<unsigned char>(0x30 + i);
    fake::hooks().ecdhDerive = [&](const char*, const unsigned char*, int, unsigned char** out, int* length) {
        *out = static_cast<unsigned char*>(std::malloc(long80.size()));
        std::memcpy(*out, long80.data(), long80.size());
        *length = static_cast<int>(long80.size());
        return 0;
    };
    ASSERT_EQ(agree(), 0);
    EXPECT_EQ(kspSecretFrom(secret)->length, 66u);
    EXPECT_EQ(secretBytes(), Bytes(long80.begin(), long80.begin() + 66));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPSecretAgreement: ECDH shared secret computed, len=66"));
}

TEST_F(SecretAgreement, NullOrUninitialisedProviderIsInvalidHandle) {
    EXPECT_EQ(KSPSecretAgreement(0, privateKey, peerKey, &secret, 0), KSP_NTE_INVALID_HANDLE);
    NCRYPT_PROV_HANDLE closed = makeProvider();
    kspProviderFrom(closed)->initialized = 0;
    EXPECT_EQ(agree(closed), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPSecretAgreement: provider not initialized"));
    EXPECT_EQ(secret, 0u);
}

TEST_F(SecretAgreement, NullOutputIsInvalidParameter) {
    EXPECT_EQ(KSPSecretAgreement(provider_, privateKey, peerKey, nullptr, 0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSecretAgreement: phAgreedSecret is null"));
}

TEST_F(SecretAgreement, FirmwareBelow200IsNotSupported) {
    storeValidatedPin("SN1", "1234");
    provider()->firmware = "1.9.9";
    EXPECT_EQ(agree(), KSP_NTE_NOT_SUPPORTED);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSecretAgreement: ECDH not supported on firmware 1.9.9"));
    EXPECT_EQ(fake::countCalls("calyth_ecdhDerive"), 0u);
    // The gate comes before the key checks.
    EXPECT_EQ(KSPSecretAgreement(provider_, 0, 0, &secret, 0), KSP_NTE_NOT_SUPPORTED);
}

TEST_F(SecretAgreement, Firmware20AndAboveIsAccepted) {
    storeValidatedPin("SN1", "1234");
    provider()->firmware = "2.0";
    ASSERT_EQ(agree(), 0);
    EXPECT_EQ(KSPFreeSecret(provider_, secret), 0);
    provider()->firmware = "10.0.0";
    EXPECT_EQ(agree(), 0);
}

TEST_F(SecretAgreement, NullKeyIsInvalidHandle) {
    EXPECT_EQ(KSPSecretAgreement(provider_, 0, peerKey, &secret, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(KSPSecretAgreement(provider_, privateKey, 0, &secret, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPSecretAgreement: key handle is null"));
}

TEST_F(SecretAgreement, PrivateKeyWithoutTokenIdentifierIsBadKey) {
    EXPECT_EQ(KSPSecretAgreement(provider_, makePeer(peerPoint(0x04, 32)), peerKey, &secret, 0),
              KSP_NTE_BAD_KEY);
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "KSPSecretAgreement: private key has no credential ID (not a device key)"));
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(SecretAgreement, CompressedPeerPointIsBadKeyBeforeAnyPrompt) {
    // No PIN is held: reaching the PIN check would fail with NTE_FAIL (headless) and ask the device.
    for (unsigned char first : {0x02, 0x03}) {
        peerKey = makePeer(Bytes{first, 1, 2, 3, 4});
        fake::clearCalls();
        testsupport::clearLog();
        EXPECT_EQ(agree(), KSP_NTE_BAD_KEY) << int(first);
        EXPECT_TRUE(testsupport::logHasLine(
            "ERROR", "KSPSecretAgreement: peer public key is not uncompressed EC point"));
        EXPECT_FALSE(testsupport::logHasLine("ERROR", "KSPSecretAgreement: password validation failed"));
        EXPECT_TRUE(fake::calls().empty());
    }
}

TEST_F(SecretAgreement, PeerPointShorterThanThreeBytesIsBadKey) {
    peerKey = makePeer(Bytes{0x04, 0x01});
    EXPECT_EQ(agree(), KSP_NTE_BAD_KEY);
    peerKey = makeEmptyKey();
    EXPECT_EQ(agree(), KSP_NTE_BAD_KEY);
    EXPECT_EQ(
        testsupport::logMessagesAt("ERROR"),
        std::vector<std::string>(2, "KSPSecretAgreement: peer public key is not uncompressed EC point"));
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(SecretAgreement, NoCurveCheckBetweenTheKeys) {
    storeValidatedPin("SN1", "1234");
    peerKey = makePeer(peerPoint(0x04, 48));  // a P-384 point for a P-256 key
    ASSERT_EQ(agree(), 0);
    EXPECT_EQ(kspSecretFrom(secret)->length, 48u);
}

TEST_F(SecretAgreement, FailedPinCheckIsNteFail) {
    // Headless, the PIN dialog fails at once.
    EXPECT_EQ(agree(), KSP_NTE_FAIL);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSecretAgreement: password validation failed"));
    EXPECT_EQ(fake::countCalls("calyth_ecdhDerive"), 0u);
    EXPECT_EQ(secret, 0u);
}

TEST_F(SecretAgreement, DeviceFailureIsInternalErrorWithoutSingleSignOnRetry) {
    storeValidatedPin("SN1", "1234");
    fake::failNext("calyth_ecdhDerive", CALYTH_SSO_EXPIRED);
    EXPECT_EQ(agree(), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSecretAgreement: ECDH derive failed, ret=49"));
    EXPECT_EQ(fake::countCalls("calyth_ecdhDerive"), 1u);
    EXPECT_EQ(secret, 0u);
}

TEST_F(SecretAgreement, SuccessWithoutSecretIsInternalError) {
    storeValidatedPin("SN1", "1234");
    fake::hooks().ecdhDerive = [](const char*, const unsigned char*, int, unsigned char** out, int* length) {
        *out = nullptr;
        *length = 32;
        return 0;
    };
    EXPECT_EQ(agree(), KSP_NTE_INTERNAL_ERROR);
    fake::hooks().ecdhDerive = [](const char*, const unsigned char*, int, unsigned char** out, int* length) {
        *out = static_cast<unsigned char*>(std::malloc(4));
        *length = 0;
        return 0;
    };
    EXPECT_EQ(agree(), KSP_NTE_INTERNAL_ERROR);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPSecretAgreement: ECDH derive failed, ret=0"));
    EXPECT_EQ(secret, 0u);
}

TEST_F(SecretAgreement, FreeSecretAcceptsNullAndReleasesASecret) {
    EXPECT_EQ(KSPFreeSecret(provider_, 0), 0);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPFreeSecret"));
    storeValidatedPin("SN1", "1234");
    ASSERT_EQ(agree(), 0);
    EXPECT_EQ(KSPFreeSecret(0, secret), 0);  // the provider argument is not needed
    secret = 0;
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"), std::vector<std::string>{});
}

}  // namespace
