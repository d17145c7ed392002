// Token access through CryptoAPI with the real provider and the soft token, the PIN dialog and
// message boxes answered by a simulated user.
#include <algorithm>
#include <gmock/gmock.h>

#include "support/provider_registration.h"
#include "support/simulated_user.h"
#include "support/test_support.h"
#include "support/token_tool.h"

using namespace testsupport;
using ::testing::ElementsAre;

namespace {

constexpr DWORD kNoToken = 0x80090023;

class CspSystem : public ProviderStoreTest {
protected:
    void TearDown() override {
        for (HCRYPTPROV handle : opened)
            CryptReleaseContext(handle, 0);
    }
    // CryptAcquireContextA on the provider; the handle is released at the end of the test.
    BOOL acquire(HCRYPTPROV* handle, const char* container, DWORD flags) {
        *handle = 0;
        BOOL ok = CryptAcquireContextA(handle, container, kProviderName, PROV_RSA_FULL, flags);
        DWORD error = GetLastError();
        if (ok)
            opened.push_back(*handle);
        SetLastError(error);
        return ok;
    }
    // Signs SHA-256("calyth") with the container's signature key; the signature (little-endian,
    // as CryptoAPI hands it out) in *signature.
    BOOL sign(HCRYPTPROV provider, std::vector<BYTE>* signature) {
        HCRYPTHASH hash = 0;
        if (!CryptCreateHash(provider, CALG_SHA_256, 0, 0, &hash))
            return FALSE;
        const BYTE data[] = {'c', 'a', 'l', 'y', 't', 'h'};
        BOOL ok = CryptHashData(hash, data, sizeof data, 0);
        signature->assign(1024, 0);
        DWORD length = static_cast<DWORD>(signature->size());
        ok = ok && CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature->data(), &length);
        DWORD error = GetLastError();
        signature->resize(ok ? length : 0);
        CryptDestroyHash(hash);
        SetLastError(error);
        return ok;
    }
    std::vector<HCRYPTPROV> opened;
};

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

bool providerLoaded() {
    return GetModuleHandleA("CalythCSP.dll") != nullptr;
}

}  // namespace

// First: nothing has started the device monitor in this process yet.
TEST_F(CspSystem, AVerifyOnlyContextNeedsNoTokenAndStartsNoMonitor) {
    HCRYPTPROV handle = 0;
    ASSERT_TRUE(acquire(&handle, nullptr, CRYPT_VERIFYCONTEXT)) << std::hex << GetLastError();
    EXPECT_TRUE(testsupport::logHasLine(
        "DEBUG", "CPAcquireContext: CRYPT_VERIFYCONTEXT, no token required, return TRUE"));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "Monitor thread started (startDeviceMonitor)."));
    BYTE random[16] = {};
    EXPECT_TRUE(CryptGenRandom(handle, sizeof random, random));
    opened.clear();
    EXPECT_TRUE(CryptReleaseContext(handle, 0));
    // Nothing holds the library now: the host is free to unload it, and Wine does.
    EXPECT_FALSE(providerLoaded());
}

TEST_F(CspSystem, NoTokenConnectedFailsWithTheNoTokenCode) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        HCRYPTPROV handle = 0;
        SetLastError(0);
        EXPECT_FALSE(acquire(&handle, nullptr, 0));
        EXPECT_EQ(GetLastError(), kNoToken);
    }
    // The monitor's first line is written while the first acquisition goes on, and the log file is
    // shared without a lock: one of the two error lines may be lost, never both.
    EXPECT_GE(testsupport::logLineCount("ERROR", "CPAcquireContext: valid token not connected, return FALSE"),
              1u);
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "Monitor thread started (startDeviceMonitor)."), 1u);
}

