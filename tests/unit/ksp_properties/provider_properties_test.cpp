// KSPGetProviderProperty and KSPSetProviderProperty: handle and argument checks, every provider
// property with its size, the size rule, the window handle and the PIN.
#include <windows.h>

#include <ncrypt.h>

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_device/fake_device.h"
#include "ksp/ksp_interface.h"
#include "ksp/ksp_objects.h"
#include "properties_fixture.h"
#include "token/token_table.h"

using proptest::dwordAt;
using proptest::narrowBytes;
using proptest::wideAt;
using proptest::wideBytes;
using ::testing::ElementsAre;
using testsupport::FencedBuffer;
using testsupport::GuardedBuffer;

namespace {

class ProviderPropertiesTest : public proptest::PropertiesTest {
protected:
    SECURITY_STATUS setProperty(const wchar_t* name, std::vector<BYTE> value) {
        return KSPSetProviderProperty(provider_, name, value.data(), static_cast<DWORD>(value.size()), 0);
    }
    std::vector<std::string> pinsValidated() {
        std::vector<std::string> out;
        for (const fake::Call& call : fake::callsTo("calyth_validatePassword"))
            out.push_back(call.serial + " " + call.args.at(0) + " " + call.args.at(1));
        return out;
    }
};

HWND windowValue(uintptr_t value) {
    return reinterpret_cast<HWND>(value);
}

std::vector<BYTE> handleBytes(HWND window) {
    std::vector<BYTE> out(sizeof window);
    std::memcpy(out.data(), &window, sizeof window);
    return out;
}

}  // namespace

// ---- KSPGetProviderProperty: checks ----

TEST_F(ProviderPropertiesTest, GetRefusesANullProvider) {
    DWORD size = 0;
    EXPECT_EQ(KSPGetProviderProperty(0, NCRYPT_NAME_PROPERTY, nullptr, 0, &size, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(testsupport::logMessagesAt("DEBUG").front(), "KSPGetProviderProperty");
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "KSPGetProviderProperty: provider handle is null or not initialized"));
    EXPECT_EQ(size, 0u);
}

TEST_F(ProviderPropertiesTest, GetRefusesAProviderNotInitialised) {
    NCRYPT_PROV_HANDLE closed = makeProvider();
    kspProviderFrom(closed)->initialized = 0;
    DWORD size = 0;
    EXPECT_EQ(KSPGetProviderProperty(closed, NCRYPT_NAME_PROPERTY, nullptr, 0, &size, 0),
              KSP_NTE_INVALID_HANDLE);
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "KSPGetProviderProperty: provider handle is null or not initialized"));
}

