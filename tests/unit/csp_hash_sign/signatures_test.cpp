// Signing on the token (key choice, PIN, single sign-on retry, byte order) and verification.
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

#include "csp/key_handle.h"
#include "csp_test_fixture.h"
#include "token/token_table.h"

namespace csptest {
namespace {

const char* const kSha256AbcUpper = "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD";
const char* const kKeyA = "000102030405060708090A0B0C0D0E0F";
const char* const kKeyB = "B0B1B2B3B4B5B6B7B8B9BABBBCBDBEBF";
const char* const kKeyC = "C0C1C2C3C4C5C6C7C8C9CACBCCCDCECF";
// The DER header of rsaEncryption SubjectPublicKeyInfo around a 2048-bit modulus with its top bit set.
const char* const kSpki2048Prefix = "30820122300D06092A864886F70D01010105000382010F003082010A0282010100";

std::vector<std::string> namesOf(const std::vector<std::string>& all,
                                 const std::vector<std::string>& wanted) {
    std::vector<std::string> out;
    for (const std::string& name : all) {
        if (std::find(wanted.begin(), wanted.end(), name) != wanted.end())
            out.push_back(name);
    }
    return out;
}

class Signing : public CspFixture {
protected:
    // Size query first (chooses the key, asks no PIN), then the signature into a 512-byte buffer.
    BOOL sign(HCRYPTHASH hash, std::vector<BYTE>* signature, DWORD flags = 0) {
        signature->assign(512, 0xEE);
        DWORD length = static_cast<DWORD>(signature->size());
        BOOL ok = CPSignHash(provider(), hash, AT_SIGNATURE, nullptr, flags, signature->data(), &length);
        if (ok)
            signature->resize(length);
        return ok;
    }
    DWORD sizeQuery(HCRYPTHASH hash) {
        DWORD length = 0;
        EXPECT_TRUE(CPSignHash(provider(), hash, AT_SIGNATURE, nullptr, 0, nullptr, &length))
            << GetLastError();
        return length;
    }
    std::string signedKeyId() {
        auto calls = fake::callsTo("calyth_signHash");
        return calls.empty() ? std::string() : calls.back().args[0];
    }
};

struct SizeCase {
    int32_t keySizeCode;
    DWORD size;
};
class SignatureSizes : public Signing, public ::testing::WithParamInterface<SizeCase> {};

TEST_P(SignatureSizes, SizeQueryAnswersByTheKeySizeCodeWithoutAskingForThePin) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, 1, GetParam().keySizeCode));
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    EXPECT_EQ(sizeQuery(hash), GetParam().size);
    EXPECT_EQ(fake::countCalls("calyth_signHash"), 0u);
    EXPECT_EQ(fake::countCalls("calyth_getTokenInfo"), 0u);
    EXPECT_FALSE(isPinValidated(kSerial));
    EXPECT_EQ(hashContextFrom(hash)->mechanism, GetParam().keySizeCode);
}

INSTANTIATE_TEST_SUITE_P(
    KeySizeCodes, SignatureSizes,
    ::testing::Values(SizeCase{CALYTH_KEY_RSA_1024, 256}, SizeCase{CALYTH_KEY_RSA_2048, 256},
                      SizeCase{CALYTH_KEY_RSA_3072, 384}, SizeCase{CALYTH_KEY_RSA_4096, 512},
                      SizeCase{CALYTH_KEY_EC_P256, 256}, SizeCase{CALYTH_KEY_EC_P521, 256}));

TEST_F(Signing, TheTokenSignatureReachesTheCallerByteReversed) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, 1, CALYTH_KEY_RSA_2048));
    storeValidatedPin(kSerial, kPin);
    fake::hooks().signHash = [](const char*, const unsigned char*, const char*, const unsigned char*, int,
                                unsigned char* signature, int* signatureLength, bool, bool) {
        for (int i = 0; i < 255; ++i)
            signature[i] = static_cast<unsigned char>(i + 1);  // 01 02 ... FF
        *signatureLength = 255;
        return 0;
    };
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    std::vector<BYTE> buffer(512, 0xEE);
    DWORD length = 512;
    ASSERT_TRUE(CPSignHash(provider(), hash, AT_SIGNATURE, nullptr, 0, buffer.data(), &length));
    EXPECT_EQ(length, 255u);
    for (int i = 0; i < 255; ++i)
        ASSERT_EQ(buffer[i], 255 - i) << i;  // FF FE ... 01
    EXPECT_EQ(buffer[255], 0xEE);
}

