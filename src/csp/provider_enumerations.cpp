#include <cstring>
#include <string>

#include "csp/algorithm_table.h"
#include "csp/entry_point_guard.h"
#include "csp/provider_params.h"
#include "log/log.h"

namespace {

void copyTruncated(char* target, size_t room, const char* text) {
    std::memset(target, 0, room);
    std::strncpy(target, text, room - 1);
}

PROV_ENUMALGS enumAlgsRecord(const AlgorithmInfo& row) {
    PROV_ENUMALGS record{};
    record.aiAlgid = row.algorithm;
    record.dwBitLen = row.defaultBits;
    record.dwNameLen = static_cast<DWORD>(std::strlen(row.shortName));
    copyTruncated(record.szName, sizeof record.szName, row.shortName);
    return record;
}

PROV_ENUMALGS_EX enumAlgsExRecord(const AlgorithmInfo& row) {
    PROV_ENUMALGS_EX record{};
    record.aiAlgid = row.algorithm;
    record.dwDefaultLen = row.defaultBits;
    record.dwMinLen = row.minBits;
    record.dwMaxLen = row.maxBits;
    record.dwProtocols = row.protocols;
    record.dwNameLen = static_cast<DWORD>(std::strlen(row.shortName));
    copyTruncated(record.szName, sizeof record.szName, row.shortName);
    record.dwLongNameLen = static_cast<DWORD>(std::strlen(row.longName));
    copyTruncated(record.szLongName, sizeof record.szLongName, row.longName);
    return record;
}

}  // namespace

BOOL getEnumeratedAlgorithm(CspContext* context, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen,
                            DWORD dwFlags) {
    const bool extended = dwParam == PP_ENUMALGS_EX;
    const std::string prefix = extended ? "CPGetProvParam PP_ENUMALGS_EX: " : "CPGetProvParam PP_ENUMALGS: ";
    logDebug(extended ? "CPGetProvParam: PP_ENUMALGS_EX" : "CPGetProvParam: PP_ENUMALGS");
    if (context == nullptr || !context->initialized) {
        return failWithError(NTE_BAD_UID, prefix + "context is null or not initialized");
    }

    DWORD flags = dwFlags & ~static_cast<DWORD>(CRYPT_SGC_ENUM);
    if (flags == CRYPT_FIRST) {
        context->algorithmEnumIndex = 0;
    } else if ((flags & ~static_cast<DWORD>(CRYPT_NEXT)) != 0) {
        return failWithError(ERROR_INVALID_PARAMETER, prefix + "invalid dwFlags=" + std::to_string(dwFlags));
    } else {
        context->algorithmEnumIndex += 1;
        if (context->algorithmEnumIndex >= kAlgorithmCount) {
            return failWithError(ERROR_NO_MORE_ITEMS, prefix + "no more algorithms, index=" +
                                                          std::to_string(context->algorithmEnumIndex));
        }
    }

    const AlgorithmInfo& row = kAlgorithmTable[context->algorithmEnumIndex];
    PROV_ENUMALGS plain = enumAlgsRecord(row);
    PROV_ENUMALGS_EX wide = enumAlgsExRecord(row);
    const void* record = extended ? static_cast<const void*>(&wide) : static_cast<const void*>(&plain);
    const DWORD size = extended ? sizeof wide : sizeof plain;

    if (pbData == nullptr) {
        *pdwDataLen = size;
        SetLastError(ERROR_MORE_DATA);
        return TRUE;
    }
    if (*pdwDataLen < size) {
        *pdwDataLen = size;
        return failWithError(ERROR_MORE_DATA,
                             prefix + "output buffer too small, required=" + std::to_string(size));
    }
    std::memcpy(pbData, record, size);
    *pdwDataLen = size;
    logDebug(std::string(extended ? "CPGetProvParam: returned EX algorithm -> "
                                  : "CPGetProvParam: returned algorithm -> ") +
             row.shortName);
    return TRUE;
}

BOOL getEnumeratedContainer(CspContext* context, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags) {
    if (context == nullptr || !context->initialized) {
        return failWithError(NTE_BAD_UID,
                             "CPGetProvParam PP_ENUMCONTAINERS: context is null or not initialized");
    }
    if (dwFlags == CRYPT_FIRST) {
        context->containerEnumIndex = 0;
    } else if (dwFlags == CRYPT_NEXT) {
        context->containerEnumIndex += 1;
    } else {
        return failWithError(ERROR_INVALID_PARAMETER,
                             "CPGetProvParam PP_ENUMCONTAINERS: invalid dwFlags=" + std::to_string(dwFlags));
    }
    if (context->containerEnumIndex >= context->keyIds.size()) {
        logError("CPGetProvParam PP_ENUMCONTAINERS: no more containers, index=" +
                 std::to_string(context->containerEnumIndex));
        SetLastError(ERROR_NO_MORE_ITEMS);
        return FALSE;
    }

    // Below keyIds.size() (checked above), so it fits a 32-bit size_t too.
    const std::string& name = context->keyIds[static_cast<size_t>(context->containerEnumIndex)];
    const DWORD required = static_cast<DWORD>(name.size() + 1);
    if (pbData != nullptr && *pdwDataLen >= required) {
        std::memcpy(pbData, name.c_str(), required);
        *pdwDataLen = required;
        logDebug("CPGetProvParam: returned container -> " + name);
        return TRUE;
    }
    *pdwDataLen = required;
    SetLastError(ERROR_MORE_DATA);
    return TRUE;
}
