// KSPSignHash: argument checks, size rules, the PIN gate, padding choice, the PSS firmware gate,
// the single-sign-on retry and the bounds of the caller's signature buffer.
#include <windows.h>

#include <ncrypt.h>

#include <gtest/gtest.h>
#include <string>

#include "crypto_test_support.h"
#include "support/guarded_buffer.h"
#include "token/token_table.h"

namespace ksptest {
namespace {

using testsupport::GuardedBuffer;

const char* const kP384Id = "D4D4D4D4D4D4D4D4D4D4D4D4D4D4D4D4";
const char* const kP521Id = "E5E5E5E5E5E5E5E5E5E5E5E5E5E5E5E5";
const char* const kRsa4096Id = "F6F6F6F6F6F6F6F6F6F6F6F6F6F6F6F6";

class SignHash : public KspTest {
protected:
    void SetUp() override {
        KspTest::SetUp();
        fake::addKeyPair("SN1", fake::makeKeyPair(kP384Id, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_EC_P384));
        fake::addKeyPair("SN1", fake::makeKeyPair(kP521Id, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_EC_P521));
        fake::addKeyPair("SN1", fake::makeKeyPair(kRsa4096Id, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_4096));
        makeProvider();
        rsaKey = makeKey(kRsaSignId);
    }

    SECURITY_STATUS sign(NCRYPT_KEY_HANDLE key, GuardedBuffer& buffer, DWORD flags = 0) {
        return KSPSignHash(provider_, key, nullptr, digest.data(), static_cast<DWORD>(digest.size()),
                           buffer.data(), buffer.size(), &result, flags);
    }
    SECURITY_STATUS sizeQuery(NCRYPT_KEY_HANDLE key) {
        return KSPSignHash(provider_, key, nullptr, nullptr, 0, nullptr, 0, &result, 0);
    }

