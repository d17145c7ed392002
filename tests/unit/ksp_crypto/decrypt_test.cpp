// KSPDecrypt: argument checks, the RSA size query before the input check, RSA decryption on the token
// behind the PIN gate with the single-sign-on retry, and AES decryption into a block of cbInput bytes.
#include <windows.h>

#include <ncrypt.h>

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>

#include "crypto_test_support.h"
#include "support/guarded_buffer.h"
#include "token/process_state.h"
#include "token/token_table.h"

namespace ksptest {
namespace {

using testsupport::GuardedBuffer;

std::vector<unsigned char> masked(const std::vector<unsigned char>& data) {
    std::vector<unsigned char> out(data);
    for (unsigned char& b : out)
        b ^= fake::kRsaFakeMask;
    return out;
}

unsigned char* mallocCopy(const std::vector<unsigned char>& bytes) {
    auto* block = static_cast<unsigned char*>(std::malloc(bytes.empty() ? 1 : bytes.size()));
    if (!bytes.empty())
        std::memcpy(block, bytes.data(), bytes.size());
    return block;
}

class Decrypt : public KspTest {
protected:
    void SetUp() override {
        KspTest::SetUp();
        makeProvider();
        rsaKey = makeKey(kRsaExchangeId);
    }

    NCRYPT_KEY_HANDLE aesKey(size_t length, uint32_t chaining) {
        NCRYPT_KEY_HANDLE handle = makeEmptyKey();
        KspKey* key = kspKeyFrom(handle);
        aes.resize(length);
        for (size_t i = 0; i < length; ++i)
            aes[i] = static_cast<unsigned char>(0x60 + i);
        std::copy(aes.begin(), aes.end(), key->symmetricKey);
        key->symmetricKeyLength = static_cast<uint32_t>(length);
        key->chainingMode = chaining;
        return handle;
    }
    SECURITY_STATUS decrypt(NCRYPT_KEY_HANDLE key, GuardedBuffer& buffer, DWORD flags = 0) {
        return KSPDecrypt(provider_, key, input.data(), static_cast<DWORD>(input.size()), nullptr,
                          buffer.data(), buffer.size(), &result, flags);
    }
    fake::Call onlyCall(const char* function) {
        auto calls = fake::callsTo(function);
        EXPECT_EQ(calls.size(), 1u) << function;
        return calls.empty() ? fake::Call{} : calls[0];
    }
    // The fake token answers with a plaintext of `length` bytes of 0x33.
    void plaintextOfLength(int length) {
        fake::hooks().decrypt = [length](const char*, const unsigned char*, const char*, const unsigned char*,
                                         int, unsigned char** output, int* outputLength, bool) {
            *output = mallocCopy(std::vector<unsigned char>(length > 0 ? length : 0, 0x33));
            *outputLength = length;
            return 0;
        };
    }

