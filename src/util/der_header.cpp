#include "util/der_header.h"

DerHeaderResult derTotalLength(const unsigned char* der, size_t available, uint32_t* total) {
    if (available < 2)
        return DerHeaderResult::Truncated;
    unsigned char first = der[1];
    if (first < 0x80) {
        *total = 2u + first;
        return DerHeaderResult::Ok;
    }
    size_t lengthBytes = 0;
    switch (first) {
        case 0x81:
            lengthBytes = 1;
            break;
        case 0x82:
            lengthBytes = 2;
            break;
        case 0x83:
            lengthBytes = 3;
            break;
        default:
            return DerHeaderResult::Unsupported;
    }
    if (available - 2 < lengthBytes)
        return DerHeaderResult::Truncated;
    uint32_t content = 0;
    for (size_t i = 0; i < lengthBytes; ++i)
        content = content << 8 | der[2 + i];
    *total = static_cast<uint32_t>(2 + lengthBytes) + content;
    return DerHeaderResult::Ok;
}
