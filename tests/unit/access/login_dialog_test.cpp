// The PIN dialog and the PIN messages as a user meets them: a simulated user finds the windows,
// types, presses buttons and reads the message boxes.
#include "access_test_support.h"
#include "csp/csp_entry_points.h"
#include "csp/csp_login.h"
#include "ksp/ksp_login.h"
#include "support/simulated_user.h"
#include "token/device_monitor.h"
#include "token/pin_dialog.h"
#include "token/token_table.h"

using namespace access_test;
using namespace testsupport;
using ::testing::ElementsAre;

namespace {

constexpr int kLogin = 1;
constexpr int kPinField = 1001;

class PinDialog : public AccessTest {};

class LoginWithUser : public AccessTest {
protected:
    void SetUp() override {
        AccessTest::SetUp();
        fake::addToken("S1");  // PIN "1234", 10 attempts
        context.serialNumber = "S1";
        context.initialized = true;
        context.keysetType = CSP_KEYSET_TYPE;
    }
    std::vector<std::string> pinsTried() {
        std::vector<std::string> out;
        for (const fake::Call& call : fake::callsTo("calyth_validatePassword")) {
            EXPECT_EQ(call.serial, context.serialNumber);
            EXPECT_EQ(call.args.at(1), "1");
            out.push_back(call.args.at(0));
        }
        return out;
    }
    CspContext context;
};

std::string loginState(HWND dialog) {
    return IsWindowEnabled(GetDlgItem(dialog, kLogin)) ? "enabled" : "disabled";
}

std::string typeAndLook(HWND dialog, size_t length) {
    SetDlgItemTextA(dialog, kPinField, std::string(length, '7').c_str());
    return std::to_string(length) + ":" + loginState(dialog);
}

// Runs the dialog on this thread while `user` acts on it.
std::vector<std::string> showWith(std::vector<UserStep> steps) {
    SimulatedUser user(std::move(steps));
    showPasswordDialog();
    return user.finish();
}

}  // namespace

TEST_F(PinDialog, LoginIsOfferedExactlyForFourToSixtyThreeCharacters) {
    std::vector<std::string> states;
    auto seen = showWith({withDialog([&](HWND dialog) {
        states.push_back("0:" + loginState(dialog));
        for (size_t length : {3, 4, 63, 64, 1, 5, 100, 0})
            states.push_back(typeAndLook(dialog, length));
        pressButton(dialog, IDCANCEL);
        return std::string("done");
    })});
    EXPECT_THAT(seen, ElementsAre("dialog", "done"));
    EXPECT_THAT(states, ElementsAre("0:disabled", "3:disabled", "4:enabled", "63:enabled", "64:disabled",
                                    "1:disabled", "5:enabled", "100:disabled", "0:disabled"));
}

TEST_F(PinDialog, ThePinFieldHidesCharactersAndHoldsLongTextOnlyWithLoginDisabled) {
    std::string look;
    showWith({withDialog([&](HWND dialog) {
        HWND field = GetDlgItem(dialog, kPinField);
        look += SendMessageA(field, EM_GETPASSWORDCHAR, 0, 0) != 0 ? "hidden" : "visible";
        SetDlgItemTextA(dialog, kPinField, std::string(80, 'a').c_str());
        look += " " + std::to_string(GetWindowTextLengthA(field)) + " " + loginState(dialog);
        pressButton(dialog, IDCANCEL);
        return std::string("done");
    })});
    EXPECT_EQ(look, "hidden 80 disabled");
    EXPECT_EQ(getEnteredPassword(), "");
}

TEST_F(PinDialog, TheDialogHasItsCaptionTextsAndNoOwner) {
    std::string look;
    showWith({withDialog([&](HWND dialog) {
        char text[128] = {};
        GetWindowTextA(GetDlgItem(dialog, kLogin), text, sizeof text);
        look += text;
        GetWindowTextA(GetDlgItem(dialog, IDCANCEL), text, sizeof text);
        look += std::string("|") + text;
        look += GetWindow(dialog, GW_OWNER) == nullptr ? "|no owner" : "|owned";
        look += (GetWindowLongA(dialog, GWL_EXSTYLE) & WS_EX_TOPMOST) ? "|topmost" : "|normal";
        pressButton(dialog, IDCANCEL);
        return std::string("done");
    })});
    EXPECT_EQ(look, "Login|Cancel|no owner|topmost");
}