TEST_F(Signing, TheTokenIsAskedWithKeyPinDigestAndTheCallersRoom) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, 1, CALYTH_KEY_RSA_2048));
    storeValidatedPin(kSerial, kPin);
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    std::vector<BYTE> signature;
    ASSERT_TRUE(sign(hash, &signature, 8));

    auto calls = fake::callsTo("calyth_signHash");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, kSerial);
    EXPECT_EQ(calls[0].args,
              (std::vector<std::string>{kKeyA, kPin, kSha256AbcUpper, "32", "512", "false", "false"}));
    std::vector<BYTE> expected = fake::defaultSignature(256);
    std::reverse(expected.begin(), expected.end());
    EXPECT_EQ(signature, expected);

    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSignHash"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSignHash dwFlags : 8"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSignHash hashAlgorithm : 3"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSignHash key mechanism : 2"));
}

TEST_F(Signing, AnUnreadHashIsFinishedOnTheTokenWithRoomFor128Bytes) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, 1, CALYTH_KEY_RSA_2048));
    storeValidatedPin(kSerial, kPin);
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    std::vector<BYTE> signature;
    ASSERT_TRUE(sign(hash, &signature));
    auto finals = fake::callsTo("calyth_finalHash");
    ASSERT_EQ(finals.size(), 1u);
    EXPECT_EQ(finals[0].args, (std::vector<std::string>{"ptr", "128"}));
    EXPECT_EQ(hashContextFrom(hash)->valueLength, 32u);
    EXPECT_EQ(hashContextFrom(hash)->finalized, 0);
}

TEST_F(Signing, AValueAlreadyReadIsSignedWithoutFinishingAgain) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, 1, CALYTH_KEY_RSA_2048));
    storeValidatedPin(kSerial, kPin);
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    ASSERT_FALSE(hashValue(hash).empty());
    std::vector<BYTE> signature;
    ASSERT_TRUE(sign(hash, &signature));
    EXPECT_EQ(fake::countCalls("calyth_finalHash"), 1u);
    EXPECT_EQ(fake::callsTo("calyth_signHash")[0].args[2], kSha256AbcUpper);
}

TEST_F(Signing, TokenFailingToFinishTheHashFailsWithNteFail) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, 1, CALYTH_KEY_RSA_2048));
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    fake::failNext("calyth_finalHash", 3);
    DWORD length = 0;
    EXPECT_FALSE(CPSignHash(provider(), hash, AT_SIGNATURE, nullptr, 0, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPSignHash: calyth_finalHash failed with ret=3"));
    EXPECT_EQ(fake::countCalls("calyth_getKeyPairList"), 0u);
}

TEST_F(Signing, EmptyContainerChoosesTheFirstKeyThatCanSign) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, 0, CALYTH_KEY_RSA_2048));
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyB, 2, CALYTH_KEY_RSA_3072));
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyC, 1, CALYTH_KEY_RSA_4096));
    storeValidatedPin(kSerial, kPin);
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    EXPECT_EQ(sizeQuery(hash), 384u);
    std::vector<BYTE> signature;
    ASSERT_TRUE(sign(hash, &signature));
    EXPECT_EQ(signedKeyId(), kKeyB);
    EXPECT_EQ(signature.size(), 384u);
}

TEST_F(Signing, ContainerNameChoosesItsKey) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyB, 1, CALYTH_KEY_RSA_2048));
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyC, 3, CALYTH_KEY_RSA_2048));
    storeValidatedPin(kSerial, kPin);
    context.containerName = kKeyC;
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    std::vector<BYTE> signature;
    ASSERT_TRUE(sign(hash, &signature));
    EXPECT_EQ(signedKeyId(), kKeyC);
}

