// The record behind a CryptoAPI provider handle (HCRYPTPROV is its address).
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstdint>
#include <string>
#include <vector>

// The keyset type every initialised context reports for PP_KEYSET_TYPE. Deliberately not
// CRYPT_MACHINE_KEYSET.
constexpr uint32_t CSP_KEYSET_TYPE = 0x1000;

struct CspContext {
    uint64_t reserved = 0;
    std::string serialNumber;       // token of this context; empty for a verify-only context
    void* deviceContext = nullptr;  // last argument of every device call; always null
    std::string containerName;      // after resolution through the container table
    bool initialized = false;       // set last by a successful CPAcquireContext
    HWND clientWindow = nullptr;    // PP_CLIENT_HWND
    uint32_t keysetType = 0;
    uint32_t algorithmEnumIndex = 0;  // PP_ENUMALGS / PP_ENUMALGS_EX position
    uint64_t containerEnumIndex = 0;  // PP_ENUMCONTAINERS position over keyIds
    std::vector<std::string> keyIds;  // 32 upper-case hex characters each, library order
    uint8_t containerQueried = 0;     // the application read the container name
    bool silent = false;              // CRYPT_SILENT
    uint32_t reserved32 = 0;
    uint16_t reserved16 = 0;
};

inline CspContext* cspContextFrom(HCRYPTPROV handle) {
    return reinterpret_cast<CspContext*>(handle);
}
// True for a non-null context whose initialized flag is set.
inline bool isUsableContext(HCRYPTPROV handle) {
    return handle != 0 && cspContextFrom(handle)->initialized;
}
