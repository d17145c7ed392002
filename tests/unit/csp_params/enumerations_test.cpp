// PP_ENUMALGS, PP_ENUMALGS_EX and PP_ENUMCONTAINERS.
#include <cstring>

#include "param_test_context.h"

using namespace paramtest;

namespace {

struct ExpectedRow {
    ALG_ID algorithm;
    DWORD minBits, maxBits, defaultBits, protocols;
    std::string shortName, longName;
};

// The algorithms as an application sees them, in enumeration order.
const std::vector<ExpectedRow>& expectedRows() {
    static const std::vector<ExpectedRow> rows = {
        {0x6602, 40, 128, 128, 0, "RC2", "RSA Data Security's RC2"},
        {0x6801, 40, 128, 128, 0, "RC4", "RSA Data Security's RC4"},
        {0x6601, 56, 56, 56, 0, "DES", "Data Encryption Standard (DES)"},
        {0x6609, 112, 112, 112, 0, "3DES TWO KEY", "Two Key Triple DES"},
        {0x6603, 168, 168, 168, 0, "3DES", "Three Key Triple DES"},
        {0x8004, 160, 160, 160, 0x20, "SHA-1", "Secure Hash Algorithm (SHA-1)"},
        {0x800C, 256, 256, 256, 0x20, "SHA-256", "Secure Hash Algorithm 256 (SHA-256)"},
        {0x800D, 384, 384, 384, 0x20, "SHA-384", "Secure Hash Algorithm 384 (SHA-384)"},
        {0x800E, 512, 512, 512, 0x20, "SHA-512", "Secure Hash Algorithm 512 (SHA-512)"},
        {0x8008, 288, 288, 288, 0, "SSL3 SHAMD5", "SSL3 SHAMD5"},
        {0x8005, 0, 0, 0, 0, "MAC", "Message Authentication Code"},
        {0x2400, 1024, 4096, 2048, 0x30, "RSA-Sign", "RSA Signature"},
        {0xA400, 1024, 4096, 2048, 0x30, "RSA-KeyX", "RSA Key Exchange"},
        {0x8009, 0, 0, 0, 0, "HMAC", "Hugo's MAC (HMAC)"},
        {0x660E, 128, 128, 128, 0, "AES-128", "Advanced Encryption Standard 128-bit"},
        {0x660F, 192, 192, 192, 0, "AES-192", "Advanced Encryption Standard 192-bit"},
        {0x6610, 256, 256, 256, 0, "AES-256", "Advanced Encryption Standard 256-bit"},
    };
    return rows;
}

BOOL enumAlgs(CspContext& context, DWORD flags, PROV_ENUMALGS* out) {
    DWORD length = sizeof *out;
    std::memset(out, 0, sizeof *out);
    BOOL ok = CPGetProvParam(handleOf(context), PP_ENUMALGS, reinterpret_cast<BYTE*>(out), &length, flags);
    if (ok) {
        EXPECT_EQ(length, 32u);
    }
    return ok;
}

BOOL enumAlgsEx(CspContext& context, DWORD flags, PROV_ENUMALGS_EX* out) {
    DWORD length = sizeof *out;
    std::memset(out, 0, sizeof *out);
    BOOL ok = CPGetProvParam(handleOf(context), PP_ENUMALGS_EX, reinterpret_cast<BYTE*>(out), &length, flags);
    if (ok) {
        EXPECT_EQ(length, 88u);
    }
    return ok;
}

BOOL enumContainer(CspContext& context, DWORD flags, std::string* name) {
    char data[64];
    std::memset(data, 0, sizeof data);
    DWORD length = sizeof data;
    BOOL ok =
        CPGetProvParam(handleOf(context), PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(data), &length, flags);
    if (ok) {
        EXPECT_EQ(length, std::strlen(data) + 1);
        *name = data;
    }
    return ok;
}

}  // namespace

TEST_F(ParamTest, RecordSizesAreThePublishedOnes) {
    EXPECT_EQ(sizeof(PROV_ENUMALGS), 32u);
    EXPECT_EQ(sizeof(PROV_ENUMALGS_EX), 88u);
}

// ---- PP_ENUMALGS ----

