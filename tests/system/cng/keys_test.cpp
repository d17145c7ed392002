// Key pairs through the CNG side: enumeration shows exactly the token's keys, each opens by the name
// enumeration gave, and keys created through CreatePersistedKey / FinalizeKey land on the token and
// show up as CryptoAPI containers.
#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <gtest/gtest.h>

#include "cng_support.h"
#include "support/provider_registration.h"
#include "support/test_support.h"
#include "support/token_tool.h"

using namespace cngtest;

namespace {

using KeyEnumeration = CngSystemTest;
using KeyCreation = CngSystemTest;

std::vector<std::string> sorted(std::vector<std::string> names) {
    std::sort(names.begin(), names.end());
    return names;
}

// The containers CryptoAPI lists for the token (PP_ENUMCONTAINERS through advapi32).
std::vector<std::string> cryptoApiContainers() {
    std::vector<std::string> names;
    testsupport::Provider context;
    if (!testsupport::acquire(context, nullptr)) {
        ADD_FAILURE() << "CryptAcquireContext: " << std::hex << GetLastError();
        return names;
    }
    for (DWORD flags = CRYPT_FIRST;; flags = CRYPT_NEXT) {
        char name[256] = {};
        DWORD length = sizeof name;
        if (!CryptGetProvParam(context.handle, PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &length,
                               flags)) {
            EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
            break;
        }
        names.push_back(name);
    }
    return names;
}

// Creates a key through CNG (CreatePersistedKey, "Length" for RSA, FinalizeKey) and answers its
// name, the 32-character key id.
std::string createThroughCng(CngClient& client, NCRYPT_PROV_HANDLE provider, const wchar_t* algorithm,
                             DWORD length, DWORD* reportedLength) {
    NCRYPT_KEY_HANDLE key = 0;
    SECURITY_STATUS status = client.createPersistedKey(provider, &key, algorithm);
    EXPECT_EQ(status, 0) << std::hex << status;
    if (status != 0)
        return "";
    if (length) {
        EXPECT_EQ(client.setKeyProperty(provider, key, NCRYPT_LENGTH_PROPERTY, length), 0);
    }
    status = client.finalizeKey(provider, key);
    EXPECT_EQ(status, 0) << "FinalizeKey: " << std::hex << status;
    std::wstring name;
    EXPECT_EQ(client.getKeyProperty(provider, key, NCRYPT_NAME_PROPERTY, &name), 0);
    EXPECT_EQ(client.getKeyProperty(provider, key, NCRYPT_LENGTH_PROPERTY, reportedLength), 0);
    EXPECT_EQ(client.freeKey(provider, key), 0);
    return narrow(name);
}

// The key size OpenSSL reads from the exported public key ("Public-Key: (3072 bit)").
std::string opensslKeySize(const std::string& keyId) {
    std::string pem = tokenPublicKey(kSerial, keyId);
    std::string output;
    EXPECT_EQ(testsupport::runOpenSsl("pkey -pubin -noout -text -in " + testsupport::unixPath(pem), &output),
              0)
        << output;
    size_t at = output.find("Public-Key: (");
    return at == std::string::npos ? output : output.substr(at + 13, output.find(')', at) - at - 13);
}

}  // namespace

TEST_F(KeyEnumeration, ListsExactlyTheTokensKeysAndEachOpensByItsName) {
    std::string signing = generateKey(kSerial, "rsa2048", "sign");
    std::string exchange = generateKey(kSerial, "p256", "exchange");
    std::string both = generateKey(kSerial, "p384", "both");
    std::string small = generateKey(kSerial, "rsa1024", "exchange");
    std::vector<std::string> onToken = testsupport::listedKeyIds(kSerial);
    ASSERT_EQ(onToken.size(), 4u);

    std::vector<KeyName> keys;
    ASSERT_EQ(client.listKeys(provider(), &keys), 0);
    std::vector<std::string> names;
    for (const KeyName& key : keys)
        names.push_back(narrow(key.name));
    EXPECT_EQ(sorted(names), sorted(onToken));

    for (const KeyName& key : keys) {
        std::string name = narrow(key.name);
        SCOPED_TRACE(name);
        if (name == signing) {
            EXPECT_EQ(key.algorithm, L"RSA");
            EXPECT_EQ(key.legacyKeySpec, static_cast<DWORD>(AT_SIGNATURE));
        } else if (name == exchange) {
            EXPECT_EQ(key.algorithm, L"ECDH_P256");
            EXPECT_EQ(key.legacyKeySpec, static_cast<DWORD>(AT_KEYEXCHANGE));
        } else if (name == both) {
            EXPECT_EQ(key.algorithm, L"ECDSA_P384");
        } else {
            EXPECT_EQ(name, small);
            EXPECT_EQ(key.algorithm, L"RSA");
        }
        NCRYPT_KEY_HANDLE opened = openKey(name);
        ASSERT_NE(opened, 0u);
        std::wstring reported;
        EXPECT_EQ(client.getKeyProperty(provider(), opened, NCRYPT_NAME_PROPERTY, &reported), 0);
        EXPECT_EQ(narrow(reported), name);
        freeKey(opened);
    }
}