    NCRYPT_KEY_HANDLE rsaKey = 0;
    std::vector<unsigned char> digest = testDigest();
    DWORD result = kUnsetResult;
};

TEST_F(SignHash, LogsItsNameFirst) {
    sizeQuery(rsaKey);
    ASSERT_FALSE(testsupport::logMessagesAt("DEBUG").empty());
    EXPECT_EQ(testsupport::logMessagesAt("DEBUG").front(), "KSPSignHash");
}

TEST_F(SignHash, NullProviderIsAnInvalidHandle) {
    EXPECT_EQ(KSPSignHash(0, rsaKey, nullptr, nullptr, 0, nullptr, 0, &result, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSignHash: provider handle is null or not initialized"));
    EXPECT_EQ(result, kUnsetResult);
}

TEST_F(SignHash, UninitialisedProviderIsAnInvalidHandle) {
    provider()->initialized = 0;
    EXPECT_EQ(sizeQuery(rsaKey), KSP_NTE_INVALID_HANDLE);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSignHash: provider handle is null or not initialized"));
}

TEST_F(SignHash, NullKeyOrResultIsAnInvalidParameter) {
    EXPECT_EQ(sizeQuery(0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPSignHash(provider_, rsaKey, nullptr, nullptr, 0, nullptr, 0, nullptr, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSignHash: key handle or pcbResult is null"));
}

TEST_F(SignHash, SizeQueryOnP521AsksNoPassword) {
    EXPECT_EQ(sizeQuery(makeKey(kP521Id)), KSP_SUCCESS);
    EXPECT_EQ(result, 132u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: SignHash size query, returning 132"));
    EXPECT_TRUE(fake::calls().empty());  // neither the token state nor the PIN was asked for
}

TEST_F(SignHash, SizeQueryPerAlgorithm) {
    EXPECT_EQ(sizeQuery(rsaKey), KSP_SUCCESS);
    EXPECT_EQ(result, 256u);
    EXPECT_EQ(sizeQuery(makeKey(kEcSignId)), KSP_SUCCESS);
    EXPECT_EQ(result, 64u);
    EXPECT_EQ(sizeQuery(makeKey(kP384Id)), KSP_SUCCESS);
    EXPECT_EQ(result, 96u);
    EXPECT_EQ(sizeQuery(makeKey(kRsa4096Id)), KSP_SUCCESS);
    EXPECT_EQ(result, 512u);
}

TEST_F(SignHash, RsaSizeTruncatesOddLengths) {
    kspKeyFrom(rsaKey)->bits = 1535;
    EXPECT_EQ(sizeQuery(rsaKey), KSP_SUCCESS);
    EXPECT_EQ(result, 191u);
}

TEST_F(SignHash, MissingHashIsAnInvalidParameter) {
    GuardedBuffer buffer(256);
    EXPECT_EQ(KSPSignHash(provider_, rsaKey, nullptr, nullptr, 32, buffer.data(), 256, &result, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPSignHash(provider_, rsaKey, nullptr, digest.data(), 0, buffer.data(), 256, &result, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSignHash: pbHashValue is null or cbHashValue is zero"));
    EXPECT_TRUE(buffer.untouched());
    EXPECT_EQ(fake::countCalls("calyth_signHash"), 0u);
}

TEST_F(SignHash, ShortSignatureBufferReportsTheSize) {
    storeValidatedPin("SN1", "1234");
    GuardedBuffer buffer(255);
    EXPECT_EQ(sign(rsaKey, buffer), KSP_NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, 256u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSignHash: signature buffer too small, required=256"));
    EXPECT_TRUE(buffer.untouched());
    EXPECT_EQ(fake::countCalls("calyth_signHash"), 0u);
}

TEST_F(SignHash, SilentWithoutValidatedPinFailsBeforeTheToken) {
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer, NCRYPT_SILENT_FLAG), KSP_NTE_SILENT_CONTEXT);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSignHash: silent mode requested but PIN not validated"));
    EXPECT_TRUE(fake::calls().empty());
    EXPECT_TRUE(buffer.untouched());
}

TEST_F(SignHash, SilentWithValidatedPinSigns) {
    storeValidatedPin("SN1", "1234");
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer, NCRYPT_SILENT_FLAG), KSP_SUCCESS);
    EXPECT_EQ(fake::countCalls("calyth_signHash"), 1u);
}

TEST_F(SignHash, FailedPinCheckIsNteFail) {
    // Headless, the PIN dialog fails at once: the check fails without a held PIN.
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer), KSP_NTE_FAIL);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSignHash: password validation failed"));
    EXPECT_EQ(fake::countCalls("calyth_signHash"), 0u);
    EXPECT_TRUE(buffer.untouched());
}

TEST_F(SignHash, SingleSignOnPassesThePinCheck) {
    fake::setSingleSignOn("SN1", true);
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer), KSP_SUCCESS);
    auto calls = fake::callsTo("calyth_signHash");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].args[1], "");  // the single sign-on holds no PIN
}

TEST_F(SignHash, SignsOnTheTokenWithTheHeldPin) {
    storeValidatedPin("SN1", "1234");
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer), KSP_SUCCESS);
    EXPECT_EQ(result, 256u);
    EXPECT_EQ(buffer.written(256), fake::defaultSignature(256));
    EXPECT_TRUE(buffer.guardIntact());

    auto calls = fake::callsTo("calyth_signHash");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, "SN1");
    EXPECT_EQ(calls[0].args, (std::vector<std::string>{kRsaSignId, "1234", fake::hex(digest), "32", "256",
                                                       "false", "false"}));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: SignHash - padding=PKCS1"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", std::string("KSP: SignHash - credential: ") + kRsaSignId));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: SignHash - hash length: 32"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: SignHash success, signature length=256"));
}

TEST_F(SignHash, LargerBufferIsTheDeviceRoom) {
    storeValidatedPin("SN1", "1234");
    GuardedBuffer buffer(300);
    EXPECT_EQ(sign(makeKey(kEcSignId), buffer), KSP_SUCCESS);
    EXPECT_EQ(result, 64u);
    EXPECT_EQ(fake::callsTo("calyth_signHash")[0].args[4], "300");
    EXPECT_EQ(buffer.written(64), fake::defaultSignature(64));
}

