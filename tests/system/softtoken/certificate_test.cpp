// Certificate parsing, certificates on the token, key pair changes and certificate folders.
#include <windows.h>

#include <cstring>
#include <gtest/gtest.h>

#include "support/device_calls.h"
#include "support/ecdsa_signature.h"
#include "support/scratch_files.h"
#include "support/test_support.h"
#include "support/token_tool.h"

using namespace testsupport;

namespace {

using CertificateDetailsTest = TokenStoreTest;
using CertificateImportTest = TokenStoreTest;
using KeyPairChangeTest = TokenStoreTest;
using CertificateFolderTest = TokenStoreTest;

int openssl(const std::string& arguments, std::string* output = nullptr) {
    std::string text;
    int code = testsupport::runOpenSsl(arguments, &text);
    if (output)
        *output = text;
    if (code != 0)
        ADD_FAILURE() << "openssl " << arguments << "\n" << text;
    return code;
}

// A self-signed P-256 authority "C=IN, O=Example CA, CN=Root" (serial 00ABCDEF01) in the test's
// scratch folder: ca.key, ca.pem, ca.der.
void makeAuthority(const TokenStoreTest& test) {
    openssl("genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out " + unixPath(test.file("ca.key")));
    openssl("x509 -new -subj /C=IN/O=Example\\ CA/CN=Root -key " + unixPath(test.file("ca.key")) +
            " -days 30 -set_serial 0x00ABCDEF01 -out " + unixPath(test.file("ca.pem")));
    openssl("x509 -in " + unixPath(test.file("ca.pem")) + " -outform DER -out " +
            unixPath(test.file("ca.der")));
}

// A certificate for the public key in `publicPem`, issued by the authority, as DER.
Bytes issue(const TokenStoreTest& test, const std::string& publicPem, const std::string& subject,
            const std::string& name) {
    openssl("x509 -new -subj " + subject + " -force_pubkey " + unixPath(publicPem) + " -CA " +
            unixPath(test.file("ca.pem")) + " -CAkey " + unixPath(test.file("ca.key")) +
            " -days 30 -set_serial 0x1234 -outform DER -out " + unixPath(test.file(name)));
    return readFile(test.file(name));
}

CalythCertificate certificateRecord(const Bytes& der, const char* label = "") {
    CalythCertificate record;
    std::memset(&record, 0, sizeof record);
    std::memcpy(record.der, der.data(), der.size());
    record.derLength = static_cast<int32_t>(der.size());
    std::strcpy(record.label, label);
    return record;
}

Bytes publicOf(const CalythKeyPair& key) {
    return Bytes(key.publicKey, key.publicKey + key.publicKeyLength);
}
Bytes objectOf(const CalythKeyPair& key) {
    return Bytes(key.objectId, key.objectId + key.objectIdLength);
}

std::string opensslDate(const std::string& certificatePem, const char* which) {
    std::string text;
    openssl("x509 -in " + unixPath(certificatePem) + " -noout -dateopt iso_8601 -" + which, &text);
    size_t equals = text.find('=');
    return text.substr(equals + 1, 19);
}

}  // namespace

