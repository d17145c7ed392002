// CPGetProvParam / CPSetProvParam: context test, fixed values, names, key specs, security
// descriptor, hardware-random switch and PINs.
#include <cstring>

#include "param_test_context.h"

using namespace paramtest;

namespace {

constexpr DWORD kUntouched = 0xDEADBEEF;

DWORD readDword(const BYTE* data) {
    DWORD value;
    std::memcpy(&value, data, sizeof value);
    return value;
}

}  // namespace

// ---- the context test ----

TEST_F(ParamTest, GetWithNullHandleFailsWithBadUid) {
    DWORD length = 4;
    BYTE data[4] = {};
    SetLastError(0);
    EXPECT_FALSE(CPGetProvParam(0, PP_VERSION, data, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    std::vector<std::string> lines = testsupport::logMessages();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], "CPGetProvParam");
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetProvParam: context is null or not initialized"));
}

TEST_F(ParamTest, GetWithUninitialisedContextFailsWithBadUid) {
    CspContext context = tokenContext();
    context.initialized = false;
    DWORD length = 4;
    BYTE data[4] = {};
    EXPECT_FALSE(CPGetProvParam(handleOf(context), PP_VERSION, data, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetProvParam: context is null or not initialized"));
    EXPECT_EQ(length, 4u);
}

TEST_F(ParamTest, SetWithNullOrUninitialisedContextFailsWithBadUid) {
    DWORD value = 0;
    EXPECT_FALSE(CPSetProvParam(0, PP_USE_HARDWARE_RNG, reinterpret_cast<BYTE*>(&value), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    CspContext context = tokenContext();
    context.initialized = false;
    EXPECT_FALSE(CPSetProvParam(handleOf(context), PP_USE_HARDWARE_RNG, reinterpret_cast<BYTE*>(&value), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_TRUE(g_useHardwareRng);
    EXPECT_EQ(testsupport::logMessages()[0], "CPSetProvParam");
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPSetProvParam: context is null or not initialized"));
}

TEST_F(ParamTest, GetLogsTheParameterTwice) {
    CspContext context = tokenContext();
    DWORD length = 4;
    BYTE data[4];
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_VERSION, data, &length, 0));
    std::vector<std::string> lines = testsupport::logMessages();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], "CPGetProvParam");
    EXPECT_EQ(lines[1], "CPGetProvParam input : 5");
    EXPECT_EQ(lines[2], "CPGetProvParam : 5");
}

// ---- unsupported parameters ----

class UnsupportedParamTest : public ParamTest, public ::testing::WithParamInterface<DWORD> {};

TEST_P(UnsupportedParamTest, FailsWithBadType) {
    CspContext context = tokenContext(kKeyA, {kKeyA});
    DWORD length = 64;
    BYTE data[64] = {};
    SetLastError(0);
    EXPECT_FALSE(CPGetProvParam(handleOf(context), GetParam(), data, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
    EXPECT_TRUE(testsupport::logHasLine("ERROR",
                                        "CPGetProvParam: unsupported dwParam=" + std::to_string(GetParam())));
    EXPECT_EQ(fake::calls().size(), 0u);
}

INSTANTIATE_TEST_SUITE_P(NumbersOutsideTheSupportedSet, UnsupportedParamTest,
                         ::testing::Values(0, 7, 10, 11, 12, 13, 14, 15, 18, 19, 20, 21, 23, 24, 25, 26, 28,
                                           29, 30, 34, 35, 37, 41, 1000, 0xFFFFFFFF));

TEST_F(ParamTest, NullLengthPointerIsRefusedWithoutACrash) {
    CspContext context = tokenContext();
    BYTE data[64];
    EXPECT_FALSE(CPGetProvParam(handleOf(context), PP_NAME, data, nullptr, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

// ---- plain 32-bit values ----

struct PlainValue {
    DWORD param;
    DWORD expected;
};

class PlainValueTest : public ParamTest, public ::testing::WithParamInterface<PlainValue> {};

TEST_P(PlainValueTest, StoredWithLengthFour) {
    CspContext context = tokenContext();
    BYTE data[8];
    std::memset(data, 0xEE, sizeof data);
    DWORD length = sizeof data;
    SetLastError(kUntouched);
    ASSERT_TRUE(CPGetProvParam(handleOf(context), GetParam().param, data, &length, 0));
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(readDword(data), GetParam().expected);
    EXPECT_EQ(data[4], 0xEE);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetProvParam out length : 4"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetProvParam return success"));
}

TEST_P(PlainValueTest, MissingOrShortBufferGivesTrueWithoutMoreData) {
    CspContext context = tokenContext();
    DWORD length = 0;
    SetLastError(kUntouched);
    ASSERT_TRUE(CPGetProvParam(handleOf(context), GetParam().param, nullptr, &length, 0));
    EXPECT_EQ(length, 4u);
    EXPECT_NE(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));

    BYTE data[4] = {0x11, 0x22, 0x33, 0x44};
    length = 3;
    SetLastError(kUntouched);
    ASSERT_TRUE(CPGetProvParam(handleOf(context), GetParam().param, data, &length, 0));
    EXPECT_EQ(length, 4u);
    EXPECT_NE(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(readDword(data), 0x44332211u);
}

INSTANTIATE_TEST_SUITE_P(ImplementationVersionTypeKeyset, PlainValueTest,
                         ::testing::Values(PlainValue{PP_IMPTYPE, 9}, PlainValue{PP_VERSION, 0x100},
                                           PlainValue{PP_PROVTYPE, 1}, PlainValue{PP_KEYSET_TYPE, 0x1000}));

TEST_F(ParamTest, ImplementationTypeAnnouncesTheStore) {
    CspContext context = tokenContext();
    DWORD length = 0;
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_IMPTYPE, nullptr, &length, 0));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "CPGetProvParam not null value provided"));
    BYTE data[4];
    length = 4;
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_IMPTYPE, data, &length, 0));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetProvParam not null value provided"));
}

