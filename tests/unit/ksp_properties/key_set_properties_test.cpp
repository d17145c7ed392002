// KSPSetKeyProperty, all but the certificate: handle and argument checks, the window, length, usage,
// chaining mode, the process-wide IV and the PIN.
#include <windows.h>

#include <ncrypt.h>

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_device/fake_device.h"
#include "ksp/ksp_interface.h"
#include "ksp/ksp_objects.h"
#include "properties_fixture.h"
#include "token/process_state.h"
#include "token/token_table.h"

using ksptest::kRsaSignId;
using proptest::narrowBytes;
using proptest::wideBytes;
using ::testing::ElementsAre;
using testsupport::FencedBuffer;

namespace {

std::vector<BYTE> dwordBytes(DWORD value) {
    std::vector<BYTE> out(sizeof value);
    std::memcpy(out.data(), &value, sizeof value);
    return out;
}

std::vector<BYTE> windowBytes(uintptr_t value) {
    std::vector<BYTE> out(sizeof value);
    std::memcpy(out.data(), &value, sizeof value);
    return out;
}

// A symmetric key object holding `length` bytes of key material.
class KeySetPropertiesTest : public proptest::PropertiesTest {
protected:
    NCRYPT_KEY_HANDLE symmetricKey(uint32_t length) {
        NCRYPT_KEY_HANDLE key = makeEmptyKey();
        kspKeyFrom(key)->symmetricKeyLength = length;
        return key;
    }
    KspKey* keyOf(NCRYPT_KEY_HANDLE key) { return kspKeyFrom(key); }
};

}  // namespace

// ---- checks ----

