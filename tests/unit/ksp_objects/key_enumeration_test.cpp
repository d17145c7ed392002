// KSPEnumKeys: one name per call over the key list copied on the first call, then
// NTE_NO_MORE_ITEMS for good; the names open with KSPOpenKey.
#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "ksp/ksp_interface.h"
#include "objects_test_support.h"

namespace {

using ksptest::kEcSignId;
using ksptest::kRsaExchangeId;
using ksptest::kRsaSignId;
using ksptest::wide;
using objtest::myCallsTo;

struct Listed {
    std::wstring name;
    std::wstring algorithm;
    DWORD legacyKeySpec;
    DWORD flags;
};

class EnumKeysTest : public objtest::ObjectsTest {
protected:
    void TearDown() override {
        KSPFreeBuffer(state_);
        ObjectsTest::TearDown();
    }

    // One KSPEnumKeys call on state_; a returned name is read and released with KSPFreeBuffer.
    SECURITY_STATUS next(Listed* listed = nullptr) {
        NCryptKeyName* keyName = nullptr;
        SECURITY_STATUS status = KSPEnumKeys(provider_, nullptr, &keyName, &state_, 0);
        if (keyName != nullptr) {
            if (listed != nullptr)
                *listed = {keyName->pszName, keyName->pszAlgid, keyName->dwLegacyKeySpec, keyName->dwFlags};
            EXPECT_EQ(KSPFreeBuffer(keyName), 0);
        }
        return status;
    }

    // Every name until the end of the list.
    std::vector<Listed> all() {
        std::vector<Listed> out;
        Listed listed;
        while (next(&listed) == 0)
            out.push_back(listed);
        return out;
    }

