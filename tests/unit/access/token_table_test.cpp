// The process-wide token table, the container table and token selection.
#include "token/token_table.h"

#include <thread>

#include "access_test_support.h"

using namespace access_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class TokenTable : public AccessTest {};

// True when no table operation left the shared mutex held.
bool mutexIsFree() {
    if (!providerMutex().try_lock())
        return false;
    providerMutex().unlock();
    return true;
}

}  // namespace

TEST_F(TokenTable, AbsentSerialReadsAsNothingKnown) {
    EXPECT_FALSE(isDeviceInitialized("S1"));
    EXPECT_FALSE(isPinValidated("S1"));
    EXPECT_EQ(getValidatedPin("S1"), "");
    EXPECT_FALSE(hasValidatedPin("S1"));
    EXPECT_FALSE(hasDeviceEntry("S1"));
}

TEST_F(TokenTable, MarkInitializedCreatesTheEntryWithoutAPin) {
    markDeviceInitialized("S1");
    EXPECT_TRUE(hasDeviceEntry("S1"));
    EXPECT_TRUE(isDeviceInitialized("S1"));
    EXPECT_FALSE(isPinValidated("S1"));
    EXPECT_FALSE(isDeviceInitialized("S2"));
    EXPECT_TRUE(mutexIsFree());
}

TEST_F(TokenTable, StoreValidatedPinSetsPinAndFlag) {
    storeValidatedPin("S1", "4321");
    EXPECT_TRUE(isPinValidated("S1"));
    EXPECT_EQ(getValidatedPin("S1"), "4321");
    EXPECT_TRUE(hasValidatedPin("S1"));
    EXPECT_FALSE(isDeviceInitialized("S1"));
    storeValidatedPin("S1", "9999");
    EXPECT_EQ(getValidatedPin("S1"), "9999");
}

TEST_F(TokenTable, AnEmptyStoredPinCountsAsValidatedButNotAsHeld) {
    storeValidatedPin("S1", "");
    EXPECT_TRUE(isPinValidated("S1"));
    EXPECT_FALSE(hasValidatedPin("S1"));
}

TEST_F(TokenTable, ClearValidatedPinOnUnknownSerialCreatesNoEntry) {
    clearValidatedPin("S9");
    EXPECT_FALSE(hasDeviceEntry("S9"));
    EXPECT_FALSE(isPinValidated("S9"));
}

TEST_F(TokenTable, ClearValidatedPinKeepsTheInitialisation) {
    markDeviceInitialized("S1");
    storeValidatedPin("S1", "1234");
    clearValidatedPin("S1");
    EXPECT_FALSE(isPinValidated("S1"));
    EXPECT_EQ(getValidatedPin("S1"), "");
    EXPECT_TRUE(isDeviceInitialized("S1"));
    EXPECT_TRUE(hasDeviceEntry("S1"));
}

TEST_F(TokenTable, EraseDeviceForgetsInitialisationAndPin) {
    markDeviceInitialized("S1");
    storeValidatedPin("S1", "1234");
    eraseDevice("S1");
    EXPECT_FALSE(hasDeviceEntry("S1"));
    EXPECT_FALSE(isDeviceInitialized("S1"));
    EXPECT_FALSE(isPinValidated("S1"));
    EXPECT_EQ(getValidatedPin("S1"), "");
}

TEST_F(TokenTable, SweepErasesAndLogsOnlyTokensNoLongerConnected) {
    markDeviceInitialized("B");
    storeValidatedPin("A", "1111");
    markDeviceInitialized("C");
    eraseDisconnectedDevices({"B"});
    EXPECT_FALSE(hasDeviceEntry("A"));
    EXPECT_TRUE(hasDeviceEntry("B"));
    EXPECT_FALSE(hasDeviceEntry("C"));
    std::vector<std::string> lines;
    for (const std::string& entry : testsupport::logEntries())
        if (entry.find("Device disconnected") != std::string::npos)
            lines.push_back(entry);
    EXPECT_THAT(lines, ElementsAre("DEBUG:Device disconnected: A", "DEBUG:Device disconnected: C"));
    EXPECT_TRUE(mutexIsFree());
}

