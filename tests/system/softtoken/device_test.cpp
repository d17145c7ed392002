// Devices, token state, PIN and single sign-on, fault injection and damaged token files.
#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>

#include "support/device_calls.h"
#include "support/ecdsa_signature.h"
#include "support/scratch_files.h"
#include "support/test_support.h"
#include "support/token_tool.h"

using namespace testsupport;

namespace {

using DeviceTest = TokenStoreTest;
using PinTest = TokenStoreTest;
using FaultTest = TokenStoreTest;
using DamagedTokenTest = TokenStoreTest;

const Bytes kDigest32(32, 0x5A);

int sign(const std::string& serial, const Bytes& keyId, const char* pin, Bytes* signature = nullptr) {
    Bytes out(512);
    int length = static_cast<int>(out.size());
    int result = calyth_signHash(serial.c_str(), keyId.data(), pin, kDigest32.data(), 32, out.data(), &length,
                                 false, nullptr, false);
    if (signature && result == 0)
        *signature = Bytes(out.begin(), out.begin() + length);
    return result;
}

int attemptsLeft(const std::string& serial) {
    return calyth_getTokenInfo(serial.c_str(), nullptr).pinAttemptsLeft;
}

int generate(const std::string& serial, const char* pin, int32_t sizeCode = CALYTH_KEY_EC_P256) {
    CalythKeyPair request;
    std::memset(&request, 0, sizeof request);
    request.keySizeCode = sizeCode;
    return calyth_generateKeyPair(serial.c_str(), pin, &request, nullptr);
}

std::vector<std::string> devices() {
    return calyth_getConnectedDeviceList(false, nullptr);
}

}  // namespace

TEST_F(DeviceTest, EmptyStoreListsNoDevice) {
    EXPECT_EQ(calyth_init(0, nullptr, 2), 0);
    EXPECT_TRUE(devices().empty());
}

TEST_F(DeviceTest, MissingStoreFolderListsNoDeviceAndFailsCalls) {
    SetEnvironmentVariableA("CALYTH_TOKEN_STORE", (store + "\\does-not-exist").c_str());
    EXPECT_TRUE(devices().empty());
    EXPECT_NE(calyth_initDevice("SN1", false, nullptr), 0);
}

TEST_F(DeviceTest, ListsConnectedTokensInSerialOrder) {
    makeToken("SN-B");
    makeToken("SN-A");
    makeToken("SN-C");
    ASSERT_EQ(calythToken("unplug --serial SN-C"), 0);
    EXPECT_EQ(devices(), (std::vector<std::string>{"SN-A", "SN-B"}));
    EXPECT_EQ(devices(), (std::vector<std::string>{"SN-A", "SN-B"}));
}

TEST_F(DeviceTest, InitDeviceAnswersZeroOnlyForAConnectedToken) {
    makeToken("SN1");
    EXPECT_EQ(calyth_initDevice("SN1", false, nullptr), 0);
    EXPECT_EQ(calyth_initDevice("SN1", true, nullptr), 0);
    EXPECT_NE(calyth_initDevice("SN2", false, nullptr), 0);
    EXPECT_NE(calyth_initDevice("", false, nullptr), 0);
    EXPECT_NE(calyth_initDevice(nullptr, false, nullptr), 0);
    EXPECT_NE(calyth_initDevice("..\\SN1", false, nullptr), 0);
}

