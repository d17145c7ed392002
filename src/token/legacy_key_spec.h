// The CryptoAPI key spec that stands for a token key usage: what the key storage provider reports
// as a key's legacy key spec, and what the certificate agent writes into a certificate's key
// provider information.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstdint>

#include "token/device_library.h"

// AT_SIGNATURE for signature keys, AT_KEYEXCHANGE for exchange and dual-use keys, 0 otherwise.
inline DWORD legacyKeySpec(int32_t usage) {
    if (usage == CALYTH_USAGE_SIGNATURE)
        return AT_SIGNATURE;
    if (usage == CALYTH_USAGE_EXCHANGE || usage == CALYTH_USAGE_BOTH)
        return AT_KEYEXCHANGE;
    return 0;
}
