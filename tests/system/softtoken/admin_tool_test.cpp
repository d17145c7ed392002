// The admin command calyth-token.exe: help, bad input, and the commands seen through the library.
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

using AdminToolTest = TokenStoreTest;

const char* const kCommands[] = {"init",       "list",         "delete",        "plug",        "unplug",
                                 "sso",        "set-firmware", "fault",         "unlock",      "reset",
                                 "genkey",     "delkey",       "export-pubkey", "import-cert", "export-cert",
                                 "import-aes", "import-key"};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

int openssl(const std::string& arguments, std::string* output = nullptr) {
    std::string text;
    int code = testsupport::runOpenSsl(arguments, &text);
    if (output)
        *output = text;
    return code;
}

}  // namespace

TEST_F(AdminToolTest, HelpForTheToolAndForEveryCommand) {
    std::string output;
    ASSERT_EQ(calythToken("--help", &output), 0);
    for (const char* command : kCommands)
        EXPECT_TRUE(contains(output, std::string("  ") + command + " ")) << command << "\n" << output;
    for (const char* command : kCommands) {
        ASSERT_EQ(calythToken(std::string(command) + " --help", &output), 0) << command;
        EXPECT_EQ(output.compare(0, 13 + std::strlen(command), std::string("calyth-token ") + command), 0)
            << output;
        std::string viaHelp;
        ASSERT_EQ(calythToken(std::string("help ") + command, &viaHelp), 0);
        EXPECT_EQ(viaHelp, output);
    }
}

TEST_F(AdminToolTest, BadCommandLinesExitWithTwoAndSayWhy) {
    std::string output;
    EXPECT_EQ(calythToken("", &output), 2);
    EXPECT_TRUE(contains(output, "usage")) << output;
    EXPECT_EQ(calythToken("frobnicate", &output), 2);
    EXPECT_TRUE(contains(output, "unknown command 'frobnicate'")) << output;
    EXPECT_EQ(calythToken("init --pin 1234", &output), 2);
    EXPECT_TRUE(contains(output, "missing --serial")) << output;
    EXPECT_EQ(calythToken("init --serial a/b --pin 1234", &output), 2);
    EXPECT_TRUE(contains(output, "invalid serial")) << output;
    EXPECT_EQ(calythToken("init --serial SN1 --pin 12", &output), 2);
    EXPECT_TRUE(contains(output, "PIN")) << output;
    EXPECT_EQ(calythToken("init --serial SN1 --pin 1234 --retries many", &output), 2);
    EXPECT_TRUE(contains(output, "--retries")) << output;
    EXPECT_EQ(calythToken("init --serial SN1 --pin 1234 --bogus", &output), 2);
    EXPECT_TRUE(contains(output, "unknown option '--bogus'")) << output;
    EXPECT_EQ(calythToken("init --serial SN1 --pin", &output), 2);
    EXPECT_TRUE(contains(output, "--pin needs a value")) << output;
    makeToken("SN1");
    EXPECT_EQ(calythToken("genkey --serial SN1 --type rsa999", &output), 2);
    EXPECT_TRUE(contains(output, "unknown key type 'rsa999'")) << output;
    EXPECT_EQ(calythToken("genkey --serial SN1 --usage everything", &output), 2);
    EXPECT_EQ(calythToken("sso --serial SN1 maybe", &output), 2);
    EXPECT_EQ(calythToken("fault --serial SN1 --function signHash --code 0", &output), 2);
    EXPECT_EQ(calythToken("fault --serial SN1 --function noSuchFunction --code 5", &output), 2);
    EXPECT_EQ(calythToken("import-aes --serial SN1 --key XYZ", &output), 2);
    EXPECT_TRUE(calyth_getKeyPairList("SN1", nullptr).empty());
}

TEST_F(AdminToolTest, CommandsThatCannotBeCarriedOutExitWithOne) {
    std::string output;
    EXPECT_EQ(calythToken("genkey --serial SN9 --type p256", &output), 1);
    EXPECT_TRUE(contains(output, "SN9")) << output;
    makeToken("SN1");
    EXPECT_EQ(calythToken("init --serial SN1 --pin 1234", &output), 1);
    EXPECT_TRUE(contains(output, "already exists")) << output;
    EXPECT_EQ(calythToken("delkey --serial SN1 --key 00112233445566778899AABBCCDDEEFF", &output), 1);
    EXPECT_EQ(calythToken("export-pubkey --serial SN1 --key nolabel", &output), 1);
    writeFile(file("junk.cer"), bytesOf("not a certificate"));
    EXPECT_EQ(calythToken("import-cert --serial SN1 --in " + file("junk.cer"), &output), 1);
    EXPECT_TRUE(contains(output, "not a DER or PEM certificate")) << output;
    EXPECT_EQ(calythToken("import-cert --serial SN1 --in " + file("missing.cer"), &output), 1);
    EXPECT_EQ(calythToken("import-aes --serial SN1 --key 0011", &output), 1);
    EXPECT_EQ(calythToken("list --serial SN2", &output), 1);
}