TEST_F(DeviceTest, UnpluggedTokenFailsEveryCallUntilPluggedInAgain) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "p256"));
    ASSERT_EQ(calythToken("unplug --serial SN1"), 0);

    EXPECT_TRUE(devices().empty());
    EXPECT_NE(calyth_initDevice("SN1", false, nullptr), 0);
    EXPECT_TRUE(calyth_getTokenInfo("SN1", nullptr).label.empty());
    int left = -1;
    EXPECT_NE(calyth_validatePassword("SN1", "1234", 1, &left, nullptr), 0);
    EXPECT_TRUE(calyth_getKeyPairList("SN1", nullptr).empty());
    EXPECT_NE(sign("SN1", key, "1234"), 0);
    void* hash = nullptr;
    EXPECT_NE(calyth_initHash("SN1", CALYTH_HASH_SHA256, &hash, nullptr), 0);
    unsigned char random[8];
    EXPECT_NE(calyth_generateRamdomNumber("SN1", 8, random, false, nullptr), 0);
    EXPECT_NE(generate("SN1", "1234"), 0);

    ASSERT_EQ(calythToken("plug --serial SN1"), 0);
    EXPECT_EQ(devices(), std::vector<std::string>{"SN1"});
    EXPECT_EQ(calyth_initDevice("SN1", false, nullptr), 0);
    EXPECT_EQ(calyth_getKeyPairList("SN1", nullptr).size(), 1u);
    EXPECT_EQ(sign("SN1", key, "1234"), 0);
}

