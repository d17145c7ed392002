// importCertificateWithChain: default label, CA folder, chain gathering from the CA files, root-first
// import, leaf-only import, and the alias of an unnamed key pair.
#include "cert/certificate_import.h"

#include <windows.h>

#include <cstring>
#include <functional>
#include <gtest/gtest.h>

#include "cert/ca_folder.h"
#include "fake_device/fake_device.h"
#include "log/log.h"
#include "support/test_support.h"
#include "token/device_library.h"

namespace {

constexpr const char* kSerial = "SN1";
constexpr const char* kPin = "1234";
constexpr const char* kHome = "C:\\calyth-test-home";
constexpr const char* kKeyA = "000102030405060708090A0B0C0D0E0F";
constexpr const char* kKeyB = "A0A1A2A3A4A5A6A7A8A9AAABACADAEAF";

struct Cert {
    std::vector<unsigned char> der;
    CertificateDetails details;
};

// Bytes that only the fake device parses, with the details it answers for them.
Cert makeCert(unsigned char tag, const std::string& subject, const std::string& issuer,
              const std::string& subjectCn, const std::string& issuerCn,
              std::vector<unsigned char> publicKey = {}) {
    Cert c;
    c.der = {0x30, 0x04, tag, tag, static_cast<unsigned char>(tag ^ 0xFF), tag};
    c.details.subjectName = subject;
    c.details.issuerName = issuer;
    c.details.subjectCommonName = subjectCn;
    c.details.issuerCommonName = issuerCn;
    c.details.publicKey = publicKey.empty() ? std::vector<unsigned char>{0xC1, tag, 0x01, 0x02} : publicKey;
    fake::registerCertificate(c.der, c.details);
    return c;
}

CalythCertificate recordOf(const Cert& c, const std::string& label = "") {
    CalythCertificate record{};
    std::memcpy(record.der, c.der.data(), c.der.size());
    record.derLength = static_cast<int32_t>(c.der.size());
    std::strncpy(record.label, label.c_str(), sizeof record.label - 1);
    return record;
}

CalythKeyPair keyPairWith(const std::string& keyIdHex, const std::vector<unsigned char>& publicKey,
                          const std::string& label) {
    CalythKeyPair keyPair = fake::makeKeyPair(keyIdHex, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048, label);
    std::memset(keyPair.publicKey, 0, sizeof keyPair.publicKey);
    std::memcpy(keyPair.publicKey, publicKey.data(), publicKey.size());
    keyPair.publicKeyLength = static_cast<int32_t>(publicKey.size());
    return keyPair;
}

const char kRootName[] = "C=IN,O=CALYTH TESTS,CN=TEST ROOT";
const char kIntermediateName[] = "C=IN,O=CALYTH TESTS,CN=TEST INTERMEDIATE";

std::string executableFolder() {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string text = path;
    return text.substr(0, text.find_last_of("\\/"));
}

class ImportTest : public ::testing::Test {
protected:
    void SetUp() override {
        fake::reset();
        // The log makes its folders over its first calls and writes from the third call on.
        static const bool logReady =
            (logDebug("log warm-up"), logDebug("log warm-up"), logDebug("log warm-up"), true);
        (void)logReady;
        testsupport::clearLog();
        SetEnvironmentVariableA("CALYTH_HOME", kHome);
        fake::addToken(kSerial);
        // Names are written with differing spacing and case: the chain is followed on their
        // normalised form.
        root = makeCert(0x01, "C=IN, O=Calyth Tests, CN=Test Root", "C=IN, O=Calyth Tests, CN=Test Root",
                        "Test Root", "Test Root");
        intermediate = makeCert(0x02, "C=IN, O=Calyth Tests, CN=Test Intermediate",
                                "c=in,o=calyth tests,  cn=Test Root", "Test Intermediate", "Test Root");
        leaf = makeCert(0x03, "C=IN, O=Calyth Tests, CN=Alice", "C=IN,  O=Calyth Tests, CN=test intermediate",
                        "Alice", "Test Intermediate");
    }
    void TearDown() override { SetEnvironmentVariableA("CALYTH_HOME", nullptr); }

    std::vector<std::string> importedDers() {
        std::vector<std::string> out;
        for (const fake::Call& call : fake::callsTo("calyth_importCertificate"))
            out.push_back(call.args.at(1));
        return out;
    }
    std::vector<std::string> importedLabels() {
        std::vector<std::string> out;
        for (const fake::Call& call : fake::callsTo("calyth_importCertificate"))
            out.push_back(call.args.at(2));
        return out;
    }

