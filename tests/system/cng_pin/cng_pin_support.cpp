#include "cng_pin_support.h"

#include <bcrypt.h>

#include <cstdio>
#include <gtest/gtest.h>

#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/test_support.h"
#include "support/token_tool.h"

namespace cngpin {

bool makeTokenKey(const std::string& serial, TokenKey* made) {
    made->serial = serial;
    testsupport::useFreshTokenStore(serial);
    if (!testsupport::makeToken(serial, std::string("--pin ") + kPin))
        return false;
    made->keyId = testsupport::makeKey(serial, "rsa2048", "--usage both --label " + serial + "-key");
    if (made->keyId.empty())
        return false;
    made->publicPem =
        testsupport::exportPublicKey(serial, made->keyId, testsupport::tempPath(serial + "-pub.pem"));
    return !made->publicPem.empty();
}

void startLog() {
    std::string path = testsupport::logFilePath();
    std::string processFolder = path.substr(0, path.find_last_of('/'));
    CreateDirectoryA(processFolder.substr(0, processFolder.find_last_of('/')).c_str(), nullptr);
    CreateDirectoryA(processFolder.c_str(), nullptr);
    testsupport::clearLog();
}

OpenedKey::~OpenedKey() {
    if (key)
        client.freeKey(provider, key);
    if (provider)
        client.freeProvider(provider);
}

SECURITY_STATUS OpenedKey::open(const std::string& keyId) {
    SECURITY_STATUS status = client.openProvider(&provider);
    if (status != 0) {
        provider = 0;
        return status;
    }
    status = client.openKey(provider, &key, cngtest::wide(keyId));
    if (status != 0)
        key = 0;
    return status;
}

Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

Bytes sha256(const Bytes& data) {
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    Bytes digest(32);
    bool ok =
        BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA256_ALGORITHM, nullptr, 0) == 0 &&
        BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0) == 0 &&
        BCryptHashData(hash, const_cast<PUCHAR>(data.data()), static_cast<ULONG>(data.size()), 0) == 0 &&
        BCryptFinishHash(hash, digest.data(), static_cast<ULONG>(digest.size()), 0) == 0;
    if (hash)
        BCryptDestroyHash(hash);
    if (algorithm)
        BCryptCloseAlgorithmProvider(algorithm, 0);
    EXPECT_TRUE(ok) << "BCrypt SHA-256 failed";
    return ok ? digest : Bytes();
}

SECURITY_STATUS signDocument(OpenedKey& opened, const Bytes& document, Bytes* signature, DWORD flags) {
    BCRYPT_PKCS1_PADDING_INFO padding{BCRYPT_SHA256_ALGORITHM};
    return opened.client.signHash(opened.provider, opened.key, &padding, sha256(document), signature,
                                  flags | BCRYPT_PAD_PKCS1);
}

bool opensslVerifies(const std::string& publicPem, const Bytes& document, const Bytes& signature,
                     const std::string& name) {
    std::string documentPath = testsupport::writeTemp(name + ".txt", document);
    std::string signaturePath = testsupport::writeTemp(name + ".sig", signature);
    std::string output;
    int code = testsupport::runOpenSsl("dgst -sha256 -verify " + testsupport::unixPath(publicPem) +
                                           " -signature " + testsupport::unixPath(signaturePath) + " " +
                                           testsupport::unixPath(documentPath),
                                       &output);
    bool verified = code == 0 && output.find("Verified OK") != std::string::npos;
    EXPECT_TRUE(verified) << name << ": " << output;
    return verified;
}

std::string hexStatus(SECURITY_STATUS status) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(status));
    return text;
}

}  // namespace cngpin
