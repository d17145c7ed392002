#include "util/encoding.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "support/test_support.h"
#include "util/utils.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

Bytes bytesOf(std::initializer_list<int> values) {
    Bytes out;
    for (int v : values)
        out.push_back(static_cast<unsigned char>(v));
    return out;
}

std::string repeatHex(const std::string& firstByte, const std::string& filler, int bytes) {
    std::string out = firstByte;
    for (int i = 1; i < bytes; ++i)
        out += filler;
    return out;
}

}  // namespace

// ---- Utils::bytesToHex ----

TEST(Utils, BytesToHexIsUpperCaseWithoutSeparators) {
    const unsigned char bytes[] = {0x0A, 0xFF};
    Utils utils;
    EXPECT_EQ(utils.bytesToHex(bytes, 2), "0AFF");
    EXPECT_EQ(utils.bytesToHex(bytes, 0), "");
}

TEST(Utils, BytesToHexOfANegativeCountOrNoBytesIsEmpty) {
    const unsigned char bytes[] = {0x01};
    Utils utils;
    EXPECT_EQ(utils.bytesToHex(bytes, -1), "");
    EXPECT_EQ(utils.bytesToHex(nullptr, 0), "");
}

TEST(Utils, BytesToHexOfAKeyIdentifierIs32Characters) {
    const unsigned char id[16] = {0x00, 0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD,
                                  0xEF, 0x10, 0x9a, 0xbc, 0xde, 0xf0, 0x7F, 0x80};
    Utils utils;
    EXPECT_EQ(utils.bytesToHex(id, 16), "000123456789ABCDEF109ABCDEF07F80");
    EXPECT_EQ(utils.bytesToHex(id, 3), "000123");
}

// ---- Utils: splitting, trimming, names ----

TEST(Utils, SplitCutsAtAnyDelimiterAndDropsEmptyPieces) {
    Utils utils;
    EXPECT_THAT(utils.split("a.b.exe", "."), ElementsAre("a", "b", "exe"));
    EXPECT_THAT(utils.split("explorer.exe", "."), ElementsAre("explorer", "exe"));
    EXPECT_THAT(utils.split("noextension", "."), ElementsAre("noextension"));
    EXPECT_THAT(utils.split("x,y;z", ",;"), ElementsAre("x", "y", "z"));
    EXPECT_THAT(utils.split("..a..b.", "."), ElementsAre("a", "b"));
    EXPECT_THAT(utils.split("", "."), IsEmpty());
    EXPECT_THAT(utils.split("...", "."), IsEmpty());
}

TEST(Utils, TrimRemovesTheWhitespaceSetFromBothEnds) {
    Utils utils;
    EXPECT_EQ(std::string(Utils::kWhitespace), " \t\n\r\f\v");
    EXPECT_EQ(utils.trim(" \t\n\r\f\vlabel x\v\f\r\n\t "), "label x");
    EXPECT_EQ(utils.trim("label"), "label");
    EXPECT_EQ(utils.trim(" \t "), "");
    EXPECT_EQ(utils.trim(""), "");
}

TEST(Utils, NormalizeNameTrimsAndUpperCasesEachPart) {
    Utils utils;
    EXPECT_EQ(utils.normalizeName(" cn = Calyth Root CA , o=Quorvik Labs;c= de "),
              "CN=CALYTH ROOT CA,O=QUORVIK LABS,C=DE");
    EXPECT_EQ(utils.normalizeName("CN=A,,O=B"), "CN=A,O=B");
    EXPECT_EQ(utils.normalizeName(""), "");
}

TEST(Utils, NormalizeNameTwiceChangesNothing) {
    Utils utils;
    std::string once = utils.normalizeName("cn=Leaf, ou = Unit ,o=Org");
    EXPECT_EQ(utils.normalizeName(once), once);
}

// ---- hexToBytes ----

