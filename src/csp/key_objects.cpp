// Key objects: generating a key pair on the token, opening the user's key pair, destroying key
// objects. Key material never leaves the token; a key object is a copy of the token's description.
#include <windows.h>

#include <wincrypt.h>

#include <mutex>
#include <string>
#include <vector>

#include "csp/csp_context.h"
#include "csp/csp_entry_points.h"
#include "csp/csp_login.h"
#include "csp/entry_point_guard.h"
#include "csp/key_copy.h"
#include "csp/key_handle.h"
#include "log/log.h"
#include "token/device_library.h"
#include "token/key_lookup.h"
#include "token/secret_text.h"
#include "token/token_table.h"
#include "util/encoding.h"
#include "util/utils.h"

namespace {

struct GeneratedKeyKind {
    bool supported;
    int32_t keyUsage;
    uint32_t defaultBits;  // 0: the size must be given in dwFlags
};

GeneratedKeyKind generatedKeyKind(ALG_ID algid) {
    switch (algid) {
        case AT_KEYEXCHANGE:
            logDebug("key exhange");
            return {true, CALYTH_USAGE_EXCHANGE, 0};
        case AT_SIGNATURE:
            logDebug("rsa sign");
            return {true, CALYTH_USAGE_SIGNATURE, 0};
        case CALG_RSA_SIGN:
            logDebug("rsa sign");
            return {true, CALYTH_USAGE_SIGNATURE, 2048};
        case CALG_RSA_KEYX:
            logDebug("key exhange");
            return {true, CALYTH_USAGE_EXCHANGE, 2048};
        default:
            return {false, 0, 0};
    }
}

// KP_ALGID of a key pair taken as the signature key: curves report ECDSA, everything else RSA.
uint32_t signatureAlgIdForCode(int32_t keySizeCode) {
    if (keySizeCode == CALYTH_KEY_EC_P256 || keySizeCode == CALYTH_KEY_EC_P384 ||
        keySizeCode == CALYTH_KEY_EC_P521)
        return CALG_ECDSA;
    return CALG_RSA_SIGN;
}

bool isAnyUsage(int32_t usage) {
    return usage == CALYTH_USAGE_SIGNATURE || usage == CALYTH_USAGE_EXCHANGE || usage == CALYTH_USAGE_BOTH;
}

bool isExchangeUsage(int32_t usage) {
    return usage == CALYTH_USAGE_EXCHANGE || usage == CALYTH_USAGE_BOTH;
}

BOOL genKey(HCRYPTPROV hProv, ALG_ID Algid, DWORD dwFlags, HCRYPTKEY* phKey) {
    if (phKey == nullptr)
        return failWithError(ERROR_INVALID_PARAMETER, "CPGenKey: phKey is NULL");
    *phKey = 0;
    if (!isUsableContext(hProv))
        return failWithError(NTE_BAD_UID, "Invalid CSP context");
    CspContext* context = cspContextFrom(hProv);

    GeneratedKeyKind kind = generatedKeyKind(Algid);
    if (!kind.supported)
        return failWithError(NTE_BAD_ALGID, "Unsupported algorithm" + std::to_string(Algid));

    uint32_t bits = dwFlags >= 0x10000 ? dwFlags >> 16 : 0;
    if (bits == 0) {
        if (kind.defaultBits == 0)
            return failWithError(NTE_BAD_LEN, "Unsupported Length" + std::to_string(Algid));
        bits = kind.defaultBits;
    }

    KEY_HANDLE* key = allocateKeyHandle();
    if (key == nullptr)
        return failWithError(ERROR_NOT_ENOUGH_MEMORY, "CPGenKey: failed to allocate KEY_HANDLE");

    if (!ensurePasswordValidated(context)) {
        freeKeyHandle(key);
        logError("CPGenKey: ensurePasswordValidated failed");
        return FALSE;
    }

    key->algId = Algid;
    key->bits = bits;
    // The token picks the size itself: the request carries nothing.
    CalythKeyPair keyPair{};
    WipedText pin{getValidatedPin(context->serialNumber)};
    int result =
        calyth_generateKeyPair(context->serialNumber.c_str(), pin.c_str(), &keyPair, context->deviceContext);
    if (result != 0) {
        freeKeyHandle(key);
        return failWithError(NTE_TOKEN_KEYSET_STORAGE_FULL,
                             "RSA Keypair Generation Failed, code=" + std::to_string(result));
    }

    copyKeyPairIntoHandle(keyPair, key);
    key->keyUsage = kind.keyUsage;
    key->tokenFlag = 0;

    // The context moves to the new key; an application container name now resolves to it.
    Utils utils;
    std::string newContainer = utils.bytesToHex(key->keyId, KEY_ID_LENGTH);
    if (!context->containerName.empty())
        recordResolvedContainer(context->containerName, newContainer);
    context->containerName = newContainer;

    *phKey = reinterpret_cast<HCRYPTKEY>(key);
    logDebug("Key generated successfully, Algid=" + std::to_string(Algid) + " bits=" + std::to_string(bits));
    return TRUE;
}

BOOL getUserKey(HCRYPTPROV hProv, DWORD dwKeySpec, HCRYPTKEY* phUserKey) {
    if (phUserKey == nullptr || hProv == 0)
        return failWithError(NTE_BAD_KEY, "CPGetUserKey: phUserKey or hProv is null");
    CspContext* context = cspContextFrom(hProv);
    if (!context->initialized)
        return failWithError(NTE_BAD_UID, "CPGetUserKey: context is not initialized");

    logDebug("CPGetUserKey -> dwKeySpec : " + std::to_string(dwKeySpec));
    std::vector<CalythKeyPair> keyPairs =
        calyth_getKeyPairList(context->serialNumber.c_str(), context->deviceContext);
    if (keyPairs.empty())
        return failWithError(NTE_NO_KEY, "CPGetUserKey: key list is empty");

    KEY_HANDLE* key = allocateKeyHandle();
    if (key == nullptr)
        return failWithError(ERROR_NOT_ENOUGH_MEMORY, "CPGetUserKey: failed to allocate KEY_HANDLE");
    logDebug("CPGetUserKey - Container name : " + context->containerName);

    bool anyKey = context->containerQueried != 0;
    const CalythKeyPair* taken = nullptr;
    for (const CalythKeyPair& keyPair : keyPairs) {
        if (!context->containerName.empty() && !keyPairNamed(keyPair, context->containerName, kExactKeyId))
            continue;
        if ((dwKeySpec == AT_SIGNATURE || anyKey) && isAnyUsage(keyPair.keyUsage)) {
            logDebug("Sign key found");
            key->algId = signatureAlgIdForCode(keyPair.keySizeCode);
            taken = &keyPair;
            break;
        }
        if ((dwKeySpec == AT_KEYEXCHANGE || anyKey) && isExchangeUsage(keyPair.keyUsage)) {
            logDebug("Encryption key found");
            key->algId = CALG_RSA_KEYX;
            taken = &keyPair;
            break;
        }
    }

    if (taken == nullptr) {
        freeKeyHandle(key);
        return failWithError(NTE_BAD_KEY,
                             "CPGetUserKey: requested key not found, dwKeySpec=" + std::to_string(dwKeySpec) +
                                 " container=" + context->containerName + ", return FALSE");
    }

    copyKeyPairIntoHandle(*taken, key);
    key->keyUsage = taken->keyUsage;
    key->tokenFlag = taken->tokenFlag;
    key->bits = keySizeCodeToBits(taken->keySizeCode);

    *phUserKey = reinterpret_cast<HCRYPTKEY>(key);
    logDebug("CPGetUserKey: algo=" + std::to_string(key->algId) + " keyUsage=" +
             std::to_string(key->keyUsage) + " bits=" + std::to_string(key->bits) + ", return TRUE");
    return TRUE;
}

BOOL destroyKey(HCRYPTPROV hProv, HCRYPTKEY hKey) {
    if (!isUsableContext(hProv))
        return failWithError(NTE_BAD_UID, "CPDestroyKey: invalid or uninitialized context");
    if (hKey == 0)
        return failWithError(NTE_BAD_KEY, "CPDestroyKey: pKeyHandle is NULL");
    freeKeyHandle(keyHandleFrom(hKey));
    return TRUE;
}

}  // namespace