    Cert root, intermediate, leaf;
};

}  // namespace

// ---- parsing and label ----

TEST_F(ImportTest, LeafTheDeviceCannotParseEndsTheImport) {
    fake::failNext("calyth_getCertificateDetails", 7);
    CalythCertificate record = recordOf(leaf, "Label");
    EXPECT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 7);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "importCertificateWithChain: certificate parsing failed"));
    EXPECT_EQ(fake::countCalls("calyth_getFilesWithExtensionsAndConvertDER"), 0u);
    EXPECT_EQ(fake::countCalls("calyth_importCertificate"), 0u);
    std::vector<fake::Call> parses = fake::callsTo("calyth_getCertificateDetails");
    ASSERT_EQ(parses.size(), 1u);
    EXPECT_EQ(parses[0].args,
              (std::vector<std::string>{fake::hex(leaf.der), std::to_string(leaf.der.size())}));
}

TEST_F(ImportTest, EmptyLabelGetsSubjectAndIssuerCommonNames) {
    CalythCertificate record = recordOf(leaf, "");
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    EXPECT_STREQ(record.label, "Alice_Test Intermediate");
    EXPECT_TRUE(testsupport::logHasLine(
        "DEBUG", "importCertificateWithChain: label not provided, using: Alice_Test Intermediate"));
    EXPECT_EQ(importedLabels(), (std::vector<std::string>{"Alice_Test Intermediate"}));
}

TEST_F(ImportTest, WhiteSpaceLabelGetsTheDefaultLabel) {
    CalythCertificate record = recordOf(leaf, " \t \r\n ");
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    EXPECT_STREQ(record.label, "Alice_Test Intermediate");
    EXPECT_EQ(importedLabels(), (std::vector<std::string>{"Alice_Test Intermediate"}));
}

TEST_F(ImportTest, GivenLabelIsKept) {
    CalythCertificate record = recordOf(leaf, "My signing certificate");
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    EXPECT_STREQ(record.label, "My signing certificate");
    EXPECT_EQ(importedLabels(), (std::vector<std::string>{"My signing certificate"}));
    EXPECT_FALSE(testsupport::logContains("label not provided"));
}

TEST_F(ImportTest, DefaultLabelIsCutTo128Characters) {
    std::string subjectCn(100, 'S');
    std::string issuerCn(100, 'I');
    Cert longNames = makeCert(0x40, "CN=" + subjectCn, "CN=" + issuerCn, subjectCn, issuerCn);
    CalythCertificate record = recordOf(longNames, "");
    std::memset(record.label, 'z', sizeof record.label);
    record.label[0] = '\0';
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    std::string expected = (subjectCn + "_" + issuerCn).substr(0, 128);
    EXPECT_EQ(std::string(record.label), expected);
    EXPECT_EQ(record.label[128], '\0');
    EXPECT_EQ(importedLabels(), (std::vector<std::string>{expected}));
}

// ---- CA folder ----

TEST_F(ImportTest, CaFolderComesFromCalythHome) {
    CalythCertificate record = recordOf(leaf, "L");
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    std::string folder = std::string(kHome) + "\\CalythDSC\\Certificates";
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "importCertificateWithChain: CA Folder: " + folder));
    std::vector<fake::Call> listings = fake::callsTo("calyth_getFilesWithExtensionsAndConvertDER");
    ASSERT_EQ(listings.size(), 1u);
    EXPECT_EQ(listings[0].args, (std::vector<std::string>{folder, ".cer,.der,.pem,.crt"}));
}

TEST_F(ImportTest, EmptyCalythHomeBehavesAsUnset) {
    SetEnvironmentVariableA("CALYTH_HOME", "");
    std::string expected = executableFolder() + "\\CalythDSC\\Certificates";
    EXPECT_EQ(caCertificateFolder(), expected);
    SetEnvironmentVariableA("CALYTH_HOME", nullptr);
    EXPECT_EQ(caCertificateFolder(), expected);
    SetEnvironmentVariableA("CALYTH_HOME", "");
    CalythCertificate record = recordOf(leaf, "L");
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    EXPECT_EQ(fake::callsTo("calyth_getFilesWithExtensionsAndConvertDER").at(0).args.at(0), expected);
}