TEST(HexToBytes, PrefixIsDroppedAndOddLengthGetsALeadingZero) {
    EXPECT_EQ(hexToBytes("0x1"), bytesOf({0x01}));
    EXPECT_EQ(hexToBytes("0X1"), bytesOf({0x01}));
    EXPECT_EQ(hexToBytes("ABC"), bytesOf({0x0A, 0xBC}));
    EXPECT_EQ(hexToBytes("0x0abc"), bytesOf({0x0A, 0xBC}));
}

TEST(HexToBytes, NonHexCharactersCountAsZero) {
    EXPECT_EQ(hexToBytes("zz"), bytesOf({0x00}));
    EXPECT_EQ(hexToBytes("g1"), bytesOf({0x01}));
    EXPECT_EQ(hexToBytes("1 2-"), bytesOf({0x10, 0x20}));
    EXPECT_EQ(hexToBytes("0x0x"), bytesOf({0x00}));
}

TEST(HexToBytes, BothCasesAndAllDigits) {
    EXPECT_EQ(hexToBytes("0123456789abcdefABCDEF"),
              bytesOf({0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0xAB, 0xCD, 0xEF}));
}

TEST(HexToBytes, ShortTextsAndAPrefixOnlyWhereTheTextStartsWithZero) {
    EXPECT_THAT(hexToBytes(""), IsEmpty());
    EXPECT_THAT(hexToBytes("0x"), IsEmpty());
    EXPECT_EQ(hexToBytes("0"), bytesOf({0x00}));
    EXPECT_EQ(hexToBytes("x1"), bytesOf({0x01}));  // 'x' is just a zero nibble here
    EXPECT_EQ(hexToBytes("1x"), bytesOf({0x10}));
}

TEST(HexToBytes, RoundTripsWithBytesToHex) {
    Bytes all;
    for (int i = 0; i < 256; ++i)
        all.push_back(static_cast<unsigned char>(i));
    Utils utils;
    EXPECT_EQ(hexToBytes(utils.bytesToHex(all.data(), static_cast<int>(all.size()))), all);
}

// ---- DER ----

TEST(Der, LengthUsesTheShortFormBelow128AndTheFewestBytesAbove) {
    EXPECT_EQ(encodeDerLength(0), bytesOf({0x00}));
    EXPECT_EQ(encodeDerLength(127), bytesOf({0x7F}));
    EXPECT_EQ(encodeDerLength(128), bytesOf({0x81, 0x80}));
    EXPECT_EQ(encodeDerLength(255), bytesOf({0x81, 0xFF}));
    EXPECT_EQ(encodeDerLength(256), bytesOf({0x82, 0x01, 0x00}));
    EXPECT_EQ(encodeDerLength(65535), bytesOf({0x82, 0xFF, 0xFF}));
    EXPECT_EQ(encodeDerLength(65536), bytesOf({0x83, 0x01, 0x00, 0x00}));
    EXPECT_EQ(encodeDerLength(0x01020304), bytesOf({0x84, 0x01, 0x02, 0x03, 0x04}));
}

TEST(Der, TlvIsTagLengthContent) {
    EXPECT_EQ(encodeDerTlv(0x04, {}), bytesOf({0x04, 0x00}));
    EXPECT_EQ(encodeDerTlv(0x02, bytesOf({0x01, 0x00, 0x01})), bytesOf({0x02, 0x03, 0x01, 0x00, 0x01}));
    Bytes content(200, 0xAB);
    Bytes tlv = encodeDerTlv(0x30, content);
    ASSERT_EQ(tlv.size(), 203u);
    EXPECT_EQ(Bytes(tlv.begin(), tlv.begin() + 3), bytesOf({0x30, 0x81, 0xC8}));
    EXPECT_EQ(Bytes(tlv.begin() + 3, tlv.end()), content);
}

TEST(Der, ExponentEncodesAsAThreeByteInteger) {
    Bytes spki = buildRsaSubjectPublicKeyInfo("7F", "010001");
    Bytes tail = bytesOf({0x02, 0x03, 0x01, 0x00, 0x01});
    ASSERT_GE(spki.size(), tail.size());
    EXPECT_EQ(Bytes(spki.end() - 5, spki.end()), tail);
}