TEST_F(ParamTest, KeysetTypeIsTheContextsOwn) {
    CspContext context = tokenContext();
    context.keysetType = 0x20;
    BYTE data[4];
    DWORD length = 4;
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_KEYSET_TYPE, data, &length, 0));
    EXPECT_EQ(readDword(data), 0x20u);
}

// ---- provider name ----

TEST_F(ParamTest, NameIntoALargeBufferReportsThirtyThree) {
    CspContext context = tokenContext();
    char data[40];
    std::memset(data, 'x', sizeof data);
    DWORD length = sizeof data;
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_NAME, reinterpret_cast<BYTE*>(data), &length, 0));
    EXPECT_EQ(length, 33u);
    EXPECT_STREQ(data, "Calyth Cryptographic Provider CSP");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetProvParam out length : 33"));
}

TEST_F(ParamTest, NameSizeQueryReportsThirtyFour) {
    CspContext context = tokenContext();
    DWORD length = 0;
    SetLastError(kUntouched);
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_NAME, nullptr, &length, 0));
    EXPECT_EQ(length, 34u);
    EXPECT_NE(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetProvParam out length : 34"));
}

TEST_F(ParamTest, NameIntoThirtyThreeBytesIsNotWritten) {
    CspContext context = tokenContext();
    char data[33];
    std::memset(data, 'x', sizeof data);
    DWORD length = sizeof data;
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_NAME, reinterpret_cast<BYTE*>(data), &length, 0));
    EXPECT_EQ(length, 34u);
    EXPECT_EQ(data[0], 'x');
}

// ---- fixed values that signal a short buffer ----

struct SignalledValue {
    DWORD param;
    DWORD expected;
    const char* debugLine;  // logged with every query, or null
};

class SignalledValueTest : public ParamTest, public ::testing::WithParamInterface<SignalledValue> {};

TEST_P(SignalledValueTest, StoredWithLengthFour) {
    CspContext context = tokenContext();
    BYTE data[8];
    std::memset(data, 0xEE, sizeof data);
    DWORD length = sizeof data;
    ASSERT_TRUE(CPGetProvParam(handleOf(context), GetParam().param, data, &length, 0));
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(readDword(data), GetParam().expected);
    if (GetParam().debugLine) {
        EXPECT_TRUE(testsupport::logHasLine("DEBUG", GetParam().debugLine));
    }
}

