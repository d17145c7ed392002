// Hostile parameter lists for KSPDeriveKey: counts and sizes come from the caller, so every read is
// bounded by them and nothing is read past a buffer that ends at an inaccessible page.
#include <cstring>
#include <gtest/gtest.h>

#include "agreement_support.h"
#include "ksp/kdf_parameters.h"
#include "support/fenced_buffer.h"
#include "unit/ksp/ksp_fixture.h"

namespace {

using agreementtest::bcryptDigest;
using agreementtest::Bytes;
using agreementtest::bytesOf;
using agreementtest::concat;
using agreementtest::ParameterList;
using testsupport::FencedBuffer;

class ParameterLists : public ksptest::KspTest {
protected:
    void SetUp() override {
        KspTest::SetUp();
        makeProvider();
        z.assign(32, 0x5A);
        secret = agreementtest::makeSecret(z, provider());
    }
    void TearDown() override {
        EXPECT_EQ(KSPFreeSecret(provider_, secret), 0);
        KspTest::TearDown();
    }
    SECURITY_STATUS derive(LPCWSTR kdf, NCryptBufferDesc* list, Bytes* out) {
        out->assign(64, 0);
        DWORD result = 0;
        SECURITY_STATUS status = KSPDeriveKey(provider_, secret, kdf, list, out->data(), 0x40, &result, 0);
        if (status == 0)
            out->resize(result);
        return status;
    }

