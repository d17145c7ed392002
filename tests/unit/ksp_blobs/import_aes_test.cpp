// KSPImportKey: AES keys from key data blobs and wrapped (opaque) blobs stored on the token, and
// transport blobs decrypted by a token RSA key into the key object.
#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <new>
#include <string>
#include <vector>

#include "import_fixture.h"
#include "support/test_support.h"
#include "token/process_state.h"
#include "token/token_table.h"

using namespace ksptest;
using namespace blobtest;

namespace {

constexpr uint32_t kKeyDataMagic = 0x4D42444B;

// A key-encryption key on the token whose reference differs from its identifier, so that the
// tests see which of the two names it.
CalythSymmetricKey kek(unsigned char idByte, int32_t type, int referenceLength, unsigned char flag) {
    CalythSymmetricKey key{};
    std::memset(key.keyId, idByte, sizeof key.keyId);
    for (int i = 0; i < 128; ++i)
        key.reference[i] = static_cast<unsigned char>(idByte ^ (0x30 + i));
    key.referenceLength = referenceLength;
    std::snprintf(key.label, sizeof key.label, "kek-%02X", idByte);
    key.tokenFlag = flag;
    key.type = type;
    return key;
}

class KspImportAesTest : public KspImportTest {
protected:
    void SetUp() override {
        KspImportTest::SetUp();
        storeValidatedPin("SN1", "1234");
    }
    // The single calyth_importAesKey call: serial, then PIN, key bytes, length, type.
    std::vector<std::string> importAesArguments() {
        std::vector<fake::Call> calls = fake::callsTo("calyth_importAesKey");
        EXPECT_EQ(calls.size(), 1u);
        if (calls.empty())
            return {};
        EXPECT_EQ(calls[0].serial, "SN1");
        return calls[0].args;
    }

    // What the fake's calyth_importAesKey fills in for the n-th imported key.
    void expectTokenKeyObject(NCRYPT_KEY_HANDLE key, int32_t type) {
        const KspKey* object = kspKeyFrom(key);
        const CalythSymmetricKey& stored = fake::token("SN1").aesKeys.back();
        EXPECT_EQ(Bytes(object->keyId, object->keyId + 16), Bytes(stored.keyId, stored.keyId + 16));
        EXPECT_EQ(object->keyIdLength, 16u);
        EXPECT_EQ(object->linkIdLength, 16u);
        EXPECT_EQ(Bytes(object->linkId, object->linkId + 16), Bytes(stored.reference, stored.reference + 16));
        EXPECT_STREQ(object->label, stored.label);
        EXPECT_EQ(object->usage, CALYTH_USAGE_EXCHANGE);
        EXPECT_EQ(object->tokenFlag, 1);
        EXPECT_EQ(object->algorithm, type);
        EXPECT_EQ(object->finalized, 1);
        EXPECT_EQ(object->symmetricKeyLength, 0u) << "the AES bytes stay on the token";
        EXPECT_EQ(Bytes(object->symmetricKey, object->symmetricKey + 32), Bytes(32, 0));
    }

    void expectRefused(const std::string& line) {
        EXPECT_EQ(testsupport::logMessagesAt("ERROR"), std::vector<std::string>{line});
    }
};

// --- Key data blobs ---

TEST_F(KspImportAesTest, KeyDataBlobsAreStoredOnTheTokenWithTheirType) {
    struct Case {
        uint32_t length;
        int32_t type;
    };
    for (const Case& c : {Case{16, 8}, Case{24, 11}, Case{32, 10}}) {
        testsupport::clearLog();
        fake::clearCalls();
        Bytes material = pattern(c.length, 0x61);
        NCRYPT_KEY_HANDLE key;
        ASSERT_EQ(import(L"KeyDataBlob", keyDataBlob(kKeyDataMagic, c.length, material), &key), 0);
        EXPECT_EQ(importAesArguments(),
                  (std::vector<std::string>{"1234", fake::hex(material), std::to_string(c.length),
                                            std::to_string(c.type)}));
        expectTokenKeyObject(key, c.type);
        EXPECT_TRUE(
            testsupport::logHasLine("DEBUG", "KSP: BCRYPT_KEY_DATA_BLOB imported successfully (AES)"));
        EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 0u) << "import runs no password check";
    }
}

