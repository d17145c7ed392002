// Hash objects: creation, feeding, duplication, destruction and the refused session-key hash.
#include <gtest/gtest.h>

#include "csp_test_fixture.h"

namespace csptest {
namespace {

const char* const kSha256Abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
const char* const kSha256Ab = "fb8e20fc2e4c3f248c60c39bd652f3c1347298bb977b8b4d5903b85055620603";
const char* const kSha256C = "2e7d2c03a9507ae265ecf5b5356885a53393a2029d241394997265a1a25aefc6";

class HashObjects : public CspFixture {};

struct AlgorithmCase {
    ALG_ID algId;
    int mechanism;
    DWORD length;
    const char* logLine;
};

class HashAlgorithms : public CspFixture, public ::testing::WithParamInterface<AlgorithmCase> {};

TEST_P(HashAlgorithms, CreateStartsTheTokenHashWithItsCodeAndReportsAlgorithmAndSize) {
    const AlgorithmCase& c = GetParam();
    HCRYPTHASH hash = createHash(c.algId);
    ASSERT_NE(hash, 0u);

    auto calls = fake::callsTo("calyth_initHash");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, kSerial);
    EXPECT_EQ(calls[0].args, std::vector<std::string>{std::to_string(c.mechanism)});
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPCreateHash"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Crete hash algorithm input : " + std::to_string(c.algId)));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", c.logLine));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Crete hash algorithm : " + std::to_string(c.mechanism)));

    HASH_CONTEXT* record = hashContextFrom(hash);
    EXPECT_EQ(record->valid, 1);
    EXPECT_EQ(record->finalized, 0);
    EXPECT_EQ(record->hmac, 0);
    EXPECT_EQ(record->mechanism, c.mechanism);
    EXPECT_EQ(record->hashAlgorithm, c.mechanism);
    EXPECT_EQ(record->hashLength, c.length);
    EXPECT_EQ(record->valueLength, 0u);
    EXPECT_EQ(record->signKeyIdLength, 0);

    DWORD algId = 0, size = 0, length = 4;
    ASSERT_TRUE(CPGetHashParam(provider(), hash, HP_ALGID, reinterpret_cast<BYTE*>(&algId), &length, 0));
    EXPECT_EQ(algId, c.algId);
    length = 4;
    ASSERT_TRUE(CPGetHashParam(provider(), hash, HP_HASHSIZE, reinterpret_cast<BYTE*>(&size), &length, 0));
    EXPECT_EQ(size, c.length);
    EXPECT_EQ(hashValue(hash).size(), 2 * c.length);
}

INSTANTIATE_TEST_SUITE_P(AllOffered, HashAlgorithms,
                         ::testing::Values(AlgorithmCase{CALG_SHA1, 2, 20, "Crete hash algorithm sha1"},
                                           AlgorithmCase{CALG_SHA_256, 3, 32, "Crete hash algorithm 256"},
                                           AlgorithmCase{CALG_SHA_384, 4, 48, "Crete hash algorithm 384"},
                                           AlgorithmCase{CALG_SHA_512, 5, 64, "Crete hash algorithm 512"}));

TEST_F(HashObjects, Md5IsRefusedAfterTheAlgorithmInputLine) {
    HCRYPTHASH hash = 0;
    SetLastError(0);
    EXPECT_FALSE(CPCreateHash(provider(), CALG_MD5, 0, 0, &hash));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_ALGID));
    EXPECT_EQ(hash, 0u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Crete hash algorithm input : 32771"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPCreateHash: unsupported Algid=0x00008003"));
    EXPECT_EQ(fake::countCalls("calyth_initHash"), 0u);
}

TEST_F(HashObjects, HmacAndSsl3AreRefusedToo) {
    for (ALG_ID algId : {static_cast<ALG_ID>(CALG_HMAC), static_cast<ALG_ID>(CALG_SSL3_SHAMD5)}) {
        HCRYPTHASH hash = 0;
        EXPECT_FALSE(CPCreateHash(provider(), algId, 0, 0, &hash));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_ALGID));
    }
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPCreateHash: unsupported Algid=0x00008009"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPCreateHash: unsupported Algid=0x00008008"));
    EXPECT_EQ(fake::countCalls("calyth_initHash"), 0u);
}

TEST_F(HashObjects, CreateWithFlagsFailsWithBadFlags) {
    HCRYPTHASH hash = 0;
    EXPECT_FALSE(CPCreateHash(provider(), CALG_SHA_256, 0, 1, &hash));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_FLAGS));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPCreateHash: invalid dwFlags=0x00000001"));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "Crete hash algorithm input : 32780"));
    EXPECT_EQ(fake::countCalls("calyth_initHash"), 0u);
}

