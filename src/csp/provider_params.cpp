#include "csp/provider_params.h"

#include <cstring>
#include <string>
#include <vector>

#include "csp/csp_entry_points.h"
#include "csp/entry_point_guard.h"
#include "log/log.h"
#include "token/device_library.h"
#include "token/key_lookup.h"
#include "token/process_state.h"
#include "util/utils.h"

namespace {

const char kProviderName[] = "Calyth Cryptographic Provider CSP";

// PP_IMPTYPE: a hardware token that can be removed.
constexpr DWORD kImplementationType = CRYPT_IMPL_HARDWARE | CRYPT_IMPL_REMOVABLE;
constexpr DWORD kProviderVersion = 0x100;
// PP_KEYSTORAGE: security descriptors, and keys always under strong protection (8).
constexpr DWORD kKeyStorageFlags = CRYPT_SEC_DESCR | 0x8;

// Parameters a provider may be asked for that this one does not answer; 23 and 28 to 30 have no
// name in wincrypt.h.
bool isSupportedParam(DWORD dwParam) {
    if (dwParam < PP_ENUMALGS || dwParam > PP_ENUMEX_SIGNING_PROT)
        return false;
    switch (dwParam) {
        case PP_CHANGE_PASSWORD:
        case PP_KEY_TYPE_SUBTYPE:
        case PP_CONTEXT_INFO:
        case PP_KEYEXCHANGE_KEYSIZE:
        case PP_SIGNATURE_KEYSIZE:
        case PP_KEYEXCHANGE_ALG:
        case PP_SIGNATURE_ALG:
        case PP_APPLI_CERT:
        case PP_SYM_KEYSIZE:
        case PP_SESSION_KEYSIZE:
        case PP_UI_PROMPT:
        case 23:
        case PP_DELETEKEY:
        case PP_ENUMMANDROOTS:
        case PP_ENUMELECTROOTS:
        case 28:
        case 29:
        case 30:
        case PP_SIG_KEYSIZE_INC:
        case PP_KEYX_KEYSIZE_INC:
        case PP_SGC_INFO:
            return false;
        default:
            return true;
    }
}

BOOL succeedWithLength(DWORD* pdwDataLen) {
    logDebug("CPGetProvParam out length : " + std::to_string(*pdwDataLen));
    logDebug("CPGetProvParam return success");
    return TRUE;
}

bool hasRoomFor(const BYTE* pbData, const DWORD* pdwDataLen, DWORD size) {
    return pbData != nullptr && *pdwDataLen >= size;
}

// A 32-bit answer without any short-buffer signal (PP_IMPTYPE, PP_VERSION, PP_PROVTYPE,
// PP_KEYSET_TYPE).
BOOL answerPlainValue(DWORD value, BYTE* pbData, DWORD* pdwDataLen, bool announce = false) {
    if (hasRoomFor(pbData, pdwDataLen, sizeof value)) {
        if (announce)
            logDebug("CPGetProvParam not null value provided");
        std::memcpy(pbData, &value, sizeof value);
    }
    *pdwDataLen = sizeof value;
    return succeedWithLength(pdwDataLen);
}

// A 32-bit answer that signals a missing or short buffer with ERROR_MORE_DATA (the caller still
// returns TRUE).
void answerSignalledValue(DWORD value, BYTE* pbData, DWORD* pdwDataLen) {
    bool stored = hasRoomFor(pbData, pdwDataLen, sizeof value);
    if (stored)
        std::memcpy(pbData, &value, sizeof value);
    *pdwDataLen = sizeof value;
    if (!stored)
        SetLastError(ERROR_MORE_DATA);
}

BOOL getProviderName(BYTE* pbData, DWORD* pdwDataLen) {
    const DWORD withZero = sizeof kProviderName;  // 34
    if (hasRoomFor(pbData, pdwDataLen, withZero)) {
        std::memcpy(pbData, kProviderName, withZero);
        *pdwDataLen = withZero - 1;
    } else {
        *pdwDataLen = withZero;
    }
    return succeedWithLength(pdwDataLen);
}

BOOL getContainerName(CspContext* context, BYTE* pbData, DWORD* pdwDataLen) {
    const std::string& name = context->containerName;
    const DWORD required = static_cast<DWORD>(name.size() + 1);
    context->containerQueried = 1;
    if (hasRoomFor(pbData, pdwDataLen, required)) {
        std::memcpy(pbData, name.c_str(), required);
        *pdwDataLen = required;
        logDebug("CPGetProvParam: PP_CONTAINER/PP_UNIQUE_CONTAINER=" + name + ", return TRUE");
        return succeedWithLength(pdwDataLen);
    }
    *pdwDataLen = required;
    logDebug("CPGetProvParam: PP_CONTAINER/PP_UNIQUE_CONTAINER size query, requiredSize=" +
             std::to_string(required) + ", return TRUE");
    SetLastError(ERROR_MORE_DATA);
    return TRUE;
}

BOOL getKeySpec(const CspContext* context, BYTE* pbData, DWORD* pdwDataLen) {
    DWORD keySpec = 0;
    if (!keySpecOfContainer(context, &keySpec))
        return FALSE;
    answerSignalledValue(keySpec, pbData, pdwDataLen);
    return TRUE;
}

// A security descriptor with a present, null DACL: everyone may do everything with the key set.
BOOL getKeySetSecurityDescriptor(BYTE* pbData, DWORD* pdwDataLen) {
    logDebug("CPGetProvParam: PP_KEYSET_SEC_DESCR");
    SECURITY_DESCRIPTOR absolute;
    InitializeSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&absolute, TRUE, nullptr, FALSE);
    DWORD size = 0;
    MakeSelfRelativeSD(&absolute, nullptr, &size);
    if (pbData == nullptr || *pdwDataLen < size) {
        *pdwDataLen = size;
        SetLastError(ERROR_MORE_DATA);
        return TRUE;
    }
    if (!MakeSelfRelativeSD(&absolute, reinterpret_cast<PSECURITY_DESCRIPTOR>(pbData), pdwDataLen)) {
        return failWithError(NTE_FAIL, "CPGetProvParam PP_KEYSET_SEC_DESCR: MakeSelfRelativeSD failed");
    }
    return TRUE;
}

