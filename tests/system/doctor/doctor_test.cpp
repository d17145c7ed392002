// calyth-doctor run as an administrator runs it, against the provider registered as an installer
// registers it and soft tokens in this program's own store: every check healthy, then each broken
// state it must name, with its verdict line and exit code.
#include <windows.h>

#include <wincrypt.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/test_support.h"
#include "support/token_tool.h"
#include "token/device_library.h"

using namespace testsupport;

namespace {

constexpr const char* kPin = "739146";

struct DoctorRun {
    int exitCode = -1;
    std::string output;
};

DoctorRun runDoctor(const std::string& arguments, const std::string& program = "") {
    DoctorRun run;
    std::string doctor = program.empty() ? programFolder() + "calyth-doctor.exe" : program;
    run.exitCode = testsupport::runCommand("\"" + doctor + "\" " + arguments, &run.output);
    return run;
}

bool hasLine(const DoctorRun& run, const std::string& start) {
    return run.output.find("\n" + start) != std::string::npos;
}

LONG setImagePath(const std::string& path) {
    HKEY key = nullptr;
    LONG status = RegOpenKeyExA(HKEY_LOCAL_MACHINE, kProviderKey, 0, KEY_SET_VALUE, &key);
    if (status != ERROR_SUCCESS)
        return status;
    status = RegSetValueExA(key, "Image Path", 0, REG_SZ, reinterpret_cast<const BYTE*>(path.c_str()),
                            static_cast<DWORD>(path.size() + 1));
    RegCloseKey(key);
    return status;
}

class Doctor : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(registerProvider(), ERROR_SUCCESS);
        // An empty installation root: no CA folder unless a test makes one.
        home_ = testsupport::tempFolder() + "home";
        CreateDirectoryA(home_.c_str(), nullptr);
        SetEnvironmentVariableA("CALYTH_HOME", home_.c_str());
        useFreshTokenStore(::testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    void TearDown() override {
        registerProvider();
        runCommand("\"" + programFolder() + "calyth-agent.exe\" --remove-all");
        setAgentStart(false);
    }

    // The certificate agent set to start at logon, as the installer sets it, or not.
    static void setAgentStart(bool on) {
        HKEY key = nullptr;
        ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, kRunKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key,
                                  nullptr),
                  ERROR_SUCCESS);
        std::string command = "\"" + programFolder() + "calyth-agent.exe\"";
        if (on)
            RegSetValueExA(key, kAgentValue, 0, REG_SZ, reinterpret_cast<const BYTE*>(command.c_str()),
                           static_cast<DWORD>(command.size() + 1));
        else
            RegDeleteValueA(key, kAgentValue);
        RegCloseKey(key);
    }

    static constexpr const char* kRunKey = "Software\\Microsoft\\Windows\\CurrentVersion\\Run";
    static constexpr const char* kAgentValue = "Calyth Certificate Agent";

    // A token SN1 with a signature key; answers its id.
    std::string tokenWithKey(const std::string& serial = "SN1") {
        EXPECT_TRUE(makeToken(serial, std::string("--pin ") + kPin));
        return makeKey(serial, "rsa2048", "--usage sign --label signer");
    }

    // A self-signed authority made by OpenSSL in the temp folder.
    void makeAuthority(const std::string& name) {
        std::string output;
        ASSERT_EQ(runOpenSsl("req -x509 -newkey rsa:2048 -nodes -keyout " + unix(name + ".key") +
                                 " -subj /CN=" + name + " -days 30 -out " + unix(name + ".pem"),
                             &output),
                  0)
            << output;
    }

    // A certificate for the token key, issued by `authority`, stored on the token.
    void certifyKey(const std::string& serial, const std::string& keyId, const std::string& subject,
                    const std::string& authority, int days = 30) {
        std::string publicKey = exportPublicKey(serial, keyId, tempPath(subject + "-key.pem"));
        std::string output;
        ASSERT_EQ(runOpenSsl("x509 -new -subj /CN=" + subject + " -force_pubkey " +
                                 testsupport::unixPath(publicKey) + " -CA " + unix(authority + ".pem") +
                                 " -CAkey " + unix(authority + ".key") + " -days " + std::to_string(days) +
                                 " -out " + unix(subject + ".pem"),
                             &output),
                  0)
            << output;
        storeCertificate(serial, subject);
    }

    void storeCertificate(const std::string& serial, const std::string& name) {
        std::string output;
        ASSERT_EQ(calythToken("import-cert --serial " + serial + " --in \"" + tempPath(name + ".pem") + "\"",
                              &output),
                  0)
            << output;
    }

    static std::string unix(const std::string& fileName) { return testsupport::unixPath(tempPath(fileName)); }

    std::string home_;
};