TEST_F(HashObjects, CreateWithNullOutputOrProviderFailsWithInvalidParameter) {
    EXPECT_FALSE(CPCreateHash(provider(), CALG_SHA_256, 0, 0, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "CPCreateHash: invalid parameter - phHash=0 hProv=" + std::to_string(provider())));

    HCRYPTHASH hash = 0;
    EXPECT_FALSE(CPCreateHash(0, CALG_SHA_256, 0, 0, &hash));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPCreateHash: invalid parameter - phHash=" +
                                                     std::to_string(reinterpret_cast<uintptr_t>(&hash)) +
                                                     " hProv=0"));
    EXPECT_EQ(fake::countCalls("calyth_initHash"), 0u);
}

TEST_F(HashObjects, CreateOnAnUninitialisedContextFailsWithBadUid) {
    CspContext fresh;
    HCRYPTHASH hash = 0;
    EXPECT_FALSE(CPCreateHash(handleOf(fresh), CALG_SHA_256, 0, 0, &hash));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPCreateHash: context not initialized"));
}

TEST_F(HashObjects, TokenRefusingTheHashFailsCreateWithNteFail) {
    fake::failNext("calyth_initHash", 7);
    HCRYPTHASH hash = 0;
    EXPECT_FALSE(CPCreateHash(provider(), CALG_SHA_256, 0, 0, &hash));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_EQ(hash, 0u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPCreateHash: calyth_initHash failed, ret=7"));
}

TEST_F(HashObjects, VerifyOnlyContextHashesWithAnEmptySerial) {
    CspContext verifyOnly;
    verifyOnly.initialized = true;
    HCRYPTHASH hash = 0;
    ASSERT_TRUE(CPCreateHash(handleOf(verifyOnly), CALG_SHA_256, 0, 0, &hash));
    auto calls = fake::callsTo("calyth_initHash");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, "");
    EXPECT_TRUE(CPDestroyHash(handleOf(verifyOnly), hash));
}

TEST_F(HashObjects, DataReachesTheTokenAndTheValueIsTheRealDigest) {
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    auto calls = fake::callsTo("calyth_updateHash");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].args, (std::vector<std::string>{"ptr", "616263", "3"}));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPHashData"));
    EXPECT_EQ(hashValue(hash), kSha256Abc);
}

