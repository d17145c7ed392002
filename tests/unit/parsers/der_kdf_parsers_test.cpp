#include <gtest/gtest.h>

#include "util/der_header.h"
#include "util/kdf_buffers.h"

namespace {

TEST(DerHeader, LengthForms) {
    uint32_t total = 0;
    const unsigned char shortForm[] = {0x30, 0x7F};
    EXPECT_EQ(derTotalLength(shortForm, sizeof shortForm, &total), DerHeaderResult::Ok);
    EXPECT_EQ(total, 0x81u);
    const unsigned char twoBytes[] = {0x30, 0x82, 0x05, 0x10};
    EXPECT_EQ(derTotalLength(twoBytes, sizeof twoBytes, &total), DerHeaderResult::Ok);
    EXPECT_EQ(total, 1300u);
    const unsigned char threeBytes[] = {0x30, 0x83, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(derTotalLength(threeBytes, sizeof threeBytes, &total), DerHeaderResult::Ok);
    EXPECT_EQ(total, 5u + 0xFFFFFF);
}

TEST(DerHeader, UnsupportedForms) {
    uint32_t total = 0;
    const unsigned char indefinite[] = {0x30, 0x80, 0x00, 0x00, 0x00};
    EXPECT_EQ(derTotalLength(indefinite, sizeof indefinite, &total), DerHeaderResult::Unsupported);
    const unsigned char fourBytes[] = {0x30, 0x84, 0x00, 0x00, 0x01, 0x00};
    EXPECT_EQ(derTotalLength(fourBytes, sizeof fourBytes, &total), DerHeaderResult::Unsupported);
}

TEST(DerHeader, AHeaderCutShortIsTruncatedAndReadNoFurther) {
    uint32_t total = 0;
    const unsigned char twoBytes[] = {0x30, 0x82, 0x05};
    EXPECT_EQ(derTotalLength(twoBytes, sizeof twoBytes, &total), DerHeaderResult::Truncated);
    EXPECT_EQ(derTotalLength(twoBytes, 1, &total), DerHeaderResult::Truncated);
    EXPECT_EQ(derTotalLength(twoBytes, 0, &total), DerHeaderResult::Truncated);
}

TEST(KdfBuffers, HashNameEndsAtItsNulOrAtTheBufferAndDropsAnOddByte) {
    KdfValues values;
    const char16_t name[] = u"SHA256";
    addKdfBuffer(kKdfHashAlgorithm, name, sizeof name, &values);
    EXPECT_EQ(values.hashName, u"SHA256");
    addKdfBuffer(kKdfHashAlgorithm, name, 7, &values);  // three characters and half of the fourth
    EXPECT_EQ(values.hashName, u"SHA");
    const unsigned char unaligned[] = {0x00, 'S', 0x00, 'H', 0x00};
    addKdfBuffer(kKdfHashAlgorithm, unaligned + 1, 4, &values);
    EXPECT_EQ(values.hashName, u"SH");
}

TEST(KdfBuffers, BytesAccumulateAndEmptyOrUnknownBuffersAreSkipped) {
    KdfValues values;
    const unsigned char a[] = {1, 2};
    const unsigned char b[] = {3};
    addKdfBuffer(kKdfAlgorithmId, a, sizeof a, &values);
    addKdfBuffer(kKdfAlgorithmId, b, sizeof b, &values);
    addKdfBuffer(kKdfPartyUInfo, nullptr, 4, &values);
    addKdfBuffer(kKdfPartyUInfo, a, 0, &values);
    addKdfBuffer(kKdfPartyVInfo, a, sizeof a, &values);
    addKdfBuffer(8, a, sizeof a, &values);
    EXPECT_EQ(values.algorithmId, (Bytes{1, 2, 3}));
    EXPECT_TRUE(values.partyUInfo.empty());
    EXPECT_TRUE(values.hashName.empty());
}

}  // namespace