TEST_P(SignalledValueTest, MissingOrShortBufferGivesTrueWithMoreData) {
    CspContext context = tokenContext();
    DWORD length = 0;
    SetLastError(0);
    ASSERT_TRUE(CPGetProvParam(handleOf(context), GetParam().param, nullptr, &length, 0));
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));

    BYTE data[4] = {0x11, 0x22, 0x33, 0x44};
    length = 2;
    SetLastError(0);
    ASSERT_TRUE(CPGetProvParam(handleOf(context), GetParam().param, data, &length, 0));
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(readDword(data), 0x44332211u);
}

INSTANTIATE_TEST_SUITE_P(
    KeyStoragePinsSigningProtocol, SignalledValueTest,
    ::testing::Values(SignalledValue{PP_KEYSTORAGE, 9, nullptr},
                      SignalledValue{PP_ADMIN_PIN, 1, "CPGetProvParam: PIN query"},
                      SignalledValue{PP_KEYEXCHANGE_PIN, 1, "CPGetProvParam: PIN query"},
                      SignalledValue{PP_SIGNATURE_PIN, 1, "CPGetProvParam: PIN query"},
                      SignalledValue{PP_ENUMEX_SIGNING_PROT, 1, "CPGetProvParam: PP_ENUMEX_SIGNING_PROT = 1"},
                      SignalledValue{PP_USE_HARDWARE_RNG, 1, "CPGetProvParam: PP_USE_HARDWARE_RNG = 1"}));

TEST_F(ParamTest, PinQueryNeverReturnsAStoredPin) {
    storeValidatedPin(kSerial, "987654");
    CspContext context = tokenContext();
    BYTE data[16];
    std::memset(data, 0, sizeof data);
    DWORD length = sizeof data;
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_SIGNATURE_PIN, data, &length, 0));
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(readDword(data), 1u);
    EXPECT_EQ(data[4], 0);
}

// ---- hardware-random switch ----

TEST_F(ParamTest, HardwareRngSetToFiveReadsBackAsOne) {
    CspContext context = tokenContext();
    g_useHardwareRng = false;
    DWORD five = 5;
    ASSERT_TRUE(CPSetProvParam(handleOf(context), PP_USE_HARDWARE_RNG, reinterpret_cast<BYTE*>(&five), 0));
    EXPECT_TRUE(g_useHardwareRng);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSetProvParam: PP_USE_HARDWARE_RNG set to 1"));
    BYTE data[4];
    DWORD length = 4;
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_USE_HARDWARE_RNG, data, &length, 0));
    EXPECT_EQ(readDword(data), 1u);
}

TEST_F(ParamTest, HardwareRngSwitchIsSharedByAllContexts) {
    CspContext first = tokenContext();
    CspContext second = verifyContext();
    DWORD zero = 0;
    ASSERT_TRUE(CPSetProvParam(handleOf(first), PP_USE_HARDWARE_RNG, reinterpret_cast<BYTE*>(&zero), 0));
    EXPECT_FALSE(g_useHardwareRng);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSetProvParam: PP_USE_HARDWARE_RNG set to 0"));
    BYTE data[4] = {0xFF, 0xFF, 0xFF, 0xFF};
    DWORD length = 4;
    ASSERT_TRUE(CPGetProvParam(handleOf(second), PP_USE_HARDWARE_RNG, data, &length, 0));
    EXPECT_EQ(readDword(data), 0u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetProvParam: PP_USE_HARDWARE_RNG = 0"));
}

TEST_F(ParamTest, HardwareRngQueryWithoutRoomSaysRequiredSizeIsLarge) {
    CspContext context = tokenContext();
    DWORD length = 0;
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_USE_HARDWARE_RNG, nullptr, &length, 0));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Required size is Large"));
    EXPECT_FALSE(testsupport::logContains("PP_USE_HARDWARE_RNG = "));
}

TEST_F(ParamTest, HardwareRngWithNullDataIsRefused) {
    CspContext context = tokenContext();
    g_useHardwareRng = false;
    EXPECT_FALSE(CPSetProvParam(handleOf(context), PP_USE_HARDWARE_RNG, nullptr, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_FALSE(g_useHardwareRng);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPSetProvParam: NULL data for PP_USE_HARDWARE_RNG"));
}

// ---- key specification ----

TEST_F(ParamTest, KeySpecOfAVerifyContextIsBoth) {
    CspContext context = verifyContext();
    BYTE data[4];
    DWORD length = 4;
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_KEYSPEC, data, &length, 0));
    EXPECT_EQ(readDword(data), static_cast<DWORD>(AT_KEYEXCHANGE | AT_SIGNATURE));
    EXPECT_EQ(length, 4u);
    EXPECT_TRUE(testsupport::logHasLine(
        "DEBUG", "CPGetProvParam PP_KEYSPEC: no container, returning supported specs"));
    EXPECT_EQ(fake::countCalls("calyth_getKeyPairList"), 0u);
}