TEST_F(Doctor, EveryCheckHealthyWithSignaturesThroughBothFrontEnds) {
    std::string keyId = tokenWithKey();
    makeAuthority("Doctor-Root");
    certifyKey("SN1", keyId, "Alice", "Doctor-Root");
    storeCertificate("SN1", "Doctor-Root");
    setAgentStart(true);
    std::string agentOutput;
    ASSERT_EQ(runCommand("\"" + programFolder() + "calyth-agent.exe\" --once", &agentOutput), 0)
        << agentOutput;
    // A private authority: the chain builds to its root, which this machine does not trust.
    DoctorRun run = runDoctor("--sign-test --pin " + std::string(kPin));

    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(hasLine(run, "[ ok ] CryptoAPI registration (64-bit): " + providerImagePath() +
                                 ", type 1, loads, all 24 entry points exported"))
        << run.output;
    EXPECT_TRUE(hasLine(run, "[skip] CryptoAPI registration (32-bit): not registered")) << run.output;
    EXPECT_TRUE(hasLine(run, "[ ok ] Key storage provider: GetKeyStorageInterface answers a complete table"))
        << run.output;
    EXPECT_TRUE(
        hasLine(run, "[ ok ] Device library: " + programFolder() + "CalythDSCLibrary.dll, all 27 functions"))
        << run.output;
    EXPECT_TRUE(hasLine(run, "[ ok ] Log: level 3 (DEBUG and ERROR lines) from REG_DWORD 3")) << run.output;
    EXPECT_TRUE(hasLine(run, "[ ok ] Tokens: 1 connected: SN1")) << run.output;
    EXPECT_TRUE(hasLine(run,
                        "[ ok ] Token SN1: label \"SN1\", firmware 2.1.0, single sign-on off, 10 PIN "
                        "attempts left"))
        << run.output;
    EXPECT_NE(run.output.find("key " + keyId + " \"signer\": RSA-2048, signature, certificate \"CN=Alice\""),
              std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("CA certificate \"CN=Doctor-Root\""), std::string::npos) << run.output;
    EXPECT_TRUE(hasLine(run,
                        "[warn] Certificate \"CN=Alice\" on SN1: the root Doctor-Root is not trusted on this "
                        "machine; issued by \"CN=Doctor-Root\", valid "))
        << run.output;
    EXPECT_NE(run.output.find("chain: Alice < Doctor-Root"), std::string::npos) << run.output;
    EXPECT_TRUE(hasLine(run, "[ ok ] Signature through CryptoAPI: key " + keyId)) << run.output;
    EXPECT_TRUE(hasLine(run, "[ ok ] Signature through the key storage provider: key " + keyId))
        << run.output;
    EXPECT_EQ(run.output.find("[FAIL]"), std::string::npos) << run.output;
    EXPECT_TRUE(hasLine(
        run, "[ ok ] Certificate agent: starts at every logon: " + programFolder() + "calyth-agent.exe"))
        << run.output;
    EXPECT_TRUE(hasLine(run,
                        "[ ok ] Certificates in the user's store: every certificate of the connected "
                        "tokens' keys (1) is in MY with the key provider information of its key"))
        << run.output;
    EXPECT_NE(run.output.find("12 checks: 10 ok, 1 warn, 0 failed, 1 skipped"), std::string::npos)
        << run.output;
    EXPECT_EQ(run.output.find(kPin), std::string::npos) << "the PIN is shown:\n" << run.output;
}

