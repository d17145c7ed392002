// KSPVerifySignature: argument checks, the public key handed to the library (raw EC point, stored
// DER, or a raw modulus wrapped into DER), padding choice and the PSS firmware gate.
#include <windows.h>

#include <ncrypt.h>

#include <gtest/gtest.h>

#include "crypto_test_support.h"
#include "util/encoding.h"

namespace ksptest {
namespace {

class VerifySignature : public KspTest {
protected:
    void SetUp() override {
        KspTest::SetUp();
        makeProvider();
        rsaKey = makeKey(kRsaSignId);
        ecKey = makeKey(kEcSignId);
    }

    SECURITY_STATUS verify(NCRYPT_KEY_HANDLE key, const std::vector<unsigned char>& signature,
                           DWORD flags = 0) {
        return KSPVerifySignature(provider_, key, nullptr, digest.data(), static_cast<DWORD>(digest.size()),
                                  const_cast<PBYTE>(signature.data()), static_cast<DWORD>(signature.size()),
                                  flags);
    }
    fake::Call onlyVerifyCall() {
        auto calls = fake::callsTo("calyth_verifySignatureHash");
        EXPECT_EQ(calls.size(), 1u);
        return calls.empty() ? fake::Call{} : calls[0];
    }

    NCRYPT_KEY_HANDLE rsaKey = 0;
    NCRYPT_KEY_HANDLE ecKey = 0;
    std::vector<unsigned char> digest = testDigest();
    std::vector<unsigned char> good = fake::defaultSignature(256);
};

TEST_F(VerifySignature, LogsItsNameFirst) {
    verify(rsaKey, good);
    ASSERT_FALSE(testsupport::logMessagesAt("DEBUG").empty());
    EXPECT_EQ(testsupport::logMessagesAt("DEBUG").front(), "KSPVerifySignature");
}

TEST_F(VerifySignature, NullOrUninitialisedProviderIsAnInvalidHandle) {
    EXPECT_EQ(KSPVerifySignature(0, rsaKey, nullptr, digest.data(), 32, good.data(), 256, 0),
              KSP_NTE_INVALID_HANDLE);
    provider()->initialized = 0;
    EXPECT_EQ(verify(rsaKey, good), KSP_NTE_INVALID_HANDLE);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "KSPVerifySignature: provider handle is null or not initialized"));
    EXPECT_EQ(fake::countCalls("calyth_verifySignatureHash"), 0u);
}

TEST_F(VerifySignature, NullKeyIsAnInvalidHandle) {
    EXPECT_EQ(verify(0, good), KSP_NTE_INVALID_HANDLE);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPVerifySignature: key handle is null"));
}

TEST_F(VerifySignature, EachMissingInputIsAnInvalidParameter) {
    EXPECT_EQ(KSPVerifySignature(provider_, rsaKey, nullptr, nullptr, 32, good.data(), 256, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPVerifySignature(provider_, rsaKey, nullptr, digest.data(), 0, good.data(), 256, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPVerifySignature(provider_, rsaKey, nullptr, digest.data(), 32, nullptr, 256, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPVerifySignature(provider_, rsaKey, nullptr, digest.data(), 32, good.data(), 0, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(4, "KSPVerifySignature: invalid input parameters"));
    EXPECT_EQ(fake::countCalls("calyth_verifySignatureHash"), 0u);
}

TEST_F(VerifySignature, KeyWithoutPublicKeyIsABadKey) {
    kspKeyFrom(rsaKey)->publicKeyLength = 0;
    EXPECT_EQ(verify(rsaKey, good), KSP_NTE_BAD_KEY);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: No public key for verification"));
    EXPECT_EQ(fake::countCalls("calyth_verifySignatureHash"), 0u);
}

TEST_F(VerifySignature, RawModulusIsWrappedIntoDer) {
    const KspKey* key = kspKeyFrom(rsaKey);
    Bytes der = derPublicKeyFromStored(key->publicKey, static_cast<int>(key->publicKeyLength));
    ASSERT_EQ(der[0], 0x30);
    EXPECT_EQ(verify(rsaKey, good), KSP_SUCCESS);
    fake::Call call = onlyVerifyCall();
    EXPECT_EQ(call.serial, "SN1");
    EXPECT_EQ(call.args,
              (std::vector<std::string>{"2", fake::hex(digest), "32", fake::hex(der),
                                        std::to_string(der.size()), fake::hex(good), "256", "false"}));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: RSA Public key is raw modulus, converting to DER"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: VerifySignature - hash length: 32"));
    EXPECT_TRUE(testsupport::logHasLine(
        "DEBUG", "KSP: VerifySignature - public key DER length: " + std::to_string(der.size())));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: VerifySignature - signature length: 256"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: VerifySignature - padding=PKCS1"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Verify signature success"));
}

TEST_F(VerifySignature, StoredDerIsPassedUnchanged) {
    KspKey* key = kspKeyFrom(rsaKey);
    std::vector<unsigned char> der = {0x30, 0x06, 0x02, 0x01, 0x05, 0x02, 0x01, 0x03};
    std::copy(der.begin(), der.end(), key->publicKey);
    key->publicKeyLength = static_cast<uint32_t>(der.size());
    EXPECT_EQ(verify(rsaKey, good), KSP_SUCCESS);
    EXPECT_EQ(onlyVerifyCall().args[3], fake::hex(der));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: RSA Public key is already DER encoded"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: VerifySignature - public key DER length: 8"));
}

