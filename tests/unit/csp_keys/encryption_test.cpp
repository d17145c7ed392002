// CPEncrypt and CPDecrypt: size rules, AES types, RSA byte order, padding and the single-sign-on
// retry.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "csp_keys_fixture.h"
#include "token/process_state.h"
#include "token/token_table.h"
#include "util/encoding.h"
#include "util/utils.h"
#include "wine_rsa.h"

using namespace keystest;

namespace {

// The token's RSA encryption as the provider calls it: it fills whatever room the output has and
// reports the ciphertext length (the provider starts the length at 0).
void encryptLikeTheToken() {
    fake::hooks().encrypt = [](EncryptionType, PaddingMode, const unsigned char* data, int dataLength,
                               unsigned char* output, int* outputLength, const unsigned char*, int) {
        for (int i = 0; i < dataLength; ++i)
            output[i] = data[i] ^ fake::kRsaFakeMask;
        *outputLength = dataLength;
        return 0;
    };
}

class EncryptTest : public KeysTest {
protected:
    void SetUp() override {
        KeysTest::SetUp();
        fake::addKeyPair("SN1", fake::makeKeyPair(kExchangeId, 2, CALYTH_KEY_RSA_2048));
        context_.containerName = kExchangeId;
        rsaKey_ = userKey(AT_KEYEXCHANGE);
        fake::clearCalls();
        encryptLikeTheToken();
    }
    KEY_HANDLE* aesKey(size_t keyLength) {
        KEY_HANDLE* key = newKey();
        std::vector<unsigned char> material = counting(keyLength, 0x41);
        std::memcpy(key->symmetricKey, material.data(), keyLength);
        key->symmetricKeyLength = static_cast<int32_t>(keyLength);
        key->bits = static_cast<uint32_t>(keyLength * 8);
        key->algId = CALG_AES_128;
        return key;
    }
    HCRYPTKEY rsaKey_ = 0;
};

TEST_F(EncryptTest, SizeQueryAnswersTheKeyBitsOverEight) {
    DWORD length = 5;
    EXPECT_TRUE(CPEncrypt(prov(), rsaKey_, 0, TRUE, 0, nullptr, &length, 0));
    EXPECT_EQ(length, 256u);
    KEY_HANDLE* aes = aesKey(16);
    length = 5;
    EXPECT_TRUE(CPEncrypt(prov(), handleOf(aes), 0, TRUE, 0, nullptr, &length, 0));
    EXPECT_EQ(length, 16u);
    aes->bits = 256;
    EXPECT_TRUE(CPEncrypt(prov(), handleOf(aes), 0, TRUE, 0, nullptr, &length, 0));
    EXPECT_EQ(length, 32u) << "the size follows bits, also for a symmetric key";
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(EncryptTest, BufferOneByteShortFailsWithMoreDataBeforeAnyDeviceCall) {
    std::vector<unsigned char> buffer(255, 0x11);
    DWORD length = 10;
    EXPECT_FALSE(CPEncrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length, 255));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(length, 256u);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPEncrypt: buffer too small, cbBufLen=255 requiredSize=256"));
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(EncryptTest, ZeroDataLengthFailsWithBadLen) {
    std::vector<unsigned char> buffer(256);
    DWORD length = 0;
    EXPECT_FALSE(CPEncrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length, 256));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_LEN));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Invalid data length for encrypt: 0"));
}

TEST_F(EncryptTest, ArgumentChecksInOrder) {
    std::vector<unsigned char> buffer(256);
    DWORD length = 4;
    EXPECT_FALSE(CPEncrypt(0, 0, 0, TRUE, 0, buffer.data(), nullptr, 256));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPEncrypt: pcbDataLen is null"));
    EXPECT_FALSE(CPEncrypt(0, rsaKey_, 0, TRUE, 0, buffer.data(), &length, 256));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPEncrypt: context is null or not initialized"));
    EXPECT_FALSE(CPEncrypt(prov(), 0, 0, TRUE, 0, buffer.data(), &length, 256));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPEncrypt: key handle is null"));
}

