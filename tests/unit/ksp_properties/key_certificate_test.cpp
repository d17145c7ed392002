// The "SmartCardKeyCertificate" key property: finding the key's certificate on the token (label or
// link identifier first, then the public key), the size rule, hostile DER lengths from the device,
// and storing a certificate through the PIN check and the chain import.
#include <windows.h>

#include <ncrypt.h>

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_device/fake_device.h"
#include "ksp/ksp_interface.h"
#include "ksp/ksp_objects.h"
#include "properties_fixture.h"
#include "support/simulated_user.h"
#include "token/token_table.h"

using ksptest::kEcSignId;
using ksptest::kRsaExchangeId;
using ksptest::kRsaSignId;
using ::testing::ElementsAre;
using testsupport::enterPin;
using testsupport::GuardedBuffer;
using testsupport::pressCancel;
using testsupport::SimulatedUser;

namespace {

constexpr wchar_t kCertificate[] = L"SmartCardKeyCertificate";

std::vector<BYTE> derOf(BYTE tag, size_t length = 6) {
    std::vector<BYTE> der(length, tag);
    der[0] = 0x30;
    der[1] = 0x82;
    return der;
}

CalythCertificate certificateRecord(const std::vector<BYTE>& der, const std::string& label = "",
                                    const std::vector<BYTE>& linkId = {}) {
    CalythCertificate record{};
    std::memcpy(record.der, der.data(), der.size());
    record.derLength = static_cast<int32_t>(der.size());
    std::memcpy(record.objectId, linkId.data(), linkId.size());
    record.objectIdLength = static_cast<int32_t>(linkId.size());
    std::strncpy(record.label, label.c_str(), sizeof record.label - 1);
    return record;
}

// Details the fake device answers for `der`, with the given public key.
void registerDetails(const std::vector<BYTE>& der, const std::vector<BYTE>& publicKey,
                     const std::string& subjectCn = "Alice") {
    CertificateDetails details;
    details.subjectName = "CN=" + subjectCn;
    details.subjectCommonName = subjectCn;
    details.issuerCommonName = "Test CA";
    details.publicKey = publicKey;
    fake::registerCertificate(der, details);
}

class KeyCertificateTest : public proptest::PropertiesTest {
protected:
    void SetUp() override {
        PropertiesTest::SetUp();
        SetEnvironmentVariableA("CALYTH_HOME", "C:\\calyth-properties-home");
    }
    void TearDown() override {
        SetEnvironmentVariableA("CALYTH_HOME", nullptr);
        PropertiesTest::TearDown();
    }

    void addCertificate(const CalythCertificate& record) {
        fake::token("SN1").certificates.push_back(record);
    }
    std::vector<BYTE> linkIdOf(NCRYPT_KEY_HANDLE key) {
        const KspKey* k = kspKeyFrom(key);
        return {k->linkId, k->linkId + k->linkIdLength};
    }
    std::vector<BYTE> publicKeyOf(NCRYPT_KEY_HANDLE key) {
        const KspKey* k = kspKeyFrom(key);
        return {k->publicKey, k->publicKey + k->publicKeyLength};
    }
    std::vector<BYTE> certificateOf(NCRYPT_KEY_HANDLE key, SECURITY_STATUS expected = 0) {
        std::vector<BYTE> value;
        EXPECT_EQ(getKeyProperty(key, kCertificate, &value), expected);
        return value;
    }
    SECURITY_STATUS store(NCRYPT_KEY_HANDLE key, const std::vector<BYTE>& der) {
        return setKeyProperty(key, kCertificate, der);
    }
    // pin, DER and label of each calyth_importCertificate call.
    std::vector<std::string> imports() {
        std::vector<std::string> out;
        for (const fake::Call& call : fake::callsTo("calyth_importCertificate"))
            out.push_back(call.args.at(0) + "|" + call.args.at(1) + "|" + call.args.at(2));
        return out;
    }
};

}  // namespace

// ---- lookup ----

