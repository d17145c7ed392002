// Reading the modulus back out of a DER RSA public key (used by public-key export).
#include <gtest/gtest.h>

#include "util/encoding.h"
#include "util/utils.h"

namespace {

Bytes modulusOf(const Bytes& der) {
    Bytes modulus;
    EXPECT_TRUE(rsaModulusFromDer(der.data(), static_cast<int>(der.size()), &modulus));
    return modulus;
}

TEST(DerModulus, SubjectPublicKeyInfoGivesTheModulusWithoutTheSignByte) {
    Bytes modulus(256);
    for (size_t i = 0; i < modulus.size(); ++i)
        modulus[i] = static_cast<unsigned char>(0x80 + i);
    Utils utils;
    Bytes der = buildRsaSubjectPublicKeyInfo(utils.bytesToHex(modulus.data(), 256), "03");
    EXPECT_EQ(modulusOf(der), modulus);
}

TEST(DerModulus, BareRsaPublicKeyIsReadToo) {
    // SEQUENCE { INTEGER 00 C1 02, INTEGER 01 00 01 }
    Bytes der{0x30, 0x0A, 0x02, 0x03, 0x00, 0xC1, 0x02, 0x02, 0x03, 0x01, 0x00, 0x01};
    EXPECT_EQ(modulusOf(der), (Bytes{0xC1, 0x02}));
}

TEST(DerModulus, TruncatedOrForeignStructuresAreRefused) {
    Bytes modulus;
    Bytes truncated{0x30, 0x0A, 0x02, 0x03, 0x00, 0xC1};
    EXPECT_FALSE(rsaModulusFromDer(truncated.data(), static_cast<int>(truncated.size()), &modulus));
    Bytes notSequence{0x04, 0x02, 0x01, 0x02};
    EXPECT_FALSE(rsaModulusFromDer(notSequence.data(), static_cast<int>(notSequence.size()), &modulus));
    Bytes ecInfo{0x30, 0x08, 0x30, 0x02, 0x06, 0x00, 0x03, 0x02, 0x01, 0x04};  // bit string with unused bits
    EXPECT_FALSE(rsaModulusFromDer(ecInfo.data(), static_cast<int>(ecInfo.size()), &modulus));
    EXPECT_FALSE(rsaModulusFromDer(nullptr, 0, &modulus));
}

}  // namespace
