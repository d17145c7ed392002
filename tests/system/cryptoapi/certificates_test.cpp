// Certificates through advapi32: CryptSetKeyParam(KP_CERTIFICATE) stores a certificate made by
// OpenSSL for a soft-token key together with its issuers from the CA folder under CALYTH_HOME, and
// CryptGetProvParam(PP_CERTCHAIN) hands the chain back as PKCS #7.
#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <sstream>

#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/test_certificates.h"
#include "support/test_support.h"
#include "support/token_tool.h"

using namespace testsupport;
using testsupport::unixPath;

namespace {

constexpr const char* kSerial = "CLIENT-CERT-01";
constexpr const char* kPin = "31415926";

struct Chain {
    std::string keyId;
    std::string otherKeyId;  // a second key of the token, without certificate
    Bytes root, intermediate, leaf;
};

bool run(const std::string& arguments) {
    std::string output;
    int code = runOpenSsl(arguments, &output);
    EXPECT_EQ(code, 0) << "openssl " << arguments << "\n" << output;
    return code == 0;
}

// Installation root with the CA folder that the provider reads the issuers from.
std::string caFolderUnder(const std::string& home) {
    return home + "\\CalythDSC\\Certificates";
}

// Root and intermediate CA made by OpenSSL and placed in the CA folder (root as DER .cer,
// intermediate as PEM, which the device library converts), and a leaf certificate the
// intermediate issued for the token key's public key.
const Chain& chain() {
    static Chain made = [] {
        Chain out;
        EXPECT_EQ(registerProvider(), ERROR_SUCCESS);
        useFreshTokenStore();
        if (!makeToken(kSerial, std::string("--pin ") + kPin))
            return out;
        std::string keyId = makeKey(kSerial, "rsa2048", "--usage both --label ClientCertified");
        std::string otherKeyId = makeKey(kSerial, "rsa2048", "--usage both --label ClientUncertified");
        std::string publicPem =
            keyId.empty() ? "" : exportPublicKey(kSerial, keyId, tempPath("certified-pub.pem"));
        if (publicPem.empty() || otherKeyId.empty())
            return out;

        std::string home = tempPath("calyth-home");
        CreateDirectoryA(home.c_str(), nullptr);
        CreateDirectoryA((home + "\\CalythDSC").c_str(), nullptr);
        CreateDirectoryA(caFolderUnder(home).c_str(), nullptr);
        std::string caFolder = caFolderUnder(home);
        std::string rootKey = unixPath(tempPath("root.key")), rootPem = unixPath(tempPath("root.pem"));
        std::string interKey = unixPath(tempPath("inter.key")), interCsr = unixPath(tempPath("inter.csr"));
        std::string interPem = unixPath(caFolder + "\\intermediate.pem");
        std::string leafPem = unixPath(tempPath("leaf.pem"));
        std::string caExtensions =
            " -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign";
        bool ok =
            run("req -x509 -newkey rsa:2048 -nodes -sha256 -days 30 -keyout " + rootKey + " -out " + rootPem +
                " -subj /O=CalythClients/CN=ClientsRoot" + caExtensions) &&
            run("x509 -in " + rootPem + " -outform DER -out " + unixPath(caFolder + "\\root.cer")) &&
            run("req -new -newkey rsa:2048 -nodes -sha256 -keyout " + interKey + " -out " + interCsr +
                " -subj /O=CalythClients/CN=ClientsIntermediate" + caExtensions) &&
            run("x509 -req -sha256 -days 30 -in " + interCsr + " -CA " + rootPem + " -CAkey " + rootKey +
                " -set_serial 101 -copy_extensions copyall -out " + interPem) &&
            run("x509 -new -force_pubkey " + unixPath(publicPem) +
                " -subj /O=CalythClients/CN=ClientCertified -CA " + interPem + " -CAkey " + interKey +
                " -days 30 -set_serial 202 -sha256 -out " + leafPem) &&
            run("x509 -in " + interPem + " -outform DER -out " + unixPath(tempPath("intermediate.der"))) &&
            run("x509 -in " + leafPem + " -outform DER -out " + unixPath(tempPath("leaf.der")));
        if (!ok)
            return out;
        out.keyId = keyId;
        out.otherKeyId = otherKeyId;
        out.root = testsupport::readFile(caFolder + "\\root.cer");
        out.intermediate = readTemp("intermediate.der");
        out.leaf = readTemp("leaf.der");
        SetEnvironmentVariableA("CALYTH_HOME", home.c_str());
        return out;
    }();
    return made;
}

// The certificates of a PKCS #7 message as `openssl asn1parse` shows them: the SEQUENCEs right
// inside the certificates field ([0] of SignedData) and the common names in the message.
struct ParsedMessage {
    int certificates = 0;
    std::vector<std::string> commonNames;
};

int depthOf(const std::string& line) {
    size_t at = line.find("d=");
    return at == std::string::npos ? -1 : std::atoi(line.c_str() + at + 2);
}

ParsedMessage asn1parse(const std::string& file) {
    std::string output;
    EXPECT_EQ(runOpenSsl("asn1parse -inform DER -in " + unixPath(file), &output), 0) << output;
    ParsedMessage parsed;
    std::istringstream in(output);
    std::string line;
    bool inCertificates = false;
    bool nextIsCommonName = false;
    while (std::getline(in, line)) {
        int depth = depthOf(line);
        if (depth == 3)
            inCertificates = line.find("cont [ 0 ]") != std::string::npos;
        else if (inCertificates && depth == 4 && line.find("SEQUENCE") != std::string::npos)
            ++parsed.certificates;
        if (nextIsCommonName) {
            size_t colon = line.rfind(':');
            parsed.commonNames.push_back(colon == std::string::npos ? "" : line.substr(colon + 1));
        }
        nextIsCommonName = line.find(":commonName") != std::string::npos;
    }
    return parsed;
}

// The subject="..." part of a certificate line of calyth-token list.
std::string subjectOf(const std::string& line) {
    size_t start = line.find("subject=\"");
    if (start == std::string::npos)
        return std::string();
    start += 9;
    return line.substr(start, line.find('"', start) - start);
}

class Certificates : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(chainOnToken.leaf.empty());
        ASSERT_TRUE(acquire(provider, chainOnToken.keyId.c_str())) << std::hex << GetLastError();
        ASSERT_TRUE(
            CryptSetProvParam(provider.handle, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(kPin), 0));
    }

    // Stores the leaf on the token key once for the program (the first test that needs it).
    void storeLeafOnce() {
        static bool stored = false;
        if (stored)
            return;
        HCRYPTKEY key = 0;
        ASSERT_TRUE(CryptGetUserKey(provider.handle, AT_SIGNATURE, &key)) << std::hex << GetLastError();
        BOOL ok = CryptSetKeyParam(key, KP_CERTIFICATE, chainOnToken.leaf.data(), 0);
        CryptDestroyKey(key);
        ASSERT_TRUE(ok) << std::hex << GetLastError();
        stored = true;
    }

    Bytes certChain(HCRYPTPROV handle) {
        DWORD size = 0;
        EXPECT_TRUE(CryptGetProvParam(handle, PP_CERTCHAIN, nullptr, &size, 0)) << std::hex << GetLastError();
        Bytes message(size);
        BOOL ok = CryptGetProvParam(handle, PP_CERTCHAIN, message.data(), &size, 0);
        EXPECT_TRUE(ok) << std::hex << GetLastError();
        if (!ok)
            return {};
        message.resize(size);
        return message;
    }

    const Chain& chainOnToken = chain();
    Provider provider;
};

