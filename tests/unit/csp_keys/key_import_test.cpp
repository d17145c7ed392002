// CPImportKey: PUBLICKEYBLOB, SIMPLEBLOB, PLAINTEXTKEYBLOB and SYMMETRICWRAPKEYBLOB.
#include <cstdlib>
#include <cstring>

#include "csp_keys_fixture.h"
#include "token/token_table.h"
#include "util/encoding.h"
#include "util/utils.h"
#include "wine_rsa.h"

using namespace keystest;

namespace {

void put32(std::vector<unsigned char>* blob, uint32_t value) {
    for (int i = 0; i < 4; ++i)
        blob->push_back(static_cast<unsigned char>(value >> (8 * i)));
}

std::vector<unsigned char> blobHeader(BYTE type, ALG_ID algorithm) {
    std::vector<unsigned char> blob{type, CUR_BLOB_VERSION, 0, 0};
    put32(&blob, algorithm);
    return blob;
}

std::vector<unsigned char> publicKeyBlob(uint32_t bitlen,
                                         const std::vector<unsigned char>& modulusLittleEndian,
                                         uint32_t pubexp = 65537, uint32_t magic = 0x31415352) {
    std::vector<unsigned char> blob = blobHeader(PUBLICKEYBLOB, CALG_RSA_KEYX);
    put32(&blob, magic);
    put32(&blob, bitlen);
    put32(&blob, pubexp);
    blob.insert(blob.end(), modulusLittleEndian.begin(), modulusLittleEndian.end());
    return blob;
}

std::vector<unsigned char> simpleBlob(ALG_ID sessionAlgorithm,
                                      const std::vector<unsigned char>& encryptedLE) {
    std::vector<unsigned char> blob = blobHeader(SIMPLEBLOB, sessionAlgorithm);
    put32(&blob, CALG_RSA_KEYX);
    blob.insert(blob.end(), encryptedLE.begin(), encryptedLE.end());
    return blob;
}

std::vector<unsigned char> plainTextBlob(ALG_ID algorithm, const std::vector<unsigned char>& key) {
    std::vector<unsigned char> blob = blobHeader(PLAINTEXTKEYBLOB, algorithm);
    put32(&blob, static_cast<uint32_t>(key.size()));
    blob.insert(blob.end(), key.begin(), key.end());
    return blob;
}

class ImportTest : public KeysTest {
protected:
    BOOL import(const std::vector<unsigned char>& blob, HCRYPTKEY* key, HCRYPTKEY unwrapKey = 0) {
        BOOL ok = CPImportKey(prov(), blob.data(), static_cast<DWORD>(blob.size()), unwrapKey, 0, key);
        if (ok && *key != 0)
            keep(*key);
        return ok;
    }
};

// --- common checks --------------------------------------------------------------------------

TEST_F(ImportTest, BlobOfOnlyAHeaderIsEmpty) {
    std::vector<unsigned char> blob = blobHeader(PLAINTEXTKEYBLOB, CALG_AES_128);
    put32(&blob, 0);
    ASSERT_EQ(blob.size(), 12u);
    HCRYPTKEY key = 0;
    EXPECT_FALSE(import(blob, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_INVALID_PARAMETER));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPImportKey - Input data to import is empty"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPImportKey - input data length : 0"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Input length : 12"));
}

TEST_F(ImportTest, LogsTheHeaderFields) {
    std::vector<unsigned char> blob = plainTextBlob(CALG_AES_192, counting(24, 1));
    HCRYPTKEY key = 0;
    CPImportKey(prov(), blob.data(), static_cast<DWORD>(blob.size()), 0, 0x11, &key);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPImportKey"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Input flag : 17"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPImportKey - input type : 8"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPImportKey - input version : 2"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPImportKey - input alg : 26127"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPImportKey - input data length : 24"));
}

