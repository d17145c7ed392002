// calyth-agent.exe as a user's session runs it, on soft tokens, with the current user's real "MY"
// and "CA" stores: --once and its lines and exit codes, the background instance following plugs and
// removals, its cost at rest, and the path an application takes afterwards (the certificate found
// by subject, its key acquired by crypt32, CryptSignMessage, the PIN asked once in the real dialog).
#include <windows.h>

#include <wincrypt.h>

#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "signer.h"
#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/simulated_user.h"
#include "support/test_support.h"
#include "support/token_tool.h"

using namespace testsupport;

namespace {

constexpr const char* kPin = "482915";
using Clock = std::chrono::steady_clock;

struct AgentRun {
    int exitCode = -1;
    std::string output;
};

std::string agentPath(const std::string& folder = programFolder()) {
    return folder + "calyth-agent.exe";
}

AgentRun agent(const std::string& arguments, const std::string& program = agentPath()) {
    AgentRun run;
    run.exitCode = runCommand("\"" + program + "\" " + arguments, &run.output);
    return run;
}

bool has(const AgentRun& run, const std::string& text) {
    return run.output.find(text) != std::string::npos;
}

// What the user's store holds for a subject: how many certificates carry it, and the key provider
// information of the first.
struct InStore {
    int count = 0;
    std::string container;
    std::string provider;
    DWORD providerType = 0;
    DWORD keySpec = 0;
    std::string friendlyName;
};

std::string narrow(const wchar_t* text) {
    std::string out;
    for (; text && *text; ++text)
        out.push_back(static_cast<char>(*text));
    return out;
}

InStore inStore(const char* storeName, const std::string& commonName) {
    InStore found;
    HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_A, 0, 0,
                                     CERT_SYSTEM_STORE_CURRENT_USER | CERT_STORE_READONLY_FLAG, storeName);
    PCCERT_CONTEXT certificate = nullptr;
    while (store && (certificate = CertEnumCertificatesInStore(store, certificate)) != nullptr) {
        char name[256] = {};
        CertGetNameStringA(certificate, CERT_NAME_ATTR_TYPE, 0, const_cast<char*>(szOID_COMMON_NAME), name,
                           sizeof name);
        if (commonName != name)
            continue;
        if (found.count++ > 0)
            continue;
        DWORD size = 0;
        if (CertGetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size)) {
            std::vector<unsigned char> buffer(size);
            CertGetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, buffer.data(), &size);
            const auto* info = reinterpret_cast<const CRYPT_KEY_PROV_INFO*>(buffer.data());
            found.container = narrow(info->pwszContainerName);
            found.provider = narrow(info->pwszProvName);
            found.providerType = info->dwProvType;
            found.keySpec = info->dwKeySpec;
        }
        wchar_t friendly[256] = {};
        size = sizeof friendly;
        if (CertGetCertificateContextProperty(certificate, CERT_FRIENDLY_NAME_PROP_ID, friendly, &size))
            found.friendlyName = narrow(friendly);
    }
    if (store)
        CertCloseStore(store, 0);
    return found;
}

// Waits up to `seconds` for the condition; answers how long it took, or -1 when it never held.
double waitFor(const std::function<bool()>& condition, double seconds = 20) {
    Clock::time_point start = Clock::now();
    while (std::chrono::duration<double>(Clock::now() - start).count() < seconds) {
        if (condition())
            return std::chrono::duration<double>(Clock::now() - start).count();
        Sleep(50);
    }
    return -1;
}

// The process's CPU time (user and kernel) in seconds.
double cpuSeconds(HANDLE process) {
    FILETIME created, exited, kernel, user;
    GetProcessTimes(process, &created, &exited, &kernel, &user);
    auto seconds = [](const FILETIME& time) {
        return ((static_cast<unsigned long long>(time.dwHighDateTime) << 32) | time.dwLowDateTime) / 1e7;
    };
    return seconds(kernel) + seconds(user);
}

class AgentSystem : public TokenStoreTest {
protected:
    void SetUp() override {
        TokenStoreTest::SetUp();
        ASSERT_EQ(registerProvider(), ERROR_SUCCESS);
        makeAuthority();
        agent("--remove-all");
    }
    void TearDown() override {
        stopBackground();
        agent("--remove-all");
    }

    // A test CA made by OpenSSL once per test, in the test's scratch folder.
    void makeAuthority() {
        std::string output;
        ASSERT_EQ(
            runOpenSsl("req -x509 -newkey rsa:2048 -nodes -sha256 -days 30 -subj /CN=Agent-Test-CA -keyout " +
                           unixPath(file("ca.key")) + " -out " + unixPath(file("ca.pem")),
                       &output),
            0)
            << output;
    }