TEST_F(KeyEnumeration, EnumerationByHandStepsThroughEveryKeyThenReportsNoMoreItems) {
    generateKey(kSerial, "p256", "sign");
    generateKey(kSerial, "p521", "sign");
    void* state = nullptr;
    for (int i = 0; i < 2; ++i) {
        NCryptKeyName* name = nullptr;
        ASSERT_EQ(client.enumKeys(provider(), nullptr, &name, &state), 0);
        ASSERT_NE(name, nullptr);
        EXPECT_EQ(wcslen(name->pszName), 32u);
        EXPECT_EQ(client.freeBuffer(name), 0);
    }
    NCryptKeyName* none = nullptr;
    EXPECT_EQ(client.enumKeys(provider(), nullptr, &none, &state), KSP_NTE_NO_MORE_ITEMS);
    EXPECT_EQ(client.enumKeys(provider(), nullptr, &none, &state), KSP_NTE_NO_MORE_ITEMS);
    EXPECT_EQ(client.freeBuffer(state), 0);
}

TEST_F(KeyEnumeration, AnEmptyTokenListsNoKey) {
    std::vector<KeyName> keys;
    EXPECT_EQ(client.listKeys(provider(), &keys), 0);
    EXPECT_TRUE(keys.empty());
}

TEST_F(KeyCreation, RsaKeysOfTheRequestedLengthLandOnTheTokenAndAreCryptoApiContainers) {
    ASSERT_EQ(testsupport::registerProvider(), ERROR_SUCCESS);
    for (DWORD bits : {2048u, 3072u}) {
        SCOPED_TRACE(bits);
        DWORD reported = 0;
        std::string id = createThroughCng(client, provider(), L"RSA", bits, &reported);
        ASSERT_EQ(id.size(), 32u);
        EXPECT_EQ(reported, bits);
        std::vector<std::string> onToken = testsupport::listedKeyIds(kSerial);
        EXPECT_NE(std::find(onToken.begin(), onToken.end(), id), onToken.end());
        EXPECT_EQ(opensslKeySize(id), std::to_string(bits) + " bit");
        std::vector<std::string> containers = cryptoApiContainers();
        EXPECT_NE(std::find(containers.begin(), containers.end(), id), containers.end());
    }
    EXPECT_EQ(testsupport::listedKeyIds(kSerial).size(), 2u);
}

TEST_F(KeyCreation, EcKeysLandOnTheTokenAndAreCryptoApiContainers) {
    ASSERT_EQ(testsupport::registerProvider(), ERROR_SUCCESS);
    struct Case {
        const wchar_t* algorithm;
        DWORD bits;
    } cases[] = {{L"ECDSA_P256", 256}, {L"ECDSA_P521", 521}};
    for (const Case& c : cases) {
        SCOPED_TRACE(narrow(c.algorithm));
        DWORD reported = 0;
        std::string id = createThroughCng(client, provider(), c.algorithm, 0, &reported);
        ASSERT_EQ(id.size(), 32u);
        EXPECT_EQ(reported, c.bits);
        std::vector<std::string> onToken = testsupport::listedKeyIds(kSerial);
        EXPECT_NE(std::find(onToken.begin(), onToken.end(), id), onToken.end());
        EXPECT_EQ(opensslKeySize(id), std::to_string(c.bits) + " bit");
        std::vector<std::string> containers = cryptoApiContainers();
        EXPECT_NE(std::find(containers.begin(), containers.end(), id), containers.end());

        NCRYPT_KEY_HANDLE key = openKey(id);
        std::wstring algorithm;
        EXPECT_EQ(client.getKeyProperty(provider(), key, NCRYPT_ALGORITHM_PROPERTY, &algorithm), 0);
        EXPECT_EQ(algorithm, c.algorithm);
        freeKey(key);
    }
}

TEST_F(KeyCreation, DeletedKeyLeavesTheTokenAndItsHandleIsStillFreedOnce) {
    std::string id = generateKey(kSerial, "p256", "sign");
    NCRYPT_KEY_HANDLE key = openKey(id);
    ASSERT_NE(key, 0u);
    EXPECT_EQ(client.deleteKey(provider(), key), 0);
    EXPECT_TRUE(testsupport::listedKeyIds(kSerial).empty());
    freeKey(key);
}
