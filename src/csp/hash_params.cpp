// Hash object parameters: the value (read finalises the token's hash once and caches it), the
// algorithm, the size and the HMAC information.
#include <windows.h>

#include <wincrypt.h>

#include <cstring>
#include <string>

#include "csp/csp_context.h"
#include "csp/csp_entry_points.h"
#include "csp/entry_point_guard.h"
#include "csp/hash_algorithms.h"
#include "csp/hash_context.h"
#include "csp/log_text.h"
#include "log/log.h"
#include "token/device_library.h"
#include "util/bounded_length.h"

namespace {

constexpr DWORD kDwordLength = sizeof(DWORD);
constexpr DWORD kHmacInfoLength = sizeof(HMAC_INFO);
static_assert(sizeof(HMAC_INFO) == 5 * sizeof(void*), "HMAC_INFO has the published layout");

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
        return failWithError(ERROR_MORE_DATA, "CPGetHashParam: HP_ALGID buffer too small");
    }
    const HashAlgorithm* algorithm = hashAlgorithmByMechanism(hash->mechanism);
    if (algorithm == nullptr)
        return failWithError(NTE_BAD_ALGID, "CPGetHashParam: HP_ALGID unsupported mechanism=" +
                                                std::to_string(hash->mechanism));
    writeDword(pbData, algorithm->algId);
    *pcbDataLen = kDwordLength;
    return TRUE;
}

BOOL getHashSize(const HASH_CONTEXT* hash, BYTE* pbData, DWORD* pcbDataLen) {
    if (pbData == nullptr)
        return sizeQuerySuccess(pcbDataLen, kDwordLength);
    if (*pcbDataLen < kDwordLength) {
        *pcbDataLen = kDwordLength;
        return failWithError(ERROR_MORE_DATA, "CPGetHashParam: HP_HASHSIZE buffer too small");
    }
    const HashAlgorithm* algorithm = hashAlgorithmByMechanism(hash->mechanism);
    if (algorithm == nullptr)
        return failWithError(NTE_BAD_ALGID, "CPGetHashParam: HP_HASHSIZE unsupported mechanism=" +
                                                std::to_string(hash->mechanism));
    logDebug("Get hash param hashSize : " + std::to_string(algorithm->length));
    writeDword(pbData, algorithm->length);
    *pcbDataLen = kDwordLength;
    return TRUE;
}

BOOL getHashValue(const CspContext* context, HASH_CONTEXT* hash, BYTE* pbData, DWORD* pcbDataLen) {
    const HashAlgorithm* algorithm = hashAlgorithmByMechanism(hash->mechanism);
    if (algorithm == nullptr)
        return failWithError(NTE_BAD_ALGID, "CPGetHashParam: HP_HASHVAL unsupported mechanism=" +
                                                std::to_string(hash->mechanism));
    if (pbData == nullptr) {
        *pcbDataLen = algorithm->length;
        return TRUE;
    }
    if (hash->finalized) {
        if (*pcbDataLen < hash->valueLength) {
            *pcbDataLen = hash->valueLength;
            return failWithError(ERROR_MORE_DATA,
                                 "CPGetHashParam: HP_HASHVAL buffer too small for cached hash value");
        }
        std::memcpy(pbData, hash->value, hash->valueLength);
        *pcbDataLen = hash->valueLength;
        return TRUE;
    }

    int length = static_cast<int>(algorithm->length);
    int ret = calyth_finalHash(hash->deviceHash, hash->value, &length, context->deviceContext);
    if (ret != CALYTH_OK)
        return failWithError(NTE_FAIL, "CPGetHashParam: calyth_finalHash failed, ret=" + std::to_string(ret));
    // From here on the cached value answers, also the retry after a short buffer. A length beyond
    // the room the token was given is held to that room.
    hash->valueLength = static_cast<uint32_t>(boundedLength(length, algorithm->length));
    hash->finalized = 1;
    if (*pcbDataLen < hash->valueLength) {
        *pcbDataLen = hash->valueLength;
        return failWithError(ERROR_MORE_DATA,
                             "CPGetHashParam: HP_HASHVAL buffer too small for finalized hash");
    }
    std::memcpy(pbData, hash->value, hash->valueLength);
    *pcbDataLen = hash->valueLength;
    return TRUE;
}

BOOL getHmacInfo(const HASH_CONTEXT* hash, BYTE* pbData, DWORD* pcbDataLen) {
    if (!hash->hmac)
        return failWithError(NTE_BAD_TYPE, "CPGetHashParam: HP_HMAC_INFO requested but hash is not HMAC");
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
    return failWithError(ERROR_MORE_DATA, "CPGetHashParam: HP_HMAC_INFO buffer too small");
}

}  // namespace

extern "C" {

BOOL WINAPI CPSetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, const BYTE* pbData,
                           DWORD dwFlags) {
    return runEntryPoint("CPSetHashParam", [&]() -> BOOL {
        logDebug("CPSetHashParam");
        if (hProv == 0 || hHash == 0 || pbData == nullptr)
            return failWithError(ERROR_INVALID_PARAMETER,
                                 "CPSetHashParam: invalid parameter - hProv=" + decimalText(hProv) +
                                     " hHash=" + decimalText(hHash) + " pbData=" + decimalText(pbData));
        if (dwFlags != 0)
            return failWithError(NTE_BAD_FLAGS, "CPSetHashParam: invalid dwFlags=0x" + hex8Text(dwFlags));
        const CspContext* context = cspContextFrom(hProv);
        HASH_CONTEXT* hash = hashContextFrom(hHash);
        if (!context->initialized || !hash->valid)
            return failWithError(NTE_BAD_HASH, "CPSetHashParam: context not initialized or hash not valid");
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
                    return failWithError(NTE_FAIL,
                                         "CPSetHashParam: calyth_initHash failed for HP_HMAC_INFO, ret=" +
                                             std::to_string(ret));
                return TRUE;
            }
            default:
                return failWithError(NTE_BAD_TYPE,
                                     "CPSetHashParam: unsupported dwParam=0x" + hex8Text(dwParam));
        }
    });
}

BOOL WINAPI CPGetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, BYTE* pbData, DWORD* pcbDataLen,
                           DWORD dwFlags) {
    return runEntryPoint("CPGetHashParam", [&]() -> BOOL {
        logDebug("CPGetHashParam");
        if (hProv == 0 || hHash == 0 || pcbDataLen == nullptr)
            return failWithError(ERROR_INVALID_PARAMETER,
                                 "CPGetHashParam: invalid parameter - hProv=" + decimalText(hProv) +
                                     " hHash=" + decimalText(hHash) +
                                     " pcbDataLen=" + decimalText(pcbDataLen));
        if (dwFlags != 0)
            return failWithError(NTE_BAD_FLAGS, "CPGetHashParam: invalid dwFlags=0x" + hex8Text(dwFlags));
        const CspContext* context = cspContextFrom(hProv);
        HASH_CONTEXT* hash = hashContextFrom(hHash);
        if (!context->initialized || !hash->valid)
            return failWithError(NTE_BAD_HASH, "CPGetHashParam: context not initialized or hash not valid");
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
                return failWithError(NTE_BAD_TYPE,
                                     "CPGetHashParam: unsupported dwParam=0x" + hex8Text(dwParam));
        }
    });
}

}  // extern "C"