TEST_F(Signing, ContainerNamingAKeyThatCannotSignFallsBackToTheLastKeyThatCan) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, 0, CALYTH_KEY_RSA_2048));
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyB, 1, CALYTH_KEY_RSA_3072));
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyC, 2, CALYTH_KEY_RSA_4096));
    storeValidatedPin(kSerial, kPin);
    context.containerName = kKeyA;
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    EXPECT_EQ(sizeQuery(hash), 512u);
    std::vector<BYTE> signature;
    ASSERT_TRUE(sign(hash, &signature));
    EXPECT_EQ(signedKeyId(), kKeyC);
}

TEST_F(Signing, ContainerMatchingNoKeyFailsWithNoKeyAlthoughOtherKeysExist) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyB, 1, CALYTH_KEY_RSA_2048));
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyC, 3, CALYTH_KEY_RSA_2048));
    storeValidatedPin(kSerial, kPin);
    context.containerName = "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF";
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    std::vector<BYTE> signature;
    SetLastError(0);
    EXPECT_FALSE(sign(hash, &signature));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NO_KEY));
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "CPSignHash: sign key not found for container=FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF"));
    EXPECT_EQ(fake::countCalls("calyth_signHash"), 0u);
    EXPECT_EQ(hashContextFrom(hash)->signKeyIdLength, 0);
}

TEST_F(Signing, ContainerNameIsComparedWithItsCase) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyC, 1, CALYTH_KEY_RSA_2048));
    context.containerName = "c0c1c2c3c4c5c6c7c8c9cacbcccdcecf";
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    DWORD length = 0;
    EXPECT_FALSE(CPSignHash(provider(), hash, AT_SIGNATURE, nullptr, 0, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NO_KEY));
}

TEST_F(Signing, NoKeyThatCanSignFailsWithNoKey) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, 0, CALYTH_KEY_RSA_2048));
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    DWORD length = 0;
    EXPECT_FALSE(CPSignHash(provider(), hash, AT_SIGNATURE, nullptr, 0, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NO_KEY));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPSignHash: sign key not found for container="));
}

TEST_F(Signing, TheChosenKeyStaysWithTheHashObject) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, 1, CALYTH_KEY_RSA_1024));
    storeValidatedPin(kSerial, kPin);
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    EXPECT_EQ(sizeQuery(hash), 256u);
    EXPECT_EQ(sizeQuery(hash), 256u);
    std::vector<BYTE> signature;
    ASSERT_TRUE(sign(hash, &signature));
    EXPECT_EQ(fake::countCalls("calyth_getKeyPairList"), 1u);
    EXPECT_EQ(signedKeyId(), kKeyA);
    EXPECT_EQ(signature.size(), 128u);
}

TEST_F(Signing, ExpiredSingleSignOnAsksOnceAndSignsOnceMore) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, 1, CALYTH_KEY_RSA_2048));
    storeValidatedPin(kSerial, kPin);
    fake::setSingleSignOn(kSerial, true);  // the new PIN check is answered by single sign-on
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    fake::clearCalls();
    fake::failNext("calyth_signHash", 49);

    std::vector<BYTE> signature;
    ASSERT_TRUE(sign(hash, &signature)) << GetLastError();

    EXPECT_EQ(
        namesOf(fake::callNames(), {"calyth_signHash", "calyth_getTokenInfo", "calyth_validatePassword"}),
        (std::vector<std::string>{"calyth_signHash", "calyth_getTokenInfo", "calyth_signHash"}));
    auto calls = fake::callsTo("calyth_signHash");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].args[1], kPin);
    EXPECT_EQ(calls[1].args[1], "");  // the PIN the new check stored (single sign-on: none)
    EXPECT_EQ(calls[1].args[4], "512");
    EXPECT_EQ(calls[0].args[0], calls[1].args[0]);
    EXPECT_EQ(calls[0].args[2], calls[1].args[2]);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSignHash: SSO expired, re-prompting for PIN"));
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "CPSignHash: SSO expired, re-prompting for PIN"), 1u);
    std::vector<BYTE> expected = fake::defaultSignature(256);
    std::reverse(expected.begin(), expected.end());
    EXPECT_EQ(signature, expected);
}

