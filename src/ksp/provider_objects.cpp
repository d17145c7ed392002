// The provider object's life (open, free), the release of buffers handed to the router, and the
// algorithm list the provider reports.
#include <windows.h>

#include <ncrypt.h>

#include <cstdlib>
#include <cwchar>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "ksp/ksp_common.h"
#include "ksp/ksp_interface.h"
#include "ksp/ksp_objects.h"
#include "log/log.h"
#include "token/device_library.h"
#include "token/device_library_loading.h"
#include "token/device_monitor.h"
#include "token/token_table.h"

namespace {

struct AlgorithmRow {
    const wchar_t* name;
    DWORD algorithmClass;
    DWORD operations;
};

const AlgorithmRow kAlgorithms[] = {
    {L"RSA", NCRYPT_ASYMMETRIC_ENCRYPTION_INTERFACE,
     NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION | NCRYPT_SIGNATURE_OPERATION},
    {L"ECDSA_P256", NCRYPT_SIGNATURE_INTERFACE, NCRYPT_SIGNATURE_OPERATION},
    {L"ECDSA_P384", NCRYPT_SIGNATURE_INTERFACE, NCRYPT_SIGNATURE_OPERATION},
    {L"ECDSA_P521", NCRYPT_SIGNATURE_INTERFACE, NCRYPT_SIGNATURE_OPERATION},
    {L"SHA1", NCRYPT_HASH_INTERFACE, NCRYPT_HASH_OPERATION},
    {L"SHA256", NCRYPT_HASH_INTERFACE, NCRYPT_HASH_OPERATION},
    {L"SHA384", NCRYPT_HASH_INTERFACE, NCRYPT_HASH_OPERATION},
    {L"SHA512", NCRYPT_HASH_INTERFACE, NCRYPT_HASH_OPERATION},
};

// ECDH names are accepted for key creation but deliberately not reported here.
const wchar_t* const kSupportedAlgorithms[] = {L"RSA",    L"ECDSA_P256", L"ECDSA_P384", L"ECDSA_P521",
                                               L"SHA256", L"SHA1",       L"SHA384",     L"SHA512"};

SECURITY_STATUS openProvider(NCRYPT_PROV_HANDLE* phProvider) {
    logDebug("KSPOpenProvider");
    if (phProvider == nullptr)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPOpenProvider: phProvider is null");
    if (!deviceLibraryAvailable())
        return kspFail(KSP_NTE_PROVIDER_DLL_FAIL, "KSPOpenProvider: device library not available");
    std::unique_ptr<KspProvider> provider(new (std::nothrow) KspProvider{});
    if (!provider)
        return kspFail(KSP_NTE_NO_MEMORY, "KSPOpenProvider: failed to allocate provider");

    calyth_init(0, nullptr, 2);
    startDeviceMonitor();
    std::vector<std::string> serials = calyth_getConnectedDeviceList(false, provider->deviceContext);
    if (serials.empty()) {
        // Opening never fails for want of a token; the operations that need one fail later.
        logDebug("KSP: No token connected, opening provider without device");
        provider->initialized = 1;
        *phProvider = reinterpret_cast<NCRYPT_PROV_HANDLE>(provider.release());
        return KSP_SUCCESS;
    }

    provider->serial = serials.front();
    provider->firmware =
        calyth_getTokenInfo(provider->serial.c_str(), provider->deviceContext).firmwareVersion;
    logDebug("KSP: Provider firmware=" + provider->firmware);
    initializeConnectedDevices(serials, provider->deviceContext, kKspDeviceInit);

    provider->initialized = 1;
    *phProvider = reinterpret_cast<NCRYPT_PROV_HANDLE>(provider.release());
    logDebug("KSP: Provider opened successfully");
    return KSP_SUCCESS;
}

SECURITY_STATUS freeProvider(NCRYPT_PROV_HANDLE hProvider) {
    logDebug("KSPFreeProvider");
    KspProvider* provider = kspProviderFrom(hProvider);
    if (provider == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPFreeProvider: provider handle is null");
    delete provider;
    return KSP_SUCCESS;
}

SECURITY_STATUS freeBuffer(PVOID pvInput) {
    logDebug("KSPFreeBuffer");
    std::free(pvInput);
    return KSP_SUCCESS;
}

SECURITY_STATUS isAlgSupported(LPCWSTR pszAlgId) {
    logDebug("KSPIsAlgSupported");
    if (pszAlgId == nullptr)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPIsAlgSupported: pszAlgId is null");
    for (const wchar_t* name : kSupportedAlgorithms) {
        if (sameWide(pszAlgId, name))
            return KSP_SUCCESS;
    }
    return kspFail(KSP_NTE_NOT_SUPPORTED, "KSPIsAlgSupported: algorithm not supported");
}

// The kept rows in one malloc'ed array; each name is its own wcsdup copy, which KSPFreeBuffer on
// the array does not release. Null when memory runs short (nothing is left allocated then).
NCryptAlgorithmName* algorithmList(const std::vector<const AlgorithmRow*>& rows) {
    // Room for one row at least, so that an empty selection is not mistaken for a failure.
    size_t room = rows.empty() ? 1 : rows.size();
    auto* list = static_cast<NCryptAlgorithmName*>(std::malloc(room * sizeof(NCryptAlgorithmName)));
    if (list == nullptr)
        return nullptr;
    for (size_t i = 0; i < rows.size(); ++i) {
        list[i].pszName = _wcsdup(rows[i]->name);
        if (list[i].pszName == nullptr) {
            for (size_t made = 0; made < i; ++made)
                std::free(list[made].pszName);
            std::free(list);
            return nullptr;
        }
        list[i].dwClass = rows[i]->algorithmClass;
        list[i].dwAlgOperations = rows[i]->operations;
        list[i].dwFlags = 0;
    }
    return list;
}

SECURITY_STATUS enumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations, DWORD* pdwAlgCount,
                               NCryptAlgorithmName** ppAlgList) {
    logDebug("KSPEnumAlgorithms");
    if (usableProvider(hProvider) == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE,
                       "KSPEnumAlgorithms: provider handle is null or not initialized");
    if (pdwAlgCount == nullptr || ppAlgList == nullptr)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPEnumAlgorithms: pdwAlgCount or ppAlgList is null");

    std::vector<const AlgorithmRow*> rows;
    for (const AlgorithmRow& row : kAlgorithms) {
        if (dwAlgOperations == 0 || (row.operations & dwAlgOperations) != 0)
            rows.push_back(&row);
    }
    NCryptAlgorithmName* list = algorithmList(rows);
    if (list == nullptr)
        return kspFail(KSP_NTE_NO_MEMORY, "KSPEnumAlgorithms: failed to allocate algorithm list");
    *pdwAlgCount = static_cast<DWORD>(rows.size());
    *ppAlgList = list;
    logDebug("KSP: Enumerated " + std::to_string(rows.size()) + " algorithms");
    return KSP_SUCCESS;
}

}  // namespace