TEST_F(EncryptTest, RsaCiphertextComesBackByteReversed) {
    std::vector<unsigned char> plain = counting(20, 1);
    std::vector<unsigned char> buffer(256);
    std::copy(plain.begin(), plain.end(), buffer.begin());
    DWORD length = 20;
    ASSERT_TRUE(CPEncrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length, 256));
    ASSERT_EQ(length, 20u);
    std::vector<unsigned char> tokenCipher(plain);
    for (unsigned char& b : tokenCipher)
        b ^= fake::kRsaFakeMask;
    EXPECT_EQ(std::vector<unsigned char>(buffer.begin(), buffer.begin() + 20), reversed(tokenCipher));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPEncrypt - return success"));
}

TEST_F(EncryptTest, RsaRawModulusIsWrappedAsDerWithExponent65537) {
    std::vector<unsigned char> buffer(256, 0x33);
    DWORD length = 16;
    ASSERT_TRUE(CPEncrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length, 256));
    const KEY_HANDLE* key = keyHandleFrom(rsaKey_);
    Utils utils;
    Bytes der = buildRsaSubjectPublicKeyInfo(utils.bytesToHex(key->publicKey, 256), "010001");
    auto calls = fake::callsTo("calyth_encrypt");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].args, (std::vector<std::string>{"8", "1", std::string(32, '3'), "16", "0",
                                                       fake::hex(der), std::to_string(der.size())}))
        << "type 8, PKCS #1, the data, output length starting at 0, the DER key";
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CSP: Public key is raw modulus, converting to DER"));
}

TEST_F(EncryptTest, RsaDerPublicKeyIsPassedAsItStands) {
    KEY_HANDLE* key = keyHandleFrom(rsaKey_);
    Utils utils;
    Bytes der = buildRsaSubjectPublicKeyInfo(utils.bytesToHex(key->publicKey, 256), "03");
    std::memcpy(key->publicKey, der.data(), der.size());
    key->publicKeyLength = static_cast<int32_t>(der.size());
    std::vector<unsigned char> buffer(256, 0x33);
    DWORD length = 16;
    ASSERT_TRUE(CPEncrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length, 256));
    auto calls = fake::callsTo("calyth_encrypt");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].args[5], fake::hex(der));
    EXPECT_EQ(calls[0].args[0], "8") << "a real key's stored length never matches 1024..4096";
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CSP: Public key is already DER encoded"));
}

TEST_F(EncryptTest, OaepFlagSelectsPaddingFour) {
    std::vector<unsigned char> buffer(256, 0x33);
    DWORD length = 16;
    ASSERT_TRUE(CPEncrypt(prov(), rsaKey_, 0, TRUE, CRYPT_OAEP, buffer.data(), &length, 256));
    length = 16;
    ASSERT_TRUE(CPEncrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length, 256));
    auto calls = fake::callsTo("calyth_encrypt");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].args[1], "4");
    EXPECT_EQ(calls[1].args[1], "1");
}

TEST_F(EncryptTest, EncryptionTypeFollowsTheStoredKeyLengthInBytes) {
    KEY_HANDLE* key = keyHandleFrom(rsaKey_);
    std::vector<unsigned char> buffer(256, 0x33);
    const std::pair<int32_t, std::string> cases[] = {{1024, "7"}, {128, "8"}, {512, "8"}};
    for (const auto& [storedLength, type] : cases) {
        key->publicKeyLength = storedLength;
        fake::clearCalls();
        DWORD length = 16;
        ASSERT_TRUE(CPEncrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length, 256));
        auto calls = fake::callsTo("calyth_encrypt");
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].args[0], type) << storedLength;
    }
}

TEST_F(EncryptTest, RsaDeviceFailureBecomesProviderDllFail) {
    fake::failNext("calyth_encrypt", 3);
    std::vector<unsigned char> buffer(256, 0x33);
    DWORD length = 16;
    EXPECT_FALSE(CPEncrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length, 256));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Encrypt data failed: 3"));
}

TEST_F(EncryptTest, RsaEncryptionNeedsNoPin) {
    context_.silent = true;
    std::vector<unsigned char> buffer(256, 0x33);
    DWORD length = 16;
    EXPECT_TRUE(CPEncrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length, 256));
    EXPECT_EQ(fake::countCalls("calyth_getTokenInfo"), 0u);
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 0u);
}