TEST_F(TokenTable, ContainerTableMatchesExactlyAndReplaces) {
    EXPECT_EQ(resolveContainer("MyKeys"), "MyKeys");
    std::string resolved = "unchanged";
    EXPECT_FALSE(lookupResolvedContainer("MyKeys", &resolved));
    EXPECT_EQ(resolved, "unchanged");

    recordResolvedContainer("MyKeys", keyIdHex(1));
    EXPECT_EQ(resolveContainer("MyKeys"), keyIdHex(1));
    EXPECT_EQ(resolveContainer("mykeys"), "mykeys");
    EXPECT_TRUE(lookupResolvedContainer("MyKeys", &resolved));
    EXPECT_EQ(resolved, keyIdHex(1));

    recordResolvedContainer("MyKeys", keyIdHex(2));
    EXPECT_EQ(resolveContainer("MyKeys"), keyIdHex(2));
    EXPECT_TRUE(mutexIsFree());
}

TEST_F(TokenTable, NoTokenSelectsNothingWithoutAskingForKeys) {
    EXPECT_EQ(selectDeviceForContainer(keyIdHex(1)), "");
    EXPECT_EQ(fake::countCalls("calyth_getKeyPairList"), 0u);
    auto lists = fake::callsTo("calyth_getConnectedDeviceList");
    ASSERT_EQ(lists.size(), 1u);
    EXPECT_THAT(lists[0].args, ElementsAre("false", "null"));
}

TEST_F(TokenTable, EmptyNameSelectsTheFirstTokenWithoutAskingForKeys) {
    fake::addToken("S1");
    fake::addToken("S2");
    EXPECT_EQ(selectDeviceForContainer(""), "S1");
    EXPECT_EQ(fake::countCalls("calyth_getKeyPairList"), 0u);
}

TEST_F(TokenTable, LowerCaseKeyIdentifierSelectsTheTokenHoldingTheKey) {
    fake::addToken("S1");
    fake::addToken("S2");
    fake::addKeyPair("S1", fake::makeKeyPair(keyIdHex(1), CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048));
    fake::addKeyPair("S2", fake::makeKeyPair(keyIdHex(2), CALYTH_USAGE_SIGNATURE, CALYTH_KEY_EC_P256));
    std::string lower = keyIdHex(2);
    for (char& c : lower)
        c = static_cast<char>(tolower(c));
    EXPECT_EQ(selectDeviceForContainer(lower), "S2");
    EXPECT_THAT(serialsOf("calyth_getKeyPairList"), ElementsAre("S1", "S2"));
    // Selection neither needs nor performs an initialisation.
    EXPECT_EQ(fake::countCalls("calyth_initDevice"), 0u);
    EXPECT_FALSE(isDeviceInitialized("S2"));
}

TEST_F(TokenTable, TheFirstMatchingTokenWins) {
    fake::addToken("S1");
    fake::addToken("S2");
    fake::addKeyPair("S1", fake::makeKeyPair(keyIdHex(7), CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048));
    fake::addKeyPair("S2", fake::makeKeyPair(keyIdHex(7), CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048));
    EXPECT_EQ(selectDeviceForContainer(keyIdHex(7)), "S1");
    EXPECT_THAT(serialsOf("calyth_getKeyPairList"), ElementsAre("S1"));
}

TEST_F(TokenTable, UnknownNameFallsBackToTheFirstToken) {
    fake::addToken("S1");
    fake::addToken("S2");
    fake::addKeyPair("S2", fake::makeKeyPair(keyIdHex(2), CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048));
    EXPECT_EQ(selectDeviceForContainer("SomeApplicationName"), "S1");
    EXPECT_THAT(serialsOf("calyth_getKeyPairList"), ElementsAre("S1", "S2"));
}

TEST_F(TokenTable, SelectionDoesNotConsultTheContainerTable) {
    fake::addToken("S1");
    fake::addToken("S2");
    fake::addKeyPair("S2", fake::makeKeyPair(keyIdHex(2), CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048));
    recordResolvedContainer("AppContainer", keyIdHex(2));
    EXPECT_EQ(selectDeviceForContainer("AppContainer"), "S1");
}

TEST_F(TokenTable, DisconnectedTokensAreNotSelected) {
    fake::addToken("S1");
    fake::addToken("S2");
    fake::setConnected("S1", false);
    EXPECT_EQ(selectDeviceForContainer(""), "S2");
}

TEST_F(TokenTable, InitialisationRunsInitThenInitDevicePerToken) {
    fake::addToken("S1");
    fake::addToken("S2");
    initializeConnectedDevices({"S1", "S2"}, nullptr, kCspDeviceInit);
    EXPECT_THAT(fake::callNames(),
                ElementsAre("calyth_init", "calyth_initDevice", "calyth_init", "calyth_initDevice"));
    for (const fake::Call& call : fake::callsTo("calyth_init"))
        EXPECT_THAT(call.args, ElementsAre("0", "null", "2"));
    auto inits = fake::callsTo("calyth_initDevice");
    EXPECT_EQ(inits[0].serial, "S1");
    EXPECT_EQ(inits[1].serial, "S2");
    EXPECT_THAT(inits[0].args, ElementsAre("false"));
    EXPECT_TRUE(isDeviceInitialized("S1"));
    EXPECT_TRUE(isDeviceInitialized("S2"));
}

