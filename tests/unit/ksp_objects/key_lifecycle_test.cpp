// KSPCreatePersistedKey, KSPFinalizeKey, KSPDeleteKey and KSPFreeKey.
#include <gtest/gtest.h>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "ksp/ksp_interface.h"
#include "objects_test_support.h"
#include "token/token_table.h"

namespace {

using ksptest::kEcSignId;
using ksptest::kRsaSignId;
using ksptest::wide;
using objtest::myCallsTo;

class KeyLifecycleTest : public objtest::ObjectsTest {
protected:
    // A provider object on "SN1" that was never initialised.
    NCRYPT_PROV_HANDLE closed() {
        auto* record = new KspProvider{};
        record->serial = "SN1";
        NCRYPT_PROV_HANDLE handle = reinterpret_cast<NCRYPT_PROV_HANDLE>(record);
        keepProvider(handle);
        return handle;
    }
};

// ---- KSPCreatePersistedKey ----

TEST_F(KeyLifecycleTest, CreateRefusesANullOrClosedProvider) {
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(KSPCreatePersistedKey(0, &key, L"RSA", L"k", 0, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(KSPCreatePersistedKey(closed(), &key, L"RSA", L"k", 0, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(key, 0u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPCreatePersistedKey"));
    EXPECT_EQ(
        testsupport::logMessagesAt("ERROR"),
        std::vector<std::string>(2, "KSPCreatePersistedKey: provider handle is null or not initialized"));
}

TEST_F(KeyLifecycleTest, CreateRefusesANullOutputOrAlgorithm) {
    makeProvider();
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(KSPCreatePersistedKey(provider_, nullptr, L"RSA", L"k", 0, 0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPCreatePersistedKey(provider_, &key, nullptr, L"k", 0, 0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(key, 0u);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPCreatePersistedKey: phKey or pszAlgId is null"));
}

TEST_F(KeyLifecycleTest, CreateRefusesOtherAlgorithms) {
    makeProvider();
    for (const wchar_t* algorithm : {L"rsa", L"DSA", L"ECDSA", L"ECDH_P256 ", L"AES", L""}) {
        NCRYPT_KEY_HANDLE key = 0;
        EXPECT_EQ(KSPCreatePersistedKey(provider_, &key, algorithm, L"k", 0, 0), KSP_NTE_NOT_SUPPORTED);
        EXPECT_EQ(key, 0u);
    }
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(6, "KSP: Unsupported algorithm for key generation"));
}

struct CreateCase {
    const wchar_t* algorithm;
    DWORD legacyKeySpec;
    int32_t usage;
    int32_t code;
    uint32_t bits;
};

class CreateTableTest : public objtest::ObjectsTest, public ::testing::WithParamInterface<CreateCase> {};

TEST_P(CreateTableTest, SetsUsageCodeAndLengthWithoutTouchingTheToken) {
    makeProvider();
    const CreateCase& c = GetParam();
    NCRYPT_KEY_HANDLE handle = createKey(c.algorithm, L"my key", c.legacyKeySpec);
    ASSERT_NE(handle, 0u);
    KspKey* key = keyOf(handle);
    EXPECT_EQ(key->usage, c.usage);
    EXPECT_EQ(key->algorithm, c.code);
    EXPECT_EQ(key->bits, c.bits);
    EXPECT_EQ(key->name, L"my key");
    EXPECT_EQ(key->finalized, 0);
    EXPECT_EQ(key->keyIdLength, 0u);
    EXPECT_TRUE(fake::callsFromThisThread().empty());
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Key object created, waiting for FinalizeKey"));
}

INSTANTIATE_TEST_SUITE_P(
    Algorithms, CreateTableTest,
    ::testing::Values(CreateCase{L"RSA", 0, 1, 0, 0}, CreateCase{L"RSA", AT_SIGNATURE, 1, 0, 0},
                      CreateCase{L"RSA", AT_KEYEXCHANGE, 2, 0, 0}, CreateCase{L"ECDSA_P256", 0, 1, 5, 256},
                      CreateCase{L"ECDSA_P384", AT_KEYEXCHANGE, 1, 6, 384},
                      CreateCase{L"ECDSA_P521", 0, 1, 7, 521},
                      CreateCase{L"ECDH_P256", AT_SIGNATURE, 2, 5, 256},
                      CreateCase{L"ECDH_P384", 0, 2, 6, 384}, CreateCase{L"ECDH_P521", 0, 2, 7, 521}));

TEST_F(KeyLifecycleTest, CreateTakesANullNameAsEmpty) {
    makeProvider();
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ(KSPCreatePersistedKey(provider_, &key, L"ECDSA_P256", nullptr, 0, 0), 0);
    keep(key);
    EXPECT_EQ(keyOf(key)->name, L"");
}

// ---- KSPFinalizeKey ----

TEST_F(KeyLifecycleTest, FinalizeRefusesANullOrClosedProvider) {
    makeProvider();
    NCRYPT_KEY_HANDLE key = createKey(L"RSA");
    EXPECT_EQ(KSPFinalizeKey(0, key, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(KSPFinalizeKey(closed(), key, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPFinalizeKey: provider handle is null or not initialized"));
    EXPECT_TRUE(fake::callsFromThisThread().empty());
}

TEST_F(KeyLifecycleTest, FinalizeRefusesANullKey) {
    makeProvider();
    EXPECT_EQ(KSPFinalizeKey(provider_, 0, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPFinalizeKey"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPFinalizeKey: key handle is null"));
}

TEST_F(KeyLifecycleTest, FinalizeOfAnOpenedKeyTouchesNothing) {
    makeProvider();
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    fake::clearCalls();
    EXPECT_EQ(KSPFinalizeKey(provider_, key, 0), 0);
    EXPECT_TRUE(fake::callsFromThisThread().empty());  // no PIN check, no generation
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "KSP: Password not validated, checking SSO"));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "KSP: Key finalized successfully"));
    EXPECT_EQ(fake::hex(keyOf(key)->keyId, 16), kRsaSignId);
}

TEST_F(KeyLifecycleTest, FinalizeFailsWhenThePinCheckFails) {
    makeProvider();
    NCRYPT_KEY_HANDLE key = createKey(L"RSA");
    EXPECT_EQ(KSPFinalizeKey(provider_, key, 0), KSP_NTE_FAIL);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPFinalizeKey: password validation failed"));
    EXPECT_TRUE(myCallsTo("calyth_generateKeyPair").empty());
    EXPECT_EQ(keyOf(key)->finalized, 0);
}

TEST_F(KeyLifecycleTest, AnRsaKeyWithoutLengthBecomesRsa2048) {
    makeProvider();
    storeValidatedPin("SN1", "1234");
    NCRYPT_KEY_HANDLE handle = createKey(L"RSA", L"named here only", AT_KEYEXCHANGE);
    size_t keysBefore = fake::token("SN1").keyPairs.size();
    ASSERT_EQ(KSPFinalizeKey(provider_, handle, 0), 0);
    KspKey* key = keyOf(handle);
    EXPECT_EQ(key->algorithm, CALYTH_KEY_RSA_2048);
    EXPECT_EQ(key->bits, 2048u);
    EXPECT_EQ(key->finalized, 1);

    std::vector<fake::Call> generated = myCallsTo("calyth_generateKeyPair");
    ASSERT_EQ(generated.size(), 1u);
    EXPECT_EQ(generated[0].serial, "SN1");
    // PIN, size code, usage, label: the key name is not sent to the token.
    EXPECT_EQ(generated[0].args, (std::vector<std::string>{"1234", "2", "2", ""}));
    EXPECT_TRUE(
        testsupport::logHasLine("DEBUG", "KSP: FinalizeKey - generating key, algorithm=2 bitSize=2048"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Key finalized successfully"));

    // The object now carries what the token made.
    ASSERT_EQ(fake::token("SN1").keyPairs.size(), keysBefore + 1);
    const CalythKeyPair& made = fake::token("SN1").keyPairs.back();
    EXPECT_EQ(fake::hex(key->keyId, 16), fake::hex(made.keyId, 16));
    EXPECT_EQ(key->keyIdLength, 16u);
    EXPECT_EQ(key->publicKeyLength, 256u);
    EXPECT_EQ(key->linkIdLength, static_cast<uint32_t>(made.objectIdLength));
    EXPECT_EQ(key->tokenFlag, made.tokenFlag);
    EXPECT_STREQ(key->label, "");
    EXPECT_EQ(key->reserved, 0u);
    EXPECT_EQ(key->name, L"named here only");
}

TEST_F(KeyLifecycleTest, AnUnofferedRsaLengthIsGeneratedAs2048AndKeptAsGiven) {
    makeProvider();
    storeValidatedPin("SN1", "1234");
    NCRYPT_KEY_HANDLE handle = createKey(L"RSA");
    keyOf(handle)->bits = 1536;  // as the "Length" property leaves it
    ASSERT_EQ(KSPFinalizeKey(provider_, handle, 0), 0);
    EXPECT_EQ(keyOf(handle)->algorithm, CALYTH_KEY_RSA_2048);
    EXPECT_EQ(keyOf(handle)->bits, 1536u);
    ASSERT_EQ(myCallsTo("calyth_generateKeyPair").size(), 1u);
    EXPECT_EQ(myCallsTo("calyth_generateKeyPair")[0].args[1], "2");
    EXPECT_TRUE(
        testsupport::logHasLine("DEBUG", "KSP: FinalizeKey - generating key, algorithm=2 bitSize=1536"));
}

TEST_F(KeyLifecycleTest, OfferedRsaLengthsPickTheirCodes) {
    makeProvider();
    storeValidatedPin("SN1", "1234");
    const std::pair<uint32_t, std::string> lengths[] = {{1024, "1"}, {2048, "2"}, {3072, "3"}, {4096, "4"}};
    for (const auto& [bits, code] : lengths) {
        fake::clearCalls();
        NCRYPT_KEY_HANDLE handle = createKey(L"RSA");
        keyOf(handle)->bits = bits;
        ASSERT_EQ(KSPFinalizeKey(provider_, handle, 0), 0);
        EXPECT_EQ(keyOf(handle)->algorithm, std::stoi(code));
        EXPECT_EQ(keyOf(handle)->bits, bits);
        ASSERT_EQ(myCallsTo("calyth_generateKeyPair").size(), 1u);
        EXPECT_EQ(myCallsTo("calyth_generateKeyPair")[0].args[1], code);
    }
}

TEST_F(KeyLifecycleTest, CurveKeysTakeTheirCurveLength) {
    makeProvider();
    storeValidatedPin("SN1", "1234");
    NCRYPT_KEY_HANDLE signing = createKey(L"ECDSA_P384");
    keyOf(signing)->bits = 1024;  // a length set on a curve key does not survive
    ASSERT_EQ(KSPFinalizeKey(provider_, signing, 0), 0);
    EXPECT_EQ(keyOf(signing)->bits, 384u);
    EXPECT_EQ(keyOf(signing)->publicKeyLength, 97u);
    EXPECT_TRUE(
        testsupport::logHasLine("DEBUG", "KSP: FinalizeKey - generating key, algorithm=6 bitSize=384"));

    NCRYPT_KEY_HANDLE agreement = createKey(L"ECDH_P521");
    ASSERT_EQ(KSPFinalizeKey(provider_, agreement, 0), 0);
    EXPECT_EQ(keyOf(agreement)->bits, 521u);
    std::vector<fake::Call> generated = myCallsTo("calyth_generateKeyPair");
    ASSERT_EQ(generated.size(), 2u);
    EXPECT_EQ(generated[0].args, (std::vector<std::string>{"1234", "6", "1", ""}));
    EXPECT_EQ(generated[1].args, (std::vector<std::string>{"1234", "7", "2", ""}));
}

TEST_F(KeyLifecycleTest, AnUnknownSizeCodeIsNotSupported) {
    makeProvider();
    storeValidatedPin("SN1", "1234");
    NCRYPT_KEY_HANDLE handle = createKey(L"ECDSA_P256");
    keyOf(handle)->algorithm = 9;
    EXPECT_EQ(KSPFinalizeKey(provider_, handle, 0), KSP_NTE_NOT_SUPPORTED);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPFinalizeKey: unsupported ECC algorithm=9"));
    EXPECT_TRUE(myCallsTo("calyth_generateKeyPair").empty());
    EXPECT_EQ(keyOf(handle)->finalized, 0);
}

TEST_F(KeyLifecycleTest, ThePinCheckComesBeforeTheAlgorithm) {
    makeProvider();
    NCRYPT_KEY_HANDLE handle = createKey(L"ECDSA_P256");
    keyOf(handle)->algorithm = 9;
    EXPECT_EQ(KSPFinalizeKey(provider_, handle, 0), KSP_NTE_FAIL);
    EXPECT_FALSE(testsupport::logHasLine("ERROR", "KSPFinalizeKey: unsupported ECC algorithm=9"));
}

TEST_F(KeyLifecycleTest, AGenerationFailureIsAnInternalError) {
    makeProvider();
    storeValidatedPin("SN1", "1234");
    NCRYPT_KEY_HANDLE handle = createKey(L"RSA");
    fake::failNext("calyth_generateKeyPair", 12);
    EXPECT_EQ(KSPFinalizeKey(provider_, handle, 0), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Key generation failed: 12"));
    EXPECT_EQ(keyOf(handle)->finalized, 0);
    EXPECT_EQ(keyOf(handle)->keyIdLength, 0u);
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "KSP: Key finalized successfully"));
}

// The key object is settled before the token is asked: after a failed RSA generation it reads
// 2048 bits, and a second finalise meets its now non-zero, non-curve code.
TEST_F(KeyLifecycleTest, AFailedRsaGenerationLeavesTheKeySettled) {
    makeProvider();
    storeValidatedPin("SN1", "1234");
    NCRYPT_KEY_HANDLE handle = createKey(L"RSA");
    fake::failNext("calyth_generateKeyPair", 12);
    ASSERT_EQ(KSPFinalizeKey(provider_, handle, 0), KSP_NTE_INTERNAL_ERROR);

    EXPECT_EQ(lengthProperty(handle), 2048u);
    EXPECT_EQ(keyOf(handle)->algorithm, CALYTH_KEY_RSA_2048);
    EXPECT_EQ(keyOf(handle)->finalized, 0);
}

TEST_F(KeyLifecycleTest, ASecondFinalizeAfterAFailedRsaGenerationIsNotSupported) {
    makeProvider();
    storeValidatedPin("SN1", "1234");
    NCRYPT_KEY_HANDLE handle = createKey(L"RSA");
    keyOf(handle)->bits = 1536;
    fake::failNext("calyth_generateKeyPair", 12);
    ASSERT_EQ(KSPFinalizeKey(provider_, handle, 0), KSP_NTE_INTERNAL_ERROR);
    EXPECT_EQ(keyOf(handle)->bits, 1536u) << "an unoffered length is kept as given";

    EXPECT_EQ(KSPFinalizeKey(provider_, handle, 0), KSP_NTE_NOT_SUPPORTED);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPFinalizeKey: unsupported ECC algorithm=2"));
    EXPECT_EQ(keyOf(handle)->finalized, 0);
    EXPECT_EQ(myCallsTo("calyth_generateKeyPair").size(), 1u);
}

TEST_F(KeyLifecycleTest, SingleSignOnPassesThePinCheckWithAnEmptyPin) {
    makeProvider();
    fake::setSingleSignOn("SN1", true);
    NCRYPT_KEY_HANDLE handle = createKey(L"ECDSA_P256");
    ASSERT_EQ(KSPFinalizeKey(provider_, handle, 0), 0);
    ASSERT_EQ(myCallsTo("calyth_generateKeyPair").size(), 1u);
    EXPECT_EQ(myCallsTo("calyth_generateKeyPair")[0].args[0], "");
    EXPECT_TRUE(isPinValidated("SN1"));
}

TEST_F(KeyLifecycleTest, FinalizeUsesTheProvidersTokenAndItsPin) {
    fake::addToken("SN2");
    makeProvider("SN2");
    storeValidatedPin("SN1", "1111");
    storeValidatedPin("SN2", "2222");
    NCRYPT_KEY_HANDLE handle = createKey(L"RSA");
    ASSERT_EQ(KSPFinalizeKey(provider_, handle, 0), 0);
    std::vector<fake::Call> generated = myCallsTo("calyth_generateKeyPair");
    ASSERT_EQ(generated.size(), 1u);
    EXPECT_EQ(generated[0].serial, "SN2");
    EXPECT_EQ(generated[0].args[0], "2222");
}

TEST_F(KeyLifecycleTest, AnExceptionFromTheDeviceStaysInsideTheProvider) {
    makeProvider();
    storeValidatedPin("SN1", "1234");
    NCRYPT_KEY_HANDLE handle = createKey(L"RSA");
    fake::hooks().generateKeyPair = [](const char*, const char*, CalythKeyPair*) -> int {
        throw std::runtime_error("device gone");
    };
    EXPECT_EQ(KSPFinalizeKey(provider_, handle, 0), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPFinalizeKey: unexpected failure"));
    // A fresh key: the first one was settled to code 2 before the device call.
    handle = createKey(L"RSA");
    fake::hooks().generateKeyPair = [](const char*, const char*, CalythKeyPair*) -> int {
        throw std::bad_alloc();
    };
    EXPECT_EQ(KSPFinalizeKey(provider_, handle, 0), KSP_NTE_NO_MEMORY);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPFinalizeKey: out of memory"));
    fake::hooks().generateKeyPair = nullptr;
}

// ---- KSPDeleteKey ----

TEST_F(KeyLifecycleTest, DeleteRefusesANullOrClosedProvider) {
    makeProvider();
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    EXPECT_EQ(KSPDeleteKey(0, key, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(KSPDeleteKey(closed(), key, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPDeleteKey: provider handle is null or not initialized"));
    EXPECT_TRUE(fake::callsFromThisThread().empty());
}

TEST_F(KeyLifecycleTest, DeleteRefusesANullKey) {
    makeProvider();
    EXPECT_EQ(KSPDeleteKey(provider_, 0, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPDeleteKey"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPDeleteKey: key handle is null"));
}

TEST_F(KeyLifecycleTest, DeleteFailsWhenThePinCheckFails) {
    makeProvider();
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    EXPECT_EQ(KSPDeleteKey(provider_, key, 0), KSP_NTE_FAIL);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPDeleteKey: password validation failed"));
    EXPECT_TRUE(myCallsTo("calyth_deleteKeyPair").empty());
    EXPECT_EQ(fake::token("SN1").keyPairs.size(), 3u);
    EXPECT_EQ(keyOf(key)->name, wide(kRsaSignId));
}

TEST_F(KeyLifecycleTest, DeleteRemovesThePairAndKeepsTheObject) {
    makeProvider();
    storeValidatedPin("SN1", "1234");
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    ASSERT_EQ(KSPDeleteKey(provider_, key, 0), 0);
    std::vector<fake::Call> deleted = myCallsTo("calyth_deleteKeyPair");
    ASSERT_EQ(deleted.size(), 1u);
    EXPECT_EQ(deleted[0].serial, "SN1");
    EXPECT_EQ(deleted[0].args, (std::vector<std::string>{kRsaSignId, "1234", "true"}));
    EXPECT_EQ(fake::token("SN1").keyPairs.size(), 2u);
    EXPECT_EQ(keyOf(key)->name, L"");
    EXPECT_EQ(fake::hex(keyOf(key)->keyId, 16), kRsaSignId);  // still readable until KSPFreeKey
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Key deleted successfully"));
}

TEST_F(KeyLifecycleTest, DeleteHandsBackTheTokenFlag) {
    makeProvider();
    storeValidatedPin("SN1", "1234");
    NCRYPT_KEY_HANDLE key = makeKey(kEcSignId);
    keyOf(key)->tokenFlag = 0;
    ASSERT_EQ(KSPDeleteKey(provider_, key, 0), 0);
    ASSERT_EQ(myCallsTo("calyth_deleteKeyPair").size(), 1u);
    EXPECT_EQ(myCallsTo("calyth_deleteKeyPair")[0].args[2], "false");
}

TEST_F(KeyLifecycleTest, ADeviceRefusalIsAnInternalError) {
    makeProvider();
    storeValidatedPin("SN1", "1234");
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    fake::failNext("calyth_deleteKeyPair", 33);
    EXPECT_EQ(KSPDeleteKey(provider_, key, 0), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Delete key failed: 33"));
    EXPECT_EQ(keyOf(key)->name, wide(kRsaSignId));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "KSP: Key deleted successfully"));
}

TEST_F(KeyLifecycleTest, DeleteUnderSingleSignOnSendsAnEmptyPin) {
    makeProvider();
    fake::setSingleSignOn("SN1", true);
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    ASSERT_EQ(KSPDeleteKey(provider_, key, 0), 0);
    ASSERT_EQ(myCallsTo("calyth_deleteKeyPair").size(), 1u);
    EXPECT_EQ(myCallsTo("calyth_deleteKeyPair")[0].args[1], "");
}

TEST_F(KeyLifecycleTest, CreateFinalizeAndDeleteTogether) {
    makeProvider();
    storeValidatedPin("SN1", "1234");
    NCRYPT_KEY_HANDLE handle = createKey(L"ECDSA_P521", L"round trip");
    ASSERT_EQ(KSPFinalizeKey(provider_, handle, 0), 0);
    std::string id = fake::hex(keyOf(handle)->keyId, 16);
    EXPECT_EQ(fake::token("SN1").keyPairs.size(), 4u);
    // The new pair opens by its identifier.
    NCRYPT_KEY_HANDLE reopened = openKey(id);
    ASSERT_NE(reopened, 0u);
    EXPECT_EQ(keyOf(reopened)->algorithm, CALYTH_KEY_EC_P521);
    ASSERT_EQ(KSPDeleteKey(provider_, handle, 0), 0);
    EXPECT_EQ(fake::token("SN1").keyPairs.size(), 3u);
}

// ---- KSPFreeKey ----

TEST_F(KeyLifecycleTest, FreeKeyAcceptsNull) {
    EXPECT_EQ(KSPFreeKey(0, 0), 0);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPFreeKey"));
    EXPECT_TRUE(testsupport::logMessagesAt("ERROR").empty());
}

TEST_F(KeyLifecycleTest, FreeKeyReleasesAKeyWithoutLookingAtTheProvider) {
    makeProvider();
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ(KSPCreatePersistedKey(provider_, &key, L"RSA", L"a key name long enough for the heap", 0, 0),
              0);
    EXPECT_EQ(KSPFreeKey(0, key), 0);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPFreeKey"));
}

}  // namespace