TEST_F(EncryptTest, WindowsDecryptsTheCiphertext) {
    WineRsaKey wine(2048);
    ASSERT_TRUE(wine.ok());
    // The token encrypts with the Windows key and answers big-endian, as a token does.
    fake::hooks().encrypt = [&](EncryptionType, PaddingMode padding, const unsigned char* data,
                                int dataLength, unsigned char* output, int* outputLength,
                                const unsigned char*, int) {
        std::vector<unsigned char> cipher =
            wine.encrypt(std::vector<unsigned char>(data, data + dataLength), padding == PADDING_OAEP);
        if (cipher.empty())
            return 1;
        std::reverse_copy(cipher.begin(), cipher.end(), output);
        *outputLength = static_cast<int>(cipher.size());
        return 0;
    };
    for (DWORD flags : {0ul, static_cast<DWORD>(CRYPT_OAEP)}) {
        std::vector<unsigned char> plain = counting(32, 0x20);
        std::vector<unsigned char> buffer(plain);
        buffer.resize(256);
        DWORD length = 32;
        ASSERT_TRUE(CPEncrypt(prov(), rsaKey_, 0, TRUE, flags, buffer.data(), &length, 256));
        ASSERT_EQ(length, 256u);
        EXPECT_EQ(wine.decrypt(buffer, flags == CRYPT_OAEP), plain) << "flags " << flags;
    }
}

// --- AES encryption -----------------------------------------------------------------------------

TEST_F(EncryptTest, AesTypeFollowsKeyLengthAndTheIv) {
    const std::tuple<size_t, bool, std::string> cases[] = {{16, true, "1"}, {16, false, "5"},
                                                           {24, true, "2"}, {24, false, "6"},
                                                           {32, true, "2"}, {32, false, "6"}};
    for (const auto& [keyLength, withIv, type] : cases) {
        if (withIv)
            setProcessIv(counting(16, 0x90));
        else
            clearProcessIv();
        KEY_HANDLE* key = aesKey(keyLength);
        fake::clearCalls();
        std::vector<unsigned char> buffer(64, 0x01);
        DWORD length = 10;
        ASSERT_TRUE(CPEncrypt(prov(), handleOf(key), 0, TRUE, 0, buffer.data(), &length, 64)) << keyLength;
        auto calls = fake::callsTo("calyth_encrypt_aes");
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].args[0], type) << keyLength << (withIv ? " with IV" : " without IV");
        EXPECT_EQ(calls[0].args[6], withIv ? fake::hex(counting(16, 0x90)) : "null");
        EXPECT_EQ(calls[0].args[7], withIv ? "16" : "0");
    }
}

TEST_F(EncryptTest, AesCallCarriesKeyDataAndNoTokenFlag) {
    setProcessIv(counting(16, 0x90));
    KEY_HANDLE* key = aesKey(24);
    std::vector<unsigned char> plain = counting(10, 0x70);
    std::vector<unsigned char> buffer(plain);
    buffer.resize(64);
    DWORD length = 10;
    ASSERT_TRUE(CPEncrypt(prov(), handleOf(key), 0, TRUE, 0, buffer.data(), &length, 64));
    auto calls = fake::callsTo("calyth_encrypt_aes");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, "SN1");
    EXPECT_EQ(calls[0].args,
              (std::vector<std::string>{"2", fake::hex(counting(24, 0x41)), "24", fake::hex(plain), "10",
                                        "false", fake::hex(counting(16, 0x90)), "16", "null", "0"}));
    // The fake's "cipher" is data XOR key.
    ASSERT_EQ(length, 10u);
    for (size_t i = 0; i < 10; ++i)
        EXPECT_EQ(buffer[i], static_cast<unsigned char>(plain[i] ^ (0x41 + i))) << i;
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPEncrypt: symmetric encryption, keyLen=24"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPEncrypt: symmetric encryption success, length=10"));
}

TEST_F(EncryptTest, AesKeyOfTwentyBytesFailsWithBadKey) {
    KEY_HANDLE* key = aesKey(20);
    std::vector<unsigned char> buffer(64);
    DWORD length = 10;
    EXPECT_FALSE(CPEncrypt(prov(), handleOf(key), 0, TRUE, 0, buffer.data(), &length, 64));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPEncrypt: unsupported symmetric key length: 20"));
    EXPECT_EQ(fake::countCalls("calyth_encrypt_aes"), 0u);
}

