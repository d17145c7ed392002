// Mutated inputs through the real CryptoAPI exports, reached through advapi32 as an application
// reaches them: CryptImportKey with the four blob types and garbage, CryptSetKeyParam KP_CERTIFICATE
// with mutated certificates, CryptGetProvParam and CryptSetProvParam with odd lengths and flags.
// Pass: no crash (a fault in the fenced caller buffers included) and private memory that does not
// grow with the number of inputs.
#include <windows.h>

#include <wincrypt.h>

#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "support/fenced_buffer.h"
#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/test_support.h"
#include "support/token_tool.h"
#include "system/fuzz_wine/fuzz_seeds.h"
#include "system/fuzz_wine/mutator.h"
#include "system/fuzz_wine/run_loop.h"

namespace fuzzwine {
namespace {

using testsupport::FencedBuffer;

constexpr const char* kSerial = "FUZZ1";
constexpr const char* kPin = "1234";

class CapiFuzz : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        installCrashReport();
        ASSERT_EQ(testsupport::registerProvider(), ERROR_SUCCESS);
        tokenFile_ = new std::string(testsupport::useFreshTokenStore("fuzz") + "\\" + kSerial + ".token");
        ASSERT_TRUE(testsupport::makeToken(kSerial, std::string("--pin ") + kPin));
        keyId_ = new std::string(testsupport::makeKey(kSerial, "rsa2048", "--usage both --label fuzz"));
        ASSERT_EQ(keyId_->size(), 32u);
    }
    static void TearDownTestSuite() {
        delete keyId_;
        keyId_ = nullptr;
        delete tokenFile_;
        tokenFile_ = nullptr;
    }

    void SetUp() override { ASSERT_TRUE(testsupport::acquire(provider, keyId_->c_str(), CRYPT_SILENT)); }

    static std::string* keyId_;
    static std::string* tokenFile_;
    testsupport::Provider provider;
    FencedBuffer fence;
};

std::string* CapiFuzz::keyId_ = nullptr;
std::string* CapiFuzz::tokenFile_ = nullptr;

// The token file as one snapshot, put back whenever an input changed it: every certificate that
// an input stores is gone before the next input, so that each input meets the same token (a lone
// replay of iteration i sees what the long run saw) and the token does not grow with the run (it
// reached 20 MB after 40,000 inputs, every call slower than the one before).
class TokenSnapshot {
public:
    explicit TokenSnapshot(const std::string& path) : path_(path), bytes_(testsupport::readFile(path)) {
        stamp_ = lastWrite();
    }
    void restoreIfChanged() {
        if (lastWrite() == stamp_)
            return;
        testsupport::writeFile(path_, bytes_);
        stamp_ = lastWrite();
    }

private:
    unsigned long long lastWrite() const {
        WIN32_FILE_ATTRIBUTE_DATA data{};
        if (!GetFileAttributesExA(path_.c_str(), GetFileExInfoStandard, &data))
            return 0;
        return (static_cast<unsigned long long>(data.ftLastWriteTime.dwHighDateTime) << 32 |
                data.ftLastWriteTime.dwLowDateTime) ^
               (static_cast<unsigned long long>(data.nFileSizeLow) << 1);
    }
    std::string path_;
    Bytes bytes_;
    unsigned long long stamp_ = 0;
};

TEST_F(CapiFuzz, CryptImportKey) {
    HCRYPTKEY exchangeKey = 0;
    ASSERT_TRUE(CryptGetUserKey(provider.handle, AT_KEYEXCHANGE, &exchangeKey));
    const Bytes seeds[] = {capiPublicKeyBlob(), capiSimpleBlob(), capiPlainTextKeyBlob(),
                           capiSymmetricWrapKeyBlob(), Bytes()};
    runEntryPoint("CryptImportKey", 1, [&](Random& random) {
        Bytes blob = mutate(seeds[random.below(5)], random);
        if (blob.empty())
            return;  // advapi32 refuses a zero length before the provider sees it
        HCRYPTKEY key = 0;
        HCRYPTKEY unwrapKey = random.chance(80) ? exchangeKey : 0;
        DWORD flags = random.chance(80) ? 0 : random.interesting32();
        if (CryptImportKey(provider.handle, fence.place(blob), static_cast<DWORD>(blob.size()), unwrapKey,
                           flags, &key))
            CryptDestroyKey(key);
    });
    CryptDestroyKey(exchangeKey);
}

TEST_F(CapiFuzz, CryptSetKeyParamCertificate) {
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CryptGetUserKey(provider.handle, AT_KEYEXCHANGE, &key));
    // Logged in, so that certificates go on to the chain import and the token.
    ASSERT_TRUE(
        CryptSetProvParam(provider.handle, PP_KEYEXCHANGE_PIN, reinterpret_cast<const BYTE*>(kPin), 0));
    const Bytes seed = testCertificate();
    TokenSnapshot token(*tokenFile_);
    ASSERT_FALSE(testsupport::readFile(*tokenFile_).empty());
    runEntryPoint("CryptSetKeyParamCertificate", 2, [&](Random& random) {
        Bytes certificate = mutate(seed, random);
        // The parameter has no length: the caller's buffer holds the header and what it announces.
        if (certificate.size() < 5)
            certificate.resize(5, 0);
        size_t announced = announcedLength(certificate);
        if (announced > certificate.size() && announced <= 64 * 1024)
            certificate.resize(announced, 0);
        CryptSetKeyParam(key, KP_CERTIFICATE, fence.place(certificate), 0);
        token.restoreIfChanged();
    });
    CryptDestroyKey(key);
}

TEST_F(CapiFuzz, CryptGetProvParam) {
    runEntryPoint("CryptGetProvParam", 3, [&](Random& random) {
        DWORD param = random.chance(80) ? random.below(48) : random.interesting32();
        DWORD flags = random.chance(50) ? 0 : random.chance(50) ? random.below(5) : random.interesting32();
        DWORD length =
            std::min<DWORD>(random.chance(50) ? random.below(300) : random.interesting32(), 64 * 1024);
        BYTE* data = random.chance(20) ? nullptr : fence.room(length);
        CryptGetProvParam(provider.handle, param, data, &length, flags);
    });
}

TEST_F(CapiFuzz, CryptSetProvParam) {
    runEntryPoint("CryptSetProvParam", 4, [&](Random& random) {
        DWORD param = random.chance(80) ? random.below(48) : random.interesting32();
        if (param == PP_KEYEXCHANGE_PIN || param == PP_SIGNATURE_PIN || param == PP_ADMIN_PIN)
            param = PP_USE_HARDWARE_RNG;  // a wrong PIN would count down the token's retries
        DWORD flags = random.chance(50) ? 0 : random.interesting32();
        // Fixed-size values (a DWORD, a window handle) and NUL-terminated text: at least 8 bytes.
        Bytes value(8 + random.below(56));
        for (unsigned char& b : value)
            b = static_cast<unsigned char>(random.next());
        value.back() = 0;
        CryptSetProvParam(provider.handle, param, random.chance(10) ? nullptr : fence.place(value), flags);
    });
}

}  // namespace
}  // namespace fuzzwine