TEST_F(ImportTest, NullDataIsCheckedBeforeTheContext) {
    HCRYPTKEY key = 0;
    EXPECT_FALSE(CPImportKey(0, nullptr, 40, 0, 0, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPImportKey - Input data is null"));
}

TEST_F(ImportTest, NullOrUninitialisedContextFailsWithBadUid) {
    std::vector<unsigned char> blob = plainTextBlob(CALG_AES_128, counting(16, 1));
    HCRYPTKEY key = 0;
    EXPECT_FALSE(CPImportKey(0, blob.data(), static_cast<DWORD>(blob.size()), 0, 0, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPImportKey - Contest null or not initialised"));
    context_.initialized = false;
    EXPECT_FALSE(import(blob, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
}

TEST_F(ImportTest, PrivateKeyBlobsAreNotImplemented) {
    for (BYTE type : {static_cast<BYTE>(PRIVATEKEYBLOB), static_cast<BYTE>(PUBLICKEYBLOBEX)}) {
        std::vector<unsigned char> blob = blobHeader(type, CALG_RSA_KEYX);
        blob.resize(64, 0x11);
        HCRYPTKEY key = 0;
        EXPECT_FALSE(import(blob, &key));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
    }
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Key Block Not Implemented yet"));
}

TEST_F(ImportTest, OtherBlobTypesAreUnsupported) {
    for (BYTE type : {0, 2, 3, 9, 12}) {
        std::vector<unsigned char> blob = blobHeader(type, CALG_RSA_KEYX);
        blob.resize(32, 0x11);
        HCRYPTKEY key = 0;
        EXPECT_FALSE(import(blob, &key));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
        EXPECT_TRUE(
            testsupport::logHasLine("ERROR", "CPImportKey - Unsupported type : " + std::to_string(type)));
    }
}

TEST_F(ImportTest, BlobShorterThanItsHeaderFailsCleanly) {
    std::vector<unsigned char> blob = bytesOf({PUBLICKEYBLOB, 2, 0});
    HCRYPTKEY key = 0;
    EXPECT_FALSE(import(blob, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_INVALID_PARAMETER));
    EXPECT_EQ(key, 0u);
}

// --- PUBLICKEYBLOB ----------------------------------------------------------------------------

TEST_F(ImportTest, PublicKeyBlobBecomesADerKeyInMemoryOnly) {
    std::vector<unsigned char> modulusBE = counting(256, 0x80);
    std::vector<unsigned char> blob = publicKeyBlob(2048, reversed(modulusBE));
    HCRYPTKEY handle = 0;
    ASSERT_TRUE(import(blob, &handle));
    const KEY_HANDLE* key = keyHandleFrom(handle);
    Utils utils;
    Bytes expected = buildRsaSubjectPublicKeyInfo(utils.bytesToHex(modulusBE.data(), 256), "010001");
    ASSERT_EQ(key->publicKeyLength, static_cast<int32_t>(expected.size()));
    EXPECT_EQ(Bytes(key->publicKey, key->publicKey + key->publicKeyLength), expected);
    EXPECT_EQ(key->inMemory, 1);
    EXPECT_EQ(key->sizeCode, 2);
    EXPECT_EQ(key->keyIdLength, 16);
    EXPECT_EQ(key->symmetricKeyLength, 0);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Public exponent : 010001"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "PUBLICKEYBLOB imported successfully"));
    EXPECT_TRUE(fake::calls().empty()) << "nothing is written to the token";
}

TEST_F(ImportTest, PublicKeyBlobDerIsWhatWindowsMakesOfTheSameKey) {
    WineRsaKey wine(2048);
    ASSERT_TRUE(wine.ok());
    std::vector<unsigned char> blob = wine.publicKeyBlob();
    HCRYPTKEY handle = 0;
    ASSERT_TRUE(import(blob, &handle));
    const KEY_HANDLE* key = keyHandleFrom(handle);
    std::vector<unsigned char> roundTrip =
        wineBlobFromSubjectPublicKeyInfo(key->publicKey, key->publicKeyLength);
    ASSERT_EQ(roundTrip.size(), blob.size());
    EXPECT_EQ(std::vector<unsigned char>(roundTrip.begin() + 8, roundTrip.end()),
              std::vector<unsigned char>(blob.begin() + 8, blob.end()))
        << "RSAPUBKEY and modulus survive DER encoding and Windows' decoding";
}

TEST_F(ImportTest, PublicKeyBlobKeepsAnUnusualExponent) {
    std::vector<unsigned char> modulusBE = counting(128, 0x40);
    std::vector<unsigned char> blob = publicKeyBlob(1024, reversed(modulusBE), 3);
    HCRYPTKEY handle = 0;
    ASSERT_TRUE(import(blob, &handle));
    const KEY_HANDLE* key = keyHandleFrom(handle);
    Utils utils;
    Bytes expected = buildRsaSubjectPublicKeyInfo(utils.bytesToHex(modulusBE.data(), 128), "03");
    EXPECT_EQ(Bytes(key->publicKey, key->publicKey + key->publicKeyLength), expected);
    EXPECT_EQ(key->sizeCode, 1);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Public exponent : 03"));
}

TEST_F(ImportTest, PublicKeyBlobOf4096BitsFitsTheKeyObject) {
    std::vector<unsigned char> modulusBE = counting(512, 0xC0);
    HCRYPTKEY handle = 0;
    ASSERT_TRUE(import(publicKeyBlob(4096, reversed(modulusBE)), &handle));
    const KEY_HANDLE* key = keyHandleFrom(handle);
    EXPECT_EQ(key->sizeCode, 4);
    Utils utils;
    Bytes expected = buildRsaSubjectPublicKeyInfo(utils.bytesToHex(modulusBE.data(), 512), "010001");
    EXPECT_EQ(Bytes(key->publicKey, key->publicKey + key->publicKeyLength), expected);
}

TEST_F(ImportTest, PublicKeyBlobWithPrivateKeyMagicFailsWithBadData) {
    std::vector<unsigned char> blob = publicKeyBlob(2048, counting(256, 1), 65537, 0x32415352);
    HCRYPTKEY key = 0;
    EXPECT_FALSE(import(blob, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_DATA));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPImportKey PUBLICKEYBLOB: magic mismatch, actual=0x32415352"));
}

TEST_F(ImportTest, MagicIsPrintedInLowerCaseWithoutLeadingZeros) {
    std::vector<unsigned char> blob = publicKeyBlob(2048, counting(256, 1), 65537, 0x00ABCDEF);
    HCRYPTKEY key = 0;
    EXPECT_FALSE(import(blob, &key));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPImportKey PUBLICKEYBLOB: magic mismatch, actual=0xabcdef"));
}

TEST_F(ImportTest, PublicKeyBlobShorterThanItsModulusFailsWithBadData) {
    std::vector<unsigned char> blob = publicKeyBlob(2048, counting(255, 1));
    HCRYPTKEY key = 0;
    EXPECT_FALSE(import(blob, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_DATA));
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "CPImportKey PUBLICKEYBLOB: size mismatch, cbDataLen=275 required=276"));
}

TEST_F(ImportTest, PublicKeyBlobOf1536BitsIsAnUnsupportedSize) {
    std::vector<unsigned char> blob = publicKeyBlob(1536, counting(192, 1));
    HCRYPTKEY key = 0x77;
    EXPECT_FALSE(import(blob, &key));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_DATA));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Unsupported RSA key size"));
    EXPECT_EQ(key, 0x77u) << "the handle is not touched";
}

// --- SIMPLEBLOB ---------------------------------------------------------------------------------

class SimpleBlobTest : public ImportTest {
protected:
    void SetUp() override {
        ImportTest::SetUp();
        fake::addKeyPair("SN1", fake::makeKeyPair(kExchangeId, 2, CALYTH_KEY_RSA_2048));
        context_.containerName = kExchangeId;
        unwrapKey_ = userKey(AT_KEYEXCHANGE);
        storeValidatedPin("SN1", "1234");
        fake::clearCalls();
    }
    HCRYPTKEY unwrapKey_ = 0;
};

TEST_F(SimpleBlobTest, SessionKeyIsUnwrappedBigEndianOnTheToken) {
    std::vector<unsigned char> session = counting(32, 0x10);
    // What the token decrypts (big-endian) must give the session key.
    std::vector<unsigned char> tokenCipher(session);
    for (unsigned char& b : tokenCipher)
        b ^= fake::kRsaFakeMask;
    HCRYPTKEY handle = 0;
    ASSERT_TRUE(import(simpleBlob(CALG_AES_256, reversed(tokenCipher)), &handle, unwrapKey_));
    auto calls = fake::callsTo("calyth_decrypt");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, "SN1");
    EXPECT_EQ(calls[0].args,
              (std::vector<std::string>{kExchangeId, "1234", fake::hex(tokenCipher), "32", "true"}));

    const KEY_HANDLE* key = keyHandleFrom(handle);
    ASSERT_EQ(key->symmetricKeyLength, 32);
    EXPECT_EQ(std::vector<unsigned char>(key->symmetricKey, key->symmetricKey + 32), session);
    EXPECT_EQ(key->algId, 10u);
    EXPECT_EQ(key->inMemory, 1);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", std::string("Input key id : ") + kExchangeId));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Output key id : 00000000000000000000000000000000"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "SIMPLEBLOB imported successfully (AES)"));
    EXPECT_FALSE(testsupport::logHasLine("ERROR", "SIMPLEBLOB decryption failed"));
    EXPECT_EQ(fake::countCalls("calyth_importAesKey"), 0u) << "the session key stays off the token";
}

