// PIN checks on a machine without a display: whatever can be decided without asking the user, and
// a dialog that cannot be shown counting as cancelled.
#include "access_test_support.h"
#include "csp/csp_login.h"
#include "ksp/ksp_login.h"
#include "token/login.h"
#include "token/pin_dialog.h"
#include "token/token_table.h"

using namespace access_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class LoginHeadless : public AccessTest {
protected:
    void SetUp() override {
        AccessTest::SetUp();
        fake::addToken("S1");
        context.serialNumber = "S1";
        context.initialized = true;
        context.keysetType = CSP_KEYSET_TYPE;
    }
    CspContext context;
};

}  // namespace

TEST_F(LoginHeadless, ADialogThatCannotOpenIsLoggedAndReadsAsCancelled) {
    EXPECT_EQ(showPasswordDialog(), 0);
    EXPECT_EQ(getEnteredPassword(), "");
    EXPECT_THAT(
        testsupport::logEntries(),
        ElementsAre("DEBUG:Password dialog show window", "DEBUG:Password dialog show window before",
                    "DEBUG:Password dialog show window after", "ERROR:Password dialog creation failed : -1"));
}

TEST_F(LoginHeadless, AValidatedPinIsNotAskedAgain) {
    storeValidatedPin("S1", "1234");
    EXPECT_TRUE(ensurePasswordValidated(&context));
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(testsupport::logEntries(),
                ElementsAre("DEBUG:ensurePasswordValidated: PIN already validated, return true"));
}

TEST_F(LoginHeadless, AValidatedPinIsNotAskedAgainByTheCngSide) {
    storeValidatedPin("S1", "1234");
    EXPECT_TRUE(kspEnsurePasswordValidated("S1", nullptr));
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(testsupport::logEntries(), ElementsAre("DEBUG:KSP: PIN already validated"));
}

TEST_F(LoginHeadless, SingleSignOnValidatesWithAnEmptyPinAndAsksTheTokenEveryTime) {
    fake::setSingleSignOn("S1", true);
    EXPECT_TRUE(ensurePasswordValidated(&context));
    EXPECT_TRUE(isPinValidated("S1"));
    EXPECT_EQ(getValidatedPin("S1"), "");
    EXPECT_THAT(serialsOf("calyth_getTokenInfo"), ElementsAre("S1"));
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 0u);
    EXPECT_THAT(testsupport::logEntries(),
                ElementsAre("DEBUG:ensurePasswordValidated: password not validated or empty -- ask for PIN",
                            "DEBUG:loginUser: enter", "DEBUG:loginUser: SSO already validated, return TRUE",
                            "DEBUG:ensurePasswordValidated: password set, return true"));

    EXPECT_TRUE(ensurePasswordValidated(&context));
    EXPECT_TRUE(ensurePasswordValidated(&context));
    EXPECT_EQ(fake::countCalls("calyth_getTokenInfo"), 3u);
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "loginUser: SSO already validated, return TRUE"), 3u);
}

TEST_F(LoginHeadless, SingleSignOnEndingMeansTheDialogIsNeeded) {
    fake::setSingleSignOn("S1", true);
    EXPECT_TRUE(ensurePasswordValidated(&context));
    fake::setSingleSignOn("S1", false);
    EXPECT_FALSE(ensurePasswordValidated(&context));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "loginUser: user cancelled password dialog, return FALSE"));
    EXPECT_FALSE(isPinValidated("S1"));
}

TEST_F(LoginHeadless, SingleSignOnNeedsLabelLoginAndSignOnFlags) {
    struct Case {
        const char* label;
        int loggedIn;
        int ssoValid;
    };
    for (const Case& c : {Case{"", 1, 1}, Case{"TOKEN", 0, 1}, Case{"TOKEN", 1, 0}, Case{"TOKEN", 1, 2}}) {
        resetTokenTableForTests();
        testsupport::clearLog();
        TokenInfo& info = fake::token("S1").info;
        info.label = c.label;
        info.userLoggedIn = c.loggedIn;
        info.ssoValid = c.ssoValid;
        EXPECT_FALSE(ensurePasswordValidated(&context)) << c.label << c.loggedIn << c.ssoValid;
        EXPECT_FALSE(testsupport::logHasLine("DEBUG", "loginUser: SSO already validated, return TRUE"));
        EXPECT_FALSE(kspEnsurePasswordValidated("S1", nullptr));
        EXPECT_FALSE(isPinValidated("S1"));
    }
}