TEST_F(Signing, ASecondExpiryIsAnOrdinaryFailure) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, 1, CALYTH_KEY_RSA_2048));
    storeValidatedPin(kSerial, kPin);
    fake::setSingleSignOn(kSerial, true);
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    fake::failNext("calyth_signHash", 49, 2);
    std::vector<BYTE> signature;
    SetLastError(0);
    EXPECT_FALSE(sign(hash, &signature));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Sign hash failed : 49"));
    EXPECT_EQ(fake::countCalls("calyth_signHash"), 2u);
    EXPECT_EQ(fake::countCalls("calyth_getTokenInfo"), 1u);
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "CPSignHash: SSO expired, re-prompting for PIN"), 1u);
}

TEST_F(Signing, FailedPinCheckAfterExpiryEndsTheSigning) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, 1, CALYTH_KEY_RSA_2048));
    storeValidatedPin(kSerial, kPin);
    context.silent = true;  // the new check may not show the dialog
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    fake::failNext("calyth_signHash", 49);
    std::vector<BYTE> signature;
    SetLastError(0);
    EXPECT_FALSE(sign(hash, &signature));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_SILENT_CONTEXT));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPSignHash: ensurePasswordValidated failed after SSO expiry"));
    EXPECT_EQ(fake::countCalls("calyth_signHash"), 1u);
    EXPECT_FALSE(isPinValidated(kSerial));
    EXPECT_EQ(getValidatedPin(kSerial), "");
}

TEST_F(Signing, FailedPinCheckBeforeSigningLeavesTheTokenAlone) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, 1, CALYTH_KEY_RSA_2048));
    context.silent = true;
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    std::vector<BYTE> signature;
    SetLastError(0);
    EXPECT_FALSE(sign(hash, &signature));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_SILENT_CONTEXT));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPSignHash: ensurePasswordValidated failed"));
    EXPECT_EQ(fake::countCalls("calyth_signHash"), 0u);
    EXPECT_EQ(fake::countCalls("calyth_getTokenInfo"), 0u);
}

TEST_F(Signing, OtherTokenFailuresFailWithProviderDllFailAndNoRetry) {
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, 1, CALYTH_KEY_RSA_2048));
    storeValidatedPin(kSerial, kPin);
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    fake::failNext("calyth_signHash", 5);
    std::vector<BYTE> signature;
    EXPECT_FALSE(sign(hash, &signature));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Sign hash failed : 5"));
    EXPECT_EQ(fake::countCalls("calyth_signHash"), 1u);
    EXPECT_TRUE(isPinValidated(kSerial));
}

