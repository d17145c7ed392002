// KSPDeriveKey: the hash choice, the SP800_56ACONCAT input, output lengths and device failures.
// The fake hashes for real, so every digest is compared with one computed through BCrypt.
#include <gtest/gtest.h>

#include "agreement_support.h"
#include "ksp/kdf_parameters.h"
#include "unit/ksp/ksp_fixture.h"

namespace {

using agreementtest::bcryptDigest;
using agreementtest::Bytes;
using agreementtest::bytesOf;
using agreementtest::concat;
using agreementtest::ParameterList;

class DeriveKey : public ksptest::KspTest {
protected:
    void SetUp() override {
        KspTest::SetUp();
        makeProvider();
        for (int i = 0; i < 32; ++i)
            z.push_back(static_cast<unsigned char>(0xE0 ^ i));
        secret = agreementtest::makeSecret(z, provider());
        fake::clearCalls();
    }
    void TearDown() override {
        EXPECT_EQ(KSPFreeSecret(provider_, secret), 0);
        KspTest::TearDown();
    }
    // Derives into a 64-byte buffer (asking 64 bytes gives one whole hash); *out is cut to
    // *pcbResult on success.
    SECURITY_STATUS derive(LPCWSTR kdf, NCryptBufferDesc* list, DWORD asked, Bytes* out) {
        out->assign(64, 0xEE);
        result = 0xDEAD;
        SECURITY_STATUS status = KSPDeriveKey(provider_, secret, kdf, list, out->data(), asked, &result, 0);
        if (status == 0)
            out->resize(result);
        return status;
    }

    Bytes z;
    NCRYPT_SECRET_HANDLE secret = 0;
    DWORD result = 0;
};

TEST_F(DeriveKey, WithoutKdfNameHashesTheSecretWithSha256) {
    Bytes key;
    ASSERT_EQ(derive(nullptr, nullptr, 64, &key), 0);
    EXPECT_EQ(key, bcryptDigest(L"SHA256", z));
    EXPECT_EQ(result, 32u);
    auto init = fake::callsTo("calyth_initHash");
    ASSERT_EQ(init.size(), 1u);
    EXPECT_EQ(init[0].serial, "SN1");
    EXPECT_EQ(init[0].args, std::vector<std::string>{"3"});
    EXPECT_EQ(fake::countCalls("calyth_updateHash"), 1u);
    EXPECT_EQ(fake::countCalls("calyth_finalHash"), 1u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPDeriveKey"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPDeriveKey: derived 32 bytes"));
}

TEST_F(DeriveKey, ConcatHashesAlgorithmIdPartyUAndSecret) {
    ParameterList list;
    list.add(KSP_KDF_ALGORITHMID, bytesOf("A")).add(KSP_KDF_PARTYUINFO, bytesOf("U"));
    Bytes key;
    ASSERT_EQ(derive(L"SP800_56ACONCAT", list.desc(), 64, &key), 0);
    EXPECT_EQ(key, bcryptDigest(L"SHA256", concat(bytesOf("AU"), z)));
    auto update = fake::callsTo("calyth_updateHash");
    ASSERT_EQ(update.size(), 1u);
    EXPECT_EQ(update[0].args[1], fake::hex(concat(bytesOf("AU"), z)));
}

TEST_F(DeriveKey, PartyVInfoChangesNothing) {
    ParameterList plain;
    plain.add(KSP_KDF_ALGORITHMID, bytesOf("A")).add(KSP_KDF_PARTYUINFO, bytesOf("U"));
    ParameterList withV;
    withV.add(KSP_KDF_ALGORITHMID, bytesOf("A"))
        .add(KSP_KDF_PARTYVINFO, bytesOf("V"))
        .add(KSP_KDF_PARTYUINFO, bytesOf("U"));
    Bytes first;
    Bytes second;
    ASSERT_EQ(derive(L"SP800_56ACONCAT", plain.desc(), 64, &first), 0);
    ASSERT_EQ(derive(L"SP800_56ACONCAT", withV.desc(), 64, &second), 0);
    EXPECT_EQ(first, second);
    EXPECT_EQ(second, bcryptDigest(L"SHA256", concat(bytesOf("AU"), z)));
}

TEST_F(DeriveKey, AlgorithmIdComesFirstWhateverTheOrderAndRepeatsAccumulate) {
    ParameterList list;
    list.add(KSP_KDF_PARTYUINFO, bytesOf("U1"))
        .add(KSP_KDF_ALGORITHMID, bytesOf("A1"))
        .add(KSP_KDF_PARTYUINFO, bytesOf("U2"))
        .add(KSP_KDF_ALGORITHMID, bytesOf("A2"));
    Bytes key;
    ASSERT_EQ(derive(L"SP800_56ACONCAT", list.desc(), 64, &key), 0);
    EXPECT_EQ(key, bcryptDigest(L"SHA256", concat(bytesOf("A1A2U1U2"), z)));
}

