// CPExportKey: RSA-2048 public keys as PUBLICKEYBLOB; everything else refused.
#include <cstring>

#include "csp/public_key_export.h"
#include "csp_keys_fixture.h"
#include "support/test_support.h"
#include "util/encoding.h"
#include "util/utils.h"
#include "wine_rsa.h"

using namespace keystest;

namespace {

uint32_t read32(const std::vector<unsigned char>& blob, size_t offset) {
    uint32_t value = 0;
    std::memcpy(&value, blob.data() + offset, 4);
    return value;
}

class ExportTest : public KeysTest {
protected:
    void SetUp() override {
        KeysTest::SetUp();
        fake::addKeyPair("SN1", fake::makeKeyPair(kSignId, 1, CALYTH_KEY_RSA_1024));
        fake::addKeyPair("SN1", fake::makeKeyPair(kExchangeId, 2, CALYTH_KEY_RSA_2048));
    }
    HCRYPTKEY exchangeKey() {
        context_.containerName = kExchangeId;
        return userKey(AT_KEYEXCHANGE);
    }
    std::vector<unsigned char> exportBlob(HCRYPTKEY key) {
        DWORD length = 0;
        EXPECT_TRUE(CPExportKey(prov(), key, 0, PUBLICKEYBLOB, 0, nullptr, &length));
        std::vector<unsigned char> blob(length);
        EXPECT_TRUE(CPExportKey(prov(), key, 0, PUBLICKEYBLOB, 0, blob.data(), &length));
        blob.resize(length);
        return blob;
    }
};

TEST_F(ExportTest, SizeQueryAnswers276WithMoreDataAsLastError) {
    HCRYPTKEY key = exchangeKey();
    DWORD length = 0;
    SetLastError(0);
    EXPECT_TRUE(CPExportKey(prov(), key, 0, PUBLICKEYBLOB, 0, nullptr, &length));
    EXPECT_EQ(length, 276u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Emport public key more data required"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Exportkey return status : 1"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "dwBlobType : 6"));
}

TEST_F(ExportTest, BlobHasTheCryptoApiLayoutWithTheModulusLittleEndian) {
    HCRYPTKEY key = exchangeKey();
    std::vector<unsigned char> blob = exportBlob(key);
    ASSERT_EQ(blob.size(), 276u);
    EXPECT_EQ(GetLastError(), 0u) << "success clears the last error";
    EXPECT_EQ(blob[0], PUBLICKEYBLOB);
    EXPECT_EQ(blob[1], 2);
    EXPECT_EQ(blob[2], 0);
    EXPECT_EQ(blob[3], 0);
    EXPECT_EQ(read32(blob, 4), static_cast<uint32_t>(CALG_RSA_KEYX)) << "the key object's algorithm";
    EXPECT_EQ(read32(blob, 8), 0x31415352u);
    EXPECT_EQ(read32(blob, 12), 2048u);
    EXPECT_EQ(read32(blob, 16), 65537u);
    const CalythKeyPair& pair = fake::token("SN1").keyPairs[1];
    std::vector<unsigned char> modulusBE(pair.publicKey, pair.publicKey + 256);
    EXPECT_EQ(std::vector<unsigned char>(blob.begin() + 20, blob.end()), reversed(modulusBE));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "key usage : 41984"));
}

TEST_F(ExportTest, SignatureKeyObjectReportsItsOwnAlgorithm) {
    fake::token("SN1").keyPairs[0].keySizeCode = CALYTH_KEY_RSA_2048;
    context_.containerName = kSignId;
    HCRYPTKEY key = userKey(AT_SIGNATURE);
    std::vector<unsigned char> blob = exportBlob(key);
    ASSERT_GE(blob.size(), 20u);
    EXPECT_EQ(read32(blob, 4), static_cast<uint32_t>(CALG_RSA_SIGN));
}

TEST_F(ExportTest, ExportedBlobIsTheOneWindowsMakesOfTheSameKey) {
    WineRsaKey wine(2048);
    ASSERT_TRUE(wine.ok());
    std::vector<unsigned char> modulus = wine.modulusBigEndian();
    ASSERT_EQ(modulus.size(), 256u);
    CalythKeyPair& pair = fake::token("SN1").keyPairs[1];
    std::memcpy(pair.publicKey, modulus.data(), modulus.size());
    pair.publicKeyLength = 256;

    std::vector<unsigned char> blob = exportBlob(exchangeKey());
    EXPECT_EQ(blob, wine.publicKeyBlob());
    HCRYPTKEY imported = importIntoWine(wine.provider(), blob);
    ASSERT_NE(imported, 0u) << "Windows accepts the blob";
    DWORD bits = 0;
    DWORD size = sizeof bits;
    EXPECT_TRUE(CryptGetKeyParam(imported, KP_KEYLEN, reinterpret_cast<BYTE*>(&bits), &size, 0));
    EXPECT_EQ(bits, 2048u);
    CryptDestroyKey(imported);
}

