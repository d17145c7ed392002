// CPGenKey, CPGetUserKey, CPDestroyKey and CPDeriveKey against the fake token.
#include <cstring>

#include "csp_keys_fixture.h"
#include "token/token_table.h"
#include "util/utils.h"

using namespace keystest;

namespace {

class GenKeyTest : public KeysTest {
protected:
    void SetUp() override {
        KeysTest::SetUp();
        storeValidatedPin("SN1", "1234");
    }
    std::string hexOf(const KEY_HANDLE* key) { return Utils().bytesToHex(key->keyId, 16); }
};

TEST_F(GenKeyTest, SignatureKeyWithoutSizeFailsWithBadLen) {
    HCRYPTKEY key = 0x1234;
    EXPECT_FALSE(CPGenKey(prov(), AT_SIGNATURE, 0, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_LEN));
    EXPECT_EQ(key, 0u) << "the handle is cleared before anything is checked";
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "rsa sign"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Unsupported Length2"));
    EXPECT_EQ(fake::countCalls("calyth_generateKeyPair"), 0u);
}

TEST_F(GenKeyTest, ExchangeKeyWithoutSizeFailsWithBadLen) {
    HCRYPTKEY key = 0;
    EXPECT_FALSE(CPGenKey(prov(), AT_KEYEXCHANGE, 0, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_LEN));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "key exhange"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Unsupported Length1"));
}

TEST_F(GenKeyTest, SignatureKeyWithSizeInUpperFlagBitsStoresBitsAndAlgid2) {
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CPGenKey(prov(), AT_SIGNATURE, 0x08000000, &key));
    keep(key);
    EXPECT_EQ(getDword(key, KP_KEYLEN), 2048u);
    EXPECT_EQ(getDword(key, KP_ALGID), 2u);
    EXPECT_EQ(keyHandleFrom(key)->keyUsage, 1);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Key generated successfully, Algid=2 bits=2048"));
}

TEST_F(GenKeyTest, RsaKeyExchangeWithoutSizeDefaultsTo2048) {
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CPGenKey(prov(), CALG_RSA_KEYX, 0, &key));
    keep(key);
    EXPECT_EQ(keyHandleFrom(key)->bits, 2048u);
    EXPECT_EQ(keyHandleFrom(key)->keyUsage, 2);
    EXPECT_EQ(getDword(key, KP_ALGID), static_cast<DWORD>(CALG_RSA_KEYX));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "key exhange"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Key generated successfully, Algid=41984 bits=2048"));
}

TEST_F(GenKeyTest, RsaSignWithExplicitSizeKeepsTheGivenSizeAndSendsNoSize) {
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CPGenKey(prov(), CALG_RSA_SIGN, (1024u << 16) | CRYPT_EXPORTABLE, &key));
    keep(key);
    EXPECT_EQ(keyHandleFrom(key)->bits, 1024u);
    EXPECT_EQ(keyHandleFrom(key)->keyUsage, 1);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "rsa sign"));
    // serial SN1, validated PIN, a request with no size code, no usage, no label.
    auto calls = fake::callsTo("calyth_generateKeyPair");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, "SN1");
    EXPECT_EQ(calls[0].args, (std::vector<std::string>{"1234", "0", "0", ""}));
}

TEST_F(GenKeyTest, CopiesTheGeneratedKeyPairAndClearsTheTokenFlag) {
    fake::hooks().generateKeyPair = [](const char*, const char*, CalythKeyPair* keyPair) {
        *keyPair = fake::makeKeyPair("ABCDEF0123456789ABCDEF0123456789", 3, CALYTH_KEY_RSA_2048, "generated");
        keyPair->tokenFlag = 1;
        return 0;
    };
    HCRYPTKEY handle = 0;
    ASSERT_TRUE(CPGenKey(prov(), CALG_RSA_SIGN, 0, &handle));
    keep(handle);
    const KEY_HANDLE* key = keyHandleFrom(handle);
    CalythKeyPair expected =
        fake::makeKeyPair("ABCDEF0123456789ABCDEF0123456789", 3, CALYTH_KEY_RSA_2048, "generated");
    EXPECT_EQ(hexOf(key), "ABCDEF0123456789ABCDEF0123456789");
    EXPECT_EQ(key->keyIdLength, 16);
    EXPECT_EQ(key->keyUsage, 1) << "usage comes from the algorithm, not from the token";
    EXPECT_EQ(key->tokenFlag, 0);
    EXPECT_EQ(key->mode, static_cast<uint32_t>(CRYPT_MODE_CBC));
    EXPECT_STREQ(key->label, "generated");
    ASSERT_EQ(key->publicKeyLength, 256);
    EXPECT_EQ(std::memcmp(key->publicKey, expected.publicKey, 256), 0);
    ASSERT_EQ(key->objectIdLength, expected.objectIdLength);
    EXPECT_EQ(std::memcmp(key->objectId, expected.objectId, expected.objectIdLength), 0);
}

