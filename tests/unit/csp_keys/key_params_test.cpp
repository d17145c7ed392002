// CPGetKeyParam and CPSetKeyParam: size rules, values, the IV buffer and the key's certificate.
#include <cstring>

#include "csp_keys_fixture.h"
#include "token/process_state.h"
#include "token/token_table.h"

using namespace keystest;

namespace {

class KeyParamTest : public KeysTest {
protected:
    void SetUp() override {
        KeysTest::SetUp();
        fake::addKeyPair("SN1", fake::makeKeyPair(kSignId, 1, CALYTH_KEY_RSA_2048, "signing"));
        fake::addKeyPair("SN1", fake::makeKeyPair(kExchangeId, 2, CALYTH_KEY_RSA_2048, "exchange"));
        fake::addKeyPair("SN1", fake::makeKeyPair(kBothId, 3, CALYTH_KEY_RSA_4096, "both"));
    }
    HCRYPTKEY keyFor(const char* id, DWORD keySpec) {
        context_.containerName = id;
        return userKey(keySpec);
    }
};

TEST_F(KeyParamTest, AlgidWithZeroLengthAndBufferIsASizeQuery) {
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    DWORD value = 0xDEADBEEF;
    DWORD length = 0;
    EXPECT_TRUE(CPGetKeyParam(prov(), key, KP_ALGID, reinterpret_cast<BYTE*>(&value), &length, 0));
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(value, 0xDEADBEEFu) << "a size query writes nothing";
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetKeyParam: KP_ALGID size query, return TRUE"));
}

TEST_F(KeyParamTest, ModeWithZeroLengthAndBufferIsTooSmall) {
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    DWORD value = 0xDEADBEEF;
    DWORD length = 0;
    EXPECT_FALSE(CPGetKeyParam(prov(), key, KP_MODE, reinterpret_cast<BYTE*>(&value), &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(value, 0xDEADBEEFu);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetKeyParam: KP_MODE buffer too small, return FALSE"));
}

TEST_F(KeyParamTest, ModeWithoutBufferIsASizeQuery) {
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    DWORD length = 0;
    EXPECT_TRUE(CPGetKeyParam(prov(), key, KP_MODE, nullptr, &length, 0));
    EXPECT_EQ(length, 4u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetKeyParam: KP_MODE size query, return TRUE"));
}

TEST_F(KeyParamTest, ModeStartsAsCbcAndFollowsSetKeyParam) {
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    EXPECT_EQ(getDword(key, KP_MODE), static_cast<DWORD>(CRYPT_MODE_CBC));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetKeyParam - KP_MODE = 1"));
    DWORD ecb = CRYPT_MODE_ECB;
    EXPECT_TRUE(CPSetKeyParam(prov(), key, KP_MODE, reinterpret_cast<const BYTE*>(&ecb), 0));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSetKeyParam: KP_MODE = 2"));
    EXPECT_EQ(getDword(key, KP_MODE), static_cast<DWORD>(CRYPT_MODE_ECB));
}

TEST_F(KeyParamTest, PermissionsAreDecryptForExchangeKeysOnly) {
    EXPECT_EQ(getDword(keyFor(kExchangeId, AT_KEYEXCHANGE), KP_PERMISSIONS),
              static_cast<DWORD>(CRYPT_DECRYPT));
    EXPECT_EQ(getDword(keyFor(kBothId, AT_KEYEXCHANGE), KP_PERMISSIONS), static_cast<DWORD>(CRYPT_DECRYPT));
    EXPECT_EQ(getDword(keyFor(kSignId, AT_SIGNATURE), KP_PERMISSIONS), 0u);
}

TEST_F(KeyParamTest, DwordParametersFailWithMoreDataOnOneToThreeBytes) {
    HCRYPTKEY key = keyFor(kBothId, AT_SIGNATURE);
    const std::pair<DWORD, std::string> params[] = {{KP_PERMISSIONS, "KP_PERMISSIONS"},
                                                    {KP_ALGID, "KP_ALGID"},
                                                    {KP_BLOCKLEN, "KP_BLOCKLEN/KP_KEYLEN"},
                                                    {KP_KEYLEN, "KP_BLOCKLEN/KP_KEYLEN"}};
    for (const auto& [param, name] : params) {
        DWORD value = 0;
        DWORD length = 3;
        SetLastError(0);
        EXPECT_FALSE(CPGetKeyParam(prov(), key, param, reinterpret_cast<BYTE*>(&value), &length, 0)) << name;
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA)) << name;
        EXPECT_EQ(length, 4u) << name;
        EXPECT_TRUE(
            testsupport::logHasLine("ERROR", "CPGetKeyParam: " + name + " buffer too small, return FALSE"))
            << name;
        length = 0;
        EXPECT_TRUE(CPGetKeyParam(prov(), key, param, nullptr, &length, 0)) << name;
        EXPECT_EQ(length, 4u) << name;
        EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetKeyParam: " + name + " size query, return TRUE"))
            << name;
    }
}

TEST_F(KeyParamTest, KeyLengthAndBlockLengthAreTheKeyBits) {
    HCRYPTKEY key = keyFor(kBothId, AT_SIGNATURE);
    EXPECT_EQ(getDword(key, KP_KEYLEN), 4096u);
    EXPECT_EQ(getDword(key, KP_BLOCKLEN), 4096u);
    EXPECT_EQ(getDword(key, KP_ALGID), static_cast<DWORD>(CALG_RSA_SIGN));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetKeyParam - copying alg id : 9216"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetKeyParam: return TRUE"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetKeyParam - dwparam : 9"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", std::string("CPGetKeyParam - key id : ") + kBothId));
}