TEST(Der, SmallKeyIsTheExactStructure) {
    // modulus 0xC1 gets a zero in front; exponent 3.
    EXPECT_EQ(
        buildRsaSubjectPublicKeyInfo("C1", "03"),
        bytesOf({0x30, 0x1B, 0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01,
                 0x05, 0x00, 0x03, 0x0A, 0x00, 0x30, 0x07, 0x02, 0x02, 0x00, 0xC1, 0x02, 0x01, 0x03}));
}

TEST(Der, ModulusStartingWith7FGetsNoLeadingZero) {
    Bytes spki = buildRsaSubjectPublicKeyInfo(repeatHex("7F", "11", 256), "010001");
    // 30 82 01 21 | AlgorithmIdentifier | 03 82 01 0E 00 | 30 82 01 09 | 02 82 01 00 7F ...
    ASSERT_EQ(spki.size(), 293u);
    EXPECT_EQ(Bytes(spki.begin(), spki.begin() + 4), bytesOf({0x30, 0x82, 0x01, 0x21}));
    EXPECT_EQ(Bytes(spki.begin() + 19, spki.begin() + 33),
              bytesOf({0x03, 0x82, 0x01, 0x0E, 0x00, 0x30, 0x82, 0x01, 0x09, 0x02, 0x82, 0x01, 0x00, 0x7F}));
}

TEST(Der, ModulusStartingWith80GetsOneLeadingZero) {
    Bytes spki = buildRsaSubjectPublicKeyInfo(repeatHex("80", "22", 256), "010001");
    ASSERT_EQ(spki.size(), 294u);
    Bytes expectedStart = bytesOf({0x30, 0x82, 0x01, 0x22, 0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                   0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00, 0x03, 0x82, 0x01, 0x0F, 0x00,
                                   0x30, 0x82, 0x01, 0x0A, 0x02, 0x82, 0x01, 0x01, 0x00, 0x80, 0x22});
    EXPECT_EQ(Bytes(spki.begin(), spki.begin() + expectedStart.size()), expectedStart);
    EXPECT_EQ(Bytes(spki.end() - 5, spki.end()), bytesOf({0x02, 0x03, 0x01, 0x00, 0x01}));
}

TEST(Der, LeadingZeroBytesAreKept) {
    Bytes spki = buildRsaSubjectPublicKeyInfo("0000FF", "00");
    // ... 30 08 | 02 03 00 00 FF | 02 01 00
    EXPECT_EQ(Bytes(spki.end() - 10, spki.end()),
              bytesOf({0x30, 0x08, 0x02, 0x03, 0x00, 0x00, 0xFF, 0x02, 0x01, 0x00}));
}

TEST(Der, EmptyModulusIsAnEmptyInteger) {
    Bytes spki = buildRsaSubjectPublicKeyInfo("", "010001");
    EXPECT_EQ(Bytes(spki.end() - 9, spki.end()),
              bytesOf({0x30, 0x07, 0x02, 0x00, 0x02, 0x03, 0x01, 0x00, 0x01}));
}

TEST(Der, OpenSslReadsTheModulusAndExponentBack) {
    std::string modulusHex = repeatHex("C1", "5A", 256);
    Bytes spki = buildRsaSubjectPublicKeyInfo(modulusHex, "010001");
    std::string path = testsupport::tempFolder() + "spki.der";
    testsupport::writeFile(path, spki);
    std::string output;
    ASSERT_EQ(testsupport::runOpenSsl(
                  "rsa -pubin -inform DER -noout -modulus -in " + testsupport::unixPath(path), &output),
              0)
        << output;
    EXPECT_EQ(output, "Modulus=" + modulusHex + "\n");
    ASSERT_EQ(testsupport::runOpenSsl(
                  "rsa -pubin -inform DER -noout -text -in " + testsupport::unixPath(path), &output),
              0)
        << output;
    EXPECT_THAT(output, testing::HasSubstr("Public-Key: (2048 bit)"));
    EXPECT_THAT(output, testing::HasSubstr("Exponent: 65537 (0x10001)"));
}