TEST_F(Certificates, StoringTheLeafBringsItsIssuersFromTheCaFolderRootFirst) {
    storeLeafOnce();
    EXPECT_TRUE(testsupport::logContains("importCertificateWithChain: CA Folder: " + tempPath("calyth-home") +
                                         "\\CalythDSC\\Certificates"));
    EXPECT_TRUE(
        testsupport::logHasLine("DEBUG", "importCertificateWithChain: certificate imported successfully"));
    std::vector<std::string> stored = listedLines(kSerial, "certificate");
    ASSERT_EQ(stored.size(), 3u);
    EXPECT_EQ(subjectOf(stored[0]), "CN=ClientsRoot, O=CalythClients") << stored[0];
    EXPECT_EQ(subjectOf(stored[1]), "CN=ClientsIntermediate, O=CalythClients") << stored[1];
    EXPECT_EQ(subjectOf(stored[2]), "CN=ClientCertified, O=CalythClients") << stored[2];
    // The leaf is linked to the key; the authorities to none.
    EXPECT_NE(stored[2].find("key=" + chainOnToken.keyId), std::string::npos) << stored[2];
    EXPECT_NE(stored[0].find("key=none"), std::string::npos) << stored[0];
}

TEST_F(Certificates, KeyCertificateReadsBackAsTheLeaf) {
    storeLeafOnce();
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CryptGetUserKey(provider.handle, AT_SIGNATURE, &key));
    DWORD size = 0;
    EXPECT_TRUE(CryptGetKeyParam(key, KP_CERTIFICATE, nullptr, &size, 0)) << std::hex << GetLastError();
    EXPECT_EQ(size, chainOnToken.leaf.size());
    Bytes certificate(size);
    EXPECT_TRUE(CryptGetKeyParam(key, KP_CERTIFICATE, certificate.data(), &size, 0))
        << std::hex << GetLastError();
    EXPECT_EQ(certificate, chainOnToken.leaf);
    CryptDestroyKey(key);
}

