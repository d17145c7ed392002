// The admin command calyth-token.exe: help, bad input, and the commands seen through the library.
#include <windows.h>

#include <cstring>
#include <gtest/gtest.h>

#include "softtoken_support.h"
#include "support/test_support.h"

using namespace st;

namespace {

using AdminToolTest = StoreTest;

const char* const kCommands[] = {
    "init",   "list",  "delete", "plug",   "unplug",        "sso",         "set-firmware", "fault",
    "unlock", "reset", "genkey", "delkey", "export-pubkey", "import-cert", "export-cert",  "import-aes"};

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
    ASSERT_EQ(tool("--help", &output), 0);
    for (const char* command : kCommands)
        EXPECT_TRUE(contains(output, std::string("  ") + command + " ")) << command << "\n" << output;
    for (const char* command : kCommands) {
        ASSERT_EQ(tool(std::string(command) + " --help", &output), 0) << command;
        EXPECT_EQ(output.compare(0, 13 + std::strlen(command), std::string("calyth-token ") + command), 0)
            << output;
        std::string viaHelp;
        ASSERT_EQ(tool(std::string("help ") + command, &viaHelp), 0);
        EXPECT_EQ(viaHelp, output);
    }
}

TEST_F(AdminToolTest, BadCommandLinesExitWithTwoAndSayWhy) {
    std::string output;
    EXPECT_EQ(tool("", &output), 2);
    EXPECT_TRUE(contains(output, "usage")) << output;
    EXPECT_EQ(tool("frobnicate", &output), 2);
    EXPECT_TRUE(contains(output, "unknown command 'frobnicate'")) << output;
    EXPECT_EQ(tool("init --pin 1234", &output), 2);
    EXPECT_TRUE(contains(output, "missing --serial")) << output;
    EXPECT_EQ(tool("init --serial a/b --pin 1234", &output), 2);
    EXPECT_TRUE(contains(output, "invalid serial")) << output;
    EXPECT_EQ(tool("init --serial SN1 --pin 12", &output), 2);
    EXPECT_TRUE(contains(output, "PIN")) << output;
    EXPECT_EQ(tool("init --serial SN1 --pin 1234 --retries many", &output), 2);
    EXPECT_TRUE(contains(output, "--retries")) << output;
    EXPECT_EQ(tool("init --serial SN1 --pin 1234 --bogus", &output), 2);
    EXPECT_TRUE(contains(output, "unknown option '--bogus'")) << output;
    EXPECT_EQ(tool("init --serial SN1 --pin", &output), 2);
    EXPECT_TRUE(contains(output, "--pin needs a value")) << output;
    makeToken("SN1");
    EXPECT_EQ(tool("genkey --serial SN1 --type rsa999", &output), 2);
    EXPECT_TRUE(contains(output, "unknown key type 'rsa999'")) << output;
    EXPECT_EQ(tool("genkey --serial SN1 --usage everything", &output), 2);
    EXPECT_EQ(tool("sso --serial SN1 maybe", &output), 2);
    EXPECT_EQ(tool("fault --serial SN1 --function signHash --code 0", &output), 2);
    EXPECT_EQ(tool("fault --serial SN1 --function noSuchFunction --code 5", &output), 2);
    EXPECT_EQ(tool("import-aes --serial SN1 --key XYZ", &output), 2);
    EXPECT_TRUE(calyth_getKeyPairList("SN1", nullptr).empty());
}

TEST_F(AdminToolTest, CommandsThatCannotBeCarriedOutExitWithOne) {
    std::string output;
    EXPECT_EQ(tool("genkey --serial SN9 --type p256", &output), 1);
    EXPECT_TRUE(contains(output, "SN9")) << output;
    makeToken("SN1");
    EXPECT_EQ(tool("init --serial SN1 --pin 1234", &output), 1);
    EXPECT_TRUE(contains(output, "already exists")) << output;
    EXPECT_EQ(tool("delkey --serial SN1 --key 00112233445566778899AABBCCDDEEFF", &output), 1);
    EXPECT_EQ(tool("export-pubkey --serial SN1 --key nolabel", &output), 1);
    writeBytes(file("junk.cer"), bytesOf("not a certificate"));
    EXPECT_EQ(tool("import-cert --serial SN1 --in " + file("junk.cer"), &output), 1);
    EXPECT_TRUE(contains(output, "not a DER or PEM certificate")) << output;
    EXPECT_EQ(tool("import-cert --serial SN1 --in " + file("missing.cer"), &output), 1);
    EXPECT_EQ(tool("import-aes --serial SN1 --key 0011", &output), 1);
    EXPECT_EQ(tool("list --serial SN2", &output), 1);
}

TEST_F(AdminToolTest, InitWithForceReplacesTheToken) {
    makeToken("SN1", "--label First");
    makeKey("SN1", "p256");
    std::string output;
    ASSERT_EQ(
        tool("init --serial SN1 --pin 5678 --label Second --retries 4 --firmware 3.0.1 --force", &output), 0)
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
        Bytes key = makeKey("SN1", type, "--label exported");
        std::string pem;
        ASSERT_EQ(tool("export-pubkey --serial SN1 --key " + hex(key), &pem), 0);
        EXPECT_EQ(pem.compare(0, 26, "-----BEGIN PUBLIC KEY-----"), 0) << pem;
        exportPublicKey("SN1", key, file("k.pem"));
        ASSERT_EQ(tool("export-pubkey --der --serial SN1 --key exported --out " + file("k.der")), 0);
        ASSERT_EQ(openssl("pkey -pubin -in " + u(file("k.pem")) + " -outform DER -out " + u(file("o.der"))),
                  0);
        EXPECT_EQ(readBytes(file("k.der")), readBytes(file("o.der"))) << type;
        ASSERT_EQ(tool("delkey --serial SN1 --key exported"), 0);
    }
}

