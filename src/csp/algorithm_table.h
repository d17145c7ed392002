// The algorithms the CryptoAPI side of the provider announces (PP_ENUMALGS, PP_ENUMALGS_EX).
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstddef>

struct AlgorithmInfo {
    ALG_ID algorithm;
    DWORD minBits;
    DWORD maxBits;
    DWORD defaultBits;
    DWORD incrementBits;  // carried for key generation; no provider parameter reports it
    DWORD protocols;      // CRYPT_FLAG_* bits
    const char* shortName;
    const char* longName;
};

constexpr size_t kAlgorithmCount = 17;
extern const AlgorithmInfo kAlgorithmTable[kAlgorithmCount];
