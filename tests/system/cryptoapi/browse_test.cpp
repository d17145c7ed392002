// The provider as a CSP browser and ordinary applications see it through advapi32: listed among the
// system's providers, opened by name and container, its algorithms and containers enumerated with
// CRYPT_FIRST / CRYPT_NEXT until ERROR_NO_MORE_ITEMS, its name and type read, random numbers drawn.
#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <gtest/gtest.h>

#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/test_support.h"
#include "support/token_tool.h"

using namespace testsupport;

namespace {

constexpr const char* kSerial = "CLIENT-BROWSE-01";
constexpr const char* kSecondSerial = "CLIENT-BROWSE-02";
constexpr const char* kPin = "2718";

struct BrowseTokens {
    std::vector<std::string> firstKeys;   // CLIENT-BROWSE-01, in the token's order
    std::vector<std::string> secondKeys;  // CLIENT-BROWSE-02
};

const BrowseTokens& browseTokens() {
    static BrowseTokens tokens = [] {
        BrowseTokens made;
        EXPECT_EQ(registerProvider(), ERROR_SUCCESS);
        useFreshTokenStore();
        if (!makeToken(kSerial, std::string("--pin ") + kPin) ||
            !makeToken(kSecondSerial, std::string("--pin ") + kPin))
            return made;
        for (const char* usage : {"sign", "exchange", "both"})
            makeKey(kSerial, "rsa2048", std::string("--usage ") + usage);
        makeKey(kSecondSerial, "rsa2048", "--usage both");
        made.firstKeys = listedKeyIds(kSerial);
        made.secondKeys = listedKeyIds(kSecondSerial);
        return made;
    }();
    return tokens;
}

// The algorithms the provider announces, in its order: id, default, minimum and maximum length,
// protocols, short and long name.
struct Algorithm {
    ALG_ID id;
    DWORD defaultLength, minLength, maxLength, protocols;
    const char* name;
    const char* longName;
};

const Algorithm kAlgorithms[] = {
    {CALG_RC2, 128, 40, 128, 0, "RC2", "RSA Data Security's RC2"},
    {CALG_RC4, 128, 40, 128, 0, "RC4", "RSA Data Security's RC4"},
    {CALG_DES, 56, 56, 56, 0, "DES", "Data Encryption Standard (DES)"},
    {CALG_3DES_112, 112, 112, 112, 0, "3DES TWO KEY", "Two Key Triple DES"},
    {CALG_3DES, 168, 168, 168, 0, "3DES", "Three Key Triple DES"},
    {CALG_SHA1, 160, 160, 160, 0x20, "SHA-1", "Secure Hash Algorithm (SHA-1)"},
    {CALG_SHA_256, 256, 256, 256, 0x20, "SHA-256", "Secure Hash Algorithm 256 (SHA-256)"},
    {CALG_SHA_384, 384, 384, 384, 0x20, "SHA-384", "Secure Hash Algorithm 384 (SHA-384)"},
    {CALG_SHA_512, 512, 512, 512, 0x20, "SHA-512", "Secure Hash Algorithm 512 (SHA-512)"},
    {CALG_SSL3_SHAMD5, 288, 288, 288, 0, "SSL3 SHAMD5", "SSL3 SHAMD5"},
    {CALG_MAC, 0, 0, 0, 0, "MAC", "Message Authentication Code"},
    {CALG_RSA_SIGN, 2048, 1024, 4096, 0x30, "RSA-Sign", "RSA Signature"},
    {CALG_RSA_KEYX, 2048, 1024, 4096, 0x30, "RSA-KeyX", "RSA Key Exchange"},
    {CALG_HMAC, 0, 0, 0, 0, "HMAC", "Hugo's MAC (HMAC)"},
    {CALG_AES_128, 128, 128, 128, 0, "AES-128", "Advanced Encryption Standard 128-bit"},
    {CALG_AES_192, 192, 192, 192, 0, "AES-192", "Advanced Encryption Standard 192-bit"},
    {CALG_AES_256, 256, 256, 256, 0, "AES-256", "Advanced Encryption Standard 256-bit"},
};

class Browse : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(tokens.firstKeys.size(), 3u);
        ASSERT_EQ(tokens.secondKeys.size(), 1u);
    }

    // Every entry of an enumeration, as a browser walks it: CRYPT_FIRST, then CRYPT_NEXT until the
    // provider answers ERROR_NO_MORE_ITEMS; each entry fetched into a buffer of `entrySize`.
    static std::vector<Bytes> walk(HCRYPTPROV handle, DWORD param, DWORD entrySize, DWORD* endError) {
        std::vector<Bytes> entries;
        for (DWORD flags = CRYPT_FIRST;; flags = CRYPT_NEXT) {
            Bytes entry(entrySize);
            DWORD length = entrySize;
            if (!CryptGetProvParam(handle, param, entry.data(), &length, flags)) {
                *endError = GetLastError();
                break;
            }
            entry.resize(length);
            entries.push_back(entry);
            if (entries.size() > 100)
                break;
        }
        return entries;
    }

    const BrowseTokens& tokens = browseTokens();
};