TEST_F(VerifySignature, EcPointIsPassedRawWithTheKeyCode) {
    const KspKey* key = kspKeyFrom(ecKey);
    std::vector<unsigned char> point(key->publicKey, key->publicKey + key->publicKeyLength);
    ASSERT_EQ(point[0], 0x04);
    std::vector<unsigned char> signature = fake::defaultSignature(64);
    EXPECT_EQ(verify(ecKey, signature), KSP_SUCCESS);
    fake::Call call = onlyVerifyCall();
    EXPECT_EQ(call.args[0], "5");
    EXPECT_EQ(call.args[3], fake::hex(point));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: ECC public key, passing raw EC point"));
}

TEST_F(VerifySignature, OverlongStoredLengthIsBoundedByTheKeyObject) {
    // A key object claiming more public key bytes than it holds: only its own field is read.
    kspKeyFrom(ecKey)->publicKeyLength = 5000;
    EXPECT_EQ(verify(ecKey, fake::defaultSignature(64)), KSP_SUCCESS);
    EXPECT_EQ(onlyVerifyCall().args[4], std::to_string(KSP_PUBLIC_KEY_ROOM));
}

TEST_F(VerifySignature, RejectedSignatureIsABadSignature) {
    std::vector<unsigned char> wrong(256, 0x11);
    EXPECT_EQ(verify(rsaKey, wrong), KSP_NTE_BAD_SIGNATURE);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Verify signature failed: 1"));
}

TEST_F(VerifySignature, AnyDeviceFailureIsABadSignature) {
    fake::failNext("calyth_verifySignatureHash", -2);
    EXPECT_EQ(verify(rsaKey, good), KSP_NTE_BAD_SIGNATURE);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Verify signature failed: -2"));
}

TEST_F(VerifySignature, AsksNoPassword) {
    EXPECT_EQ(verify(rsaKey, good, NCRYPT_SILENT_FLAG), KSP_SUCCESS);
    EXPECT_EQ(fake::callNames(), std::vector<std::string>{"calyth_verifySignatureHash"});
}

TEST_F(VerifySignature, PssFlagSelectsPssWhateverElseIsSet) {
    EXPECT_EQ(verify(rsaKey, good, BCRYPT_PAD_PSS | BCRYPT_PAD_PKCS1), KSP_SUCCESS);
    EXPECT_EQ(onlyVerifyCall().args[7], "true");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: VerifySignature - padding=PSS"));
}

TEST_F(VerifySignature, PssOnFirmwareBelowTwoIsNotSupported) {
    provider()->firmware = "1.9.9";
    EXPECT_EQ(verify(rsaKey, good, BCRYPT_PAD_PSS | BCRYPT_PAD_PKCS1), KSP_NTE_NOT_SUPPORTED);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPVerifySignature: PSS not supported on firmware 1.9.9"));
    EXPECT_EQ(fake::countCalls("calyth_verifySignatureHash"), 0u);
}

TEST_F(VerifySignature, PssOnFirmwareTwoPointZeroPasses) {
    provider()->firmware = "2.0";
    EXPECT_EQ(verify(rsaKey, good, BCRYPT_PAD_PSS), KSP_SUCCESS);
}

TEST_F(VerifySignature, Pkcs1OnOldFirmwarePasses) {
    provider()->firmware = "1.0";
    EXPECT_EQ(verify(rsaKey, good, BCRYPT_PAD_PKCS1), KSP_SUCCESS);
    EXPECT_EQ(onlyVerifyCall().args[7], "false");
}

}  // namespace
}  // namespace ksptest