TEST_F(DeriveKey, OtherKdfNamesHashTheSecretAlone) {
    ParameterList list;
    list.add(KSP_KDF_ALGORITHMID, bytesOf("A")).add(KSP_KDF_PARTYUINFO, bytesOf("U"));
    // bcrypt.h's spelling has a second underscore: it is not the concatenation KDF here.
    for (const wchar_t* kdf : {L"SP800_56A_CONCAT", L"HASH", L"sp800_56aconcat", L""}) {
        Bytes key;
        ASSERT_EQ(derive(kdf, list.desc(), 64, &key), 0);
        EXPECT_EQ(key, bcryptDigest(L"SHA256", z));
    }
}

TEST_F(DeriveKey, HashNamesPickTheDeviceHash) {
    struct Case {
        const wchar_t* name;
        const wchar_t* bcryptName;
        const char* code;
    };
    for (const Case& c : {Case{L"SHA1", L"SHA1", "2"}, Case{L"SHA256", L"SHA256", "3"},
                          Case{L"SHA384", L"SHA384", "4"}, Case{L"SHA512", L"SHA512", "5"}}) {
        ParameterList list;
        list.addText(KSP_KDF_HASH_ALGORITHM, c.name);
        fake::clearCalls();
        Bytes key;
        ASSERT_EQ(derive(nullptr, list.desc(), 64, &key), 0);
        EXPECT_EQ(key, bcryptDigest(c.bcryptName, z));
        EXPECT_EQ(result, bcryptDigest(c.bcryptName, z).size());
        EXPECT_EQ(fake::callsTo("calyth_initHash").at(0).args, std::vector<std::string>{c.code});
    }
}

TEST_F(DeriveKey, Md5AndOtherUnknownNamesSelectSha256) {
    for (const wchar_t* name : {L"MD5", L"sha1", L"SHA-1"}) {
        ParameterList list;
        list.addText(KSP_KDF_HASH_ALGORITHM, name);
        fake::clearCalls();
        Bytes key;
        ASSERT_EQ(derive(nullptr, list.desc(), 64, &key), 0);
        EXPECT_EQ(key, bcryptDigest(L"SHA256", z));
        EXPECT_EQ(fake::callsTo("calyth_initHash").at(0).args, std::vector<std::string>{"3"});
    }
}

TEST_F(DeriveKey, LaterHashNameReplacesTheEarlier) {
    ParameterList list;
    list.addText(KSP_KDF_HASH_ALGORITHM, L"SHA1").addText(KSP_KDF_HASH_ALGORITHM, L"SHA512");
    Bytes key;
    ASSERT_EQ(derive(nullptr, list.desc(), 64, &key), 0);
    EXPECT_EQ(key, bcryptDigest(L"SHA512", z));
}

TEST_F(DeriveKey, AskingMoreThanOneHashGivesOneHash) {
    Bytes key;
    ASSERT_EQ(derive(nullptr, nullptr, 64, &key), 0);
    EXPECT_EQ(result, 32u);
    EXPECT_EQ(key, bcryptDigest(L"SHA256", z));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPDeriveKey: derived 32 bytes"));
}

TEST_F(DeriveKey, AskingLessGivesTheFirstBytesOfTheHash) {
    Bytes buffer(64, 0xEE);
    ASSERT_EQ(KSPDeriveKey(provider_, secret, nullptr, nullptr, buffer.data(), 16, &result, 0), 0);
    EXPECT_EQ(result, 16u);
    Bytes full = bcryptDigest(L"SHA256", z);
    EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 16), Bytes(full.begin(), full.begin() + 16));
    EXPECT_EQ(Bytes(buffer.begin() + 16, buffer.end()), Bytes(48, 0xEE));  // nothing written past 16
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPDeriveKey: derived 16 bytes"));
}

TEST_F(DeriveKey, BufferWithZeroSizeIsTooSmallAfterReportingTheFullSize) {
    Bytes buffer(64, 0xEE);
    EXPECT_EQ(KSPDeriveKey(provider_, secret, nullptr, nullptr, buffer.data(), 0, &result, 0),
              KSP_NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, 32u);
    EXPECT_EQ(buffer, Bytes(64, 0xEE));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPDeriveKey: output buffer too small"));
}

