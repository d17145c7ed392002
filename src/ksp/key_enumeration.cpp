// Enumeration of the token's key pairs, one NCryptKeyName per call, over a copy of the key list
// taken on the first call.
#include <windows.h>

#include <wincrypt.h>

#include <ncrypt.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <new>
#include <string>
#include <vector>

#include "ksp/ksp_common.h"
#include "ksp/ksp_interface.h"
#include "ksp/ksp_objects.h"
#include "log/log.h"
#include "token/device_library.h"
#include "token/key_lookup.h"
#include "token/legacy_key_spec.h"
#include "util/encoding.h"

namespace {

// The router releases the state through KSPFreeBuffer (free), so the copied list lives in the same
// malloc'ed block. The list is read before the block is allocated because its length sizes it.
KspEnumState* newEnumState(const KspProvider* provider) {
    std::vector<CalythKeyPair> keyPairs =
        calyth_getKeyPairList(provider->serial.c_str(), provider->deviceContext);
    size_t bytes = KSP_ENUM_KEY_PAIRS_OFFSET + keyPairs.size() * sizeof(CalythKeyPair);
    auto* block = static_cast<unsigned char*>(std::malloc(bytes));
    if (block == nullptr)
        return nullptr;
    auto* state = new (block) KspEnumState{0, keyPairs.size()};
    if (!keyPairs.empty())
        std::memcpy(block + KSP_ENUM_KEY_PAIRS_OFFSET, keyPairs.data(),
                    keyPairs.size() * sizeof(CalythKeyPair));
    return state;
}

// A copy of the state's key pair at `index` (below its count).
CalythKeyPair keyPairAt(const KspEnumState* state, uint64_t index) {
    CalythKeyPair keyPair;
    const auto* block = reinterpret_cast<const unsigned char*>(state);
    std::memcpy(&keyPair, block + KSP_ENUM_KEY_PAIRS_OFFSET + index * sizeof(CalythKeyPair), sizeof keyPair);
    return keyPair;
}

// One malloc'ed block holding the record and both strings, so that the KSPFreeBuffer the router
// calls on the record releases all of it.
NCryptKeyName* newKeyName(const std::wstring& name, const wchar_t* algorithm, DWORD keySpec) {
    size_t nameBytes = (name.size() + 1) * sizeof(wchar_t);
    size_t algorithmBytes = (std::wcslen(algorithm) + 1) * sizeof(wchar_t);
    auto* block =
        static_cast<unsigned char*>(std::malloc(sizeof(NCryptKeyName) + nameBytes + algorithmBytes));
    if (block == nullptr)
        return nullptr;
    auto* keyName = reinterpret_cast<NCryptKeyName*>(block);
    keyName->pszName = reinterpret_cast<LPWSTR>(block + sizeof(NCryptKeyName));
    std::memcpy(keyName->pszName, name.c_str(), nameBytes);
    keyName->pszAlgid = reinterpret_cast<LPWSTR>(block + sizeof(NCryptKeyName) + nameBytes);
    std::memcpy(keyName->pszAlgid, algorithm, algorithmBytes);
    keyName->dwLegacyKeySpec = keySpec;
    keyName->dwFlags = 0;
    return keyName;
}

SECURITY_STATUS enumKeys(NCRYPT_PROV_HANDLE hProvider, NCryptKeyName** ppKeyName, PVOID* ppEnumState) {
    logDebug("KSPEnumKeys");
    const KspProvider* provider = usableProvider(hProvider);
    if (provider == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPEnumKeys: provider handle is null or not initialized");
    if (ppKeyName == nullptr || ppEnumState == nullptr)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPEnumKeys: ppKeyName or ppEnumState is null");

    if (*ppEnumState == nullptr) {
        KspEnumState* fresh = newEnumState(provider);
        if (fresh == nullptr)
            return kspFail(KSP_NTE_NO_MEMORY, "KSPEnumKeys: failed to allocate enum state");
        *ppEnumState = fresh;
    }
    auto* state = static_cast<KspEnumState*>(*ppEnumState);
    if (state->index >= state->count) {
        logDebug("KSP: No more keys to enumerate");
        return KSP_NTE_NO_MORE_ITEMS;
    }

    const CalythKeyPair keyPair = keyPairAt(state, state->index);
    std::string name = keyIdHex(keyPair);
    NCryptKeyName* keyName =
        newKeyName(wideText(name), eccAlgorithmName(keyPair.keySizeCode, keyPair.keyUsage),
                   legacyKeySpec(keyPair.keyUsage));
    if (keyName == nullptr)
        return kspFail(KSP_NTE_NO_MEMORY, "KSPEnumKeys: failed to allocate key name");
    *ppKeyName = keyName;
    ++state->index;
    logDebug("KSP: Enumerated key: " + name);
    return KSP_SUCCESS;
}

}  // namespace

extern "C" SECURITY_STATUS WINAPI KSPEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR /*pszScope*/,
                                              NCryptKeyName** ppKeyName, PVOID* ppEnumState,
                                              DWORD /*dwFlags*/) {
    return runKspOperation("KSPEnumKeys", [&] { return enumKeys(hProvider, ppKeyName, ppEnumState); });
}