TEST_F(LoginHeadless, TheCngSideStoresAnEmptyPinUnderSingleSignOn) {
    fake::setSingleSignOn("S1", true);
    EXPECT_TRUE(kspEnsurePasswordValidated("S1", nullptr));
    EXPECT_TRUE(isPinValidated("S1"));
    EXPECT_EQ(getValidatedPin("S1"), "");
    EXPECT_TRUE(kspEnsurePasswordValidated("S1", nullptr));
    EXPECT_EQ(fake::countCalls("calyth_getTokenInfo"), 2u);
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "KSP: Password not validated, checking SSO"), 2u);
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "KSP: PIN already validated"));
}

TEST_F(LoginHeadless, ASilentContextWithAValidatedPinSucceedsWithoutAnyDialog) {
    context.silent = true;
    storeValidatedPin("S1", "1234");
    EXPECT_TRUE(ensurePasswordValidated(&context));
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "Password dialog show window"));
}

TEST_F(LoginHeadless, ASilentContextWithoutAPinFailsBeforeAskingTheToken) {
    context.silent = true;
    fake::setSingleSignOn("S1", true);  // not even single sign-on is looked at
    SetLastError(0);
    EXPECT_FALSE(ensurePasswordValidated(&context));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_SILENT_CONTEXT));
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(
        testsupport::logEntries(),
        ElementsAre("ERROR:ensurePasswordValidated: CRYPT_SILENT set, cannot prompt for PIN, return false"));
}

TEST_F(LoginHeadless, ASilentContextWithAnEmptyStoredPinStillFails) {
    context.silent = true;
    storeValidatedPin("S1", "");
    EXPECT_FALSE(ensurePasswordValidated(&context));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_SILENT_CONTEXT));
}

TEST_F(LoginHeadless, LoginUserOnASilentContextAsksTheTokenStateThenRefuses) {
    context.silent = true;
    char pin[PIN_BUFFER_SIZE] = {};
    SetLastError(0);
    EXPECT_FALSE(loginUser(&context, pin));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_SILENT_CONTEXT));
    EXPECT_THAT(fake::callNames(), ElementsAre("calyth_getTokenInfo"));
    EXPECT_THAT(testsupport::logEntries(),
                ElementsAre("DEBUG:loginUser: enter",
                            "ERROR:loginUser: CRYPT_SILENT set, cannot show PIN dialog, return FALSE"));
}

TEST_F(LoginHeadless, LoginUserUnderSingleSignOnLeavesTheBufferAlone) {
    context.silent = true;  // single sign-on is tested first
    fake::setSingleSignOn("S1", true);
    char pin[PIN_BUFFER_SIZE];
    memset(pin, 'x', sizeof pin);
    EXPECT_TRUE(loginUser(&context, pin));
    for (char c : pin)
        ASSERT_EQ(c, 'x');
}

TEST_F(LoginHeadless, ACancelledLoginFailsWithNteFailAndForgetsTheStoredPin) {
    storeValidatedPin("S1", "");  // validated by single sign-on earlier, which has ended since
    SetLastError(0);
    EXPECT_FALSE(ensurePasswordValidated(&context));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_FALSE(isPinValidated("S1"));
    EXPECT_TRUE(hasDeviceEntry("S1"));
    EXPECT_THAT(fake::callNames(), ElementsAre("calyth_getTokenInfo"));
    EXPECT_THAT(
        testsupport::logEntries(),
        ElementsAre("DEBUG:ensurePasswordValidated: password not validated or empty -- ask for PIN",
                    "DEBUG:loginUser: enter", "DEBUG:Password dialog show window",
                    "DEBUG:Password dialog show window before", "DEBUG:Password dialog show window after",
                    "ERROR:Password dialog creation failed : -1",
                    "ERROR:loginUser: user cancelled password dialog, return FALSE",
                    "ERROR:ensurePasswordValidated: password validation failed, return false"));
}