TEST_F(PinDialog, LoginHandsBackTheTypedText) {
    auto seen = showWith({enterPin("4 ch")});
    EXPECT_THAT(seen, ElementsAre("dialog"));
    EXPECT_EQ(getEnteredPassword(), "4 ch");
    // The text stays until the next show.
    EXPECT_EQ(getEnteredPassword(), "4 ch");
    std::string longest(63, 'z');
    showWith({enterPin(longest)});
    EXPECT_EQ(getEnteredPassword(), longest);
    EXPECT_THAT(testsupport::logEntries(), testing::Contains("DEBUG:Password dialog show window after"));
    EXPECT_FALSE(testsupport::logHasLine("ERROR", "Password dialog creation failed : -1"));
}

TEST_F(PinDialog, TheLoginButtonItselfEndsTheDialogWithTheText) {
    auto seen = showWith({withDialog([](HWND dialog) {
        SetDlgItemTextA(dialog, kPinField, "2468");
        clickButton(dialog, kLogin);
        return std::string("clicked");
    })});
    EXPECT_THAT(seen, ElementsAre("dialog", "clicked"));
    EXPECT_EQ(getEnteredPassword(), "2468");
}

TEST_F(PinDialog, CancelEscapeAndClosingYieldAnEmptyText) {
    for (UserStep::Kind kind : {UserStep::PressCancel, UserStep::PressEscape, UserStep::CloseBox,
                                UserStep::SendClose, UserStep::OtherCommand}) {
        showWith({enterPin("1234")});
        ASSERT_EQ(getEnteredPassword(), "1234");
        SimulatedUser user({withDialog([kind](HWND dialog) {
            SetDlgItemTextA(dialog, kPinField, "typed but not sent");
            closeDialog(dialog, kind);
            return std::string("closed");
        })});
        showPasswordDialog();
        EXPECT_THAT(user.finish(), ElementsAre("dialog", "closed")) << kind;
        EXPECT_EQ(getEnteredPassword(), "") << kind;
    }
}

TEST_F(LoginWithUser, TheRightPinIsValidatedAndStored) {
    SimulatedUser user({enterPin("1234")});
    EXPECT_TRUE(ensurePasswordValidated(&context));
    EXPECT_THAT(user.finish(), ElementsAre("dialog"));
    EXPECT_THAT(pinsTried(), ElementsAre("1234"));
    EXPECT_TRUE(isPinValidated("S1"));
    EXPECT_EQ(getValidatedPin("S1"), "1234");
    EXPECT_THAT(fake::callNames(), ElementsAre("calyth_getTokenInfo", "calyth_validatePassword"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "loginUser: password validated, return TRUE"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "ensurePasswordValidated: password set, return true"));

    // Asked once only.
    SimulatedUser nobody({});
    EXPECT_TRUE(ensurePasswordValidated(&context));
    EXPECT_THAT(nobody.finish(), ElementsAre());
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 1u);
}

TEST_F(LoginWithUser, LoginUserWritesTheValidatedPinIntoTheBuffer) {
    SimulatedUser user({enterPin("1234")});
    char pin[PIN_BUFFER_SIZE];
    memset(pin, 'x', sizeof pin);
    EXPECT_TRUE(loginUser(&context, pin));
    user.finish();
    EXPECT_STREQ(pin, "1234");
    // loginUser itself does not store the PIN: that is its caller's business.
    EXPECT_FALSE(isPinValidated("S1"));
}

TEST_F(LoginWithUser, AWrongPinShowsTheAttemptsLeftAndAsksAgain) {
    fake::token("S1").attemptsLeft = 4;
    SimulatedUser user({enterPin("0000"), answerMessage(), enterPin("1234")});
    EXPECT_TRUE(ensurePasswordValidated(&context));
    EXPECT_THAT(user.finish(),
                ElementsAre("dialog", "message:Invalid user pin. Remaining attempts(3)", "dialog"));
    EXPECT_THAT(pinsTried(), ElementsAre("0000", "1234"));
    EXPECT_EQ(getValidatedPin("S1"), "1234");
}

TEST_F(LoginWithUser, ANegativeAttemptCountKeepsItsSign) {
    int answers = 0;
    fake::hooks().validatePassword = [&answers](const char*, const char* pin, int* remaining) {
        if (++answers == 1) {
            *remaining = -2;
            return 5;
        }
        return std::string(pin) == "1234" ? 0 : 1;
    };
    SimulatedUser user({enterPin("9999"), answerMessage(), enterPin("1234")});
    EXPECT_TRUE(ensurePasswordValidated(&context));
    EXPECT_THAT(user.finish(),
                ElementsAre("dialog", "message:Invalid user pin. Remaining attempts(-2)", "dialog"));
}