TEST_F(ImportTest, InstallationFoldersComeBeforeTheExecutableFolder) {
    // Changes the shared Wine prefix: this program runs alone.
    const char* x86Base = "C:\\Program Files (x86)\\Quorvik Labs";
    const char* x86 = "C:\\Program Files (x86)\\Quorvik Labs\\Calyth";
    const char* plainBase = "C:\\Program Files\\Quorvik Labs";
    const char* plain = "C:\\Program Files\\Quorvik Labs\\Calyth";
    auto removeFolders = [&] {
        RemoveDirectoryA(x86);
        RemoveDirectoryA(x86Base);
        RemoveDirectoryA(plain);
        RemoveDirectoryA(plainBase);
    };
    removeFolders();
    struct Cleanup {
        std::function<void()> run;
        ~Cleanup() { run(); }
    } cleanup{removeFolders};
    SetEnvironmentVariableA("CALYTH_HOME", nullptr);
    ASSERT_EQ(calythInstallationRoot(), executableFolder());

    CreateDirectoryA(plainBase, nullptr);
    ASSERT_TRUE(CreateDirectoryA(plain, nullptr));
    EXPECT_EQ(calythInstallationRoot(), "C:/Program Files/Quorvik Labs/Calyth");
    CreateDirectoryA(x86Base, nullptr);
    ASSERT_TRUE(CreateDirectoryA(x86, nullptr));
    EXPECT_EQ(calythInstallationRoot(), "C:/Program Files (x86)/Quorvik Labs/Calyth");
    EXPECT_EQ(caCertificateFolder(), "C:/Program Files (x86)/Quorvik Labs/Calyth\\CalythDSC\\Certificates");
    SetEnvironmentVariableA("CALYTH_HOME", "D:\\elsewhere");
    EXPECT_EQ(calythInstallationRoot(), "D:\\elsewhere");

    removeFolders();
    SetEnvironmentVariableA("CALYTH_HOME", nullptr);
    EXPECT_EQ(calythInstallationRoot(), executableFolder());
}

// ---- chain gathering and import ----

TEST_F(ImportTest, NoCaFilesImportsTheLeafAlone) {
    fake::setFiles({});
    CalythCertificate record = recordOf(leaf, "L");
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    EXPECT_TRUE(testsupport::logHasLine(
        "DEBUG",
        "importCertificateWithChain: chain import skipped \xE2\x80\x94 performing normal leaf import"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", std::string("importCertificateWithChain: Issuer '") +
                                                     kIntermediateName +
                                                     "' NOT found \xE2\x80\x94 skipping chain import"));
    EXPECT_EQ(importedDers(), (std::vector<std::string>{fake::hex(leaf.der)}));
    std::vector<fake::Call> imports = fake::callsTo("calyth_importCertificate");
    EXPECT_EQ(imports[0].serial, kSerial);
    EXPECT_EQ(imports[0].args[0], kPin);
    EXPECT_EQ(fake::token(kSerial).certificates.size(), 1u);
    EXPECT_FALSE(testsupport::logContains("certificate imported successfully"));
}

TEST_F(ImportTest, FullChainIsImportedRootFirst) {
    fake::setFiles({{"intermediate.pem", intermediate.der}, {"root.cer", root.der}});
    CalythCertificate record = recordOf(leaf, "L");
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    EXPECT_EQ(importedDers(), (std::vector<std::string>{fake::hex(root.der), fake::hex(intermediate.der),
                                                        fake::hex(leaf.der)}));
    EXPECT_EQ(importedLabels(), (std::vector<std::string>{kRootName, kIntermediateName, "L"}));
    EXPECT_TRUE(
        testsupport::logHasLine("DEBUG", "importCertificateWithChain: certificate imported successfully"));
    EXPECT_FALSE(testsupport::logContains("skipping chain import"));
    for (const fake::Call& call : fake::callsTo("calyth_importCertificate")) {
        EXPECT_EQ(call.serial, kSerial);
        EXPECT_EQ(call.args[0], kPin);
    }
    // Each CA file is parsed once.
    EXPECT_EQ(fake::countCalls("calyth_getCertificateDetails"), 3u);
}

TEST_F(ImportTest, MissingRootCancelsTheWholeChain) {
    fake::setFiles({{"intermediate.crt", intermediate.der}});
    CalythCertificate record = recordOf(leaf, "L");
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", std::string("importCertificateWithChain: Issuer '") +
                                                     kRootName +
                                                     "' NOT found \xE2\x80\x94 skipping chain import"));
    EXPECT_TRUE(testsupport::logHasLine(
        "DEBUG",
        "importCertificateWithChain: chain import skipped \xE2\x80\x94 performing normal leaf import"));
    EXPECT_EQ(importedDers(), (std::vector<std::string>{fake::hex(leaf.der)}));
}