TEST_F(CertificateDetailsTest, DetailsOfALeafAndItsAuthority) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "rsa2048"));
    makeAuthority(*this);
    Bytes leaf =
        issue(*this, exportPublicKey("SN1", hex(key), file("k.pem")), "/C=IN/O=Example/CN=Alice", "leaf.der");
    openssl("x509 -inform DER -in " + unixPath(file("leaf.der")) + " -out " + unixPath(file("leaf.pem")));

    CertificateDetails details;
    ASSERT_EQ(calyth_getCertificateDetails(leaf.data(), static_cast<int>(leaf.size()), details, nullptr), 0);
    // CertNameToStr with CERT_NAME_STR_REVERSE_FLAG: the last encoded name part (here the common
    // name, as OpenSSL encodes C, O, CN) comes first, the same order as RFC 2253 text.
    std::string rfc2253;
    openssl("x509 -in " + unixPath(file("leaf.pem")) + " -noout -subject -nameopt RFC2253", &rfc2253);
    EXPECT_EQ(rfc2253.substr(0, rfc2253.find_first_of("\r\n")), "subject=CN=Alice,O=Example,C=IN");
    EXPECT_EQ(details.subjectName, "CN=Alice, O=Example, C=IN");
    EXPECT_EQ(details.issuerName, "CN=Root, O=Example CA, C=IN");
    EXPECT_EQ(details.subjectCommonName, "Alice");
    EXPECT_EQ(details.issuerCommonName, "Root");
    EXPECT_EQ(details.serialNumberHex, "1234");
    EXPECT_EQ(details.notBefore, opensslDate(file("leaf.pem"), "startdate"));
    EXPECT_EQ(details.notAfter, opensslDate(file("leaf.pem"), "enddate"));
    EXPECT_EQ(details.publicKey, publicOf(keyRecord("SN1", key)));
    EXPECT_EQ(details.keySizeCode, CALYTH_KEY_RSA_2048);
    EXPECT_FALSE(details.selfSigned);

    Bytes root = readFile(file("ca.der"));
    CertificateDetails authority;
    ASSERT_EQ(calyth_getCertificateDetails(root.data(), static_cast<int>(root.size()), authority, nullptr),
              0);
    EXPECT_EQ(authority.subjectName, authority.issuerName);
    EXPECT_TRUE(authority.selfSigned);
    EXPECT_EQ(authority.serialNumberHex, "ABCDEF01");
    EXPECT_EQ(authority.keySizeCode, CALYTH_KEY_EC_P256);
    ASSERT_EQ(authority.publicKey.size(), 65u);
    EXPECT_EQ(authority.publicKey[0], 0x04);
    openssl("pkey -in " + unixPath(file("ca.key")) + " -pubout -outform DER -out " +
            unixPath(file("ca-pub.der")));
    Bytes spki = readFile(file("ca-pub.der"));
    EXPECT_EQ(hex(authority.publicKey), hex(Bytes(spki.end() - 65, spki.end())));
}

TEST_F(CertificateDetailsTest, AnythingButACertificateIsRefused) {
    makeAuthority(*this);
    Bytes root = readFile(file("ca.der"));
    CertificateDetails details;
    details.subjectName = "untouched";
    EXPECT_NE(calyth_getCertificateDetails(root.data(), static_cast<int>(root.size()) - 10, details, nullptr),
              0);
    Bytes garbage(200, 0x30);
    EXPECT_NE(calyth_getCertificateDetails(garbage.data(), 200, details, nullptr), 0);
    EXPECT_NE(calyth_getCertificateDetails(nullptr, 10, details, nullptr), 0);
    EXPECT_NE(calyth_getCertificateDetails(root.data(), 0, details, nullptr), 0);
    Bytes pem = readFile(file("ca.pem"));
    EXPECT_NE(calyth_getCertificateDetails(pem.data(), static_cast<int>(pem.size()), details, nullptr), 0);
    EXPECT_EQ(details.subjectName, "untouched");
}

TEST_F(CertificateImportTest, CertificateIsLinkedToTheKeyPairWhosePublicKeyItCarries) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "p384"));
    Bytes derKey = unhex(makeKey("SN1", "rsa1024", "--pubform der"));
    makeAuthority(*this);
    Bytes leaf = issue(*this, exportPublicKey("SN1", hex(key), file("k.pem")), "/CN=Alice", "leaf.der");
    Bytes second = issue(*this, exportPublicKey("SN1", hex(derKey), file("d.pem")), "/CN=Bob", "second.der");

    CalythCertificate record = certificateRecord(leaf, "Alice_Root");
    ASSERT_EQ(calyth_importCertificate("SN1", "1234", &record, nullptr), 0);
    CalythKeyPair pair = keyRecord("SN1", key);
    EXPECT_EQ(hex(Bytes(record.keyId, record.keyId + 16)), hex(key));
    EXPECT_EQ(hex(Bytes(record.objectId, record.objectId + record.objectIdLength)), hex(objectOf(pair)));
    EXPECT_NE(record.handle, 0);

    CalythCertificate other = certificateRecord(second);
    ASSERT_EQ(calyth_importCertificate("SN1", "1234", &other, nullptr), 0);
    EXPECT_EQ(hex(Bytes(other.keyId, other.keyId + 16)), hex(derKey)) << "a key kept with a DER public key";
    EXPECT_STREQ(other.label, "Bob") << "default label";

    CalythCertificate root = certificateRecord(readFile(file("ca.der")), "root");
    ASSERT_EQ(calyth_importCertificate("SN1", "1234", &root, nullptr), 0);
    EXPECT_EQ(hex(Bytes(root.keyId, root.keyId + 16)), std::string(32, '0'));
    EXPECT_EQ(root.objectIdLength, 0);

    std::vector<CalythCertificate> listed = calyth_getCertificateList("SN1", nullptr);
    ASSERT_EQ(listed.size(), 3u);
    EXPECT_STREQ(listed[0].label, "Alice_Root");
    EXPECT_EQ(Bytes(listed[0].der, listed[0].der + listed[0].derLength), leaf);
    EXPECT_EQ(std::memcmp(listed[0].keyId, record.keyId, 16), 0);
    EXPECT_STREQ(listed[2].label, "root");

    CalythCertificate again = certificateRecord(leaf, "again");
    ASSERT_EQ(calyth_importCertificate("SN1", "1234", &again, nullptr), 0);
    EXPECT_EQ(again.handle, record.handle) << "the same certificate is kept once";
    EXPECT_EQ(calyth_getCertificateList("SN1", nullptr).size(), 3u);
}