TEST_F(ProviderPropertiesTest, GetRefusesANullNameOrResultPointer) {
    DWORD size = 0;
    EXPECT_EQ(KSPGetProviderProperty(provider_, nullptr, nullptr, 0, &size, 0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPGetProviderProperty(provider_, NCRYPT_NAME_PROPERTY, nullptr, 0, nullptr, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"),
                ElementsAre("KSPGetProviderProperty: pszProperty or pcbResult is null",
                            "KSPGetProviderProperty: pszProperty or pcbResult is null"));
}

// ---- KSPGetProviderProperty: values ----

TEST_F(ProviderPropertiesTest, NameIsExactly68BytesWithItsNul) {
    std::vector<BYTE> value;
    ASSERT_EQ(getProviderProperty(L"Name", &value), 0);
    ASSERT_EQ(value.size(), 68u);
    EXPECT_EQ(wideAt(value.data()), L"Calyth Cryptographic Provider CSP");
    EXPECT_EQ(value[66], 0);
    EXPECT_EQ(value[67], 0);
}

TEST_F(ProviderPropertiesTest, NameSizeQueryWritesOnlyTheSize) {
    DWORD size = 0;
    EXPECT_EQ(KSPGetProviderProperty(provider_, L"Name", nullptr, 500, &size, 0), 0);
    EXPECT_EQ(size, 68u);
}

TEST_F(ProviderPropertiesTest, AShortBufferGetsTheSizeButNoBytesAndNoErrorLine) {
    GuardedBuffer buffer(67);
    DWORD size = 0;
    EXPECT_EQ(KSPGetProviderProperty(provider_, L"Name", buffer.data(), buffer.size(), &size, 0),
              KSP_NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 68u);
    EXPECT_TRUE(buffer.untouchedFrom(0));
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"), ElementsAre());
}

TEST_F(ProviderPropertiesTest, NumbersAndTheAlgorithm) {
    std::vector<BYTE> value;
    ASSERT_EQ(getProviderProperty(L"Impl Type", &value), 0);
    ASSERT_EQ(value.size(), 4u);
    EXPECT_EQ(dwordAt(value.data()), 9u);
    ASSERT_EQ(getProviderProperty(L"Version", &value), 0);
    ASSERT_EQ(value.size(), 4u);
    EXPECT_EQ(dwordAt(value.data()), 0x100u);
    ASSERT_EQ(getProviderProperty(L"Max Name Length", &value), 0);
    ASSERT_EQ(value.size(), 4u);
    EXPECT_EQ(dwordAt(value.data()), 256u);
    ASSERT_EQ(getProviderProperty(L"Security Descr Support", &value), 0);
    ASSERT_EQ(value.size(), 4u);
    EXPECT_EQ(dwordAt(value.data()), 0u);
    ASSERT_EQ(getProviderProperty(L"Algorithm Name", &value), 0);
    ASSERT_EQ(value.size(), 8u);
    EXPECT_EQ(wideAt(value.data()), L"RSA");
}

TEST_F(ProviderPropertiesTest, ANumberIsWrittenIntoABiggerBufferWithoutTouchingTheRest) {
    GuardedBuffer buffer(16);
    DWORD size = 0;
    EXPECT_EQ(KSPGetProviderProperty(provider_, L"Version", buffer.data(), buffer.size(), &size, 0), 0);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(dwordAt(buffer.data()), 0x100u);
    EXPECT_TRUE(buffer.untouchedFrom(4));
}

TEST_F(ProviderPropertiesTest, UseCountIsNotSupported) {
    DWORD size = 0;
    EXPECT_EQ(KSPGetProviderProperty(provider_, L"Use Count", nullptr, 0, &size, 0), KSP_NTE_NOT_SUPPORTED);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "KSPGetProviderProperty: NCRYPT_USE_COUNT_PROPERTY not supported"));
}