TEST_F(KeyCertificateTest, ACertificateWithTheKeysLabelIsTheKeysCertificate) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    addCertificate(certificateRecord(derOf(0x01), "rsa-exchange"));
    addCertificate(certificateRecord(derOf(0x02), "rsa-sign"));
    GuardedBuffer buffer(64);
    DWORD size = 0;
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, kCertificate, buffer.data(), buffer.size(), &size, 0), 0);
    EXPECT_EQ(buffer.written(size), derOf(0x02));
    auto init = fake::callsTo("calyth_initDevice");
    ASSERT_EQ(init.size(), 1u);
    EXPECT_EQ(init[0].serial, "SN1");
    EXPECT_THAT(init[0].args, ElementsAre("true"));
    EXPECT_THAT(fake::callNames(), ElementsAre("calyth_initDevice", "calyth_getCertificateList"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: GetKeyProperty: SmartCardKeyCertificate"));
}

TEST_F(KeyCertificateTest, TheLookupStillRunsWhenTheDeviceDoesNotInitialise) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    addCertificate(certificateRecord(derOf(0x02), "rsa-sign"));
    fake::failNext("calyth_initDevice", 9, 10);
    EXPECT_EQ(certificateOf(key), derOf(0x02));
}

TEST_F(KeyCertificateTest, LabelsAreComparedExactly) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    addCertificate(certificateRecord(derOf(0x01), "RSA-SIGN"));
    addCertificate(certificateRecord(derOf(0x02), "rsa-sign "));
    addCertificate(certificateRecord(derOf(0x03), "rsa-sig"));
    certificateOf(key, KSP_NTE_NOT_FOUND);
}

TEST_F(KeyCertificateTest, EmptyLabelsDoNotMatch) {
    NCRYPT_KEY_HANDLE key = makeEmptyKey();
    kspKeyFrom(key)->linkIdLength = 4;
    std::memset(kspKeyFrom(key)->linkId, 0x44, 4);
    addCertificate(certificateRecord(derOf(0x01), "", {0x45, 0x45, 0x45, 0x45}));
    certificateOf(key, KSP_NTE_NOT_FOUND);
}

TEST_F(KeyCertificateTest, ACertificateWithTheKeysLinkIdentifierIsTheKeysCertificate) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    std::vector<BYTE> link = linkIdOf(key);
    ASSERT_EQ(link.size(), 20u);
    std::vector<BYTE> otherLink = link;
    otherLink.back() ^= 1;
    addCertificate(certificateRecord(derOf(0x01), "other", otherLink));
    addCertificate(certificateRecord(derOf(0x02), "", link));
    EXPECT_EQ(certificateOf(key), derOf(0x02));
}

TEST_F(KeyCertificateTest, ALinkIdentifierOfAnotherLengthDoesNotMatch) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    std::vector<BYTE> longer = linkIdOf(key);
    longer.push_back(0);
    std::vector<BYTE> shorter = linkIdOf(key);
    shorter.pop_back();
    addCertificate(certificateRecord(derOf(0x01), "", longer));
    addCertificate(certificateRecord(derOf(0x02), "", shorter));
    certificateOf(key, KSP_NTE_NOT_FOUND);
}

TEST_F(KeyCertificateTest, ALinkIdentifierLengthBeyondTheRecordMatchesNothing) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    CalythCertificate record = certificateRecord(derOf(0x01), "", linkIdOf(key));
    record.objectIdLength = 100000;
    addCertificate(record);
    record.objectIdLength = -20;
    addCertificate(record);
    certificateOf(key, KSP_NTE_NOT_FOUND);
}

TEST_F(KeyCertificateTest, LabelAndLinkComeBeforeThePublicKey) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    std::vector<BYTE> byKey = derOf(0x01);
    registerDetails(byKey, publicKeyOf(key));
    addCertificate(certificateRecord(byKey, "unrelated"));
    addCertificate(certificateRecord(derOf(0x02), "rsa-sign"));
    EXPECT_EQ(certificateOf(key), derOf(0x02));
    EXPECT_EQ(fake::countCalls("calyth_getCertificateDetails"), 0u);
}

