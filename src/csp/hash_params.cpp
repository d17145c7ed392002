// Hash object parameters: the value (read finalises the token's hash once and caches it), the
// algorithm, the size and the HMAC information.
#include <windows.h>

#include <wincrypt.h>

#include <cstring>
#include <string>

#include "csp/csp_entry_points.h"
#include "csp/entry_support.h"
#include "csp/hash_algorithms.h"
#include "csp/hash_context.h"
#include "log/log.h"
#include "token/csp_context.h"
#include "token/device_library.h"

namespace {

constexpr DWORD kDwordLength = sizeof(DWORD);
constexpr DWORD kHmacInfoLength = sizeof(HMAC_INFO);
static_assert(sizeof(HMAC_INFO) == 40, "HMAC_INFO has the 64-bit layout");

BOOL sizeQuerySuccess(DWORD* pcbDataLen, DWORD length) {
    *pcbDataLen = length;
    logDebug("Get hash param success");
    return TRUE;
}

void writeDword(BYTE* pbData, DWORD value) {
    std::memcpy(pbData, &value, sizeof value);
}

BOOL getAlgId(const HASH_CONTEXT* hash, BYTE* pbData, DWORD* pcbDataLen) {
    if (pbData == nullptr)
        return sizeQuerySuccess(pcbDataLen, kDwordLength);
    if (*pcbDataLen < kDwordLength) {
        *pcbDataLen = kDwordLength;
        return failWith("CPGetHashParam: HP_ALGID buffer too small", ERROR_MORE_DATA);
    }
    const HashAlgorithm* algorithm = hashAlgorithmByMechanism(hash->mechanism);
    if (algorithm == nullptr)
        return failWith("CPGetHashParam: HP_ALGID unsupported mechanism=" + std::to_string(hash->mechanism),
                        NTE_BAD_ALGID);
    writeDword(pbData, algorithm->algId);
    *pcbDataLen = kDwordLength;
    return TRUE;
}

BOOL getHashSize(const HASH_CONTEXT* hash, BYTE* pbData, DWORD* pcbDataLen) {
    if (pbData == nullptr)
        return sizeQuerySuccess(pcbDataLen, kDwordLength);
    if (*pcbDataLen < kDwordLength) {
        *pcbDataLen = kDwordLength;
        return failWith("CPGetHashParam: HP_HASHSIZE buffer too small", ERROR_MORE_DATA);
    }
    const HashAlgorithm* algorithm = hashAlgorithmByMechanism(hash->mechanism);
    if (algorithm == nullptr)
        return failWith(
            "CPGetHashParam: HP_HASHSIZE unsupported mechanism=" + std::to_string(hash->mechanism),
            NTE_BAD_ALGID);
    logDebug("Get hash param hashSize : " + std::to_string(algorithm->length));
    writeDword(pbData, algorithm->length);
    *pcbDataLen = kDwordLength;
    return TRUE;
}

BOOL getHashValue(const CspContext* context, HASH_CONTEXT* hash, BYTE* pbData, DWORD* pcbDataLen) {
    const HashAlgorithm* algorithm = hashAlgorithmByMechanism(hash->mechanism);
    if (algorithm == nullptr)
        return failWith("CPGetHashParam: HP_HASHVAL unsupported mechanism=" + std::to_string(hash->mechanism),
                        NTE_BAD_ALGID);
    if (pbData == nullptr) {
        *pcbDataLen = algorithm->length;
        return TRUE;
    }
    if (hash->finalized) {
        if (*pcbDataLen < hash->valueLength) {
            *pcbDataLen = hash->valueLength;
            return failWith("CPGetHashParam: HP_HASHVAL buffer too small for cached hash value",
                            ERROR_MORE_DATA);
        }
        std::memcpy(pbData, hash->value, hash->valueLength);
        *pcbDataLen = hash->valueLength;
        return TRUE;
    }

    int length = static_cast<int>(algorithm->length);
    int ret = calyth_finalHash(hash->deviceHash, hash->value, &length, context->deviceContext);
    if (ret != CALYTH_OK)
        return failWith("CPGetHashParam: calyth_finalHash failed, ret=" + std::to_string(ret), NTE_FAIL);
    // From here on the cached value answers, also the retry after a short buffer.
    hash->valueLength = static_cast<uint32_t>(length);
    hash->finalized = 1;
    if (*pcbDataLen < hash->valueLength) {
        *pcbDataLen = hash->valueLength;
        return failWith("CPGetHashParam: HP_HASHVAL buffer too small for finalized hash", ERROR_MORE_DATA);
    }
    std::memcpy(pbData, hash->value, hash->valueLength);
    *pcbDataLen = hash->valueLength;
    return TRUE;
}

BOOL getHmacInfo(const HASH_CONTEXT* hash, BYTE* pbData, DWORD* pcbDataLen) {
    if (!hash->hmac)
        return failWith("CPGetHashParam: HP_HMAC_INFO requested but hash is not HMAC", NTE_BAD_TYPE);
    if (pbData == nullptr) {
        *pcbDataLen = kHmacInfoLength;
        return TRUE;
    }
    if (*pcbDataLen >= kHmacInfoLength) {
        std::memcpy(pbData, &hash->hmacInfo, kHmacInfoLength);
        *pcbDataLen = kHmacInfoLength;
        logDebug("Get hash param success");
        return TRUE;
    }
    *pcbDataLen = kHmacInfoLength;
    return failWith("CPGetHashParam: HP_HMAC_INFO buffer too small", ERROR_MORE_DATA);
}

}  // namespace

