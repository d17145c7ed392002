// CNG side: every length the device library reports, in its records or for its outputs, is held to
// the buffer it indexes. Each test has the fake device answer with the hostile length.
#include <windows.h>

#include <bcrypt.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "token/token_table.h"
#include "unit/ksp/ksp_fixture.h"

using namespace ksptest;

namespace {

constexpr unsigned char kUntouched = 0xEE;

bool untouchedFrom(const std::vector<unsigned char>& buffer, size_t from) {
    return std::all_of(buffer.begin() + from, buffer.end(), [](unsigned char b) { return b == kUntouched; });
}

unsigned char* mallocBlock(size_t length, unsigned char fill) {
    auto* block = static_cast<unsigned char*>(std::malloc(length));
    std::memset(block, fill, length);
    return block;
}

class KspLengths : public KspTest {
protected:
    void SetUp() override {
        KspTest::SetUp();
        makeProvider();
        storeValidatedPin("SN1", "1234");
    }
    NCRYPT_KEY_HANDLE aesKey() {
        NCRYPT_KEY_HANDLE key = makeEmptyKey();
        std::memset(kspKeyFrom(key)->symmetricKey, 0x33, 16);
        kspKeyFrom(key)->symmetricKeyLength = 16;
        kspKeyFrom(key)->finalized = 1;
        return key;
    }
};

// An RSA key object that claims 512 bits: the device still writes a whole 4096-bit modulus, into a
// block of the provider's own; the caller's buffer gets no more than it holds.
TEST_F(KspLengths, RsaEncryptionWritesAWholeModulusOnlyIntoTheProvidersBlock) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaExchangeId);
    kspKeyFrom(key)->bits = 512;
    fake::hooks().encrypt = [](EncryptionType, PaddingMode, const unsigned char*, int, unsigned char* output,
                               int* outputLength, const unsigned char*, int) {
        std::memset(output, 0x5A, 512);
        *outputLength = 512;
        return 0;
    };
    std::vector<unsigned char> input(20, 0x42);
    std::vector<unsigned char> output(64 + 64, kUntouched);
    DWORD result = 0;
    EXPECT_EQ(KSPEncrypt(provider_, key, input.data(), 20, nullptr, output.data(), 64, &result, 0),
              KSP_NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, 512u);
    EXPECT_TRUE(untouchedFrom(output, 0));
}

TEST_F(KspLengths, AesOutputLengthsAreHeldToTheirBuffers) {
    NCRYPT_KEY_HANDLE key = aesKey();
    fake::hooks().encryptAes = [](const char*, EncryptionType, const unsigned char*, int,
                                  const unsigned char*, int, unsigned char** output, int* outputLength) {
        *output = mallocBlock(16, 0x77);
        *outputLength = -12;
        return 0;
    };
    std::vector<unsigned char> input(16, 0x42);
    std::vector<unsigned char> output(16 + 32, kUntouched);
    DWORD result = 99;
    EXPECT_EQ(KSPEncrypt(provider_, key, input.data(), 16, nullptr, output.data(), 16, &result, 0),
              KSP_SUCCESS);
    EXPECT_EQ(result, 0u);
    EXPECT_TRUE(untouchedFrom(output, 0));

    fake::hooks().decryptSymetric = [](const char*, const unsigned char*, int dataLength,
                                       unsigned char* plain, int* outputLength, const unsigned char*, int) {
        std::memset(plain, 0x55, dataLength);
        *outputLength = 100000;
        return 0;
    };
    EXPECT_EQ(KSPDecrypt(provider_, key, input.data(), 16, nullptr, output.data(), 16, &result, 0),
              KSP_SUCCESS);
    EXPECT_EQ(result, 16u) << "held to the ciphertext's room";
    EXPECT_TRUE(untouchedFrom(output, 16));
}

TEST_F(KspLengths, RsaDecryptionCopiesNoMoreThanTheCallersBuffer) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaExchangeId);
    fake::hooks().decrypt = [](const char*, const unsigned char*, const char*, const unsigned char*, int,
                               unsigned char** output, int* outputLength, bool) {
        *output = mallocBlock(4096, 0x66);
        *outputLength = 4096;
        return 0;
    };
    std::vector<unsigned char> input(256, 0x01);
    std::vector<unsigned char> output(256 + 32, kUntouched);
    DWORD result = 0;
    EXPECT_EQ(KSPDecrypt(provider_, key, input.data(), 256, nullptr, output.data(), 256, &result, 0),
              KSP_NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, 4096u);
    EXPECT_TRUE(untouchedFrom(output, 0));
}