TEST_F(SimpleBlobTest, TokenAnsweringSuccessWithoutABlockGivesNoKeyMaterial) {
    // A length without a block must not be read: the key object gets no material at all.
    fake::hooks().decrypt = [](const char*, const unsigned char*, const char*, const unsigned char*, int,
                               unsigned char** output, int* outputLength, bool) {
        *output = nullptr;
        *outputLength = 32;
        return 0;
    };
    HCRYPTKEY handle = 0;
    ASSERT_TRUE(import(simpleBlob(CALG_AES_256, counting(32, 1)), &handle, unwrapKey_));
    EXPECT_EQ(keyHandleFrom(handle)->symmetricKeyLength, 0);
}

TEST_F(SimpleBlobTest, SessionKeyThatOnlyDecryptsLittleEndianStillImports) {
    std::vector<unsigned char> encryptedLE = counting(256, 1);
    std::vector<unsigned char> session = counting(16, 0x61);
    fake::hooks().decrypt = [&](const char*, const unsigned char*, const char*, const unsigned char* data,
                                int length, unsigned char** output, int* outputLength, bool) {
        if (std::vector<unsigned char>(data, data + length) != encryptedLE)
            return 17;
        *output = mallocCopy(session);
        *outputLength = static_cast<int>(session.size());
        return 0;
    };
    HCRYPTKEY handle = 0;
    ASSERT_TRUE(import(simpleBlob(CALG_AES_128, encryptedLE), &handle, unwrapKey_));
    auto calls = fake::callsTo("calyth_decrypt");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].args[2], fake::hex(reversed(encryptedLE)));
    EXPECT_EQ(calls[1].args[2], fake::hex(encryptedLE));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "SIMPLEBLOB decryption failed"));
    const KEY_HANDLE* key = keyHandleFrom(handle);
    EXPECT_EQ(std::vector<unsigned char>(key->symmetricKey, key->symmetricKey + key->symmetricKeyLength),
              session);
    EXPECT_EQ(key->algId, 8u);
}