TEST_F(DeviceTest, HashStartedOnATokenFailsOnceTheTokenIsUnplugged) {
    makeToken("SN1");
    void* hash = nullptr;
    ASSERT_EQ(calyth_initHash("SN1", CALYTH_HASH_SHA256, &hash, nullptr), 0);
    ASSERT_EQ(calythToken("unplug --serial SN1"), 0);
    unsigned char data[3] = {'a', 'b', 'c'};
    EXPECT_NE(calyth_updateHash(hash, data, 3, nullptr), 0);
    ASSERT_EQ(calythToken("plug --serial SN1"), 0);
    EXPECT_EQ(calyth_updateHash(hash, data, 3, nullptr), 0);
    Bytes out(32);
    int length = 32;
    ASSERT_EQ(calyth_finalHash(hash, out.data(), &length, nullptr), 0);
    EXPECT_EQ(hex(out), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
}

TEST_F(DeviceTest, TokenInfoReportsLabelFirmwareAndNoSession) {
    makeToken("SN1", "--label Office");
    TokenInfo info = calyth_getTokenInfo("SN1", nullptr);
    EXPECT_EQ(info.label, "Office");
    EXPECT_EQ(info.serialNumber, "SN1");
    EXPECT_EQ(info.firmwareVersion, "2.1.0");
    EXPECT_EQ(info.userLoggedIn, 0);
    EXPECT_EQ(info.ssoValid, 0);
    EXPECT_EQ(info.pinAttemptsLeft, 10);
    EXPECT_FALSE(info.manufacturer.empty());
}

TEST_F(DeviceTest, FirmwareVersionIsSetAtInitAndLater) {
    makeToken("SN1", "--firmware 1.9.9");
    EXPECT_EQ(calyth_getTokenInfo("SN1", nullptr).firmwareVersion, "1.9.9");
    ASSERT_EQ(calythToken("set-firmware --serial SN1 --version 2.0"), 0);
    EXPECT_EQ(calyth_getTokenInfo("SN1", nullptr).firmwareVersion, "2.0");
}

TEST_F(DeviceTest, SingleSignOnStateShowsInTokenInfo) {
    makeToken("SN1");
    ASSERT_EQ(calythToken("sso --serial SN1 on"), 0);
    TokenInfo on = calyth_getTokenInfo("SN1", nullptr);
    EXPECT_FALSE(on.label.empty());
    EXPECT_EQ(on.userLoggedIn, 1);
    EXPECT_EQ(on.ssoValid, 1);
    ASSERT_EQ(calythToken("sso --serial SN1 expired"), 0);
    TokenInfo expired = calyth_getTokenInfo("SN1", nullptr);
    EXPECT_EQ(expired.userLoggedIn, 1);
    EXPECT_EQ(expired.ssoValid, 0);
    ASSERT_EQ(calythToken("sso --serial SN1 off"), 0);
    TokenInfo off = calyth_getTokenInfo("SN1", nullptr);
    EXPECT_EQ(off.userLoggedIn, 0);
    EXPECT_EQ(off.ssoValid, 0);
}

TEST_F(DeviceTest, TokenMadeByTheAdminCommandSurvivesAndChangesMadeHereReachIt) {
    makeToken("SN1");
    Bytes made = unhex(makeKey("SN1", "p256", "--label fromtool"));
    ASSERT_EQ(generate("SN1", "1234"), 0);
    std::vector<CalythKeyPair> keys = calyth_getKeyPairList("SN1", nullptr);
    ASSERT_EQ(keys.size(), 2u);
    EXPECT_EQ(Bytes(keys[0].keyId, keys[0].keyId + 16), made);
    EXPECT_STREQ(keys[0].label, "fromtool");
    std::string listing;
    ASSERT_EQ(calythToken("list --serial SN1", &listing), 0);
    EXPECT_NE(listing.find(hex(Bytes(keys[1].keyId, keys[1].keyId + 16))), std::string::npos) << listing;
}

TEST_F(PinTest, RightPinIsAcceptedWithFullCount) {
    makeToken("SN1");
    int left = -1;
    EXPECT_EQ(calyth_validatePassword("SN1", "1234", 1, &left, nullptr), 0);
    EXPECT_EQ(left, 10);
}

TEST_F(PinTest, WrongPinCountsDownAndTheRightPinResetsTheCount) {
    makeToken("SN1");
    int left = -1;
    EXPECT_NE(calyth_validatePassword("SN1", "9999", 1, &left, nullptr), 0);
    EXPECT_EQ(left, 9);
    EXPECT_NE(calyth_validatePassword("SN1", "0000", 1, &left, nullptr), 0);
    EXPECT_EQ(left, 8);
    EXPECT_EQ(attemptsLeft("SN1"), 8);
    EXPECT_EQ(calyth_validatePassword("SN1", "1234", 1, &left, nullptr), 0);
    EXPECT_EQ(attemptsLeft("SN1"), 10);
    EXPECT_NE(calyth_validatePassword("SN1", "9999", 1, &left, nullptr), 0);
    EXPECT_EQ(left, 9);
}

TEST_F(PinTest, TokenLocksAtTheRetryLimitAndRefusesEvenTheRightPin) {
    makeToken("SN1", "--retries 3");
    Bytes key = unhex(makeKey("SN1", "p256"));
    int left = -1;
    EXPECT_NE(calyth_validatePassword("SN1", "0001", 1, &left, nullptr), 0);
    EXPECT_EQ(left, 2);
    EXPECT_NE(calyth_validatePassword("SN1", "0002", 1, &left, nullptr), 0);
    EXPECT_EQ(left, 1);
    EXPECT_NE(calyth_validatePassword("SN1", "0003", 1, &left, nullptr), 0);
    EXPECT_EQ(left, 0);
    left = -1;
    EXPECT_NE(calyth_validatePassword("SN1", "1234", 1, &left, nullptr), 0);
    EXPECT_EQ(left, 0);
    EXPECT_NE(sign("SN1", key, "1234"), 0);
    EXPECT_EQ(attemptsLeft("SN1"), 0);

    ASSERT_EQ(calythToken("unlock --serial SN1"), 0);
    EXPECT_EQ(calyth_validatePassword("SN1", "1234", 1, &left, nullptr), 0);
    EXPECT_EQ(left, 3);
    EXPECT_EQ(sign("SN1", key, "1234"), 0);
}

TEST_F(PinTest, OnlyTheUserPinTypeIsValidated) {
    makeToken("SN1");
    int left = -1;
    EXPECT_NE(calyth_validatePassword("SN1", "1234", 0, &left, nullptr), 0);
    EXPECT_NE(calyth_validatePassword("SN1", "1234", 2, &left, nullptr), 0);
    EXPECT_EQ(calyth_validatePassword("SN1", "1234", 1, nullptr, nullptr), 0);
}

TEST_F(PinTest, PrivateKeyWorkRefusesAWrongPinAndCountsIt) {
    makeToken("SN1");
    Bytes ec = unhex(makeKey("SN1", "p256"));
    Bytes rsa = unhex(makeKey("SN1", "rsa1024"));
    EXPECT_NE(sign("SN1", ec, "4321"), 0);
    EXPECT_EQ(attemptsLeft("SN1"), 9);
    EXPECT_NE(generate("SN1", "4321"), 0);
    EXPECT_EQ(calyth_getKeyPairList("SN1", nullptr).size(), 2u);
    EXPECT_NE(calyth_deleteKeyPair("SN1", ec.data(), "4321", true, nullptr), 0);
    EXPECT_NE(calyth_updateKeyPairDetails("SN1", ec.data(), "4321", "renamed", nullptr, 0, nullptr), 0);
    unsigned char* out = nullptr;
    int length = 0;
    Bytes cipher(128, 0x11);
    EXPECT_NE(calyth_decrypt("SN1", rsa.data(), "4321", cipher.data(), 128, &out, &length, true, nullptr), 0);
    Bytes peer = keyRecord("SN1", ec).publicKey[0] == 0x04
                     ? Bytes(keyRecord("SN1", ec).publicKey, keyRecord("SN1", ec).publicKey + 65)
                     : Bytes();
    EXPECT_NE(calyth_ecdhDerive("SN1", ec.data(), "4321", peer.data(), 65, &out, &length, nullptr), 0);
    CalythSymmetricKey aes;
    std::memset(&aes, 0, sizeof aes);
    aes.keyLength = 16;
    aes.type = CALYTH_SYMMETRIC_AES_128;
    EXPECT_NE(calyth_importAesKey("SN1", "4321", &aes, nullptr), 0);
    EXPECT_EQ(attemptsLeft("SN1"), 3);
    ASSERT_EQ(keyRecord("SN1", ec).keySizeCode, CALYTH_KEY_EC_P256);
    EXPECT_STRNE(keyRecord("SN1", ec).label, "renamed");
    EXPECT_TRUE(calyth_getAesKeyList("SN1", nullptr).empty());
    EXPECT_EQ(sign("SN1", ec, "1234"), 0);
    EXPECT_EQ(attemptsLeft("SN1"), 10);
}

TEST_F(PinTest, EmptyPinWithoutSessionIsRefusedWithoutCostingAnAttempt) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "p256"));
    EXPECT_NE(sign("SN1", key, ""), 0);
    EXPECT_NE(sign("SN1", key, nullptr), 0);
    EXPECT_NE(generate("SN1", ""), 0);
    EXPECT_EQ(attemptsLeft("SN1"), 10);
}