TEST_F(KspImportAesTest, KeyDataBlobUsesTheHeldPasswordOrNone) {
    clearValidatedPin("SN1");
    NCRYPT_KEY_HANDLE key;
    ASSERT_EQ(import(L"KeyDataBlob", keyDataBlob(kKeyDataMagic, 16, pattern(16, 1)), &key), 0);
    EXPECT_EQ(importAesArguments().at(0), "");
}

TEST_F(KspImportAesTest, KeyDataVersionIsNotCheckedAndTrailingBytesAreNotSent) {
    Bytes material = pattern(16, 0x20);
    NCRYPT_KEY_HANDLE key;
    ASSERT_EQ(
        import(L"KeyDataBlob", concat(keyDataBlob(kKeyDataMagic, 16, material, 7), Bytes{0xFF, 0xFE}), &key),
        0);
    EXPECT_EQ(importAesArguments().at(1), fake::hex(material));
}

TEST_F(KspImportAesTest, KeyDataBlobFailures) {
    NCRYPT_KEY_HANDLE key;
    Bytes header = keyDataBlob(kKeyDataMagic, 16, {});
    header.pop_back();
    EXPECT_EQ(import(L"KeyDataBlob", header, &key), KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: BCRYPT_KEY_DATA_BLOB data too small for header");

    testsupport::clearLog();
    EXPECT_EQ(import(L"KeyDataBlob", keyDataBlob(0x4D42444C, 16, pattern(16, 1)), &key), KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: BCRYPT_KEY_DATA_BLOB invalid magic");

    testsupport::clearLog();
    EXPECT_EQ(import(L"KeyDataBlob", keyDataBlob(kKeyDataMagic, 32, pattern(31, 1)), &key), KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: BCRYPT_KEY_DATA_BLOB data too small for key material");

    // 12 + 0xFFFFFFF8 wraps to 4 in 32 bits.
    testsupport::clearLog();
    EXPECT_EQ(import(L"KeyDataBlob", keyDataBlob(kKeyDataMagic, 0xFFFFFFF8, pattern(4, 1)), &key),
              KSP_NTE_BAD_DATA);
    expectRefused("KSPImportKey: BCRYPT_KEY_DATA_BLOB data too small for key material");

    testsupport::clearLog();
    EXPECT_EQ(import(L"KeyDataBlob", keyDataBlob(kKeyDataMagic, 20, pattern(20, 1)), &key),
              KSP_NTE_NOT_SUPPORTED);
    expectRefused("KSP: Unsupported key size for BCRYPT_KEY_DATA_BLOB: 20");
    EXPECT_EQ(fake::countCalls("calyth_importAesKey"), 0u);
}

TEST_F(KspImportAesTest, KeyDataBlobRefusedByTheTokenIsBadType) {
    fake::failNext("calyth_importAesKey", 6);
    NCRYPT_KEY_HANDLE key;
    EXPECT_EQ(import(L"KeyDataBlob", keyDataBlob(kKeyDataMagic, 32, pattern(32, 1)), &key), KSP_NTE_BAD_TYPE);
    expectRefused("KSP: BCRYPT_KEY_DATA_BLOB import failed");
}

TEST_F(KspImportAesTest, KeyDataKeyDoesNotTakeTheSymmetricEncryptionPath) {
    NCRYPT_KEY_HANDLE key;
    ASSERT_EQ(import(L"KeyDataBlob", keyDataBlob(kKeyDataMagic, 16, pattern(16, 1)), &key), 0);
    Bytes input = pattern(16, 0x30);
    DWORD size = 99;
    EXPECT_EQ(KSPEncrypt(provider_, key, input.data(), 16, nullptr, nullptr, 0, &size, 0), 0);
    EXPECT_EQ(size, 0u) << "an RSA-path size query: key length 0 bits";
    EXPECT_EQ(fake::countCalls("calyth_encrypt_aes"), 0u);
}

// --- Opaque (wrapped) blobs ---

TEST_F(KspImportAesTest, OpaqueBlobIsUnwrappedByTheFirstKekThatWorksAndStored) {
    fake::Token& token = fake::token("SN1");
    token.aesKeys.push_back(kek(0x31, CALYTH_SYMMETRIC_3DES, 20, 1));     // not a key-encryption key
    token.aesKeys.push_back(kek(0x42, CALYTH_SYMMETRIC_AES_128, 20, 1));  // refuses
    token.aesKeys.push_back(kek(0x53, CALYTH_SYMMETRIC_AES_256, 24, 0));  // unwraps
    token.aesKeys.push_back(kek(0x64, CALYTH_SYMMETRIC_AES_128, 16, 1));  // not reached
    fake::failNext("calyth_decrypt_aes", 3);

    Bytes material = pattern(32, 0x70);
    Bytes wrapped = concat(Bytes(8, 0xA6), material);
    NCRYPT_KEY_HANDLE key;
    ASSERT_EQ(import(L"OpaqueKeyBlob", wrapped, &key), 0);

    std::vector<fake::Call> unwraps = fake::callsTo("calyth_decrypt_aes");
    ASSERT_EQ(unwraps.size(), 2u);
    CalythSymmetricKey refusing = kek(0x42, 8, 20, 1);
    CalythSymmetricKey winning = kek(0x53, 10, 24, 0);
    EXPECT_EQ(unwraps[0].serial, "SN1");
    EXPECT_EQ(unwraps[0].args, (std::vector<std::string>{fake::hex(refusing.reference, 20), "20",
                                                         fake::hex(wrapped), "40", "true", "null", "0"}));
    EXPECT_EQ(unwraps[1].args, (std::vector<std::string>{fake::hex(winning.reference, 24), "24",
                                                         fake::hex(wrapped), "40", "false", "null", "0"}));
    EXPECT_EQ(fake::callsTo("calyth_getAesKeyList").at(0).serial, "SN1");
    EXPECT_EQ(importAesArguments(), (std::vector<std::string>{"1234", fake::hex(material), "32", "10"}));
    expectTokenKeyObject(key, CALYTH_SYMMETRIC_AES_256);
    EXPECT_EQ(testsupport::logMessagesAt("DEBUG"),
              (std::vector<std::string>{
                  "KSPImportKey", "KSP: BCRYPT_OPAQUE_KEY_BLOB: wrapped key length = 40",
                  "KSP: Successfully unwrapped key with KEK: 53535353535353535353535353535353",
                  "KSP: BCRYPT_OPAQUE_KEY_BLOB imported successfully"}));
}

TEST_F(KspImportAesTest, UnwrappedKeyTypeIs8For16BytesAnd10Otherwise) {
    fake::token("SN1").aesKeys.push_back(kek(0x42, CALYTH_SYMMETRIC_AES_128, 16, 1));
    struct Case {
        size_t length;
        int32_t type;
    };
    for (const Case& c : {Case{16, 8}, Case{24, 10}, Case{32, 10}}) {
        fake::clearCalls();
        NCRYPT_KEY_HANDLE key;
        ASSERT_EQ(import(L"OpaqueKeyBlob", concat(Bytes(8, 0xA6), pattern(c.length, 1)), &key), 0);
        EXPECT_EQ(importAesArguments().at(3), std::to_string(c.type)) << c.length;
        EXPECT_EQ(kspKeyFrom(key)->algorithm, c.type);
    }
}

TEST_F(KspImportAesTest, OpaqueBlobWithoutAUsableKekIsBadKey) {
    NCRYPT_KEY_HANDLE key;
    EXPECT_EQ(import(L"OpaqueKeyBlob", pattern(24, 1), &key), KSP_NTE_BAD_KEY);
    expectRefused("KSP: Failed to unwrap BCRYPT_OPAQUE_KEY_BLOB with any available KEK");

    // A 3DES key is never tried.
    testsupport::clearLog();
    fake::clearCalls();
    fake::token("SN1").aesKeys.push_back(kek(0x31, CALYTH_SYMMETRIC_3DES, 16, 1));
    EXPECT_EQ(import(L"OpaqueKeyBlob", pattern(24, 1), &key), KSP_NTE_BAD_KEY);
    EXPECT_EQ(fake::countCalls("calyth_decrypt_aes"), 0u);

    // Every candidate refuses.
    testsupport::clearLog();
    fake::token("SN1").aesKeys.push_back(kek(0x42, CALYTH_SYMMETRIC_AES_128, 16, 1));
    fake::token("SN1").aesKeys.push_back(kek(0x43, CALYTH_SYMMETRIC_AES_256, 16, 1));
    fake::failNext("calyth_decrypt_aes", 1, 2);
    EXPECT_EQ(import(L"OpaqueKeyBlob", pattern(24, 1), &key), KSP_NTE_BAD_KEY);
    expectRefused("KSP: Failed to unwrap BCRYPT_OPAQUE_KEY_BLOB with any available KEK");
    EXPECT_EQ(fake::countCalls("calyth_importAesKey"), 0u);
}

TEST_F(KspImportAesTest, UnwrappedKeyRefusedByTheTokenIsBadType) {
    fake::token("SN1").aesKeys.push_back(kek(0x42, CALYTH_SYMMETRIC_AES_128, 16, 1));
    fake::failNext("calyth_importAesKey", 9);
    NCRYPT_KEY_HANDLE key;
    EXPECT_EQ(import(L"OpaqueKeyBlob", pattern(24, 1), &key), KSP_NTE_BAD_TYPE);
    expectRefused("KSP: Import of unwrapped AES key failed");
}

TEST_F(KspImportAesTest, UnwrappedKeyLongerThanTheDeviceRecordIsRefusedUnsent) {
    // 129 bytes do not fit the record's 128-byte key field: refused as the token would refuse it.
    fake::token("SN1").aesKeys.push_back(kek(0x42, CALYTH_SYMMETRIC_AES_128, 16, 1));
    NCRYPT_KEY_HANDLE key;
    EXPECT_EQ(import(L"OpaqueKeyBlob", concat(Bytes(8, 0xA6), pattern(129, 1)), &key), KSP_NTE_BAD_TYPE);
    expectRefused("KSP: Import of unwrapped AES key failed");
    EXPECT_EQ(fake::countCalls("calyth_importAesKey"), 0u);
}

TEST_F(KspImportAesTest, KekReferenceLengthIsBoundedByItsField) {
    fake::token("SN1").aesKeys.push_back(kek(0x42, CALYTH_SYMMETRIC_AES_128, 4000, 1));
    fake::token("SN1").aesKeys.push_back(kek(0x43, CALYTH_SYMMETRIC_AES_128, -3, 1));
    fake::failNext("calyth_decrypt_aes", 1);
    NCRYPT_KEY_HANDLE key;
    ASSERT_EQ(import(L"OpaqueKeyBlob", concat(Bytes(8, 0xA6), pattern(16, 1)), &key), 0);
    std::vector<fake::Call> unwraps = fake::callsTo("calyth_decrypt_aes");
    ASSERT_EQ(unwraps.size(), 2u);
    EXPECT_EQ(unwraps[0].args.at(1), "128");
    EXPECT_EQ(unwraps[1].args.at(1), "0");
}

// --- Transport blobs ---

TEST_F(KspImportAesTest, TransportBlobIsDecryptedByTheImportKeyAndKeptInTheObject) {
    NCRYPT_KEY_HANDLE rsa = makeKey(kRsaExchangeId);
    struct Case {
        size_t length;
        int32_t type;
    };
    for (const wchar_t* name : {L"OpaqueTransport", L"PKCS8_PRIVATEKEY", L"AnyOtherName"}) {
        for (const Case& c : {Case{16, 8}, Case{24, 11}, Case{32, 10}}) {
            testsupport::clearLog();
            fake::clearCalls();
            Bytes plain = pattern(c.length, 0x51);
            Bytes encrypted = plain;
            for (unsigned char& b : encrypted)
                b ^= fake::kRsaFakeMask;
            NCRYPT_KEY_HANDLE key;
            ASSERT_EQ(import(name, encrypted, &key, rsa), 0);
            std::vector<fake::Call> decrypts = fake::callsTo("calyth_decrypt");
            ASSERT_EQ(decrypts.size(), 1u);
            EXPECT_EQ(decrypts[0].serial, "SN1");
            EXPECT_EQ(decrypts[0].args,
                      (std::vector<std::string>{kRsaExchangeId, "1234", fake::hex(encrypted),
                                                std::to_string(c.length), "true"}));
            const KspKey* object = kspKeyFrom(key);
            EXPECT_EQ(object->symmetricKeyLength, c.length);
            EXPECT_EQ(Bytes(object->symmetricKey, object->symmetricKey + c.length), plain);
            EXPECT_EQ(object->keyIdLength, 16u);
            EXPECT_EQ(Bytes(object->keyId, object->keyId + 16), Bytes(16, 0));
            EXPECT_EQ(object->algorithm, c.type);
            EXPECT_EQ(object->finalized, 1);
            EXPECT_EQ(fake::countCalls("calyth_importAesKey"), 0u) << "nothing is written to the token";
            EXPECT_EQ(testsupport::logMessagesAt("DEBUG"),
                      (std::vector<std::string>{"KSPImportKey",
                                                "KSP: Input key id : " + std::string(kRsaExchangeId),
                                                "KSP: Encrypted key imported successfully"}));
        }
    }
}

TEST_F(KspImportAesTest, TransportBlobWithoutImportKeyIsBadKey) {
    for (const wchar_t* name : {L"OpaqueTransport", L"PKCS8_PRIVATEKEY"}) {
        testsupport::clearLog();
        NCRYPT_KEY_HANDLE key;
        EXPECT_EQ(import(name, pattern(16, 1), &key), KSP_NTE_BAD_KEY);
        expectRefused("KSP: Encrypted key import requires import key handle");
    }
    EXPECT_TRUE(fake::callsFromThisThread().empty());
}

TEST_F(KspImportAesTest, TransportBlobThatDecryptsTo20BytesIsNotSupported) {
    NCRYPT_KEY_HANDLE key;
    EXPECT_EQ(import(L"OpaqueTransport", pattern(20, 1), &key, makeKey(kRsaExchangeId)),
              KSP_NTE_NOT_SUPPORTED);
    expectRefused("KSP: Unsupported decrypted key length: 20");
}

TEST_F(KspImportAesTest, TransportBlobTheTokenCannotDecryptIsBadData) {
    fake::failNext("calyth_decrypt", 5);
    NCRYPT_KEY_HANDLE key;
    EXPECT_EQ(import(L"OpaqueTransport", pattern(16, 1), &key, makeKey(kRsaExchangeId)), KSP_NTE_BAD_DATA);
    expectRefused("KSP: Encrypted key decryption failed");
}

TEST_F(KspImportAesTest, TransportDecryptionWithoutOutputBytesIsAnUnsupportedLength) {
    fake::hooks().decrypt = [](const char*, const unsigned char*, const char*, const unsigned char*, int,
                               unsigned char** output, int* outputLength, bool) {
        *output = nullptr;
        *outputLength = 16;
        return 0;
    };
    NCRYPT_KEY_HANDLE key;
    EXPECT_EQ(import(L"OpaqueTransport", pattern(16, 1), &key, makeKey(kRsaExchangeId)),
              KSP_NTE_NOT_SUPPORTED);
    expectRefused("KSP: Unsupported decrypted key length: 0");
}

TEST_F(KspImportAesTest, AnExceptionInsideImportBecomesAStatus) {
    fake::hooks().decrypt = [](const char*, const unsigned char*, const char*, const unsigned char*, int,
                               unsigned char**, int*, bool) -> int { throw std::bad_alloc(); };
    NCRYPT_KEY_HANDLE key;
    EXPECT_EQ(import(L"OpaqueTransport", pattern(16, 1), &key, makeKey(kRsaExchangeId)), KSP_NTE_NO_MEMORY);
    expectRefused("KSPImportKey: out of memory");
}

TEST_F(KspImportAesTest, TransportKeyTakesTheSymmetricEncryptionPath) {
    NCRYPT_KEY_HANDLE key;
    Bytes plain = pattern(32, 0x51);
    Bytes encrypted = plain;
    for (unsigned char& b : encrypted)
        b ^= fake::kRsaFakeMask;
    ASSERT_EQ(import(L"OpaqueTransport", encrypted, &key, makeKey(kRsaExchangeId)), 0);
    setProcessIv(std::vector<unsigned char>(16, 0x0F));
    Bytes input = pattern(32, 0x30);
    DWORD size = 0;
    EXPECT_EQ(KSPEncrypt(provider_, key, input.data(), 32, nullptr, nullptr, 0, &size, 0), 0);
    std::vector<fake::Call> encrypts = fake::callsTo("calyth_encrypt_aes");
    ASSERT_EQ(encrypts.size(), 1u);
    EXPECT_EQ(encrypts[0].args.at(1), fake::hex(plain)) << "the imported key bytes";
    EXPECT_EQ(size, 32u);
}

}  // namespace
