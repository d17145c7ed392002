#include "util/encoding.h"

#include <gtest/gtest.h>

#include "util/utils.h"

TEST(Utils, BytesToHexIsUpperCaseWithoutSeparators) {
    const unsigned char bytes[] = {0x0A, 0xFF};
    Utils utils;
    EXPECT_EQ(utils.bytesToHex(bytes, 2), "0AFF");
    EXPECT_EQ(utils.bytesToHex(bytes, 0), "");
}