TEST_F(PinTest, SingleSignOnLetsPrivateKeyWorkRunWithAnEmptyPin) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "p256"));
    ASSERT_EQ(calythToken("sso --serial SN1 on"), 0);
    EXPECT_EQ(sign("SN1", key, ""), 0);
    EXPECT_EQ(generate("SN1", ""), 0);
    EXPECT_NE(sign("SN1", key, "4321"), 0);  // a PIN that is given is still checked
    ASSERT_EQ(calythToken("sso --serial SN1 off"), 0);
    EXPECT_NE(sign("SN1", key, ""), 0);
}

TEST_F(PinTest, ExpiredSessionAnswers49ForSigningAndDecryptionWithAnEmptyPin) {
    makeToken("SN1");
    Bytes ec = unhex(makeKey("SN1", "p256"));
    Bytes rsa = unhex(makeKey("SN1", "rsa1024"));
    ASSERT_EQ(calythToken("sso --serial SN1 expired"), 0);
    EXPECT_EQ(sign("SN1", ec, ""), CALYTH_SSO_EXPIRED);
    unsigned char* out = nullptr;
    int length = 0;
    Bytes cipher(128, 0x11);
    EXPECT_EQ(calyth_decrypt("SN1", rsa.data(), "", cipher.data(), 128, &out, &length, true, nullptr),
              CALYTH_SSO_EXPIRED);
    int generated = generate("SN1", "");
    EXPECT_NE(generated, 0);
    EXPECT_NE(generated, CALYTH_SSO_EXPIRED);
    EXPECT_EQ(sign("SN1", ec, "1234"), 0);
}

