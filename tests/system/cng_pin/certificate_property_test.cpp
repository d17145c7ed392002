// The "SmartCardKeyCertificate" key property through the CNG function table on the soft token: a
// certificate issued by an OpenSSL intermediate for the token key is stored with the authorities
// found in the CA folder (CALYTH_HOME\CalythDSC\Certificates), root first, and reads back as the
// leaf's DER that crypt32 parses. The program runs headless: the PIN goes through "SmartCardPin".
#include <windows.h>

#include <wincrypt.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cng_pin_support.h"
#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/test_support.h"
#include "support/token_tool.h"

using namespace cngtest;
using testing::HasSubstr;
using testsupport::unixPath;

namespace cngpin {
namespace {

constexpr const wchar_t* kCertificateProperty = L"SmartCardKeyCertificate";

// An EC root and intermediate made by OpenSSL, and a leaf the intermediate issues for a public key.
struct IssuedChain {
    Bytes root;
    Bytes intermediate;
    Bytes leaf;
};

bool issueChain(const std::string& publicPem, IssuedChain* chain) {
    std::string folder = testsupport::tempFolder();
    auto file = [&](const std::string& name) { return unixPath(folder + name); };
    testsupport::writeFile(
        folder + "ca.ext",
        testsupport::bytesOf("basicConstraints=critical,CA:TRUE\nkeyUsage=critical,keyCertSign,cRLSign\n"));
    const std::string ec = "genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ";
    bool ok =
        openssl(ec + file("root.key")) &&
        openssl("x509 -new -subj /O=CngPinTests/CN=CngPinRoot -key " + file("root.key") +
                " -days 30 -extfile " + file("ca.ext") + " -out " + file("root.pem")) &&
        openssl(ec + file("intermediate.key")) &&
        openssl("pkey -in " + file("intermediate.key") + " -pubout -out " + file("intermediate.pub")) &&
        openssl("x509 -new -subj /O=CngPinTests/CN=CngPinIntermediate -force_pubkey " +
                file("intermediate.pub") + " -CA " + file("root.pem") + " -CAkey " + file("root.key") +
                " -days 30 -extfile " + file("ca.ext") + " -out " + file("intermediate.pem")) &&
        openssl("x509 -new -subj /O=CngPinTests/CN=CngPinLeaf -force_pubkey " + unixPath(publicPem) +
                " -CA " + file("intermediate.pem") + " -CAkey " + file("intermediate.key") +
                " -days 30 -outform DER -out " + file("leaf.der")) &&
        openssl("x509 -in " + file("root.pem") + " -outform DER -out " + file("root.der")) &&
        openssl("x509 -in " + file("intermediate.pem") + " -outform DER -out " + file("intermediate.der"));
    if (!ok)
        return false;
    chain->root = testsupport::readFile(folder + "root.der");
    chain->intermediate = testsupport::readFile(folder + "intermediate.der");
    chain->leaf = testsupport::readFile(folder + "leaf.der");
    return !chain->root.empty() && !chain->intermediate.empty() && !chain->leaf.empty();
}

// An installation root <temp>\<name> whose CA folder holds the given files (name -> bytes), and
// CALYTH_HOME pointing at it.
void useInstallationRoot(const std::string& name, const std::vector<std::pair<std::string, Bytes>>& caFiles) {
    std::string home = testsupport::tempFolder() + name;
    testsupport::removeFolder(home);
    CreateDirectoryA(home.c_str(), nullptr);
    CreateDirectoryA((home + "\\CalythDSC").c_str(), nullptr);
    CreateDirectoryA((home + "\\CalythDSC\\Certificates").c_str(), nullptr);
    for (const auto& file : caFiles)
        testsupport::writeFile(home + "\\CalythDSC\\Certificates\\" + file.first, file.second);
    SetEnvironmentVariableA("CALYTH_HOME", home.c_str());
}

// The subject="..." field of a calyth-token list line.
std::string listedSubject(const std::string& line) {
    size_t start = line.find("subject=\"");
    if (start == std::string::npos)
        return {};
    start += 9;
    return line.substr(start, line.find('"', start) - start);
}

// The DER bytes of the certificate a calyth-token list line shows ("certificate <handle> ..."),
// written by calyth-token export-cert.
Bytes exportedCertificate(const std::string& serial, const std::string& line) {
    std::string handle = line.substr(12, line.find(' ', 12) - 12);
    std::string path = testsupport::tempPath(serial + "-certificate-" + handle + ".der");
    std::string output;
    int code = testsupport::calythToken(
        "export-cert --serial " + serial + " --cert " + handle + " --out \"" + path + "\"", &output);
    EXPECT_EQ(code, 0) << output;
    return testsupport::readFile(path);
}

std::string commonNameOf(PCCERT_CONTEXT certificate) {
    char name[256] = {};
    CertGetNameStringA(certificate, CERT_NAME_ATTR_TYPE, 0, const_cast<char*>(szOID_COMMON_NAME), name,
                       sizeof name);
    return name;
}

class KeyCertificate : public ::testing::Test {
protected:
    void SetUp() override { startProviderLog(); }
    void TearDown() override { SetEnvironmentVariableA("CALYTH_HOME", nullptr); }
};

TEST_F(KeyCertificate, IsStoredRootFirstWithItsChainAndReadsBackAsTheLeaf) {
    TokenKey token;
    ASSERT_TRUE(makeTokenKey("CNGPIN-CERT-01", &token));
    IssuedChain chain;
    ASSERT_TRUE(issueChain(token.publicPem, &chain));
    std::string intermediatePem = testsupport::tempFolder() + "intermediate.pem";
    useInstallationRoot("calyth-home", {{"root.cer", chain.root},
                                        {"intermediate.pem", testsupport::readFile(intermediatePem)}});

    CngClient client;
    ASSERT_TRUE(client.loaded());
    {
        ProviderSession session(client, kPin);
        NCRYPT_KEY_HANDLE key = 0;
        ASSERT_EQ(session.openKey(token.keyId, &key), 0);
        SECURITY_STATUS status =
            client.setKeyProperty(session.provider(), key, kCertificateProperty, chain.leaf);
        EXPECT_EQ(status, 0) << hexStatus(status);
    }
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Certificate stored successfully"));
    EXPECT_TRUE(
        testsupport::logHasLine("DEBUG", "importCertificateWithChain: certificate imported successfully"));

    std::vector<std::string> certificates = testsupport::listedLines(token.serial, "certificate");
    ASSERT_EQ(certificates.size(), 3u) << testing::PrintToString(certificates);
    EXPECT_THAT(listedSubject(certificates[0]), HasSubstr("CN=CngPinRoot"));
    EXPECT_THAT(listedSubject(certificates[1]), HasSubstr("CN=CngPinIntermediate"));
    EXPECT_THAT(listedSubject(certificates[2]), HasSubstr("CN=CngPinLeaf"));
    EXPECT_THAT(certificates[2], HasSubstr("key=" + token.keyId));
    EXPECT_EQ(exportedCertificate(token.serial, certificates[0]), chain.root);
    EXPECT_EQ(exportedCertificate(token.serial, certificates[1]), chain.intermediate);
    EXPECT_EQ(exportedCertificate(token.serial, certificates[2]), chain.leaf);

    // Read back on a provider and key opened afresh: what the token holds, not what was handed in.
    ProviderSession reopened(client);
    NCRYPT_KEY_HANDLE reopenedKey = 0;
    ASSERT_EQ(reopened.openKey(token.keyId, &reopenedKey), 0);
    Bytes value;
    SECURITY_STATUS status =
        client.getKeyProperty(reopened.provider(), reopenedKey, kCertificateProperty, &value);
    ASSERT_EQ(status, 0) << hexStatus(status);
    EXPECT_EQ(value, chain.leaf);
    PCCERT_CONTEXT parsed = CertCreateCertificateContext(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING,
                                                         value.data(), static_cast<DWORD>(value.size()));
    ASSERT_NE(parsed, nullptr) << GetLastError();
    EXPECT_EQ(commonNameOf(parsed), "CngPinLeaf");
    CertFreeCertificateContext(parsed);
}

TEST_F(KeyCertificate, WithoutItsIssuersInTheCaFolderOnlyTheLeafIsStored) {
    TokenKey token;
    ASSERT_TRUE(makeTokenKey("CNGPIN-CERT-02", &token));
    IssuedChain chain;
    ASSERT_TRUE(issueChain(token.publicPem, &chain));
    useInstallationRoot("calyth-home-root-only", {{"root.cer", chain.root}});

    CngClient client;
    ASSERT_TRUE(client.loaded());
    ProviderSession session(client, kPin);
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ(session.openKey(token.keyId, &key), 0);
    SECURITY_STATUS status = client.setKeyProperty(session.provider(), key, kCertificateProperty, chain.leaf);
    EXPECT_EQ(status, 0) << hexStatus(status);
    EXPECT_TRUE(testsupport::logHasLine(
        "DEBUG",
        "importCertificateWithChain: chain import skipped \xE2\x80\x94 performing normal leaf import"));

    std::vector<std::string> certificates = testsupport::listedLines(token.serial, "certificate");
    ASSERT_EQ(certificates.size(), 1u) << testing::PrintToString(certificates);
    EXPECT_THAT(listedSubject(certificates[0]), HasSubstr("CN=CngPinLeaf"));
    Bytes value;
    ASSERT_EQ(client.getKeyProperty(session.provider(), key, kCertificateProperty, &value), 0);
    EXPECT_EQ(value, chain.leaf);
}

TEST_F(KeyCertificate, WithoutAPinAHeadlessProgramStoresNothing) {
    TokenKey token;
    ASSERT_TRUE(makeTokenKey("CNGPIN-CERT-03", &token));
    IssuedChain chain;
    ASSERT_TRUE(issueChain(token.publicPem, &chain));

    CngClient client;
    ASSERT_TRUE(client.loaded());
    ProviderSession session(client);
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ(session.openKey(token.keyId, &key), 0);
    // No display: the PIN dialog cannot open, so the PIN check fails at once.
    EXPECT_EQ(client.setKeyProperty(session.provider(), key, kCertificateProperty, chain.leaf), KSP_NTE_FAIL);
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "KSPSetKeyProperty: password validation failed for certificate import"));
    EXPECT_TRUE(testsupport::listedLines(token.serial, "certificate").empty());
    Bytes value;
    EXPECT_EQ(client.getKeyProperty(session.provider(), key, kCertificateProperty, &value),
              KSP_NTE_NOT_FOUND);
}

}  // namespace
}  // namespace cngpin