TEST_F(LoginWithUser, ATimeMismatchIsShownOnceAndEndsTheLogin) {
    fake::token("S1").timeMismatch = true;
    SimulatedUser user({enterPin("1234"), answerMessage()});
    SetLastError(0);
    EXPECT_FALSE(ensurePasswordValidated(&context));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_THAT(user.finish(),
                ElementsAre("dialog", "message:System time mismatch, Kidly login to Vault Desk"));
    EXPECT_THAT(pinsTried(), ElementsAre("1234"));
    EXPECT_FALSE(isPinValidated("S1"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "loginUser: PIN locked, retryCount=0, return FALSE"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR",
                                        "ensurePasswordValidated: password validation failed, return false"));
}

TEST_F(LoginWithUser, TheCngSideSpellsTheTimeMismatchItsOwnWay) {
    fake::token("S1").timeMismatch = true;
    SimulatedUser user({enterPin("1234"), answerMessage()});
    EXPECT_FALSE(kspEnsurePasswordValidated("S1", nullptr));
    EXPECT_THAT(user.finish(),
                ElementsAre("dialog", "message:System time mismatch, Kindly login to Vault Desk"));
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 1u);
    EXPECT_FALSE(testsupport::logHasLine("ERROR", "loginUser: PIN locked, retryCount=0, return FALSE"));
}

TEST_F(LoginWithUser, ALockedPinEndsTheLogin) {
    fake::token("S1").attemptsLeft = 1;
    SimulatedUser user({enterPin("0000"), answerMessage()});
    SetLastError(0);
    EXPECT_FALSE(ensurePasswordValidated(&context));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_THAT(user.finish(), ElementsAre("dialog", "message:User pin locked, re-initialise device"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "loginUser: PIN locked, retryCount=0, return FALSE"));
}

TEST_F(LoginWithUser, CancellingTheSecondPromptEndsTheLogin) {
    SimulatedUser user({enterPin("0000"), answerMessage(), pressCancel()});
    EXPECT_FALSE(ensurePasswordValidated(&context));
    EXPECT_THAT(user.finish(),
                ElementsAre("dialog", "message:Invalid user pin. Remaining attempts(9)", "dialog"));
    EXPECT_EQ(testsupport::logLineCount("ERROR", "loginUser: user cancelled password dialog, return FALSE"),
              1u);
    EXPECT_FALSE(testsupport::logHasLine("ERROR", "loginUser: PIN locked, retryCount=0, return FALSE"));
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 1u);
}

TEST_F(LoginWithUser, CancellingTheFirstPromptAsksTheTokenNothing) {
    SimulatedUser user({pressCancel()});
    EXPECT_FALSE(ensurePasswordValidated(&context));
    EXPECT_THAT(user.finish(), ElementsAre("dialog"));
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 0u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "loginUser: user cancelled password dialog, return FALSE"));
    EXPECT_FALSE(testsupport::logHasLine("ERROR", "Password dialog creation failed : -1"));
}

TEST_F(LoginWithUser, TheCngSideStoresTheValidatedPin) {
    fake::token("S1").attemptsLeft = 3;
    SimulatedUser user({enterPin("5555"), answerMessage(), enterPin("1234")});
    EXPECT_TRUE(kspEnsurePasswordValidated("S1", nullptr));
    EXPECT_THAT(user.finish(),
                ElementsAre("dialog", "message:Invalid user pin. Remaining attempts(2)", "dialog"));
    EXPECT_THAT(pinsTried(), ElementsAre("5555", "1234"));
    EXPECT_TRUE(isPinValidated("S1"));
    EXPECT_EQ(getValidatedPin("S1"), "1234");
    // ... and the CryptoAPI side uses it without asking.
    SimulatedUser nobody({});
    EXPECT_TRUE(ensurePasswordValidated(&context));
    EXPECT_THAT(nobody.finish(), ElementsAre());
}