TEST_F(SignHash, EcKeySignsWithTheCurveSizedBuffer) {
    storeValidatedPin("SN1", "1234");
    GuardedBuffer buffer(132);
    EXPECT_EQ(sign(makeKey(kP521Id), buffer, BCRYPT_PAD_PSS), KSP_SUCCESS);
    EXPECT_EQ(result, 132u);
    auto calls = fake::callsTo("calyth_signHash");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].args[0], kP521Id);
    EXPECT_EQ(calls[0].args[6], "true");  // the padding choice reaches the token for EC keys too
}

TEST_F(SignHash, PssAloneSelectsPss) {
    storeValidatedPin("SN1", "1234");
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer, BCRYPT_PAD_PSS), KSP_SUCCESS);
    EXPECT_EQ(fake::callsTo("calyth_signHash")[0].args[6], "true");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: SignHash - padding=PSS"));
}

TEST_F(SignHash, BothPaddingFlagsSignPkcs1) {
    storeValidatedPin("SN1", "1234");
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer, BCRYPT_PAD_PSS | BCRYPT_PAD_PKCS1), KSP_SUCCESS);
    EXPECT_EQ(fake::callsTo("calyth_signHash")[0].args[6], "false");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: SignHash - padding=PKCS1"));
}

TEST_F(SignHash, BothPaddingFlagsPassTheOldFirmware) {
    storeValidatedPin("SN1", "1234");
    provider()->firmware = "1.9.9";
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer, BCRYPT_PAD_PSS | BCRYPT_PAD_PKCS1), KSP_SUCCESS);
}

TEST_F(SignHash, PssOnFirmwareBelowTwoIsNotSupported) {
    storeValidatedPin("SN1", "1234");
    provider()->firmware = "1.9.9";
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer, BCRYPT_PAD_PSS), KSP_NTE_NOT_SUPPORTED);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSignHash: PSS not supported on firmware 1.9.9"));
    EXPECT_EQ(fake::countCalls("calyth_signHash"), 0u);
    EXPECT_TRUE(buffer.untouched());
}

TEST_F(SignHash, PssOnFirmwareTwoPointZeroPasses) {
    storeValidatedPin("SN1", "1234");
    for (const char* firmware : {"2.0", "2.0.0", "10.0.0"}) {
        provider()->firmware = firmware;
        GuardedBuffer buffer(256);
        EXPECT_EQ(sign(rsaKey, buffer, BCRYPT_PAD_PSS), KSP_SUCCESS) << firmware;
    }
    EXPECT_EQ(fake::countCalls("calyth_signHash"), 3u);
}

// The pieces are signed numbers: a negative major version is below 2, not a huge one.
TEST_F(SignHash, PssOnFirmwareWithANegativePieceIsNotSupported) {
    storeValidatedPin("SN1", "1234");
    for (const char* firmware : {"-1.0.0", "2.-1", "1.-5.9"}) {
        fake::clearCalls();
        provider()->firmware = firmware;
        GuardedBuffer buffer(256);
        EXPECT_EQ(sign(rsaKey, buffer, BCRYPT_PAD_PSS), KSP_NTE_NOT_SUPPORTED) << firmware;
        EXPECT_TRUE(testsupport::logHasLine(
            "ERROR", std::string("KSPSignHash: PSS not supported on firmware ") + firmware));
        EXPECT_EQ(fake::countCalls("calyth_signHash"), 0u) << firmware;
    }
}

TEST_F(SignHash, PssOnATokenWithoutFirmwareTextIsNotSupported) {
    storeValidatedPin("SN1", "1234");
    provider()->firmware.clear();
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer, BCRYPT_PAD_PSS), KSP_NTE_NOT_SUPPORTED);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSignHash: PSS not supported on firmware "));
}

