// KSPIsAlgSupported and KSPEnumAlgorithms.
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "ksp/ksp_interface.h"
#include "objects_test_support.h"

namespace {

struct Row {
    std::wstring name;
    DWORD algorithmClass;
    DWORD operations;
    DWORD flags;
    bool operator==(const Row& other) const {
        return name == other.name && algorithmClass == other.algorithmClass &&
               operations == other.operations && flags == other.flags;
    }
};

std::ostream& operator<<(std::ostream& out, const Row& row) {
    return out << std::string(row.name.begin(), row.name.end()) << "/" << row.algorithmClass << "/0x"
               << std::hex << row.operations << "/" << row.flags << std::dec;
}

const Row kRsa{L"RSA", 3, 0x14, 0};
const Row kP256{L"ECDSA_P256", 5, 0x10, 0};
const Row kP384{L"ECDSA_P384", 5, 0x10, 0};
const Row kP521{L"ECDSA_P521", 5, 0x10, 0};
const Row kSha1{L"SHA1", 2, 0x2, 0};
const Row kSha256{L"SHA256", 2, 0x2, 0};
const Row kSha384{L"SHA384", 2, 0x2, 0};
const Row kSha512{L"SHA512", 2, 0x2, 0};

class AlgorithmsTest : public objtest::ObjectsTest {
protected:
    // The rows KSPEnumAlgorithms hands out for `operations`; releases the list as a router would
    // (KSPFreeBuffer on the array) after freeing the name copies, which the array does not own.
    std::vector<Row> enumerate(DWORD operations) {
        DWORD count = 0xDEAD;
        NCryptAlgorithmName* list = nullptr;
        EXPECT_EQ(KSPEnumAlgorithms(provider_, operations, &count, &list, 0), 0);
        EXPECT_NE(list, nullptr);
        std::vector<Row> rows;
        if (list == nullptr)
            return rows;
        for (DWORD i = 0; i < count; ++i) {
            rows.push_back({list[i].pszName, list[i].dwClass, list[i].dwAlgOperations, list[i].dwFlags});
            std::free(list[i].pszName);
        }
        EXPECT_EQ(KSPFreeBuffer(list), 0);
        return rows;
    }
};

TEST_F(AlgorithmsTest, IsAlgSupportedAcceptsTheReportedNames) {
    for (const wchar_t* name :
         {L"RSA", L"ECDSA_P256", L"ECDSA_P384", L"ECDSA_P521", L"SHA256", L"SHA1", L"SHA384", L"SHA512"})
        EXPECT_EQ(KSPIsAlgSupported(0, name, 0), 0) << std::string(name, name + wcslen(name));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPIsAlgSupported"));
    EXPECT_TRUE(testsupport::logMessagesAt("ERROR").empty());
}

TEST_F(AlgorithmsTest, IsAlgSupportedRefusesOtherNames) {
    for (const wchar_t* name : {L"rsa", L"AES", L"SHA256 ", L"", L"ECDSA_P256X"})
        EXPECT_EQ(KSPIsAlgSupported(0, name, 0), KSP_NTE_NOT_SUPPORTED)
            << std::string(name, name + wcslen(name));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPIsAlgSupported: algorithm not supported"));
}

TEST_F(AlgorithmsTest, IsAlgSupportedNullNameIsAnInvalidParameter) {
    EXPECT_EQ(KSPIsAlgSupported(provider_, nullptr, 0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPIsAlgSupported: pszAlgId is null"));
}

TEST_F(AlgorithmsTest, IsAlgSupportedDoesNotLookAtTheProvider) {
    auto* closed = new KspProvider{};  // never initialised
    keepProvider(reinterpret_cast<NCRYPT_PROV_HANDLE>(closed));
    EXPECT_EQ(KSPIsAlgSupported(reinterpret_cast<NCRYPT_PROV_HANDLE>(closed), L"RSA", 0), 0);
    EXPECT_EQ(KSPIsAlgSupported(0, L"SHA512", 0), 0);
}

TEST_F(AlgorithmsTest, EcdhIsCreatableButNeitherSupportedNorListed) {
    makeProvider();
    NCRYPT_KEY_HANDLE key = createKey(L"ECDH_P384");
    ASSERT_NE(key, 0u);
    EXPECT_EQ(keyOf(key)->algorithm, CALYTH_KEY_EC_P384);
    EXPECT_EQ(KSPIsAlgSupported(provider_, L"ECDH_P384", 0), KSP_NTE_NOT_SUPPORTED);
    for (const Row& row : enumerate(0))
        EXPECT_EQ(row.name.find(L"ECDH"), std::wstring::npos);
}

TEST_F(AlgorithmsTest, EnumeratesAllEightRowsInOrder) {
    makeProvider();
    std::vector<Row> expected{kRsa, kP256, kP384, kP521, kSha1, kSha256, kSha384, kSha512};
    EXPECT_EQ(enumerate(0), expected);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPEnumAlgorithms"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Enumerated 8 algorithms"));
}

TEST_F(AlgorithmsTest, SignatureOperationKeepsRsaAndTheCurves) {
    makeProvider();
    std::vector<Row> expected{kRsa, kP256, kP384, kP521};
    EXPECT_EQ(enumerate(NCRYPT_SIGNATURE_OPERATION), expected);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Enumerated 4 algorithms"));
}

TEST_F(AlgorithmsTest, OtherOperationMasksFilterByAnySharedBit) {
    makeProvider();
    EXPECT_EQ(enumerate(NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION), std::vector<Row>{kRsa});
    EXPECT_EQ(enumerate(NCRYPT_HASH_OPERATION), (std::vector<Row>{kSha1, kSha256, kSha384, kSha512}));
    EXPECT_EQ(enumerate(NCRYPT_HASH_OPERATION | NCRYPT_SIGNATURE_OPERATION).size(), 8u);
}

TEST_F(AlgorithmsTest, SecretAgreementSelectsNothingAndSucceeds) {
    makeProvider();
    DWORD count = 0xDEAD;
    NCryptAlgorithmName* list = nullptr;
    EXPECT_EQ(KSPEnumAlgorithms(provider_, NCRYPT_SECRET_AGREEMENT_OPERATION, &count, &list, 0), 0);
    EXPECT_EQ(count, 0u);
    EXPECT_NE(list, nullptr);
    EXPECT_EQ(KSPFreeBuffer(list), 0);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Enumerated 0 algorithms"));
}

TEST_F(AlgorithmsTest, NullOrClosedProviderIsAnInvalidHandle) {
    DWORD count = 0;
    NCryptAlgorithmName* list = nullptr;
    EXPECT_EQ(KSPEnumAlgorithms(0, 0, &count, &list, 0), KSP_NTE_INVALID_HANDLE);
    auto* closed = new KspProvider{};
    keepProvider(reinterpret_cast<NCRYPT_PROV_HANDLE>(closed));
    EXPECT_EQ(KSPEnumAlgorithms(reinterpret_cast<NCRYPT_PROV_HANDLE>(closed), 0, &count, &list, 0),
              KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPEnumAlgorithms: provider handle is null or not initialized"));
}

TEST_F(AlgorithmsTest, NullOutputsAreAnInvalidParameter) {
    makeProvider();
    DWORD count = 0xDEAD;
    NCryptAlgorithmName* list = nullptr;
    EXPECT_EQ(KSPEnumAlgorithms(provider_, 0, nullptr, &list, 0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(KSPEnumAlgorithms(provider_, 0, &count, nullptr, 0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(count, 0xDEADu);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPEnumAlgorithms: pdwAlgCount or ppAlgList is null"));
}

}  // namespace