TEST_F(SimpleBlobTest, SessionKeyThatDecryptsInNeitherOrderFailsWithNteFail) {
    fake::failNext("calyth_decrypt", 3, 2);
    HCRYPTKEY handle = 0;
    EXPECT_FALSE(import(simpleBlob(CALG_AES_128, counting(256, 1)), &handle, unwrapKey_));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "SIMPLEBLOB decryption failed (both orderings)"));
    EXPECT_EQ(fake::countCalls("calyth_decrypt"), 2u);
}

TEST_F(SimpleBlobTest, TripleDesSessionKeyIsType11) {
    HCRYPTKEY handle = 0;
    ASSERT_TRUE(import(simpleBlob(CALG_3DES, counting(24, 1)), &handle, unwrapKey_));
    EXPECT_EQ(keyHandleFrom(handle)->algId, 11u);
    EXPECT_EQ(keyHandleFrom(handle)->symmetricKeyLength, 24);
}

TEST_F(SimpleBlobTest, Aes192SessionKeyIsRejectedAfterDecryption) {
    HCRYPTKEY handle = 0;
    EXPECT_FALSE(import(simpleBlob(CALG_AES_192, counting(24, 1)), &handle, unwrapKey_));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_ALGID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Unsupported algorithm for SIMPLEBLOB: 26127"));
    EXPECT_EQ(fake::countCalls("calyth_decrypt"), 1u);
}

TEST_F(SimpleBlobTest, UnwrappingNeedsAKeyHandle) {
    HCRYPTKEY handle = 0;
    EXPECT_FALSE(import(simpleBlob(CALG_AES_128, counting(256, 1)), &handle, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "SIMPLEBLOB requires public key handle"));
    EXPECT_EQ(fake::countCalls("calyth_decrypt"), 0u);
}