    NCRYPT_KEY_HANDLE rsaKey = 0;
    std::vector<unsigned char> aes;
    std::vector<unsigned char> input = testDigest(48);
    DWORD result = kUnsetResult;
};

TEST_F(Decrypt, LogsItsNameFirst) {
    KSPDecrypt(provider_, rsaKey, nullptr, 0, nullptr, nullptr, 0, &result, 0);
    ASSERT_FALSE(testsupport::logMessagesAt("DEBUG").empty());
    EXPECT_EQ(testsupport::logMessagesAt("DEBUG").front(), "KSPDecrypt");
}

TEST_F(Decrypt, NullOrUninitialisedProviderIsAnInvalidHandle) {
    GuardedBuffer buffer(256);
    EXPECT_EQ(KSPDecrypt(0, rsaKey, input.data(), 48, nullptr, buffer.data(), 256, &result, 0),
              KSP_NTE_INVALID_HANDLE);
    provider()->initialized = 0;
    EXPECT_EQ(decrypt(rsaKey, buffer), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPDecrypt: provider handle is null or not initialized"));
}

TEST_F(Decrypt, NullKeyOrResultIsAnInvalidParameter) {
    GuardedBuffer buffer(256);
    EXPECT_EQ(decrypt(0, buffer), KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPDecrypt(provider_, rsaKey, input.data(), 48, nullptr, buffer.data(), 256, nullptr, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPDecrypt: key handle or pcbResult is null"));
}

TEST_F(Decrypt, RsaSizeQuerySucceedsBeforeTheInputIsLookedAt) {
    EXPECT_EQ(KSPDecrypt(provider_, rsaKey, nullptr, 0, nullptr, nullptr, 0, &result, 0), KSP_SUCCESS);
    EXPECT_EQ(result, 256u);
    EXPECT_TRUE(fake::calls().empty());
    EXPECT_TRUE(testsupport::logMessagesAt("ERROR").empty());
}

TEST_F(Decrypt, MissingInputIsAnInvalidParameter) {
    GuardedBuffer buffer(256);
    EXPECT_EQ(KSPDecrypt(provider_, rsaKey, nullptr, 48, nullptr, buffer.data(), 256, &result, 0),
              KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPDecrypt(provider_, rsaKey, input.data(), 0, nullptr, buffer.data(), 256, &result, 0),
              KSP_NTE_INVALID_PARAMETER);
    // A symmetric key has no size of its own: its size query checks the input first.
    EXPECT_EQ(
        KSPDecrypt(provider_, aesKey(16, KSP_CHAINING_CBC), nullptr, 0, nullptr, nullptr, 0, &result, 0),
        KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(3, "KSPDecrypt: pbInput is null or cbInput is zero"));
    EXPECT_EQ(result, kUnsetResult);
    EXPECT_TRUE(buffer.untouched());
}

// RSA keys.

TEST_F(Decrypt, SilentWithoutValidatedPinFailsBeforeTheToken) {
    GuardedBuffer buffer(256);
    EXPECT_EQ(decrypt(rsaKey, buffer, NCRYPT_SILENT_FLAG), KSP_NTE_SILENT_CONTEXT);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPDecrypt: silent mode requested but PIN not validated"));
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Decrypt, FailedPinCheckIsNteFail) {
    GuardedBuffer buffer(256);
    EXPECT_EQ(decrypt(rsaKey, buffer), KSP_NTE_FAIL);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPDecrypt: password validation failed"));
    EXPECT_EQ(fake::countCalls("calyth_decrypt"), 0u);
    EXPECT_TRUE(buffer.untouched());
}

TEST_F(Decrypt, DecryptsOnTheTokenWithTheHeldPin) {
    storeValidatedPin("SN1", "1234");
    GuardedBuffer buffer(256);
    EXPECT_EQ(decrypt(rsaKey, buffer, NCRYPT_SILENT_FLAG | NCRYPT_PAD_OAEP_FLAG), KSP_SUCCESS);
    EXPECT_EQ(result, 48u);
    EXPECT_EQ(buffer.written(48), masked(input));
    EXPECT_TRUE(buffer.guardIntact());
    fake::Call call = onlyCall("calyth_decrypt");
    EXPECT_EQ(call.serial, "SN1");
    EXPECT_EQ(call.args, (std::vector<std::string>{kRsaExchangeId, "1234", fake::hex(input), "48", "true"}));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Decrypt success"));
}

TEST_F(Decrypt, TokenFlagOfTheKeyIsPassed) {
    storeValidatedPin("SN1", "1234");
    kspKeyFrom(rsaKey)->tokenFlag = 0;
    GuardedBuffer buffer(256);
    EXPECT_EQ(decrypt(rsaKey, buffer), KSP_SUCCESS);
    EXPECT_EQ(onlyCall("calyth_decrypt").args[4], "false");
}

TEST_F(Decrypt, RsaDeviceFailureIsAnInternalError) {
    storeValidatedPin("SN1", "1234");
    fake::failNext("calyth_decrypt", 7);
    GuardedBuffer buffer(256);
    EXPECT_EQ(decrypt(rsaKey, buffer), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Decrypt failed: 7"));
    EXPECT_TRUE(buffer.untouched());
    EXPECT_EQ(result, kUnsetResult);
}

TEST_F(Decrypt, ShortBufferReportsThePlaintextLength) {
    storeValidatedPin("SN1", "1234");
    GuardedBuffer buffer(47);
    EXPECT_EQ(decrypt(rsaKey, buffer), KSP_NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, 48u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPDecrypt: output buffer too small, required=48"));
    EXPECT_TRUE(buffer.untouched());
}

TEST_F(Decrypt, PlaintextLongerThanTheCiphertextIsStillBounded) {
    storeValidatedPin("SN1", "1234");
    plaintextOfLength(300);
    GuardedBuffer buffer(256);
    EXPECT_EQ(decrypt(rsaKey, buffer), KSP_NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, 300u);
    EXPECT_TRUE(buffer.untouched());
    GuardedBuffer large(300);
    EXPECT_EQ(decrypt(rsaKey, large), KSP_SUCCESS);
    EXPECT_EQ(large.written(300), std::vector<unsigned char>(300, 0x33));
    EXPECT_TRUE(large.guardIntact());
}

TEST_F(Decrypt, NegativeDeviceLengthGivesAnEmptyPlaintext) {
    storeValidatedPin("SN1", "1234");
    plaintextOfLength(-8);
    GuardedBuffer buffer(256);
    EXPECT_EQ(decrypt(rsaKey, buffer), KSP_SUCCESS);
    EXPECT_EQ(result, 0u);
    EXPECT_TRUE(buffer.untouched());
}

TEST_F(Decrypt, ExpiredSingleSignOnRechecksAndRetriesOnce) {
    storeValidatedPin("SN1", "1234");
    fake::setSingleSignOn("SN1", true);
    int runs = 0;
    fake::hooks().decrypt = [&](const char*, const unsigned char*, const char*, const unsigned char* data,
                                int dataLength, unsigned char** output, int* outputLength, bool) {
        if (++runs == 1) {
            // An expired answer that still hands out a block: it is released before the retry.
            *output = mallocCopy({1, 2, 3});
            *outputLength = 3;
            return CALYTH_SSO_EXPIRED;
        }
        *output = mallocCopy(masked(std::vector<unsigned char>(data, data + dataLength)));
        *outputLength = dataLength;
        return 0;
    };
    GuardedBuffer buffer(256);
    EXPECT_EQ(decrypt(rsaKey, buffer), KSP_SUCCESS);
    EXPECT_EQ(result, 48u);
    EXPECT_EQ(buffer.written(48), masked(input));
    auto calls = fake::callsTo("calyth_decrypt");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].args[1], "1234");
    EXPECT_EQ(calls[1].args[1], "");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Decrypt SSO expired, re-prompting for PIN"));
}

TEST_F(Decrypt, SecondExpiryIsFinal) {
    storeValidatedPin("SN1", "1234");
    fake::setSingleSignOn("SN1", true);
    fake::failNext("calyth_decrypt", CALYTH_SSO_EXPIRED, 2);
    GuardedBuffer buffer(256);
    EXPECT_EQ(decrypt(rsaKey, buffer), KSP_NTE_INTERNAL_ERROR);
    EXPECT_EQ(fake::countCalls("calyth_decrypt"), 2u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Decrypt failed: 49"));
}

TEST_F(Decrypt, FailedRecheckAfterExpiryIsNteFail) {
    storeValidatedPin("SN1", "1234");
    fake::failNext("calyth_decrypt", CALYTH_SSO_EXPIRED);
    GuardedBuffer buffer(256);
    EXPECT_EQ(decrypt(rsaKey, buffer), KSP_NTE_FAIL);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPDecrypt: password validation failed after SSO expiry"));
    EXPECT_EQ(fake::countCalls("calyth_decrypt"), 1u);
    EXPECT_FALSE(isPinValidated("SN1"));
    EXPECT_TRUE(buffer.untouched());
}

// Symmetric keys.

TEST_F(Decrypt, CbcDecryptsWithTheSharedIvIntoARoomOfCbInput) {
    setProcessIv(std::vector<unsigned char>(16, 0x0A));
    NCRYPT_KEY_HANDLE key = aesKey(16, KSP_CHAINING_CBC);
    GuardedBuffer buffer(48);
    EXPECT_EQ(decrypt(key, buffer, NCRYPT_SILENT_FLAG), KSP_SUCCESS);
    fake::Call call = onlyCall("calyth_decryptSymetric");
    EXPECT_EQ(call.serial, "SN1");
    EXPECT_EQ(call.args, (std::vector<std::string>{fake::hex(input), "48", "48", fake::hex(processIv()), "16",
                                                   fake::hex(aes), "16"}));
    std::vector<unsigned char> expected(input);
    for (size_t i = 0; i < expected.size(); ++i)
        expected[i] ^= aes[i % aes.size()];
    EXPECT_EQ(result, 48u);
    EXPECT_EQ(buffer.written(48), expected);
    EXPECT_TRUE(buffer.guardIntact());
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Symmetric decrypt CBC mode"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Decrypt input iv : 0A0A0A0A0A0A0A0A0A0A0A0A0A0A0A0A"));
    EXPECT_TRUE(
        testsupport::logHasLine("DEBUG", "KSP: Decrypt input key : 606162636465666768696A6B6C6D6E6F"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Symmetric decrypt success, length: 48"));
    // No password: the key material is in the key object.
    EXPECT_EQ(fake::callNames(), std::vector<std::string>{"calyth_decryptSymetric"});
}

TEST_F(Decrypt, EcbPassesNoIv) {
    setProcessIv(std::vector<unsigned char>(16, 0x0A));
    GuardedBuffer buffer(48);
    EXPECT_EQ(decrypt(aesKey(32, KSP_CHAINING_ECB), buffer), KSP_SUCCESS);
    fake::Call call = onlyCall("calyth_decryptSymetric");
    EXPECT_EQ(call.args[3], "null");
    EXPECT_EQ(call.args[4], "0");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Symmetric decrypt ECB mode"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Decrypt input iv : "));
}

TEST_F(Decrypt, SymmetricSizeQueryRunsTheDecryption) {
    EXPECT_EQ(KSPDecrypt(provider_, aesKey(16, KSP_CHAINING_CBC), input.data(), 48, nullptr, nullptr, 0,
                         &result, 0),
              KSP_SUCCESS);
    EXPECT_EQ(result, 48u);
    EXPECT_EQ(fake::countCalls("calyth_decryptSymetric"), 1u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "pbOutput == NULL "));
}

TEST_F(Decrypt, ShortSymmetricBufferReportsTheLength) {
    GuardedBuffer buffer(47);
    EXPECT_EQ(decrypt(aesKey(16, KSP_CHAINING_CBC), buffer), KSP_NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, 48u);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "KSPDecrypt: symmetric output buffer too small, required=48"));
    EXPECT_TRUE(buffer.untouched());
}

TEST_F(Decrypt, SymmetricDeviceFailureIsAnInternalError) {
    fake::failNext("calyth_decryptSymetric", 4);
    GuardedBuffer buffer(48);
    EXPECT_EQ(decrypt(aesKey(16, KSP_CHAINING_CBC), buffer), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Symmetric decryption failed: 4"));
    EXPECT_TRUE(buffer.untouched());
    EXPECT_EQ(result, kUnsetResult);
}

TEST_F(Decrypt, OverlongSymmetricLengthIsBoundedByTheKeyObject) {
    NCRYPT_KEY_HANDLE key = aesKey(32, KSP_CHAINING_ECB);
    kspKeyFrom(key)->symmetricKeyLength = 1000;
    GuardedBuffer buffer(48);
    EXPECT_EQ(decrypt(key, buffer), KSP_SUCCESS);
    EXPECT_EQ(onlyCall("calyth_decryptSymetric").args[6], "32");
}

}  // namespace
}  // namespace ksptest
