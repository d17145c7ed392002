// Key objects: opening a token key pair by name, creating a key object that FinalizeKey then
// generates on the token, deleting the pair from the token, and freeing the object.
#include <windows.h>

#include <wincrypt.h>

#include <ncrypt.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "ksp/ksp_common.h"
#include "ksp/ksp_interface.h"
#include "ksp/ksp_objects.h"
#include "log/log.h"
#include "token/device_library.h"
#include "token/key_lookup.h"
#include "util/encoding.h"
#include "util/rsa_key_fields.h"

namespace {

struct CreatableAlgorithm {
    const wchar_t* name;
    int32_t usage;  // 0: chosen from the legacy key spec (RSA)
    int32_t algorithm;
    uint32_t bits;
};

// RSA's size code and length are settled by the "Length" property or at finalise.
const CreatableAlgorithm kCreatableAlgorithms[] = {
    {L"RSA", 0, 0, 0},
    {L"ECDSA_P256", CALYTH_USAGE_SIGNATURE, CALYTH_KEY_EC_P256, 256},
    {L"ECDSA_P384", CALYTH_USAGE_SIGNATURE, CALYTH_KEY_EC_P384, 384},
    {L"ECDSA_P521", CALYTH_USAGE_SIGNATURE, CALYTH_KEY_EC_P521, 521},
    {L"ECDH_P256", CALYTH_USAGE_EXCHANGE, CALYTH_KEY_EC_P256, 256},
    {L"ECDH_P384", CALYTH_USAGE_EXCHANGE, CALYTH_KEY_EC_P384, 384},
    {L"ECDH_P521", CALYTH_USAGE_EXCHANGE, CALYTH_KEY_EC_P521, 521},
};

const CreatableAlgorithm* creatableAlgorithm(LPCWSTR pszAlgId) {
    for (const CreatableAlgorithm& candidate : kCreatableAlgorithms) {
        if (sameWide(pszAlgId, candidate.name))
            return &candidate;
    }
    return nullptr;
}

// The first key pair whose usage serves the legacy key spec (usage 3 serves both), or null.
const CalythKeyPair* keyPairForLegacySpec(const std::vector<CalythKeyPair>& keyPairs, DWORD legacyKeySpec) {
    int32_t wanted = 0;
    if (legacyKeySpec == AT_SIGNATURE)
        wanted = CALYTH_USAGE_SIGNATURE;
    else if (legacyKeySpec == AT_KEYEXCHANGE)
        wanted = CALYTH_USAGE_EXCHANGE;
    else
        return nullptr;
    for (const CalythKeyPair& keyPair : keyPairs) {
        if (keyPair.keyUsage == wanted || keyPair.keyUsage == CALYTH_USAGE_BOTH)
            return &keyPair;
    }
    return nullptr;
}

// The key pair that KSPOpenKey builds its object from. Only an exact identifier passes the gate;
// the label and legacy key-spec fallbacks after it stay as the last resort they were designed as.
SECURITY_STATUS chooseKeyPair(const std::vector<CalythKeyPair>& keyPairs, const std::string& name,
                              DWORD legacyKeySpec, const CalythKeyPair** chosen) {
    bool passed = false;
    for (const CalythKeyPair& keyPair : keyPairs) {
        logDebug("KSP: Available key: " + keyIdHex(keyPair));
        if (keyPairNamed(keyPair, name, kExactKeyId)) {
            passed = true;
            break;
        }
    }
    if (!passed)
        return kspFail(KSP_NTE_NO_KEY, "KSP: Input key not found on token: " + name);
    logDebug("KSP: Key match found, proceeding...");

    const CalythKeyPair* found = findKeyPair(keyPairs, name, kKeyIdOrLabel);
    if (found == nullptr)
        found = keyPairForLegacySpec(keyPairs, legacyKeySpec);
    if (found == nullptr && keyPairs.size() == 1)
        found = &keyPairs.front();
    if (found == nullptr)
        return kspFail(KSP_NTE_NO_KEY, "KSP: Key not found: " + name);
    *chosen = found;
    return KSP_SUCCESS;
}

SECURITY_STATUS openKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName,
                        DWORD dwLegacyKeySpec) {
    logDebug("KSPOpenKey");
    KspProvider* provider = usableProvider(hProvider);
    if (provider == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPOpenKey: provider handle is null or not initialized");
    if (phKey == nullptr)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPOpenKey: phKey is null");

    std::string name = narrowText(pszKeyName);
    logDebug("KSP: Opening key: " + name);
    if (!name.empty()) {
        // The token lookup is looser (any case, label too) than the gate below; both are intended.
        std::string serial = deviceForKeyName(name, kKeyIdOrLabelIgnoringCase);
        if (!serial.empty()) {
            provider->serial = serial;
            logDebug("KSP: Resolved key to device: " + serial);
        }
    }

    std::vector<CalythKeyPair> keyPairs =
        calyth_getKeyPairList(provider->serial.c_str(), provider->deviceContext);
    if (keyPairs.empty())
        return kspFail(KSP_NTE_NO_KEY, "KSP: No keys found on token");
    const CalythKeyPair* keyPair = nullptr;
    SECURITY_STATUS status = chooseKeyPair(keyPairs, name, dwLegacyKeySpec, &keyPair);
    if (status != KSP_SUCCESS)
        return status;

    std::unique_ptr<KspKey> key(new (std::nothrow) KspKey{});
    if (!key)
        return kspFail(KSP_NTE_NO_MEMORY, "KSPOpenKey: failed to allocate key");
    copyTokenKeyData(*keyPair, key.get());
    key->algorithm = keyPair->keySizeCode;
    key->usage = keyPair->keyUsage;
    key->bits = keySizeCodeToBits(keyPair->keySizeCode);
    key->name = pszKeyName != nullptr ? std::wstring(pszKeyName) : std::wstring();
    key->finalized = 1;
    logDebug("KSP: Key opened, algorithm=" + std::to_string(key->algorithm) +
             " bits=" + std::to_string(key->bits));
    *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(key.release());
    return KSP_SUCCESS;
}

SECURITY_STATUS createPersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszAlgId,
                                   LPCWSTR pszKeyName, DWORD dwLegacyKeySpec) {
    logDebug("KSPCreatePersistedKey");
    if (usableProvider(hProvider) == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE,
                       "KSPCreatePersistedKey: provider handle is null or not initialized");
    if (phKey == nullptr || pszAlgId == nullptr)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPCreatePersistedKey: phKey or pszAlgId is null");
    const CreatableAlgorithm* algorithm = creatableAlgorithm(pszAlgId);
    if (algorithm == nullptr)
        return kspFail(KSP_NTE_NOT_SUPPORTED, "KSP: Unsupported algorithm for key generation");

    std::unique_ptr<KspKey> key(new (std::nothrow) KspKey{});
    if (!key)
        return kspFail(KSP_NTE_NO_MEMORY, "KSPCreatePersistedKey: failed to allocate key");
    key->usage = algorithm->usage != 0
                     ? algorithm->usage
                     : (dwLegacyKeySpec == AT_KEYEXCHANGE ? CALYTH_USAGE_EXCHANGE : CALYTH_USAGE_SIGNATURE);
    key->algorithm = algorithm->algorithm;
    key->bits = algorithm->bits;
    key->name = pszKeyName != nullptr ? std::wstring(pszKeyName) : std::wstring();
    key->finalized = 0;
    *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(key.release());
    logDebug("KSP: Key object created, waiting for FinalizeKey");
    return KSP_SUCCESS;
}