TEST_F(CspSystem, AContainerOnTheSecondTokenOpensThatToken) {
    makeToken("SYS-A1");
    makeToken("SYS-A2");
    std::string key = makeKey("SYS-A2", "p256", "--usage sign");
    HCRYPTPROV second = 0;
    ASSERT_TRUE(acquire(&second, lower(key).c_str(), 0)) << std::hex << GetLastError();
    EXPECT_TRUE(testsupport::logHasLine(
        "DEBUG", "CPAcquireContext: container=" + lower(key) + " serial=SYS-A2 silent=0, return TRUE"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "" + key));
    HCRYPTPROV first = 0;
    ASSERT_TRUE(acquire(&first, nullptr, 0));
    EXPECT_TRUE(
        testsupport::logHasLine("DEBUG", "CPAcquireContext: container= serial=SYS-A1 silent=0, return TRUE"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Acquire Context :: Key List is empty"));
    EXPECT_FALSE(testsupport::logHasLine("ERROR", "Init device failed for SYS-A1 : 2"));
}

TEST_F(CspSystem, AWrongPinShowsTheAttemptsLeftAndTheRightOneSigns) {
    makeToken("SYS-B1");
    std::string key = makeKey("SYS-B1", "rsa2048", "--usage sign");
    HCRYPTPROV provider = 0;
    ASSERT_TRUE(acquire(&provider, key.c_str(), 0));
    std::vector<BYTE> signature;
    SimulatedUser user({enterPin("0000"), answerMessage(), enterPin("1234")});
    EXPECT_TRUE(sign(provider, &signature)) << std::hex << GetLastError();
    EXPECT_THAT(user.finish(),
                ElementsAre("dialog", "message:Invalid user pin. Remaining attempts(9)", "dialog"));
    ASSERT_EQ(signature.size(), 256u);

    // OpenSSL agrees with the signature (big-endian on the wire).
    std::string publicKey = scratch + "signer.pem";
    std::string data = scratch + "data.txt";
    std::string sigFile = scratch + "data.sig";
    ASSERT_EQ(calythToken("export-pubkey --serial SYS-B1 --key " + key + " --out \"" + publicKey + "\""), 0);
    testsupport::writeFile(data, {'c', 'a', 'l', 'y', 't', 'h'});
    std::reverse(signature.begin(), signature.end());
    testsupport::writeFile(sigFile, signature);
    std::string output;
    EXPECT_EQ(
        testsupport::runOpenSsl("dgst -sha256 -verify " + testsupport::unixPath(publicKey) + " -signature " +
                                    testsupport::unixPath(sigFile) + " " + testsupport::unixPath(data),
                                &output),
        0)
        << output;

    // The PIN is remembered, also by a new context.
    SimulatedUser nobody({});
    EXPECT_TRUE(sign(provider, &signature));
    HCRYPTPROV again = 0;
    ASSERT_TRUE(acquire(&again, key.c_str(), CRYPT_SILENT));
    EXPECT_TRUE(sign(again, &signature)) << std::hex << GetLastError();
    EXPECT_THAT(nobody.finish(), ElementsAre());
}

TEST_F(CspSystem, ALockedTokenEndsTheLogin) {
    makeToken("SYS-C1", "--retries 2");
    std::string key = makeKey("SYS-C1", "p256", "--usage sign");
    HCRYPTPROV provider = 0;
    ASSERT_TRUE(acquire(&provider, key.c_str(), 0));
    std::vector<BYTE> signature;
    SimulatedUser user({enterPin("0000"), answerMessage(), enterPin("9999"), answerMessage()});
    SetLastError(0);
    EXPECT_FALSE(sign(provider, &signature));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_THAT(user.finish(), ElementsAre("dialog", "message:Invalid user pin. Remaining attempts(1)",
                                           "dialog", "message:User pin locked, re-initialise device"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "loginUser: PIN locked, retryCount=0, return FALSE"));

    // Locked: even the right PIN is refused.
    SimulatedUser again({enterPin("1234"), answerMessage()});
    EXPECT_FALSE(sign(provider, &signature));
    EXPECT_THAT(again.finish(), ElementsAre("dialog", "message:User pin locked, re-initialise device"));
}

TEST_F(CspSystem, ATimeMismatchIsShownOnce) {
    makeToken("SYS-D1");
    std::string key = makeKey("SYS-D1", "p256", "--usage sign");
    ASSERT_EQ(calythToken("fault --serial SYS-D1 --function validatePassword --code 48"), 0);
    HCRYPTPROV provider = 0;
    ASSERT_TRUE(acquire(&provider, key.c_str(), 0));
    std::vector<BYTE> signature;
    SimulatedUser user({enterPin("1234"), answerMessage()});
    EXPECT_FALSE(sign(provider, &signature));
    EXPECT_THAT(user.finish(),
                ElementsAre("dialog", "message:System time mismatch, Kidly login to Vault Desk"));
}

TEST_F(CspSystem, SingleSignOnSignsWithoutAskingAndIsAskedEveryTime) {
    makeToken("SYS-E1");
    std::string key = makeKey("SYS-E1", "p256", "--usage sign");
    ASSERT_EQ(calythToken("sso --serial SYS-E1 on"), 0);
    HCRYPTPROV provider = 0;
    ASSERT_TRUE(acquire(&provider, key.c_str(), 0));
    std::vector<BYTE> signature;
    SimulatedUser nobody({});
    EXPECT_TRUE(sign(provider, &signature)) << std::hex << GetLastError();
    EXPECT_TRUE(sign(provider, &signature)) << std::hex << GetLastError();
    EXPECT_THAT(nobody.finish(), ElementsAre());
    EXPECT_EQ(signature.size(), 64u);
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "loginUser: SSO already validated, return TRUE"), 2u);

    // Once single sign-on is off, the PIN is needed.
    ASSERT_EQ(calythToken("sso --serial SYS-E1 off"), 0);
    SimulatedUser user({pressCancel()});
    EXPECT_FALSE(sign(provider, &signature));
    EXPECT_THAT(user.finish(), ElementsAre("dialog"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "loginUser: user cancelled password dialog, return FALSE"));
}

