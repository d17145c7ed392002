// The PIN asked by the provider's own "Verify User Pin" dialog when a CNG client signs without
// handing over a PIN, and the token's single sign-on: a simulated user on the display answers the
// dialog and the "Calyth" message boxes, and records every window it met.
#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cng_pin_support.h"
#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/simulated_user.h"
#include "support/test_support.h"
#include "support/token_tool.h"

using namespace cngtest;
using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::answerMessage;
using testsupport::enterPin;
using testsupport::pressCancel;
using testsupport::SimulatedUser;

namespace cngpin {
namespace {

const Bytes kDocument = testsupport::bytesOf("Signed after the PIN dialog.\n");

class PinDialog : public ::testing::Test {
protected:
    // Before the first fixture loads the provider: its first log lines would only make the folders.
    static void SetUpTestSuite() { startProviderLog(); }
    void SetUp() override {
        startProviderLog();
        ASSERT_TRUE(client.loaded());
    }
    // A token with its key, opened through the client.
    void openToken(const std::string& serial) {
        ASSERT_TRUE(makeTokenKey(serial, &token));
        ASSERT_EQ(session.openKey(token.keyId, &key), 0);
    }
    // Signs the document while `user` answers; returns what the user saw.
    std::vector<std::string> signWhile(SimulatedUser& user, SECURITY_STATUS* status) {
        signature.clear();
        *status = signDocument(session, key, kDocument, &signature);
        return user.finish();
    }
    void tool(const std::string& arguments) {
        std::string output;
        ASSERT_EQ(testsupport::calythToken(arguments, &output), 0) << arguments << "\n" << output;
    }

    CngClient client;
    TokenKey token;
    ProviderSession session{client};
    NCRYPT_KEY_HANDLE key = 0;
    Bytes signature;
};

TEST_F(PinDialog, WithoutAPinTheDialogAsksOnceAndTheNextSignatureNeedsNone) {
    openToken("CNGPIN-DLG-01");
    SECURITY_STATUS status = -1;
    SimulatedUser user({enterPin(kPin)});
    EXPECT_THAT(signWhile(user, &status), ElementsAre("dialog"));
    ASSERT_EQ(status, 0) << hexStatus(status);
    EXPECT_TRUE(opensslVerifies(token.publicPem, "sha256", kDocument, signature));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Password not validated, checking SSO"));
    EXPECT_EQ(testsupport::logSubstringCount("Password dialog show window before"), 1u);

    SimulatedUser watcher({});
    EXPECT_THAT(signWhile(watcher, &status), IsEmpty());
    ASSERT_EQ(status, 0) << hexStatus(status);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: PIN already validated"));
    EXPECT_EQ(testsupport::logSubstringCount("Password dialog show window before"), 1u);
}

TEST_F(PinDialog, AWrongPinIsToldAndAskedAgain) {
    openToken("CNGPIN-DLG-02");
    SECURITY_STATUS status = -1;
    SimulatedUser user({enterPin("0000"), answerMessage(), enterPin(kPin)});
    EXPECT_THAT(signWhile(user, &status),
                ElementsAre("dialog", "message:Invalid user pin. Remaining attempts(9)", "dialog"));
    ASSERT_EQ(status, 0) << hexStatus(status);
    EXPECT_TRUE(opensslVerifies(token.publicPem, "sha256", kDocument, signature));
}

TEST_F(PinDialog, ACancelledDialogFailsTheSignature) {
    openToken("CNGPIN-DLG-03");
    SECURITY_STATUS status = -1;
    SimulatedUser user({pressCancel()});
    EXPECT_THAT(signWhile(user, &status), ElementsAre("dialog"));
    EXPECT_EQ(status, KSP_NTE_FAIL) << hexStatus(status);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: User cancelled password dialog"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSignHash: password validation failed"));
}

TEST_F(PinDialog, ASilentSignatureWithoutAPinShowsNoDialog) {
    openToken("CNGPIN-DLG-04");
    SimulatedUser watcher({});
    Bytes silent;
    SECURITY_STATUS status = signDocument(session, key, kDocument, &silent, NCRYPT_SILENT_FLAG);
    EXPECT_THAT(watcher.finish(), IsEmpty());
    EXPECT_EQ(status, KSP_NTE_SILENT_CONTEXT) << hexStatus(status);
    EXPECT_EQ(testsupport::logSubstringCount("Password dialog show window"), 0u);
}