TEST_F(ImportTest, FirstListedOfTwoCaFilesWithTheSameSubjectIsUsed) {
    Cert otherIntermediate = makeCert(0x22, "c=IN, o=CALYTH TESTS, cn=Test Intermediate", "CN=Nobody",
                                      "Test Intermediate", "Nobody");
    fake::setFiles({{"a.cer", otherIntermediate.der}, {"b.cer", intermediate.der}, {"root.der", root.der}});
    CalythCertificate record = recordOf(leaf, "L");
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    // The first file names an issuer that is not there: the chain is cancelled.
    EXPECT_EQ(importedDers(), (std::vector<std::string>{fake::hex(leaf.der)}));

    fake::clearCalls();
    fake::setFiles({{"a.cer", intermediate.der}, {"b.cer", otherIntermediate.der}, {"root.der", root.der}});
    record = recordOf(leaf, "L");
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    EXPECT_EQ(importedDers(), (std::vector<std::string>{fake::hex(root.der), fake::hex(intermediate.der),
                                                        fake::hex(leaf.der)}));
}

TEST_F(ImportTest, EmptyAndUnreadableCaFilesAreSkipped) {
    fake::setFiles({{"empty.cer", {}},
                    {"garbage.der", {0x01, 0x02, 0x03}},
                    {"intermediate.pem", intermediate.der},
                    {"root.cer", root.der}});
    CalythCertificate record = recordOf(leaf, "L");
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    EXPECT_EQ(importedDers(), (std::vector<std::string>{fake::hex(root.der), fake::hex(intermediate.der),
                                                        fake::hex(leaf.der)}));
    std::vector<fake::Call> parses = fake::callsTo("calyth_getCertificateDetails");
    ASSERT_EQ(parses.size(), 4u);  // the leaf, garbage, intermediate, root; never the empty file
    EXPECT_EQ(parses[1].args[0], "010203");
}

TEST_F(ImportTest, LeafWithoutIssuerNameIsAChainOfItsOwn) {
    Cert lonely = makeCert(0x50, "CN=Lonely", "", "Lonely", "");
    fake::setFiles({{"root.cer", root.der}});
    CalythCertificate record = recordOf(lonely, "");
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    EXPECT_STREQ(record.label, "Lonely_");
    EXPECT_EQ(importedDers(), (std::vector<std::string>{fake::hex(lonely.der)}));
    EXPECT_TRUE(
        testsupport::logHasLine("DEBUG", "importCertificateWithChain: certificate imported successfully"));
    EXPECT_FALSE(testsupport::logContains("chain import skipped"));
}

TEST_F(ImportTest, CaFilesNamingEachOtherDoNotLoopForever) {
    Cert a = makeCert(0x61, "CN=CA A", "CN=CA B", "CA A", "CA B");
    Cert b = makeCert(0x62, "CN=CA B", "CN=CA A", "CA B", "CA A");
    Cert user = makeCert(0x63, "CN=User", "CN=CA A", "User", "CA A");
    fake::setFiles({{"a.cer", a.der}, {"b.cer", b.der}});
    CalythCertificate record = recordOf(user, "U");
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    EXPECT_EQ(importedDers(),
              (std::vector<std::string>{fake::hex(b.der), fake::hex(a.der), fake::hex(user.der)}));
}

TEST_F(ImportTest, ChainImportFailureAtTheRootStopsAtOnce) {
    fake::setFiles({{"intermediate.pem", intermediate.der}, {"root.cer", root.der}});
    fake::failNext("calyth_importCertificate", 5);
    CalythCertificate record = recordOf(leaf, "L");
    EXPECT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 5);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "importCertificateWithChain: chain import failed at index 0 ret=5"));
    EXPECT_EQ(fake::countCalls("calyth_importCertificate"), 1u);
    EXPECT_EQ(fake::countCalls("calyth_getKeyPairList"), 0u);
}