TEST_F(ParamTest, KeySpecWithoutContainerNameIsBoth) {
    CspContext context = tokenContext("");
    BYTE data[4];
    DWORD length = 4;
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_KEYSPEC, data, &length, 0));
    EXPECT_EQ(readDword(data), 3u);
}

struct UsageCase {
    int32_t usage;
    DWORD keySpec;
};

class KeySpecUsageTest : public ParamTest, public ::testing::WithParamInterface<UsageCase> {};

TEST_P(KeySpecUsageTest, FollowsTheKeyPairsUsage) {
    fake::addToken(kSerial);
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048));
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyB, GetParam().usage, CALYTH_KEY_RSA_2048));
    CspContext context = tokenContext(kKeyB, {kKeyA, kKeyB});
    BYTE data[4] = {0xFF, 0xFF, 0xFF, 0xFF};
    DWORD length = 4;
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_KEYSPEC, data, &length, 0));
    EXPECT_EQ(readDword(data), GetParam().keySpec);
    std::vector<fake::Call> calls = fake::callsTo("calyth_getKeyPairList");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, kSerial);
}

INSTANTIATE_TEST_SUITE_P(ExchangeSignatureBothOther, KeySpecUsageTest,
                         ::testing::Values(UsageCase{2, AT_KEYEXCHANGE}, UsageCase{1, AT_SIGNATURE},
                                           UsageCase{3, AT_SIGNATURE}, UsageCase{0, 0}, UsageCase{7, 0}));

TEST_F(ParamTest, KeySpecOfAnUnknownContainerFailsWithNoKey) {
    fake::addToken(kSerial);
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, CALYTH_USAGE_EXCHANGE, CALYTH_KEY_RSA_2048));
    CspContext context = tokenContext(kKeyC, {kKeyA});
    BYTE data[4];
    DWORD length = 4;
    EXPECT_FALSE(CPGetProvParam(handleOf(context), PP_KEYSPEC, data, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NO_KEY));
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", std::string("CPGetProvParam PP_KEYSPEC: key not found for container=") + kKeyC));
}

TEST_F(ParamTest, KeySpecComparesTheContainerNameExactly) {
    fake::addToken(kSerial);
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyB, CALYTH_USAGE_EXCHANGE, CALYTH_KEY_RSA_2048));
    CspContext context = tokenContext("a0a1a2a3a4a5a6a7a8a9aaabacadaeaf", {kKeyB});
    BYTE data[4];
    DWORD length = 4;
    EXPECT_FALSE(CPGetProvParam(handleOf(context), PP_KEYSPEC, data, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NO_KEY));
}

TEST_F(ParamTest, KeySpecSizeQueryGivesTrueWithMoreData) {
    fake::addToken(kSerial);
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, CALYTH_USAGE_EXCHANGE, CALYTH_KEY_RSA_2048));
    CspContext context = tokenContext(kKeyA, {kKeyA});
    DWORD length = 0;
    SetLastError(0);
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_KEYSPEC, nullptr, &length, 0));
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
}

// ---- container name ----

class ContainerParamTest : public ParamTest, public ::testing::WithParamInterface<DWORD> {};