TEST_F(TokenTable, AFailedInitialisationIsLoggedAndRetriedNextTime) {
    fake::addToken("S1");
    fake::addToken("S2").initResult = 7;
    fake::addToken("S3");
    initializeConnectedDevices({"S1", "S2", "S3"}, nullptr, kCspDeviceInit);
    EXPECT_TRUE(isDeviceInitialized("S1"));
    EXPECT_FALSE(isDeviceInitialized("S2"));
    EXPECT_FALSE(hasDeviceEntry("S2"));
    EXPECT_TRUE(isDeviceInitialized("S3"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Init device failed for S2 : 7"));

    fake::clearCalls();
    fake::token("S2").initResult = 0;
    initializeConnectedDevices({"S1", "S2", "S3"}, nullptr, kCspDeviceInit);
    EXPECT_THAT(serialsOf("calyth_initDevice"), ElementsAre("S2"));
    EXPECT_EQ(fake::countCalls("calyth_init"), 1u);
    EXPECT_TRUE(isDeviceInitialized("S2"));
}

TEST_F(TokenTable, NegativeInitResultIsLoggedWithItsSign) {
    fake::addToken("S1");
    fake::failNext("calyth_initDevice", -5);
    initializeConnectedDevices({"S1"}, nullptr, kCspDeviceInit);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Init device failed for S1 : -5"));
}

TEST_F(TokenTable, AnErasedTokenIsInitialisedAgain) {
    fake::addToken("S1");
    initializeConnectedDevices({"S1"}, nullptr, kCspDeviceInit);
    storeValidatedPin("S1", "1234");
    eraseDisconnectedDevices({});
    EXPECT_FALSE(isDeviceInitialized("S1"));
    EXPECT_FALSE(isPinValidated("S1"));
    fake::clearCalls();
    initializeConnectedDevices({"S1"}, nullptr, kCspDeviceInit);
    EXPECT_THAT(serialsOf("calyth_initDevice"), ElementsAre("S1"));
    EXPECT_TRUE(isDeviceInitialized("S1"));
    EXPECT_FALSE(isPinValidated("S1"));
}

TEST_F(TokenTable, KeyIdentifiersAreUpperCaseHexInLibraryOrderAndLogged) {
    fake::addToken("S1");
    fake::addKeyPair(
        "S1", fake::makeKeyPair("00ff10ab00000000000000000000cafe", CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_2048));
    fake::addKeyPair("S1", fake::makeKeyPair(keyIdHex(3), CALYTH_USAGE_SIGNATURE, CALYTH_KEY_EC_P384));
    std::vector<std::string> ids = loadKeyIdentifiers("S1", nullptr);
    EXPECT_THAT(ids, ElementsAre("00FF10AB00000000000000000000CAFE", keyIdHex(3)));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "00FF10AB00000000000000000000CAFE"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "" + keyIdHex(3)));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "Acquire Context :: Key List is empty"));
    EXPECT_THAT(serialsOf("calyth_getKeyPairList"), ElementsAre("S1"));
}

TEST_F(TokenTable, AnEmptyKeyListIsLoggedAndNotAnError) {
    fake::addToken("S1");
    EXPECT_THAT(loadKeyIdentifiers("S1", nullptr), IsEmpty());
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Acquire Context :: Key List is empty"));
}

TEST_F(TokenTable, ConcurrentUpdatesKeepTheTableConsistent) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            std::string mine = "T" + std::to_string(t);
            for (int i = 0; i < kRounds; ++i) {
                markDeviceInitialized(mine);
                storeValidatedPin(mine, "pin" + std::to_string(i));
                storeValidatedPin("shared", "x");
                clearValidatedPin("shared");
                recordResolvedContainer(mine, std::to_string(i));
                eraseDisconnectedDevices({"T0", "T1", "T2", "T3", "T4", "T5", "T6", "T7", "shared"});
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (int t = 0; t < kThreads; ++t) {
        std::string mine = "T" + std::to_string(t);
        EXPECT_TRUE(isDeviceInitialized(mine));
        EXPECT_EQ(getValidatedPin(mine), "pin" + std::to_string(kRounds - 1));
        EXPECT_EQ(resolveContainer(mine), std::to_string(kRounds - 1));
    }
    EXPECT_TRUE(mutexIsFree());
}