TEST_F(EncryptTest, AesOutputLongerThanTheBufferFailsWithMoreData) {
    KEY_HANDLE* key = aesKey(16);
    std::vector<unsigned char> buffer(20, 0x01);
    DWORD length = 20;
    EXPECT_FALSE(CPEncrypt(prov(), handleOf(key), 0, TRUE, 0, buffer.data(), &length, 18));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(length, 20u);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPEncrypt: symmetric output buffer too small, required=20"));
    EXPECT_EQ(buffer, std::vector<unsigned char>(20, 0x01)) << "nothing is written";
}

TEST_F(EncryptTest, AesDeviceFailureBecomesProviderDllFail) {
    KEY_HANDLE* key = aesKey(32);
    fake::failNext("calyth_encrypt_aes", 12);
    std::vector<unsigned char> buffer(64);
    DWORD length = 10;
    EXPECT_FALSE(CPEncrypt(prov(), handleOf(key), 0, TRUE, 0, buffer.data(), &length, 64));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPEncrypt: symmetric encryption failed: 12"));
}

// --- RSA decryption -----------------------------------------------------------------------------

class DecryptTest : public EncryptTest {
protected:
    void SetUp() override {
        EncryptTest::SetUp();
        storeValidatedPin("SN1", "1234");
    }
    // A 256-byte ciphertext in CryptoAPI order whose big-endian form the fake token decrypts to
    // `plain` followed by nothing: the fake XORs every byte, so the plaintext has the full length.
    std::vector<unsigned char> cipherFor(const std::vector<unsigned char>& plain) {
        std::vector<unsigned char> tokenCipher(plain);
        for (unsigned char& b : tokenCipher)
            b ^= fake::kRsaFakeMask;
        return reversed(tokenCipher);
    }
};

TEST_F(DecryptTest, InputIsReversedForTheTokenAndThePlaintextIsNot) {
    std::vector<unsigned char> plain = counting(48, 0x10);
    std::vector<unsigned char> buffer = cipherFor(plain);
    DWORD length = static_cast<DWORD>(buffer.size());
    ASSERT_TRUE(CPDecrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length));
    ASSERT_EQ(length, 48u);
    EXPECT_EQ(buffer, plain);
    auto calls = fake::callsTo("calyth_decrypt");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, "SN1");
    std::vector<unsigned char> tokenCipher = reversed(cipherFor(plain));
    EXPECT_EQ(calls[0].args,
              (std::vector<std::string>{kExchangeId, "1234", fake::hex(tokenCipher), "48", "true"}));
    for (const char* line : {"Before reversing encrypted data", "After reversing encrypted data",
                             "Before decrypting data", "After decrypting data", "CPDecrypt- return"})
        EXPECT_TRUE(testsupport::logHasLine("DEBUG", line)) << line;
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPDecrypt - dwFlags : 0"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", std::string("CPDecrypt - key id : ") + kExchangeId));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPDecrypt - usage : 2"));
}

TEST_F(DecryptTest, ShorterPlaintextSetsTheLength) {
    std::vector<unsigned char> buffer = counting(256, 1);
    std::vector<unsigned char> plain = counting(16, 0xE0);
    fake::hooks().decrypt = [&](const char*, const unsigned char*, const char*, const unsigned char*, int,
                                unsigned char** output, int* outputLength, bool) {
        *output = mallocCopy(plain);
        *outputLength = 16;
        return 0;
    };
    DWORD length = 256;
    ASSERT_TRUE(CPDecrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length));
    EXPECT_EQ(length, 16u);
    EXPECT_EQ(std::vector<unsigned char>(buffer.begin(), buffer.begin() + 16), plain);
}

TEST_F(DecryptTest, DecryptsWhatWindowsEncrypted) {
    WineRsaKey wine(2048);
    ASSERT_TRUE(wine.ok());
    // The token decrypts big-endian input with the Windows key.
    fake::hooks().decrypt = [&](const char*, const unsigned char*, const char*, const unsigned char* data,
                                int length, unsigned char** output, int* outputLength, bool) {
        std::vector<unsigned char> littleEndian(data, data + length);
        std::reverse(littleEndian.begin(), littleEndian.end());
        std::vector<unsigned char> plain = wine.decrypt(littleEndian);
        if (plain.empty())
            return 1;
        *output = mallocCopy(plain);
        *outputLength = static_cast<int>(plain.size());
        return 0;
    };
    std::vector<unsigned char> plain = counting(24, 0x55);
    std::vector<unsigned char> buffer = wine.encrypt(plain);
    ASSERT_EQ(buffer.size(), 256u);
    DWORD length = 256;
    ASSERT_TRUE(CPDecrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length));
    ASSERT_EQ(length, 24u);
    EXPECT_EQ(std::vector<unsigned char>(buffer.begin(), buffer.begin() + 24), plain);
}