TEST_F(AdminToolTest, InitWithForceReplacesTheToken) {
    makeToken("SN1", "--label First");
    unhex(makeKey("SN1", "p256"));
    std::string output;
    ASSERT_EQ(calythToken("init --serial SN1 --pin 5678 --label Second --retries 4 --firmware 3.0.1 --force",
                          &output),
              0)
        << output;
    TokenInfo info = calyth_getTokenInfo("SN1", nullptr);
    EXPECT_EQ(info.label, "Second");
    EXPECT_EQ(info.firmwareVersion, "3.0.1");
    EXPECT_EQ(info.pinAttemptsLeft, 4);
    EXPECT_TRUE(calyth_getKeyPairList("SN1", nullptr).empty());
    int left = 0;
    EXPECT_EQ(calyth_validatePassword("SN1", "5678", 1, &left, nullptr), 0);
}

TEST_F(AdminToolTest, ExportedPublicKeysAreReadByOpenSsl) {
    makeToken("SN1");
    for (const char* type : {"rsa1024", "p521"}) {
        Bytes key = unhex(makeKey("SN1", type, "--label exported"));
        std::string pem;
        ASSERT_EQ(calythToken("export-pubkey --serial SN1 --key " + hex(key), &pem), 0);
        EXPECT_EQ(pem.compare(0, 26, "-----BEGIN PUBLIC KEY-----"), 0) << pem;
        exportPublicKey("SN1", hex(key), file("k.pem"));
        ASSERT_EQ(calythToken("export-pubkey --der --serial SN1 --key exported --out " + file("k.der")), 0);
        ASSERT_EQ(openssl("pkey -pubin -in " + unixPath(file("k.pem")) + " -outform DER -out " +
                          unixPath(file("o.der"))),
                  0);
        EXPECT_EQ(readFile(file("k.der")), readFile(file("o.der"))) << type;
        ASSERT_EQ(calythToken("delkey --serial SN1 --key exported"), 0);
    }
}

TEST_F(AdminToolTest, ImportedCertificatesAreLinkedListedAndExported) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "p256", "--label signer"));
    exportPublicKey("SN1", hex(key), file("k.pem"));
    ASSERT_EQ(
        openssl("genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out " + unixPath(file("ca.key"))),
        0);
    ASSERT_EQ(openssl("x509 -new -subj /CN=Issuer -key " + unixPath(file("ca.key")) + " -out " +
                      unixPath(file("ca.pem"))),
              0);
    ASSERT_EQ(openssl("x509 -new -subj /CN=Holder -force_pubkey " + unixPath(file("k.pem")) + " -CA " +
                      unixPath(file("ca.pem")) + " -CAkey " + unixPath(file("ca.key")) + " -out " +
                      unixPath(file("leaf.pem"))),
              0);
    ASSERT_EQ(openssl("x509 -in " + unixPath(file("leaf.pem")) + " -outform DER -out " +
                      unixPath(file("leaf.der"))),
              0);
    std::string output;
    ASSERT_EQ(calythToken("import-cert --serial SN1 --in " + file("leaf.pem") + " --label mine", &output), 0)
        << output;
    EXPECT_TRUE(contains(output, "\"mine\" key=" + hex(key))) << output;
    ASSERT_EQ(calythToken("import-cert --serial SN1 --in " + file("ca.pem"), &output), 0) << output;
    EXPECT_TRUE(contains(output, "\"Issuer\" key=none")) << output;
    std::vector<CalythCertificate> certificates = calyth_getCertificateList("SN1", nullptr);
    ASSERT_EQ(certificates.size(), 2u);
    EXPECT_EQ(Bytes(certificates[0].der, certificates[0].der + certificates[0].derLength),
              readFile(file("leaf.der")));
    EXPECT_EQ(std::memcmp(certificates[0].keyId, key.data(), 16), 0);

    ASSERT_EQ(calythToken("list", &output), 0);
    EXPECT_TRUE(contains(output, "label=\"signer\"")) << output;
    EXPECT_TRUE(contains(output, "CN=Holder")) << output;
    ASSERT_EQ(calythToken("export-cert --serial SN1 --cert mine --out " + file("back.der")), 0);
    EXPECT_EQ(readFile(file("back.der")), readFile(file("leaf.der")));
}

