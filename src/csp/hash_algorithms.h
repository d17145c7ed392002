// The hash algorithms a CryptoAPI hash object offers, and how they map to the token's hash codes.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstdint>

struct HashAlgorithm {
    ALG_ID algId;         // CALG_SHA1, CALG_SHA_256, CALG_SHA_384, CALG_SHA_512
    int32_t mechanism;    // the token's hash code, 2-5
    uint32_t length;      // value length in bytes
    const char* logLine;  // DEBUG line of CPCreateHash
};

// Null when the algorithm is not offered (MD5, HMAC, SSL3 and everything else).
const HashAlgorithm* hashAlgorithmByAlgId(ALG_ID algId);
// Null when the code is not a hash code (for instance a key-size code left by CPSignHash).
const HashAlgorithm* hashAlgorithmByMechanism(int32_t mechanism);
