// Hash object parameters: the value and its cache, algorithm and size, HMAC information.
#include <cstring>
#include <gtest/gtest.h>

#include "csp_test_fixture.h"
#include "token/token_table.h"

namespace csptest {
namespace {

const char* const kSha1Abc = "a9993e364706816aba3e25717850c26c9cd0d89d";
const char* const kSha256Abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

class HashParams : public CspFixture {
protected:
    BOOL getDword(HCRYPTHASH hash, DWORD param, DWORD* value, DWORD* length) {
        return CPGetHashParam(provider(), hash, param, reinterpret_cast<BYTE*>(value), length, 0);
    }
};

TEST_F(HashParams, Sha1ValueSizeQueryShortReadAndRetryFromTheCache) {
    HCRYPTHASH hash = createHash(CALG_SHA1, "abc");

    DWORD length = 0;
    ASSERT_TRUE(CPGetHashParam(provider(), hash, HP_HASHVAL, nullptr, &length, 0));
    EXPECT_EQ(length, 20u);
    EXPECT_EQ(fake::countCalls("calyth_finalHash"), 0u);

    BYTE small[10] = {};
    length = sizeof small;
    SetLastError(0);
    EXPECT_FALSE(CPGetHashParam(provider(), hash, HP_HASHVAL, small, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(length, 20u);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPGetHashParam: HP_HASHVAL buffer too small for finalized hash"));
    auto finals = fake::callsTo("calyth_finalHash");
    ASSERT_EQ(finals.size(), 1u);
    EXPECT_EQ(finals[0].args, (std::vector<std::string>{"ptr", "20"}));

    BYTE value[20] = {};
    length = sizeof value;
    ASSERT_TRUE(CPGetHashParam(provider(), hash, HP_HASHVAL, value, &length, 0));
    EXPECT_EQ(length, 20u);
    EXPECT_EQ(lowerHex(std::vector<unsigned char>(value, value + 20)), kSha1Abc);
    EXPECT_EQ(fake::countCalls("calyth_finalHash"), 1u);
}

TEST_F(HashParams, ShortBufferForACachedValueFailsWithMoreData) {
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    ASSERT_EQ(hashValue(hash), kSha256Abc);
    BYTE small[31] = {};
    DWORD length = sizeof small;
    EXPECT_FALSE(CPGetHashParam(provider(), hash, HP_HASHVAL, small, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(length, 32u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR",
                                        "CPGetHashParam: HP_HASHVAL buffer too small for cached hash value"));
    EXPECT_EQ(fake::countCalls("calyth_finalHash"), 1u);
}

TEST_F(HashParams, TokenFailingToFinishFailsWithNteFailAndTheNextReadAsksAgain) {
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    fake::failNext("calyth_finalHash", 5);
    BYTE value[32];
    DWORD length = sizeof value;
    EXPECT_FALSE(CPGetHashParam(provider(), hash, HP_HASHVAL, value, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetHashParam: calyth_finalHash failed, ret=5"));
    EXPECT_EQ(hashValue(hash), kSha256Abc);
    EXPECT_EQ(fake::countCalls("calyth_finalHash"), 2u);
}

TEST_F(HashParams, GetLogsParameterAndMechanism) {
    HCRYPTHASH hash = createHash(CALG_SHA_384);
    DWORD size = 0, length = 4;
    ASSERT_TRUE(getDword(hash, HP_HASHSIZE, &size, &length));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetHashParam"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetHashParam dwParam : 4"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetHashParam mechanism : 4"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Get hash param hashSize : 48"));
}

TEST_F(HashParams, AlgIdAndSizeAnswerSizeQueriesWithFour) {
    HCRYPTHASH hash = createHash(CALG_SHA_256);
    for (DWORD param : {static_cast<DWORD>(HP_ALGID), static_cast<DWORD>(HP_HASHSIZE)}) {
        DWORD length = 0;
        ASSERT_TRUE(CPGetHashParam(provider(), hash, param, nullptr, &length, 0));
        EXPECT_EQ(length, 4u);
    }
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "Get hash param success"), 2u);
}

TEST_F(HashParams, HashSizeWithAThreeByteBufferFailsWithMoreDataAndAsksForFour) {
    HCRYPTHASH hash = createHash(CALG_SHA_256);
    BYTE buffer[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    DWORD length = 3;
    SetLastError(0);
    EXPECT_FALSE(CPGetHashParam(provider(), hash, HP_HASHSIZE, buffer, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(buffer[0], 0xEE);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetHashParam: HP_HASHSIZE buffer too small"));
}

TEST_F(HashParams, AlgIdWithAnEmptyBufferFailsWithMoreData) {
    HCRYPTHASH hash = createHash(CALG_SHA_256);
    BYTE buffer[4] = {};
    DWORD length = 0;
    EXPECT_FALSE(CPGetHashParam(provider(), hash, HP_ALGID, buffer, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(length, 4u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetHashParam: HP_ALGID buffer too small"));
}

TEST_F(HashParams, HmacInfoIsNeverReadableEvenAfterASet) {
    HCRYPTHASH hash = createHash(CALG_SHA_256);
    BYTE buffer[64] = {};
    DWORD length = sizeof buffer;
    EXPECT_FALSE(CPGetHashParam(provider(), hash, HP_HMAC_INFO, buffer, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPGetHashParam: HP_HMAC_INFO requested but hash is not HMAC"));

    HMAC_INFO info{};
    info.HashAlgid = CALG_SHA_256;
    ASSERT_TRUE(CPSetHashParam(provider(), hash, HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0));
    length = sizeof buffer;
    SetLastError(0);
    EXPECT_FALSE(CPGetHashParam(provider(), hash, HP_HMAC_INFO, buffer, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
    EXPECT_FALSE(CPGetHashParam(provider(), hash, HP_HMAC_INFO, nullptr, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
    EXPECT_EQ(
        testsupport::logLineCount("ERROR", "CPGetHashParam: HP_HMAC_INFO requested but hash is not HMAC"),
        3u);
}

TEST_F(HashParams, HmacInfoSetKeepsTheRecordAndRestartsTheTokenHash) {
    HCRYPTHASH hash = createHash(CALG_SHA_256, "xyz");
    BYTE inner[] = {1, 2, 3};
    HMAC_INFO info{};
    info.HashAlgid = CALG_SHA1;
    info.pbInnerString = inner;
    info.cbInnerString = 3;
    ASSERT_TRUE(CPSetHashParam(provider(), hash, HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Set hash param dwParam : 5"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Set hash param dwFlags : 0"));

    HASH_CONTEXT* record = hashContextFrom(hash);
    EXPECT_EQ(std::memcmp(&record->hmacInfo, &info, sizeof info), 0);
    EXPECT_EQ(record->hmac, 0);
    auto inits = fake::callsTo("calyth_initHash");
    ASSERT_EQ(inits.size(), 2u);
    EXPECT_EQ(inits[1].serial, kSerial);
    EXPECT_EQ(inits[1].args, std::vector<std::string>{"3"});

    // What was fed before the set is gone; the strings never reach the token.
    const BYTE abc[] = {'a', 'b', 'c'};
    ASSERT_TRUE(CPHashData(provider(), hash, abc, 3, 0));
    EXPECT_EQ(hashValue(hash), kSha256Abc);
    for (const fake::Call& call : fake::callsTo("calyth_updateHash"))
        EXPECT_NE(call.args[1], "010203");
}

TEST_F(HashParams, HmacInfoSetKeepsAValueAlreadyCached) {
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    ASSERT_EQ(hashValue(hash), kSha256Abc);
    HMAC_INFO info{};
    ASSERT_TRUE(CPSetHashParam(provider(), hash, HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0));
    EXPECT_EQ(hashValue(hash), kSha256Abc);
    EXPECT_EQ(fake::countCalls("calyth_finalHash"), 1u);
}

TEST_F(HashParams, HmacInfoSetFailsWithNteFailWhenTheTokenRefuses) {
    HCRYPTHASH hash = createHash(CALG_SHA_256);
    fake::failNext("calyth_initHash", 4);
    HMAC_INFO info{};
    EXPECT_FALSE(CPSetHashParam(provider(), hash, HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPSetHashParam: calyth_initHash failed for HP_HMAC_INFO, ret=4"));
}

TEST_F(HashParams, HashValueSetCachesExactlyTheHashLength) {
    HCRYPTHASH hash = createHash(CALG_SHA1, "abc");
    BYTE given[40];
    for (int i = 0; i < 40; ++i)
        given[i] = static_cast<BYTE>(0x40 + i);
    ASSERT_TRUE(CPSetHashParam(provider(), hash, HP_HASHVAL, given, 0));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSetHashParam"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Set hash param dwParam : 2"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Set hash param dwFlags : 0"));

    BYTE value[64] = {};
    DWORD length = sizeof value;
    ASSERT_TRUE(CPGetHashParam(provider(), hash, HP_HASHVAL, value, &length, 0));
    EXPECT_EQ(length, 20u);
    EXPECT_EQ(std::vector<BYTE>(value, value + 20), std::vector<BYTE>(given, given + 20));
    EXPECT_EQ(fake::countCalls("calyth_finalHash"), 0u);
}

TEST_F(HashParams, SetChecksItsArgumentsInOrder) {
    HCRYPTHASH hash = createHash(CALG_SHA_256);
    BYTE data[64] = {};
    EXPECT_FALSE(CPSetHashParam(provider(), hash, HP_HASHVAL, nullptr, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "CPSetHashParam: invalid parameter - hProv=" + std::to_string(provider()) +
                     " hHash=" + std::to_string(hash) + " pbData=0"));
    EXPECT_FALSE(CPSetHashParam(0, hash, HP_HASHVAL, data, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));

    EXPECT_FALSE(CPSetHashParam(provider(), hash, HP_HASHVAL, data, 0x10));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_FLAGS));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPSetHashParam: invalid dwFlags=0x00000010"));

    CspContext fresh;
    EXPECT_FALSE(CPSetHashParam(handleOf(fresh), hash, HP_HASHVAL, data, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_HASH));
    HASH_CONTEXT invalid{};
    EXPECT_FALSE(CPSetHashParam(provider(), handleOf(invalid), HP_HASHVAL, data, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_HASH));
    EXPECT_EQ(testsupport::logLineCount("ERROR", "CPSetHashParam: context not initialized or hash not valid"),
              2u);

    EXPECT_FALSE(CPSetHashParam(provider(), hash, 99, data, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPSetHashParam: unsupported dwParam=0x00000063"));
    EXPECT_EQ(hashContextFrom(hash)->finalized, 0);
}

TEST_F(HashParams, GetChecksItsArgumentsInOrder) {
    HCRYPTHASH hash = createHash(CALG_SHA_256);
    DWORD length = 4;
    DWORD value = 0;
    EXPECT_FALSE(CPGetHashParam(provider(), hash, HP_ALGID, reinterpret_cast<BYTE*>(&value), nullptr, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "CPGetHashParam: invalid parameter - hProv=" + std::to_string(provider()) +
                     " hHash=" + std::to_string(hash) + " pcbDataLen=0"));
    EXPECT_FALSE(CPGetHashParam(provider(), 0, HP_ALGID, reinterpret_cast<BYTE*>(&value), &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));

    EXPECT_FALSE(CPGetHashParam(provider(), hash, HP_ALGID, reinterpret_cast<BYTE*>(&value), &length, 3));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_FLAGS));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetHashParam: invalid dwFlags=0x00000003"));

    CspContext fresh;
    EXPECT_FALSE(
        CPGetHashParam(handleOf(fresh), hash, HP_ALGID, reinterpret_cast<BYTE*>(&value), &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_HASH));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPGetHashParam: context not initialized or hash not valid"));

    EXPECT_FALSE(CPGetHashParam(provider(), hash, 99, reinterpret_cast<BYTE*>(&value), &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetHashParam: unsupported dwParam=0x00000063"));
    EXPECT_EQ(value, 0u);
}

// CPSignHash leaves the chosen key's key-size code where the hash code was; the parameters then
// read it as a hash code.
class HashParamsAfterKeyChoice : public HashParams {
protected:
    HCRYPTHASH hashSignedWithKeyCode(int32_t keySizeCode) {
        fake::addKeyPair(kSerial, fake::makeKeyPair("00112233445566778899AABBCCDDEEFF", 1, keySizeCode));
        HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
        DWORD sigLen = 0;
        EXPECT_TRUE(CPSignHash(provider(), hash, AT_SIGNATURE, nullptr, 0, nullptr, &sigLen));
        return hash;
    }
};

TEST_F(HashParamsAfterKeyChoice, Rsa2048KeyMakesASha256ObjectAnswerSha1) {
    HCRYPTHASH hash = hashSignedWithKeyCode(CALYTH_KEY_RSA_2048);
    DWORD algId = 0, size = 0, length = 4;
    ASSERT_TRUE(getDword(hash, HP_ALGID, &algId, &length));
    EXPECT_EQ(algId, static_cast<DWORD>(CALG_SHA1));
    length = 4;
    ASSERT_TRUE(getDword(hash, HP_HASHSIZE, &size, &length));
    EXPECT_EQ(size, 20u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetHashParam mechanism : 2"));
}

TEST_F(HashParamsAfterKeyChoice, Rsa1024KeyMakesAlgorithmSizeAndValueUnsupported) {
    HCRYPTHASH hash = hashSignedWithKeyCode(CALYTH_KEY_RSA_1024);
    DWORD value = 0, length = 4;
    EXPECT_FALSE(getDword(hash, HP_ALGID, &value, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_ALGID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetHashParam: HP_ALGID unsupported mechanism=1"));
    length = 4;
    EXPECT_FALSE(getDword(hash, HP_HASHSIZE, &value, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_ALGID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetHashParam: HP_HASHSIZE unsupported mechanism=1"));
    length = 0;
    EXPECT_FALSE(CPGetHashParam(provider(), hash, HP_HASHVAL, nullptr, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_ALGID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetHashParam: HP_HASHVAL unsupported mechanism=1"));
}

}  // namespace
}  // namespace csptest