TEST_F(AdminToolTest, StoreOptionOverridesTheEnvironment) {
    std::string other = file("other-store");
    std::string output;
    ASSERT_EQ(calythToken("--store " + other + " init --serial SN5 --pin 1234", &output), 0) << output;
    EXPECT_NE(GetFileAttributesA((other + "\\SN5.token").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_TRUE(calyth_getConnectedDeviceList(false, nullptr).empty());
    SetEnvironmentVariableA("CALYTH_TOKEN_STORE", other.c_str());
    EXPECT_EQ(calyth_getConnectedDeviceList(false, nullptr), std::vector<std::string>{"SN5"});
}

TEST_F(AdminToolTest, ResetUnlockAndDeleteForTests) {
    makeToken("SN1");
    unhex(makeKey("SN1", "p256"));
    ASSERT_EQ(calythToken("import-aes --serial SN1 --key 000102030405060708090A0B0C0D0E0F --label kek"), 0);
    ASSERT_EQ(calyth_getAesKeyList("SN1", nullptr).size(), 1u);
    EXPECT_STREQ(calyth_getAesKeyList("SN1", nullptr)[0].label, "kek");
    ASSERT_EQ(calythToken("fault --serial SN1 --function initDevice --code 9 --always"), 0);
    ASSERT_EQ(calythToken("sso --serial SN1 on"), 0);
    ASSERT_EQ(calythToken("unplug --serial SN1"), 0);
    int left = 0;
    EXPECT_NE(calyth_validatePassword("SN1", "0000", 1, &left, nullptr), 0);

    ASSERT_EQ(calythToken("reset --serial SN1"), 0);
    EXPECT_EQ(calyth_initDevice("SN1", false, nullptr), 0);
    EXPECT_TRUE(calyth_getKeyPairList("SN1", nullptr).empty());
    EXPECT_TRUE(calyth_getAesKeyList("SN1", nullptr).empty());
    TokenInfo info = calyth_getTokenInfo("SN1", nullptr);
    EXPECT_EQ(info.ssoValid, 0);
    EXPECT_EQ(info.pinAttemptsLeft, 10);

    ASSERT_EQ(calythToken("unlock --serial SN1 --pin 5678"), 0);
    EXPECT_NE(calyth_validatePassword("SN1", "1234", 1, &left, nullptr), 0);
    EXPECT_EQ(calyth_validatePassword("SN1", "5678", 1, &left, nullptr), 0);

    ASSERT_EQ(calythToken("delete --serial SN1"), 0);
    EXPECT_TRUE(calyth_getConnectedDeviceList(false, nullptr).empty());
    EXPECT_NE(calyth_initDevice("SN1", false, nullptr), 0);
    EXPECT_EQ(calythToken("delete --serial SN1"), 1);
}

namespace {

// Signs a SHA-256 digest of `message` with a token key (PKCS #1 v1.5 or ECDSA r||s); empty on failure.
Bytes signOnToken(const std::string& serial, const Bytes& keyId, const Bytes& message) {
    Bytes hash = digest(CALYTH_HASH_SHA256, message);
    Bytes signature(1024);
    int length = static_cast<int>(signature.size());
    int result =
        calyth_signHash(serial.c_str(), keyId.data(), "1234", hash.data(), static_cast<int>(hash.size()),
                        signature.data(), &length, true, nullptr, false);
    EXPECT_EQ(result, 0);
    signature.resize(result == 0 ? static_cast<size_t>(length) : 0);
    return signature;
}

}  // namespace

TEST_F(AdminToolTest, ImportedPrivateKeysSignAsTheirOpenSslOriginals) {
    makeToken("SN1");
    const Bytes message = bytesOf("signed by a key OpenSSL made");
    writeFile(file("m.bin"), message);
    struct Case {
        const char* make;     // openssl arguments writing k.pem (its Unix path for %s)
        const char* convert;  // openssl arguments from k.pem to k.src (%s twice), or null for k.pem itself
        const char* type;
        int32_t sizeCode;
    } cases[] = {
        {"genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out %s", nullptr, "RSA-2048 PKCS #8 PEM", 2},
        {"genrsa -traditional -out %s 1024", nullptr, "RSA-1024 PKCS #1 PEM", 1},
        {"genrsa -out %s 3072", "rsa -in %s -traditional -outform DER -out %s", "RSA-3072 PKCS #1 DER", 3},
        {"ecparam -name prime256v1 -genkey -noout -out %s", nullptr, "P-256 SEC1 PEM", 5},
        {"genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-384 -out %s", "pkey -in %s -outform DER -out %s",
         "P-384 PKCS #8 DER", 6},
        {"ecparam -name secp521r1 -genkey -noout -out %s", "ec -in %s -outform DER -out %s", "P-521 SEC1 DER",
         7},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        char command[1024];
        std::snprintf(command, sizeof command, c.make, unixPath(file("k.pem")).c_str());
        ASSERT_EQ(openssl(command), 0) << command;
        std::string source = file("k.pem");
        if (c.convert) {
            source = file("k.src");
            std::snprintf(command, sizeof command, c.convert, unixPath(file("k.pem")).c_str(),
                          unixPath(source).c_str());
            ASSERT_EQ(openssl(command), 0) << command;
        }
        std::string id;
        ASSERT_EQ(calythToken("import-key --serial SN1 --usage sign --label imported --in " + source, &id), 0)
            << id;
        ASSERT_EQ(id.size(), 33u) << id;
        Bytes key = unhex(id.substr(0, 32));
        CalythKeyPair record = keyRecord("SN1", key);
        EXPECT_EQ(record.keySizeCode, c.sizeCode);
        EXPECT_EQ(record.keyUsage, 1);
        EXPECT_STREQ(record.label, "imported");

        // The token holds the same key: same public key, and OpenSSL accepts the token's signature.
        exportPublicKey("SN1", hex(key), file("token.pem"));
        ASSERT_EQ(openssl("pkey -in " + unixPath(file("k.pem")) + " -pubout -out " + unixPath(file("o.pem"))),
                  0);
        EXPECT_EQ(readFile(file("token.pem")), readFile(file("o.pem")));
        Bytes signature = signOnToken("SN1", key, message);
        if (c.sizeCode >= 5)
            signature = ecdsaSignatureToDer(signature);
        writeFile(file("s.bin"), signature);
        std::string output;
        EXPECT_EQ(openssl("dgst -sha256 -verify " + unixPath(file("o.pem")) + " -signature " +
                              unixPath(file("s.bin")) + " " + unixPath(file("m.bin")),
                          &output),
                  0)
            << output;
        ASSERT_EQ(calythToken("delkey --serial SN1 --key imported"), 0);
    }
}

TEST_F(AdminToolTest, ImportKeyTakesAnEcKeyWithoutItsPublicPointAndDefaultsToBothUsages) {
    makeToken("SN1");
    ASSERT_EQ(openssl("ecparam -name secp384r1 -genkey -noout -out " + unixPath(file("full.pem"))), 0);
    ASSERT_EQ(
        openssl("ec -in " + unixPath(file("full.pem")) + " -no_public -out " + unixPath(file("bare.pem"))),
        0);
    std::string id;
    ASSERT_EQ(calythToken("import-key --serial SN1 --in " + file("bare.pem"), &id), 0) << id;
    Bytes key = unhex(id.substr(0, 32));
    EXPECT_EQ(keyRecord("SN1", key).keyUsage, 3);
    EXPECT_STREQ(keyRecord("SN1", key).label, "");
    exportPublicKey("SN1", hex(key), file("token.pem"));
    ASSERT_EQ(openssl("pkey -in " + unixPath(file("full.pem")) + " -pubout -out " + unixPath(file("o.pem"))),
              0);
    EXPECT_EQ(readFile(file("token.pem")), readFile(file("o.pem")));
}

TEST_F(AdminToolTest, ImportKeyRefusesWhatTheTokenCannotKeep) {
    makeToken("SN1");
    std::string output;
    ASSERT_EQ(openssl("genrsa -out " + unixPath(file("odd.pem")) + " 1536"), 0);
    EXPECT_EQ(calythToken("import-key --serial SN1 --in " + file("odd.pem"), &output), 1) << output;
    EXPECT_TRUE(contains(output, "does not keep")) << output;
    ASSERT_EQ(openssl("genpkey -algorithm ED25519 -out " + unixPath(file("ed.pem"))), 0);
    EXPECT_EQ(calythToken("import-key --serial SN1 --in " + file("ed.pem"), &output), 1) << output;
    writeFile(file("junk.der"), bytesOf("not a key at all"));
    EXPECT_EQ(calythToken("import-key --serial SN1 --in " + file("junk.der"), &output), 1) << output;
    EXPECT_EQ(calythToken("import-key --serial SN1 --in " + file("missing.pem"), &output), 1) << output;
    ASSERT_EQ(openssl("ecparam -name prime256v1 -genkey -noout -out " + unixPath(file("ok.pem"))), 0);
    EXPECT_EQ(calythToken("import-key --serial SN1 --usage sideways --in " + file("ok.pem"), &output), 2)
        << output;
    EXPECT_EQ(calythToken("import-key --serial SN1", &output), 2) << output;
    EXPECT_EQ(calythToken("import-key --serial NOPE --in " + file("ok.pem"), &output), 1) << output;
    EXPECT_TRUE(calyth_getKeyPairList("SN1", nullptr).empty());
}