// ---- stored public keys ----

TEST(StoredPublicKey, EmptyKeyCountsAsDerAndIsPassedOnAsItStands) {
    const unsigned char nothing[1] = {0xC1};
    EXPECT_TRUE(isDerPublicKey(nothing, 0));
    EXPECT_TRUE(isDerPublicKey(nothing, -1));
    EXPECT_THAT(derPublicKeyFromStored(nothing, 0), IsEmpty());
}

TEST(StoredPublicKey, SequenceTagMeansDerAnythingElseARawModulus) {
    const unsigned char der[] = {0x30, 0x03, 0x02, 0x01, 0x05};
    const unsigned char raw[] = {0xC1, 0x02, 0x03};
    const unsigned char rawLow[] = {0x31, 0x02};
    EXPECT_TRUE(isDerPublicKey(der, sizeof der));
    EXPECT_FALSE(isDerPublicKey(raw, sizeof raw));
    EXPECT_FALSE(isDerPublicKey(rawLow, sizeof rawLow));
    EXPECT_EQ(derPublicKeyFromStored(der, sizeof der), Bytes(der, der + sizeof der));
}

TEST(StoredPublicKey, RawModulusIsWrappedWithExponent65537) {
    Bytes modulus = hexToBytes(repeatHex("C1", "33", 256));
    Utils utils;
    Bytes expected = buildRsaSubjectPublicKeyInfo(utils.bytesToHex(modulus.data(), 256), "010001");
    EXPECT_EQ(derPublicKeyFromStored(modulus.data(), 256), expected);
    EXPECT_EQ(expected.size(), 294u);
}

// ---- key-size codes ----

TEST(KeySizeCode, BitsOfEveryCode) {
    EXPECT_EQ(keySizeCodeToBits(1), 1024u);
    EXPECT_EQ(keySizeCodeToBits(2), 2048u);
    EXPECT_EQ(keySizeCodeToBits(3), 3072u);
    EXPECT_EQ(keySizeCodeToBits(4), 4096u);
    EXPECT_EQ(keySizeCodeToBits(5), 256u);
    EXPECT_EQ(keySizeCodeToBits(6), 384u);
    EXPECT_EQ(keySizeCodeToBits(7), 521u);
    EXPECT_EQ(keySizeCodeToBits(0), 0u);
    EXPECT_EQ(keySizeCodeToBits(8), 0u);
    EXPECT_EQ(keySizeCodeToBits(-1), 0u);
}

TEST(KeySizeCode, AlgorithmNames) {
    EXPECT_STREQ(eccAlgorithmName(6, 1), L"ECDSA_P384");
    EXPECT_STREQ(eccAlgorithmName(9, 2), L"RSA");
    EXPECT_STREQ(eccAlgorithmName(5, 1), L"ECDSA_P256");
    EXPECT_STREQ(eccAlgorithmName(5, 2), L"ECDH_P256");
    EXPECT_STREQ(eccAlgorithmName(6, 2), L"ECDH_P384");
    EXPECT_STREQ(eccAlgorithmName(7, 1), L"ECDSA_P521");
    EXPECT_STREQ(eccAlgorithmName(7, 2), L"ECDH_P521");
    // Only usage 2 is an exchange key: "both" (3) and anything else sign.
    EXPECT_STREQ(eccAlgorithmName(7, 3), L"ECDSA_P521");
    EXPECT_STREQ(eccAlgorithmName(5, 0), L"ECDSA_P256");
    for (int code = 1; code <= 4; ++code) {
        EXPECT_STREQ(eccAlgorithmName(code, 1), L"RSA") << code;
        EXPECT_STREQ(eccAlgorithmName(code, 2), L"RSA") << code;
    }
    EXPECT_STREQ(eccAlgorithmName(0, 1), L"RSA");
    EXPECT_STREQ(eccAlgorithmName(8, 2), L"RSA");
    EXPECT_STREQ(eccAlgorithmName(-5, 2), L"RSA");
}