    Bytes z;
    NCRYPT_SECRET_HANDLE secret = 0;
};

// Wide text placed so that its last character is the last readable one, without a NUL.
wchar_t* unterminatedAtPageEnd(FencedBuffer& fence, const std::wstring& text) {
    auto* where = reinterpret_cast<wchar_t*>(fence.room(text.size() * sizeof(wchar_t)));
    std::memcpy(where, text.data(), text.size() * sizeof(wchar_t));
    return where;
}

TEST_F(ParameterLists, HashNameWithoutNulEndsAtItsSize) {
    FencedBuffer fence;
    wchar_t* name = unterminatedAtPageEnd(fence, L"SHA384");
    ParameterList list;
    list.addRaw(KSP_KDF_HASH_ALGORITHM, name, 12);
    Bytes key;
    ASSERT_EQ(derive(nullptr, list.desc(), &key), 0);
    EXPECT_EQ(key, bcryptDigest(L"SHA384", z));
}

TEST_F(ParameterLists, HashNameIsCutAtItsSizeNotAtANulFurtherOn) {
    wchar_t text[] = L"SHA1XYZ";
    ParameterList list;
    list.addRaw(KSP_KDF_HASH_ALGORITHM, text, 8);  // "SHA1"
    Bytes key;
    ASSERT_EQ(derive(nullptr, list.desc(), &key), 0);
    EXPECT_EQ(key, bcryptDigest(L"SHA1", z));
}

TEST_F(ParameterLists, OddHashNameSizeDropsTheHalfCharacter) {
    FencedBuffer pageFence;
    unsigned char* page = pageFence.room(9);
    std::memcpy(page, L"SHA1", 8);
    page[8] = 'X';
    ParameterList list;
    list.addRaw(KSP_KDF_HASH_ALGORITHM, page, 9);
    Bytes key;
    ASSERT_EQ(derive(nullptr, list.desc(), &key), 0);
    EXPECT_EQ(key, bcryptDigest(L"SHA1", z));
}

TEST_F(ParameterLists, OneByteHashNameIsAnEmptyNameAndSelectsSha256) {
    FencedBuffer pageFence;
    unsigned char* page = pageFence.room(1);
    page[0] = 'S';
    ParameterList list;
    list.addText(KSP_KDF_HASH_ALGORITHM, L"SHA1").addRaw(KSP_KDF_HASH_ALGORITHM, page, 1);
    Bytes key;
    ASSERT_EQ(derive(nullptr, list.desc(), &key), 0);
    EXPECT_EQ(key, bcryptDigest(L"SHA256", z));
}

TEST_F(ParameterLists, ConcatInputsAreReadToTheirSizeOnly) {
    FencedBuffer algorithmFence;
    unsigned char* algorithm = algorithmFence.room(3);
    std::memcpy(algorithm, "ALG", 3);
    FencedBuffer partyUFence;
    unsigned char* partyU = partyUFence.room(2);
    std::memcpy(partyU, "PU", 2);
    ParameterList list;
    list.addRaw(KSP_KDF_ALGORITHMID, algorithm, 3).addRaw(KSP_KDF_PARTYUINFO, partyU, 2);
    Bytes key;
    ASSERT_EQ(derive(L"SP800_56ACONCAT", list.desc(), &key), 0);
    EXPECT_EQ(key, bcryptDigest(L"SHA256", concat(bytesOf("ALGPU"), z)));
}

TEST_F(ParameterLists, BufferArrayIsReadToItsCountOnly) {
    FencedBuffer pageFence;
    unsigned char* page = pageFence.room(2 * sizeof(NCryptBuffer));
    auto* buffers = reinterpret_cast<NCryptBuffer*>(page);
    static unsigned char a = 'A';
    static unsigned char u = 'U';
    buffers[0] = {1, KSP_KDF_ALGORITHMID, &a};
    buffers[1] = {1, KSP_KDF_PARTYUINFO, &u};
    NCryptBufferDesc desc{NCRYPTBUFFER_VERSION, 2, buffers};
    Bytes key;
    ASSERT_EQ(derive(L"SP800_56ACONCAT", &desc, &key), 0);
    EXPECT_EQ(key, bcryptDigest(L"SHA256", concat(bytesOf("AU"), z)));
}

TEST_F(ParameterLists, ZeroCountIgnoresTheArray) {
    ParameterList list;
    list.addText(KSP_KDF_HASH_ALGORITHM, L"SHA1");
    NCryptBufferDesc* desc = list.desc();
    desc->cBuffers = 0;
    Bytes key;
    ASSERT_EQ(derive(nullptr, desc, &key), 0);
    EXPECT_EQ(key, bcryptDigest(L"SHA256", z));
}

TEST_F(ParameterLists, CountWithoutArrayIsInvalidParameter) {
    // Such a list cannot be walked; it is refused as an unusable argument, before any hashing.
    NCryptBufferDesc desc{NCRYPTBUFFER_VERSION, 3, nullptr};
    Bytes key;
    EXPECT_EQ(derive(nullptr, &desc, &key), KSP_NTE_INVALID_PARAMETER);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPDeriveKey: invalid parameter"));
    EXPECT_EQ(fake::countCalls("calyth_initHash"), 0u);
}

TEST_F(ParameterLists, NullValuesAndZeroSizesAreSkipped) {
    static wchar_t sha1[] = L"SHA1";
    static unsigned char a = 'A';
    ParameterList list;
    list.addRaw(KSP_KDF_HASH_ALGORITHM, nullptr, 10)
        .addRaw(KSP_KDF_HASH_ALGORITHM, sha1, 0)
        .addRaw(KSP_KDF_ALGORITHMID, nullptr, 5)
        .addRaw(KSP_KDF_ALGORITHMID, &a, 0)
        .addRaw(KSP_KDF_PARTYUINFO, nullptr, 7);
    Bytes key;
    ASSERT_EQ(derive(L"SP800_56ACONCAT", list.desc(), &key), 0);
    EXPECT_EQ(key, bcryptDigest(L"SHA256", z));
}

TEST_F(ParameterLists, OtherTypesAreIgnored) {
    // bcrypt.h's own numbers for the algorithm identifier and party-U information (8, 9), secret
    // prepend/append (1, 2) and an unknown type.
    ParameterList list;
    list.add(8, bytesOf("A"))
        .add(9, bytesOf("U"))
        .add(1, bytesOf("P"))
        .add(2, bytesOf("Q"))
        .add(0x7777, bytesOf("?"));
    Bytes key;
    ASSERT_EQ(derive(L"SP800_56ACONCAT", list.desc(), &key), 0);
    EXPECT_EQ(key, bcryptDigest(L"SHA256", z));
}

TEST_F(ParameterLists, EmptyListIsNoParameters) {
    NCryptBufferDesc desc{NCRYPTBUFFER_VERSION, 0, nullptr};
    Bytes key;
    ASSERT_EQ(derive(L"SP800_56ACONCAT", &desc, &key), 0);
    EXPECT_EQ(key, bcryptDigest(L"SHA256", z));
}

}  // namespace