TEST_F(SimpleBlobTest, WithoutAValidatedPinTheTokenGetsAnEmptyPin) {
    clearValidatedPin("SN1");
    HCRYPTKEY handle = 0;
    ASSERT_TRUE(import(simpleBlob(CALG_AES_128, counting(16, 1)), &handle, unwrapKey_));
    auto calls = fake::callsTo("calyth_decrypt");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].args[1], "");
    EXPECT_EQ(fake::countCalls("calyth_getTokenInfo"), 0u) << "no PIN check on this path";
}

// --- PLAINTEXTKEYBLOB --------------------------------------------------------------------------

TEST_F(ImportTest, PlainTextAesKeyIsStoredOnTheToken) {
    storeValidatedPin("SN1", "1234");
    std::vector<unsigned char> aes = counting(16, 0x30);
    HCRYPTKEY handle = 0;
    ASSERT_TRUE(import(plainTextBlob(CALG_AES_128, aes), &handle));
    auto calls = fake::callsTo("calyth_importAesKey");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, "SN1");
    EXPECT_EQ(calls[0].args, (std::vector<std::string>{"1234", fake::hex(aes), "16", "8"}));

    ASSERT_EQ(fake::token("SN1").aesKeys.size(), 1u);
    const CalythSymmetricKey& stored = fake::token("SN1").aesKeys[0];
    const KEY_HANDLE* key = keyHandleFrom(handle);
    EXPECT_EQ(std::memcmp(key->keyId, stored.keyId, 16), 0) << "the token's identifier";
    EXPECT_EQ(key->keyIdLength, 16);
    EXPECT_STREQ(key->label, stored.label);
    EXPECT_EQ(key->tokenFlag, stored.tokenFlag);
    EXPECT_EQ(key->algId, static_cast<uint32_t>(CALG_AES_128));
    EXPECT_EQ(key->symmetricKeyLength, 16);
    EXPECT_EQ(std::vector<unsigned char>(key->symmetricKey, key->symmetricKey + 16), aes);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "PLAINTEXTKEYBLOB imported successfully (AES)"));
}

TEST_F(ImportTest, PlainTextAes256KeyIsType10) {
    HCRYPTKEY handle = 0;
    ASSERT_TRUE(import(plainTextBlob(CALG_AES_256, counting(32, 0x30)), &handle));
    auto calls = fake::callsTo("calyth_importAesKey");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].args[0], "") << "no PIN held: empty text";
    EXPECT_EQ(calls[0].args[3], "10");
    EXPECT_EQ(keyHandleFrom(handle)->algId, static_cast<uint32_t>(CALG_AES_256));
}

TEST_F(ImportTest, PlainTextAes192KeyFailsWithBadAlgid) {
    HCRYPTKEY handle = 0;
    EXPECT_FALSE(import(plainTextBlob(CALG_AES_192, counting(24, 1)), &handle));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_ALGID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Unsupported algorithm for PLAINTEXTKEYBLOB: 26127"));
    EXPECT_EQ(fake::countCalls("calyth_importAesKey"), 0u);
}

TEST_F(ImportTest, PlainTextKeyRefusedByTheTokenFailsWithBadType) {
    fake::failNext("calyth_importAesKey", 4);
    HCRYPTKEY handle = 0;
    EXPECT_FALSE(import(plainTextBlob(CALG_AES_128, counting(16, 1)), &handle));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "PLAINTEXTKEYBLOB import failed"));
    EXPECT_EQ(handle, 0u);
}

// --- SYMMETRICWRAPKEYBLOB ----------------------------------------------------------------------

CalythSymmetricKey tokenAesKey(unsigned char idByte, int32_t type, unsigned char tokenFlag) {
    CalythSymmetricKey key{};
    std::memset(key.keyId, idByte, sizeof key.keyId);
    key.type = type;
    key.tokenFlag = tokenFlag;
    return key;
}

std::vector<unsigned char> wrapBlob(ALG_ID algorithm, const std::vector<unsigned char>& wrapped) {
    std::vector<unsigned char> blob = blobHeader(SYMMETRICWRAPKEYBLOB, algorithm);
    blob.insert(blob.end(), wrapped.begin(), wrapped.end());
    put32(&blob, 0xEEEEEEEE);  // the last four bytes never reach the token
    return blob;
}