TEST_F(AdminToolTest, ImportedCertificatesAreLinkedListedAndExported) {
    makeToken("SN1");
    Bytes key = makeKey("SN1", "p256", "--label signer");
    exportPublicKey("SN1", key, file("k.pem"));
    ASSERT_EQ(openssl("genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out " + u(file("ca.key"))), 0);
    ASSERT_EQ(openssl("x509 -new -subj /CN=Issuer -key " + u(file("ca.key")) + " -out " + u(file("ca.pem"))),
              0);
    ASSERT_EQ(openssl("x509 -new -subj /CN=Holder -force_pubkey " + u(file("k.pem")) + " -CA " +
                      u(file("ca.pem")) + " -CAkey " + u(file("ca.key")) + " -out " + u(file("leaf.pem"))),
              0);
    ASSERT_EQ(openssl("x509 -in " + u(file("leaf.pem")) + " -outform DER -out " + u(file("leaf.der"))), 0);
    std::string output;
    ASSERT_EQ(tool("import-cert --serial SN1 --in " + file("leaf.pem") + " --label mine", &output), 0)
        << output;
    EXPECT_TRUE(contains(output, "\"mine\" key=" + hex(key))) << output;
    ASSERT_EQ(tool("import-cert --serial SN1 --in " + file("ca.pem"), &output), 0) << output;
    EXPECT_TRUE(contains(output, "\"Issuer\" key=none")) << output;
    std::vector<CalythCertificate> certificates = calyth_getCertificateList("SN1", nullptr);
    ASSERT_EQ(certificates.size(), 2u);
    EXPECT_EQ(Bytes(certificates[0].der, certificates[0].der + certificates[0].derLength),
              readBytes(file("leaf.der")));
    EXPECT_EQ(std::memcmp(certificates[0].keyId, key.data(), 16), 0);

    ASSERT_EQ(tool("list", &output), 0);
    EXPECT_TRUE(contains(output, "label=\"signer\"")) << output;
    EXPECT_TRUE(contains(output, "CN=Holder")) << output;
    ASSERT_EQ(tool("export-cert --serial SN1 --cert mine --out " + file("back.der")), 0);
    EXPECT_EQ(readBytes(file("back.der")), readBytes(file("leaf.der")));
}

TEST_F(AdminToolTest, StoreOptionOverridesTheEnvironment) {
    std::string other = file("other-store");
    std::string output;
    ASSERT_EQ(tool("--store " + other + " init --serial SN5 --pin 1234", &output), 0) << output;
    EXPECT_NE(GetFileAttributesA((other + "\\SN5.token").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_TRUE(calyth_getConnectedDeviceList(false, nullptr).empty());
    SetEnvironmentVariableA("CALYTH_TOKEN_STORE", other.c_str());
    EXPECT_EQ(calyth_getConnectedDeviceList(false, nullptr), std::vector<std::string>{"SN5"});
}

TEST_F(AdminToolTest, ResetUnlockAndDeleteForTests) {
    makeToken("SN1");
    makeKey("SN1", "p256");
    ASSERT_EQ(tool("import-aes --serial SN1 --key 000102030405060708090A0B0C0D0E0F --label kek"), 0);
    ASSERT_EQ(calyth_getAesKeyList("SN1", nullptr).size(), 1u);
    EXPECT_STREQ(calyth_getAesKeyList("SN1", nullptr)[0].label, "kek");
    ASSERT_EQ(tool("fault --serial SN1 --function initDevice --code 9 --always"), 0);
    ASSERT_EQ(tool("sso --serial SN1 on"), 0);
    ASSERT_EQ(tool("unplug --serial SN1"), 0);
    int left = 0;
    EXPECT_NE(calyth_validatePassword("SN1", "0000", 1, &left, nullptr), 0);

    ASSERT_EQ(tool("reset --serial SN1"), 0);
    EXPECT_EQ(calyth_initDevice("SN1", false, nullptr), 0);
    EXPECT_TRUE(calyth_getKeyPairList("SN1", nullptr).empty());
    EXPECT_TRUE(calyth_getAesKeyList("SN1", nullptr).empty());
    TokenInfo info = calyth_getTokenInfo("SN1", nullptr);
    EXPECT_EQ(info.ssoValid, 0);
    EXPECT_EQ(info.pinAttemptsLeft, 10);

    ASSERT_EQ(tool("unlock --serial SN1 --pin 5678"), 0);
    EXPECT_NE(calyth_validatePassword("SN1", "1234", 1, &left, nullptr), 0);
    EXPECT_EQ(calyth_validatePassword("SN1", "5678", 1, &left, nullptr), 0);

    ASSERT_EQ(tool("delete --serial SN1"), 0);
    EXPECT_TRUE(calyth_getConnectedDeviceList(false, nullptr).empty());
    EXPECT_NE(calyth_initDevice("SN1", false, nullptr), 0);
    EXPECT_EQ(tool("delete --serial SN1"), 1);
}