TEST_F(ParamTest, EnumAlgsFirstThenSixteenNextGivesTheTableInOrder) {
    CspContext context = tokenContext();
    const std::vector<ExpectedRow>& rows = expectedRows();
    for (size_t i = 0; i < rows.size(); ++i) {
        PROV_ENUMALGS record;
        ASSERT_TRUE(enumAlgs(context, i == 0 ? CRYPT_FIRST : CRYPT_NEXT, &record)) << "row " << i;
        EXPECT_EQ(record.aiAlgid, rows[i].algorithm) << "row " << i;
        EXPECT_EQ(record.dwBitLen, rows[i].defaultBits) << "row " << i;
        EXPECT_EQ(record.dwNameLen, rows[i].shortName.size()) << "row " << i;
        EXPECT_EQ(std::string(record.szName), rows[i].shortName) << "row " << i;
        EXPECT_TRUE(
            testsupport::logHasLine("DEBUG", "CPGetProvParam: returned algorithm -> " + rows[i].shortName));
    }
    PROV_ENUMALGS record;
    SetLastError(0);
    EXPECT_FALSE(enumAlgs(context, CRYPT_NEXT, &record));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetProvParam PP_ENUMALGS: no more algorithms, index=17"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetProvParam: PP_ENUMALGS"));
}

TEST_F(ParamTest, EnumAlgsFirstRestartsTheEnumeration) {
    CspContext context = tokenContext();
    PROV_ENUMALGS record;
    ASSERT_TRUE(enumAlgs(context, CRYPT_FIRST, &record));
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(enumAlgs(context, CRYPT_NEXT, &record));
    EXPECT_EQ(record.aiAlgid, static_cast<ALG_ID>(CALG_SHA1));
    ASSERT_TRUE(enumAlgs(context, CRYPT_FIRST, &record));
    EXPECT_EQ(record.aiAlgid, static_cast<ALG_ID>(CALG_RC2));
}

TEST_F(ParamTest, EnumAlgsWithSgcFlagBehavesAsFirst) {
    CspContext context = tokenContext();
    PROV_ENUMALGS record;
    ASSERT_TRUE(enumAlgs(context, CRYPT_FIRST, &record));
    ASSERT_TRUE(enumAlgs(context, CRYPT_NEXT, &record));
    ASSERT_TRUE(enumAlgs(context, CRYPT_FIRST | CRYPT_SGC_ENUM, &record));
    EXPECT_EQ(record.aiAlgid, static_cast<ALG_ID>(CALG_RC2));
    EXPECT_EQ(context.algorithmEnumIndex, 0u);
    ASSERT_TRUE(enumAlgs(context, CRYPT_NEXT | CRYPT_SGC_ENUM, &record));
    EXPECT_EQ(record.aiAlgid, static_cast<ALG_ID>(CALG_RC4));
}

TEST_F(ParamTest, EnumAlgsWithAnUnknownFlagFails) {
    CspContext context = tokenContext();
    PROV_ENUMALGS record;
    for (DWORD flags : {8ul, CRYPT_FIRST | 8ul, static_cast<DWORD>(CRYPT_FIRST | CRYPT_NEXT)}) {
        SetLastError(0);
        EXPECT_FALSE(enumAlgs(context, flags, &record)) << flags;
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER)) << flags;
        EXPECT_TRUE(testsupport::logHasLine(
            "ERROR", "CPGetProvParam PP_ENUMALGS: invalid dwFlags=" + std::to_string(flags)));
    }
    EXPECT_EQ(context.algorithmEnumIndex, 0u);
}

TEST_F(ParamTest, EnumAlgsWithoutFirstStartsAtTheSecondRow) {
    CspContext context = tokenContext();
    PROV_ENUMALGS record;
    ASSERT_TRUE(enumAlgs(context, 0, &record));
    EXPECT_EQ(record.aiAlgid, static_cast<ALG_ID>(CALG_RC4));
    ASSERT_TRUE(enumAlgs(context, 0, &record));
    EXPECT_EQ(record.aiAlgid, static_cast<ALG_ID>(CALG_DES));
}

TEST_F(ParamTest, EnumAlgsNameLengthOfSsl3ShaMd5IsEleven) {
    CspContext context = tokenContext();
    PROV_ENUMALGS record;
    ASSERT_TRUE(enumAlgs(context, CRYPT_FIRST, &record));
    for (int i = 0; i < 9; ++i)
        ASSERT_TRUE(enumAlgs(context, CRYPT_NEXT, &record));
    EXPECT_STREQ(record.szName, "SSL3 SHAMD5");
    EXPECT_EQ(record.dwNameLen, 11u);
    EXPECT_EQ(record.dwBitLen, 288u);
}

