// KSPGetKeyProperty: handle and argument checks, every key property with its size and value for RSA,
// ECDSA and ECDH keys, and the size rule.
#include <windows.h>

#include <ncrypt.h>

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_device/fake_device.h"
#include "ksp/ksp_interface.h"
#include "ksp/ksp_objects.h"
#include "properties_fixture.h"

using ksptest::kEcSignId;
using ksptest::kRsaExchangeId;
using ksptest::kRsaSignId;
using proptest::dwordAt;
using proptest::wideAt;
using ::testing::ElementsAre;
using testsupport::GuardedBuffer;

namespace {

class KeyPropertiesTest : public proptest::PropertiesTest {
protected:
    std::wstring textOf(NCRYPT_KEY_HANDLE key, const wchar_t* name) {
        std::vector<BYTE> value;
        EXPECT_EQ(getKeyProperty(key, name, &value), 0);
        if (value.size() < 2)
            return L"<none>";
        EXPECT_EQ(value.size() % 2, 0u);
        std::wstring text = wideAt(value.data());
        EXPECT_EQ(value.size(), (text.size() + 1) * 2);
        return text;
    }
    DWORD numberOf(NCRYPT_KEY_HANDLE key, const wchar_t* name) {
        std::vector<BYTE> value;
        EXPECT_EQ(getKeyProperty(key, name, &value), 0);
        EXPECT_EQ(value.size(), 4u);
        return value.size() == 4 ? dwordAt(value.data()) : 0xFFFFFFFF;
    }
    // A key object with only algorithm code and usage set.
    NCRYPT_KEY_HANDLE keyWith(int32_t algorithm, int32_t usage) {
        NCRYPT_KEY_HANDLE key = makeEmptyKey();
        kspKeyFrom(key)->algorithm = algorithm;
        kspKeyFrom(key)->usage = usage;
        return key;
    }
};

}  // namespace

// ---- checks ----

TEST_F(KeyPropertiesTest, RefusesANullOrClosedProvider) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    DWORD size = 0;
    EXPECT_EQ(KSPGetKeyProperty(0, key, L"Name", nullptr, 0, &size, 0), KSP_NTE_INVALID_HANDLE);
    provider()->initialized = 0;
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, L"Name", nullptr, 0, &size, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(testsupport::logMessagesAt("DEBUG").front(), "KSPGetKeyProperty");
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"),
                ElementsAre("KSPGetKeyProperty: provider handle is null or not initialized",
                            "KSPGetKeyProperty: provider handle is null or not initialized"));
}

TEST_F(KeyPropertiesTest, RefusesANullKey) {
    DWORD size = 0;
    EXPECT_EQ(KSPGetKeyProperty(provider_, 0, L"Name", nullptr, 0, &size, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPGetKeyProperty: key handle is null"));
}

TEST_F(KeyPropertiesTest, RefusesANullNameOrResultPointer) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    DWORD size = 0;
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, nullptr, nullptr, 0, &size, 0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, L"Name", nullptr, 0, nullptr, 0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"),
                ElementsAre("KSPGetKeyProperty: pszProperty or pcbResult is null",
                            "KSPGetKeyProperty: pszProperty or pcbResult is null"));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "KSP: GetKeyProperty: "));
}

TEST_F(KeyPropertiesTest, LogsThePropertyNameNarrowed) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    DWORD size = 0;
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, L"Length", nullptr, 0, &size, 0), 0);
    EXPECT_THAT(testsupport::logMessagesAt("DEBUG"),
                ElementsAre("KSPGetKeyProperty", "KSP: GetKeyProperty: Length"));
}

// ---- names ----

TEST_F(KeyPropertiesTest, NameIsTheIdentifierInHex) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaExchangeId);
    std::vector<BYTE> value;
    ASSERT_EQ(getKeyProperty(key, L"Name", &value), 0);
    EXPECT_EQ(value.size(), 66u);
    EXPECT_EQ(wideAt(value.data()), ksptest::wide(kRsaExchangeId));
    EXPECT_EQ(textOf(key, L"Unique Name"), ksptest::wide(kRsaExchangeId));
}

TEST_F(KeyPropertiesTest, NameIsUpperCaseHexHighNibbleFirst) {
    NCRYPT_KEY_HANDLE key = makeEmptyKey();
    const unsigned char id[16] = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f, 0x60, 0x71,
                                  0x82, 0x93, 0xa4, 0xb5, 0xc6, 0xd7, 0xe8, 0xf9};
    std::memcpy(kspKeyFrom(key)->keyId, id, 16);
    kspKeyFrom(key)->keyIdLength = 16;
    EXPECT_EQ(textOf(key, L"Name"), L"0A1B2C3D4E5F60718293A4B5C6D7E8F9");
}

TEST_F(KeyPropertiesTest, NameWith65BytesIsTooSmallAndReports66) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    GuardedBuffer buffer(65);
    DWORD size = 0;
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, L"Name", buffer.data(), buffer.size(), &size, 0),
              KSP_NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 66u);
    EXPECT_TRUE(buffer.untouchedFrom(0));
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"), ElementsAre());
}