TEST_F(ProviderPropertiesTest, NamesAreComparedExactly) {
    DWORD size = 0;
    EXPECT_EQ(KSPGetProviderProperty(provider_, L"name", nullptr, 0, &size, 0), KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(KSPGetProviderProperty(provider_, L"Name ", nullptr, 0, &size, 0), KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(KSPGetProviderProperty(provider_, L"Export Policy", nullptr, 0, &size, 0),
              KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(size, 0u);
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"),
                ElementsAre("KSPGetProviderProperty: unsupported property",
                            "KSPGetProviderProperty: unsupported property",
                            "KSPGetProviderProperty: unsupported property"));
}

// ---- KSPSetProviderProperty: checks ----

TEST_F(ProviderPropertiesTest, SetRefusesANullOrClosedProvider) {
    auto value = handleBytes(windowValue(0x1234));
    EXPECT_EQ(KSPSetProviderProperty(0, L"HWND Handle", value.data(), 8, 0), KSP_NTE_INVALID_HANDLE);
    provider()->initialized = 0;
    EXPECT_EQ(KSPSetProviderProperty(provider_, L"HWND Handle", value.data(), 8, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(provider()->window, nullptr);
    EXPECT_EQ(testsupport::logMessagesAt("DEBUG").front(), "KSPSetProviderProperty");
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"),
                ElementsAre("KSPSetProviderProperty: provider handle is null or not initialized",
                            "KSPSetProviderProperty: provider handle is null or not initialized"));
}

TEST_F(ProviderPropertiesTest, SetRefusesANullName) {
    EXPECT_EQ(KSPSetProviderProperty(provider_, nullptr, nullptr, 0, 0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSetProviderProperty: pszProperty is null"));
}

TEST_F(ProviderPropertiesTest, SetOfAnUnknownPropertyIsNotSupported) {
    EXPECT_EQ(setProperty(L"Name", wideBytes(L"x")), KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(setProperty(L"hwnd handle", handleBytes(windowValue(5))), KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(provider()->window, nullptr);
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"),
                ElementsAre("KSPSetProviderProperty: unsupported property",
                            "KSPSetProviderProperty: unsupported property"));
}

// ---- window handle ----

TEST_F(ProviderPropertiesTest, WindowHandleTakesTheEightByteValue) {
    EXPECT_EQ(setProperty(L"HWND Handle", handleBytes(windowValue(0x1122334455667788ull))), 0);
    EXPECT_EQ(provider()->window, windowValue(0x1122334455667788ull));
}

TEST_F(ProviderPropertiesTest, AShortOrMissingWindowValueClearsTheWindow) {
    provider()->window = windowValue(0x77);
    // A window handle is pointer-sized: 8 bytes in the 64-bit build, 4 in the 32-bit one.
    std::vector<BYTE> tooShort{1, 2, 3, 4, 5, 6, 7};
    tooShort.resize(sizeof(HWND) - 1);
    EXPECT_EQ(KSPSetProviderProperty(provider_, L"HWND Handle", tooShort.data(), tooShort.size(), 0), 0);
    EXPECT_EQ(provider()->window, nullptr);
    provider()->window = windowValue(0x77);
    EXPECT_EQ(KSPSetProviderProperty(provider_, L"HWND Handle", nullptr, sizeof(HWND), 0), 0);
    EXPECT_EQ(provider()->window, nullptr);
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"), ElementsAre());
}

// ---- PIN ----

TEST_F(ProviderPropertiesTest, ARightPinIsValidatedAndHeldForTheToken) {
    EXPECT_EQ(setProperty(L"SmartCardPin", narrowBytes("1234")), 0);
    EXPECT_THAT(pinsValidated(), ElementsAre("SN1 1234 1"));
    EXPECT_TRUE(isPinValidated("SN1"));
    EXPECT_EQ(getValidatedPin("SN1"), "1234");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Setting PIN via property"));
}

TEST_F(ProviderPropertiesTest, AWrongPinFailsValidationAndIsNotHeld) {
    EXPECT_EQ(setProperty(L"SmartCardPin", narrowBytes("9999")), KSP_NTE_VALIDATION_FAILED);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: PIN validation failed: 1"));
    EXPECT_FALSE(isPinValidated("SN1"));
    EXPECT_EQ(getValidatedPin("SN1"), "");
}

TEST_F(ProviderPropertiesTest, TheDeviceResultIsLoggedNotReturned) {
    fake::failNext("calyth_validatePassword", 48);
    EXPECT_EQ(setProperty(L"SmartCardPin", narrowBytes("1234")), KSP_NTE_VALIDATION_FAILED);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: PIN validation failed: 48"));
}

TEST_F(ProviderPropertiesTest, ANullPinIsABadParameter) {
    EXPECT_EQ(KSPSetProviderProperty(provider_, L"SmartCardPin", nullptr, 8, 0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "KSPSetProviderProperty: NCRYPT_PIN_PROPERTY pbInput is null"));
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 0u);
}

TEST_F(ProviderPropertiesTest, AWidePinIsReadAsNarrowTextAndSoAsItsFirstCharacter) {
    EXPECT_EQ(setProperty(L"SmartCardPin", wideBytes(L"1234")), KSP_NTE_VALIDATION_FAILED);
    EXPECT_THAT(pinsValidated(), ElementsAre("SN1 1 1"));
}

TEST_F(ProviderPropertiesTest, ThePinEndsAtItsNulWhateverTheLength) {
    std::vector<BYTE> value{'1', '2', '3', '4', 0, '5', '6'};
    EXPECT_EQ(KSPSetProviderProperty(provider_, L"SmartCardPin", value.data(), 7, 0), 0);
    EXPECT_THAT(pinsValidated(), ElementsAre("SN1 1234 1"));
}

// With no NUL among the cbInput bytes, the PIN is those bytes: nothing past the caller's buffer is
// read (the page after it is inaccessible).
TEST_F(ProviderPropertiesTest, APinWithoutNulIsBoundedByItsLength) {
    FencedBuffer fence;
    PBYTE value = fence.place(narrowBytes("1234", false));
    EXPECT_EQ(KSPSetProviderProperty(provider_, L"SmartCardPin", value, 4, 0), 0);
    EXPECT_THAT(pinsValidated(), ElementsAre("SN1 1234 1"));
    EXPECT_EQ(getValidatedPin("SN1"), "1234");
}

TEST_F(ProviderPropertiesTest, APinOnAProviderWithoutTokenAsksTheDeviceWithAnEmptySerial) {
    provider()->serial.clear();
    EXPECT_EQ(setProperty(L"SmartCardPin", narrowBytes("1234")), KSP_NTE_VALIDATION_FAILED);
    EXPECT_THAT(pinsValidated(), ElementsAre(" 1234 1"));
    EXPECT_FALSE(isPinValidated(""));
}