BOOL getProvParam(CspContext* context, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags) {
    switch (dwParam) {
        case PP_IMPTYPE:
            return answerPlainValue(kImplementationType, pbData, pdwDataLen, true);
        case PP_VERSION:
            return answerPlainValue(kProviderVersion, pbData, pdwDataLen);
        case PP_PROVTYPE:
            return answerPlainValue(PROV_RSA_FULL, pbData, pdwDataLen);
        case PP_KEYSET_TYPE:
            return answerPlainValue(context->keysetType, pbData, pdwDataLen);
        case PP_NAME:
            return getProviderName(pbData, pdwDataLen);
        case PP_KEYSTORAGE:
            answerSignalledValue(kKeyStorageFlags, pbData, pdwDataLen);
            return TRUE;
        case PP_ADMIN_PIN:
        case PP_KEYEXCHANGE_PIN:
        case PP_SIGNATURE_PIN:
            // Answers that a PIN is used; the PIN itself is never handed out.
            logDebug("CPGetProvParam: PIN query");
            answerSignalledValue(1, pbData, pdwDataLen);
            return TRUE;
        case PP_ENUMEX_SIGNING_PROT:
            logDebug("CPGetProvParam: PP_ENUMEX_SIGNING_PROT = 1");
            answerSignalledValue(1, pbData, pdwDataLen);
            return TRUE;
        case PP_USE_HARDWARE_RNG: {
            DWORD value = g_useHardwareRng ? 1 : 0;
            if (hasRoomFor(pbData, pdwDataLen, sizeof value))
                logDebug("CPGetProvParam: PP_USE_HARDWARE_RNG = " + std::to_string(value));
            else
                logDebug("Required size is Large");
            answerSignalledValue(value, pbData, pdwDataLen);
            return TRUE;
        }
        case PP_KEYSPEC:
            return getKeySpec(context, pbData, pdwDataLen);
        case PP_ENUMALGS:
        case PP_ENUMALGS_EX:
            return getEnumeratedAlgorithm(context, dwParam, pbData, pdwDataLen, dwFlags);
        case PP_ENUMCONTAINERS:
            return getEnumeratedContainer(context, pbData, pdwDataLen, dwFlags);
        case PP_CONTAINER:
        case PP_UNIQUE_CONTAINER:
            return getContainerName(context, pbData, pdwDataLen);
        case PP_KEYSET_SEC_DESCR:
            return getKeySetSecurityDescriptor(pbData, pdwDataLen);
        case PP_CERTCHAIN:
            return getCertificateChainParam(context, pbData, pdwDataLen);
        default:
            return failWithError(NTE_BAD_TYPE,
                                 "CPGetProvParam: unsupported dwParam=" + std::to_string(dwParam));
    }
}

BOOL getProviderParam(HCRYPTPROV hProv, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags) {
    logDebug("CPGetProvParam");
    if (!isUsableContext(hProv))
        return failWithError(NTE_BAD_UID, "CPGetProvParam: context is null or not initialized");
    logDebug("CPGetProvParam input : " + std::to_string(dwParam));
    logDebug("CPGetProvParam : " + std::to_string(dwParam));
    if (!isSupportedParam(dwParam))
        return failWithError(NTE_BAD_TYPE, "CPGetProvParam: unsupported dwParam=" + std::to_string(dwParam));
    if (pdwDataLen == nullptr)
        return failWithError(ERROR_INVALID_PARAMETER, "CPGetProvParam: pdwDataLen is null");
    return getProvParam(cspContextFrom(hProv), dwParam, pbData, pdwDataLen, dwFlags);
}

}  // namespace

bool keySpecOfContainer(const CspContext* context, DWORD* keySpec) {
    if (context->containerName.empty() || context->serialNumber.empty()) {
        logDebug("CPGetProvParam PP_KEYSPEC: no container, returning supported specs");
        *keySpec = AT_KEYEXCHANGE | AT_SIGNATURE;
        return true;
    }
    std::vector<CalythKeyPair> keyPairs =
        calyth_getKeyPairList(context->serialNumber.c_str(), context->deviceContext);
    if (const CalythKeyPair* keyPair = findKeyPair(keyPairs, context->containerName, kExactKeyId)) {
        switch (keyPair->keyUsage) {
            case CALYTH_USAGE_EXCHANGE:
                *keySpec = AT_KEYEXCHANGE;
                break;
            case CALYTH_USAGE_SIGNATURE:
            case CALYTH_USAGE_BOTH:
                *keySpec = AT_SIGNATURE;
                break;
            default:
                *keySpec = 0;
                break;
        }
        return true;
    }
    logError("CPGetProvParam PP_KEYSPEC: key not found for container=" + context->containerName);
    setLastErrorCode(NTE_NO_KEY);
    return false;
}

extern "C" BOOL WINAPI CPGetProvParam(HCRYPTPROV hProv, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen,
                                      DWORD dwFlags) {
    return runEntryPoint(
        "CPGetProvParam", [&] { return getProviderParam(hProv, dwParam, pbData, pdwDataLen, dwFlags); },
        failUnexpectedly);
}