// The token answers 49 (single sign-on expired) to the PIN the provider holds: the held PIN is
// forgotten, the user is asked once, and the token signs once more with the PIN typed.
TEST_F(PinDialog, SingleSignOnExpiredAtTheTokenAsksOnceAndSignsOnceMore) {
    openToken("CNGPIN-DLG-05");
    ASSERT_EQ(client.setPin(session.provider(), kPin), 0);
    tool("sso --serial " + token.serial + " expired");
    tool("fault --serial " + token.serial + " --function signHash --code 49 --count 1");

    SECURITY_STATUS status = -1;
    SimulatedUser user({enterPin(kPin)});
    EXPECT_THAT(signWhile(user, &status), ElementsAre("dialog"));
    ASSERT_EQ(status, 0) << hexStatus(status);
    EXPECT_TRUE(opensslVerifies(token.publicPem, "sha256", kDocument, signature));
    EXPECT_EQ(testsupport::logSubstringCount("KSP: SignHash SSO expired, re-prompting for PIN"), 1u);
    EXPECT_EQ(testsupport::logSubstringCount("Password dialog show window before"), 1u);
    // The fault answered the first signature only: the second one was the token's own.
    EXPECT_THAT(testsupport::listedLines(token.serial, "fault"), IsEmpty());
}

// With single sign-on on, the provider signs with an empty PIN and asks nothing. When the token
// then answers 49 while its session still holds, the check after it finds single sign-on again:
// one more signature, no dialog.
TEST_F(PinDialog, SingleSignOnSignsWithoutADialogAndRetriesOnceAfter49) {
    openToken("CNGPIN-DLG-06");
    tool("sso --serial " + token.serial + " on");
    SECURITY_STATUS status = -1;
    SimulatedUser watcher({});
    EXPECT_THAT(signWhile(watcher, &status), IsEmpty());
    ASSERT_EQ(status, 0) << hexStatus(status);
    EXPECT_TRUE(opensslVerifies(token.publicPem, "sha256", kDocument, signature));
    EXPECT_EQ(testsupport::logSubstringCount("KSP: Password not validated, checking SSO"), 1u);

    tool("fault --serial " + token.serial + " --function signHash --code 49 --count 1");
    SimulatedUser secondWatcher({});
    EXPECT_THAT(signWhile(secondWatcher, &status), IsEmpty());
    ASSERT_EQ(status, 0) << hexStatus(status);
    EXPECT_TRUE(opensslVerifies(token.publicPem, "sha256", kDocument, signature));
    EXPECT_EQ(testsupport::logSubstringCount("KSP: SignHash SSO expired, re-prompting for PIN"), 1u);
    // The empty PIN held under single sign-on is never taken as validated: checked before the
    // signature and again after the 49.
    EXPECT_EQ(testsupport::logSubstringCount("KSP: Password not validated, checking SSO"), 3u);
    EXPECT_EQ(testsupport::logSubstringCount("Password dialog show window"), 0u);
    EXPECT_THAT(testsupport::listedLines(token.serial, "fault"), IsEmpty());
}

// Single sign-on that has expired on the token while the provider holds the empty PIN it left:
// the provider asks the token before signing with an empty PIN, so the user is asked once and
// the token signs with the PIN typed.
TEST_F(PinDialog, SingleSignOnExpiredUnderAHeldEmptyPinAsksOnce) {
    openToken("CNGPIN-DLG-07");
    tool("sso --serial " + token.serial + " on");
    SECURITY_STATUS status = -1;
    SimulatedUser watcher({});
    EXPECT_THAT(signWhile(watcher, &status), IsEmpty());
    ASSERT_EQ(status, 0) << hexStatus(status);

    tool("sso --serial " + token.serial + " expired");
    SimulatedUser user({enterPin(kPin)});
    EXPECT_THAT(signWhile(user, &status), ElementsAre("dialog"));
    ASSERT_EQ(status, 0) << hexStatus(status);
    EXPECT_TRUE(opensslVerifies(token.publicPem, "sha256", kDocument, signature));
    EXPECT_EQ(testsupport::logSubstringCount("Password dialog show window before"), 1u);
    EXPECT_EQ(testsupport::logSubstringCount("KSP: Sign hash failed"), 0u);
}

}  // namespace
}  // namespace cngpin
