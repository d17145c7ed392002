// KSPEncrypt: argument checks, AES keys through calyth_encrypt_aes (type, IV, library-allocated
// output) and RSA keys through calyth_encrypt (type, padding, DER public key, a device block that
// is never the caller's buffer).
#include <windows.h>

#include <ncrypt.h>

#include <gtest/gtest.h>

#include "crypto_test_support.h"
#include "support/guarded_buffer.h"
#include "token/process_state.h"
#include "util/encoding.h"

namespace ksptest {
namespace {

using testsupport::GuardedBuffer;

std::vector<unsigned char> keyBytes(size_t length) {
    std::vector<unsigned char> key(length);
    for (size_t i = 0; i < length; ++i)
        key[i] = static_cast<unsigned char>(0x40 + i);
    return key;
}

std::vector<unsigned char> xorWith(const std::vector<unsigned char>& data,
                                   const std::vector<unsigned char>& key) {
    std::vector<unsigned char> out(data);
    for (size_t i = 0; i < out.size(); ++i)
        out[i] ^= key[i % key.size()];
    return out;
}

class Encrypt : public KspTest {
protected:
    void SetUp() override {
        KspTest::SetUp();
        makeProvider();
        rsaKey = makeKey(kRsaExchangeId);
    }

    NCRYPT_KEY_HANDLE aesKey(size_t length, uint32_t chaining) {
        NCRYPT_KEY_HANDLE handle = makeEmptyKey();
        KspKey* key = kspKeyFrom(handle);
        aes = keyBytes(length);
        std::copy(aes.begin(), aes.end(), key->symmetricKey);
        key->symmetricKeyLength = static_cast<uint32_t>(length);
        key->chainingMode = chaining;
        return handle;
    }
    SECURITY_STATUS encrypt(NCRYPT_KEY_HANDLE key, GuardedBuffer& buffer, DWORD flags = 0) {
        return KSPEncrypt(provider_, key, input.data(), static_cast<DWORD>(input.size()), nullptr,
                          buffer.data(), buffer.size(), &result, flags);
    }
    SECURITY_STATUS sizeQuery(NCRYPT_KEY_HANDLE key) {
        return KSPEncrypt(provider_, key, input.data(), static_cast<DWORD>(input.size()), nullptr, nullptr, 0,
                          &result, 0);
    }
    fake::Call onlyCall(const char* function) {
        auto calls = fake::callsTo(function);
        EXPECT_EQ(calls.size(), 1u) << function;
        return calls.empty() ? fake::Call{} : calls[0];
    }