TEST_F(Doctor, JsonCarriesTheSameReport) {
    tokenWithKey();
    DoctorRun run = runDoctor("--json");
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_EQ(run.output.rfind("{", 0), 0u) << run.output;
    EXPECT_NE(run.output.find("\"tool\": \"calyth-doctor\","), std::string::npos) << run.output;
    EXPECT_EQ(run.output.find("Unable to write log"), std::string::npos) << run.output;
    EXPECT_NE(
        run.output.find("{\"check\": \"Tokens\", \"verdict\": \"ok\", \"detail\": \"1 connected: SN1\""),
        std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("{\"check\": \"Key storage provider\", \"verdict\": \"ok\""), std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("\"failed\": 0,"), std::string::npos) << run.output;
}

TEST_F(Doctor, ProviderNotRegistered) {
    tokenWithKey();
    ASSERT_EQ(RegDeleteKeyA(HKEY_LOCAL_MACHINE, kProviderKey), ERROR_SUCCESS);
    DoctorRun run = runDoctor("");
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_TRUE(
        hasLine(run, "[FAIL] CryptoAPI registration (64-bit): the provider is not registered: HKLM\\" +
                         std::string(kProviderKey) + " is missing"))
        << run.output;
    EXPECT_NE(run.output.find("what to do: install the provider"), std::string::npos) << run.output;

    DoctorRun json = runDoctor("--json");
    EXPECT_EQ(json.exitCode, 1) << json.output;
    EXPECT_NE(json.output.find("{\"check\": \"CryptoAPI registration (64-bit)\", \"verdict\": \"failed\""),
              std::string::npos)
        << json.output;
}

TEST_F(Doctor, ImagePathPointingNowhere) {
    tokenWithKey();
    ASSERT_EQ(setImagePath("C:\\nowhere\\CalythCSP.dll"), ERROR_SUCCESS);
    DoctorRun run = runDoctor("");
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_TRUE(hasLine(run,
                        "[FAIL] CryptoAPI registration (64-bit): the image path points nowhere: "
                        "C:\\nowhere\\CalythCSP.dll does not exist"))
        << run.output;
    EXPECT_NE(run.output.find("what to do: reinstall the provider, or set \"Image Path\""), std::string::npos)
        << run.output;
}

TEST_F(Doctor, DeviceLibraryMissing) {
    tokenWithKey();
    // The doctor and the provider in a folder of their own, without CalythDSCLibrary.dll.
    std::string folder = testsupport::tempFolder() + "no-device-library\\";
    CreateDirectoryA(folder.c_str(), nullptr);
    ASSERT_TRUE(CopyFileA((programFolder() + "calyth-doctor.exe").c_str(),
                          (folder + "calyth-doctor.exe").c_str(), FALSE));
    ASSERT_TRUE(CopyFileA(providerImagePath().c_str(), (folder + "CalythCSP.dll").c_str(), FALSE));
    ASSERT_EQ(setImagePath(folder + "CalythCSP.dll"), ERROR_SUCCESS);

    DoctorRun run = runDoctor("", folder + "calyth-doctor.exe");
    EXPECT_EQ(run.exitCode, 1) << run.output;
    // Only the provider's own folder counts.
    EXPECT_TRUE(hasLine(run, "[FAIL] Device library: CalythDSCLibrary.dll is not found beside the provider"))
        << run.output;
    EXPECT_NE(run.output.find("looked in " + folder), std::string::npos) << run.output;
    // The provider itself loads (the device library is delay-loaded) but does not open.
    EXPECT_TRUE(
        hasLine(run, "[ ok ] CryptoAPI registration (64-bit): " + folder + "CalythCSP.dll, type 1, loads"))
        << run.output;
    EXPECT_TRUE(hasLine(run, "[FAIL] Key storage provider: OpenProvider answers")) << run.output;
    EXPECT_TRUE(hasLine(run, "[skip] Tokens: not checked without a complete device library")) << run.output;
}