    PVOID state_ = nullptr;
};

TEST_F(EnumKeysTest, NullOrClosedProviderIsAnInvalidHandle) {
    NCryptKeyName* keyName = nullptr;
    EXPECT_EQ(KSPEnumKeys(0, nullptr, &keyName, &state_, 0), KSP_NTE_INVALID_HANDLE);
    auto* closed = new KspProvider{};
    closed->serial = "SN1";
    keepProvider(reinterpret_cast<NCRYPT_PROV_HANDLE>(closed));
    EXPECT_EQ(KSPEnumKeys(reinterpret_cast<NCRYPT_PROV_HANDLE>(closed), nullptr, &keyName, &state_, 0),
              KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(keyName, nullptr);
    EXPECT_EQ(state_, nullptr);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPEnumKeys"));
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPEnumKeys: provider handle is null or not initialized"));
    EXPECT_TRUE(fake::callsFromThisThread().empty());
}

TEST_F(EnumKeysTest, NullOutputsAreAnInvalidParameter) {
    makeProvider();
    NCryptKeyName* keyName = nullptr;
    EXPECT_EQ(KSPEnumKeys(provider_, nullptr, nullptr, &state_, 0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPEnumKeys(provider_, nullptr, &keyName, nullptr, 0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(state_, nullptr);
    EXPECT_EQ(keyName, nullptr);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPEnumKeys: ppKeyName or ppEnumState is null"));
    EXPECT_TRUE(fake::callsFromThisThread().empty());
}

TEST_F(EnumKeysTest, ListsEveryKeyInTokenOrder) {
    makeProvider();
    std::vector<Listed> listed = all();
    ASSERT_EQ(listed.size(), 3u);
    EXPECT_EQ(listed[0].name, wide(kRsaSignId));
    EXPECT_EQ(listed[0].algorithm, L"RSA");
    EXPECT_EQ(listed[0].legacyKeySpec, static_cast<DWORD>(AT_SIGNATURE));
    EXPECT_EQ(listed[1].name, wide(kRsaExchangeId));
    EXPECT_EQ(listed[1].algorithm, L"RSA");
    EXPECT_EQ(listed[1].legacyKeySpec, static_cast<DWORD>(AT_KEYEXCHANGE));
    EXPECT_EQ(listed[2].name, wide(kEcSignId));
    EXPECT_EQ(listed[2].algorithm, L"ECDSA_P256");
    EXPECT_EQ(listed[2].legacyKeySpec, static_cast<DWORD>(AT_SIGNATURE));
    for (const Listed& one : listed)
        EXPECT_EQ(one.flags, 0u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", std::string("KSP: Enumerated key: ") + kRsaSignId));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", std::string("KSP: Enumerated key: ") + kRsaExchangeId));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", std::string("KSP: Enumerated key: ") + kEcSignId));
}

TEST_F(EnumKeysTest, AfterTheLastKeyEveryCallAnswersNoMoreItems) {
    makeProvider();
    ASSERT_EQ(all().size(), 3u);  // the fourth call already answered NTE_NO_MORE_ITEMS
    for (int i = 0; i < 3; ++i) {
        NCryptKeyName* keyName = nullptr;
        EXPECT_EQ(KSPEnumKeys(provider_, nullptr, &keyName, &state_, 0), KSP_NTE_NO_MORE_ITEMS);
        EXPECT_EQ(keyName, nullptr);
    }
    std::vector<std::string> debug = testsupport::logMessagesAt("DEBUG");
    EXPECT_EQ(std::count(debug.begin(), debug.end(), "KSP: No more keys to enumerate"), 4);
    EXPECT_TRUE(testsupport::logMessagesAt("ERROR").empty());  // the end of the list is no error
}

TEST_F(EnumKeysTest, TheTokenIsReadOnceForTheWholeEnumeration) {
    makeProvider();
    Listed first;
    ASSERT_EQ(next(&first), 0);
    // Keys added or removed later do not show in this enumeration.
    fake::token("SN1").keyPairs.erase(fake::token("SN1").keyPairs.begin() + 1);
    fake::addKeyPair("SN1", fake::makeKeyPair("E5E5E5E5E5E5E5E5E5E5E5E5E5E5E5E5", 1, 2));
    std::vector<Listed> rest = all();
    ASSERT_EQ(rest.size(), 2u);
    EXPECT_EQ(rest[0].name, wide(kRsaExchangeId));
    EXPECT_EQ(rest[1].name, wide(kEcSignId));
    ASSERT_EQ(myCallsTo("calyth_getKeyPairList").size(), 1u);
    EXPECT_EQ(myCallsTo("calyth_getKeyPairList")[0].serial, "SN1");
}

TEST_F(EnumKeysTest, ATokenWithoutKeysEndsAtOnce) {
    fake::token("SN1").keyPairs.clear();
    makeProvider();
    EXPECT_EQ(next(), KSP_NTE_NO_MORE_ITEMS);
    EXPECT_NE(state_, nullptr);  // the state exists and is released by the caller
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: No more keys to enumerate"));
}

TEST_F(EnumKeysTest, AProviderWithoutATokenEndsAtOnce) {
    fake::setConnected("SN1", false);
    openProvider();
    EXPECT_EQ(next(), KSP_NTE_NO_MORE_ITEMS);
    ASSERT_EQ(myCallsTo("calyth_getKeyPairList").size(), 1u);
    EXPECT_EQ(myCallsTo("calyth_getKeyPairList")[0].serial, "");
}

TEST_F(EnumKeysTest, NamesAlgorithmsAndKeySpecsFollowCodeAndUsage) {
    fake::token("SN1").keyPairs.clear();
    fake::addKeyPair("SN1", fake::makeKeyPair("01000000000000000000000000000000", CALYTH_USAGE_EXCHANGE,
                                              CALYTH_KEY_EC_P384));
    fake::addKeyPair(
        "SN1", fake::makeKeyPair("02000000000000000000000000000000", CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_4096));
    fake::addKeyPair("SN1", fake::makeKeyPair("03000000000000000000000000000000", 0, CALYTH_KEY_EC_P521));
    fake::addKeyPair("SN1", fake::makeKeyPair("04000000000000000000000000000000", CALYTH_USAGE_SIGNATURE,
                                              CALYTH_KEY_EC_P521));
    fake::addKeyPair("SN1", fake::makeKeyPair("ABCDEF0123456789ABCDEF0123456789", CALYTH_USAGE_EXCHANGE,
                                              CALYTH_KEY_EC_P256));
    makeProvider();
    std::vector<Listed> listed = all();
    ASSERT_EQ(listed.size(), 5u);
    EXPECT_EQ(listed[0].algorithm, L"ECDH_P384");
    EXPECT_EQ(listed[0].legacyKeySpec, static_cast<DWORD>(AT_KEYEXCHANGE));
    EXPECT_EQ(listed[1].algorithm, L"RSA");
    EXPECT_EQ(listed[1].legacyKeySpec, static_cast<DWORD>(AT_KEYEXCHANGE));
    EXPECT_EQ(listed[2].algorithm, L"ECDSA_P521");
    EXPECT_EQ(listed[2].legacyKeySpec, 0u);
    EXPECT_EQ(listed[3].algorithm, L"ECDSA_P521");
    EXPECT_EQ(listed[3].legacyKeySpec, static_cast<DWORD>(AT_SIGNATURE));
    EXPECT_EQ(listed[4].name, L"ABCDEF0123456789ABCDEF0123456789");
    EXPECT_EQ(listed[4].algorithm, L"ECDH_P256");
}

TEST_F(EnumKeysTest, EveryListedNameOpensWithOpenKey) {
    openProvider();
    std::vector<Listed> listed = all();
    ASSERT_EQ(listed.size(), 3u);
    for (const Listed& one : listed) {
        NCRYPT_KEY_HANDLE key = 0;
        EXPECT_EQ(KSPOpenKey(provider_, &key, one.name.c_str(), one.legacyKeySpec, 0), 0);
        ASSERT_NE(key, 0u);
        EXPECT_EQ(wide(fake::hex(keyOf(key)->keyId, 16)), one.name);
        EXPECT_EQ(KSPFreeKey(provider_, key), 0);
    }
}

TEST_F(EnumKeysTest, TwoEnumerationsRunIndependently) {
    makeProvider();
    PVOID other = nullptr;
    NCryptKeyName* keyName = nullptr;
    ASSERT_EQ(next(), 0);
    ASSERT_EQ(next(), 0);
    ASSERT_EQ(KSPEnumKeys(provider_, L"scope is ignored", &keyName, &other, 0), 0);
    ASSERT_NE(keyName, nullptr);
    EXPECT_EQ(std::wstring(keyName->pszName), wide(kRsaSignId));
    KSPFreeBuffer(keyName);
    KSPFreeBuffer(other);
    Listed third;
    ASSERT_EQ(next(&third), 0);
    EXPECT_EQ(third.name, wide(kEcSignId));
}

}  // namespace