// The provider collects the chain root first, but the message is encoded by the system's
// CryptMsgOpenToEncode, and Wine 8's encoder sorts a SignedData's certificates by their DER bytes
// (and leaves out the empty digestAlgorithms SET of a message without signers, so `openssl pkcs7`
// refuses the message while crypt32 and `openssl asn1parse` read it). The order of the certificates
// in the message is therefore the encoder's: the tests check which certificates it carries.
TEST_F(Certificates, CertChainIsAPkcs7MessageWithTheThreeCertificates) {
    storeLeafOnce();
    Bytes message = certChain(provider.handle);
    ASSERT_FALSE(message.empty());

    testcerts::MessageShape shape = testcerts::pkcs7Shape(message);
    EXPECT_EQ(shape.type, static_cast<unsigned long>(CMSG_SIGNED));
    EXPECT_EQ(shape.certificates, 3u);
    EXPECT_EQ(shape.signers, 0u);
    std::vector<Bytes> carried = testcerts::pkcs7Certificates(message);
    std::vector<Bytes> expected = {chainOnToken.root, chainOnToken.intermediate, chainOnToken.leaf};
    std::sort(carried.begin(), carried.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(carried, expected);

    // crypt32 reads the message as a certificate store, as an application importing the chain does,
    // and builds the whole chain from it: leaf, intermediate, root (the root is not trusted here).
    HCERTSTORE store = CryptGetMessageCertificates(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0, 0,
                                                   message.data(), static_cast<DWORD>(message.size()));
    ASSERT_NE(store, nullptr) << std::hex << GetLastError();
    int count = 0;
    for (PCCERT_CONTEXT c = CertEnumCertificatesInStore(store, nullptr); c;
         c = CertEnumCertificatesInStore(store, c))
        ++count;
    EXPECT_EQ(count, 3);
    PCCERT_CONTEXT leaf = CertCreateCertificateContext(X509_ASN_ENCODING, chainOnToken.leaf.data(),
                                                       static_cast<DWORD>(chainOnToken.leaf.size()));
    ASSERT_NE(leaf, nullptr);
    CERT_CHAIN_PARA para{};
    para.cbSize = sizeof para;
    PCCERT_CHAIN_CONTEXT built = nullptr;
    ASSERT_TRUE(CertGetCertificateChain(nullptr, leaf, nullptr, store, &para, 0, nullptr, &built));
    ASSERT_EQ(built->cChain, 1u);
    ASSERT_EQ(built->rgpChain[0]->cElement, 3u);
    const CERT_CHAIN_ELEMENT* const* elements = built->rgpChain[0]->rgpElement;
    EXPECT_EQ(Bytes(elements[1]->pCertContext->pbCertEncoded,
                    elements[1]->pCertContext->pbCertEncoded + elements[1]->pCertContext->cbCertEncoded),
              chainOnToken.intermediate);
    EXPECT_EQ(Bytes(elements[2]->pCertContext->pbCertEncoded,
                    elements[2]->pCertContext->pbCertEncoded + elements[2]->pCertContext->cbCertEncoded),
              chainOnToken.root);
    CertFreeCertificateChain(built);
    CertFreeCertificateContext(leaf);
    CertCloseStore(store, 0);

    std::string file = writeTemp("certchain.p7b", message);
    ParsedMessage parsed = asn1parse(file);
    EXPECT_EQ(parsed.certificates, 3);
    for (const char* name : {"ClientsRoot", "ClientsIntermediate", "ClientCertified"})
        EXPECT_NE(std::find(parsed.commonNames.begin(), parsed.commonNames.end(), name),
                  parsed.commonNames.end())
            << name;
}

TEST_F(Certificates, CertChainSizeQueryAndShortBufferAnswerTheSizeWithMoreData) {
    storeLeafOnce();
    DWORD size = 0;
    SetLastError(0);
    ASSERT_TRUE(CryptGetProvParam(provider.handle, PP_CERTCHAIN, nullptr, &size, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    // The three certificates and the message around them.
    ASSERT_GT(size, chainOnToken.root.size() + chainOnToken.intermediate.size() + chainOnToken.leaf.size());
    DWORD shortSize = size - 1;
    Bytes buffer(size);
    SetLastError(0);
    EXPECT_TRUE(CryptGetProvParam(provider.handle, PP_CERTCHAIN, buffer.data(), &shortSize, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(shortSize, size);
}

TEST_F(Certificates, ContainerWithoutCertificateHasNoChain) {
    storeLeafOnce();
    Provider other;
    ASSERT_TRUE(acquire(other, chainOnToken.otherKeyId.c_str()));
    DWORD size = 0;
    SetLastError(0);
    EXPECT_FALSE(CryptGetProvParam(other.handle, PP_CERTCHAIN, nullptr, &size, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NO_KEY));
}

TEST_F(Certificates, WithoutCaFolderTheLeafIsStoredAloneAndTheChainHoldsOnlyIt) {
    const char* serial = "CLIENT-CERT-02";
    ASSERT_TRUE(makeToken(serial, std::string("--pin ") + kPin));
    std::string keyId = makeKey(serial, "rsa2048", "--usage both --label ClientAlone");
    ASSERT_FALSE(keyId.empty());
    std::string publicPem = exportPublicKey(serial, keyId, tempPath("alone-pub.pem"));
    std::string leafPem = tempPath("alone.pem");
    ASSERT_TRUE(run("x509 -new -force_pubkey " + unixPath(publicPem) +
                    " -subj /O=CalythClients/CN=ClientAlone" + " -CA " +
                    unixPath(tempPath("calyth-home\\CalythDSC\\Certificates\\intermediate.pem")) +
                    " -CAkey " + unixPath(tempPath("inter.key")) +
                    " -days 30 -set_serial 303 -outform DER -out " + unixPath(leafPem)));
    Bytes leaf = testsupport::readFile(leafPem);

    std::string emptyHome = tempPath("empty-home");
    CreateDirectoryA(emptyHome.c_str(), nullptr);
    char previous[MAX_PATH] = {};
    GetEnvironmentVariableA("CALYTH_HOME", previous, MAX_PATH);
    SetEnvironmentVariableA("CALYTH_HOME", emptyHome.c_str());

    Provider alone;
    ASSERT_TRUE(acquire(alone, keyId.c_str()));
    ASSERT_TRUE(CryptSetProvParam(alone.handle, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(kPin), 0));
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CryptGetUserKey(alone.handle, AT_SIGNATURE, &key));
    testsupport::clearLog();
    BOOL ok = CryptSetKeyParam(key, KP_CERTIFICATE, leaf.data(), 0);
    CryptDestroyKey(key);
    SetEnvironmentVariableA("CALYTH_HOME", previous);
    ASSERT_TRUE(ok) << std::hex << GetLastError();
    EXPECT_TRUE(testsupport::logHasLine(
        "DEBUG",
        "importCertificateWithChain: chain import skipped \xE2\x80\x94 performing normal leaf import"));
    EXPECT_EQ(listedLines(serial, "certificate").size(), 1u);

    Bytes message = certChain(alone.handle);
    std::vector<Bytes> carried = testcerts::pkcs7Certificates(message);
    ASSERT_EQ(carried.size(), 1u);
    EXPECT_EQ(carried[0], leaf);
}

}  // namespace