    NCRYPT_KEY_HANDLE rsaKey = 0;
    std::vector<unsigned char> aes;
    std::vector<unsigned char> input = testDigest(40);
    DWORD result = kUnsetResult;
};

TEST_F(Encrypt, LogsItsNameFirst) {
    sizeQuery(rsaKey);
    ASSERT_FALSE(testsupport::logMessagesAt("DEBUG").empty());
    EXPECT_EQ(testsupport::logMessagesAt("DEBUG").front(), "KSPEncrypt");
}

TEST_F(Encrypt, NullOrUninitialisedProviderIsAnInvalidHandle) {
    EXPECT_EQ(KSPEncrypt(0, rsaKey, input.data(), 40, nullptr, nullptr, 0, &result, 0),
              KSP_NTE_INVALID_HANDLE);
    provider()->initialized = 0;
    EXPECT_EQ(sizeQuery(rsaKey), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPEncrypt: provider handle is null or not initialized"));
}

TEST_F(Encrypt, NullKeyOrResultIsAnInvalidParameter) {
    EXPECT_EQ(sizeQuery(0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPEncrypt(provider_, rsaKey, input.data(), 40, nullptr, nullptr, 0, nullptr, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPEncrypt: key handle or pcbResult is null"));
}

TEST_F(Encrypt, MissingInputIsAnInvalidParameterEvenForASizeQuery) {
    EXPECT_EQ(KSPEncrypt(provider_, rsaKey, nullptr, 40, nullptr, nullptr, 0, &result, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPEncrypt(provider_, rsaKey, input.data(), 0, nullptr, nullptr, 0, &result, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPEncrypt: pbInput is null or cbInput is zero"));
    EXPECT_EQ(result, kUnsetResult);
}

// Symmetric keys.

TEST_F(Encrypt, TwentyFourByteKeyInCbcAsksForTypeTwoWithTheSharedIv) {
    setProcessIv(keyBytes(16));
    NCRYPT_KEY_HANDLE key = aesKey(24, KSP_CHAINING_CBC);
    GuardedBuffer buffer(64);
    EXPECT_EQ(encrypt(key, buffer), KSP_SUCCESS);
    fake::Call call = onlyCall("calyth_encrypt_aes");
    EXPECT_EQ(call.serial, "SN1");
    EXPECT_EQ(call.args, (std::vector<std::string>{"2", fake::hex(aes), "24", fake::hex(input), "40", "false",
                                                   fake::hex(processIv()), "16", "null", "0"}));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Symmetric encrypt CBC mode"));
}

TEST_F(Encrypt, SixteenByteKeyInCbcIsTypeOne) {
    GuardedBuffer buffer(64);
    EXPECT_EQ(encrypt(aesKey(16, KSP_CHAINING_CBC), buffer), KSP_SUCCESS);
    EXPECT_EQ(onlyCall("calyth_encrypt_aes").args[0], "1");
}

TEST_F(Encrypt, EcbPassesNoIv) {
    setProcessIv(keyBytes(16));
    GuardedBuffer buffer(64);
    EXPECT_EQ(encrypt(aesKey(16, KSP_CHAINING_ECB), buffer), KSP_SUCCESS);
    EXPECT_EQ(encrypt(aesKey(32, KSP_CHAINING_ECB), buffer), KSP_SUCCESS);
    auto calls = fake::callsTo("calyth_encrypt_aes");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].args[0], "5");
    EXPECT_EQ(calls[1].args[0], "6");
    for (const fake::Call& call : calls) {
        EXPECT_EQ(call.args[6], "null");
        EXPECT_EQ(call.args[7], "0");
    }
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Symmetric encrypt ECB mode"));
}

TEST_F(Encrypt, SymmetricOutputIsCopiedAndReported) {
    NCRYPT_KEY_HANDLE key = aesKey(32, KSP_CHAINING_CBC);
    GuardedBuffer buffer(40);
    EXPECT_EQ(encrypt(key, buffer), KSP_SUCCESS);
    EXPECT_EQ(result, 40u);
    EXPECT_EQ(buffer.written(40), xorWith(input, aes));
    EXPECT_TRUE(buffer.guardIntact());
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Symmetric encrypt success, length: 40"));
}

TEST_F(Encrypt, SymmetricSizeQueryRunsTheEncryption) {
    EXPECT_EQ(sizeQuery(aesKey(16, KSP_CHAINING_CBC)), KSP_SUCCESS);
    EXPECT_EQ(result, 40u);
    EXPECT_EQ(fake::countCalls("calyth_encrypt_aes"), 1u);
}

TEST_F(Encrypt, ShortSymmetricBufferReportsTheLength) {
    GuardedBuffer buffer(39);
    EXPECT_EQ(encrypt(aesKey(16, KSP_CHAINING_CBC), buffer), KSP_NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, 40u);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "KSPEncrypt: symmetric output buffer too small, required=40"));
    EXPECT_TRUE(buffer.untouched());
}

TEST_F(Encrypt, SymmetricDeviceFailureIsAnInternalError) {
    fake::failNext("calyth_encrypt_aes", 3);
    GuardedBuffer buffer(64);
    EXPECT_EQ(encrypt(aesKey(16, KSP_CHAINING_CBC), buffer), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Symmetric encryption failed: 3"));
    EXPECT_EQ(result, kUnsetResult);
    EXPECT_TRUE(buffer.untouched());
}

TEST_F(Encrypt, ProviderWithoutTokenPassesAnEmptySerial) {
    provider()->serial.clear();
    GuardedBuffer buffer(64);
    EXPECT_EQ(encrypt(aesKey(16, KSP_CHAINING_CBC), buffer), KSP_SUCCESS);
    EXPECT_EQ(onlyCall("calyth_encrypt_aes").serial, "");
}

TEST_F(Encrypt, OverlongSymmetricLengthIsBoundedByTheKeyObject) {
    NCRYPT_KEY_HANDLE key = aesKey(32, KSP_CHAINING_CBC);
    kspKeyFrom(key)->symmetricKeyLength = 400;
    GuardedBuffer buffer(64);
    EXPECT_EQ(encrypt(key, buffer), KSP_SUCCESS);
    fake::Call call = onlyCall("calyth_encrypt_aes");
    EXPECT_EQ(call.args[0], "2");
    EXPECT_EQ(call.args[2], "32");
}

TEST_F(Encrypt, SymmetricEncryptionAsksNoPassword) {
    GuardedBuffer buffer(64);
    EXPECT_EQ(encrypt(aesKey(16, KSP_CHAINING_CBC), buffer, NCRYPT_SILENT_FLAG), KSP_SUCCESS);
    EXPECT_EQ(fake::callNames(), std::vector<std::string>{"calyth_encrypt_aes"});
}

// RSA keys.

TEST_F(Encrypt, RsaSizeQueryIsTheModulusLength) {
    EXPECT_EQ(sizeQuery(rsaKey), KSP_SUCCESS);
    EXPECT_EQ(result, 256u);
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Encrypt, ShortRsaBufferReportsTheModulusLength) {
    GuardedBuffer buffer(255);
    EXPECT_EQ(encrypt(rsaKey, buffer), KSP_NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, 256u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPEncrypt: output buffer too small, required=256"));
    EXPECT_TRUE(buffer.untouched());
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Encrypt, RsaEncryptsWithTheWrappedPublicKey) {
    const KspKey* key = kspKeyFrom(rsaKey);
    Bytes der = derPublicKeyFromStored(key->publicKey, static_cast<int>(key->publicKeyLength));
    GuardedBuffer buffer(256);
    EXPECT_EQ(encrypt(rsaKey, buffer), KSP_SUCCESS);
    fake::Call call = onlyCall("calyth_encrypt");
    EXPECT_EQ(call.args, (std::vector<std::string>{"8", "1", fake::hex(input), "40", "0", fake::hex(der),
                                                   std::to_string(der.size())}));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Public key is raw modulus, converting to DER"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Encrypt success"));
    // The fake's "ciphertext" is the input masked, as long as the input.
    EXPECT_EQ(result, 40u);
    std::vector<unsigned char> expected(input);
    for (unsigned char& b : expected)
        b ^= fake::kRsaFakeMask;
    EXPECT_EQ(buffer.written(40), expected);
    EXPECT_TRUE(buffer.guardIntact());
}

TEST_F(Encrypt, RsaEncryptionAsksNoPassword) {
    GuardedBuffer buffer(256);
    EXPECT_EQ(encrypt(rsaKey, buffer, NCRYPT_SILENT_FLAG), KSP_SUCCESS);
    EXPECT_EQ(fake::callNames(), std::vector<std::string>{"calyth_encrypt"});
}

TEST_F(Encrypt, StoredDerIsPassedUnchanged) {
    KspKey* key = kspKeyFrom(rsaKey);
    std::vector<unsigned char> der = {0x30, 0x06, 0x02, 0x01, 0x05, 0x02, 0x01, 0x03};
    std::copy(der.begin(), der.end(), key->publicKey);
    key->publicKeyLength = static_cast<uint32_t>(der.size());
    GuardedBuffer buffer(256);
    EXPECT_EQ(encrypt(rsaKey, buffer), KSP_SUCCESS);
    EXPECT_EQ(onlyCall("calyth_encrypt").args[5], fake::hex(der));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Public key is already DER encoded"));
}

TEST_F(Encrypt, EmptyPublicKeyCountsAsDer) {
    kspKeyFrom(rsaKey)->publicKeyLength = 0;
    GuardedBuffer buffer(256);
    encrypt(rsaKey, buffer);
    EXPECT_EQ(onlyCall("calyth_encrypt").args[6], "0");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Public key is already DER encoded"));
}

TEST_F(Encrypt, OaepFlagSelectsOaepPadding) {
    GuardedBuffer buffer(256);
    EXPECT_EQ(encrypt(rsaKey, buffer, NCRYPT_PAD_OAEP_FLAG), KSP_SUCCESS);
    EXPECT_EQ(encrypt(rsaKey, buffer, BCRYPT_PAD_PKCS1), KSP_SUCCESS);
    auto calls = fake::callsTo("calyth_encrypt");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].args[1], "4");
    EXPECT_EQ(calls[1].args[1], "1");
}

TEST_F(Encrypt, TypeFollowsTheKeyLength) {
    const std::vector<std::pair<uint32_t, std::string>> cases = {{1024, "7"},  {2048, "8"}, {3072, "9"},
                                                                 {4096, "10"}, {1536, "8"}, {0, "8"}};
    for (const auto& [bits, type] : cases) {
        fake::clearCalls();
        kspKeyFrom(rsaKey)->bits = bits;
        GuardedBuffer buffer(512);
        EXPECT_EQ(encrypt(rsaKey, buffer), KSP_SUCCESS) << bits;
        EXPECT_EQ(onlyCall("calyth_encrypt").args[0], type) << bits;
    }
}

TEST_F(Encrypt, UnusualLengthNeeds192Bytes) {
    kspKeyFrom(rsaKey)->bits = 1536;
    EXPECT_EQ(sizeQuery(rsaKey), KSP_SUCCESS);
    EXPECT_EQ(result, 192u);
    GuardedBuffer small(191);
    EXPECT_EQ(encrypt(rsaKey, small), KSP_NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, 192u);
    GuardedBuffer buffer(192);
    EXPECT_EQ(encrypt(rsaKey, buffer), KSP_SUCCESS);
    EXPECT_EQ(onlyCall("calyth_encrypt").args[0], "8");
}

TEST_F(Encrypt, RsaDeviceFailureIsAnInternalError) {
    fake::failNext("calyth_encrypt", 5);
    GuardedBuffer buffer(256);
    EXPECT_EQ(encrypt(rsaKey, buffer), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Encrypt failed: 5"));
    EXPECT_TRUE(buffer.untouched());
    EXPECT_EQ(result, kUnsetResult);
}

// The device writes one whole modulus of the real key: a key object claiming 1024 bits over a
// 4096-bit key gets a 512-byte ciphertext, which must land in the provider's block, not the caller's.
TEST_F(Encrypt, WholeModulusLongerThanTheCallerBufferIsNotCopied) {
    fake::hooks().encrypt = [](EncryptionType, PaddingMode, const unsigned char*, int, unsigned char* output,
                               int* outputLength, const unsigned char*, int) {
        std::fill(output, output + 512, 0x5A);
        *outputLength = 512;
        return 0;
    };
    kspKeyFrom(rsaKey)->bits = 1024;
    GuardedBuffer buffer(128);
    EXPECT_EQ(encrypt(rsaKey, buffer), KSP_NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, 512u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPEncrypt: output buffer too small, required=512"));
    EXPECT_TRUE(buffer.untouched());

    GuardedBuffer large(512);
    EXPECT_EQ(encrypt(rsaKey, large), KSP_SUCCESS);
    EXPECT_EQ(result, 512u);
    EXPECT_EQ(large.written(512), std::vector<unsigned char>(512, 0x5A));
    EXPECT_TRUE(large.guardIntact());
}

TEST_F(Encrypt, DeviceLengthBeyondItsBlockIsAnInternalError) {
    fake::hooks().encrypt = [](EncryptionType, PaddingMode, const unsigned char*, int, unsigned char*,
                               int* outputLength, const unsigned char*, int) {
        *outputLength = 513;
        return 0;
    };
    GuardedBuffer buffer(1024);
    EXPECT_EQ(encrypt(rsaKey, buffer), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Encrypt failed: ciphertext length 513"));
    EXPECT_TRUE(buffer.untouched());
}

TEST_F(Encrypt, NegativeDeviceLengthIsAnInternalError) {
    fake::hooks().encrypt = [](EncryptionType, PaddingMode, const unsigned char*, int, unsigned char*,
                               int* outputLength, const unsigned char*, int) {
        *outputLength = -1;
        return 0;
    };
    GuardedBuffer buffer(256);
    EXPECT_EQ(encrypt(rsaKey, buffer), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Encrypt failed: ciphertext length -1"));
    EXPECT_TRUE(buffer.untouched());
}

}  // namespace
}  // namespace ksptest
