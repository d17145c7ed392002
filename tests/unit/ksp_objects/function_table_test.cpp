// GetKeyStorageInterface hands the router one table, version 1.0, with the operations in the
// published slot order.
#include <gtest/gtest.h>

#include "ksp/ksp_interface.h"
#include "unit/ksp/ksp_fixture.h"

namespace {

class FunctionTableTest : public ksptest::KspTest {};

TEST_F(FunctionTableTest, HandsOutVersionOneZeroAndLogsItsName) {
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    EXPECT_EQ(GetKeyStorageInterface(L"Calyth Cryptographic Provider CSP", &table, 0), 0);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->Version.MajorVersion, 1);
    EXPECT_EQ(table->Version.MinorVersion, 0);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "GetKeyStorageInterface"));
}

TEST_F(FunctionTableTest, EverySlotHoldsItsOperationInOrder) {
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    ASSERT_EQ(GetKeyStorageInterface(nullptr, &table, 0), 0);
    ASSERT_NE(table, nullptr);
    // The slots as raw pointers, so that a table shifted by one slot is caught whatever the types.
    const void* const expected[26] = {
        reinterpret_cast<const void*>(&KSPOpenProvider),
        reinterpret_cast<const void*>(&KSPOpenKey),
        reinterpret_cast<const void*>(&KSPCreatePersistedKey),
        reinterpret_cast<const void*>(&KSPGetProviderProperty),
        reinterpret_cast<const void*>(&KSPGetKeyProperty),
        reinterpret_cast<const void*>(&KSPSetProviderProperty),
        reinterpret_cast<const void*>(&KSPSetKeyProperty),
        reinterpret_cast<const void*>(&KSPFinalizeKey),
        reinterpret_cast<const void*>(&KSPDeleteKey),
        reinterpret_cast<const void*>(&KSPFreeProvider),
        reinterpret_cast<const void*>(&KSPFreeKey),
        reinterpret_cast<const void*>(&KSPFreeBuffer),
        reinterpret_cast<const void*>(&KSPEncrypt),
        reinterpret_cast<const void*>(&KSPDecrypt),
        reinterpret_cast<const void*>(&KSPIsAlgSupported),
        reinterpret_cast<const void*>(&KSPEnumAlgorithms),
        reinterpret_cast<const void*>(&KSPEnumKeys),
        reinterpret_cast<const void*>(&KSPImportKey),
        reinterpret_cast<const void*>(&KSPExportKey),
        reinterpret_cast<const void*>(&KSPSignHash),
        reinterpret_cast<const void*>(&KSPVerifySignature),
        reinterpret_cast<const void*>(&KSPPromptUser),
        reinterpret_cast<const void*>(&KSPNotifyChangeKey),
        reinterpret_cast<const void*>(&KSPSecretAgreement),
        reinterpret_cast<const void*>(&KSPDeriveKey),
        reinterpret_cast<const void*>(&KSPFreeSecret),
    };
    const auto* slots =
        reinterpret_cast<const void* const*>(reinterpret_cast<const unsigned char*>(table) + sizeof(void*));
    for (int slot = 0; slot < 26; ++slot)
        EXPECT_EQ(slots[slot], expected[slot]) << "slot " << slot + 1;
}

TEST_F(FunctionTableTest, EveryCallHandsOutTheSameTable) {
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* first = nullptr;
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* second = nullptr;
    ASSERT_EQ(GetKeyStorageInterface(L"any name", &first, 0), 0);
    ASSERT_EQ(GetKeyStorageInterface(nullptr, &second, 0xFFFFFFFF), 0);
    EXPECT_EQ(first, second);
}

}  // namespace