TEST_P(ContainerParamTest, ReturnsTheContainerNameAndMarksItQueried) {
    CspContext context = tokenContext("MyContainer", {kKeyA});
    char data[64];
    std::memset(data, 'x', sizeof data);
    DWORD length = sizeof data;
    ASSERT_TRUE(CPGetProvParam(handleOf(context), GetParam(), reinterpret_cast<BYTE*>(data), &length, 0));
    EXPECT_EQ(length, 12u);
    EXPECT_STREQ(data, "MyContainer");
    EXPECT_EQ(context.containerQueried, 1);
    EXPECT_TRUE(testsupport::logHasLine(
        "DEBUG", "CPGetProvParam: PP_CONTAINER/PP_UNIQUE_CONTAINER=MyContainer, return TRUE"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetProvParam return success"));
}

TEST_P(ContainerParamTest, SizeQueryAndShortBufferGiveTrueWithMoreData) {
    CspContext context = tokenContext("MyContainer", {kKeyA});
    DWORD length = 0;
    SetLastError(0);
    ASSERT_TRUE(CPGetProvParam(handleOf(context), GetParam(), nullptr, &length, 0));
    EXPECT_EQ(length, 12u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(context.containerQueried, 1);
    EXPECT_TRUE(testsupport::logHasLine(
        "DEBUG",
        "CPGetProvParam: PP_CONTAINER/PP_UNIQUE_CONTAINER size query, requiredSize=12, return TRUE"));
    char data[11];
    std::memset(data, 'x', sizeof data);
    length = sizeof data;
    SetLastError(0);
    ASSERT_TRUE(CPGetProvParam(handleOf(context), GetParam(), reinterpret_cast<BYTE*>(data), &length, 0));
    EXPECT_EQ(length, 12u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(data[0], 'x');
}

TEST_P(ContainerParamTest, NoContainerAnswersTheEmptyString) {
    CspContext context = verifyContext();
    char data[4] = {'x', 'x', 'x', 'x'};
    DWORD length = sizeof data;
    ASSERT_TRUE(CPGetProvParam(handleOf(context), GetParam(), reinterpret_cast<BYTE*>(data), &length, 0));
    EXPECT_EQ(length, 1u);
    EXPECT_EQ(data[0], '\0');
}

INSTANTIATE_TEST_SUITE_P(ContainerAndUniqueContainer, ContainerParamTest,
                         ::testing::Values(PP_CONTAINER, PP_UNIQUE_CONTAINER));

// ---- key-set security descriptor ----

TEST_F(ParamTest, SecurityDescriptorSizeQueryGivesTrueWithMoreData) {
    CspContext context = tokenContext();
    DWORD length = 0;
    SetLastError(0);
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_KEYSET_SEC_DESCR, nullptr, &length, 0));
    EXPECT_GE(length, static_cast<DWORD>(sizeof(SECURITY_DESCRIPTOR_RELATIVE)));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetProvParam: PP_KEYSET_SEC_DESCR"));

    std::vector<BYTE> data(length - 1, 0xAB);
    DWORD shortLength = length - 1;
    SetLastError(0);
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_KEYSET_SEC_DESCR, data.data(), &shortLength, 0));
    EXPECT_EQ(shortLength, length);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(data[0], 0xAB);
}

TEST_F(ParamTest, SecurityDescriptorIsSelfRelativeWithANullDacl) {
    CspContext context = tokenContext();
    DWORD length = 0;
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_KEYSET_SEC_DESCR, nullptr, &length, 0));
    std::vector<BYTE> data(length + 16, 0);
    DWORD room = static_cast<DWORD>(data.size());
    // The SECURITY_INFORMATION asked for makes no difference.
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_KEYSET_SEC_DESCR, data.data(), &room,
                               OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION));
    PSECURITY_DESCRIPTOR descriptor = data.data();
    ASSERT_TRUE(IsValidSecurityDescriptor(descriptor));
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    ASSERT_TRUE(GetSecurityDescriptorControl(descriptor, &control, &revision));
    EXPECT_EQ(revision, static_cast<DWORD>(SECURITY_DESCRIPTOR_REVISION));
    EXPECT_TRUE(control & SE_SELF_RELATIVE);
    EXPECT_TRUE(control & SE_DACL_PRESENT);
    EXPECT_FALSE(control & SE_DACL_DEFAULTED);
    BOOL present = FALSE;
    BOOL defaulted = TRUE;
    PACL dacl = reinterpret_cast<PACL>(1);
    ASSERT_TRUE(GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted));
    EXPECT_TRUE(present);
    EXPECT_EQ(dacl, nullptr);
    EXPECT_FALSE(defaulted);
    EXPECT_EQ(GetSecurityDescriptorLength(descriptor), length);
}

// ---- CPSetProvParam ----