TEST_F(Signing, SignChecksContextAndHash) {
    DWORD length = 0;
    CspContext fresh;
    EXPECT_FALSE(CPSignHash(handleOf(fresh), 1, AT_SIGNATURE, nullptr, 0, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_FALSE(CPSignHash(0, 1, AT_SIGNATURE, nullptr, 0, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_EQ(testsupport::logLineCount("ERROR", "CPSignHash: context is null or not initialized"), 2u);
    EXPECT_FALSE(CPSignHash(provider(), 0, AT_SIGNATURE, nullptr, 0, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_HASH));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPSignHash: hash handle is null"));
    EXPECT_TRUE(fake::calls().empty());
}

class Verification : public Signing {
protected:
    void SetUp() override {
        Signing::SetUp();
        keyPair = fake::makeKeyPair(kKeyA, 1, CALYTH_KEY_RSA_2048);
        fake::addKeyPair(kSerial, keyPair);
        storeValidatedPin(kSerial, kPin);
    }
    // A key object holding the stored public key of the token key.
    KEY_HANDLE keyObject(const unsigned char* publicKey, int length) {
        KEY_HANDLE key{};
        std::memcpy(key.keyId, keyPair.keyId, 16);
        key.keyIdLength = 16;
        key.keyUsage = 1;
        std::memcpy(key.publicKey, publicKey, length);
        key.publicKeyLength = length;
        return key;
    }
    BOOL verify(HCRYPTHASH hash, const std::vector<BYTE>& signature, KEY_HANDLE* key) {
        return CPVerifySignature(provider(), hash, signature.data(), static_cast<DWORD>(signature.size()),
                                 reinterpret_cast<HCRYPTKEY>(key), nullptr, 0);
    }
    std::vector<BYTE> callerSignature() {  // what CPSignHash hands out for the fake's signature
        std::vector<BYTE> s = fake::defaultSignature(256);
        std::reverse(s.begin(), s.end());
        return s;
    }
    CalythKeyPair keyPair{};
};

TEST_F(Verification, ASignatureMadeBySigningVerifiesWithTheKeyObject) {
    HCRYPTHASH signedHash = createHash(CALG_SHA_256, "abc");
    std::vector<BYTE> signature;
    ASSERT_TRUE(sign(signedHash, &signature));

    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    KEY_HANDLE key = keyObject(keyPair.publicKey, keyPair.publicKeyLength);
    fake::clearCalls();
    EXPECT_TRUE(verify(hash, signature, &key)) << GetLastError();

    auto calls = fake::callsTo("calyth_verifySignatureHash");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, kSerial);
    const auto& args = calls[0].args;
    EXPECT_EQ(args[0], "2");
    EXPECT_EQ(args[1], kSha256AbcUpper);
    EXPECT_EQ(args[2], "32");
    // The raw modulus went out as a SubjectPublicKeyInfo with e = 65537.
    EXPECT_EQ(args[3].substr(0, std::strlen(kSpki2048Prefix)), kSpki2048Prefix);
    EXPECT_EQ(args[3].substr(std::strlen(kSpki2048Prefix), 512), fake::hex(keyPair.publicKey, 256));
    EXPECT_EQ(args[3].substr(args[3].size() - 10), "0203010001");
    EXPECT_EQ(args[4], "294");
    EXPECT_EQ(args[5], fake::hex(fake::defaultSignature(256)));  // big-endian again
    EXPECT_EQ(args[6], "256");
    EXPECT_EQ(args[7], "false");

    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPVerifySignature"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "key handle available"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Public key is not DER encoded, converting to DER"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Hash obtained using CPGetHashParam"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "pHashContext->hashLength: 32"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "PublicKeyLength: 294"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Signature Length: 256"));
}

TEST_F(Verification, TheSignatureIsReversedBeforeTheTokenSeesIt) {
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    KEY_HANDLE key = keyObject(keyPair.publicKey, keyPair.publicKeyLength);
    std::vector<BYTE> signature = {0x01, 0x02, 0x03, 0x04, 0x05};
    EXPECT_FALSE(verify(hash, signature, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_SIGNATURE));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "VERIFY SIGNATURE FAILED :: 1"));
    auto calls = fake::callsTo("calyth_verifySignatureHash");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].args[5], "0504030201");
    EXPECT_EQ(calls[0].args[6], "5");
}

TEST_F(Verification, ADerPublicKeyIsPassedAsItIs) {
    const std::vector<BYTE> der = unhex("300D06092A864886F70D0101010500AABBCC");
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    KEY_HANDLE key = keyObject(der.data(), static_cast<int>(der.size()));
    EXPECT_TRUE(verify(hash, callerSignature(), &key));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Public key is already DER encoded"));
    auto calls = fake::callsTo("calyth_verifySignatureHash");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].args[3], fake::hex(der));
    EXPECT_EQ(calls[0].args[4], std::to_string(der.size()));
    EXPECT_EQ(fake::countCalls("calyth_getKeyPairList"), 0u);
}

TEST_F(Verification, NoKeyObjectAndAnEmptyContainerFailsWithBadKey) {
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    SetLastError(0);
    EXPECT_FALSE(verify(hash, callerSignature(), nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Key Handle Not Initialized or Public Key Length is zero"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Container name : "));
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "CPVerifySignature: container not found in key list, containerName="));
    EXPECT_EQ(fake::countCalls("calyth_verifySignatureHash"), 0u);
}