TEST_F(FaultTest, SignFaultAnswersTheChosenCodeForTheNextCalls) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "p256"));
    ASSERT_EQ(calythToken("fault --serial SN1 --function signHash --code 49 --count 2"), 0);
    EXPECT_EQ(sign("SN1", key, "1234"), 49);
    EXPECT_EQ(sign("SN1", key, "1234"), 49);
    EXPECT_EQ(sign("SN1", key, "1234"), 0);
}

TEST_F(FaultTest, DecryptFaultAnswers49) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "rsa1024"));
    ASSERT_EQ(calythToken("fault --serial SN1 --function calyth_decrypt --code 49"), 0);
    unsigned char* out = nullptr;
    int length = 0;
    Bytes cipher(128, 0x11);
    EXPECT_EQ(calyth_decrypt("SN1", key.data(), "1234", cipher.data(), 128, &out, &length, true, nullptr),
              49);
    EXPECT_NE(calyth_decrypt("SN1", key.data(), "1234", cipher.data(), 128, &out, &length, true, nullptr),
              49);
}

TEST_F(FaultTest, TimeMismatchOnPinValidationLeavesNoAttempts) {
    makeToken("SN1");
    ASSERT_EQ(calythToken("fault --serial SN1 --function validatePassword --code 48"), 0);
    int left = -1;
    EXPECT_EQ(calyth_validatePassword("SN1", "1234", 1, &left, nullptr), CALYTH_SYSTEM_TIME_MISMATCH);
    EXPECT_EQ(left, 0);
    EXPECT_EQ(calyth_validatePassword("SN1", "1234", 1, &left, nullptr), 0);
    EXPECT_EQ(left, 10);
}

TEST_F(FaultTest, AnyFunctionCanBeMadeToFailWithAnyCode) {
    makeToken("SN1");
    unhex(makeKey("SN1", "p256"));
    ASSERT_EQ(calythToken("fault --serial SN1 --function initDevice --code 77"), 0);
    ASSERT_EQ(calythToken("fault --serial SN1 --function getKeyPairList --code 5"), 0);
    ASSERT_EQ(calythToken("fault --serial SN1 --function generateRamdomNumber --code 12"), 0);
    EXPECT_EQ(calyth_initDevice("SN1", false, nullptr), 77);
    EXPECT_EQ(calyth_initDevice("SN1", false, nullptr), 0);
    EXPECT_TRUE(calyth_getKeyPairList("SN1", nullptr).empty());
    EXPECT_EQ(calyth_getKeyPairList("SN1", nullptr).size(), 1u);
    unsigned char random[16];
    EXPECT_EQ(calyth_generateRamdomNumber("SN1", 16, random, true, nullptr), 0);  // software: no token
    EXPECT_EQ(calyth_generateRamdomNumber("SN1", 16, random, false, nullptr), 12);
    EXPECT_EQ(calyth_generateRamdomNumber("SN1", 16, random, false, nullptr), 0);
}

TEST_F(FaultTest, PermanentFaultFiresUntilCleared) {
    makeToken("SN1");
    makeToken("SN2");
    ASSERT_EQ(calythToken("fault --serial SN1 --function getTokenInfo --code 3 --always"), 0);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(calyth_getTokenInfo("SN1", nullptr).label.empty());
    EXPECT_EQ(calyth_getTokenInfo("SN2", nullptr).label, "SN2");  // the other token is not touched
    ASSERT_EQ(calythToken("fault --serial SN1 --clear"), 0);
    EXPECT_EQ(calyth_getTokenInfo("SN1", nullptr).label, "SN1");
}