TEST_F(ParamTest, EnumAlgsSizeQueryGivesTrueAndConsumesARow) {
    CspContext context = tokenContext();
    PROV_ENUMALGS record;
    ASSERT_TRUE(enumAlgs(context, CRYPT_FIRST, &record));
    DWORD length = 0;
    SetLastError(0);
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_ENUMALGS, nullptr, &length, CRYPT_NEXT));
    EXPECT_EQ(length, 32u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    ASSERT_TRUE(enumAlgs(context, CRYPT_NEXT, &record));
    EXPECT_EQ(record.aiAlgid, static_cast<ALG_ID>(CALG_DES));
}

TEST_F(ParamTest, EnumAlgsShortBufferFailsWithMoreData) {
    CspContext context = tokenContext();
    BYTE data[31];
    std::memset(data, 0xCC, sizeof data);
    DWORD length = sizeof data;
    SetLastError(0);
    EXPECT_FALSE(CPGetProvParam(handleOf(context), PP_ENUMALGS, data, &length, CRYPT_FIRST));
    EXPECT_EQ(length, 32u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(data[0], 0xCC);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPGetProvParam PP_ENUMALGS: output buffer too small, required=32"));
}

// ---- PP_ENUMALGS_EX ----

TEST_F(ParamTest, EnumAlgsExGivesEveryColumnOfTheTable) {
    CspContext context = tokenContext();
    const std::vector<ExpectedRow>& rows = expectedRows();
    for (size_t i = 0; i < rows.size(); ++i) {
        PROV_ENUMALGS_EX record;
        ASSERT_TRUE(enumAlgsEx(context, i == 0 ? CRYPT_FIRST : CRYPT_NEXT, &record)) << "row " << i;
        EXPECT_EQ(record.aiAlgid, rows[i].algorithm) << "row " << i;
        EXPECT_EQ(record.dwDefaultLen, rows[i].defaultBits) << "row " << i;
        EXPECT_EQ(record.dwMinLen, rows[i].minBits) << "row " << i;
        EXPECT_EQ(record.dwMaxLen, rows[i].maxBits) << "row " << i;
        EXPECT_EQ(record.dwProtocols, rows[i].protocols) << "row " << i;
        EXPECT_EQ(record.dwNameLen, rows[i].shortName.size()) << "row " << i;
        EXPECT_EQ(std::string(record.szName), rows[i].shortName) << "row " << i;
        EXPECT_EQ(record.dwLongNameLen, rows[i].longName.size()) << "row " << i;
        EXPECT_EQ(std::string(record.szLongName), rows[i].longName) << "row " << i;
        EXPECT_TRUE(testsupport::logHasLine("DEBUG",
                                            "CPGetProvParam: returned EX algorithm -> " + rows[i].shortName));
    }
    PROV_ENUMALGS_EX record;
    EXPECT_FALSE(enumAlgsEx(context, CRYPT_NEXT, &record));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPGetProvParam PP_ENUMALGS_EX: no more algorithms, index=17"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetProvParam: PP_ENUMALGS_EX"));
}

TEST_F(ParamTest, EnumAlgsAndEnumAlgsExShareOnePosition) {
    CspContext context = tokenContext();
    PROV_ENUMALGS plain;
    PROV_ENUMALGS_EX extended;
    ASSERT_TRUE(enumAlgs(context, CRYPT_FIRST, &plain));
    ASSERT_TRUE(enumAlgsEx(context, CRYPT_NEXT, &extended));
    EXPECT_EQ(extended.aiAlgid, static_cast<ALG_ID>(CALG_RC4));
    ASSERT_TRUE(enumAlgs(context, CRYPT_NEXT, &plain));
    EXPECT_EQ(plain.aiAlgid, static_cast<ALG_ID>(CALG_DES));
}

TEST_F(ParamTest, EnumAlgsExSizeQueryAndShortBuffer) {
    CspContext context = tokenContext();
    DWORD length = 0;
    SetLastError(0);
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_ENUMALGS_EX, nullptr, &length, CRYPT_FIRST));
    EXPECT_EQ(length, 88u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    BYTE data[87];
    length = sizeof data;
    SetLastError(0);
    EXPECT_FALSE(CPGetProvParam(handleOf(context), PP_ENUMALGS_EX, data, &length, CRYPT_FIRST));
    EXPECT_EQ(length, 88u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "CPGetProvParam PP_ENUMALGS_EX: output buffer too small, required=88"));
    SetLastError(0);
    EXPECT_FALSE(CPGetProvParam(handleOf(context), PP_ENUMALGS_EX, data, &length, 16));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetProvParam PP_ENUMALGS_EX: invalid dwFlags=16"));
}

// ---- PP_ENUMCONTAINERS ----