TEST_F(ParamTest, SetLogsItsInput) {
    CspContext context = tokenContext();
    HWND window = reinterpret_cast<HWND>(0x1234);
    ASSERT_TRUE(CPSetProvParam(handleOf(context), PP_CLIENT_HWND, reinterpret_cast<BYTE*>(&window), 0));
    std::vector<std::string> lines = testsupport::logMessages();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], "CPSetProvParam");
    EXPECT_EQ(lines[1], "CPSetProvParam - input param : 1");
}

TEST_F(ParamTest, ClientWindowIsKeptInTheContext) {
    CspContext context = tokenContext();
    HWND window = reinterpret_cast<HWND>(static_cast<uintptr_t>(0x123456789ABCull));
    ASSERT_TRUE(CPSetProvParam(handleOf(context), PP_CLIENT_HWND, reinterpret_cast<BYTE*>(&window), 0));
    EXPECT_EQ(context.clientWindow, window);
    ASSERT_TRUE(CPSetProvParam(handleOf(context), PP_CLIENT_HWND, nullptr, 0));
    EXPECT_EQ(context.clientWindow, nullptr);
}

TEST_F(ParamTest, UnsupportedSetParametersFailWithBadType) {
    CspContext context = tokenContext();
    const char pin[] = "1234";
    for (DWORD param : {static_cast<DWORD>(PP_ADMIN_PIN), static_cast<DWORD>(PP_NAME), 0ul, 99ul}) {
        SetLastError(0);
        EXPECT_FALSE(CPSetProvParam(handleOf(context), param, reinterpret_cast<const BYTE*>(pin), 0));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
        EXPECT_TRUE(
            testsupport::logHasLine("ERROR", "CPSetProvParam: unsupported dwParam=" + std::to_string(param)));
    }
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 0u);
    EXPECT_FALSE(isPinValidated(kSerial));
}

class PinParamTest : public ParamTest, public ::testing::WithParamInterface<DWORD> {};

TEST_P(PinParamTest, RightPinIsStoredForTheToken) {
    fake::addToken(kSerial).pin = "4711";
    CspContext context = tokenContext(kKeyA, {kKeyA});
    const char pin[] = "4711";
    ASSERT_TRUE(CPSetProvParam(handleOf(context), GetParam(), reinterpret_cast<const BYTE*>(pin), 0));
    std::vector<fake::Call> calls = fake::callsTo("calyth_validatePassword");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, kSerial);
    EXPECT_EQ(calls[0].args, (std::vector<std::string>{"4711", "1"}));
    EXPECT_TRUE(isPinValidated(kSerial));
    EXPECT_EQ(getValidatedPin(kSerial), "4711");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSetProvParam - passwordLength : 4"));
    EXPECT_FALSE(testsupport::logContains("4711"));
}

TEST_P(PinParamTest, WrongPinFailsWithKeysetEntryBad) {
    fake::addToken(kSerial).pin = "4711";
    CspContext context = tokenContext(kKeyA, {kKeyA});
    const char pin[] = "0000";
    SetLastError(0);
    EXPECT_FALSE(CPSetProvParam(handleOf(context), GetParam(), reinterpret_cast<const BYTE*>(pin), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_KEYSET_ENTRY_BAD));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPSetProvParam - Token password validation failed : 1"));
    EXPECT_FALSE(isPinValidated(kSerial));
    EXPECT_EQ(getValidatedPin(kSerial), "");
}

TEST_P(PinParamTest, DeviceResultIsLoggedNotPassedOn) {
    fake::addToken(kSerial);
    fake::failNext("calyth_validatePassword", CALYTH_SYSTEM_TIME_MISMATCH);
    CspContext context = tokenContext();
    const char pin[] = "1234";
    EXPECT_FALSE(CPSetProvParam(handleOf(context), GetParam(), reinterpret_cast<const BYTE*>(pin), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_KEYSET_ENTRY_BAD));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPSetProvParam - Token password validation failed : 48"));
}

TEST_P(PinParamTest, NullPinIsRefused) {
    fake::addToken(kSerial);
    CspContext context = tokenContext();
    SetLastError(0);
    EXPECT_FALSE(CPSetProvParam(handleOf(context), GetParam(), nullptr, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPSetProvParam: NULL PIN data"));
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 0u);
}

INSTANTIATE_TEST_SUITE_P(ExchangeAndSignaturePins, PinParamTest,
                         ::testing::Values(PP_KEYEXCHANGE_PIN, PP_SIGNATURE_PIN));