TEST_F(CspSystem, AnUnpluggedTokenIsForgottenAndAskedForAgainWhenBack) {
    makeToken("SYS-F1");
    std::string key = makeKey("SYS-F1", "p256", "--usage sign");
    HCRYPTPROV provider = 0;
    ASSERT_TRUE(acquire(&provider, key.c_str(), 0));
    std::vector<BYTE> signature;
    SimulatedUser user({enterPin("1234")});
    ASSERT_TRUE(sign(provider, &signature));
    EXPECT_THAT(user.finish(), ElementsAre("dialog"));

    ASSERT_EQ(calythToken("unplug --serial SYS-F1"), 0);
    DWORD unplugged = GetTickCount();
    ASSERT_TRUE(testsupport::waitUntil(
        [] { return testsupport::logHasLine("DEBUG", "Device disconnected: SYS-F1"); }));
    DWORD forgottenAfter = GetTickCount() - unplugged;
    EXPECT_LE(forgottenAfter, 1500u);
    std::printf("token forgotten %lu ms after the unplug command returned\n", forgottenAfter);
    // The open context still names the token, which the library now refuses.
    EXPECT_FALSE(sign(provider, &signature));

    // Back again: the next acquisition initialises it again (a refused first initialisation
    // shows the call), and the PIN is asked for again.
    ASSERT_EQ(calythToken("plug --serial SYS-F1"), 0);
    ASSERT_EQ(calythToken("fault --serial SYS-F1 --function initDevice --code 5"), 0);
    HCRYPTPROV back = 0;
    ASSERT_TRUE(acquire(&back, key.c_str(), 0));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Init device failed for SYS-F1 : 5"));
    testsupport::clearLog();
    HCRYPTPROV initialised = 0;
    ASSERT_TRUE(acquire(&initialised, key.c_str(), 0));
    EXPECT_FALSE(testsupport::logHasLine("ERROR", "Init device failed for SYS-F1 : 5"));
    SimulatedUser again({enterPin("1234")});
    EXPECT_TRUE(sign(initialised, &signature)) << std::hex << GetLastError();
    EXPECT_THAT(again.finish(), ElementsAre("dialog"));
}
