// Signing after the token's single sign-on expired, with the real PIN dialog on a display: the
// user is asked exactly once and the token is asked to sign exactly once more.
#include <windows.h>

#include <algorithm>
#include <gtest/gtest.h>

#include "csp_test_fixture.h"
#include "support/simulated_user.h"
#include "token/token_table.h"

namespace csptest {
namespace {

using testsupport::SimulatedUser;

const char* const kKeyA = "000102030405060708090A0B0C0D0E0F";

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
    // Signs while the simulated user answers; returns what the user saw.
    std::vector<std::string> signWith(SimulatedUser& user) {
        buffer.assign(256, 0);
        DWORD length = 256;
        ok = CPSignHash(provider(), hash, AT_SIGNATURE, nullptr, 0, buffer.data(), &length);
        error = GetLastError();
        return user.finish();
    }
    HCRYPTHASH hash = 0;
    std::vector<BYTE> buffer;
    BOOL ok = FALSE;
    DWORD error = 0;
};

TEST_F(SignPinPrompt, ExpiredSingleSignOnShowsTheDialogOnceAndRetriesOnce) {
    SimulatedUser user({testsupport::enterPin(kPin)});
    EXPECT_EQ(signWith(user), std::vector<std::string>{"dialog"});
    EXPECT_TRUE(ok) << error;

    auto validations = fake::callsTo("calyth_validatePassword");
    ASSERT_EQ(validations.size(), 1u);
    EXPECT_EQ(validations[0].args[0], kPin);
    auto signs = fake::callsTo("calyth_signHash");
    ASSERT_EQ(signs.size(), 2u);
    EXPECT_EQ(signs[0].args[1], kPin);
    EXPECT_EQ(signs[1].args[1], kPin);
    EXPECT_EQ(testsupport::logLineCount("DEBUG", "CPSignHash: SSO expired, re-prompting for PIN"), 1u);
    std::vector<BYTE> expected = fake::defaultSignature(256);
    std::reverse(expected.begin(), expected.end());
    EXPECT_EQ(buffer, expected);
}

TEST_F(SignPinPrompt, CancelledDialogAfterExpiryFailsWithoutASecondSignature) {
    SimulatedUser user({testsupport::pressCancel()});
    EXPECT_EQ(signWith(user), std::vector<std::string>{"dialog"});
    EXPECT_FALSE(ok);
    EXPECT_EQ(error, static_cast<DWORD>(NTE_FAIL));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPSignHash: ensurePasswordValidated failed after SSO expiry"));
    EXPECT_EQ(fake::countCalls("calyth_signHash"), 1u);
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 0u);
    EXPECT_FALSE(isPinValidated(kSerial));
}

}  // namespace
}  // namespace csptest