TEST_F(HashObjects, HashDataChecksContextAndHandle) {
    const BYTE data[] = {1, 2, 3};
    CspContext fresh;
    EXPECT_FALSE(CPHashData(handleOf(fresh), 1, data, 3, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_FALSE(CPHashData(0, 1, data, 3, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_EQ(testsupport::logLineCount("ERROR", "CPHashData: invalid or uninitialized context"), 2u);

    EXPECT_FALSE(CPHashData(provider(), 0, data, 3, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_HASH));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPHashData: pHashHandle is NULL"));
    EXPECT_EQ(fake::countCalls("calyth_updateHash"), 0u);
}

TEST_F(HashObjects, TokenRefusingDataFailsWithNteFail) {
    HCRYPTHASH hash = createHash(CALG_SHA_256);
    fake::failNext("calyth_updateHash", 12);
    const BYTE data[] = {1};
    EXPECT_FALSE(CPHashData(provider(), hash, data, 1, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPHashData: calyth_updateHash failed, ret=12"));
}

TEST_F(HashObjects, DataAfterTheValueWasReadStillSucceedsButTheValueStays) {
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    ASSERT_EQ(hashValue(hash), kSha256Abc);
    const BYTE more[] = {'x', 'y'};
    EXPECT_TRUE(CPHashData(provider(), hash, more, 2, 0));
    EXPECT_EQ(fake::callsTo("calyth_updateHash").size(), 2u);
    EXPECT_EQ(hashValue(hash), kSha256Abc);
    EXPECT_EQ(fake::countCalls("calyth_finalHash"), 1u);
}

TEST_F(HashObjects, DuplicateOfAFedHashHashesOnlyWhatTheDuplicateIsFedAfterwards) {
    HCRYPTHASH source = createHash(CALG_SHA_256, "ab");
    HCRYPTHASH duplicate = 0;
    ASSERT_TRUE(CPDuplicateHash(provider(), source, nullptr, 0, &duplicate));
    hashes.push_back(duplicate);
    ASSERT_NE(duplicate, source);

    auto calls = fake::callsTo("calyth_initHash");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].serial, kSerial);
    EXPECT_EQ(calls[1].args, std::vector<std::string>{"3"});
    EXPECT_NE(hashContextFrom(duplicate)->deviceHash, hashContextFrom(source)->deviceHash);

    char pointers[128];
    std::snprintf(pointers, sizeof pointers, "CPDuplicateHash - source: 0x%llX duplicate: 0x%llX",
                  static_cast<unsigned long long>(source), static_cast<unsigned long long>(duplicate));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", pointers)) << pointers;

    const BYTE c[] = {'c'};
    ASSERT_TRUE(CPHashData(provider(), duplicate, c, 1, 0));
    EXPECT_EQ(hashValue(duplicate), kSha256C);
    EXPECT_EQ(hashValue(source), kSha256Ab);
}

TEST_F(HashObjects, DuplicateOfAReadHashCarriesTheCachedValue) {
    HCRYPTHASH source = createHash(CALG_SHA_256, "abc");
    ASSERT_EQ(hashValue(source), kSha256Abc);
    HCRYPTHASH duplicate = 0;
    ASSERT_TRUE(CPDuplicateHash(provider(), source, nullptr, 0, &duplicate));
    hashes.push_back(duplicate);
    EXPECT_EQ(hashValue(duplicate), kSha256Abc);
    EXPECT_EQ(fake::countCalls("calyth_finalHash"), 1u);
    EXPECT_EQ(hashContextFrom(duplicate)->hashLength, 32u);
    EXPECT_EQ(hashContextFrom(duplicate)->finalized, 1);
}

TEST_F(HashObjects, DuplicateChecksItsArgumentsInOrder) {
    HCRYPTHASH source = createHash(CALG_SHA_256);
    HCRYPTHASH duplicate = 0;

    EXPECT_FALSE(CPDuplicateHash(provider(), source, nullptr, 0, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "CPDuplicateHash: invalid parameter - phHash=0 hProv=" + std::to_string(provider()) +
                     " hHash=" + std::to_string(source)));
    EXPECT_FALSE(CPDuplicateHash(provider(), 0, nullptr, 0, &duplicate));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_FALSE(CPDuplicateHash(0, source, nullptr, 0, &duplicate));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));

    EXPECT_FALSE(CPDuplicateHash(provider(), source, nullptr, 2, &duplicate));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_FLAGS));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPDuplicateHash: invalid dwFlags=0x00000002"));

    CspContext fresh;
    EXPECT_FALSE(CPDuplicateHash(handleOf(fresh), source, nullptr, 0, &duplicate));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPDuplicateHash: invalid or uninitialized context"));

    HASH_CONTEXT invalid{};
    EXPECT_FALSE(CPDuplicateHash(provider(), handleOf(invalid), nullptr, 0, &duplicate));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_HASH));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPDuplicateHash: source hash is NULL or invalid"));

    EXPECT_EQ(duplicate, 0u);
    EXPECT_EQ(fake::countCalls("calyth_initHash"), 1u);
}

TEST_F(HashObjects, DuplicateFailsWithNteFailWhenTheTokenRefusesTheNewHash) {
    HCRYPTHASH source = createHash(CALG_SHA_256);
    fake::failNext("calyth_initHash", 21);
    HCRYPTHASH duplicate = 0;
    EXPECT_FALSE(CPDuplicateHash(provider(), source, nullptr, 0, &duplicate));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_EQ(duplicate, 0u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPDuplicateHash: calyth_initHash failed, ret=21"));
}

TEST_F(HashObjects, DestroyFreesWithoutTouchingTheToken) {
    HCRYPTHASH hash = 0;
    ASSERT_TRUE(CPCreateHash(provider(), CALG_SHA_256, 0, 0, &hash));
    fake::clearCalls();
    EXPECT_TRUE(CPDestroyHash(provider(), hash));
    EXPECT_TRUE(fake::calls().empty());
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPDestroyHash"));
}

TEST_F(HashObjects, DestroyChecksContextAndHandle) {
    CspContext fresh;
    EXPECT_FALSE(CPDestroyHash(handleOf(fresh), 1));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPDestroyHash: invalid or uninitialized context"));
    EXPECT_FALSE(CPDestroyHash(provider(), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_HASH));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPDestroyHash: pHashHandle is NULL"));
}

TEST_F(HashObjects, HashSessionKeyAlwaysFailsWithCallNotImplemented) {
    HCRYPTHASH hash = createHash(CALG_SHA_256);
    EXPECT_FALSE(CPHashSessionKey(provider(), hash, 6, 7));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_CALL_NOT_IMPLEMENTED));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPHashSessionKey"));
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "CPHashSessionKey: not supported, hHash=" + std::to_string(hash) + " hKey=6 dwFlags=7"));
    EXPECT_FALSE(CPHashSessionKey(0, 0, 0, 0));
    EXPECT_EQ(GetLastError(), 120u);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPHashSessionKey: not supported, hHash=0 hKey=0 dwFlags=0"));
}

}  // namespace
}  // namespace csptest