TEST_F(DamagedTokenTest, CorruptFileGivesNonZeroStatusAndDoesNotHideOtherTokens) {
    makeToken("SN1");
    makeToken("SN2");
    Bytes key1 = unhex(makeKey("SN1", "p256"));
    Bytes key2 = unhex(makeKey("SN2", "p256"));
    EXPECT_EQ(sign("SN2", key2, "1234"), 0);  // the process holds SN2 in its cache
    writeFile(store + "\\SN2.token", bytesOf("calyth-soft-token 1\nserial=SN2\nlabel=zz\ngarbage\n"));

    EXPECT_EQ(devices(), std::vector<std::string>{"SN1"});
    EXPECT_NE(calyth_initDevice("SN2", false, nullptr), 0);
    EXPECT_TRUE(calyth_getTokenInfo("SN2", nullptr).label.empty());
    int left = -1;
    EXPECT_NE(calyth_validatePassword("SN2", "1234", 1, &left, nullptr), 0);
    EXPECT_TRUE(calyth_getKeyPairList("SN2", nullptr).empty());
    EXPECT_NE(sign("SN2", key2, "1234"), 0);
    EXPECT_NE(generate("SN2", "1234"), 0);
    EXPECT_EQ(sign("SN1", key1, "1234"), 0);

    std::string listing;
    EXPECT_EQ(calythToken("list", &listing), 0);
    EXPECT_NE(listing.find("SN2"), std::string::npos);
    EXPECT_NE(listing.find("unreadable"), std::string::npos) << listing;
    EXPECT_NE(listing.find(hex(key1)), std::string::npos) << listing;
}

TEST_F(DamagedTokenTest, TruncatedFileIsRecognised) {
    makeToken("SN1");
    makeToken("SN2");
    unhex(makeKey("SN2", "rsa1024"));
    Bytes content = readFile(store + "\\SN2.token");
    ASSERT_GT(content.size(), 100u);
    for (size_t keep : {content.size() - 1, content.size() / 2, size_t(10), size_t(0)}) {
        writeFile(store + "\\SN2.token", Bytes(content.begin(), content.begin() + static_cast<long>(keep)));
        EXPECT_EQ(devices(), std::vector<std::string>{"SN1"}) << keep;
        EXPECT_NE(calyth_initDevice("SN2", false, nullptr), 0) << keep;
        EXPECT_TRUE(calyth_getKeyPairList("SN2", nullptr).empty()) << keep;
    }
    writeFile(store + "\\SN2.token", content);
    EXPECT_EQ(calyth_initDevice("SN2", false, nullptr), 0);
    EXPECT_EQ(calyth_getKeyPairList("SN2", nullptr).size(), 1u);
}

TEST_F(DamagedTokenTest, FileOfAnotherSerialIsNotTakenForTheToken) {
    makeToken("SN1");
    CopyFileA((store + "\\SN1.token").c_str(), (store + "\\SN9.token").c_str(), FALSE);
    EXPECT_EQ(devices(), std::vector<std::string>{"SN1"});
    EXPECT_NE(calyth_initDevice("SN9", false, nullptr), 0);
}

TEST_F(DeviceTest, ChangeOfTheSameSizeByAnotherProcessIsSeenAtOnce) {
    makeToken("SN1");
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(calyth_initDevice("SN1", false, nullptr), 0) << round;  // this process holds the token now
        Bytes before = readFile(store + "\\SN1.token");
        ASSERT_EQ(calythToken("unplug --serial SN1"), 0);
        EXPECT_EQ(readFile(store + "\\SN1.token").size(), before.size()) << "plugged=1 became plugged=0";
        EXPECT_NE(calyth_initDevice("SN1", false, nullptr), 0) << round;
        ASSERT_EQ(calythToken("plug --serial SN1"), 0);
    }
}
