// KSPOpenProvider, KSPFreeProvider and KSPFreeBuffer.
#include <cstdlib>
#include <gtest/gtest.h>

#include "ksp/ksp_interface.h"
#include "objects_test_support.h"
#include "token/device_monitor.h"
#include "token/token_table.h"

namespace {

using objtest::myCallNames;
using objtest::myCallsTo;

class OpenProviderTest : public objtest::ObjectsTest {};

TEST_F(OpenProviderTest, NullOutputIsAnInvalidParameterAndTouchesNoToken) {
    EXPECT_EQ(KSPOpenProvider(nullptr, L"Calyth Cryptographic Provider CSP", 0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPOpenProvider"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPOpenProvider: phProvider is null"));
    EXPECT_TRUE(myCallNames().empty());
}

TEST_F(OpenProviderTest, OpensOnTheFirstTokenAndInitialisesIt) {
    NCRYPT_PROV_HANDLE handle = openProvider();
    ASSERT_NE(handle, 0u);
    KspProvider* opened = kspProviderFrom(handle);
    EXPECT_EQ(opened->serial, "SN1");
    EXPECT_EQ(opened->initialized, 1);
    EXPECT_EQ(opened->deviceContext, nullptr);
    EXPECT_EQ(opened->firmware, "2.1.0");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPOpenProvider"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Provider firmware=2.1.0"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Provider opened successfully"));
    EXPECT_TRUE(isDeviceInitialized("SN1"));
    EXPECT_FALSE(isPinValidated("SN1"));  // entered without a password

    std::vector<std::string> expected{"calyth_init", "calyth_getConnectedDeviceList", "calyth_getTokenInfo",
                                      "calyth_init", "calyth_initDevice"};
    EXPECT_EQ(myCallNames(), expected);
    for (const fake::Call& call : myCallsTo("calyth_init"))
        EXPECT_EQ(call.args, (std::vector<std::string>{"0", "null", "2"}));
    ASSERT_EQ(myCallsTo("calyth_getConnectedDeviceList").size(), 1u);
    EXPECT_EQ(myCallsTo("calyth_getConnectedDeviceList")[0].args,
              (std::vector<std::string>{"false", "null"}));
    EXPECT_EQ(myCallsTo("calyth_getTokenInfo")[0].serial, "SN1");
    ASSERT_EQ(myCallsTo("calyth_initDevice").size(), 1u);
    EXPECT_EQ(myCallsTo("calyth_initDevice")[0].serial, "SN1");
    EXPECT_EQ(myCallsTo("calyth_initDevice")[0].args, std::vector<std::string>{"false"});
}

TEST_F(OpenProviderTest, KeepsTheFirmwareTextOfTheToken) {
    fake::token("SN1").info.firmwareVersion = "10.4.7";
    NCRYPT_PROV_HANDLE handle = openProvider();
    ASSERT_NE(handle, 0u);
    EXPECT_EQ(kspProviderFrom(handle)->firmware, "10.4.7");
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Provider firmware=10.4.7"));
}

TEST_F(OpenProviderTest, StartsTheDeviceMonitor) {
    ASSERT_NE(openProvider(), 0u);
    EXPECT_TRUE(isDeviceMonitorRunning());
}

TEST_F(OpenProviderTest, WithoutATokenOpensWithAnEmptySerial) {
    fake::setConnected("SN1", false);
    NCRYPT_PROV_HANDLE handle = openProvider();
    ASSERT_NE(handle, 0u);
    EXPECT_EQ(kspProviderFrom(handle)->serial, "");
    EXPECT_EQ(kspProviderFrom(handle)->firmware, "");
    EXPECT_EQ(kspProviderFrom(handle)->initialized, 1);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: No token connected, opening provider without device"));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "KSP: Provider opened successfully"));
    EXPECT_TRUE(myCallsTo("calyth_getTokenInfo").empty());
    EXPECT_TRUE(myCallsTo("calyth_initDevice").empty());
}

TEST_F(OpenProviderTest, WithoutATokenOpenKeyFailsOnTheEmptyKeyList) {
    fake::setConnected("SN1", false);
    NCRYPT_PROV_HANDLE handle = openProvider();
    ASSERT_NE(handle, 0u);
    fake::clearCalls();
    NCRYPT_KEY_HANDLE key = 0;
    std::wstring name = ksptest::wide(ksptest::kRsaSignId);
    EXPECT_EQ(KSPOpenKey(handle, &key, name.c_str(), 0, 0), KSP_NTE_NO_KEY);
    EXPECT_EQ(key, 0u);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: No keys found on token"));
    ASSERT_EQ(myCallsTo("calyth_getKeyPairList").size(), 1u);
    EXPECT_EQ(myCallsTo("calyth_getKeyPairList")[0].serial, "");
}

TEST_F(OpenProviderTest, InitialisesEveryConnectedTokenInListOrder) {
    fake::addToken("SN2");
    fake::addToken("SN3");
    NCRYPT_PROV_HANDLE handle = openProvider();
    ASSERT_NE(handle, 0u);
    EXPECT_EQ(kspProviderFrom(handle)->serial, "SN1");
    std::vector<fake::Call> inits = myCallsTo("calyth_initDevice");
    ASSERT_EQ(inits.size(), 3u);
    EXPECT_EQ(inits[0].serial, "SN1");
    EXPECT_EQ(inits[1].serial, "SN2");
    EXPECT_EQ(inits[2].serial, "SN3");
    EXPECT_EQ(myCallsTo("calyth_init").size(), 4u);  // once at open, once before each token
    EXPECT_TRUE(isDeviceInitialized("SN2"));
    EXPECT_TRUE(isDeviceInitialized("SN3"));
    ASSERT_EQ(myCallsTo("calyth_getTokenInfo").size(), 1u);
    EXPECT_EQ(myCallsTo("calyth_getTokenInfo")[0].serial, "SN1");
}

TEST_F(OpenProviderTest, AFailingTokenIsLoggedAndTheOpenStillSucceeds) {
    fake::addToken("SN2").initResult = 7;
    fake::addToken("SN3");
    NCRYPT_PROV_HANDLE handle = openProvider();
    ASSERT_NE(handle, 0u);
    EXPECT_EQ(kspProviderFrom(handle)->initialized, 1);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Init device failed for SN2 : 7"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Provider opened successfully"));
    EXPECT_FALSE(hasDeviceEntry("SN2"));
    EXPECT_TRUE(isDeviceInitialized("SN3"));  // the failure did not stop the walk
}

