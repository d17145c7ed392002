#include "support/cng_fixture.h"

#include <bcrypt.h>

#include <algorithm>
#include <cstdio>

#include "ksp/ksp_interface.h"
#include "support/scratch_files.h"
#include "support/test_support.h"
#include "support/token_tool.h"
#include "util/utils.h"

namespace cngtest {

bool makeTokenInFreshStore(const std::string& store, const TokenSetup& token) {
    testsupport::useFreshTokenStore(store);
    return testsupport::makeToken(token.serial, "--pin " + token.pin);
}

std::string generateKey(const std::string& serial, const std::string& type, const std::string& usage) {
    return testsupport::makeKey(serial, type, "--usage " + usage);
}

std::string importKeyFile(const std::string& serial, const std::string& keyFile, const std::string& usage) {
    std::string output;
    int code = testsupport::calythToken(
        "import-key --serial " + serial + " --usage " + usage + " --in \"" + keyFile + "\"", &output);
    std::string id = Utils().trim(output);
    EXPECT_EQ(code, 0) << output;
    EXPECT_EQ(id.size(), 32u) << output;
    return code == 0 && id.size() == 32 ? id : std::string();
}

std::string tokenPublicKey(const std::string& serial, const std::string& keyId) {
    return testsupport::exportPublicKey(serial, keyId, testsupport::tempPath(keyId + ".pem"));
}

bool makeTokenKey(const TokenSetup& token, const std::string& type, const std::string& usage,
                  TokenKey* made) {
    made->serial = token.serial;
    if (!makeTokenInFreshStore(token.serial, token))
        return false;
    made->keyId = generateKey(token.serial, type, usage);
    if (made->keyId.empty())
        return false;
    made->publicPem = tokenPublicKey(token.serial, made->keyId);
    return !made->publicPem.empty();
}

ProviderSession::ProviderSession(CngClient& client, const std::string& pin) : client_(client), pin_(pin) {}

ProviderSession::~ProviderSession() {
    close();
}

SECURITY_STATUS ProviderSession::open() {
    if (provider_ != 0)
        return 0;
    if (!client_.loaded()) {
        ADD_FAILURE() << "the CNG client did not load the provider";
        return KSP_NTE_PROVIDER_DLL_FAIL;
    }
    SECURITY_STATUS status = client_.openProvider(&provider_);
    if (status != 0) {
        provider_ = 0;
        return status;
    }
    return pin_.empty() ? 0 : client_.setPin(provider_, pin_);
}

NCRYPT_PROV_HANDLE ProviderSession::provider() {
    SECURITY_STATUS status = open();
    EXPECT_EQ(status, 0) << "OpenProvider or SmartCardPin: " << hexStatus(status);
    return provider_;
}

SECURITY_STATUS ProviderSession::openKey(const std::string& keyId, NCRYPT_KEY_HANDLE* key) {
    *key = 0;
    SECURITY_STATUS status = open();
    if (status != 0)
        return status;
    status = client_.openKey(provider_, key, wide(keyId));
    if (status != 0)
        *key = 0;
    if (*key != 0)
        keys_.push_back(*key);
    return status;
}

NCRYPT_KEY_HANDLE ProviderSession::openKey(const std::string& keyId) {
    NCRYPT_KEY_HANDLE key = 0;
    SECURITY_STATUS status = openKey(keyId, &key);
    EXPECT_EQ(status, 0) << "OpenKey(" << keyId << "): " << hexStatus(status);
    return key;
}

SECURITY_STATUS ProviderSession::importKey(const wchar_t* blobType, const Bytes& blob, NCRYPT_KEY_HANDLE* key,
                                           NCRYPT_KEY_HANDLE importKey) {
    *key = 0;
    SECURITY_STATUS status = open();
    if (status != 0)
        return status;
    status = client_.importKey(provider_, importKey, blobType, nullptr, key, blob);
    if (status == 0 && *key != 0)
        keys_.push_back(*key);
    return status;
}

SECURITY_STATUS ProviderSession::exportKey(NCRYPT_KEY_HANDLE key, const wchar_t* blobType, Bytes* blob) {
    return client_.exportKey(provider(), key, 0, blobType, nullptr, blob);
}

void ProviderSession::freeKey(NCRYPT_KEY_HANDLE key) {
    if (key == 0)
        return;
    keys_.erase(std::remove(keys_.begin(), keys_.end(), key), keys_.end());
    EXPECT_EQ(client_.freeKey(provider(), key), 0);
}

SECURITY_STATUS ProviderSession::close() {
    SECURITY_STATUS first = 0;
    for (NCRYPT_KEY_HANDLE key : keys_) {
        SECURITY_STATUS status = client_.freeKey(provider_, key);
        first = first != 0 ? first : status;
    }
    keys_.clear();
    if (provider_ != 0) {
        SECURITY_STATUS status = client_.freeProvider(provider_);
        first = first != 0 ? first : status;
    }
    provider_ = 0;
    return first;
}

void CngTokenTest::SetUp() {
    ASSERT_TRUE(makeTokenInFreshStore(testsupport::testFileName(), token));
    ASSERT_TRUE(client.loaded());
}

void CngTokenTest::TearDown() {
    EXPECT_EQ(session_.close(), 0);
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

SECURITY_STATUS signDocument(ProviderSession& session, NCRYPT_KEY_HANDLE key, const Bytes& document,
                             Bytes* signature, DWORD flags) {
    BCRYPT_PKCS1_PADDING_INFO padding{BCRYPT_SHA256_ALGORITHM};
    return session.client().signHash(session.provider(), key, &padding,
                                     nativeHash(BCRYPT_SHA256_ALGORITHM, document), signature,
                                     flags | BCRYPT_PAD_PKCS1);
}

std::string unixTemp(const std::string& fileName) {
    return testsupport::unixPath(testsupport::tempPath(fileName));
}

bool openssl(const std::string& arguments, std::string* output) {
    std::string text;
    int code = testsupport::runOpenSsl(arguments, &text);
    EXPECT_EQ(code, 0) << "openssl " << arguments << "\n" << text;
    if (output)
        *output = text;
    return code == 0;
}

std::string opensslKey(const std::string& fileName, const std::string& genpkeyArguments) {
    std::string path = testsupport::tempPath(fileName);
    openssl("genpkey " + genpkeyArguments + " -out " + testsupport::unixPath(path));
    return path;
}

bool opensslVerifies(const std::string& publicKeyPem, const std::string& hash, const Bytes& message,
                     const Bytes& signature, const std::string& options) {
    testsupport::writeTemp("message.bin", message);
    testsupport::writeTemp("signature.bin", signature);
    std::string output;
    int code = testsupport::runOpenSsl("dgst -" + hash + " " + options + " -verify " +
                                           testsupport::unixPath(publicKeyPem) + " -signature " +
                                           unixTemp("signature.bin") + " " + unixTemp("message.bin"),
                                       &output);
    bool verified = code == 0 && output.find("Verified OK") != std::string::npos;
    if (!verified)
        ADD_FAILURE() << "openssl dgst -" << hash << " " << options << ": " << output;
    return verified;
}

void startProviderLog() {
    testsupport::prepareLog();
}

std::string hexStatus(SECURITY_STATUS status) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(status));
    return text;
}

}  // namespace cngtest
