// Signing after the token's single sign-on expired, with the real PIN dialog on a display: the
// user is asked exactly once and the token is asked to sign exactly once more.
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <thread>

#include "csp_test_fixture.h"
#include "resource.h"
#include "token/token_table.h"

namespace csptest {
namespace {

const char* const kKeyA = "000102030405060708090A0B0C0D0E0F";

// Watches for the PIN dialog and answers every appearance, counting them.
class DialogAnswerer {
public:
    DialogAnswerer(std::string pin, bool cancel) : pin_(std::move(pin)), cancel_(cancel) {
        thread_ = std::thread([this] { run(); });
    }
    ~DialogAnswerer() {
        stop_ = true;
        thread_.join();
    }
    int appearances() const { return appearances_; }

private:
    void run() {
        bool present = false;
        while (!stop_) {
            HWND dialog = FindWindowA(nullptr, "Verify User Pin");
            if (dialog != nullptr && !present && IsWindowVisible(dialog)) {
                present = true;
                ++appearances_;
                answer(dialog);
            } else if (dialog == nullptr) {
                present = false;
            }
            Sleep(20);
        }
    }

    // Once the dialog has finished setting itself up (the Login button starts disabled), types the
    // PIN and presses Login when the dialog has enabled it, or presses Cancel.
    void answer(HWND dialog) {
        Sleep(100);
        if (cancel_) {
            SendMessageA(GetDlgItem(dialog, IDCANCEL), BM_CLICK, 0, 0);
            return;
        }
        HWND login = GetDlgItem(dialog, IDOK);
        for (int i = 0; i < 100 && !stop_; ++i) {
            SetDlgItemTextA(dialog, IDC_USER_PIN, pin_.c_str());
            if (IsWindowEnabled(login)) {
                SendMessageA(login, BM_CLICK, 0, 0);
                return;
            }
            Sleep(20);
        }
    }

    std::string pin_;
    bool cancel_;
    std::atomic<bool> stop_{false};
    std::atomic<int> appearances_{0};
    std::thread thread_;
};

class SignPinPrompt : public CspFixture {
protected:
    void SetUp() override {
        CspFixture::SetUp();
        fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyA, 1, CALYTH_KEY_RSA_2048));
        storeValidatedPin(kSerial, kPin);
        hash = createHash(CALG_SHA_256, "abc");
        fake::clearCalls();
        fake::failNext("calyth_signHash", 49);
    }
    BOOL sign() {
        buffer.assign(256, 0);
        DWORD length = 256;
        return CPSignHash(provider(), hash, AT_SIGNATURE, nullptr, 0, buffer.data(), &length);
    }
    HCRYPTHASH hash = 0;
    std::vector<BYTE> buffer;
};

TEST_F(SignPinPrompt, ExpiredSingleSignOnShowsTheDialogOnceAndRetriesOnce) {
    BOOL ok;
    DWORD error;
    int appearances;
    {
        DialogAnswerer answerer(kPin, false);
        ok = sign();
        error = GetLastError();
        appearances = answerer.appearances();
    }
    EXPECT_TRUE(ok) << error;
    EXPECT_EQ(appearances, 1);
    auto validations = fake::callsTo("calyth_validatePassword");
    ASSERT_EQ(validations.size(), 1u);
    EXPECT_EQ(validations[0].args[0], kPin);
    auto signs = fake::callsTo("calyth_signHash");
    ASSERT_EQ(signs.size(), 2u);
    EXPECT_EQ(signs[0].args[1], kPin);
    EXPECT_EQ(signs[1].args[1], kPin);
    EXPECT_EQ(countLogged("CPSignHash: SSO expired, re-prompting for PIN"), 1u);
    std::vector<BYTE> expected = fake::defaultSignature(256);
    std::reverse(expected.begin(), expected.end());
    EXPECT_EQ(buffer, expected);
}

TEST_F(SignPinPrompt, CancelledDialogAfterExpiryFailsWithoutASecondSignature) {
    BOOL ok;
    DWORD error;
    int appearances;
    {
        DialogAnswerer answerer("", true);
        ok = sign();
        error = GetLastError();
        appearances = answerer.appearances();
    }
    EXPECT_FALSE(ok);
    EXPECT_EQ(error, static_cast<DWORD>(NTE_FAIL));
    EXPECT_EQ(appearances, 1);
    EXPECT_TRUE(logged("ERROR", "CPSignHash: ensurePasswordValidated failed after SSO expiry"));
    EXPECT_EQ(fake::countCalls("calyth_signHash"), 1u);
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 0u);
    EXPECT_FALSE(isPinValidated(kSerial));
}

}  // namespace
}  // namespace csptest
