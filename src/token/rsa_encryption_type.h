// The device library's RSA encryption type for a key size: 1024, 2048, 3072 and 4096 name their own
// type, anything else is taken as RSA-2048 (the library then goes by the DER key it is given).
#pragma once

#include <cstdint>

#include "token/device_library.h"

inline EncryptionType rsaEncryptionTypeForSize(int64_t size) {
    switch (size) {
        case 1024:
            return ENCRYPTION_RSA_1024;
        case 3072:
            return ENCRYPTION_RSA_3072;
        case 4096:
            return ENCRYPTION_RSA_4096;
        default:
            return ENCRYPTION_RSA_2048;
    }
}