    // A key of `type` on `serial` with a certificate for it (CN=commonName) stored on the token.
    std::string certifiedKey(const std::string& serial, const std::string& type, const std::string& usage,
                             const std::string& commonName) {
        std::string keyId = makeKey(serial, type, "--usage " + usage + " --label " + commonName);
        EXPECT_EQ(keyId.size(), 32u);
        std::string publicKey = exportPublicKey(serial, keyId, file(commonName + "-key.pem"));
        std::string output;
        EXPECT_EQ(runOpenSsl("x509 -new -subj /CN=" + commonName + " -force_pubkey " + unixPath(publicKey) +
                                 " -CA " + unixPath(file("ca.pem")) + " -CAkey " + unixPath(file("ca.key")) +
                                 " -days 30 -sha256 -out " + unixPath(file(commonName + ".pem")),
                             &output),
                  0)
            << output;
        EXPECT_EQ(
            calythToken("import-cert --serial " + serial + " --in \"" + file(commonName + ".pem") + "\"",
                        &output),
            0)
            << output;
        return keyId;
    }

    void startBackground() { ASSERT_TRUE(startProcess("\"" + agentPath() + "\"", &background_)); }
    void stopBackground() {
        if (!background_)
            return;
        agent("--stop");
        EXPECT_EQ(WaitForSingleObject(background_, 20000), WAIT_OBJECT_0)
            << "the background agent did not stop";
        CloseHandle(background_);
        background_ = nullptr;
    }

    void* background_ = nullptr;
};

TEST_F(AgentSystem, OnceAddsKeepsAndRemovesWithALinePerCertificate) {
    ASSERT_TRUE(makeToken("AGENT-1", "--label Desk --pin " + std::string(kPin)));
    std::string keyId = certifiedKey("AGENT-1", "rsa2048", "sign", "AgentOnce");
    // The root on the token too: the chain builds, to a root this machine does not trust.
    ASSERT_EQ(calythToken("import-cert --serial AGENT-1 --in \"" + file("ca.pem") + "\""), 0);

    AgentRun first = agent("--once");
    EXPECT_EQ(first.exitCode, 0) << first.output;
    EXPECT_TRUE(has(first, "added to MY: CN=AgentOnce (token AGENT-1, key " + keyId + ")")) << first.output;
    EXPECT_TRUE(has(first,
                    "the chain of CN=AgentOnce ends in the root CN=Agent-Test-CA, which this machine "
                    "does not trust"))
        << first.output;
    EXPECT_TRUE(has(first, "calyth-agent: 1 added, 0 updated, 0 removed, 0 kept")) << first.output;
    InStore entry = inStore("MY", "AgentOnce");
    EXPECT_EQ(entry.count, 1);
    EXPECT_EQ(entry.container, keyId);
    EXPECT_EQ(entry.provider, kProviderName);
    EXPECT_EQ(entry.providerType, static_cast<DWORD>(PROV_RSA_FULL));
    EXPECT_EQ(entry.keySpec, static_cast<DWORD>(AT_SIGNATURE));
    EXPECT_EQ(entry.friendlyName, "AgentOnce (Desk)");

    AgentRun second = agent("--once");
    EXPECT_EQ(second.exitCode, 0) << second.output;
    EXPECT_TRUE(has(second, "kept in MY: CN=AgentOnce (token AGENT-1, key " + keyId + ")")) << second.output;
    EXPECT_TRUE(has(second, "calyth-agent: 0 added, 0 updated, 0 removed, 1 kept")) << second.output;
    EXPECT_EQ(inStore("MY", "AgentOnce").count, 1);

    ASSERT_EQ(calythToken("unplug --serial AGENT-1"), 0);
    AgentRun third = agent("--once");
    EXPECT_EQ(third.exitCode, 0) << third.output;
    EXPECT_TRUE(has(third, "removed from MY: CN=AgentOnce (token AGENT-1)")) << third.output;
    EXPECT_EQ(inStore("MY", "AgentOnce").count, 0);
}