TEST_F(DecryptTest, SingleSignOnExpiryAsksForThePinOnceAndRetriesOnce) {
    fake::setSingleSignOn("SN1", true);
    fake::failNext("calyth_decrypt", 49);
    std::vector<unsigned char> plain = counting(32, 0x10);
    std::vector<unsigned char> buffer = cipherFor(plain);
    DWORD length = 32;
    ASSERT_TRUE(CPDecrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length));
    EXPECT_EQ(buffer, plain);
    auto calls = fake::callsTo("calyth_decrypt");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].args[1], "1234");
    EXPECT_EQ(calls[1].args[1], "") << "the held PIN was forgotten; single sign-on stores an empty one";
    EXPECT_EQ(calls[0].args[2], calls[1].args[2]) << "the same reversed ciphertext";
    EXPECT_EQ(fake::countCalls("calyth_getTokenInfo"), 1u) << "one new PIN check";
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPDecrypt: SSO expired, re-prompting for PIN"));
}

TEST_F(DecryptTest, SecondSingleSignOnExpiryIsAFailure) {
    fake::setSingleSignOn("SN1", true);
    fake::failNext("calyth_decrypt", 49, 2);
    std::vector<unsigned char> buffer = counting(32, 1);
    DWORD length = 32;
    EXPECT_FALSE(CPDecrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    EXPECT_EQ(fake::countCalls("calyth_decrypt"), 2u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Decrypt data failed : 49"));
    EXPECT_EQ(length, 32u);
}

TEST_F(DecryptTest, FailedPinCheckAfterExpiryEndsTheDecryption) {
    context_.silent = true;
    fake::failNext("calyth_decrypt", 49);
    std::vector<unsigned char> buffer = counting(32, 1);
    DWORD length = 32;
    EXPECT_FALSE(CPDecrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_SILENT_CONTEXT)) << "the PIN check's error stands";
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPDecrypt: ensurePasswordValidated failed after SSO expiry"));
    EXPECT_EQ(fake::countCalls("calyth_decrypt"), 1u);
    EXPECT_FALSE(isPinValidated("SN1"));
}

TEST_F(DecryptTest, MissingPinInASilentContextFailsBeforeTheToken) {
    clearValidatedPin("SN1");
    context_.silent = true;
    std::vector<unsigned char> buffer = counting(32, 1);
    DWORD length = 32;
    EXPECT_FALSE(CPDecrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_SILENT_CONTEXT));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPDecrypt: ensurePasswordValidated failed"));
    EXPECT_EQ(fake::countCalls("calyth_decrypt"), 0u);
}

TEST_F(DecryptTest, OtherDeviceFailuresAreNotRetried) {
    fake::failNext("calyth_decrypt", 50);
    std::vector<unsigned char> buffer = counting(32, 1);
    DWORD length = 32;
    EXPECT_FALSE(CPDecrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Decrypt data failed : 50"));
    EXPECT_EQ(fake::countCalls("calyth_decrypt"), 1u);
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "CPDecrypt: SSO expired, re-prompting for PIN"));
}

TEST_F(DecryptTest, ZeroLengthOrMissingDataFailsWithBadData) {
    std::vector<unsigned char> buffer(32);
    DWORD length = 0;
    EXPECT_FALSE(CPDecrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_DATA));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Invalid data length for decrypt : 0"));
    length = 32;
    EXPECT_FALSE(CPDecrypt(prov(), rsaKey_, 0, TRUE, 0, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_DATA));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Invalid data length for decrypt : 32"));
    EXPECT_FALSE(CPDecrypt(prov(), rsaKey_, 0, TRUE, 0, buffer.data(), nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_DATA));
    EXPECT_EQ(fake::countCalls("calyth_decrypt"), 0u);
}