TEST_F(DeriveKey, NullOutputIsASizeQueryAfterHashing) {
    EXPECT_EQ(KSPDeriveKey(provider_, secret, nullptr, nullptr, nullptr, 0, &result, 0), 0);
    EXPECT_EQ(result, 32u);
    EXPECT_EQ(KSPDeriveKey(provider_, secret, nullptr, nullptr, nullptr, 20, &result, 0), 0);
    EXPECT_EQ(result, 20u);
    EXPECT_EQ(fake::countCalls("calyth_finalHash"), 2u);
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "KSPDeriveKey: derived 32 bytes"));
}

TEST_F(DeriveKey, SecretCanBeDerivedFromManyTimes) {
    Bytes first;
    Bytes second;
    ASSERT_EQ(derive(nullptr, nullptr, 64, &first), 0);
    ASSERT_EQ(derive(nullptr, nullptr, 64, &second), 0);
    EXPECT_EQ(first, second);
}

TEST_F(DeriveKey, NullSecretOrResultIsInvalidParameter) {
    Bytes buffer(32);
    EXPECT_EQ(KSPDeriveKey(provider_, 0, nullptr, nullptr, buffer.data(), 32, &result, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPDeriveKey(provider_, secret, nullptr, nullptr, buffer.data(), 32, nullptr, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPDeriveKey: invalid parameter"));
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(DeriveKey, EmptySecretIsInvalidHandle) {
    NCRYPT_SECRET_HANDLE empty = agreementtest::makeSecret({}, provider());
    DWORD size = 0;
    EXPECT_EQ(KSPDeriveKey(provider_, empty, nullptr, nullptr, nullptr, 0, &size, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPDeriveKey: invalid secret handle"));
    EXPECT_EQ(KSPFreeSecret(provider_, empty), 0);
}

TEST_F(DeriveKey, FirmwareGateUsesTheSecretsProvider) {
    NCRYPT_PROV_HANDLE newer = makeProvider();  // passed, but not the secret's
    provider()->firmware = "1.9.9";
    Bytes buffer(32);
    EXPECT_EQ(KSPDeriveKey(newer, secret, nullptr, nullptr, buffer.data(), 32, &result, 0),
              KSP_NTE_NOT_SUPPORTED);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "KSPDeriveKey: ECDH derive not supported on firmware 1.9.9"));
    EXPECT_TRUE(fake::calls().empty());
    provider()->firmware = "2.0";
    kspProviderFrom(newer)->firmware = "1.0";
    EXPECT_EQ(KSPDeriveKey(newer, secret, nullptr, nullptr, buffer.data(), 32, &result, 0), 0);
}

TEST_F(DeriveKey, SecretWithoutProviderHashesWithoutSerialOrGate) {
    NCRYPT_SECRET_HANDLE orphan = agreementtest::makeSecret(z, nullptr);
    Bytes buffer(32);
    EXPECT_EQ(KSPDeriveKey(0, orphan, nullptr, nullptr, buffer.data(), 32, &result, 0), 0);
    EXPECT_EQ(buffer, bcryptDigest(L"SHA256", z));
    EXPECT_EQ(fake::callsTo("calyth_initHash").at(0).serial, "");
    EXPECT_EQ(KSPFreeSecret(0, orphan), 0);
}

TEST_F(DeriveKey, InitHashFailureIsInternalError) {
    fake::failNext("calyth_initHash", 9);
    Bytes key;
    EXPECT_EQ(derive(nullptr, nullptr, 64, &key), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPDeriveKey: calyth_initHash failed, ret=9"));
    EXPECT_EQ(result, 0xDEADu);
    EXPECT_EQ(key, Bytes(64, 0xEE));
}

TEST_F(DeriveKey, UpdateHashFailureIsInternalError) {
    fake::failNext("calyth_updateHash", 10);
    Bytes key;
    EXPECT_EQ(derive(nullptr, nullptr, 64, &key), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPDeriveKey: calyth_updateHash failed, ret=10"));
    EXPECT_EQ(fake::countCalls("calyth_finalHash"), 0u);
}

TEST_F(DeriveKey, FinalHashFailureIsInternalError) {
    fake::failNext("calyth_finalHash", 11);
    Bytes key;
    EXPECT_EQ(derive(nullptr, nullptr, 64, &key), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPDeriveKey: calyth_finalHash failed, ret=11"));
    EXPECT_EQ(result, 0xDEADu);
    EXPECT_EQ(key, Bytes(64, 0xEE));
}

TEST_F(DeriveKey, SecretLengthNeverCountsPastItsRoom) {
    KspSecret* record = kspSecretFrom(secret);
    for (size_t i = 0; i < sizeof record->secret; ++i)
        record->secret[i] = static_cast<unsigned char>(i);
    record->length = 200;
    Bytes key;
    ASSERT_EQ(derive(nullptr, nullptr, 64, &key), 0);
    EXPECT_EQ(key, bcryptDigest(L"SHA256", Bytes(record->secret, record->secret + 66)));
}

}  // namespace