// The size code and length the key is generated with. An RSA length the token does not offer is
// generated as RSA-2048 while the key keeps the length it was given (only 0 becomes 2048).
struct Settled {
    int32_t algorithm;
    uint32_t bits;
};

SECURITY_STATUS settleAlgorithm(const KspKey* key, Settled* settled) {
    if (isEcAlgorithm(key->algorithm)) {
        *settled = {key->algorithm, keySizeCodeToBits(key->algorithm)};
        return KSP_SUCCESS;
    }
    if (key->algorithm != 0)
        return kspFail(KSP_NTE_NOT_SUPPORTED,
                       "KSPFinalizeKey: unsupported ECC algorithm=" + std::to_string(key->algorithm));
    int32_t code = rsaSizeCodeForBits(key->bits);
    if (code != 0)
        *settled = {code, key->bits};
    else
        *settled = {CALYTH_KEY_RSA_2048, key->bits == 0 ? 2048u : key->bits};
    return KSP_SUCCESS;
}

SECURITY_STATUS finalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey) {
    logDebug("KSPFinalizeKey");
    KspProvider* provider = usableProvider(hProvider);
    if (provider == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPFinalizeKey: provider handle is null or not initialized");
    KspKey* key = kspKeyFrom(hKey);
    if (key == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPFinalizeKey: key handle is null");
    if (key->finalized != 0)
        return KSP_SUCCESS;
    if (!kspPinCheckIgnoringSilent(provider))
        return kspFail(KSP_NTE_FAIL, "KSPFinalizeKey: password validation failed");
    Settled settled{};
    SECURITY_STATUS status = settleAlgorithm(key, &settled);
    if (status != KSP_SUCCESS)
        return status;
    // Settled before the token is asked: a failed generation leaves the key with its code and length.
    key->algorithm = settled.algorithm;
    key->bits = settled.bits;

    // The key name stays with the object: the token's label for the new pair is left empty.
    CalythKeyPair request{};
    request.keySizeCode = settled.algorithm;
    request.keyUsage = key->usage;
    logDebug("KSP: FinalizeKey - generating key, algorithm=" + std::to_string(settled.algorithm) +
             " bitSize=" + std::to_string(settled.bits));
    WipedText password{devicePassword(provider)};
    int result =
        calyth_generateKeyPair(provider->serial.c_str(), password.c_str(), &request, provider->deviceContext);
    if (result != CALYTH_OK)
        return kspFail(KSP_NTE_INTERNAL_ERROR, "KSP: Key generation failed: " + std::to_string(result));
    copyTokenKeyData(request, key);
    key->finalized = 1;
    logDebug("KSP: Key finalized successfully");
    return KSP_SUCCESS;
}

SECURITY_STATUS deleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey) {
    logDebug("KSPDeleteKey");
    KspProvider* provider = usableProvider(hProvider);
    if (provider == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPDeleteKey: provider handle is null or not initialized");
    KspKey* key = kspKeyFrom(hKey);
    if (key == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPDeleteKey: key handle is null");
    if (!kspPinCheckIgnoringSilent(provider))
        return kspFail(KSP_NTE_FAIL, "KSPDeleteKey: password validation failed");

    WipedText password{devicePassword(provider)};
    int result = calyth_deleteKeyPair(provider->serial.c_str(), key->keyId, password.c_str(),
                                      key->tokenFlag != 0, provider->deviceContext);
    if (result != CALYTH_OK)
        return kspFail(KSP_NTE_INTERNAL_ERROR, "KSP: Delete key failed: " + std::to_string(result));
    // The object stays allocated until KSPFreeKey; only its name goes with the pair.
    key->name.clear();
    logDebug("KSP: Key deleted successfully");
    return KSP_SUCCESS;
}

SECURITY_STATUS freeKey(NCRYPT_KEY_HANDLE hKey) {
    logDebug("KSPFreeKey");
    KspKey* key = kspKeyFrom(hKey);
    if (key != nullptr)
        SecureZeroMemory(key->symmetricKey, sizeof key->symmetricKey);
    delete key;
    return KSP_SUCCESS;
}

}  // namespace

extern "C" {

SECURITY_STATUS WINAPI KSPOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName,
                                  DWORD dwLegacyKeySpec, DWORD /*dwFlags*/) {
    return runKspOperation("KSPOpenKey",
                           [&] { return openKey(hProvider, phKey, pszKeyName, dwLegacyKeySpec); });
}

SECURITY_STATUS WINAPI KSPCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                             LPCWSTR pszAlgId, LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                             DWORD /*dwFlags*/) {
    return runKspOperation("KSPCreatePersistedKey", [&] {
        return createPersistedKey(hProvider, phKey, pszAlgId, pszKeyName, dwLegacyKeySpec);
    });
}

SECURITY_STATUS WINAPI KSPFinalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                      DWORD /*dwFlags*/) {
    return runKspOperation("KSPFinalizeKey", [&] { return finalizeKey(hProvider, hKey); });
}

SECURITY_STATUS WINAPI KSPDeleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD /*dwFlags*/) {
    return runKspOperation("KSPDeleteKey", [&] { return deleteKey(hProvider, hKey); });
}

// The provider handle is not looked at: a key can be freed after its provider.
SECURITY_STATUS WINAPI KSPFreeKey(NCRYPT_PROV_HANDLE /*hProvider*/, NCRYPT_KEY_HANDLE hKey) {
    return runKspOperation("KSPFreeKey", [&] { return freeKey(hKey); });
}

}  // extern "C"