TEST_F(CertificateImportTest, AnObjectIdentifierGivenWithTheCertificateNamesItsKeyPair) {
    makeToken("SN1");
    Bytes carried = unhex(makeKey("SN1", "p256"));
    Bytes named = unhex(makeKey("SN1", "rsa1024"));
    makeAuthority(*this);
    Bytes leaf = issue(*this, exportPublicKey("SN1", hex(carried), file("k.pem")), "/CN=Alice", "leaf.der");

    CalythCertificate record = certificateRecord(leaf);
    Bytes objectId = objectOf(keyRecord("SN1", named));
    std::memcpy(record.objectId, objectId.data(), objectId.size());
    record.objectIdLength = static_cast<int32_t>(objectId.size());
    ASSERT_EQ(calyth_importCertificate("SN1", "1234", &record, nullptr), 0);
    EXPECT_EQ(hex(Bytes(record.keyId, record.keyId + 16)), hex(named));
    std::vector<CalythCertificate> listed = calyth_getCertificateList("SN1", nullptr);
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(hex(Bytes(listed[0].objectId, listed[0].objectId + listed[0].objectIdLength)), hex(objectId));

    // An identifier that no key pair has is kept with the certificate, which then has no key pair.
    Bytes root = readFile(file("ca.der"));
    CalythCertificate loose = certificateRecord(root);
    Bytes unknown = bytesOf("no such key");
    std::memcpy(loose.objectId, unknown.data(), unknown.size());
    loose.objectIdLength = static_cast<int32_t>(unknown.size());
    ASSERT_EQ(calyth_importCertificate("SN1", "1234", &loose, nullptr), 0);
    EXPECT_EQ(hex(Bytes(loose.keyId, loose.keyId + 16)), std::string(32, '0'));
    EXPECT_EQ(hex(Bytes(loose.objectId, loose.objectId + loose.objectIdLength)), hex(unknown));
}

TEST_F(CertificateImportTest, ImportNeedsThePinOrASessionAndACertificate) {
    makeToken("SN1");
    makeAuthority(*this);
    Bytes root = readFile(file("ca.der"));
    CalythCertificate record = certificateRecord(root);
    EXPECT_NE(calyth_importCertificate("SN1", "0000", &record, nullptr), 0);
    EXPECT_NE(calyth_importCertificate("SN1", "", &record, nullptr), 0);
    EXPECT_TRUE(calyth_getCertificateList("SN1", nullptr).empty());
    CalythCertificate garbage = certificateRecord(Bytes(100, 0x30));
    EXPECT_NE(calyth_importCertificate("SN1", "1234", &garbage, nullptr), 0);
    CalythCertificate empty = certificateRecord(Bytes());
    EXPECT_NE(calyth_importCertificate("SN1", "1234", &empty, nullptr), 0);
    CalythCertificate oversized = certificateRecord(root);
    oversized.derLength = 3073;
    EXPECT_NE(calyth_importCertificate("SN1", "1234", &oversized, nullptr), 0);
    EXPECT_NE(calyth_importCertificate("SN1", "1234", nullptr, nullptr), 0);
    EXPECT_TRUE(calyth_getCertificateList("SN1", nullptr).empty());
    ASSERT_EQ(calythToken("sso --serial SN1 on"), 0);
    EXPECT_EQ(calyth_importCertificate("SN1", "", &record, nullptr), 0);
    EXPECT_EQ(calyth_getCertificateList("SN1", nullptr).size(), 1u);
}