TEST_F(KspLengths, SignatureLengthIsHeldToTheCallersBuffer) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    for (int reported : {100000, -6}) {
        fake::hooks().signHash = [reported](const char*, const unsigned char*, const char*,
                                            const unsigned char*, int, unsigned char* signature,
                                            int* signatureLength, bool, bool) {
            std::memset(signature, 0x11, *signatureLength);
            *signatureLength = reported;
            return 0;
        };
        std::vector<unsigned char> digest(32, 0x07);
        std::vector<unsigned char> signature(256 + 32, kUntouched);
        DWORD result = 0;
        ASSERT_EQ(KSPSignHash(provider_, key, nullptr, digest.data(), 32, signature.data(), 256, &result, 0),
                  KSP_SUCCESS);
        EXPECT_EQ(result, reported < 0 ? 0u : 256u);
        EXPECT_TRUE(untouchedFrom(signature, 256));
    }
}

TEST_F(KspLengths, SharedSecretIsHeldToTheSecretObject) {
    NCRYPT_KEY_HANDLE privateKey = makeKey(kEcSignId);
    NCRYPT_KEY_HANDLE peer = makeKey(kEcSignId);
    fake::hooks().ecdhDerive = [](const char*, const unsigned char*, int, unsigned char** secret,
                                  int* secretLength) {
        *secret = mallocBlock(200, 0x44);
        *secretLength = 200;
        return 0;
    };
    NCRYPT_SECRET_HANDLE secret = 0;
    ASSERT_EQ(KSPSecretAgreement(provider_, privateKey, peer, &secret, 0), KSP_SUCCESS);
    EXPECT_EQ(kspSecretFrom(secret)->length, KSP_SECRET_ROOM);

    // The derivation's digest length is the hash's own, whatever length the token reports.
    fake::hooks().finalHash = [](unsigned char*, int* length) {
        *length = 100000;
        return 0;
    };
    std::vector<unsigned char> derived(32 + 32, kUntouched);
    DWORD result = 0;
    ASSERT_EQ(KSPDeriveKey(provider_, secret, nullptr, nullptr, derived.data(), 32, &result, 0), KSP_SUCCESS);
    EXPECT_EQ(result, 32u);
    EXPECT_TRUE(untouchedFrom(derived, 32));
    KSPFreeSecret(provider_, secret);
}

TEST_F(KspLengths, KeyPairRecordLengthsAndLabelsAreHeldToTheObjectsFields) {
    fake::setHostileRecordLengths("SN1", 100000);
    NCRYPT_KEY_HANDLE key = openKey(kRsaSignId);
    ASSERT_NE(key, 0u);
    EXPECT_EQ(kspKeyFrom(key)->publicKeyLength, 0u)
        << "a public key too long for the object is not cut short";
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "KSP: Public key from the token too long for the key object, length=100000"));
    EXPECT_EQ(kspKeyFrom(key)->linkIdLength, KSP_LINK_ID_ROOM);
    EXPECT_EQ(std::string(kspKeyFrom(key)->label), std::string(KSP_LABEL_CHARACTERS, 'K'));
}

TEST_F(KspLengths, ExportHoldsAnObjectsPublicKeyLengthToItsField) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    kspKeyFrom(key)->publicKeyLength = 5000;
    DWORD result = 0;
    ASSERT_EQ(KSPExportKey(provider_, key, 0, L"RSAPUBLICBLOB", nullptr, nullptr, 0, &result, 0),
              KSP_SUCCESS);
    EXPECT_EQ(result, sizeof(BCRYPT_RSAKEY_BLOB) + 3 + KSP_PUBLIC_KEY_ROOM);
}

TEST_F(KspLengths, KeyCertificateDerLengthIsHeldToTheRecord) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    CalythCertificate record{};
    std::memset(record.der, 0x30, sizeof record.der);
    std::strncpy(record.label, "rsa-sign", sizeof record.label - 1);
    record.derLength = 100000;
    fake::token("SN1").certificates.push_back(record);
    DWORD result = 0;
    ASSERT_EQ(KSPGetKeyProperty(provider_, key, L"SmartCardKeyCertificate", nullptr, 0, &result, 0),
              KSP_SUCCESS);
    EXPECT_EQ(result, 3072u);
}

}  // namespace