TEST_F(LoginWithUser, TheCngSideEndsQuietlyOnALockedPinOrASecondCancel) {
    fake::token("S1").attemptsLeft = 1;
    SimulatedUser locked({enterPin("0000"), answerMessage()});
    EXPECT_FALSE(kspEnsurePasswordValidated("S1", nullptr));
    EXPECT_THAT(locked.finish(), ElementsAre("dialog", "message:User pin locked, re-initialise device"));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "KSP: User cancelled password dialog"));

    fake::token("S1").attemptsLeft = 5;
    testsupport::clearLog();
    SimulatedUser cancels({enterPin("0000"), answerMessage(), pressCancel()});
    EXPECT_FALSE(kspEnsurePasswordValidated("S1", nullptr));
    EXPECT_THAT(cancels.finish(),
                ElementsAre("dialog", "message:Invalid user pin. Remaining attempts(4)", "dialog"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: User cancelled password dialog"));
    EXPECT_FALSE(isPinValidated("S1"));
}

TEST_F(LoginWithUser, AnUnpluggedTokenIsAskedForAgainOnceItIsBack) {
    VTableProvStruc table{};
    HCRYPTPROV first = 0;
    ASSERT_TRUE(CPAcquireContext(&first, nullptr, 0, &table));
    SimulatedUser user({enterPin("1234")});
    EXPECT_TRUE(ensurePasswordValidated(cspContextFrom(first)));
    EXPECT_THAT(user.finish(), ElementsAre("dialog"));
    ASSERT_EQ(getValidatedPin("S1"), "1234");

    fake::setConnected("S1", false);
    ASSERT_TRUE(testsupport::waitUntil([] { return !hasDeviceEntry("S1"); }));
    fake::setConnected("S1", true);
    HCRYPTPROV second = 0;
    ASSERT_TRUE(CPAcquireContext(&second, nullptr, 0, &table));
    EXPECT_EQ(fake::countCalls("calyth_initDevice"), 2u);

    SimulatedUser again({enterPin("1234")});
    EXPECT_TRUE(ensurePasswordValidated(cspContextFrom(second)));
    EXPECT_THAT(again.finish(), ElementsAre("dialog"));
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 2u);
    EXPECT_TRUE(CPReleaseContext(first, 0));
    EXPECT_TRUE(CPReleaseContext(second, 0));
    stopDeviceMonitor();
}

// A test that fails before its dialog appears must not wait out the user's step timeouts.
TEST(SimulatedUserStop, GivesUpTheRemainingStepsAtOnce) {
    DWORD start = GetTickCount();
    std::vector<std::string> seen;
    {
        SimulatedUser user({enterPin("1234"), answerMessage()}, 60000);
        seen = user.stop();
    }
    EXPECT_LT(GetTickCount() - start, 10000u);
    EXPECT_THAT(seen, ElementsAre("timeout:dialog"));
}

// The user looks for windows while the test's own thread waits for it without pumping messages
// (finish() joins the user's thread): looking must not send a message to a window of that thread,
// or both wait for each other for good. Here the waiting thread owns a hidden and a visible window.
TEST(SimulatedUserLooking, SendsNothingToTheWindowsOfAThreadThatIsNotPumping) {
    HWND hidden = CreateWindowExA(0, "STATIC", "Hidden window of the test thread", WS_OVERLAPPED, 0, 0, 50,
                                  50, nullptr, nullptr, nullptr, nullptr);
    HWND shown = CreateWindowExA(0, "STATIC", "Visible window of the test thread", WS_OVERLAPPEDWINDOW, 0, 0,
                                 50, 50, nullptr, nullptr, nullptr, nullptr);
    ASSERT_NE(hidden, nullptr);
    ASSERT_NE(shown, nullptr);
    ShowWindow(shown, SW_SHOWNOACTIVATE);
    std::atomic<bool> foundShown{false}, foundNothing{false};
    HANDLE done = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    std::thread looker([&] {
        foundShown = waitForWindow("Visible window of the test thread", 0) == shown;
        foundNothing = waitForWindow("No such window", 0) == nullptr;
        SetEvent(done);
    });
    EXPECT_EQ(WaitForSingleObject(done, 5000), static_cast<DWORD>(WAIT_OBJECT_0))
        << "looking waited for this thread's windows";
    // Should it be waiting, answer it so that the test ends.
    while (MsgWaitForMultipleObjects(1, &done, FALSE, INFINITE, QS_ALLINPUT) != WAIT_OBJECT_0) {
        MSG message;
        while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE))
            DispatchMessageA(&message);
    }
    CloseHandle(done);
    looker.join();
    EXPECT_TRUE(foundShown);
    EXPECT_TRUE(foundNothing);
    DestroyWindow(shown);
    DestroyWindow(hidden);
}