TEST_F(KeyPairChangeTest, LabelAndObjectIdCanBeChanged) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "p256", "--label before"));
    Bytes objectId = objectOf(keyRecord("SN1", key));
    ASSERT_EQ(calyth_updateKeyPairDetails("SN1", key.data(), "1234", "after", nullptr, 0, nullptr), 0);
    EXPECT_STREQ(keyRecord("SN1", key).label, "after");
    EXPECT_EQ(objectOf(keyRecord("SN1", key)), objectId);
    Bytes newObject = bytesOf("object-7");
    ASSERT_EQ(calyth_updateKeyPairDetails("SN1", key.data(), "1234", nullptr, newObject.data(),
                                          static_cast<int>(newObject.size()), nullptr),
              0);
    EXPECT_STREQ(keyRecord("SN1", key).label, "after");
    EXPECT_EQ(objectOf(keyRecord("SN1", key)), newObject);
    EXPECT_NE(calyth_updateKeyPairDetails("SN1", Bytes(16, 1).data(), "1234", "x", nullptr, 0, nullptr), 0);
    EXPECT_NE(calyth_updateKeyPairDetails("SN1", key.data(), "1234", std::string(140, 'x').c_str(), nullptr,
                                          0, nullptr),
              0);
    EXPECT_NE(calyth_updateKeyPairDetails("SN1", nullptr, "1234", "x", nullptr, 0, nullptr), 0);
}

TEST_F(KeyPairChangeTest, DeletingAKeyPairTakesItsCertificatesWhenAsked) {
    makeToken("SN1");
    Bytes first = unhex(makeKey("SN1", "p256"));
    Bytes second = unhex(makeKey("SN1", "p256"));
    makeAuthority(*this);
    for (const Bytes& key : {first, second}) {
        Bytes leaf =
            issue(*this, exportPublicKey("SN1", hex(key), file("k.pem")), "/CN=" + hex(key), "leaf.der");
        CalythCertificate record = certificateRecord(leaf);
        ASSERT_EQ(calyth_importCertificate("SN1", "1234", &record, nullptr), 0);
    }
    ASSERT_EQ(calyth_deleteKeyPair("SN1", first.data(), "1234", false, nullptr), 0);
    EXPECT_EQ(calyth_getKeyPairList("SN1", nullptr).size(), 1u);
    EXPECT_EQ(calyth_getCertificateList("SN1", nullptr).size(), 2u);
    ASSERT_EQ(calyth_deleteKeyPair("SN1", second.data(), "1234", true, nullptr), 0);
    EXPECT_TRUE(calyth_getKeyPairList("SN1", nullptr).empty());
    std::vector<CalythCertificate> left = calyth_getCertificateList("SN1", nullptr);
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(std::memcmp(left[0].keyId, first.data(), 16), 0);
    EXPECT_NE(calyth_deleteKeyPair("SN1", second.data(), "1234", true, nullptr), 0) << "already gone";
}

TEST_F(CertificateFolderTest, FilesWithTheExtensionsComeSortedAsDer) {
    makeAuthority(*this);
    Bytes der = readFile(file("ca.der"));
    std::string folder = file("cas");
    CreateDirectoryA(folder.c_str(), nullptr);
    CreateDirectoryA((folder + "\\e.cer").c_str(), nullptr);
    writeFile(folder + "\\b.pem", readFile(file("ca.pem")));
    writeFile(folder + "\\a.cer", der);
    std::string text;
    openssl("x509 -in " + unixPath(file("ca.pem")) + " -text",
            &text);  // explanatory text before the PEM block
    writeFile(folder + "\\c.CRT", bytesOf(text));
    writeFile(folder + "\\d.txt", der);
    writeFile(folder + "\\broken.pem",
              bytesOf("-----BEGIN CERTIFICATE-----\n!!!!\n-----END CERTIFICATE-----\n"));

    CalythFileList files =
        calyth_getFilesWithExtensionsAndConvertDER(folder, {".cer", ".der", ".pem", ".crt"}, nullptr);
    ASSERT_EQ(files.size(), 4u);
    EXPECT_EQ(files[0].first, "a.cer");
    EXPECT_EQ(files[1].first, "b.pem");
    EXPECT_EQ(files[2].first, "broken.pem");
    EXPECT_EQ(files[3].first, "c.CRT");
    EXPECT_EQ(files[0].second, der);
    EXPECT_EQ(files[1].second, der);
    EXPECT_TRUE(files[2].second.empty());
    EXPECT_EQ(files[3].second, der);

    CalythFileList noDot = calyth_getFilesWithExtensionsAndConvertDER(folder + "\\", {"txt"}, nullptr);
    ASSERT_EQ(noDot.size(), 1u);
    EXPECT_EQ(noDot[0].first, "d.txt");
    EXPECT_TRUE(calyth_getFilesWithExtensionsAndConvertDER(file("missing"), {".cer"}, nullptr).empty());
    EXPECT_TRUE(calyth_getFilesWithExtensionsAndConvertDER(folder, {}, nullptr).empty());
}