TEST_F(ImportTest, WrappedKeyIsUnwrappedByTheFirstAesKeyThatCan) {
    storeValidatedPin("SN1", "1234");
    fake::token("SN1").aesKeys = {tokenAesKey(0x0D, CALYTH_SYMMETRIC_3DES, 1),
                                  tokenAesKey(0xA1, CALYTH_SYMMETRIC_AES_128, 0),
                                  tokenAesKey(0xA2, CALYTH_SYMMETRIC_AES_256, 1)};
    fake::failNext("calyth_decrypt_aes", 6);                  // the AES-128 key cannot unwrap it
    std::vector<unsigned char> wrapped = counting(24, 0x70);  // 8-byte check block + 16-byte key
    HCRYPTKEY handle = 0;
    ASSERT_TRUE(import(wrapBlob(CALG_AES_128, wrapped), &handle));

    auto unwraps = fake::callsTo("calyth_decrypt_aes");
    ASSERT_EQ(unwraps.size(), 2u) << "the triple-DES key is skipped";
    EXPECT_EQ(unwraps[0].args, (std::vector<std::string>{"A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1", "16",
                                                         fake::hex(wrapped), "24", "false", "null", "0"}));
    EXPECT_EQ(unwraps[1].args[0], "A2A2A2A2A2A2A2A2A2A2A2A2A2A2A2A2");
    EXPECT_EQ(unwraps[1].args[4], "true");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "SYMMETRICWRAPKEYBLOB: wrapped key length = 24"));
    EXPECT_TRUE(testsupport::logHasLine(
        "DEBUG", "Successfully unwrapped key with KEK: A2A2A2A2A2A2A2A2A2A2A2A2A2A2A2A2"));

    std::vector<unsigned char> unwrapped(wrapped.begin() + 8, wrapped.end());
    auto imports = fake::callsTo("calyth_importAesKey");
    ASSERT_EQ(imports.size(), 1u);
    EXPECT_EQ(imports[0].args, (std::vector<std::string>{"1234", fake::hex(unwrapped), "16", "8"}));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "SYMMETRICWRAPKEYBLOB imported successfully"));
    EXPECT_EQ(keyHandleFrom(handle)->algId, static_cast<uint32_t>(CALG_AES_128));
}

TEST_F(ImportTest, WrappedKeyOfAnyOtherAlgorithmIsStoredAsAes256) {
    fake::token("SN1").aesKeys = {tokenAesKey(0xA2, CALYTH_SYMMETRIC_AES_256, 1)};
    HCRYPTKEY handle = 0;
    ASSERT_TRUE(import(wrapBlob(CALG_AES_192, counting(40, 1)), &handle));
    auto imports = fake::callsTo("calyth_importAesKey");
    ASSERT_EQ(imports.size(), 1u);
    EXPECT_EQ(imports[0].args[3], "10");
}

TEST_F(ImportTest, WrappedKeyThatNoKeyUnwrapsFailsWithBadKey) {
    fake::token("SN1").aesKeys = {tokenAesKey(0x0D, CALYTH_SYMMETRIC_3DES, 1),
                                  tokenAesKey(0xA1, CALYTH_SYMMETRIC_AES_128, 0)};
    fake::failNext("calyth_decrypt_aes", 6);
    HCRYPTKEY handle = 0;
    EXPECT_FALSE(import(wrapBlob(CALG_AES_128, counting(24, 1)), &handle));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "Failed to unwrap SYMMETRICWRAPKEYBLOB with any available KEK"));
    EXPECT_EQ(fake::countCalls("calyth_importAesKey"), 0u);
}

TEST_F(ImportTest, WrappedKeyWithoutAnyTokenAesKeyFailsWithBadKey) {
    HCRYPTKEY handle = 0;
    EXPECT_FALSE(import(wrapBlob(CALG_AES_128, counting(24, 1)), &handle));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_EQ(fake::countCalls("calyth_decrypt_aes"), 0u);
}

TEST_F(ImportTest, UnwrappedKeyRefusedByTheTokenFailsWithBadType) {
    fake::token("SN1").aesKeys = {tokenAesKey(0xA1, CALYTH_SYMMETRIC_AES_128, 0)};
    fake::failNext("calyth_importAesKey", 2);
    HCRYPTKEY handle = 0;
    EXPECT_FALSE(import(wrapBlob(CALG_AES_128, counting(24, 1)), &handle));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Import of unwrapped AES key failed"));
}

}  // namespace
