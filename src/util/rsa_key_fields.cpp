#include "util/rsa_key_fields.h"

#include "util/device_codes.h"

int32_t rsaSizeCodeForBits(uint32_t bits) {
    switch (bits) {
        case 1024:
            return CALYTH_KEY_RSA_1024;
        case 2048:
            return CALYTH_KEY_RSA_2048;
        case 3072:
            return CALYTH_KEY_RSA_3072;
        case 4096:
            return CALYTH_KEY_RSA_4096;
        default:
            return 0;
    }
}

Bytes exponentBytes(uint32_t exponent, size_t width) {
    Bytes out;
    if (width == 0) {
        for (; exponent != 0; exponent >>= 8)
            out.insert(out.begin(), static_cast<unsigned char>(exponent & 0xFF));
        return out;
    }
    for (size_t i = 0; i < width; ++i) {
        size_t shift = 8 * (width - 1 - i);
        out.push_back(shift < 32 ? static_cast<unsigned char>((exponent >> shift) & 0xFF) : 0);
    }
    return out;
}