extern "C" {

BOOL WINAPI CPGenKey(HCRYPTPROV hProv, ALG_ID Algid, DWORD dwFlags, HCRYPTKEY* phKey) {
    logDebug("CPGenKey");
    return runEntryPoint("CPGenKey", [&] { return genKey(hProv, Algid, dwFlags, phKey); });
}

BOOL WINAPI CPGetUserKey(HCRYPTPROV hProv, DWORD dwKeySpec, HCRYPTKEY* phUserKey) {
    logDebug("CPGetUserKey");
    return runEntryPoint("CPGetUserKey", [&] { return getUserKey(hProv, dwKeySpec, phUserKey); });
}

BOOL WINAPI CPDestroyKey(HCRYPTPROV hProv, HCRYPTKEY hKey) {
    logDebug("CPDestroyKey");
    return runEntryPoint("CPDestroyKey", [&] { return destroyKey(hProv, hKey); });
}

BOOL WINAPI CPDeriveKey(HCRYPTPROV /*hProv*/, ALG_ID /*Algid*/, HCRYPTHASH /*hBaseData*/, DWORD /*dwFlags*/,
                        HCRYPTKEY* /*phKey*/) {
    logDebug("CPDeriveKey");
    return failWithError(NTE_NOT_SUPPORTED, "CPDeriveKey: not supported");
}

}  // extern "C"