TEST_F(ImportTest, ChainImportFailureAtTheLeafKeepsTheCasStored) {
    fake::setFiles({{"intermediate.pem", intermediate.der}, {"root.cer", root.der}});
    int seen = 0;
    fake::hooks().importCertificate = [&](const char* serial, const char*, CalythCertificate* certificate) {
        if (++seen == 3)
            return 9;
        fake::token(serial).certificates.push_back(*certificate);
        return 0;
    };
    fake::addKeyPair(kSerial, keyPairWith(kKeyA, leaf.details.publicKey, ""));
    CalythCertificate record = recordOf(leaf, "L");
    EXPECT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 9);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "importCertificateWithChain: chain import failed at index 2 ret=9"));
    EXPECT_EQ(fake::token(kSerial).certificates.size(), 2u);
    EXPECT_EQ(fake::countCalls("calyth_updateKeyPairDetails"), 0u);
}

TEST_F(ImportTest, LeafImportFailureIsReturned) {
    fake::failNext("calyth_importCertificate", 6);
    fake::addKeyPair(kSerial, keyPairWith(kKeyA, leaf.details.publicKey, ""));
    CalythCertificate record = recordOf(leaf, "L");
    EXPECT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 6);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "importCertificateWithChain: leaf import failed ret=6"));
    EXPECT_EQ(fake::countCalls("calyth_getKeyPairList"), 0u);
    EXPECT_EQ(fake::countCalls("calyth_updateKeyPairDetails"), 0u);
}

// ---- alias of the key pair ----

TEST_F(ImportTest, UnnamedKeyPairGetsTheLabelAsAlias) {
    fake::addKeyPair(kSerial, keyPairWith(kKeyB, {0xC1, 0x99, 0x01, 0x02}, ""));  // same length, other key
    fake::addKeyPair(kSerial, keyPairWith(kKeyA, leaf.details.publicKey, ""));
    CalythCertificate record = recordOf(leaf, "");
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    std::vector<fake::Call> updates = fake::callsTo("calyth_updateKeyPairDetails");
    ASSERT_EQ(updates.size(), 1u);
    EXPECT_EQ(updates[0].serial, kSerial);
    EXPECT_EQ(updates[0].args,
              (std::vector<std::string>{kKeyA, kPin, "Alice_Test Intermediate", "null", "0"}));
    EXPECT_TRUE(testsupport::logHasLine(
        "DEBUG", "importCertificateWithChain: updating empty key pair alias to: Alice_Test Intermediate"));
    EXPECT_STREQ(fake::token(kSerial).keyPairs[1].label, "Alice_Test Intermediate");
    EXPECT_STREQ(fake::token(kSerial).keyPairs[0].label, "");
}

TEST_F(ImportTest, WhiteSpaceAliasCountsAsUnnamed) {
    fake::addKeyPair(kSerial, keyPairWith(kKeyA, leaf.details.publicKey, "   "));
    CalythCertificate record = recordOf(leaf, "Given");
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    std::vector<fake::Call> updates = fake::callsTo("calyth_updateKeyPairDetails");
    ASSERT_EQ(updates.size(), 1u);
    EXPECT_EQ(updates[0].args.at(2), "Given");
}

TEST_F(ImportTest, NamedKeyPairKeepsItsAlias) {
    fake::addKeyPair(kSerial, keyPairWith(kKeyA, leaf.details.publicKey, "Existing alias"));
    fake::addKeyPair(kSerial, keyPairWith(kKeyB, leaf.details.publicKey, ""));
    CalythCertificate record = recordOf(leaf, "Given");
    ASSERT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    EXPECT_EQ(fake::countCalls("calyth_updateKeyPairDetails"), 0u);
    EXPECT_STREQ(fake::token(kSerial).keyPairs[0].label, "Existing alias");
}

TEST_F(ImportTest, NoMatchingKeyPairIsNoError) {
    fake::addKeyPair(kSerial, keyPairWith(kKeyA, {0x01, 0x02}, ""));
    CalythCertificate record = recordOf(leaf, "Given");
    EXPECT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    EXPECT_EQ(fake::countCalls("calyth_getKeyPairList"), 1u);
    EXPECT_EQ(fake::countCalls("calyth_updateKeyPairDetails"), 0u);
}

TEST_F(ImportTest, FailedAliasUpdateDoesNotChangeTheResult) {
    fake::addKeyPair(kSerial, keyPairWith(kKeyA, leaf.details.publicKey, ""));
    fake::failNext("calyth_updateKeyPairDetails", 4);
    CalythCertificate record = recordOf(leaf, "Given");
    EXPECT_EQ(importCertificateWithChain(kSerial, kPin, record, nullptr), 0);
    EXPECT_EQ(fake::countCalls("calyth_updateKeyPairDetails"), 1u);
}