TEST_F(Doctor, NoTokenConnected) {
    DoctorRun run = runDoctor("");
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_TRUE(hasLine(run, "[FAIL] Tokens: no token connected")) << run.output;
    EXPECT_TRUE(hasLine(run, "[ ok ] CryptoAPI registration (64-bit)")) << run.output;

    DoctorRun signTest = runDoctor("--sign-test --pin " + std::string(kPin));
    EXPECT_EQ(signTest.exitCode, 1) << signTest.output;
    EXPECT_TRUE(hasLine(signTest, "[FAIL] Signature through CryptoAPI: not run: no RSA signature key"))
        << signTest.output;
}

TEST_F(Doctor, UnpluggedTokenIsNotConnected) {
    tokenWithKey();
    ASSERT_EQ(calythToken("unplug --serial SN1"), 0);
    DoctorRun run = runDoctor("");
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_TRUE(hasLine(run, "[FAIL] Tokens: no token connected")) << run.output;
}

TEST_F(Doctor, LockedToken) {
    std::string output;
    ASSERT_EQ(calythToken("init --serial SN2 --label Locked --retries 1 --pin " + std::string(kPin), &output),
              0)
        << output;
    // One wrong PIN through the device library locks a token with one retry.
    HMODULE library = LoadLibraryA((programFolder() + "CalythDSCLibrary.dll").c_str());
    ASSERT_NE(library, nullptr);
    auto validatePassword = reinterpret_cast<decltype(&calyth_validatePassword)>(
        reinterpret_cast<void*>(GetProcAddress(library, "calyth_validatePassword")));
    ASSERT_NE(validatePassword, nullptr);
    int attemptsLeft = -1;
    EXPECT_NE(validatePassword("SN2", "000000", 1, &attemptsLeft, nullptr), 0);
    EXPECT_EQ(attemptsLeft, 0);

    DoctorRun run = runDoctor("");
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_TRUE(hasLine(run, "[FAIL] Token SN2: the PIN is locked (no attempts left); label \"Locked\""))
        << run.output;
    EXPECT_NE(run.output.find("what to do: unblock the PIN"), std::string::npos) << run.output;
}

TEST_F(Doctor, ExpiredCertificate) {
    std::string keyId = tokenWithKey();
    makeAuthority("Doctor-CA");
    storeCertificate("SN1", "Doctor-CA");
    certifyKey("SN1", keyId, "Old", "Doctor-CA", -1);
    DoctorRun run = runDoctor("");
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_TRUE(hasLine(run, "[FAIL] Certificate \"CN=Old\" on SN1: expired")) << run.output;
    EXPECT_NE(run.output.find("what to do: renew the certificate"), std::string::npos) << run.output;
}

TEST_F(Doctor, CertificateWhoseIssuerIsMissing) {
    std::string keyId = tokenWithKey();
    makeAuthority("Absent-CA");
    certifyKey("SN1", keyId, "Orphan", "Absent-CA");
    DoctorRun run = runDoctor("");
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_TRUE(hasLine(run,
                        "[FAIL] Certificate \"CN=Orphan\" on SN1: the chain stops at Orphan: the certificate "
                        "of its issuer \"CN=Absent-CA\" is neither on the token, in the CA folder nor in the "
                        "system's stores"))
        << run.output;
    EXPECT_NE(run.output.find("what to do: copy the issuing authority's certificate"), std::string::npos)
        << run.output;

    // The same authority in the installation's CA folder completes the chain.
    std::string caFolder = home_ + "\\CalythDSC";
    CreateDirectoryA(caFolder.c_str(), nullptr);
    caFolder += "\\Certificates";
    CreateDirectoryA(caFolder.c_str(), nullptr);
    ASSERT_TRUE(CopyFileA(tempPath("Absent-CA.pem").c_str(), (caFolder + "\\Absent-CA.pem").c_str(), FALSE));
    DoctorRun fixed = runDoctor("");
    EXPECT_EQ(fixed.exitCode, 0) << fixed.output;
    EXPECT_TRUE(hasLine(fixed, "[warn] Certificate \"CN=Orphan\" on SN1: the root Absent-CA is not trusted"))
        << fixed.output;
}