TEST_F(AgentSystem, RemoveAllTakesOutWhatTheAgentAdded) {
    ASSERT_TRUE(makeToken("AGENT-2"));
    certifiedKey("AGENT-2", "p256", "sign", "AgentEcRemoveAll");
    AgentRun once = agent("--once");
    ASSERT_EQ(once.exitCode, 0) << once.output;
    EXPECT_TRUE(has(once,
                    "the chain of CN=AgentEcRemoveAll stops at CN=AgentEcRemoveAll: its issuer is neither on "
                    "the token nor in the certificate stores"))
        << once.output;
    InStore entry = inStore("MY", "AgentEcRemoveAll");
    EXPECT_EQ(entry.count, 1);
    EXPECT_EQ(entry.providerType, 0u) << "an EC key is a CNG key";
    EXPECT_EQ(entry.keySpec, static_cast<DWORD>(AT_SIGNATURE));

    AgentRun run = agent("--remove-all");
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(has(run, "removed from MY: CN=AgentEcRemoveAll (token AGENT-2)")) << run.output;
    EXPECT_EQ(inStore("MY", "AgentEcRemoveAll").count, 0);
}

TEST_F(AgentSystem, CommandLineMistakesAndAMissingDeviceLibraryGetAMessageAndAnExitCode) {
    AgentRun unknown = agent("--later");
    EXPECT_EQ(unknown.exitCode, 2) << unknown.output;
    EXPECT_TRUE(has(unknown, "calyth-agent: unknown argument '--later'")) << unknown.output;
    EXPECT_TRUE(has(unknown, "usage: calyth-agent")) << unknown.output;
    EXPECT_EQ(agent("--once --stop").exitCode, 2);
    AgentRun help = agent("--help");
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(has(help, "--remove-all")) << help.output;

    // The agent takes the device library from beside the registered provider, as the provider
    // does, never from its own folder (which holds one here).
    std::string folder = tempFolder() + "agent-without-library\\";
    CreateDirectoryA(folder.c_str(), nullptr);
    ASSERT_EQ(registerProviderAt(folder + "CalythCSP.dll"), ERROR_SUCCESS);
    AgentRun once = agent("--once");
    ASSERT_EQ(registerProvider(), ERROR_SUCCESS);
    EXPECT_EQ(once.exitCode, 1) << once.output;
    EXPECT_TRUE(has(once, "calyth-agent: the device library CalythDSCLibrary.dll cannot be loaded from " +
                              folder + " (error 126)"))
        << once.output;

    AgentRun stop = agent("--stop");
    EXPECT_EQ(stop.exitCode, 1) << stop.output;
    EXPECT_TRUE(has(stop, "calyth-agent: no instance runs in this session")) << stop.output;
}

TEST_F(AgentSystem, InTheBackgroundItFollowsPlugsAndRemovalsOfTwoTokensAndRunsOnce) {
    ASSERT_TRUE(makeToken("AGENT-3"));
    ASSERT_TRUE(makeToken("AGENT-4"));
    certifiedKey("AGENT-3", "rsa2048", "sign", "AgentSigner");
    certifiedKey("AGENT-3", "rsa2048", "exchange", "AgentExchanger");
    certifiedKey("AGENT-4", "p256", "both", "AgentEcDual");
    ASSERT_EQ(calythToken("unplug --serial AGENT-4"), 0);
    ASSERT_NO_FATAL_FAILURE(startBackground());

    EXPECT_GE(waitFor([] { return inStore("MY", "AgentSigner").count == 1; }), 0);
    EXPECT_EQ(inStore("MY", "AgentExchanger").keySpec, static_cast<DWORD>(AT_KEYEXCHANGE));
    EXPECT_EQ(inStore("MY", "AgentEcDual").count, 0);

    AgentRun second = agent("");
    EXPECT_EQ(second.exitCode, 3) << second.output;
    EXPECT_TRUE(has(second, "calyth-agent: already running in this session; this start exits"))
        << second.output;

    ASSERT_EQ(calythToken("plug --serial AGENT-4"), 0);
    double plugged = waitFor([] { return inStore("MY", "AgentEcDual").count == 1; });
    EXPECT_GE(plugged, 0) << "the second token's certificate never came";
    EXPECT_EQ(inStore("MY", "AgentEcDual").keySpec, static_cast<DWORD>(AT_KEYEXCHANGE));
    ASSERT_EQ(calythToken("unplug --serial AGENT-3"), 0);
    double removed = waitFor([] { return inStore("MY", "AgentSigner").count == 0; });
    EXPECT_GE(removed, 0) << "the removed token's certificate stayed";
    EXPECT_EQ(inStore("MY", "AgentExchanger").count, 0);
    EXPECT_EQ(inStore("MY", "AgentEcDual").count, 1) << "the other token's certificate left too";
    ASSERT_EQ(calythToken("plug --serial AGENT-3"), 0);
    double back = waitFor([] { return inStore("MY", "AgentSigner").count == 1; });
    EXPECT_GE(back, 0);
    std::printf("background agent: plug seen after %.2f s, removal after %.2f s, plug again after %.2f s\n",
                plugged, removed, back);
}

