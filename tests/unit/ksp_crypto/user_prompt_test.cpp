// KSPPromptUser (the PIN check on the router's request) and KSPNotifyChangeKey (not offered).
#include <windows.h>

#include <ncrypt.h>

#include <gtest/gtest.h>

#include "crypto_test_support.h"
#include "token/token_table.h"

namespace ksptest {
namespace {

class PromptUser : public KspTest {
protected:
    void SetUp() override {
        KspTest::SetUp();
        makeProvider();
    }
    // Never read: any value must do.
    NCRYPT_KEY_HANDLE bogusKey = static_cast<NCRYPT_KEY_HANDLE>(0x10);
};

TEST_F(PromptUser, NullOrUninitialisedProviderIsAnInvalidHandle) {
    EXPECT_EQ(KSPPromptUser(0, 0, nullptr, 0), KSP_NTE_INVALID_HANDLE);
    provider()->initialized = 0;
    EXPECT_EQ(KSPPromptUser(provider_, 0, nullptr, 0), KSP_NTE_INVALID_HANDLE);
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPPromptUser: provider handle is null or not initialized"));
    EXPECT_EQ(testsupport::logMessagesAt("DEBUG").front(), "KSPPromptUser");
}

TEST_F(PromptUser, HeldPinSucceedsWithoutAskingTheToken) {
    storeValidatedPin("SN1", "1234");
    EXPECT_EQ(KSPPromptUser(provider_, bogusKey, L"sign", 0), KSP_SUCCESS);
    EXPECT_TRUE(fake::calls().empty());
    EXPECT_TRUE(testsupport::logMessagesAt("ERROR").empty());
}

TEST_F(PromptUser, SingleSignOnSucceeds) {
    fake::setSingleSignOn("SN1", true);
    EXPECT_EQ(KSPPromptUser(provider_, 0, nullptr, 0), KSP_SUCCESS);
    EXPECT_TRUE(isPinValidated("SN1"));
    EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 0u);
}

TEST_F(PromptUser, FailedPinCheckIsNteFail) {
    EXPECT_EQ(KSPPromptUser(provider_, bogusKey, L"sign", 0), KSP_NTE_FAIL);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPPromptUser: password validation failed"));
    EXPECT_EQ(fake::countCalls("calyth_getTokenInfo"), 1u);
}

TEST_F(PromptUser, SilentFlagIsIgnored) {
    // The flags play no part: the check still goes to the token (and to the dialog, which fails
    // headless), never answering NTE_SILENT_CONTEXT.
    EXPECT_EQ(KSPPromptUser(provider_, 0, nullptr, NCRYPT_SILENT_FLAG), KSP_NTE_FAIL);
    EXPECT_EQ(fake::countCalls("calyth_getTokenInfo"), 1u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: User cancelled password dialog"));
    storeValidatedPin("SN1", "1234");
    EXPECT_EQ(KSPPromptUser(provider_, 0, nullptr, NCRYPT_SILENT_FLAG), KSP_SUCCESS);
}

using NotifyChangeKey = KspTest;

TEST_F(NotifyChangeKey, IsNotSupportedWhateverTheArguments) {
    HANDLE event = nullptr;
    EXPECT_EQ(KSPNotifyChangeKey(0, nullptr, 0), KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(KSPNotifyChangeKey(makeProvider(), &event, 0xFFFFFFFF), KSP_NTE_NOT_SUPPORTED);
    EXPECT_EQ(event, nullptr);
    EXPECT_EQ(testsupport::logMessagesAt("DEBUG"), std::vector<std::string>(2, "KSPNotifyChangeKey"));
    EXPECT_EQ(testsupport::logMessagesAt("ERROR"),
              std::vector<std::string>(2, "KSPNotifyChangeKey: not supported"));
    EXPECT_TRUE(fake::calls().empty());
}

}  // namespace
}  // namespace ksptest
