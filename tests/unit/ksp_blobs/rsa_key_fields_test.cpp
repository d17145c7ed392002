// The RSA key field conversions both front-ends' key import share.
#include "util/rsa_key_fields.h"

#include <gtest/gtest.h>

namespace {

TEST(RsaKeyFields, SizeCodesOfTheFourRsaLengths) {
    EXPECT_EQ(rsaSizeCodeForBits(1024), 1);
    EXPECT_EQ(rsaSizeCodeForBits(2048), 2);
    EXPECT_EQ(rsaSizeCodeForBits(3072), 3);
    EXPECT_EQ(rsaSizeCodeForBits(4096), 4);
    EXPECT_EQ(rsaSizeCodeForBits(1536), 0);
    EXPECT_EQ(rsaSizeCodeForBits(0), 0);
}

TEST(RsaKeyFields, ExponentWithoutLeadingZeros) {
    EXPECT_EQ(exponentBytes(65537), (Bytes{0x01, 0x00, 0x01}));
    EXPECT_EQ(exponentBytes(3), (Bytes{0x03}));
    EXPECT_EQ(exponentBytes(0x01000001), (Bytes{0x01, 0x00, 0x00, 0x01}));
    EXPECT_TRUE(exponentBytes(0).empty());
}

TEST(RsaKeyFields, ExponentOfAFixedWidth) {
    EXPECT_EQ(exponentBytes(65537, 3), (Bytes{0x01, 0x00, 0x01}));
    EXPECT_EQ(exponentBytes(3, 3), (Bytes{0x00, 0x00, 0x03}));
    EXPECT_EQ(exponentBytes(0x01000001, 3), (Bytes{0x00, 0x00, 0x01}));
    EXPECT_EQ(exponentBytes(0x0102, 6), (Bytes{0x00, 0x00, 0x00, 0x00, 0x01, 0x02}));
}

}  // namespace