TEST_F(DecryptTest, ContextAndKeyAreChecked) {
    std::vector<unsigned char> buffer(32);
    DWORD length = 32;
    EXPECT_FALSE(CPDecrypt(0, rsaKey_, 0, TRUE, 0, buffer.data(), &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPDecrypt: context is null or not initialized"));
    EXPECT_FALSE(CPDecrypt(prov(), 0, 0, TRUE, 0, buffer.data(), &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPDecrypt: key handle is null"));
}

// --- AES decryption ---------------------------------------------------------------------------

TEST_F(DecryptTest, AesDecryptionUsesTheKeyAndIvWithoutAPinCheck) {
    clearValidatedPin("SN1");
    context_.silent = true;
    setProcessIv(counting(16, 0x90));
    KEY_HANDLE* key = aesKey(16);
    std::vector<unsigned char> cipher = counting(20, 0x30);
    std::vector<unsigned char> buffer(cipher);
    DWORD length = 20;
    ASSERT_TRUE(CPDecrypt(prov(), handleOf(key), 0, TRUE, 0, buffer.data(), &length));
    auto calls = fake::callsTo("calyth_decryptSymetric");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].serial, "SN1");
    EXPECT_EQ(calls[0].args,
              (std::vector<std::string>{fake::hex(cipher), "20", "20", fake::hex(counting(16, 0x90)), "16",
                                        fake::hex(counting(16, 0x41)), "16"}));
    ASSERT_EQ(length, 20u);
    std::vector<unsigned char> expected(20);
    for (size_t i = 0; i < 20; ++i)
        expected[i] = static_cast<unsigned char>(cipher[i] ^ (0x41 + i % 16));
    EXPECT_EQ(buffer, expected);
    EXPECT_EQ(fake::countCalls("calyth_getTokenInfo"), 0u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPDecrypt input iv : " + fake::hex(counting(16, 0x90))));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPDecrypt input key : " + fake::hex(counting(16, 0x41))));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPDecrypt - decrypted data : " + fake::hex(expected)));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPDecrypt- return"));
}

TEST_F(DecryptTest, AesDecryptionWithoutIvPassesNone) {
    KEY_HANDLE* key = aesKey(32);
    std::vector<unsigned char> buffer = counting(16, 1);
    DWORD length = 16;
    ASSERT_TRUE(CPDecrypt(prov(), handleOf(key), 0, TRUE, 0, buffer.data(), &length));
    auto calls = fake::callsTo("calyth_decryptSymetric");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].args[3], "null");
    EXPECT_EQ(calls[0].args[4], "0");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPDecrypt input iv : "));
}

TEST_F(DecryptTest, AesDeviceFailureBecomesProviderDllFail) {
    KEY_HANDLE* key = aesKey(16);
    fake::failNext("calyth_decryptSymetric", 4);
    std::vector<unsigned char> buffer = counting(16, 1);
    DWORD length = 16;
    EXPECT_FALSE(CPDecrypt(prov(), handleOf(key), 0, TRUE, 0, buffer.data(), &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Symetric decryption failed : 4"));
}

TEST_F(DecryptTest, ImportedAesKeyEncryptsAndDecryptsThroughTheToken) {
    // PLAINTEXTKEYBLOB → key object → CPEncrypt → CPDecrypt gives the data back.
    std::vector<unsigned char> blob{PLAINTEXTKEYBLOB, CUR_BLOB_VERSION, 0, 0, 0x0E, 0x66, 0, 0, 16, 0, 0, 0};
    std::vector<unsigned char> material = counting(16, 0xB0);
    blob.insert(blob.end(), material.begin(), material.end());
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CPImportKey(prov(), blob.data(), static_cast<DWORD>(blob.size()), 0, 0, &key));
    keep(key);
    std::vector<unsigned char> plain = counting(16, 0x01);
    std::vector<unsigned char> buffer(plain);
    buffer.resize(32);
    DWORD length = 16;
    ASSERT_TRUE(CPEncrypt(prov(), key, 0, TRUE, 0, buffer.data(), &length, 32));
    ASSERT_TRUE(CPDecrypt(prov(), key, 0, TRUE, 0, buffer.data(), &length));
    ASSERT_EQ(length, 16u);
    EXPECT_EQ(std::vector<unsigned char>(buffer.begin(), buffer.begin() + 16), plain);
    EXPECT_EQ(fake::callsTo("calyth_encrypt_aes")[0].args[1], fake::hex(material));
}

}  // namespace