TEST_F(KeySetPropertiesTest, RefusesANullOrClosedProvider) {
    NCRYPT_KEY_HANDLE key = makeEmptyKey();
    auto value = dwordBytes(4096);
    EXPECT_EQ(KSPSetKeyProperty(0, key, L"Length", value.data(), 4, 0), KSP_NTE_INVALID_HANDLE);
    provider()->initialized = 0;
    EXPECT_EQ(KSPSetKeyProperty(provider_, key, L"Length", value.data(), 4, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(keyOf(key)->bits, 0u);
    EXPECT_EQ(testsupport::logMessagesAt("DEBUG").front(), "KSPSetKeyProperty");
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"),
                ElementsAre("KSPSetKeyProperty: provider handle is null or not initialized",
                            "KSPSetKeyProperty: provider handle is null or not initialized"));
}

TEST_F(KeySetPropertiesTest, RefusesANullKeyOrName) {
    auto value = dwordBytes(4096);
    EXPECT_EQ(KSPSetKeyProperty(provider_, 0, L"Length", value.data(), 4, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(KSPSetKeyProperty(provider_, makeEmptyKey(), nullptr, value.data(), 4, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"), ElementsAre("KSPSetKeyProperty: key handle is null",
                                                                 "KSPSetKeyProperty: pszProperty is null"));
}

TEST_F(KeySetPropertiesTest, UnknownOrMiscasedNamesAreNotSupported) {
    NCRYPT_KEY_HANDLE key = makeEmptyKey();
    EXPECT_EQ(setKeyProperty(key, L"length", dwordBytes(4096)), KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(setKeyProperty(key, L"Export Policy", dwordBytes(0)), KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(keyOf(key)->bits, 0u);
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"), ElementsAre("KSPSetKeyProperty: unsupported property",
                                                                 "KSPSetKeyProperty: unsupported property"));
}

// ---- window handle ----

TEST_F(KeySetPropertiesTest, WindowHandleOnAKeySetsTheProvidersWindow) {
    EXPECT_EQ(setKeyProperty(makeEmptyKey(), L"HWND Handle", windowBytes(0xABCDEF0123ull)), 0);
    EXPECT_EQ(provider()->window, reinterpret_cast<HWND>(0xABCDEF0123ull));
}

TEST_F(KeySetPropertiesTest, AShortOrMissingWindowOnAKeyLeavesTheWindow) {
    provider()->window = reinterpret_cast<HWND>(0x55);
    NCRYPT_KEY_HANDLE key = makeEmptyKey();
    // A window handle is pointer-sized: 8 bytes in the 64-bit build, 4 in the 32-bit one.
    std::vector<BYTE> tooShort(sizeof(HWND) - 1, 0x11);
    EXPECT_EQ(KSPSetKeyProperty(provider_, key, L"HWND Handle", tooShort.data(), tooShort.size(), 0), 0);
    EXPECT_EQ(KSPSetKeyProperty(provider_, key, L"HWND Handle", nullptr, sizeof(HWND), 0), 0);
    EXPECT_EQ(provider()->window, reinterpret_cast<HWND>(0x55));
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"), ElementsAre());
}

// ---- length ----

TEST_F(KeySetPropertiesTest, LengthIsTakenAsItIs) {
    NCRYPT_KEY_HANDLE key = makeEmptyKey();
    EXPECT_EQ(setKeyProperty(key, L"Length", dwordBytes(3072)), 0);
    EXPECT_EQ(keyOf(key)->bits, 3072u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Key length set to 3072"));
    // No range check here: finalising maps the value.
    EXPECT_EQ(setKeyProperty(key, L"Length", dwordBytes(1536)), 0);
    EXPECT_EQ(keyOf(key)->bits, 1536u);
    EXPECT_EQ(setKeyProperty(key, L"Length", dwordBytes(0xFFFFFFFF)), 0);
    EXPECT_EQ(keyOf(key)->bits, 0xFFFFFFFFu);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Key length set to 4294967295"));
}

TEST_F(KeySetPropertiesTest, AShortOrMissingLengthChangesNothing) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    std::vector<BYTE> three{0x00, 0x10, 0x00};
    EXPECT_EQ(KSPSetKeyProperty(provider_, key, L"Length", three.data(), 3, 0), 0);
    EXPECT_EQ(KSPSetKeyProperty(provider_, key, L"Length", nullptr, 4, 0), 0);
    EXPECT_EQ(keyOf(key)->bits, 2048u);
    EXPECT_THAT(testsupport::logMessagesAt("DEBUG"), ElementsAre("KSPSetKeyProperty", "KSPSetKeyProperty"));
}

// ---- key usage ----

TEST_F(KeySetPropertiesTest, KeyUsageFromTheFlags) {
    NCRYPT_KEY_HANDLE key = makeEmptyKey();
    EXPECT_EQ(setKeyProperty(key, L"Key Usage", dwordBytes(NCRYPT_ALLOW_SIGNING_FLAG)), 0);
    EXPECT_EQ(keyOf(key)->usage, 1);
    EXPECT_EQ(setKeyProperty(key, L"Key Usage", dwordBytes(NCRYPT_ALLOW_DECRYPT_FLAG)), 0);
    EXPECT_EQ(keyOf(key)->usage, 2);
    EXPECT_EQ(setKeyProperty(key, L"Key Usage", dwordBytes(3)), 0);
    EXPECT_EQ(keyOf(key)->usage, 3);
    EXPECT_EQ(setKeyProperty(key, L"Key Usage", dwordBytes(NCRYPT_ALLOW_SIGNING_FLAG | 4)), 0);
    EXPECT_EQ(keyOf(key)->usage, 1);
    EXPECT_EQ(setKeyProperty(key, L"Key Usage", dwordBytes(NCRYPT_ALLOW_ALL_USAGES)), 0);
    EXPECT_EQ(keyOf(key)->usage, 3);
}

TEST_F(KeySetPropertiesTest, KeyUsageFourChangesNothing) {
    NCRYPT_KEY_HANDLE key = makeEmptyKey();
    keyOf(key)->usage = 2;
    EXPECT_EQ(setKeyProperty(key, L"Key Usage", dwordBytes(NCRYPT_ALLOW_KEY_AGREEMENT_FLAG)), 0);
    EXPECT_EQ(keyOf(key)->usage, 2);
    EXPECT_EQ(setKeyProperty(key, L"Key Usage", dwordBytes(0)), 0);
    EXPECT_EQ(keyOf(key)->usage, 2);
}

TEST_F(KeySetPropertiesTest, AShortOrMissingKeyUsageChangesNothing) {
    NCRYPT_KEY_HANDLE key = makeEmptyKey();
    keyOf(key)->usage = 2;
    std::vector<BYTE> two{0x03, 0x00};
    EXPECT_EQ(KSPSetKeyProperty(provider_, key, L"Key Usage", two.data(), 2, 0), 0);
    EXPECT_EQ(KSPSetKeyProperty(provider_, key, L"Key Usage", nullptr, 4, 0), 0);
    EXPECT_EQ(keyOf(key)->usage, 2);
}

// ---- chaining mode ----

TEST_F(KeySetPropertiesTest, ChainingModeEcbAndBackToCbc) {
    NCRYPT_KEY_HANDLE key = symmetricKey(16);
    EXPECT_EQ(setKeyProperty(key, L"ChainingMode", wideBytes(L"ChainingModeECB")), 0);
    EXPECT_EQ(keyOf(key)->chainingMode, KSP_CHAINING_ECB);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Chaining mode set to ECB"));
    EXPECT_EQ(setKeyProperty(key, L"ChainingMode", wideBytes(L"ChainingModeCBC")), 0);
    EXPECT_EQ(keyOf(key)->chainingMode, KSP_CHAINING_CBC);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Chaining mode set to CBC"));
}

TEST_F(KeySetPropertiesTest, AnotherChainingModeIsNotSupportedAndLeavesTheMode) {
    NCRYPT_KEY_HANDLE key = symmetricKey(16);
    keyOf(key)->chainingMode = KSP_CHAINING_ECB;
    EXPECT_EQ(setKeyProperty(key, L"ChainingMode", wideBytes(L"ChainingModeCFB")), KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(setKeyProperty(key, L"ChainingMode", wideBytes(L"chainingmodecbc")), KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(setKeyProperty(key, L"ChainingMode", narrowBytes("ChainingModeCBC")), KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(keyOf(key)->chainingMode, KSP_CHAINING_ECB);
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"),
                ElementsAre("KSP: Unsupported chaining mode", "KSP: Unsupported chaining mode",
                            "KSP: Unsupported chaining mode"));
}

TEST_F(KeySetPropertiesTest, AnEmptyChainingModeChangesNothing) {
    NCRYPT_KEY_HANDLE key = symmetricKey(16);
    keyOf(key)->chainingMode = KSP_CHAINING_ECB;
    auto value = wideBytes(L"ChainingModeCBC");
    EXPECT_EQ(KSPSetKeyProperty(provider_, key, L"ChainingMode", nullptr, 32, 0), 0);
    EXPECT_EQ(KSPSetKeyProperty(provider_, key, L"ChainingMode", value.data(), 0, 0), 0);
    EXPECT_EQ(keyOf(key)->chainingMode, KSP_CHAINING_ECB);
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"), ElementsAre());
}

// The mode text is read up to its NUL but never past cbInput: a value that fills its buffer without
// a NUL is read whole (the page after it is inaccessible), and one cut short by cbInput is that much
// shorter.
TEST_F(KeySetPropertiesTest, TheChainingModeIsReadWithinItsLength) {
    NCRYPT_KEY_HANDLE key = symmetricKey(16);
    FencedBuffer exactFence;
    PBYTE exact = exactFence.place(wideBytes(L"ChainingModeECB", false));
    EXPECT_EQ(KSPSetKeyProperty(provider_, key, L"ChainingMode", exact, 30, 0), 0);
    EXPECT_EQ(keyOf(key)->chainingMode, KSP_CHAINING_ECB);

    auto cut = wideBytes(L"ChainingModeCBC");
    EXPECT_EQ(KSPSetKeyProperty(provider_, key, L"ChainingMode", cut.data(), 24, 0), KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(keyOf(key)->chainingMode, KSP_CHAINING_ECB);
}

TEST_F(KeySetPropertiesTest, AnOddLengthChainingModeIgnoresTheHalfCharacter) {
    NCRYPT_KEY_HANDLE key = symmetricKey(16);
    FencedBuffer oddFence;
    PBYTE odd = oddFence.place([] {
        auto bytes = wideBytes(L"ChainingModeECB", false);
        bytes.push_back('X');
        return bytes;
    }());
    EXPECT_EQ(KSPSetKeyProperty(provider_, key, L"ChainingMode", odd, 31, 0), 0);
    EXPECT_EQ(keyOf(key)->chainingMode, KSP_CHAINING_ECB);
}

// ---- IV ----

TEST_F(KeySetPropertiesTest, AnIvOfTheAesBlockSizeIsTaken) {
    std::vector<BYTE> iv(16);
    for (size_t i = 0; i < iv.size(); ++i)
        iv[i] = static_cast<BYTE>(0x40 + i);
    EXPECT_EQ(setKeyProperty(symmetricKey(16), L"IV", iv), 0);
    EXPECT_EQ(processIv(), iv);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: IV set, size: 16"));
    std::vector<BYTE> other(16, 0x99);
    EXPECT_EQ(setKeyProperty(symmetricKey(32), L"IV", other), 0);
    EXPECT_EQ(processIv(), other);
}

TEST_F(KeySetPropertiesTest, ATwelveByteIvOnAnAesKeyFailsAndKeepsThePreviousIv) {
    std::vector<BYTE> previous(16, 0x31);
    setProcessIv(previous);
    EXPECT_EQ(setKeyProperty(symmetricKey(16), L"IV", std::vector<BYTE>(12, 0x77)),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(processIv(), previous);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: IV size mismatch: got 12, expected 16"));
    EXPECT_EQ(setKeyProperty(symmetricKey(32), L"IV", std::vector<BYTE>(8, 0x77)), KSP_NTE_INVALID_PARAMETER);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: IV size mismatch: got 8, expected 16"));
    EXPECT_EQ(processIv(), previous);
}

TEST_F(KeySetPropertiesTest, ATripleDesKeyWantsAnEightByteIv) {
    EXPECT_EQ(setKeyProperty(symmetricKey(24), L"IV", std::vector<BYTE>(16, 1)), KSP_NTE_INVALID_PARAMETER);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: IV size mismatch: got 16, expected 8"));
    EXPECT_EQ(setKeyProperty(symmetricKey(24), L"IV", std::vector<BYTE>(8, 2)), 0);
    EXPECT_EQ(processIv(), std::vector<BYTE>(8, 2));
}

TEST_F(KeySetPropertiesTest, OnATokenKeyPairAnyIvLengthIsTaken) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    EXPECT_EQ(setKeyProperty(key, L"IV", std::vector<BYTE>(5, 3)), 0);
    EXPECT_EQ(processIv(), std::vector<BYTE>(5, 3));
    EXPECT_EQ(setKeyProperty(key, L"IV", std::vector<BYTE>(40, 4)), 0);
    EXPECT_EQ(processIv(), std::vector<BYTE>(40, 4));
    // Other key lengths are not checked either.
    EXPECT_EQ(setKeyProperty(symmetricKey(20), L"IV", std::vector<BYTE>(3, 5)), 0);
    EXPECT_EQ(processIv(), std::vector<BYTE>(3, 5));
}

TEST_F(KeySetPropertiesTest, AnEmptyIvClearsTheProcessWideIv) {
    NCRYPT_KEY_HANDLE key = symmetricKey(16);
    setProcessIv(std::vector<unsigned char>(16, 0x22));
    EXPECT_EQ(KSPSetKeyProperty(provider_, key, L"IV", nullptr, 16, 0), 0);
    EXPECT_TRUE(processIv().empty());
    setProcessIv(std::vector<unsigned char>(16, 0x22));
    std::vector<BYTE> some(16, 1);
    EXPECT_EQ(KSPSetKeyProperty(provider_, key, L"IV", some.data(), 0, 0), 0);
    EXPECT_TRUE(processIv().empty());
    EXPECT_THAT(testsupport::logMessagesAt("DEBUG"),
                ElementsAre("KSPSetKeyProperty", "KSP: IV cleared", "KSPSetKeyProperty", "KSP: IV cleared"));
}

TEST_F(KeySetPropertiesTest, TheLastIvSetFromAnyKeyIsTheOneHeld) {
    EXPECT_EQ(setKeyProperty(symmetricKey(16), L"IV", std::vector<BYTE>(16, 0xA1)), 0);
    EXPECT_EQ(setKeyProperty(symmetricKey(24), L"IV", std::vector<BYTE>(8, 0xB2)), 0);
    EXPECT_EQ(processIv(), std::vector<BYTE>(8, 0xB2));
}

// ---- PIN ----

TEST_F(KeySetPropertiesTest, APinOnAKeyIsValidatedForTheProvidersToken) {
    EXPECT_EQ(setKeyProperty(makeKey(kRsaSignId), L"SmartCardPin", narrowBytes("1234")), 0);
    auto calls = fake::callsTo("calyth_validatePassword");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, "SN1");
    EXPECT_THAT(calls[0].args, ElementsAre("1234", "1"));
    EXPECT_EQ(getValidatedPin("SN1"), "1234");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Setting PIN via property"));
}

TEST_F(KeySetPropertiesTest, AWrongPinOnAKeyFailsValidation) {
    EXPECT_EQ(setKeyProperty(makeKey(kRsaSignId), L"SmartCardPin", narrowBytes("0000")),
              KSP_NTE_VALIDATION_FAILED);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: PIN validation failed: 1"));
    EXPECT_FALSE(isPinValidated("SN1"));
}

TEST_F(KeySetPropertiesTest, AWidePinOnAKeyIsReadAsItsFirstCharacter) {
    fake::token("SN1").pin = "7";
    EXPECT_EQ(setKeyProperty(makeKey(kRsaSignId), L"SmartCardPin", wideBytes(L"7890")), 0);
    EXPECT_EQ(getValidatedPin("SN1"), "7");
}

TEST_F(KeySetPropertiesTest, ANullPinOnAKeyIsABadParameter) {
    EXPECT_EQ(KSPSetKeyProperty(provider_, makeKey(kRsaSignId), L"SmartCardPin", nullptr, 5, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSetKeyProperty: NCRYPT_PIN_PROPERTY pbInput is null"));
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 0u);
}

TEST_F(KeySetPropertiesTest, APinWithoutNulOnAKeyIsBoundedByItsLength) {
    FencedBuffer fence;
    PBYTE value = fence.place(narrowBytes("123", false));
    EXPECT_EQ(KSPSetKeyProperty(provider_, makeKey(kRsaSignId), L"SmartCardPin", value, 3, 0),
              KSP_NTE_VALIDATION_FAILED);
    auto calls = fake::callsTo("calyth_validatePassword");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].args.at(0), "123");
}
