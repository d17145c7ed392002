#include "ksp_fixture.h"

#include "ksp/ksp_common.h"
#include "support/test_support.h"
#include "token/process_state.h"
#include "token/token_table.h"
#include "util/encoding.h"

namespace ksptest {

const char* const kRsaSignId = "A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1";
const char* const kRsaExchangeId = "B2B2B2B2B2B2B2B2B2B2B2B2B2B2B2B2";
const char* const kEcSignId = "C3C3C3C3C3C3C3C3C3C3C3C3C3C3C3C3";

std::wstring wide(const std::string& text) {
    return std::wstring(text.begin(), text.end());
}

void KspTest::SetUp() {
    fake::reset();
    resetTokenTableForTests();
    clearProcessIv();
    fake::addToken("SN1");
    fake::addKeyPair("SN1",
                     fake::makeKeyPair(kRsaSignId, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048, "rsa-sign"));
    fake::addKeyPair(
        "SN1", fake::makeKeyPair(kRsaExchangeId, CALYTH_USAGE_EXCHANGE, CALYTH_KEY_RSA_2048, "rsa-exchange"));
    fake::addKeyPair("SN1",
                     fake::makeKeyPair(kEcSignId, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_EC_P256, "ec-sign"));
    testsupport::makeLogFolders();
    testsupport::clearLog();
}

void KspTest::TearDown() {
    for (NCRYPT_KEY_HANDLE key : keys_)
        delete kspKeyFrom(key);
    keys_.clear();
    for (NCRYPT_PROV_HANDLE provider : providers_)
        delete kspProviderFrom(provider);
    providers_.clear();
    provider_ = 0;
}

NCRYPT_PROV_HANDLE KspTest::makeProvider(const std::string& serial) {
    auto* made = new KspProvider{};
    made->serial = serial;
    made->initialized = 1;
    made->firmware = "2.1.0";
    NCRYPT_PROV_HANDLE handle = reinterpret_cast<NCRYPT_PROV_HANDLE>(made);
    keepProvider(handle);
    if (provider_ == 0)
        provider_ = handle;
    return handle;
}

NCRYPT_KEY_HANDLE KspTest::makeKey(const std::string& keyIdHex) {
    std::string serial = provider_ != 0 ? provider()->serial : "SN1";
    auto* key = new KspKey{};
    keep(reinterpret_cast<NCRYPT_KEY_HANDLE>(key));
    for (const CalythKeyPair& keyPair : fake::token(serial).keyPairs) {
        if (fake::hex(keyPair.keyId, 16) != keyIdHex)
            continue;
        copyTokenKeyData(keyPair, key);
        key->algorithm = keyPair.keySizeCode;
        key->usage = keyPair.keyUsage;
        key->bits = keySizeCodeToBits(keyPair.keySizeCode);
        key->name = wide(keyIdHex);
        key->finalized = 1;
        return reinterpret_cast<NCRYPT_KEY_HANDLE>(key);
    }
    ADD_FAILURE() << "no key pair " << keyIdHex << " on " << serial;
    return reinterpret_cast<NCRYPT_KEY_HANDLE>(key);
}

NCRYPT_KEY_HANDLE KspTest::makeEmptyKey() {
    auto* key = new KspKey{};
    keep(reinterpret_cast<NCRYPT_KEY_HANDLE>(key));
    return reinterpret_cast<NCRYPT_KEY_HANDLE>(key);
}

NCRYPT_PROV_HANDLE KspTest::openProvider() {
    NCRYPT_PROV_HANDLE provider = 0;
    EXPECT_EQ(KSPOpenProvider(&provider, L"Calyth Cryptographic Provider CSP", 0), 0);
    if (provider != 0) {
        keepProvider(provider);  // KSPOpenProvider allocates with new, as the fixture does
        if (provider_ == 0)
            provider_ = provider;
    }
    return provider;
}

NCRYPT_KEY_HANDLE KspTest::openKey(const std::string& name, NCRYPT_PROV_HANDLE provider) {
    NCRYPT_KEY_HANDLE key = 0;
    std::wstring wideName = wide(name);
    EXPECT_EQ(KSPOpenKey(provider != 0 ? provider : provider_, &key, wideName.c_str(), 0, 0), 0)
        << "KSPOpenKey(" << name << ") failed";
    if (key != 0)
        keep(key);
    return key;
}

DWORD KspTest::lengthProperty(NCRYPT_KEY_HANDLE key) {
    DWORD bits = 0;
    DWORD size = 0;
    SECURITY_STATUS status =
        KSPGetKeyProperty(provider_, key, L"Length", reinterpret_cast<PBYTE>(&bits), sizeof bits, &size, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(size, sizeof bits);
    return status == 0 ? bits : 0xFFFFFFFF;
}

}  // namespace ksptest