TEST_F(KeyPropertiesTest, NameFillsABiggerBufferOnlyUpToItsSize) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    GuardedBuffer buffer(100);
    DWORD size = 0;
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, L"Name", buffer.data(), buffer.size(), &size, 0), 0);
    EXPECT_EQ(size, 66u);
    EXPECT_EQ(wideAt(buffer.data()), ksptest::wide(kRsaSignId));
    EXPECT_TRUE(buffer.untouchedFrom(66));
}

// ---- algorithm ----

TEST_F(KeyPropertiesTest, AlgorithmNameAndGroupOfTokenKeys) {
    NCRYPT_KEY_HANDLE rsa = makeKey(kRsaSignId);
    NCRYPT_KEY_HANDLE rsaExchange = makeKey(kRsaExchangeId);
    NCRYPT_KEY_HANDLE ec = makeKey(kEcSignId);
    EXPECT_EQ(textOf(rsa, L"Algorithm Name"), L"RSA");
    EXPECT_EQ(textOf(rsa, L"Algorithm Group"), L"RSA");
    EXPECT_EQ(textOf(rsaExchange, L"Algorithm Name"), L"RSA");
    EXPECT_EQ(textOf(rsaExchange, L"Algorithm Group"), L"RSA");
    EXPECT_EQ(textOf(ec, L"Algorithm Name"), L"ECDSA_P256");
    EXPECT_EQ(textOf(ec, L"Algorithm Group"), L"ECDSA");
}

TEST_F(KeyPropertiesTest, AlgorithmNameAndGroupFollowCodeAndUsage) {
    EXPECT_EQ(textOf(keyWith(6, 2), L"Algorithm Name"), L"ECDH_P384");
    EXPECT_EQ(textOf(keyWith(6, 2), L"Algorithm Group"), L"ECDH");
    EXPECT_EQ(textOf(keyWith(7, 2), L"Algorithm Name"), L"ECDH_P521");
    EXPECT_EQ(textOf(keyWith(5, 2), L"Algorithm Name"), L"ECDH_P256");
    EXPECT_EQ(textOf(keyWith(7, 1), L"Algorithm Name"), L"ECDSA_P521");
    EXPECT_EQ(textOf(keyWith(6, 3), L"Algorithm Name"), L"ECDSA_P384");
    EXPECT_EQ(textOf(keyWith(6, 3), L"Algorithm Group"), L"ECDSA");
    EXPECT_EQ(textOf(keyWith(5, 0), L"Algorithm Group"), L"ECDSA");
    // An RSA key created but not finalised, and codes out of range, are RSA.
    EXPECT_EQ(textOf(keyWith(0, 2), L"Algorithm Name"), L"RSA");
    EXPECT_EQ(textOf(keyWith(0, 2), L"Algorithm Group"), L"RSA");
    EXPECT_EQ(textOf(keyWith(9, 2), L"Algorithm Name"), L"RSA");
    EXPECT_EQ(textOf(keyWith(-1, 2), L"Algorithm Group"), L"RSA");
}

TEST_F(KeyPropertiesTest, AlgorithmNameSizeIsItsCharactersAndNul) {
    DWORD size = 0;
    EXPECT_EQ(KSPGetKeyProperty(provider_, keyWith(5, 1), L"Algorithm Name", nullptr, 0, &size, 0), 0);
    EXPECT_EQ(size, 22u);  // "ECDSA_P256"
    EXPECT_EQ(KSPGetKeyProperty(provider_, keyWith(5, 2), L"Algorithm Group", nullptr, 0, &size, 0), 0);
    EXPECT_EQ(size, 10u);  // "ECDH"
}

// ---- numbers ----

TEST_F(KeyPropertiesTest, LengthAndBlockLength) {
    NCRYPT_KEY_HANDLE rsa = makeKey(kRsaSignId);
    NCRYPT_KEY_HANDLE ec = makeKey(kEcSignId);
    EXPECT_EQ(numberOf(rsa, L"Length"), 2048u);
    EXPECT_EQ(numberOf(rsa, L"Block Length"), 256u);
    EXPECT_EQ(numberOf(ec, L"Length"), 256u);
    EXPECT_EQ(numberOf(ec, L"Block Length"), 32u);
    NCRYPT_KEY_HANDLE p521 = keyWith(7, 1);
    kspKeyFrom(p521)->bits = 521;
    EXPECT_EQ(numberOf(p521, L"Block Length"), 65u);
}

TEST_F(KeyPropertiesTest, LengthsOfAP256KeyAreTheRsaRange) {
    std::vector<BYTE> value;
    ASSERT_EQ(getKeyProperty(makeKey(kEcSignId), L"Lengths", &value), 0);
    ASSERT_EQ(value.size(), 16u);
    NCRYPT_SUPPORTED_LENGTHS lengths;
    std::memcpy(&lengths, value.data(), sizeof lengths);
    EXPECT_EQ(lengths.dwMinLength, 1024u);
    EXPECT_EQ(lengths.dwMaxLength, 4096u);
    EXPECT_EQ(lengths.dwIncrement, 1024u);
    EXPECT_EQ(lengths.dwDefaultLength, 2048u);
}