TEST_F(KeyCertificateTest, WithoutLabelOrLinkTheFirstCertificateWithTheKeysPublicKeyIsTaken) {
    NCRYPT_KEY_HANDLE key = makeKey(kEcSignId);
    std::vector<BYTE> otherKey = derOf(0x01);
    registerDetails(otherKey, publicKeyOf(makeKey(kRsaSignId)));
    std::vector<BYTE> unparsed = derOf(0x02);
    std::vector<BYTE> first = derOf(0x03, 9);
    registerDetails(first, publicKeyOf(key));
    std::vector<BYTE> second = derOf(0x04);
    registerDetails(second, publicKeyOf(key));
    for (const auto& der : {otherKey, unparsed, first, second})
        addCertificate(certificateRecord(der, "unrelated"));
    EXPECT_EQ(certificateOf(key), first);
    auto parsed = fake::callsTo("calyth_getCertificateDetails");
    ASSERT_GE(parsed.size(), 3u);
    EXPECT_THAT(parsed[2].args, ElementsAre(fake::hex(first), "9"));
}

TEST_F(KeyCertificateTest, APublicKeyThatDiffersInLengthDoesNotMatch) {
    NCRYPT_KEY_HANDLE key = makeKey(kEcSignId);
    std::vector<BYTE> longer = publicKeyOf(key);
    longer.push_back(0);
    std::vector<BYTE> der = derOf(0x01);
    registerDetails(der, longer);
    addCertificate(certificateRecord(der));
    certificateOf(key, KSP_NTE_NOT_FOUND);
}

TEST_F(KeyCertificateTest, AKeyWithoutPublicKeyBytesMatchesNoPublicKey) {
    NCRYPT_KEY_HANDLE key = makeEmptyKey();
    kspKeyFrom(key)->linkIdLength = 3;
    std::vector<BYTE> der = derOf(0x01);
    registerDetails(der, {});
    addCertificate(certificateRecord(der, "", {9, 9, 9}));
    certificateOf(key, KSP_NTE_NOT_FOUND);
}

TEST_F(KeyCertificateTest, NoCertificateForTheKeyIsNotFound) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    DWORD size = 1234;
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, kCertificate, nullptr, 0, &size, 0), KSP_NTE_NOT_FOUND);
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"), ElementsAre("KSP: Certificate not found for key"));
    addCertificate(certificateRecord(derOf(0x01), "rsa-exchange"));
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, kCertificate, nullptr, 0, &size, 0), KSP_NTE_NOT_FOUND);
}

// ---- size rule ----

TEST_F(KeyCertificateTest, SizeQueryAndShortBuffer) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    std::vector<BYTE> der = derOf(0x07, 700);
    addCertificate(certificateRecord(der, "rsa-sign"));
    DWORD size = 0;
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, kCertificate, nullptr, 0, &size, 0), 0);
    EXPECT_EQ(size, 700u);
    GuardedBuffer small(699);
    size = 0;
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, kCertificate, small.data(), small.size(), &size, 0),
              KSP_NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 700u);
    EXPECT_TRUE(small.untouchedFrom(0));
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"), ElementsAre());
    GuardedBuffer exact(700);
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, kCertificate, exact.data(), exact.size(), &size, 0), 0);
    EXPECT_EQ(exact.written(700), der);
    EXPECT_TRUE(exact.untouchedFrom(700));
}

// The device's DER length is held to the record's 3,072-byte field: a larger one gives the whole
// field and never reads or writes beyond it; a negative one gives no bytes.
TEST_F(KeyCertificateTest, AHostileDerLengthIsHeldToTheRecord) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    std::vector<BYTE> full = derOf(0x5A, 3072);
    CalythCertificate record = certificateRecord(full, "rsa-sign");
    record.derLength = 100000;
    addCertificate(record);
    DWORD size = 0;
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, kCertificate, nullptr, 0, &size, 0), 0);
    EXPECT_EQ(size, 3072u);
    GuardedBuffer buffer(3072);
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, kCertificate, buffer.data(), buffer.size(), &size, 0), 0);
    EXPECT_EQ(buffer.written(3072), full);
    EXPECT_TRUE(buffer.untouchedFrom(3072));
}