TEST_F(Doctor, KeyWithoutCertificateIsAWarning) {
    std::string keyId = tokenWithKey();
    DoctorRun run = runDoctor("");
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(hasLine(run, "[warn] Key " + keyId + " on SN1: key pair without a certificate (RSA-2048)"))
        << run.output;
}

TEST_F(Doctor, WrongPinFailsTheSignatureTest) {
    tokenWithKey();
    DoctorRun run = runDoctor("--sign-test --pin 111111");
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_TRUE(
        hasLine(run, "[FAIL] Signature through CryptoAPI: CryptSetProvParam(PP_SIGNATURE_PIN) failed"))
        << run.output;
    EXPECT_EQ(run.output.find("111111"), std::string::npos) << run.output;
}

TEST_F(Doctor, AgentNotStartingAndCertificatesMissingFromTheStoreAreWarningsWithTheFix) {
    std::string keyId = tokenWithKey();
    makeAuthority("Doctor-Agent-Root");
    certifyKey("SN1", keyId, "Agentless", "Doctor-Agent-Root");
    storeCertificate("SN1", "Doctor-Agent-Root");
    DoctorRun run = runDoctor("");
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(hasLine(run,
                        "[warn] Certificate agent: not set to start at logon (no \"Calyth Certificate "
                        "Agent\" under HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Run)"))
        << run.output;
    EXPECT_TRUE(
        hasLine(run,
                "[warn] Certificates in the user's store: 1 of 1 certificates of the connected tokens "
                "are missing or wrong in MY"))
        << run.output;
    EXPECT_NE(run.output.find("CN=Agentless of token SN1 is not in MY"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("what to do: run calyth-agent --once"), std::string::npos) << run.output;

    // In the store, but with another key's provider information: still a warning.
    std::string der = tempPath("Agentless.der");
    std::string output;
    ASSERT_EQ(
        runOpenSsl("x509 -in " + unix("Agentless.pem") + " -outform DER -out " + testsupport::unixPath(der),
                   &output),
        0)
        << output;
    std::vector<unsigned char> bytes = readFile(der);
    HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_A, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, "MY");
    PCCERT_CONTEXT added = nullptr;
    ASSERT_TRUE(CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, bytes.data(),
                                                 static_cast<DWORD>(bytes.size()),
                                                 CERT_STORE_ADD_REPLACE_EXISTING, &added));
    wchar_t container[] = L"00000000000000000000000000000000";
    wchar_t provider[] = L"Calyth Cryptographic Provider CSP";
    CRYPT_KEY_PROV_INFO info{container, provider, PROV_RSA_FULL, 0, 0, nullptr, AT_SIGNATURE};
    EXPECT_TRUE(CertSetCertificateContextProperty(added, CERT_KEY_PROV_INFO_PROP_ID, 0, &info));
    CertFreeCertificateContext(added);
    CertControlStore(store, 0, CERT_STORE_CTRL_COMMIT, nullptr);
    CertCloseStore(store, 0);
    run = runDoctor("");
    EXPECT_NE(run.output.find(
                  "CN=Agentless of token SN1 is in MY without the key provider information of key " + keyId),
              std::string::npos)
        << run.output;

    // Taken out again: the user's own entry is not the agent's to remove.
    store = CertOpenStore(CERT_STORE_PROV_SYSTEM_A, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, "MY");
    PCCERT_CONTEXT own = CertFindCertificateInStore(store, X509_ASN_ENCODING, 0, CERT_FIND_SUBJECT_STR_A,
                                                    "Agentless", nullptr);
    ASSERT_NE(own, nullptr);
    CertDeleteCertificateFromStore(own);
    CertControlStore(store, 0, CERT_STORE_CTRL_COMMIT, nullptr);
    CertCloseStore(store, 0);
}

}  // namespace