TEST_F(AgentSystem, ATokenThatComesAndGoesEndsWithItsCertificateOnceOrNotAtAll) {
    ASSERT_TRUE(makeToken("AGENT-5"));
    certifiedKey("AGENT-5", "rsa2048", "sign", "AgentFlapping");
    ASSERT_NO_FATAL_FAILURE(startBackground());
    ASSERT_GE(waitFor([] { return inStore("MY", "AgentFlapping").count == 1; }), 0);
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(calythToken("unplug --serial AGENT-5"), 0);
        Sleep(300 + 400 * (i % 2));
        ASSERT_EQ(calythToken("plug --serial AGENT-5"), 0);
        EXPECT_LE(inStore("MY", "AgentFlapping").count, 1);
    }
    // Plugged at the end: present once after the agent's next looks.
    Sleep(3000);
    EXPECT_EQ(inStore("MY", "AgentFlapping").count, 1);
    ASSERT_EQ(calythToken("unplug --serial AGENT-5"), 0);
    EXPECT_GE(waitFor([] { return inStore("MY", "AgentFlapping").count == 0; }), 0);
}

TEST_F(AgentSystem, AtRestItCostsLessThanATenthOfAPercentOfACore) {
    ASSERT_TRUE(makeToken("AGENT-6"));
    certifiedKey("AGENT-6", "rsa2048", "sign", "AgentResting");
    ASSERT_NO_FATAL_FAILURE(startBackground());
    ASSERT_GE(waitFor([] { return inStore("MY", "AgentResting").count == 1; }), 0);
    Sleep(2000);  // the pass that added it is over
    double cpuBefore = cpuSeconds(background_);
    Clock::time_point start = Clock::now();
    Sleep(20000);
    double cpu = cpuSeconds(background_) - cpuBefore;
    double wall = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("agent at rest: %.3f s CPU in %.1f s (%.3f %% of a core)\n", cpu, wall, 100 * cpu / wall);
    EXPECT_LT(cpu / wall, 0.001);
}

TEST_F(AgentSystem, AnApplicationThatKnowsOnlyTheSubjectSignsWithTheTokenKeyAndThePinIsAskedOnce) {
    ASSERT_TRUE(makeToken("AGENT-7", "--pin " + std::string(kPin)));
    certifiedKey("AGENT-7", "rsa2048", "sign", "AgentApplication");
    ASSERT_EQ(agent("--once").exitCode, 0);
    writeFile(file("document.txt"), std::vector<unsigned char>{'s', 'i', 'g', 'n', ' ', 'm', 'e', '\n'});

    testsupport::SimulatedUser user({testsupport::enterPin(kPin)});
    HCERTSTORE userStore = CertOpenStore(CERT_STORE_PROV_SYSTEM_A, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, "MY");
    ASSERT_NE(userStore, nullptr);
    PCCERT_CONTEXT certificate = CertFindCertificateInStore(
        userStore, X509_ASN_ENCODING, 0, CERT_FIND_SUBJECT_STR_A, "AgentApplication", nullptr);
    ASSERT_NE(certificate, nullptr);
    HCRYPTPROV_OR_NCRYPT_KEY_HANDLE key = 0;
    DWORD keySpec = 0;
    BOOL mustFree = FALSE;
    ASSERT_TRUE(CryptAcquireCertificatePrivateKey(certificate, 0, nullptr, &key, &keySpec, &mustFree))
        << GetLastError();
    EXPECT_EQ(keySpec, static_cast<DWORD>(AT_SIGNATURE));

    for (const char* name : {"first.p7s", "second.p7s"}) {
        std::vector<unsigned char> message;
        calythsign::SignError failure;
        ASSERT_TRUE(calythsign::signWithCertificate(certificate, CALG_SHA_256, false,
                                                    readFile(file("document.txt")), &message, &failure))
            << failure.step << " 0x" << std::hex << failure.error;
        writeFile(file(name), message);
        std::string output;
        EXPECT_EQ(runOpenSsl("cms -verify -binary -inform DER -in " + unixPath(file(name)) + " -content " +
                                 unixPath(file("document.txt")) + " -CAfile " + unixPath(file("ca.pem")) +
                                 " -purpose any -out /dev/null",
                             &output),
                  0)
            << output;
        EXPECT_NE(output.find("Verification successful"), std::string::npos) << output;
    }
    std::vector<std::string> seen = user.finish();
    EXPECT_EQ(seen, std::vector<std::string>{"dialog"});
    if (mustFree)
        CryptReleaseContext(key, 0);
    CertFreeCertificateContext(certificate);
    CertCloseStore(userStore, 0);
}

}  // namespace