TEST_F(ExportTest, ExportedBlobReadsBackInOpenSsl) {
    HCRYPTKEY key = exchangeKey();
    std::vector<unsigned char> blob = exportBlob(key);
    // The platform turns the blob into a DER RSAPublicKey; openssl reads modulus and exponent.
    BYTE* der = nullptr;
    DWORD derLength = 0;
    ASSERT_TRUE(CryptEncodeObjectEx(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, blob.data(),
                                    CRYPT_ENCODE_ALLOC_FLAG, nullptr, &der, &derLength));
    std::string path = testsupport::tempFolder() + "exported_rsa.der";
    testsupport::writeFile(path, std::vector<unsigned char>(der, der + derLength));
    LocalFree(der);
    std::string output;
    ASSERT_EQ(testsupport::runOpenSsl("rsa -RSAPublicKey_in -inform DER -in " + testsupport::unixPath(path) +
                                          " -noout -modulus -text",
                                      &output),
              0)
        << output;
    const CalythKeyPair& pair = fake::token("SN1").keyPairs[1];
    EXPECT_NE(output.find("Modulus=" + fake::hex(pair.publicKey, 256)), std::string::npos) << output;
    EXPECT_NE(output.find("Exponent: 65537"), std::string::npos) << output;
}

TEST_F(ExportTest, TokenExponentThreeIsStillExportedAs65537) {
    CalythKeyPair& pair = fake::token("SN1").keyPairs[1];
    std::vector<unsigned char> modulus(pair.publicKey, pair.publicKey + 256);
    Utils utils;
    Bytes der = buildRsaSubjectPublicKeyInfo(utils.bytesToHex(modulus.data(), 256), "03");
    std::memcpy(pair.publicKey, der.data(), der.size());
    pair.publicKeyLength = static_cast<int32_t>(der.size());

    std::vector<unsigned char> blob = exportBlob(exchangeKey());
    ASSERT_EQ(blob.size(), 276u) << "the modulus is read out of the DER key";
    EXPECT_EQ(read32(blob, 16), 65537u);
    EXPECT_EQ(read32(blob, 12), 2048u);
    EXPECT_EQ(std::vector<unsigned char>(blob.begin() + 20, blob.end()), reversed(modulus));
}

TEST_F(ExportTest, ShortBufferFailsWithMoreData) {
    HCRYPTKEY key = exchangeKey();
    std::vector<unsigned char> blob(275);
    DWORD length = 275;
    EXPECT_FALSE(CPExportKey(prov(), key, 0, PUBLICKEYBLOB, 0, blob.data(), &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "ExportPublicKeyComponents: output buffer too small, required=276"));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "Exportkey return status : 0"));
}

TEST_F(ExportTest, PrivateKeyExportIsDenied) {
    HCRYPTKEY key = exchangeKey();
    DWORD length = 0;
    EXPECT_FALSE(CPExportKey(prov(), key, 0, PRIVATEKEYBLOB, 0, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPExportKey: PRIVATEKEYBLOB export denied"));
}

TEST_F(ExportTest, OtherBlobTypesAreUnsupported) {
    HCRYPTKEY key = exchangeKey();
    DWORD length = 0;
    EXPECT_FALSE(CPExportKey(prov(), key, 0, SIMPLEBLOB, 0, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPExportKey: unsupported dwBlobType=1"));
}

TEST_F(ExportTest, NullKeyOrLengthFailsBeforeTheContextTest) {
    HCRYPTKEY key = exchangeKey();
    DWORD length = 0;
    EXPECT_FALSE(CPExportKey(0, 0, 0, PUBLICKEYBLOB, 0, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_FALSE(CPExportKey(prov(), key, 0, PUBLICKEYBLOB, 0, nullptr, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPExportKey: hKey or pcbData is null"));
    EXPECT_FALSE(CPExportKey(0, key, 0, PUBLICKEYBLOB, 0, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_UID));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "CPExportKey: context is null or not initialized"));
}

TEST_F(ExportTest, KeyMissingFromTheTokenOrNotRsa2048FailsWithBadKey) {
    HCRYPTKEY key = exchangeKey();
    DWORD length = 0;

    fake::token("SN1").keyPairs[1].keySizeCode = CALYTH_KEY_RSA_3072;
    EXPECT_FALSE(CPExportKey(prov(), key, 0, PUBLICKEYBLOB, 0, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", "ExportPublicKeyComponents: key algorithm is not RSA-2048, cannot export"));

    fake::token("SN1").keyPairs.erase(fake::token("SN1").keyPairs.begin() + 1);
    EXPECT_FALSE(CPExportKey(prov(), key, 0, PUBLICKEYBLOB, 0, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "ExportPublicKeyComponents: matching key not found in key list"));

    fake::token("SN1").keyPairs.clear();
    EXPECT_FALSE(CPExportKey(prov(), key, 0, PUBLICKEYBLOB, 0, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "ExportPublicKeyComponents: key list is empty"));
}

TEST_F(ExportTest, ExportReadsTheTokenKeyListNotTheKeyObject) {
    HCRYPTKEY key = exchangeKey();
    fake::clearCalls();
    std::vector<unsigned char> blob = exportBlob(key);
    auto calls = fake::callsTo("calyth_getKeyPairList");
    ASSERT_EQ(calls.size(), 2u) << "one list per call, size query included";
    EXPECT_EQ(calls[0].serial, "SN1");
}

}  // namespace