TEST_F(KeyCertificateTest, ANegativeDerLengthGivesNoBytes) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    CalythCertificate record = certificateRecord(derOf(0x01), "rsa-sign");
    record.derLength = -5;
    addCertificate(record);
    GuardedBuffer buffer(16);
    DWORD size = 99;
    EXPECT_EQ(KSPGetKeyProperty(provider_, key, kCertificate, buffer.data(), buffer.size(), &size, 0), 0);
    EXPECT_EQ(size, 0u);
    EXPECT_TRUE(buffer.untouchedFrom(0));
}

TEST_F(KeyCertificateTest, AHostileDerLengthIsHeldToTheRecordWhenParsing) {
    NCRYPT_KEY_HANDLE key = makeKey(kEcSignId);
    CalythCertificate record = certificateRecord(derOf(0x01), "unrelated");
    record.derLength = 70000;
    addCertificate(record);
    certificateOf(key, KSP_NTE_NOT_FOUND);
    auto parsed = fake::callsTo("calyth_getCertificateDetails");
    ASSERT_EQ(parsed.size(), 1u);
    EXPECT_EQ(parsed[0].args.at(1), "3072");
}

// ---- storing ----

TEST_F(KeyCertificateTest, AStoredCertificateCarriesTheKeysLinkIdentifierAndTheHeldPin) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaExchangeId);
    storeValidatedPin("SN1", "1234");
    std::vector<BYTE> der = derOf(0x21, 40);
    registerDetails(der, {0xC1, 0x02});
    CalythCertificate seen{};
    fake::hooks().importCertificate = [&](const char*, const char*, CalythCertificate* certificate) {
        seen = *certificate;
        return 0;
    };
    SimulatedUser nobody({});
    EXPECT_EQ(store(key, der), 0);
    EXPECT_THAT(nobody.finish(), ElementsAre());
    EXPECT_THAT(imports(), ElementsAre("1234|" + fake::hex(der) + "|Alice_Test CA"));
    EXPECT_EQ(std::vector<BYTE>(seen.objectId, seen.objectId + seen.objectIdLength), linkIdOf(key));
    EXPECT_EQ(seen.derLength, 40);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: Certificate stored successfully"));
}

TEST_F(KeyCertificateTest, AStoredCertificateIsFoundAgainThroughItsLinkIdentifier) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaExchangeId);
    storeValidatedPin("SN1", "1234");
    std::vector<BYTE> der = derOf(0x22, 50);
    registerDetails(der, {0xC1, 0x03});
    ASSERT_EQ(store(key, der), 0);
    EXPECT_EQ(certificateOf(key), der);
}

TEST_F(KeyCertificateTest, WithSingleSignOnTheCertificateIsStoredWithAnEmptyPin) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    fake::setSingleSignOn("SN1", true);
    std::vector<BYTE> der = derOf(0x23);
    registerDetails(der, {0xC1, 0x04});
    SimulatedUser nobody({});
    EXPECT_EQ(store(key, der), 0);
    EXPECT_THAT(nobody.finish(), ElementsAre());
    EXPECT_THAT(imports(), ElementsAre("|" + fake::hex(der) + "|Alice_Test CA"));
}

TEST_F(KeyCertificateTest, WithoutAHeldPinTheUserIsAskedForIt) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    std::vector<BYTE> der = derOf(0x24);
    registerDetails(der, {0xC1, 0x05});
    SimulatedUser user({enterPin("1234")});
    EXPECT_EQ(store(key, der), 0);
    EXPECT_THAT(user.finish(), ElementsAre("dialog"));
    EXPECT_THAT(imports(), ElementsAre("1234|" + fake::hex(der) + "|Alice_Test CA"));
}

