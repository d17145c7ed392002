// Hash objects: creation, feeding, duplication and destruction. The digest is computed on the
// token; HASH_CONTEXT keeps the token's hash handle and, once read, the value.
#include <windows.h>

#include <wincrypt.h>

#include <new>
#include <string>

#include "csp/csp_context.h"
#include "csp/csp_entry_points.h"
#include "csp/entry_point_guard.h"
#include "csp/hash_algorithms.h"
#include "csp/hash_context.h"
#include "csp/log_text.h"
#include "log/log.h"
#include "token/device_library.h"

namespace {

// Starts a hash of the given code on the context's token; the old handle, if any, is simply
// dropped (the library keeps its handles for the life of the process).
int startDeviceHash(const CspContext* context, HASH_CONTEXT* hash, int32_t mechanism) {
    return calyth_initHash(context->serialNumber.c_str(), mechanism, &hash->deviceHash,
                           context->deviceContext);
}

}  // namespace

extern "C" {

BOOL WINAPI CPCreateHash(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTKEY /*hKey*/, DWORD dwFlags,
                         HCRYPTHASH* phHash) {
    return runEntryPoint("CPCreateHash", [&]() -> BOOL {
        logDebug("CPCreateHash");
        if (phHash == nullptr || hProv == 0)
            return failWithError(ERROR_INVALID_PARAMETER,
                                 "CPCreateHash: invalid parameter - phHash=" + decimalText(phHash) +
                                     " hProv=" + decimalText(hProv));
        if (dwFlags != 0)
            return failWithError(NTE_BAD_FLAGS, "CPCreateHash: invalid dwFlags=0x" + hex8Text(dwFlags));
        CspContext* context = cspContextFrom(hProv);
        if (!context->initialized)
            return failWithError(NTE_BAD_UID, "CPCreateHash: context not initialized");

        HASH_CONTEXT* hash = new (std::nothrow) HASH_CONTEXT{};
        if (hash == nullptr)
            return failWithError(NTE_NO_MEMORY, "CPCreateHash: failed to allocate HASH_CONTEXT");
        hash->valid = 1;
        logDebug("Crete hash algorithm input : " + std::to_string(Algid));

        const HashAlgorithm* algorithm = hashAlgorithmByAlgId(Algid);
        if (algorithm == nullptr) {
            delete hash;
            return failWithError(NTE_BAD_ALGID, "CPCreateHash: unsupported Algid=0x" + hex8Text(Algid));
        }
        logDebug(algorithm->logLine);
        hash->hashLength = algorithm->length;
        hash->hmac = 0;
        hash->mechanism = algorithm->mechanism;
        hash->hashAlgorithm = algorithm->mechanism;
        logDebug("Crete hash algorithm : " + std::to_string(hash->mechanism));

        int ret = startDeviceHash(context, hash, hash->mechanism);
        if (ret != CALYTH_OK) {
            delete hash;
            return failWithError(NTE_FAIL,
                                 "CPCreateHash: calyth_initHash failed, ret=" + std::to_string(ret));
        }
        *phHash = reinterpret_cast<HCRYPTHASH>(hash);
        return TRUE;
    });
}

BOOL WINAPI CPHashData(HCRYPTPROV hProv, HCRYPTHASH hHash, const BYTE* pbData, DWORD cbDataLen,
                       DWORD /*dwFlags*/) {
    return runEntryPoint("CPHashData", [&]() -> BOOL {
        logDebug("CPHashData");
        if (!isUsableContext(hProv))
            return failWithError(NTE_BAD_UID, "CPHashData: invalid or uninitialized context");
        if (hHash == 0)
            return failWithError(NTE_BAD_HASH, "CPHashData: pHashHandle is NULL");
        // The cached value, once there, wins: data fed afterwards reaches only the token's hash.
        const CspContext* context = cspContextFrom(hProv);
        int ret = calyth_updateHash(hashContextFrom(hHash)->deviceHash, pbData, static_cast<int>(cbDataLen),
                                    context->deviceContext);
        if (ret != CALYTH_OK)
            return failWithError(NTE_FAIL,
                                 "CPHashData: calyth_updateHash failed, ret=" + std::to_string(ret));
        return TRUE;
    });
}

BOOL WINAPI CPDuplicateHash(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD* /*pdwReserved*/, DWORD dwFlags,
                            HCRYPTHASH* phHash) {
    return runEntryPoint("CPDuplicateHash", [&]() -> BOOL {
        logDebug("CPDuplicateHash");
        if (phHash == nullptr || hProv == 0 || hHash == 0)
            return failWithError(ERROR_INVALID_PARAMETER,
                                 "CPDuplicateHash: invalid parameter - phHash=" + decimalText(phHash) +
                                     " hProv=" + decimalText(hProv) + " hHash=" + decimalText(hHash));
        if (dwFlags != 0)
            return failWithError(NTE_BAD_FLAGS, "CPDuplicateHash: invalid dwFlags=0x" + hex8Text(dwFlags));
        const CspContext* context = cspContextFrom(hProv);
        if (!context->initialized)
            return failWithError(NTE_BAD_UID, "CPDuplicateHash: invalid or uninitialized context");
        const HASH_CONTEXT* source = hashContextFrom(hHash);
        if (!source->valid)
            return failWithError(NTE_BAD_HASH, "CPDuplicateHash: source hash is NULL or invalid");

        HASH_CONTEXT* duplicate = new (std::nothrow) HASH_CONTEXT{};
        if (duplicate == nullptr)
            return failWithError(NTE_NO_MEMORY, "CPDuplicateHash: failed to allocate HASH_CONTEXT");
        // The token cannot clone a running hash: the copy gets a fresh one, and only a value that
        // is already cached travels with it.
        *duplicate = *source;
        duplicate->deviceHash = nullptr;
        int ret = startDeviceHash(context, duplicate, source->mechanism);
        if (ret != CALYTH_OK) {
            delete duplicate;
            return failWithError(NTE_FAIL,
                                 "CPDuplicateHash: calyth_initHash failed, ret=" + std::to_string(ret));
        }
        *phHash = reinterpret_cast<HCRYPTHASH>(duplicate);
        logDebug("CPDuplicateHash - source: 0x" + pointerHexText(source) + " duplicate: 0x" +
                 pointerHexText(duplicate));
        return TRUE;
    });
}

BOOL WINAPI CPDestroyHash(HCRYPTPROV hProv, HCRYPTHASH hHash) {
    return runEntryPoint("CPDestroyHash", [&]() -> BOOL {
        logDebug("CPDestroyHash");
        if (!isUsableContext(hProv))
            return failWithError(NTE_BAD_UID, "CPDestroyHash: invalid or uninitialized context");
        if (hHash == 0)
            return failWithError(NTE_BAD_HASH, "CPDestroyHash: pHashHandle is NULL");
        // The token's hash handle is neither finalised nor released: the library owns it.
        delete hashContextFrom(hHash);
        return TRUE;
    });
}

BOOL WINAPI CPHashSessionKey(HCRYPTPROV /*hProv*/, HCRYPTHASH hHash, HCRYPTKEY hKey, DWORD dwFlags) {
    return runEntryPoint("CPHashSessionKey", [&]() -> BOOL {
        logDebug("CPHashSessionKey");
        return failWithError(ERROR_CALL_NOT_IMPLEMENTED,
                             "CPHashSessionKey: not supported, hHash=" + decimalText(hHash) +
                                 " hKey=" + decimalText(hKey) + " dwFlags=" + std::to_string(dwFlags));
    });
}

}  // extern "C"