TEST_F(LoginHeadless, LoginUserClearsAStoredPinBeforeAsking) {
    storeValidatedPin("S1", "1234");
    char pin[PIN_BUFFER_SIZE] = {};
    EXPECT_FALSE(loginUser(&context, pin));
    EXPECT_FALSE(isPinValidated("S1"));
    EXPECT_EQ(getValidatedPin("S1"), "");
    EXPECT_EQ(pin[0], '\0');
}

TEST_F(LoginHeadless, ACancelledCngLoginIsADebugLineAndFalse) {
    storeValidatedPin("S1", "");
    EXPECT_FALSE(kspEnsurePasswordValidated("S1", nullptr));
    EXPECT_FALSE(isPinValidated("S1"));
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 0u);
    EXPECT_THAT(
        testsupport::logEntries(),
        ElementsAre("DEBUG:KSP: Password not validated, checking SSO", "DEBUG:Password dialog show window",
                    "DEBUG:Password dialog show window before", "DEBUG:Password dialog show window after",
                    "ERROR:Password dialog creation failed : -1",
                    "DEBUG:KSP: User cancelled password dialog"));
}

TEST_F(LoginHeadless, TheTokenIsAskedWithTheContextsSerial) {
    fake::addToken("S2");
    context.serialNumber = "S2";
    EXPECT_FALSE(ensurePasswordValidated(&context));
    EXPECT_THAT(serialsOf("calyth_getTokenInfo"), ElementsAre("S2"));
}

// The token's login reports how it ended and leaves the last error and the front-ends' log lines to
// its callers.
TEST_F(LoginHeadless, TheTokenLoginRefusesASilentRequestWithoutALineOrALastError) {
    LoginRequest request;
    request.serial = "S1";
    request.silent = true;
    std::string pin = "untouched";
    SetLastError(12345);
    EXPECT_EQ(logInToToken(request, &pin), LoginOutcome::SilentRefused);
    EXPECT_EQ(GetLastError(), 12345u);
    EXPECT_EQ(pin, "untouched");
    EXPECT_THAT(fake::callNames(), ElementsAre("calyth_getTokenInfo"));
    EXPECT_THAT(testsupport::logEntries(), IsEmpty());
}

TEST_F(LoginHeadless, TheTokenLoginReportsSingleSignOnBeforeSilence) {
    fake::setSingleSignOn("S1", true);
    LoginRequest request;
    request.serial = "S1";
    request.silent = true;
    std::string pin;
    SetLastError(12345);
    EXPECT_EQ(logInToToken(request, &pin), LoginOutcome::SingleSignOn);
    EXPECT_EQ(GetLastError(), 12345u);
    EXPECT_EQ(pin, "");
    EXPECT_THAT(testsupport::logEntries(), IsEmpty());
}

TEST_F(LoginHeadless, TheTokenLoginReportsACancelledDialogWithTheDialogsLinesOnly) {
    storeValidatedPin("S1", "1234");
    LoginRequest request;
    request.serial = "S1";
    std::string pin;
    EXPECT_EQ(logInToToken(request, &pin), LoginOutcome::Cancelled);
    EXPECT_FALSE(isPinValidated("S1"));
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 0u);
    EXPECT_THAT(
        testsupport::logEntries(),
        ElementsAre("DEBUG:Password dialog show window", "DEBUG:Password dialog show window before",
                    "DEBUG:Password dialog show window after", "ERROR:Password dialog creation failed : -1"));
}

TEST(PinFailureMessage, TextsOfBothFrontEnds) {
    EXPECT_EQ(pinFailureMessage(1, 3, false), "Invalid user pin. Remaining attempts(3)");
    EXPECT_EQ(pinFailureMessage(1, 3, true), "Invalid user pin. Remaining attempts(3)");
    EXPECT_EQ(pinFailureMessage(5, -2, false), "Invalid user pin. Remaining attempts(-2)");
    EXPECT_EQ(pinFailureMessage(1, 0, false), "User pin locked, re-initialise device");
    EXPECT_EQ(pinFailureMessage(48, 0, false), "System time mismatch, Kidly login to Vault Desk");
    EXPECT_EQ(pinFailureMessage(48, 0, true), "System time mismatch, Kindly login to Vault Desk");
    // The time mismatch wins over a count.
    EXPECT_EQ(pinFailureMessage(48, 2, false), "System time mismatch, Kidly login to Vault Desk");
}
