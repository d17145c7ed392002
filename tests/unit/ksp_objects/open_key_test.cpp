// KSPOpenKey: the token lookup for the key name, the exact gate on the hexadecimal identifier and
// the key object built from the token's record.
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "ksp/ksp_interface.h"
#include "objects_test_support.h"
#include "support/test_support.h"

namespace {

using ksptest::kEcSignId;
using ksptest::kRsaExchangeId;
using ksptest::kRsaSignId;
using ksptest::wide;
using objtest::myCallsTo;

const char* const kOtherTokenId = "D4D4D4D4D4D4D4D4D4D4D4D4D4D4D4D4";

class OpenKeyTest : public objtest::ObjectsTest {
protected:
    SECURITY_STATUS open(const std::string& name, NCRYPT_KEY_HANDLE* key, DWORD legacyKeySpec = 0) {
        std::wstring wideName = wide(name);
        SECURITY_STATUS status = KSPOpenKey(provider_, key, wideName.c_str(), legacyKeySpec, 0);
        if (*key != 0)
            keep(*key);
        return status;
    }

    std::vector<std::string> availableKeyLines() {
        std::vector<std::string> out;
        for (const std::string& line : testsupport::logMessagesAt("DEBUG")) {
            if (line.rfind("KSP: Available key: ", 0) == 0)
                out.push_back(line);
        }
        return out;
    }
};

TEST_F(OpenKeyTest, NullOrClosedProviderIsAnInvalidHandle) {
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(KSPOpenKey(0, &key, L"A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1", 0, 0), KSP_NTE_INVALID_HANDLE);
    auto* closed = new KspProvider{};
    closed->serial = "SN1";
    keepProvider(reinterpret_cast<NCRYPT_PROV_HANDLE>(closed));
    EXPECT_EQ(KSPOpenKey(reinterpret_cast<NCRYPT_PROV_HANDLE>(closed), &key,
                         L"A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1", 0, 0),
              KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(key, 0u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPOpenKey"));
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPOpenKey: provider handle is null or not initialized"));
    EXPECT_TRUE(fake::callsFromThisThread().empty());
}

TEST_F(OpenKeyTest, NullOutputIsAnInvalidParameter) {
    makeProvider();
    EXPECT_EQ(KSPOpenKey(provider_, nullptr, L"A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1", 0, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPOpenKey: phKey is null"));
    EXPECT_TRUE(fake::callsFromThisThread().empty());
}

TEST_F(OpenKeyTest, OpensAKeyByItsHexadecimalIdentifier) {
    makeProvider();
    NCRYPT_KEY_HANDLE handle = 0;
    ASSERT_EQ(open(kRsaSignId, &handle), 0);
    ASSERT_NE(handle, 0u);
    const CalythKeyPair& stored = fake::token("SN1").keyPairs[0];
    KspKey* key = keyOf(handle);
    EXPECT_EQ(fake::hex(key->keyId, 16), kRsaSignId);
    EXPECT_EQ(key->keyIdLength, 16u);
    EXPECT_EQ(key->algorithm, CALYTH_KEY_RSA_2048);
    EXPECT_EQ(key->usage, CALYTH_USAGE_SIGNATURE);
    EXPECT_EQ(key->bits, 2048u);
    ASSERT_EQ(key->publicKeyLength, static_cast<uint32_t>(stored.publicKeyLength));
    EXPECT_EQ(std::memcmp(key->publicKey, stored.publicKey, key->publicKeyLength), 0);
    ASSERT_EQ(key->linkIdLength, static_cast<uint32_t>(stored.objectIdLength));
    EXPECT_EQ(std::memcmp(key->linkId, stored.objectId, key->linkIdLength), 0);
    EXPECT_STREQ(key->label, "rsa-sign");
    EXPECT_EQ(key->reserved, 0u);
    EXPECT_EQ(key->tokenFlag, stored.tokenFlag);
    EXPECT_EQ(key->name, wide(kRsaSignId));
    EXPECT_EQ(key->finalized, 1);
    EXPECT_EQ(key->symmetricKeyLength, 0u);

    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPOpenKey"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", std::string("KSP: Opening key: ") + kRsaSignId));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Resolved key to device: SN1"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Key match found, proceeding..."));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Key opened, algorithm=2 bits=2048"));
    EXPECT_TRUE(testsupport::logMessagesAt("ERROR").empty());
}

TEST_F(OpenKeyTest, OpensAnEcKeyWithItsCurveLength) {
    makeProvider();
    NCRYPT_KEY_HANDLE handle = 0;
    ASSERT_EQ(open(kEcSignId, &handle), 0);
    EXPECT_EQ(keyOf(handle)->algorithm, CALYTH_KEY_EC_P256);
    EXPECT_EQ(keyOf(handle)->bits, 256u);
    EXPECT_EQ(keyOf(handle)->publicKeyLength, 65u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Key opened, algorithm=5 bits=256"));
}

TEST_F(OpenKeyTest, TheGateLogsEachKeyUpToTheMatch) {
    makeProvider();
    NCRYPT_KEY_HANDLE first = 0;
    ASSERT_EQ(open(kRsaSignId, &first), 0);
    EXPECT_EQ(availableKeyLines(),
              std::vector<std::string>{std::string("KSP: Available key: ") + kRsaSignId});

    testsupport::clearLog();
    NCRYPT_KEY_HANDLE third = 0;
    ASSERT_EQ(open(kEcSignId, &third), 0);
    std::vector<std::string> expected{std::string("KSP: Available key: ") + kRsaSignId,
                                      std::string("KSP: Available key: ") + kRsaExchangeId,
                                      std::string("KSP: Available key: ") + kEcSignId};
    EXPECT_EQ(availableKeyLines(), expected);
}

TEST_F(OpenKeyTest, NullNameFailsAfterListingEveryKey) {
    makeProvider();
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(KSPOpenKey(provider_, &key, nullptr, 0, 0), KSP_NTE_NO_KEY);
    EXPECT_EQ(key, 0u);
    EXPECT_EQ(availableKeyLines().size(), 3u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Input key not found on token: "));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "KSP: Key match found, proceeding..."));
    // An empty name resolves no token: the device list is not read.
    EXPECT_TRUE(myCallsTo("calyth_getConnectedDeviceList").empty());
    EXPECT_EQ(provider()->serial, "SN1");
}

TEST_F(OpenKeyTest, EmptyNameFailsAfterListingEveryKey) {
    makeProvider();
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(open("", &key), KSP_NTE_NO_KEY);
    EXPECT_EQ(key, 0u);
    EXPECT_EQ(availableKeyLines().size(), 3u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Input key not found on token: "));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "KSP: Resolved key to device: SN1"));
}

TEST_F(OpenKeyTest, ALabelFindsTheTokenButFailsAtTheGate) {
    makeProvider();
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(open("rsa-sign", &key), KSP_NTE_NO_KEY);
    EXPECT_EQ(key, 0u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Resolved key to device: SN1"));
    EXPECT_EQ(availableKeyLines().size(), 3u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Input key not found on token: rsa-sign"));
}

TEST_F(OpenKeyTest, LowerCaseHexFindsTheTokenButFailsAtTheGate) {
    makeProvider("SN1");
    fake::addToken("SN2");
    fake::addKeyPair("SN2", fake::makeKeyPair(kOtherTokenId, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048));
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(open("d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4", &key), KSP_NTE_NO_KEY);
    EXPECT_EQ(provider()->serial, "SN2");  // the lookup ignores case, the gate does not
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Resolved key to device: SN2"));
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "KSP: Input key not found on token: d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4"));
}

TEST_F(OpenKeyTest, AKeyOnALaterTokenMovesTheProviderThere) {
    makeProvider("SN1");
    fake::addToken("SN2");
    fake::addKeyPair("SN2",
                     fake::makeKeyPair(kOtherTokenId, CALYTH_USAGE_EXCHANGE, CALYTH_KEY_EC_P384, "far"));
    NCRYPT_KEY_HANDLE handle = 0;
    ASSERT_EQ(open(kOtherTokenId, &handle), 0);
    EXPECT_EQ(provider()->serial, "SN2");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Resolved key to device: SN2"));
    EXPECT_EQ(fake::hex(keyOf(handle)->keyId, 16), kOtherTokenId);
    EXPECT_EQ(keyOf(handle)->algorithm, CALYTH_KEY_EC_P384);
    EXPECT_EQ(keyOf(handle)->usage, CALYTH_USAGE_EXCHANGE);
    EXPECT_EQ(keyOf(handle)->bits, 384u);
    EXPECT_STREQ(keyOf(handle)->label, "far");

    // The lookup read both tokens' lists (SN1 first, without a match), the open read SN2's.
    std::vector<fake::Call> lists = myCallsTo("calyth_getKeyPairList");
    ASSERT_EQ(lists.size(), 3u);
    EXPECT_EQ(lists[0].serial, "SN1");
    EXPECT_EQ(lists[1].serial, "SN2");
    EXPECT_EQ(lists[2].serial, "SN2");
    ASSERT_EQ(myCallsTo("calyth_getConnectedDeviceList").size(), 1u);
    EXPECT_EQ(myCallsTo("calyth_getConnectedDeviceList")[0].args,
              (std::vector<std::string>{"false", "null"}));
}

TEST_F(OpenKeyTest, ANameThatMatchesNothingMovesTheProviderToTheFirstToken) {
    fake::addToken("SN2");
    fake::addKeyPair("SN2", fake::makeKeyPair(kOtherTokenId, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048));
    makeProvider("SN2");
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(open("0000000000000000000000000000000F", &key), KSP_NTE_NO_KEY);
    EXPECT_EQ(provider()->serial, "SN1");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Resolved key to device: SN1"));
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "KSP: Input key not found on token: 0000000000000000000000000000000F"));
}

TEST_F(OpenKeyTest, AnEmptyNameLeavesTheProvidersToken) {
    fake::addToken("SN2");
    fake::addKeyPair("SN2", fake::makeKeyPair(kOtherTokenId, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048));
    makeProvider("SN2");
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(open("", &key), KSP_NTE_NO_KEY);
    EXPECT_EQ(provider()->serial, "SN2");
    std::vector<fake::Call> lists = myCallsTo("calyth_getKeyPairList");
    ASSERT_EQ(lists.size(), 1u);
    EXPECT_EQ(lists[0].serial, "SN2");
    EXPECT_EQ(availableKeyLines(),
              std::vector<std::string>{std::string("KSP: Available key: ") + kOtherTokenId});
}

TEST_F(OpenKeyTest, ATokenWithoutKeysHasNoKey) {
    fake::token("SN1").keyPairs.clear();
    makeProvider();
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(open(kRsaSignId, &key), KSP_NTE_NO_KEY);
    EXPECT_EQ(key, 0u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: No keys found on token"));
    EXPECT_TRUE(availableKeyLines().empty());
}

TEST_F(OpenKeyTest, SelectionTakesTheFirstKeyWhoseLabelOrIdentifierIsTheName) {
    // A key earlier in the list carries the later key's identifier as its label: the gate passes
    // on the identifier, the selection then takes the first key named so, the labelled one.
    fake::token("SN1").keyPairs.clear();
    fake::addKeyPair("SN1",
                     fake::makeKeyPair(kRsaSignId, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048, kEcSignId));
    fake::addKeyPair("SN1", fake::makeKeyPair(kEcSignId, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_EC_P256));
    makeProvider();
    NCRYPT_KEY_HANDLE handle = 0;
    ASSERT_EQ(open(kEcSignId, &handle), 0);
    EXPECT_EQ(fake::hex(keyOf(handle)->keyId, 16), kRsaSignId);
    EXPECT_EQ(keyOf(handle)->algorithm, CALYTH_KEY_RSA_2048);
    EXPECT_EQ(availableKeyLines().size(), 2u);
}

TEST_F(OpenKeyTest, TheLegacyKeySpecDoesNotOverrideTheName) {
    makeProvider();
    NCRYPT_KEY_HANDLE handle = 0;
    ASSERT_EQ(open(kRsaSignId, &handle, AT_KEYEXCHANGE), 0);
    EXPECT_EQ(fake::hex(keyOf(handle)->keyId, 16), kRsaSignId);
    EXPECT_EQ(keyOf(handle)->usage, CALYTH_USAGE_SIGNATURE);
}

TEST_F(OpenKeyTest, AnOversizedPublicKeyIsRefusedNotCut) {
    CalythKeyPair big = fake::makeKeyPair(kOtherTokenId, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_4096);
    for (size_t i = 0; i < sizeof big.publicKey; ++i)
        big.publicKey[i] = static_cast<unsigned char>(i * 7 + 1);
    big.publicKeyLength = 1024;
    fake::addKeyPair("SN1", big);
    makeProvider();
    NCRYPT_KEY_HANDLE handle = 0;
    ASSERT_EQ(open(kOtherTokenId, &handle), 0);
    KspKey* key = keyOf(handle);
    EXPECT_EQ(key->publicKeyLength, 0u);
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "KSP: Public key from the token too long for the key object, length=1024"));
    // The rest of the record is taken as usual.
    EXPECT_EQ(key->linkIdLength, static_cast<uint32_t>(big.objectIdLength));
    EXPECT_EQ(std::memcmp(key->linkId, big.objectId, key->linkIdLength), 0);
}

TEST_F(OpenKeyTest, ANegativePublicKeyLengthCopiesNothing) {
    CalythKeyPair odd = fake::makeKeyPair(kOtherTokenId, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048);
    odd.publicKeyLength = -5;
    odd.objectIdLength = 4000;
    fake::addKeyPair("SN1", odd);
    makeProvider();
    NCRYPT_KEY_HANDLE handle = 0;
    ASSERT_EQ(open(kOtherTokenId, &handle), 0);
    EXPECT_EQ(keyOf(handle)->publicKeyLength, 0u);
    EXPECT_EQ(keyOf(handle)->linkIdLength, 128u);
}

TEST_F(OpenKeyTest, ALongLabelIsCutTo128Characters) {
    CalythKeyPair labelled = fake::makeKeyPair(kOtherTokenId, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048);
    std::memset(labelled.label, 'L', sizeof labelled.label);  // no terminating NUL at all
    fake::addKeyPair("SN1", labelled);
    makeProvider();
    NCRYPT_KEY_HANDLE handle = 0;
    ASSERT_EQ(open(kOtherTokenId, &handle), 0);
    EXPECT_EQ(std::string(keyOf(handle)->label), std::string(128, 'L'));
}

TEST_F(OpenKeyTest, OpensThroughAProviderOpenedByTheProvider) {
    openProvider();
    NCRYPT_KEY_HANDLE handle = openKey(kRsaExchangeId);
    ASSERT_NE(handle, 0u);
    EXPECT_EQ(keyOf(handle)->usage, CALYTH_USAGE_EXCHANGE);
    EXPECT_STREQ(keyOf(handle)->label, "rsa-exchange");
}

}  // namespace