TEST_F(Browse, ProviderIsListedAmongTheSystemsProvidersWithTypeRsaFull) {
    bool found = false;
    DWORD index = 0;
    for (;; ++index) {
        char name[256] = {};
        DWORD nameSize = sizeof name;
        DWORD type = 0;
        if (!CryptEnumProvidersA(index, nullptr, 0, &type, name, &nameSize))
            break;
        if (std::string(name) == kProviderName) {
            found = true;
            EXPECT_EQ(type, static_cast<DWORD>(PROV_RSA_FULL));
        }
    }
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
    EXPECT_TRUE(found) << index << " providers listed";
}

TEST_F(Browse, RegistrationNamesTheDllBesideTheProgram) {
    std::string image;
    DWORD type = 0;
    ASSERT_TRUE(readRegistration(&image, &type));
    EXPECT_EQ(image, providerImagePath());
    EXPECT_EQ(type, static_cast<DWORD>(PROV_RSA_FULL));
}

TEST_F(Browse, EnumAlgsWalksTheSeventeenAlgorithms) {
    Provider provider;
    ASSERT_TRUE(acquire(provider, nullptr, CRYPT_VERIFYCONTEXT)) << std::hex << GetLastError();
    DWORD endError = 0;
    std::vector<Bytes> entries = walk(provider.handle, PP_ENUMALGS, sizeof(PROV_ENUMALGS), &endError);
    EXPECT_EQ(endError, static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
    ASSERT_EQ(entries.size(), 17u);
    for (size_t i = 0; i < entries.size(); ++i) {
        ASSERT_EQ(entries[i].size(), sizeof(PROV_ENUMALGS));
        PROV_ENUMALGS row;
        std::memcpy(&row, entries[i].data(), sizeof row);
        EXPECT_EQ(row.aiAlgid, kAlgorithms[i].id) << i;
        EXPECT_EQ(row.dwBitLen, kAlgorithms[i].defaultLength) << i;
        EXPECT_STREQ(row.szName, kAlgorithms[i].name) << i;
        EXPECT_EQ(row.dwNameLen, std::strlen(kAlgorithms[i].name)) << i;
    }
}

TEST_F(Browse, EnumAlgsExWalksTheSeventeenAlgorithmsWithLongNames) {
    Provider provider;
    ASSERT_TRUE(acquire(provider, nullptr, CRYPT_VERIFYCONTEXT));
    DWORD endError = 0;
    std::vector<Bytes> entries = walk(provider.handle, PP_ENUMALGS_EX, sizeof(PROV_ENUMALGS_EX), &endError);
    EXPECT_EQ(endError, static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
    ASSERT_EQ(entries.size(), 17u);
    for (size_t i = 0; i < entries.size(); ++i) {
        ASSERT_EQ(entries[i].size(), sizeof(PROV_ENUMALGS_EX));
        PROV_ENUMALGS_EX row;
        std::memcpy(&row, entries[i].data(), sizeof row);
        const Algorithm& a = kAlgorithms[i];
        EXPECT_EQ(row.aiAlgid, a.id) << i;
        EXPECT_EQ(row.dwDefaultLen, a.defaultLength) << i;
        EXPECT_EQ(row.dwMinLen, a.minLength) << i;
        EXPECT_EQ(row.dwMaxLen, a.maxLength) << i;
        EXPECT_EQ(row.dwProtocols, a.protocols) << i;
        EXPECT_STREQ(row.szName, a.name) << i;
        EXPECT_STREQ(row.szLongName, a.longName) << i;
        EXPECT_EQ(row.dwLongNameLen, std::strlen(a.longName)) << i;
    }
}

TEST_F(Browse, EnumContainersListsTheKeyIdsOfTheTokenInItsOrder) {
    Provider provider;
    ASSERT_TRUE(acquire(provider, tokens.firstKeys[1].c_str())) << std::hex << GetLastError();
    // The size query a browser starts with: the name's length with its zero, and more data.
    DWORD length = 0;
    SetLastError(0);
    EXPECT_TRUE(CryptGetProvParam(provider.handle, PP_ENUMCONTAINERS, nullptr, &length, CRYPT_FIRST));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(length, 33u);

    DWORD endError = 0;
    std::vector<Bytes> entries = walk(provider.handle, PP_ENUMCONTAINERS, 64, &endError);
    EXPECT_EQ(endError, static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
    std::vector<std::string> names;
    for (const Bytes& entry : entries) {
        EXPECT_EQ(entry.size(), 33u);
        names.push_back(reinterpret_cast<const char*>(entry.data()));
    }
    EXPECT_EQ(names, tokens.firstKeys);
}

TEST_F(Browse, ContainerNameInLowerCaseOpensTheTokenThatHoldsIt) {
    std::string lower = tokens.secondKeys[0];
    for (char& c : lower)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    Provider provider;
    ASSERT_TRUE(acquire(provider, lower.c_str())) << std::hex << GetLastError();
    DWORD endError = 0;
    std::vector<Bytes> entries = walk(provider.handle, PP_ENUMCONTAINERS, 64, &endError);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_STREQ(reinterpret_cast<const char*>(entries[0].data()), tokens.secondKeys[0].c_str());
    EXPECT_TRUE(
        testsupport::logContains("CPAcquireContext: container=" + lower + " serial=" + kSecondSerial));
}

TEST_F(Browse, VerifyContextTouchesNoTokenAndEnumeratesNoContainer) {
    Provider provider;
    ASSERT_TRUE(acquire(provider, nullptr, CRYPT_VERIFYCONTEXT));
    Bytes entry(64);
    DWORD length = 64;
    SetLastError(0);
    EXPECT_FALSE(CryptGetProvParam(provider.handle, PP_ENUMCONTAINERS, entry.data(), &length, CRYPT_FIRST));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
}

TEST_F(Browse, NameTypeVersionAndImplementation) {
    Provider provider;
    ASSERT_TRUE(acquire(provider, tokens.firstKeys[0].c_str()));
    char name[40] = {};
    DWORD length = sizeof name;
    ASSERT_TRUE(CryptGetProvParam(provider.handle, PP_NAME, reinterpret_cast<BYTE*>(name), &length, 0));
    EXPECT_STREQ(name, kProviderName);
    EXPECT_EQ(length, 33u);
    length = 0;
    EXPECT_TRUE(CryptGetProvParam(provider.handle, PP_NAME, nullptr, &length, 0));
    EXPECT_EQ(length, 34u);

    struct Expected {
        DWORD param;
        DWORD value;
    };
    for (Expected e : {Expected{PP_PROVTYPE, PROV_RSA_FULL}, Expected{PP_VERSION, 0x100},
                       Expected{PP_IMPTYPE, CRYPT_IMPL_HARDWARE | CRYPT_IMPL_REMOVABLE}}) {
        DWORD value = 0;
        DWORD size = sizeof value;
        EXPECT_TRUE(CryptGetProvParam(provider.handle, e.param, reinterpret_cast<BYTE*>(&value), &size, 0))
            << e.param;
        EXPECT_EQ(value, e.value) << e.param;
        EXPECT_EQ(size, 4u) << e.param;
    }
    DWORD value = 0;
    DWORD size = sizeof value;
    SetLastError(0);
    EXPECT_FALSE(
        CryptGetProvParam(provider.handle, PP_SIG_KEYSIZE_INC, reinterpret_cast<BYTE*>(&value), &size, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
}

TEST_F(Browse, GenRandomFromTheSoftwareSourceWithoutTokenAndFromTheToken) {
    for (bool verifyOnly : {true, false}) {
        Provider provider;
        ASSERT_TRUE(verifyOnly ? acquire(provider, nullptr, CRYPT_VERIFYCONTEXT)
                               : acquire(provider, tokens.firstKeys[0].c_str()));
        testsupport::clearLog();
        Bytes first(64), second(64);
        ASSERT_TRUE(CryptGenRandom(provider.handle, 64, first.data())) << std::hex << GetLastError();
        ASSERT_TRUE(CryptGenRandom(provider.handle, 64, second.data()));
        EXPECT_NE(first, second);
        EXPECT_NE(first, Bytes(64, 0));
        EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGenRandom"));
        EXPECT_EQ(testsupport::logHasLine("DEBUG", "CPGenRandom: no token, using software RNG"), verifyOnly);
        Bytes none(8);
        SetLastError(0);
        EXPECT_FALSE(CryptGenRandom(provider.handle, 0, none.data()));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }
}

TEST_F(Browse, AnotherProviderTypeIsRefusedBeforeTheProviderIsAsked) {
    HCRYPTPROV handle = 0;
    SetLastError(0);
    EXPECT_FALSE(CryptAcquireContextA(&handle, nullptr, kProviderName, PROV_RSA_AES, CRYPT_VERIFYCONTEXT));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROV_TYPE_NO_MATCH));
}

TEST_F(Browse, DeleteKeysetSucceedsAndDeletesNothing) {
    HCRYPTPROV handle = 0;
    EXPECT_TRUE(CryptAcquireContextA(&handle, tokens.firstKeys[0].c_str(), kProviderName, PROV_RSA_FULL,
                                     CRYPT_DELETEKEYSET))
        << std::hex << GetLastError();
    EXPECT_EQ(handle, 0u);
    EXPECT_EQ(listedKeyIds(kSerial), tokens.firstKeys);
}

TEST_F(Browse, WithoutAnyTokenAcquisitionFailsButAVerifyContextWorks) {
    char store[MAX_PATH] = {};
    GetEnvironmentVariableA("CALYTH_TOKEN_STORE", store, MAX_PATH);
    std::string empty = tempPath("no-tokens");
    CreateDirectoryA(empty.c_str(), nullptr);
    SetEnvironmentVariableA("CALYTH_TOKEN_STORE", empty.c_str());

    HCRYPTPROV handle = 0;
    SetLastError(0);
    BOOL opened = CryptAcquireContextA(&handle, nullptr, kProviderName, PROV_RSA_FULL, 0);
    DWORD error = GetLastError();
    Provider verifyOnly;
    BOOL verifyOpened = acquire(verifyOnly, nullptr, CRYPT_VERIFYCONTEXT);
    SetEnvironmentVariableA("CALYTH_TOKEN_STORE", store);

    EXPECT_FALSE(opened);
    EXPECT_EQ(error, static_cast<DWORD>(NTE_TOKEN_KEYSET_STORAGE_FULL));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPAcquireContext: valid token not connected, return FALSE"));
    EXPECT_TRUE(verifyOpened);
}

}  // namespace