extern "C" {

SECURITY_STATUS WINAPI KSPOpenProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR /*pszProviderName*/,
                                       DWORD /*dwFlags*/) {
    return runKspOperation("KSPOpenProvider", [&] { return openProvider(phProvider); });
}

SECURITY_STATUS WINAPI KSPFreeProvider(NCRYPT_PROV_HANDLE hProvider) {
    return runKspOperation("KSPFreeProvider", [&] { return freeProvider(hProvider); });
}

SECURITY_STATUS WINAPI KSPFreeBuffer(PVOID pvInput) {
    return runKspOperation("KSPFreeBuffer", [&] { return freeBuffer(pvInput); });
}

SECURITY_STATUS WINAPI KSPIsAlgSupported(NCRYPT_PROV_HANDLE /*hProvider*/, LPCWSTR pszAlgId,
                                         DWORD /*dwFlags*/) {
    return runKspOperation("KSPIsAlgSupported", [&] { return isAlgSupported(pszAlgId); });
}

SECURITY_STATUS WINAPI KSPEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations,
                                         DWORD* pdwAlgCount, NCryptAlgorithmName** ppAlgList,
                                         DWORD /*dwFlags*/) {
    return runKspOperation("KSPEnumAlgorithms", [&] {
        return enumAlgorithms(hProvider, dwAlgOperations, pdwAlgCount, ppAlgList);
    });
}

}  // extern "C"