extern "C" {

BOOL WINAPI CPSetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, const BYTE* pbData,
                           DWORD dwFlags) {
    return runEntryPoint("CPSetHashParam", [&]() -> BOOL {
        logDebug("CPSetHashParam");
        if (hProv == 0 || hHash == 0 || pbData == nullptr)
            return failWith("CPSetHashParam: invalid parameter - hProv=" + decimalText(hProv) +
                                " hHash=" + decimalText(hHash) + " pbData=" + decimalText(pbData),
                            ERROR_INVALID_PARAMETER);
        if (dwFlags != 0)
            return failWith("CPSetHashParam: invalid dwFlags=0x" + hex8Text(dwFlags), NTE_BAD_FLAGS);
        const CspContext* context = cspContextFrom(hProv);
        HASH_CONTEXT* hash = hashContextFrom(hHash);
        if (!context->initialized || !hash->valid)
            return failWith("CPSetHashParam: context not initialized or hash not valid", NTE_BAD_HASH);
        logDebug("Set hash param dwParam : " + std::to_string(dwParam));
        logDebug("Set hash param dwFlags : " + std::to_string(dwFlags));

        switch (dwParam) {
            case HP_HASHVAL:
                // The caller gives no length: the value is as long as the algorithm's.
                std::memcpy(hash->value, pbData, hash->hashLength);
                hash->valueLength = hash->hashLength;
                hash->finalized = 1;
                return TRUE;
            case HP_HMAC_INFO: {
                // Only the record is kept (its strings stay the caller's); the token's hash restarts.
                std::memcpy(&hash->hmacInfo, pbData, kHmacInfoLength);
                int ret = calyth_initHash(context->serialNumber.c_str(), hash->mechanism, &hash->deviceHash,
                                          context->deviceContext);
                if (ret != CALYTH_OK)
                    return failWith(
                        "CPSetHashParam: calyth_initHash failed for HP_HMAC_INFO, ret=" + std::to_string(ret),
                        NTE_FAIL);
                return TRUE;
            }
            default:
                return failWith("CPSetHashParam: unsupported dwParam=0x" + hex8Text(dwParam), NTE_BAD_TYPE);
        }
    });
}

BOOL WINAPI CPGetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, BYTE* pbData, DWORD* pcbDataLen,
                           DWORD dwFlags) {
    return runEntryPoint("CPGetHashParam", [&]() -> BOOL {
        logDebug("CPGetHashParam");
        if (hProv == 0 || hHash == 0 || pcbDataLen == nullptr)
            return failWith("CPGetHashParam: invalid parameter - hProv=" + decimalText(hProv) +
                                " hHash=" + decimalText(hHash) + " pcbDataLen=" + decimalText(pcbDataLen),
                            ERROR_INVALID_PARAMETER);
        if (dwFlags != 0)
            return failWith("CPGetHashParam: invalid dwFlags=0x" + hex8Text(dwFlags), NTE_BAD_FLAGS);
        const CspContext* context = cspContextFrom(hProv);
        HASH_CONTEXT* hash = hashContextFrom(hHash);
        if (!context->initialized || !hash->valid)
            return failWith("CPGetHashParam: context not initialized or hash not valid", NTE_BAD_HASH);
        logDebug("CPGetHashParam dwParam : " + std::to_string(dwParam));
        logDebug("CPGetHashParam mechanism : " + std::to_string(hash->mechanism));

        switch (dwParam) {
            case HP_ALGID:
                return getAlgId(hash, pbData, pcbDataLen);
            case HP_HASHSIZE:
                return getHashSize(hash, pbData, pcbDataLen);
            case HP_HASHVAL:
                return getHashValue(context, hash, pbData, pcbDataLen);
            case HP_HMAC_INFO:
                return getHmacInfo(hash, pbData, pcbDataLen);
            default:
                return failWith("CPGetHashParam: unsupported dwParam=0x" + hex8Text(dwParam), NTE_BAD_TYPE);
        }
    });
}

}  // extern "C"