TEST_F(ParamTest, EnumContainersListsTheKeyIdentifiersInOrder) {
    CspContext context = tokenContext(kKeyA, {kKeyA, kKeyB, kKeyC});
    std::string name;
    ASSERT_TRUE(enumContainer(context, CRYPT_FIRST, &name));
    EXPECT_EQ(name, kKeyA);
    ASSERT_TRUE(enumContainer(context, CRYPT_NEXT, &name));
    EXPECT_EQ(name, kKeyB);
    ASSERT_TRUE(enumContainer(context, CRYPT_NEXT, &name));
    EXPECT_EQ(name, kKeyC);
    EXPECT_TRUE(
        testsupport::logHasLine("DEBUG", std::string("CPGetProvParam: returned container -> ") + kKeyC));
    SetLastError(0);
    EXPECT_FALSE(enumContainer(context, CRYPT_NEXT, &name));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPGetProvParam PP_ENUMCONTAINERS: no more containers, index=3"));
    ASSERT_TRUE(enumContainer(context, CRYPT_FIRST, &name));
    EXPECT_EQ(name, kKeyA);
    EXPECT_EQ(fake::calls().size(), 0u);
}

TEST_F(ParamTest, EnumContainersWithFlagsZeroFails) {
    CspContext context = tokenContext(kKeyA, {kKeyA, kKeyB});
    std::string name;
    ASSERT_TRUE(enumContainer(context, CRYPT_FIRST, &name));
    for (DWORD flags : {0ul, static_cast<DWORD>(CRYPT_FIRST | CRYPT_NEXT),
                        static_cast<DWORD>(CRYPT_FIRST | CRYPT_SGC_ENUM)}) {
        SetLastError(0);
        EXPECT_FALSE(enumContainer(context, flags, &name)) << flags;
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER)) << flags;
        EXPECT_TRUE(testsupport::logHasLine(
            "ERROR", "CPGetProvParam PP_ENUMCONTAINERS: invalid dwFlags=" + std::to_string(flags)));
    }
    EXPECT_EQ(context.containerEnumIndex, 0u);
}

TEST_F(ParamTest, EnumContainersSizeQueryGivesTrueAndMovesTheIndex) {
    CspContext context = tokenContext(kKeyA, {kKeyA, kKeyB, kKeyC});
    DWORD length = 0;
    SetLastError(0);
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_ENUMCONTAINERS, nullptr, &length, CRYPT_FIRST));
    EXPECT_EQ(length, 33u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    length = 0;
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_ENUMCONTAINERS, nullptr, &length, CRYPT_NEXT));
    EXPECT_EQ(length, 33u);
    EXPECT_EQ(context.containerEnumIndex, 1u);
    std::string name;
    ASSERT_TRUE(enumContainer(context, CRYPT_NEXT, &name));
    EXPECT_EQ(name, kKeyC);
}

TEST_F(ParamTest, EnumContainersShortBufferGivesTrueWithMoreData) {
    CspContext context = tokenContext(kKeyA, {kKeyA});
    char data[32];
    std::memset(data, 'x', sizeof data);
    DWORD length = sizeof data;
    SetLastError(0);
    ASSERT_TRUE(CPGetProvParam(handleOf(context), PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(data), &length,
                               CRYPT_FIRST));
    EXPECT_EQ(length, 33u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(data[0], 'x');
}

TEST_F(ParamTest, EnumContainersOfAnEmptyTokenEndsAtOnce) {
    CspContext context = verifyContext();
    std::string name;
    SetLastError(0);
    EXPECT_FALSE(enumContainer(context, CRYPT_FIRST, &name));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPGetProvParam PP_ENUMCONTAINERS: no more containers, index=0"));
}

TEST_F(ParamTest, EnumerationPositionsBelongToEachContext) {
    CspContext first = tokenContext(kKeyA, {kKeyA, kKeyB});
    CspContext second = tokenContext(kKeyA, {kKeyA, kKeyB});
    std::string name;
    PROV_ENUMALGS record;
    ASSERT_TRUE(enumContainer(first, CRYPT_FIRST, &name));
    ASSERT_TRUE(enumContainer(first, CRYPT_NEXT, &name));
    ASSERT_TRUE(enumAlgs(first, CRYPT_FIRST, &record));
    ASSERT_TRUE(enumAlgs(first, CRYPT_NEXT, &record));
    ASSERT_TRUE(enumContainer(second, CRYPT_NEXT, &name));
    EXPECT_EQ(name, kKeyB);
    ASSERT_TRUE(enumAlgs(second, CRYPT_NEXT, &record));
    EXPECT_EQ(record.aiAlgid, static_cast<ALG_ID>(CALG_RC4));
}