TEST_F(SignHash, PinCheckComesBeforeTheFirmwareGate) {
    provider()->firmware = "1.0.0";
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer, BCRYPT_PAD_PSS), KSP_NTE_FAIL);
    EXPECT_FALSE(testsupport::logHasLine("ERROR", "KSPSignHash: PSS not supported on firmware 1.0.0"));
}

TEST_F(SignHash, DeviceFailureIsAnInternalError) {
    storeValidatedPin("SN1", "1234");
    fake::failNext("calyth_signHash", 7);
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Sign hash failed: 7"));
    EXPECT_EQ(result, kUnsetResult);
}

TEST_F(SignHash, NegativeDeviceResultIsLoggedSigned) {
    storeValidatedPin("SN1", "1234");
    fake::failNext("calyth_signHash", -3);
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Sign hash failed: -3"));
}

TEST_F(SignHash, ExpiredSingleSignOnRechecksAndRetriesOnce) {
    storeValidatedPin("SN1", "1234");
    fake::setSingleSignOn("SN1", true);  // the re-check passes without a dialog
    int runs = 0;
    fake::hooks().signHash = [&](const char*, const unsigned char*, const char*, const unsigned char*, int,
                                 unsigned char* signature, int* signatureLength, bool, bool) {
        if (++runs == 1) {
            *signatureLength = 7;  // the second run must start again from the caller's room
            return CALYTH_SSO_EXPIRED;
        }
        std::vector<unsigned char> made = fake::defaultSignature(256);
        std::copy(made.begin(), made.end(), signature);
        *signatureLength = 256;
        return 0;
    };
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer), KSP_SUCCESS);
    EXPECT_EQ(result, 256u);
    auto calls = fake::callsTo("calyth_signHash");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].args[1], "1234");
    EXPECT_EQ(calls[1].args[1], "");  // the PIN was forgotten; single sign-on holds none
    EXPECT_EQ(calls[1].args[4], "256");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: SignHash SSO expired, re-prompting for PIN"));
}

TEST_F(SignHash, SecondExpiryIsFinal) {
    storeValidatedPin("SN1", "1234");
    fake::setSingleSignOn("SN1", true);
    fake::failNext("calyth_signHash", CALYTH_SSO_EXPIRED, 2);
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer), KSP_NTE_INTERNAL_ERROR);
    EXPECT_EQ(fake::countCalls("calyth_signHash"), 2u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Sign hash failed: 49"));
}

TEST_F(SignHash, FailedRecheckAfterExpiryIsNteFail) {
    storeValidatedPin("SN1", "1234");
    fake::failNext("calyth_signHash", CALYTH_SSO_EXPIRED);
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer), KSP_NTE_FAIL);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSignHash: password validation failed after SSO expiry"));
    EXPECT_EQ(fake::countCalls("calyth_signHash"), 1u);
    EXPECT_FALSE(isPinValidated("SN1"));
}

TEST_F(SignHash, OversizedDeviceLengthIsCutToTheBuffer) {
    storeValidatedPin("SN1", "1234");
    fake::hooks().signHash = [](const char*, const unsigned char*, const char*, const unsigned char*, int,
                                unsigned char* signature, int* signatureLength, bool, bool) {
        std::fill(signature, signature + *signatureLength, 0x42);
        *signatureLength = 100000;
        return 0;
    };
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer), KSP_SUCCESS);
    EXPECT_EQ(result, 256u);
    EXPECT_TRUE(buffer.guardIntact());
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: SignHash success, signature length=256"));
}

TEST_F(SignHash, NegativeDeviceLengthReportsNothing) {
    storeValidatedPin("SN1", "1234");
    fake::hooks().signHash = [](const char*, const unsigned char*, const char*, const unsigned char*, int,
                                unsigned char*, int* signatureLength, bool, bool) {
        *signatureLength = -5;
        return 0;
    };
    GuardedBuffer buffer(256);
    EXPECT_EQ(sign(rsaKey, buffer), KSP_SUCCESS);
    EXPECT_EQ(result, 0u);
    EXPECT_TRUE(buffer.untouched());
}

}  // namespace
}  // namespace ksptest