TEST_F(OpenProviderTest, AFailingFirstTokenStillBecomesTheProvidersToken) {
    fake::failNext("calyth_initDevice", 5);
    NCRYPT_PROV_HANDLE handle = openProvider();
    ASSERT_NE(handle, 0u);
    EXPECT_EQ(kspProviderFrom(handle)->serial, "SN1");
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Init device failed for SN1 : 5"));
    EXPECT_FALSE(isDeviceInitialized("SN1"));
}

TEST_F(OpenProviderTest, SkipsATokenTheTableAlreadyKnows) {
    storeValidatedPin("SN1", "1234");  // an entry, though never initialised here
    fake::addToken("SN2");
    ASSERT_NE(openProvider(), 0u);
    std::vector<fake::Call> inits = myCallsTo("calyth_initDevice");
    ASSERT_EQ(inits.size(), 1u);
    EXPECT_EQ(inits[0].serial, "SN2");
    EXPECT_EQ(getValidatedPin("SN1"), "1234");  // the held PIN survives the open
}

TEST_F(OpenProviderTest, ASecondOpenInitialisesNothingAgain) {
    ASSERT_NE(openProvider(), 0u);
    fake::clearCalls();
    NCRYPT_PROV_HANDLE second = 0;
    ASSERT_EQ(KSPOpenProvider(&second, nullptr, 0), 0);
    keepProvider(second);
    EXPECT_TRUE(myCallsTo("calyth_initDevice").empty());
    EXPECT_EQ(kspProviderFrom(second)->serial, "SN1");
}

TEST_F(OpenProviderTest, ATokenWhoseInitialisationFailedIsTriedAgainAtTheNextOpen) {
    fake::failNext("calyth_initDevice", 9);
    ASSERT_NE(openProvider(), 0u);
    fake::clearCalls();
    NCRYPT_PROV_HANDLE second = 0;
    ASSERT_EQ(KSPOpenProvider(&second, nullptr, 0), 0);
    keepProvider(second);
    EXPECT_EQ(myCallsTo("calyth_initDevice").size(), 1u);
    EXPECT_TRUE(isDeviceInitialized("SN1"));
}

class FreeProviderTest : public objtest::ObjectsTest {};

TEST_F(FreeProviderTest, NullHandleIsAnInvalidHandle) {
    EXPECT_EQ(KSPFreeProvider(0), KSP_NTE_INVALID_HANDLE);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPFreeProvider"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPFreeProvider: provider handle is null"));
}

TEST_F(FreeProviderTest, FreesAnOpenedProvider) {
    NCRYPT_PROV_HANDLE handle = 0;
    ASSERT_EQ(KSPOpenProvider(&handle, nullptr, 0), 0);
    EXPECT_EQ(KSPFreeProvider(handle), 0);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPFreeProvider"));
}

TEST_F(FreeProviderTest, FreesAProviderThatWasNeverInitialised) {
    auto* raw = new KspProvider{};
    raw->serial = "a serial long enough to live on the heap rather than inside the string";
    EXPECT_EQ(KSPFreeProvider(reinterpret_cast<NCRYPT_PROV_HANDLE>(raw)), 0);
}

class FreeBufferTest : public objtest::ObjectsTest {};

TEST_F(FreeBufferTest, AcceptsNull) {
    EXPECT_EQ(KSPFreeBuffer(nullptr), 0);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPFreeBuffer"));
}

TEST_F(FreeBufferTest, ReleasesAMallocedBlock) {
    void* block = std::malloc(64);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(KSPFreeBuffer(block), 0);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSPFreeBuffer"));
}

}  // namespace