TEST_F(KeyCertificateTest, ACancelledPinDialogStoresNothing) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    std::vector<BYTE> der = derOf(0x25);
    registerDetails(der, {0xC1, 0x06});
    SimulatedUser user({pressCancel()});
    EXPECT_EQ(store(key, der), KSP_NTE_FAIL);
    EXPECT_THAT(user.finish(), ElementsAre("dialog"));
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "KSPSetKeyProperty: password validation failed for certificate import"));
    EXPECT_EQ(fake::countCalls("calyth_importCertificate"), 0u);
}

TEST_F(KeyCertificateTest, ANullOrEmptyCertificateIsABadParameter) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    std::vector<BYTE> der = derOf(0x26);
    SimulatedUser nobody({});
    EXPECT_EQ(KSPSetKeyProperty(provider_, key, kCertificate, nullptr, 6, 0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_EQ(KSPSetKeyProperty(provider_, key, kCertificate, der.data(), 0, 0), KSP_NTE_INVALID_PARAMETER);
    EXPECT_THAT(nobody.finish(), ElementsAre());
    EXPECT_THAT(testsupport::logMessagesAt("ERROR"),
                ElementsAre("KSPSetKeyProperty: NCRYPT_CERTIFICATE_PROPERTY pbInput is null or empty",
                            "KSPSetKeyProperty: NCRYPT_CERTIFICATE_PROPERTY pbInput is null or empty"));
    EXPECT_EQ(fake::countCalls("calyth_getTokenInfo"), 0u);
    EXPECT_EQ(fake::countCalls("calyth_importCertificate"), 0u);
}

// The token's record holds 3,072 DER bytes: a longer certificate is refused as a bad parameter before
// the PIN check, and one of exactly that size is stored whole.
TEST_F(KeyCertificateTest, ACertificateLongerThanTheRecordIsRefusedBeforeThePinCheck) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    std::vector<BYTE> tooLong = derOf(0x27, 3073);
    registerDetails(tooLong, {0xC1, 0x07});
    SimulatedUser nobody({});
    EXPECT_EQ(store(key, tooLong), KSP_NTE_INVALID_PARAMETER);
    EXPECT_THAT(nobody.finish(), ElementsAre());
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "KSPSetKeyProperty: NCRYPT_CERTIFICATE_PROPERTY too large, cbInput=3073"));
    EXPECT_EQ(fake::countCalls("calyth_getTokenInfo"), 0u);
    EXPECT_EQ(fake::countCalls("calyth_importCertificate"), 0u);

    storeValidatedPin("SN1", "1234");
    std::vector<BYTE> largest = derOf(0x28, 3072);
    registerDetails(largest, {0xC1, 0x08});
    EXPECT_EQ(store(key, largest), 0);
    EXPECT_THAT(imports(), ElementsAre("1234|" + fake::hex(largest) + "|Alice_Test CA"));
}

TEST_F(KeyCertificateTest, ARefusedImportIsAnInternalError) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    storeValidatedPin("SN1", "1234");
    std::vector<BYTE> der = derOf(0x29);
    registerDetails(der, {0xC1, 0x09});
    fake::failNext("calyth_importCertificate", 5);
    EXPECT_EQ(store(key, der), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Import certificate failed: 5"));
    EXPECT_FALSE(testsupport::logHasLine("DEBUG", "KSP: Certificate stored successfully"));
}

TEST_F(KeyCertificateTest, ACertificateTheDeviceCannotParseIsAnInternalError) {
    NCRYPT_KEY_HANDLE key = makeKey(kRsaSignId);
    storeValidatedPin("SN1", "1234");
    EXPECT_EQ(store(key, derOf(0x2A)), KSP_NTE_INTERNAL_ERROR);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: Import certificate failed: 1"));
    EXPECT_EQ(fake::countCalls("calyth_importCertificate"), 0u);
}
