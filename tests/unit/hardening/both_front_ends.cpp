#include "both_front_ends.h"

#include <wincrypt.h>

#include <vector>

#include "csp/csp_entry_points.h"
#include "token/token_table.h"

using namespace ksptest;

namespace hardening {

CspContext cspContextOn(const std::string& container) {
    CspContext context;
    context.serialNumber = "SN1";
    context.containerName = container;
    context.initialized = true;
    context.keysetType = CSP_KEYSET_TYPE;
    context.keyIds = {kRsaSignId, kRsaExchangeId, kEcSignId};
    return context;
}

void BothFrontEnds::SetUp() {
    KspTest::SetUp();
    makeProvider();
    context_ = cspContextOn(kRsaExchangeId);
}

void BothFrontEnds::runCryptoApi(const std::string& pin) {
    EXPECT_TRUE(CPSetProvParam(prov(), PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(pin.c_str()), 0));
    EXPECT_TRUE(CPSetProvParam(prov(), PP_KEYEXCHANGE_PIN, reinterpret_cast<const BYTE*>(pin.c_str()), 0));

    HCRYPTKEY key = 0;
    EXPECT_TRUE(CPGetUserKey(prov(), AT_KEYEXCHANGE, &key));
    DWORD value = 0;
    DWORD length = sizeof value;
    CPGetKeyParam(prov(), key, KP_KEYLEN, reinterpret_cast<BYTE*>(&value), &length, 0);
    length = 0;
    CPGetKeyParam(prov(), key, KP_CERTIFICATE, nullptr, &length, 0);

    HCRYPTHASH hash = 0;
    EXPECT_TRUE(CPCreateHash(prov(), CALG_SHA_256, 0, 0, &hash));
    const BYTE data[] = "data to sign";
    EXPECT_TRUE(CPHashData(prov(), hash, data, sizeof data, 0));
    std::vector<BYTE> signature(256);
    length = 256;
    EXPECT_TRUE(CPSignHash(prov(), hash, AT_KEYEXCHANGE, nullptr, 0, signature.data(), &length));
    CPVerifySignature(prov(), hash, signature.data(), length, key, nullptr, 0);
    CPDestroyHash(prov(), hash);

    std::vector<BYTE> buffer(512, 0x42);
    length = 20;
    EXPECT_TRUE(CPEncrypt(prov(), key, 0, TRUE, 0, buffer.data(), &length, 512));
    EXPECT_TRUE(CPDecrypt(prov(), key, 0, TRUE, 0, buffer.data(), &length));
    CPDestroyKey(prov(), key);

    length = 0;
    CPGetProvParam(prov(), PP_CERTCHAIN, nullptr, &length, 0);
    char name[64] = {};
    length = sizeof name;
    CPGetProvParam(prov(), PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &length, CRYPT_FIRST);
    BYTE random[16];
    EXPECT_TRUE(CPGenRandom(prov(), sizeof random, random));
}

void BothFrontEnds::runCng(const std::string& pin) {
    DWORD pinBytes = static_cast<DWORD>(pin.size() + 1);
    auto* pinInput = reinterpret_cast<PBYTE>(const_cast<char*>(pin.c_str()));
    EXPECT_EQ(KSPSetProviderProperty(provider_, L"SmartCardPin", pinInput, pinBytes, 0), 0);

    NCryptKeyName* name = nullptr;
    PVOID state = nullptr;
    while (KSPEnumKeys(provider_, nullptr, &name, &state, 0) == 0)
        KSPFreeBuffer(name);
    KSPFreeBuffer(state);

    NCRYPT_KEY_HANDLE rsa = openKey(kRsaExchangeId);
    EXPECT_EQ(KSPSetKeyProperty(provider_, rsa, L"SmartCardPin", pinInput, pinBytes, 0), 0);
    DWORD result = 0;
    KSPGetKeyProperty(provider_, rsa, L"SmartCardKeyCertificate", nullptr, 0, &result, 0);
    std::vector<BYTE> digest(32, 0x07);
    std::vector<BYTE> output(512);
    EXPECT_EQ(KSPSignHash(provider_, rsa, nullptr, digest.data(), 32, output.data(), 512, &result, 0), 0);
    KSPVerifySignature(provider_, rsa, nullptr, digest.data(), 32, output.data(), result, 0);
    std::vector<BYTE> plain(20, 0x42);
    EXPECT_EQ(KSPEncrypt(provider_, rsa, plain.data(), 20, nullptr, output.data(), 512, &result, 0), 0);
    EXPECT_EQ(KSPDecrypt(provider_, rsa, output.data(), result, nullptr, output.data(), 512, &result, 0), 0);

    NCRYPT_KEY_HANDLE ec = openKey(kEcSignId);
    NCRYPT_SECRET_HANDLE secret = 0;
    if (KSPSecretAgreement(provider_, ec, ec, &secret, 0) == 0) {
        BYTE derived[32];
        KSPDeriveKey(provider_, secret, nullptr, nullptr, derived, sizeof derived, &result, 0);
        KSPFreeSecret(provider_, secret);
    }
}

}  // namespace hardening