TEST_F(KeyPropertiesTest, LengthsInTwelveBytesIsTooSmall) {
    GuardedBuffer buffer(12);
    DWORD size = 0;
    EXPECT_EQ(KSPGetKeyProperty(provider_, makeKey(kRsaSignId), L"Lengths", buffer.data(), 12, &size, 0),
              KSP_NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 16u);
    EXPECT_TRUE(buffer.untouchedFrom(0));
}

TEST_F(KeyPropertiesTest, KeyUsageFlags) {
    EXPECT_EQ(numberOf(keyWith(2, 1), L"Key Usage"), static_cast<DWORD>(NCRYPT_ALLOW_SIGNING_FLAG));
    EXPECT_EQ(numberOf(keyWith(2, 2), L"Key Usage"), static_cast<DWORD>(NCRYPT_ALLOW_DECRYPT_FLAG));
    EXPECT_EQ(numberOf(keyWith(2, 3), L"Key Usage"), 3u);
    EXPECT_EQ(numberOf(keyWith(2, 0), L"Key Usage"), 0u);
    EXPECT_EQ(numberOf(keyWith(2, 4), L"Key Usage"), 0u);
}

TEST_F(KeyPropertiesTest, ExportPolicyKeyTypeAndProviderHandle) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    EXPECT_EQ(numberOf(key, L"Export Policy"), static_cast<DWORD>(NCRYPT_ALLOW_EXPORT_FLAG));
    EXPECT_EQ(numberOf(makeKey(kEcSignId), L"Export Policy"), 1u);
    EXPECT_EQ(numberOf(key, L"Key Type"), 0u);
    std::vector<BYTE> value;
    ASSERT_EQ(getKeyProperty(key, L"Provider Handle", &value), 0);
    ASSERT_EQ(value.size(), sizeof(NCRYPT_PROV_HANDLE));  // 8 bytes in the 64-bit build, 4 in the 32-bit one
    NCRYPT_PROV_HANDLE handle = 0;
    std::memcpy(&handle, value.data(), sizeof handle);
    EXPECT_EQ(handle, provider_);
}

TEST_F(KeyPropertiesTest, ProviderHandleIsTheOnePassedIn) {
    NCRYPT_PROV_HANDLE other = makeProvider();
    GuardedBuffer buffer(8);
    DWORD size = 0;
    EXPECT_EQ(KSPGetKeyProperty(other, makeKey(kRsaSignId), L"Provider Handle", buffer.data(), 8, &size, 0),
              0);
    NCRYPT_PROV_HANDLE handle = 0;
    std::memcpy(&handle, buffer.data(), sizeof handle);
    EXPECT_EQ(handle, other);
    EXPECT_TRUE(buffer.untouchedFrom(8));
}

TEST_F(KeyPropertiesTest, ANumberInThreeBytesIsTooSmall) {
    GuardedBuffer buffer(3);
    DWORD size = 0;
    EXPECT_EQ(KSPGetKeyProperty(provider_, makeKey(kRsaSignId), L"Length", buffer.data(), 3, &size, 0),
              KSP_NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 4u);
    EXPECT_TRUE(buffer.untouchedFrom(0));
}

// ---- chaining mode ----

TEST_F(KeyPropertiesTest, ChainingModeIsCbcUnlessSetToEcb) {
    NCRYPT_KEY_HANDLE key = makeEmptyKey();
    EXPECT_EQ(textOf(key, L"ChainingMode"), L"ChainingModeCBC");
    kspKeyFrom(key)->chainingMode = KSP_CHAINING_ECB;
    EXPECT_EQ(textOf(key, L"ChainingMode"), L"ChainingModeECB");
    kspKeyFrom(key)->chainingMode = 7;
    EXPECT_EQ(textOf(key, L"ChainingMode"), L"ChainingModeECB");
}

// ---- unsupported ----

TEST_F(KeyPropertiesTest, SecurityDescriptorIsNotSupported) {
    DWORD size = 0;
    EXPECT_EQ(KSPGetKeyProperty(provider_, makeKey(kRsaSignId), L"Security Descr", nullptr, 0, &size, 0),
              KSP_NTE_NOT_SUPPORTED);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "KSPGetKeyProperty: NCRYPT_SECURITY_DESCR_PROPERTY not supported"));
}

TEST_F(KeyPropertiesTest, UnknownOrMiscasedNamesAreNotSupported) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    DWORD size = 0;
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, L"length", nullptr, 0, &size, 0), KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, L"IV", nullptr, 0, &size, 0), KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, L"Chaining Mode", nullptr, 0, &size, 0),
              KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(size, 0u);
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"), ElementsAre("KSPGetKeyProperty: unsupported property",
                                                                 "KSPGetKeyProperty: unsupported property",
                                                                 "KSPGetKeyProperty: unsupported property"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: GetKeyProperty: Chaining Mode"));
}