TEST_F(Verification, NoKeyObjectUsesTheContainersTokenKeyAlwaysWrappedAsRsa) {
    // A token key stored as DER is still wrapped on this path.
    CalythKeyPair stored = fake::makeKeyPair(kKeyB, 1, CALYTH_KEY_RSA_2048);
    const std::vector<BYTE> der = unhex("3003020101");
    std::memcpy(stored.publicKey, der.data(), der.size());
    stored.publicKeyLength = static_cast<int32_t>(der.size());
    fake::addKeyPair(kSerial, stored);
    context.containerName = kKeyB;
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    EXPECT_TRUE(verify(hash, callerSignature(), nullptr));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Key Handle Not Initialized or Public Key Length is zero"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", std::string("Container name : ") + kKeyB));
    auto calls = fake::callsTo("calyth_verifySignatureHash");
    ASSERT_EQ(calls.size(), 1u);
    // SEQUENCE { AlgorithmIdentifier, BIT STRING { SEQUENCE { INTEGER 3003020101, INTEGER 65537 } } }
    EXPECT_EQ(calls[0].args[3], "3020300D06092A864886F70D0101010500030F00300C020530030201010203010001");
    EXPECT_EQ(calls[0].args[4], "34");
}

TEST_F(Verification, AKeyObjectWithoutPublicKeyFallsBackToTheContainer) {
    context.containerName = kKeyA;
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    KEY_HANDLE key = keyObject(keyPair.publicKey, 0);
    EXPECT_TRUE(verify(hash, callerSignature(), &key));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Key Handle Not Initialized or Public Key Length is zero"));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "key handle available"));
    EXPECT_EQ(fake::callsTo("calyth_verifySignatureHash")[0].args[4], "294");
}

TEST_F(Verification, AnAlreadyReadValueIsUsedWithoutAskingAgain) {
    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    ASSERT_FALSE(hashValue(hash).empty());
    KEY_HANDLE key = keyObject(keyPair.publicKey, keyPair.publicKeyLength);
    EXPECT_TRUE(verify(hash, callerSignature(), &key));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "Hash obtained using CPGetHashParam"));
    EXPECT_EQ(fake::countCalls("calyth_finalHash"), 1u);
}

TEST_F(Verification, HashValueFailuresBecomeBadHash) {
    KEY_HANDLE key = keyObject(keyPair.publicKey, keyPair.publicKeyLength);

    HCRYPTHASH hash = createHash(CALG_SHA_256, "abc");
    fake::failNext("calyth_finalHash", 6);
    EXPECT_FALSE(verify(hash, callerSignature(), &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_HASH));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetHashParam failed to get hash value"));

    HASH_CONTEXT unknownCode{};
    unknownCode.valid = 1;
    unknownCode.mechanism = 9;
    unknownCode.hashLength = 32;
    EXPECT_FALSE(verify(handleOf(unknownCode), callerSignature(), &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_HASH));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetHashParam failed to get hash size"));

    HASH_CONTEXT tooLong{};
    tooLong.valid = 1;
    tooLong.mechanism = CALYTH_HASH_SHA512;
    tooLong.hashLength = 32;
    EXPECT_FALSE(verify(handleOf(tooLong), callerSignature(), &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_HASH));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Hash size larger than expected"));
    EXPECT_EQ(fake::countCalls("calyth_verifySignatureHash"), 0u);
}

TEST_F(Verification, VerifyChecksContextAndHash) {
    std::vector<BYTE> signature = callerSignature();
    CspContext fresh;
    EXPECT_FALSE(CPVerifySignature(handleOf(fresh), 1, signature.data(), 256, 0, nullptr, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CSP Context Not Initialized"));
    EXPECT_FALSE(CPVerifySignature(provider(), 0, signature.data(), 256, 0, nullptr, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_HASH));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Hash Context is not Initialized"));
    EXPECT_TRUE(fake::calls().empty());
}

}  // namespace
}  // namespace csptest
