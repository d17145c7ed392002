// CryptoAPI side: every length the device library reports, in its records or for its outputs, is
// held to the buffer it indexes. Each test has the fake device answer with the hostile length.
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "cert/certificate_chain.h"
#include "cert/certificate_import.h"
#include "csp/hash_context.h"
#include "csp_keys_fixture.h"
#include "token/aes_key_transfer.h"
#include "token/key_lookup.h"
#include "token/token_table.h"

using namespace keystest;

namespace {

constexpr unsigned char kUntouched = 0xEE;
constexpr int kWholeModulus = 512;  // what a 4096-bit key's calyth_encrypt writes

// The device's RSA encryption with a 4096-bit key: one whole modulus, whatever the key object says.
void encryptWholeModulus() {
    fake::hooks().encrypt = [](EncryptionType, PaddingMode, const unsigned char*, int, unsigned char* output,
                               int* outputLength, const unsigned char*, int) {
        for (int i = 0; i < kWholeModulus; ++i)
            output[i] = static_cast<unsigned char>(i);
        *outputLength = kWholeModulus;
        return 0;
    };
}

bool untouchedFrom(const std::vector<unsigned char>& buffer, size_t from) {
    return std::all_of(buffer.begin() + from, buffer.end(), [](unsigned char b) { return b == kUntouched; });
}

class CspLengths : public KeysTest {
protected:
    void SetUp() override {
        KeysTest::SetUp();
        storeValidatedPin("SN1", "1234");
    }
    // CPEncrypt of 20 bytes in a buffer of `room` bytes (plus guard bytes) that claims cbBufLen.
    BOOL encrypt(HCRYPTKEY key, DWORD cbBufLen, std::vector<unsigned char>* buffer, DWORD* length) {
        buffer->assign(cbBufLen + 64, kUntouched);
        std::fill(buffer->begin(), buffer->begin() + std::min<DWORD>(20, cbBufLen), 0x42);
        *length = 20;
        return CPEncrypt(prov(), key, 0, TRUE, 0, buffer->data(), length, cbBufLen);
    }
};

// ---- CPEncrypt: the output of calyth_encrypt is sized from the real key ----

// CPGenKey(CALG_RSA_KEYX, 512 << 16) on a token that makes 2048-bit keys: bits / 8 is 64, the device
// writes a whole modulus. The caller's 64 bytes are answered as the size check answers a short buffer.
TEST_F(CspLengths, EncryptWithAKeySmallerThanTheTokensWritesNothingPastTheCallersBuffer) {
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CPGenKey(prov(), CALG_RSA_KEYX, 512 << 16, &key));
    keep(key);
    encryptWholeModulus();
    std::vector<unsigned char> buffer;
    DWORD length = 0;
    EXPECT_FALSE(encrypt(key, 64, &buffer, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(length, 512u);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPEncrypt: buffer too small, cbBufLen=64 requiredSize=512"));
    EXPECT_TRUE(untouchedFrom(buffer, 20));

    ASSERT_TRUE(encrypt(key, 512, &buffer, &length));
    EXPECT_EQ(length, 512u);
    for (int i = 0; i < kWholeModulus; ++i)
        ASSERT_EQ(buffer[i], static_cast<unsigned char>(kWholeModulus - 1 - i)) << i;
    EXPECT_TRUE(untouchedFrom(buffer, 512));
}

TEST_F(CspLengths, EncryptWithAnEcKeyOrAnUnknownSizeCodeStaysInTheCallersBuffer) {
    fake::addKeyPair("SN1", fake::makeKeyPair(kBothId, CALYTH_USAGE_BOTH, CALYTH_KEY_EC_P256));
    context_.containerName = kBothId;
    HCRYPTKEY ecKey = userKey(AT_KEYEXCHANGE);
    ASSERT_NE(ecKey, 0u);
    encryptWholeModulus();
    std::vector<unsigned char> buffer;
    DWORD length = 0;
    EXPECT_FALSE(encrypt(ecKey, 32, &buffer, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(length, 512u);
    EXPECT_TRUE(untouchedFrom(buffer, 20));

    CalythKeyPair odd = fake::makeKeyPair(kSignId, CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048);
    odd.keySizeCode = 9;
    fake::addKeyPair("SN1", odd);
    context_.containerName = kSignId;
    HCRYPTKEY oddKey = userKey(AT_KEYEXCHANGE);
    ASSERT_NE(oddKey, 0u);
    EXPECT_FALSE(encrypt(oddKey, 0, &buffer, &length));
    EXPECT_EQ(length, 512u);
    EXPECT_TRUE(untouchedFrom(buffer, 0));
}

TEST_F(CspLengths, EncryptRefusesACiphertextLengthOutsideItsOwnBuffer) {
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CPGenKey(prov(), CALG_RSA_KEYX, 0, &key));
    keep(key);
    for (int reported : {100000, -1}) {
        fake::hooks().encrypt = [reported](EncryptionType, PaddingMode, const unsigned char*, int,
                                           unsigned char*, int* outputLength, const unsigned char*, int) {
            *outputLength = reported;
            return 0;
        };
        std::vector<unsigned char> buffer;
        DWORD length = 0;
        EXPECT_FALSE(encrypt(key, 256, &buffer, &length)) << reported;
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
        EXPECT_TRUE(untouchedFrom(buffer, 20));
    }
}

// ---- AES outputs ----

TEST_F(CspLengths, AesEncryptionOutputLengthIsHeldToTheBlockAndTheCallersBuffer) {
    KEY_HANDLE* key = newKey();
    std::memset(key->symmetricKey, 0x33, 16);
    key->symmetricKeyLength = 16;
    key->bits = 128;
    int reported = 0;
    bool withBlock = true;
    fake::hooks().encryptAes = [&](const char*, EncryptionType, const unsigned char*, int,
                                   const unsigned char*, int, unsigned char** output, int* outputLength) {
        *output = withBlock ? mallocCopy(std::vector<unsigned char>(16, 0x77)) : nullptr;
        *outputLength = reported;
        return 0;
    };
    std::vector<unsigned char> buffer;
    DWORD length = 0;
    reported = -7;
    EXPECT_TRUE(encrypt(handleOf(key), 32, &buffer, &length));
    EXPECT_EQ(length, 0u);
    EXPECT_TRUE(untouchedFrom(buffer, 20));
    reported = 16;
    withBlock = false;
    EXPECT_TRUE(encrypt(handleOf(key), 32, &buffer, &length));
    EXPECT_EQ(length, 0u) << "no block, nothing to copy";
    withBlock = true;
    reported = 1 << 30;
    EXPECT_FALSE(encrypt(handleOf(key), 32, &buffer, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_TRUE(untouchedFrom(buffer, 20));
}

TEST_F(CspLengths, AesDecryptionOutputLengthIsHeldToTheCiphertextsRoom) {
    KEY_HANDLE* key = newKey();
    std::memset(key->symmetricKey, 0x33, 16);
    key->symmetricKeyLength = 16;
    for (int reported : {100000, -3}) {
        fake::hooks().decryptSymetric = [reported](const char*, const unsigned char*, int dataLength,
                                                   unsigned char* output, int* outputLength,
                                                   const unsigned char*, int) {
            EXPECT_EQ(*outputLength, dataLength) << "the room handed over";
            std::memset(output, 0x55, dataLength);
            *outputLength = reported;
            return 0;
        };
        std::vector<unsigned char> buffer(32 + 64, kUntouched);
        DWORD length = 32;
        ASSERT_TRUE(CPDecrypt(prov(), handleOf(key), 0, TRUE, 0, buffer.data(), &length));
        EXPECT_EQ(length, reported < 0 ? 0u : 32u);
        EXPECT_TRUE(untouchedFrom(buffer, 32));
    }
}

TEST_F(CspLengths, RsaDecryptionCopiesNoMoreThanTheCiphertextsRoom) {
    fake::addKeyPair("SN1", fake::makeKeyPair(kExchangeId, CALYTH_USAGE_EXCHANGE, CALYTH_KEY_RSA_2048));
    context_.containerName = kExchangeId;
    HCRYPTKEY key = userKey(AT_KEYEXCHANGE);
    for (int reported : {4096, -9}) {
        fake::hooks().decrypt = [reported](const char*, const unsigned char*, const char*,
                                           const unsigned char*, int, unsigned char** output,
                                           int* outputLength, bool) {
            *output = mallocCopy(std::vector<unsigned char>(4096, 0x66));
            *outputLength = reported;
            return 0;
        };
        std::vector<unsigned char> buffer(256 + 64, kUntouched);
        DWORD length = 256;
        ASSERT_TRUE(CPDecrypt(prov(), key, 0, TRUE, 0, buffer.data(), &length));
        // The length is reported as the token gives it; only the copy is bounded.
        EXPECT_EQ(length, reported < 0 ? 0u : 4096u);
        EXPECT_TRUE(untouchedFrom(buffer, 256));
    }
}

// ---- hashing and signing ----

TEST_F(CspLengths, FinalHashLengthsAreHeldToTheRoomTheTokenWasGiven) {
    fake::addKeyPair("SN1", fake::makeKeyPair(kSignId, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048));
    context_.containerName = kSignId;
    fake::hooks().finalHash = [](unsigned char*, int* length) {
        *length = 100000;
        return 0;
    };
    HCRYPTHASH hash = 0;
    ASSERT_TRUE(CPCreateHash(prov(), CALG_SHA1, 0, 0, &hash));
    std::vector<unsigned char> value(64 + 32, kUntouched);
    DWORD length = 64;
    ASSERT_TRUE(CPGetHashParam(prov(), hash, HP_HASHVAL, value.data(), &length, 0));
    EXPECT_EQ(length, 20u) << "the room given for SHA-1";
    EXPECT_TRUE(untouchedFrom(value, 20));
    CPDestroyHash(prov(), hash);

    // CPSignHash finalises with 128 bytes of room; the digest it signs is never longer.
    ASSERT_TRUE(CPCreateHash(prov(), CALG_SHA_256, 0, 0, &hash));
    std::vector<unsigned char> signature(256);
    length = 256;
    ASSERT_TRUE(CPSignHash(prov(), hash, AT_SIGNATURE, nullptr, 0, signature.data(), &length));
    auto signs = fake::callsTo("calyth_signHash");
    ASSERT_EQ(signs.size(), 1u);
    EXPECT_EQ(signs[0].args.at(3), std::to_string(HASH_VALUE_ROOM));
    CPDestroyHash(prov(), hash);
}

TEST_F(CspLengths, SignatureLengthIsHeldToTheCallersBuffer) {
    fake::addKeyPair("SN1", fake::makeKeyPair(kSignId, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048));
    context_.containerName = kSignId;
    for (int reported : {100000, -4}) {
        fake::hooks().signHash = [reported](const char*, const unsigned char*, const char*,
                                            const unsigned char*, int, unsigned char* signature,
                                            int* signatureLength, bool, bool) {
            std::memset(signature, 0x11, *signatureLength);
            *signatureLength = reported;
            return 0;
        };
        HCRYPTHASH hash = 0;
        ASSERT_TRUE(CPCreateHash(prov(), CALG_SHA_256, 0, 0, &hash));
        std::vector<unsigned char> signature(256 + 64, kUntouched);
        DWORD length = 256;
        ASSERT_TRUE(CPSignHash(prov(), hash, AT_SIGNATURE, nullptr, 0, signature.data(), &length));
        EXPECT_EQ(length, reported < 0 ? 0u : 256u);
        EXPECT_TRUE(untouchedFrom(signature, 256));
        CPDestroyHash(prov(), hash);
    }
}

// ---- key pair records ----

TEST_F(CspLengths, KeyPairRecordLengthsAndLabelsAreHeldToTheirFields) {
    for (int32_t hostile : {100000, -20}) {
        fake::reset();
        fake::addToken("SN1");
        fake::addKeyPair("SN1", fake::makeKeyPair(kBothId, CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048));
        fake::setHostileRecordLengths("SN1", hostile);
        context_.containerName = kBothId;
        HCRYPTKEY handle = userKey(AT_SIGNATURE);
        ASSERT_NE(handle, 0u);
        const KEY_HANDLE* key = keyHandleFrom(handle);
        EXPECT_EQ(key->publicKeyLength, hostile < 0 ? 0 : 1024);
        EXPECT_EQ(key->objectIdLength, hostile < 0 ? 0 : 128);
        EXPECT_EQ(std::string(key->label), std::string(128, 'K'));

        // Verification with the container's key wraps at most the record's bytes.
        HCRYPTHASH hash = 0;
        ASSERT_TRUE(CPCreateHash(prov(), CALG_SHA_256, 0, 0, &hash));
        std::vector<unsigned char> signature = fake::defaultSignature(256);
        CPVerifySignature(prov(), hash, signature.data(), 256, 0, nullptr, 0);
        auto verifies = fake::callsTo("calyth_verifySignatureHash");
        ASSERT_EQ(verifies.size(), 1u);
        EXPECT_LE(std::stoi(verifies[0].args.at(4)), 1024 + 40);
        CPDestroyHash(prov(), hash);
    }
}

TEST_F(CspLengths, ExportedModulusIsHeldToTheRecord) {
    fake::addKeyPair("SN1", fake::makeKeyPair(kBothId, CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048));
    context_.containerName = kBothId;
    HCRYPTKEY key = userKey(AT_SIGNATURE);
    fake::setHostileRecordLengths("SN1", 5000);
    DWORD length = 0;
    ASSERT_TRUE(CPExportKey(prov(), key, 0, PUBLICKEYBLOB, 0, nullptr, &length));
    EXPECT_EQ(length, 20u + 1024u);
}

TEST_F(CspLengths, KeyLabelsWithoutTerminatingZeroStayInTheirField) {
    CalythKeyPair keyPair = fake::makeKeyPair(kBothId, CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048);
    std::memset(keyPair.label, 'L', sizeof keyPair.label);
    EXPECT_EQ(keyLabel(keyPair), std::string(sizeof keyPair.label, 'L'));
}

// ---- certificate records ----

CalythCertificate certificateRecord(unsigned char fill, int32_t derLength, const char* label) {
    CalythCertificate record{};
    std::memset(record.der, fill, sizeof record.der);
    record.der[0] = 0x30;
    record.derLength = derLength;
    std::strncpy(record.label, label, sizeof record.label - 1);
    return record;
}

TEST_F(CspLengths, KeyCertificateDerLengthIsHeldToTheRecord) {
    fake::addKeyPair("SN1", fake::makeKeyPair(kBothId, CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048, "mine"));
    context_.containerName = kBothId;
    HCRYPTKEY key = userKey(AT_SIGNATURE);
    fake::token("SN1").certificates.push_back(certificateRecord(0x5A, 100000, "mine"));
    DWORD length = 0;
    ASSERT_TRUE(CPGetKeyParam(prov(), key, KP_CERTIFICATE, nullptr, &length, 0));
    EXPECT_EQ(length, 3072u);
    fake::token("SN1").certificates.back().derLength = -5;
    ASSERT_TRUE(CPGetKeyParam(prov(), key, KP_CERTIFICATE, nullptr, &length, 0));
    EXPECT_EQ(length, 0u);
}

TEST_F(CspLengths, CertificateChainParsesNoMoreThanTheRecord) {
    fake::addKeyPair("SN1", fake::makeKeyPair(kBothId, CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048));
    context_.containerName = kBothId;
    fake::token("SN1").certificates.push_back(certificateRecord(0x5A, 70000, "big"));
    fake::token("SN1").certificates.push_back(certificateRecord(0x5B, -8, "negative"));
    DWORD length = 0;
    EXPECT_FALSE(CPGetProvParam(prov(), PP_CERTCHAIN, nullptr, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NO_KEY));
    auto parsed = fake::callsTo("calyth_getCertificateDetails");
    ASSERT_EQ(parsed.size(), 2u);
    EXPECT_EQ(parsed[0].args.at(1), "3072");
    EXPECT_EQ(parsed[1].args.at(1), "0");
}

// The leaf of a chain import is the caller's record: its length is held to the record before the
// parser or the token sees it.
TEST_F(CspLengths, ChainImportHoldsTheLeafsLengthToItsRecord) {
    CalythCertificate leaf = certificateRecord(0x5C, 50000, "leaf");
    CertificateDetails details;
    details.subjectName = "CN=Leaf";
    fake::registerCertificate(std::vector<unsigned char>(leaf.der, leaf.der + sizeof leaf.der), details);
    int32_t seenLength = 0;
    fake::hooks().importCertificate = [&](const char*, const char*, CalythCertificate* certificate) {
        seenLength = certificate->derLength;
        return 0;
    };
    EXPECT_EQ(importCertificateWithChain("SN1", "1234", leaf, nullptr), 0);
    EXPECT_EQ(seenLength, 3072);
    auto parsed = fake::callsTo("calyth_getCertificateDetails");
    ASSERT_FALSE(parsed.empty());
    EXPECT_EQ(parsed[0].args.at(1), "3072");
}

TEST_F(CspLengths, ChainExportParsesNoRecordPastItsField) {
    std::vector<CalythCertificate> chain{certificateRecord(0x30, 100000, "leaf")};
    EXPECT_EQ(gatherCertificateChain(chain[0], chain).size(), 1u);
    DWORD length = 0;
    EXPECT_FALSE(BuildCertificateChain(chain, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Failed creating leaf certificate"));
}

// After the import the key pair with the leaf's public key gets the label; a key pair whose public
// key length lies outside its field is never compared.
TEST_F(CspLengths, ChainImportComparesNoPublicKeyPastItsField) {
    CalythKeyPair keyPair = fake::makeKeyPair(kBothId, CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048);
    std::vector<unsigned char> publicKey(keyPair.publicKey, keyPair.publicKey + sizeof keyPair.publicKey);
    fake::addKeyPair("SN1", keyPair);
    fake::setHostileRecordLengths("SN1", 100000);
    CalythCertificate leaf = certificateRecord(0x5D, 40, "leaf");
    CertificateDetails details;
    details.subjectName = "CN=Leaf";
    details.publicKey = publicKey;
    fake::registerCertificate(std::vector<unsigned char>(leaf.der, leaf.der + 40), details);
    EXPECT_EQ(importCertificateWithChain("SN1", "1234", leaf, nullptr), 0);
    EXPECT_EQ(fake::countCalls("calyth_updateKeyPairDetails"), 0u);
}

// ---- symmetric key records ----

TEST_F(CspLengths, KekReferenceLengthIsHeldToTheRecord) {
    CalythSymmetricKey kek{};
    kek.type = CALYTH_SYMMETRIC_AES_256;
    std::memset(kek.reference, 0x21, sizeof kek.reference);
    fake::token("SN1").aesKeys.push_back(kek);
    fake::setHostileRecordLengths("SN1", 100000);
    std::vector<unsigned char> wrapped(40, 0x01);
    CalythSymmetricKey found{};
    DeviceOutput plain;
    EXPECT_TRUE(unwrapWithTokenKek("SN1", nullptr, wrapped.data(), 40, KekNaming::Reference, &found, &plain));
    auto unwraps = fake::callsTo("calyth_decrypt_aes");
    ASSERT_EQ(unwraps.size(), 1u);
    EXPECT_EQ(unwraps[0].args.at(1), "128");
}

// ---- random numbers ----

// The device takes an int length: a request beyond INT_MAX reaches it in pieces, never negative.
TEST_F(CspLengths, RandomRequestsBeyondIntMaxReachTheDeviceInPieces) {
    std::vector<int> lengths;
    fake::hooks().random = [&](const char*, int length, unsigned char*, bool) {
        lengths.push_back(length);
        return 0;
    };
    unsigned char byte = 0;
    ASSERT_TRUE(CPGenRandom(prov(), 0x80000001u, &byte));
    EXPECT_EQ(lengths, (std::vector<int>{INT_MAX, 2}));
}

}  // namespace
