// Random bytes from the token's generator or the device library's software source.
#include <gtest/gtest.h>

#include "csp_test_fixture.h"

namespace csptest {
namespace {

class Random : public CspFixture {};

std::vector<BYTE> pattern(BYTE first, size_t length) {
    std::vector<BYTE> out(length);
    for (size_t i = 0; i < length; ++i)
        out[i] = static_cast<BYTE>(first + i);
    return out;
}

TEST_F(Random, TokenContextAsksTheTokensGeneratorWhileTheSwitchIsOn) {
    std::vector<BYTE> buffer(16, 0);
    ASSERT_TRUE(CPGenRandom(provider(), 16, buffer.data()));
    auto calls = fake::callsTo("calyth_generateRamdomNumber");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, kSerial);
    EXPECT_EQ(calls[0].args, (std::vector<std::string>{"16", "false"}));
    EXPECT_EQ(buffer, pattern(0x80, 16));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGenRandom"));
}

TEST_F(Random, WithTheSwitchOffATokenContextPassesItsSerialButAsksForSoftware) {
    const DWORD off = 0;
    ASSERT_TRUE(CPSetProvParam(provider(), PP_USE_HARDWARE_RNG, reinterpret_cast<const BYTE*>(&off), 0));
    std::vector<BYTE> buffer(8, 0);
    ASSERT_TRUE(CPGenRandom(provider(), 8, buffer.data()));
    auto calls = fake::callsTo("calyth_generateRamdomNumber");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, kSerial);
    EXPECT_EQ(calls[0].args, (std::vector<std::string>{"8", "true"}));
    EXPECT_EQ(buffer, pattern(0x10, 8));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "CPGenRandom: no token, using software RNG"));

    // The switch is process-wide: another context sees it, and turning it on again is seen at once.
    CspContext other;
    other.initialized = true;
    other.serialNumber = kSerial;
    ASSERT_TRUE(CPGenRandom(handleOf(other), 2, buffer.data()));
    const DWORD on = 1;
    ASSERT_TRUE(CPSetProvParam(provider(), PP_USE_HARDWARE_RNG, reinterpret_cast<const BYTE*>(&on), 0));
    ASSERT_TRUE(CPGenRandom(provider(), 2, buffer.data()));
    calls = fake::callsTo("calyth_generateRamdomNumber");
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[1].args, (std::vector<std::string>{"2", "true"}));
    EXPECT_EQ(calls[2].args, (std::vector<std::string>{"2", "false"}));
}

TEST_F(Random, VerifyOnlyContextAlwaysUsesSoftwareWhateverTheSwitch) {
    CspContext verifyOnly;
    verifyOnly.initialized = true;
    for (DWORD hardware : {1u, 0u}) {
        ASSERT_TRUE(
            CPSetProvParam(provider(), PP_USE_HARDWARE_RNG, reinterpret_cast<const BYTE*>(&hardware), 0));
        std::vector<BYTE> buffer(4, 0);
        ASSERT_TRUE(CPGenRandom(handleOf(verifyOnly), 4, buffer.data()));
        EXPECT_EQ(buffer, pattern(0x10, 4));
    }
    auto calls = fake::callsTo("calyth_generateRamdomNumber");
    ASSERT_EQ(calls.size(), 2u);
    for (const fake::Call& call : calls) {
        EXPECT_EQ(call.serial, "");
        EXPECT_EQ(call.args, (std::vector<std::string>{"4", "true"}));
    }
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "CPGenRandom: no token, using software RNG"), 2u);
}

TEST_F(Random, ZeroLengthWithABufferFailsBeforeAnyDeviceCall) {
    BYTE buffer[4] = {};
    SetLastError(0);
    EXPECT_FALSE(CPGenRandom(provider(), 0, buffer));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGenRandom: invalid buffer or length, cbLen=0"));
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Random, NullBufferFailsWithInvalidParameter) {
    EXPECT_FALSE(CPGenRandom(provider(), 8, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGenRandom: invalid buffer or length, cbLen=8"));
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Random, TokenFailureFailsWithoutRetryingInSoftware) {
    fake::failNext("calyth_generateRamdomNumber", 9);
    BYTE buffer[8] = {};
    SetLastError(0);
    EXPECT_FALSE(CPGenRandom(provider(), 8, buffer));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Random number generation failed: 9"));
    EXPECT_EQ(fake::countCalls("calyth_generateRamdomNumber"), 1u);
}

TEST_F(Random, SoftwareFailureOfAVerifyOnlyContextFails) {
    CspContext verifyOnly;
    verifyOnly.initialized = true;
    fake::failNext("calyth_generateRamdomNumber", 4);
    BYTE buffer[8] = {};
    EXPECT_FALSE(CPGenRandom(handleOf(verifyOnly), 8, buffer));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGenRandom: software RNG failed: 4"));
    EXPECT_EQ(fake::countCalls("calyth_generateRamdomNumber"), 1u);
}

TEST_F(Random, NullOrUninitialisedContextFailsWithBadUid) {
    BYTE buffer[8] = {};
    CspContext fresh;
    EXPECT_FALSE(CPGenRandom(handleOf(fresh), 8, buffer));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_FALSE(CPGenRandom(0, 0, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_EQ(testsupport::logLineCount("ERROR", "CPGenRandom: context is null or not initialized"), 2u);
    EXPECT_TRUE(fake::calls().empty());
}

}  // namespace
}  // namespace csptest
