// Small conversions of RSA key fields shared by both front-ends' key import: the device size code
// of a modulus length and the big-endian bytes of a 32-bit public exponent.
#pragma once

#include <cstddef>
#include <cstdint>

#include "util/encoding.h"

// 1024, 2048, 3072 and 4096 bits give the device codes 1 to 4; any other length gives 0.
int32_t rsaSizeCodeForBits(uint32_t bits);

// Big-endian bytes of a public exponent. With width 0 leading zeros are dropped (01 00 01 for
// 65537, 03 for 3); otherwise exactly the `width` low-order bytes (width 3: 00 00 03 for 3).
Bytes exponentBytes(uint32_t exponent, size_t width = 0);
