// The record behind a CryptoAPI hash handle (HCRYPTHASH is its address). The digest is computed
// on the token; the value is fetched once and cached here.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstddef>
#include <cstdint>

// CPSignHash gives calyth_finalHash 128 bytes of room, so the cached value has that much (twice
// what SHA-512 needs).
constexpr size_t HASH_VALUE_ROOM = 128;

struct HASH_CONTEXT {
    uint32_t reserved;
    int32_t mechanism;        // device hash code 2-5; CPSignHash overwrites it with a key-size code
    int32_t hashAlgorithm;    // the device hash code as created; only logged afterwards
    HMAC_INFO hmacInfo;       // HP_HMAC_INFO, copied as given (the strings are not copied)
    void* deviceHash;         // from calyth_initHash
    unsigned char valid;      // 1 from creation
    unsigned char hmac;       // never set by a CryptoAPI path
    unsigned char finalized;  // a value is cached
    unsigned char value[HASH_VALUE_ROOM];  // cached hash value
    unsigned char signKeyId[16];
    int32_t signKeyIdLength;
    uint32_t valueLength;  // length calyth_finalHash reported, or set by HP_HASHVAL
    uint32_t hashLength;   // 20, 32, 48 or 64
};

inline HASH_CONTEXT* hashContextFrom(HCRYPTHASH handle) {
    return reinterpret_cast<HASH_CONTEXT*>(handle);
}