TEST_F(GenKeyTest, MovesTheContextAndTheApplicationContainerNameToTheNewKey) {
    context_.containerName = "my-app-container";
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CPGenKey(prov(), CALG_RSA_KEYX, 0, &key));
    keep(key);
    std::string newId = hexOf(keyHandleFrom(key));
    EXPECT_EQ(context_.containerName, newId);
    EXPECT_EQ(resolveContainer("my-app-container"), newId);
}

TEST_F(GenKeyTest, EmptyContainerNameRecordsNoContainerEntry) {
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CPGenKey(prov(), CALG_RSA_KEYX, 0, &key));
    keep(key);
    std::string resolved;
    EXPECT_FALSE(lookupResolvedContainer("", &resolved));
    EXPECT_EQ(context_.containerName, hexOf(keyHandleFrom(key)));
}

TEST_F(GenKeyTest, NullHandlePointerFailsWithInvalidParameter) {
    EXPECT_FALSE(CPGenKey(prov(), CALG_RSA_KEYX, 0, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGenKey: phKey is NULL"));
}

TEST_F(GenKeyTest, NullOrUninitialisedContextFailsWithBadUid) {
    HCRYPTKEY key = 0;
    EXPECT_FALSE(CPGenKey(0, CALG_RSA_KEYX, 0, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    context_.initialized = false;
    EXPECT_FALSE(CPGenKey(prov(), CALG_RSA_KEYX, 0, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Invalid CSP context"));
}

TEST_F(GenKeyTest, UnsupportedAlgorithmFailsWithBadAlgid) {
    HCRYPTKEY key = 0;
    EXPECT_FALSE(CPGenKey(prov(), CALG_AES_128, 0x00800000, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_ALGID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Unsupported algorithm26126"));
    EXPECT_EQ(fake::countCalls("calyth_generateKeyPair"), 0u);
}

TEST_F(GenKeyTest, FailedPinCheckKeepsTheErrorOfThePinCheck) {
    clearValidatedPin("SN1");
    context_.silent = true;
    HCRYPTKEY key = 0;
    EXPECT_FALSE(CPGenKey(prov(), CALG_RSA_KEYX, 0, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_SILENT_CONTEXT));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGenKey: ensurePasswordValidated failed"));
    EXPECT_EQ(fake::countCalls("calyth_generateKeyPair"), 0u);
    EXPECT_EQ(key, 0u);
}

TEST_F(GenKeyTest, DeviceFailureBecomesKeysetStorageFull) {
    fake::failNext("calyth_generateKeyPair", 5);
    HCRYPTKEY key = 0;
    context_.containerName = "unchanged";
    EXPECT_FALSE(CPGenKey(prov(), CALG_RSA_KEYX, 0, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_TOKEN_KEYSET_STORAGE_FULL));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "RSA Keypair Generation Failed, code=5"));
    EXPECT_EQ(key, 0u);
    EXPECT_EQ(context_.containerName, "unchanged");
}

class GetUserKeyTest : public KeysTest {
protected:
    void SetUp() override {
        KeysTest::SetUp();
        CalythKeyPair noUsage = fake::makeKeyPair("00000000000000000000000000000000", 0, CALYTH_KEY_RSA_2048);
        fake::addKeyPair("SN1", noUsage);
        fake::addKeyPair("SN1", fake::makeKeyPair(kSignId, 1, CALYTH_KEY_RSA_1024, "sign"));
        fake::addKeyPair("SN1", fake::makeKeyPair(kExchangeId, 2, CALYTH_KEY_RSA_2048, "exchange"));
        fake::addKeyPair("SN1", fake::makeKeyPair(kBothId, 3, CALYTH_KEY_RSA_3072, "both"));
    }
    std::string idOf(HCRYPTKEY key) { return Utils().bytesToHex(keyHandleFrom(key)->keyId, 16); }
};

TEST_F(GetUserKeyTest, SignatureWithEmptyContainerTakesFirstKeyWithAnyUsage) {
    HCRYPTKEY key = userKey(AT_SIGNATURE);
    ASSERT_NE(key, 0u);
    EXPECT_EQ(idOf(key), kSignId);
    EXPECT_EQ(keyHandleFrom(key)->algId, static_cast<uint32_t>(CALG_RSA_SIGN));
    EXPECT_EQ(keyHandleFrom(key)->bits, 1024u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetUserKey -> dwKeySpec : 2"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Sign key found"));
    EXPECT_TRUE(
        testsupport::logHasLine("DEBUG", "CPGetUserKey: algo=9216 keyUsage=1 bits=1024, return TRUE"));
}

TEST_F(GetUserKeyTest, SignatureAcceptsAnExchangeKeyWhenItComesFirst) {
    fake::token("SN1").keyPairs.erase(fake::token("SN1").keyPairs.begin() + 1);  // drop the usage-1 key
    HCRYPTKEY key = userKey(AT_SIGNATURE);
    ASSERT_NE(key, 0u);
    EXPECT_EQ(idOf(key), kExchangeId);
    EXPECT_EQ(keyHandleFrom(key)->algId, static_cast<uint32_t>(CALG_RSA_SIGN));
    EXPECT_EQ(keyHandleFrom(key)->keyUsage, 2);
}

TEST_F(GetUserKeyTest, KeyExchangeSkipsSignatureOnlyKeys) {
    HCRYPTKEY key = userKey(AT_KEYEXCHANGE);
    ASSERT_NE(key, 0u);
    EXPECT_EQ(idOf(key), kExchangeId);
    EXPECT_EQ(keyHandleFrom(key)->algId, static_cast<uint32_t>(CALG_RSA_KEYX));
    EXPECT_EQ(keyHandleFrom(key)->bits, 2048u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Encryption key found"));
}

TEST_F(GetUserKeyTest, CopiesTheKeyPairFields) {
    fake::token("SN1").keyPairs[2].tokenFlag = 7;
    HCRYPTKEY handle = userKey(AT_KEYEXCHANGE);
    ASSERT_NE(handle, 0u);
    const KEY_HANDLE* key = keyHandleFrom(handle);
    const CalythKeyPair& pair = fake::token("SN1").keyPairs[2];
    EXPECT_EQ(key->keyIdLength, 16);
    EXPECT_EQ(key->tokenFlag, 7);
    EXPECT_EQ(key->keyUsage, 2);
    EXPECT_EQ(key->mode, static_cast<uint32_t>(CRYPT_MODE_CBC));
    EXPECT_STREQ(key->label, "exchange");
    ASSERT_EQ(key->publicKeyLength, pair.publicKeyLength);
    EXPECT_EQ(std::memcmp(key->publicKey, pair.publicKey, pair.publicKeyLength), 0);
    ASSERT_EQ(key->objectIdLength, pair.objectIdLength);
    EXPECT_EQ(std::memcmp(key->objectId, pair.objectId, pair.objectIdLength), 0);
    EXPECT_EQ(key->symmetricKeyLength, 0);
}

TEST_F(GetUserKeyTest, KeySpecThreeWithoutQueriedContainerFailsWithBadKey) {
    HCRYPTKEY key = 0x99;
    EXPECT_FALSE(CPGetUserKey(prov(), 3, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "CPGetUserKey: requested key not found, dwKeySpec=3 container=, return FALSE"));
    EXPECT_EQ(key, 0x99u) << "nothing is handed out on failure";
}

TEST_F(GetUserKeyTest, KeySpecThreeWithQueriedContainerTakesTheFirstKeyAsSignatureKey) {
    context_.containerQueried = 1;
    HCRYPTKEY key = userKey(3);
    ASSERT_NE(key, 0u);
    EXPECT_EQ(idOf(key), kSignId);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Sign key found"));
}

TEST_F(GetUserKeyTest, ContainerNameSelectsExactlyThatKey) {
    context_.containerName = kBothId;
    HCRYPTKEY key = userKey(AT_KEYEXCHANGE);
    ASSERT_NE(key, 0u);
    EXPECT_EQ(idOf(key), kBothId);
    EXPECT_EQ(keyHandleFrom(key)->bits, 3072u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", std::string("CPGetUserKey - Container name : ") + kBothId));
}

TEST_F(GetUserKeyTest, ContainerNameComparisonIsCaseSensitive) {
    context_.containerName = "abcdefabcdefabcdefabcdefabcdefab";
    fake::addKeyPair("SN1", fake::makeKeyPair("ABCDEFABCDEFABCDEFABCDEFABCDEFAB", 3, CALYTH_KEY_RSA_2048));
    HCRYPTKEY key = 0;
    EXPECT_FALSE(CPGetUserKey(prov(), AT_SIGNATURE, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
}

TEST_F(GetUserKeyTest, SignatureKeyUsageOnlyDoesNotServeKeyExchange) {
    context_.containerName = kSignId;
    HCRYPTKEY key = 0;
    EXPECT_FALSE(CPGetUserKey(prov(), AT_KEYEXCHANGE, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", std::string("CPGetUserKey: requested key not found, dwKeySpec=1 container=") + kSignId +
                     ", return FALSE"));
}

TEST_F(GetUserKeyTest, EllipticCurveSignatureKeyReportsEcdsa) {
    fake::token("SN1").keyPairs.clear();
    fake::addKeyPair("SN1", fake::makeKeyPair(kSignId, 1, CALYTH_KEY_EC_P384));
    HCRYPTKEY key = userKey(AT_SIGNATURE);
    ASSERT_NE(key, 0u);
    EXPECT_EQ(getDword(key, KP_ALGID), static_cast<DWORD>(CALG_ECDSA));
    EXPECT_EQ(keyHandleFrom(key)->bits, 384u);
}

TEST_F(GetUserKeyTest, EllipticCurveExchangeKeyStillReportsRsaKeyExchange) {
    fake::token("SN1").keyPairs.clear();
    fake::addKeyPair("SN1", fake::makeKeyPair(kExchangeId, 2, CALYTH_KEY_EC_P256));
    HCRYPTKEY key = userKey(AT_KEYEXCHANGE);
    ASSERT_NE(key, 0u);
    EXPECT_EQ(getDword(key, KP_ALGID), static_cast<DWORD>(CALG_RSA_KEYX));
}

TEST_F(GetUserKeyTest, EmptyKeyListFailsWithNoKey) {
    fake::token("SN1").keyPairs.clear();
    HCRYPTKEY key = 0;
    EXPECT_FALSE(CPGetUserKey(prov(), AT_SIGNATURE, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NO_KEY));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetUserKey: key list is empty"));
}

TEST_F(GetUserKeyTest, NullArgumentsAndUninitialisedContext) {
    HCRYPTKEY key = 0;
    EXPECT_FALSE(CPGetUserKey(prov(), AT_SIGNATURE, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_FALSE(CPGetUserKey(0, AT_SIGNATURE, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetUserKey: phUserKey or hProv is null"));
    context_.initialized = false;
    EXPECT_FALSE(CPGetUserKey(prov(), AT_SIGNATURE, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetUserKey: context is not initialized"));
    EXPECT_EQ(fake::countCalls("calyth_getKeyPairList"), 0u);
}

TEST_F(GetUserKeyTest, AsksTheTokenForItsKeyListEachTime) {
    userKey(AT_SIGNATURE);
    userKey(AT_SIGNATURE);
    auto calls = fake::callsTo("calyth_getKeyPairList");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].serial, "SN1");
}

class DestroyAndDeriveTest : public KeysTest {};

TEST_F(DestroyAndDeriveTest, DestroyKeyChecksContextThenHandle) {
    KEY_HANDLE* key = allocateKeyHandle();
    EXPECT_FALSE(CPDestroyKey(0, handleOf(key)));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPDestroyKey: invalid or uninitialized context"));
    EXPECT_FALSE(CPDestroyKey(prov(), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPDestroyKey: pKeyHandle is NULL"));
    EXPECT_TRUE(CPDestroyKey(prov(), handleOf(key)));
    EXPECT_TRUE(fake::calls().empty()) << "the token's key is not touched";
}

TEST_F(DestroyAndDeriveTest, DeriveKeyIsNotSupported) {
    HCRYPTKEY key = 0;
    EXPECT_FALSE(CPDeriveKey(prov(), CALG_AES_128, 0, 0, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NOT_SUPPORTED));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPDeriveKey"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPDeriveKey: not supported"));
}

}  // namespace