TEST_F(KeyParamTest, IvAndPaddingAndUnknownParametersAreNotReadable) {
    HCRYPTKEY key = keyFor(kBothId, AT_SIGNATURE);
    for (DWORD param : {static_cast<DWORD>(KP_IV), static_cast<DWORD>(KP_PADDING), 99ul}) {
        DWORD value = 0;
        DWORD length = 4;
        EXPECT_FALSE(CPGetKeyParam(prov(), key, param, reinterpret_cast<BYTE*>(&value), &length, 0));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
        EXPECT_TRUE(testsupport::logHasLine(
            "ERROR", "CPGetKeyParam: unsupported dwParam=" + std::to_string(param) + ", return FALSE"));
    }
}

TEST_F(KeyParamTest, GetKeyParamChecksContextThenKey) {
    HCRYPTKEY key = keyFor(kBothId, AT_SIGNATURE);
    DWORD value = 0;
    DWORD length = 4;
    EXPECT_FALSE(CPGetKeyParam(0, key, KP_ALGID, reinterpret_cast<BYTE*>(&value), &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetKeyParam: context is null or not initialized"));
    EXPECT_FALSE(CPGetKeyParam(prov(), 0, KP_ALGID, reinterpret_cast<BYTE*>(&value), &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetKeyParam: key handle is null"));
    context_.initialized = false;
    EXPECT_FALSE(CPGetKeyParam(prov(), key, KP_ALGID, reinterpret_cast<BYTE*>(&value), &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
}

// --- KP_CERTIFICATE read ---------------------------------------------------------------------

CalythCertificate tokenCertificate(const std::vector<unsigned char>& der, const std::string& label,
                                   const unsigned char* objectId, int objectIdLength) {
    CalythCertificate certificate{};
    std::memcpy(certificate.der, der.data(), der.size());
    certificate.derLength = static_cast<int32_t>(der.size());
    std::strncpy(certificate.label, label.c_str(), sizeof(certificate.label) - 1);
    if (objectId != nullptr) {
        std::memcpy(certificate.objectId, objectId, objectIdLength);
        certificate.objectIdLength = objectIdLength;
    }
    return certificate;
}

TEST_F(KeyParamTest, CertificateIsFoundByLabel) {
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    std::vector<unsigned char> other = bytesOf({0x30, 0x03, 0x01, 0x01, 0x01});
    std::vector<unsigned char> mine = bytesOf({0x30, 0x04, 0x02, 0x02, 0x01, 0x02});
    fake::token("SN1").certificates.push_back(tokenCertificate(other, "signing", nullptr, 0));
    fake::token("SN1").certificates.push_back(tokenCertificate(mine, "exchange", nullptr, 0));
    fake::clearCalls();

    DWORD length = 0;
    EXPECT_TRUE(CPGetKeyParam(prov(), key, KP_CERTIFICATE, nullptr, &length, 0));
    EXPECT_EQ(length, mine.size());
    EXPECT_TRUE(
        testsupport::logHasLine("DEBUG", "CPGetKeyParam: KP_CERTIFICATE size query, len=6, return TRUE"));
    std::vector<unsigned char> out(length);
    EXPECT_TRUE(CPGetKeyParam(prov(), key, KP_CERTIFICATE, out.data(), &length, 0));
    EXPECT_EQ(out, mine);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPGetKeyParam: KP_CERTIFICATE copied, len=6, return TRUE"));

    auto init = fake::callsTo("calyth_initDevice");
    ASSERT_EQ(init.size(), 2u);
    EXPECT_EQ(init[0].serial, "SN1");
    EXPECT_EQ(init[0].args, std::vector<std::string>{"true"});
    EXPECT_EQ(fake::countCalls("calyth_getCertificateList"), 2u);
}

TEST_F(KeyParamTest, CertificateIsFoundByObjectIdentifierWhenLabelsDiffer) {
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    const KEY_HANDLE* record = keyHandleFrom(key);
    std::vector<unsigned char> mine = bytesOf({0x30, 0x02, 0x05, 0x00});
    fake::token("SN1").certificates.push_back(tokenCertificate(bytesOf({0x30, 0x00}), "", nullptr, 0));
    fake::token("SN1").certificates.push_back(
        tokenCertificate(mine, "someone else", record->objectId, record->objectIdLength));
    DWORD length = 100;
    std::vector<unsigned char> out(100);
    EXPECT_TRUE(CPGetKeyParam(prov(), key, KP_CERTIFICATE, out.data(), &length, 0));
    ASSERT_EQ(length, 4u);
    out.resize(4);
    EXPECT_EQ(out, mine);
}

TEST_F(KeyParamTest, CertificateShortBufferFailsWithMoreDataAndTheLength) {
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    std::vector<unsigned char> mine(300, 0x42);
    mine[0] = 0x30;
    fake::token("SN1").certificates.push_back(tokenCertificate(mine, "exchange", nullptr, 0));
    std::vector<unsigned char> out(299);
    DWORD length = 299;
    EXPECT_FALSE(CPGetKeyParam(prov(), key, KP_CERTIFICATE, out.data(), &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(length, 300u);
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPGetKeyParam: KP_CERTIFICATE buffer too small, return FALSE"));
}

TEST_F(KeyParamTest, MissingCertificateFailsWithNotFound) {
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    fake::token("SN1").certificates.push_back(tokenCertificate(bytesOf({0x30, 0x00}), "signing", nullptr, 0));
    DWORD length = 0;
    EXPECT_FALSE(CPGetKeyParam(prov(), key, KP_CERTIFICATE, nullptr, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NOT_FOUND));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPGetKeyParam: KP_CERTIFICATE not found, return FALSE"));
}

// --- CPSetKeyParam ------------------------------------------------------------------------------

TEST_F(KeyParamTest, SetKeyParamLogsItsInputs) {
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    DWORD value = 1;
    EXPECT_TRUE(CPSetKeyParam(prov(), key, KP_PERMISSIONS, reinterpret_cast<const BYTE*>(&value), 5));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", std::string("Set key param key id : ") + kExchangeId));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Set key param  dwParam : 6"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Set key param  dwFlags : 5"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Set key param key algo : 41984"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSetKeyParam: KP_PERMISSIONS = 1"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSetKeyParam: return TRUE"));
    EXPECT_EQ(getDword(key, KP_PERMISSIONS), static_cast<DWORD>(CRYPT_DECRYPT)) << "nothing is stored";
}

TEST_F(KeyParamTest, UnknownParameterIsAcceptedAndLogged) {
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    DWORD value = 0;
    EXPECT_TRUE(CPSetKeyParam(prov(), key, 99, reinterpret_cast<const BYTE*>(&value), 0));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSetKeyParam: unhandled dwParam=99"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSetKeyParam: return TRUE"));
}

TEST_F(KeyParamTest, PaddingIsLoggedOnly) {
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    DWORD padding = PKCS5_PADDING;
    EXPECT_TRUE(CPSetKeyParam(prov(), key, KP_PADDING, reinterpret_cast<const BYTE*>(&padding), 0));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSetKeyParam: KP_PADDING = 1"));
    EXPECT_TRUE(CPSetKeyParam(prov(), key, KP_MODE, nullptr, 0)) << "a missing value is ignored";
    EXPECT_EQ(getDword(key, KP_MODE), static_cast<DWORD>(CRYPT_MODE_CBC));
}

TEST_F(KeyParamTest, IvIsCopiedForAes256AndTripleDesSessionKeysOnly) {
    std::vector<unsigned char> iv;
    for (int i = 0; i < 16; ++i)
        iv.push_back(static_cast<unsigned char>(0xA0 + i));

    KEY_HANDLE* rsa = keyHandleFrom(keyFor(kExchangeId, AT_KEYEXCHANGE));
    EXPECT_TRUE(CPSetKeyParam(prov(), handleOf(rsa), KP_IV, iv.data(), 0));
    EXPECT_TRUE(processIv().empty());

    KEY_HANDLE* aes256 = newKey();
    aes256->algId = 10;
    EXPECT_TRUE(CPSetKeyParam(prov(), handleOf(aes256), KP_IV, iv.data(), 0));
    EXPECT_EQ(processIv(), iv);

    KEY_HANDLE* tripleDes = newKey();
    tripleDes->algId = 11;
    std::vector<unsigned char> iv8 = bytesOf({1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    EXPECT_TRUE(CPSetKeyParam(prov(), handleOf(tripleDes), KP_IV, iv8.data(), 0));
    EXPECT_EQ(processIv(), bytesOf({1, 2, 3, 4, 5, 6, 7, 8})) << "the 8 bytes replace the earlier IV";

    KEY_HANDLE* aes128 = newKey();
    aes128->algId = 8;
    EXPECT_TRUE(CPSetKeyParam(prov(), handleOf(aes128), KP_IV, iv.data(), 0));
    EXPECT_EQ(processIv(), bytesOf({1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST_F(KeyParamTest, SetKeyParamChecksContextThenKey) {
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    DWORD value = 0;
    EXPECT_FALSE(CPSetKeyParam(0, key, KP_MODE, reinterpret_cast<const BYTE*>(&value), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPSetKeyParam: context is null or not initialized"));
    EXPECT_FALSE(CPSetKeyParam(prov(), 0, KP_MODE, reinterpret_cast<const BYTE*>(&value), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPSetKeyParam: key handle is null"));
}

// --- KP_CERTIFICATE store ---------------------------------------------------------------------

// A DER blob whose header claims `total` bytes in all; the content is filler.
std::vector<unsigned char> derBlob(std::vector<unsigned char> header, size_t total) {
    header.resize(total, 0x5A);
    return header;
}

// What the token's parser reports for a self-contained leaf (no issuer, so no chain is looked for).
CertificateDetails leafDetails() {
    CertificateDetails details;
    details.subjectName = "CN=Leaf";
    details.issuerName = "";
    details.subjectCommonName = "Leaf";
    details.issuerCommonName = "Leaf";
    return details;
}

TEST_F(KeyParamTest, CertificateWithFourByteLengthFormFailsWithBadData) {
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    std::vector<unsigned char> der = bytesOf({0x30, 0x84, 0x00, 0x00, 0x01, 0x00});
    EXPECT_FALSE(CPSetKeyParam(prov(), key, KP_CERTIFICATE, der.data(), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_DATA));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPSetKeyParam: KP_CERTIFICATE unsupported DER length encoding"));
    EXPECT_EQ(fake::countCalls("calyth_importCertificate"), 0u);
}

TEST_F(KeyParamTest, CertificateNotStartingWithSequenceFailsWithBadData) {
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    std::vector<unsigned char> der = bytesOf({0x31, 0x03, 0x01, 0x01, 0x00});
    EXPECT_FALSE(CPSetKeyParam(prov(), key, KP_CERTIFICATE, der.data(), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_DATA));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPSetKeyParam: KP_CERTIFICATE invalid DER (not a SEQUENCE)"));
}

TEST_F(KeyParamTest, NullCertificateFailsWithInvalidParameter) {
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    EXPECT_FALSE(CPSetKeyParam(prov(), key, KP_CERTIFICATE, nullptr, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPSetKeyParam: KP_CERTIFICATE pbData is null"));
}

TEST_F(KeyParamTest, CertificateLengthComesFromTheDerHeaderAndTheRecordCarriesTheKey) {
    storeValidatedPin("SN1", "1234");
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    // 30 82 05 10: 0x510 content bytes plus the 4-byte header; the caller's buffer runs longer.
    std::vector<unsigned char> buffer = derBlob(bytesOf({0x30, 0x82, 0x05, 0x10}), 1400);
    std::vector<unsigned char> der(buffer.begin(), buffer.begin() + 1300);
    fake::registerCertificate(der, leafDetails());
    EXPECT_TRUE(CPSetKeyParam(prov(), key, KP_CERTIFICATE, buffer.data(), 0));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSetKeyParam: KP_CERTIFICATE DER length=1300"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSetKeyParam: KP_CERTIFICATE imported successfully"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSetKeyParam: return TRUE"));

    auto imports = fake::callsTo("calyth_importCertificate");
    ASSERT_EQ(imports.size(), 1u);
    EXPECT_EQ(imports[0].serial, "SN1");
    EXPECT_EQ(imports[0].args[0], "1234");
    EXPECT_EQ(imports[0].args[1], fake::hex(der)) << "exactly the 1300 bytes the header announces";
    EXPECT_EQ(imports[0].args[2], "exchange") << "the key's label goes with the certificate";
    ASSERT_EQ(fake::token("SN1").certificates.size(), 1u);
    const CalythCertificate& stored = fake::token("SN1").certificates[0];
    EXPECT_EQ(std::memcmp(stored.keyId, keyHandleFrom(key)->keyId, 16), 0);
    EXPECT_EQ(stored.objectIdLength, keyHandleFrom(key)->objectIdLength);
    EXPECT_EQ(std::memcmp(stored.objectId, keyHandleFrom(key)->objectId, stored.objectIdLength), 0);
}

TEST_F(KeyParamTest, CertificateShortAndOneByteLengthForms) {
    storeValidatedPin("SN1", "1234");
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    std::vector<unsigned char> shortForm = derBlob(bytesOf({0x30, 0x10}), 18);
    fake::registerCertificate(shortForm, leafDetails());
    EXPECT_TRUE(CPSetKeyParam(prov(), key, KP_CERTIFICATE, shortForm.data(), 0));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSetKeyParam: KP_CERTIFICATE DER length=18"));
    std::vector<unsigned char> oneByte = derBlob(bytesOf({0x30, 0x81, 0x90}), 0x93);
    fake::registerCertificate(oneByte, leafDetails());
    EXPECT_TRUE(CPSetKeyParam(prov(), key, KP_CERTIFICATE, oneByte.data(), 0));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSetKeyParam: KP_CERTIFICATE DER length=147"));
    EXPECT_EQ(fake::countCalls("calyth_importCertificate"), 2u);
}

TEST_F(KeyParamTest, CertificateImportFailureBecomesNteFail) {
    storeValidatedPin("SN1", "1234");
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    std::vector<unsigned char> der = derBlob(bytesOf({0x30, 0x10}), 18);
    fake::registerCertificate(der, leafDetails());
    fake::failNext("calyth_importCertificate", 7);
    EXPECT_FALSE(CPSetKeyParam(prov(), key, KP_CERTIFICATE, der.data(), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPSetKeyParam: KP_CERTIFICATE import failed ret=7"));
}

TEST_F(KeyParamTest, CertificateWithoutPinLogsInFirstAndFailsWhenLoginFails) {
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    context_.silent = true;
    std::vector<unsigned char> der = derBlob(bytesOf({0x30, 0x10}), 18);
    EXPECT_FALSE(CPSetKeyParam(prov(), key, KP_CERTIFICATE, der.data(), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "loginUser: enter"));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPSetKeyParam: KP_CERTIFICATE login failed"));
    EXPECT_EQ(fake::countCalls("calyth_importCertificate"), 0u);
}

TEST_F(KeyParamTest, CertificateWithSingleSignOnReadsTheStoredPinAgain) {
    fake::setSingleSignOn("SN1", true);
    HCRYPTKEY key = keyFor(kExchangeId, AT_KEYEXCHANGE);
    std::vector<unsigned char> der = derBlob(bytesOf({0x30, 0x10}), 18);
    fake::registerCertificate(der, leafDetails());
    EXPECT_TRUE(CPSetKeyParam(prov(), key, KP_CERTIFICATE, der.data(), 0));
    EXPECT_EQ(fake::countCalls("calyth_getTokenInfo"), 1u);
    auto imports = fake::callsTo("calyth_importCertificate");
    ASSERT_EQ(imports.size(), 1u);
    EXPECT_EQ(imports[0].args[0], "") << "single sign-on leaves no PIN in the token table";
}

}  // namespace
