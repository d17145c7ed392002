#include "cng_support.h"

#include <windows.h>

#include <bcrypt.h>

#include "support/test_support.h"
#include "util/utils.h"

namespace cngtest {

void CngSystemTest::SetUp() {
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    testsupport::useFreshTokenStore(std::string(test->test_suite_name()) + "-" + test->name());
    ASSERT_TRUE(testsupport::makeToken(kSerial, std::string("--pin ") + kPin));
    ASSERT_TRUE(client.loaded());
}

void CngSystemTest::TearDown() {
    if (provider_) {
        EXPECT_EQ(client.freeProvider(provider_), 0);
    }
    provider_ = 0;
}

NCRYPT_PROV_HANDLE CngSystemTest::provider() {
    if (provider_)
        return provider_;
    SECURITY_STATUS status = client.openProvider(&provider_);
    EXPECT_EQ(status, 0) << std::hex << status;
    if (status != 0)
        return 0;
    status = client.setPin(provider_, kPin);
    EXPECT_EQ(status, 0) << "SmartCardPin: " << std::hex << status;
    return provider_;
}

NCRYPT_KEY_HANDLE CngSystemTest::openKey(const std::string& keyId) {
    NCRYPT_KEY_HANDLE key = 0;
    SECURITY_STATUS status = client.openKey(provider(), &key, wide(keyId));
    EXPECT_EQ(status, 0) << "OpenKey(" << keyId << "): " << std::hex << status;
    return status == 0 ? key : 0;
}

void CngSystemTest::freeKey(NCRYPT_KEY_HANDLE key) {
    if (key) {
        EXPECT_EQ(client.freeKey(provider(), key), 0);
    }
}

namespace {

std::string keyIdPrinted(int code, const std::string& output) {
    std::string id = Utils().trim(output);
    EXPECT_EQ(code, 0) << output;
    EXPECT_EQ(id.size(), 32u) << output;
    return code == 0 && id.size() == 32 ? id : std::string();
}

}  // namespace

std::string tokenKey(const std::string& type, const std::string& usage) {
    std::string output;
    int code = testsupport::calythToken(
        "genkey --serial " + std::string(kSerial) + " --type " + type + " --usage " + usage, &output);
    return keyIdPrinted(code, output);
}

std::string importKey(const std::string& keyFile, const std::string& usage) {
    std::string output;
    int code = testsupport::calythToken(
        "import-key --serial " + std::string(kSerial) + " --usage " + usage + " --in \"" + keyFile + "\"",
        &output);
    return keyIdPrinted(code, output);
}

std::string opensslKey(const std::string& fileName, const std::string& genpkeyArguments) {
    std::string output;
    std::string path = testsupport::tempPath(fileName);
    int code = testsupport::runOpenSsl("genpkey " + genpkeyArguments + " -out " + testsupport::unixPath(path),
                                       &output);
    EXPECT_EQ(code, 0) << output;
    return path;
}

Bytes nativeHash(const wchar_t* algorithm, const Bytes& data) {
    BCRYPT_ALG_HANDLE provider = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    DWORD length = 0, written = 0;
    Bytes digest;
    if (BCryptOpenAlgorithmProvider(&provider, algorithm, nullptr, 0) == 0 &&
        BCryptGetProperty(provider, BCRYPT_HASH_LENGTH, reinterpret_cast<PUCHAR>(&length), sizeof length,
                          &written, 0) == 0 &&
        BCryptCreateHash(provider, &hash, nullptr, 0, nullptr, 0, 0) == 0 &&
        BCryptHashData(hash, const_cast<PUCHAR>(data.data()), static_cast<ULONG>(data.size()), 0) == 0) {
        digest.assign(length, 0);
        if (BCryptFinishHash(hash, digest.data(), length, 0) != 0)
            digest.clear();
    }
    if (hash)
        BCryptDestroyHash(hash);
    if (provider)
        BCryptCloseAlgorithmProvider(provider, 0);
    EXPECT_FALSE(digest.empty()) << "BCrypt " << narrow(algorithm);
    return digest;
}

std::string unixTemp(const std::string& fileName) {
    return testsupport::unixPath(testsupport::tempPath(fileName));
}

bool opensslVerifies(const std::string& publicKeyPem, const std::string& hash, const Bytes& message,
                     const Bytes& signature, const std::string& options) {
    testsupport::writeTemp("message.bin", message);
    testsupport::writeTemp("signature.bin", signature);
    std::string output;
    testsupport::runOpenSsl("dgst -" + hash + " " + options + " -verify " +
                                testsupport::unixPath(publicKeyPem) + " -signature " +
                                unixTemp("signature.bin") + " " + unixTemp("message.bin"),
                            &output);
    bool verified = output.find("Verified OK") != std::string::npos;
    if (!verified)
        ADD_FAILURE() << "openssl dgst -" << hash << " " << options << ": " << output;
    return verified;
}

}  // namespace cngtest
