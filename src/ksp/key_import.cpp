// KSPImportKey: a caller's key blob becomes a key object. The blob type name picks the reader
// (key_import_public.cpp, key_import_aes.cpp); names are compared exactly.
#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include <memory>
#include <new>
#include <utility>

#include "ksp/key_import_blobs.h"
#include "ksp/ksp_common.h"
#include "log/log.h"

std::unique_ptr<KspKey> newImportedKey() {
    std::unique_ptr<KspKey> key(new (std::nothrow) KspKey{});
    if (!key)
        logError("KSPImportKey: failed to allocate key");
    return key;
}

void handOut(std::unique_ptr<KspKey> key, NCRYPT_KEY_HANDLE* phKey) {
    *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(key.release());
}

namespace {

SECURITY_STATUS importKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey, LPCWSTR pszBlobType,
                          NCRYPT_KEY_HANDLE* phKey, const BYTE* pbData, DWORD cbData) {
    logDebug("KSPImportKey");
    const KspProvider* provider = usableProvider(hProvider);
    if (provider == nullptr)
        return kspFail(KSP_NTE_INVALID_HANDLE, "KSPImportKey: provider handle is null or not initialized");
    if (pszBlobType == nullptr || phKey == nullptr || pbData == nullptr || cbData == 0)
        return kspFail(KSP_NTE_INVALID_PARAMETER, "KSPImportKey: invalid parameters");

    if (sameWide(pszBlobType, BCRYPT_RSAPUBLIC_BLOB) || sameWide(pszBlobType, BCRYPT_PUBLIC_KEY_BLOB))
        return importRsaPublicBlob(pbData, cbData, phKey);
    if (sameWide(pszBlobType, BCRYPT_ECCPUBLIC_BLOB))
        return importEccPublicBlob(pbData, cbData, phKey);
    if (sameWide(pszBlobType, BCRYPT_OPAQUE_KEY_BLOB))
        return importOpaqueKeyBlob(provider, pbData, cbData, phKey);
    if (sameWide(pszBlobType, BCRYPT_KEY_DATA_BLOB))
        return importKeyDataBlob(provider, pbData, cbData, phKey);
    if (sameWide(pszBlobType, LEGACY_RSAPUBLIC_BLOB))
        return importLegacyRsaPublicBlob(pbData, cbData, phKey);
    // Any other name is read as an encrypted transport blob when an import key comes with it.
    if (sameWide(pszBlobType, NCRYPT_OPAQUETRANSPORT_BLOB) ||
        sameWide(pszBlobType, NCRYPT_PKCS8_PRIVATE_KEY_BLOB) || hImportKey != 0)
        return importTransportBlob(provider, hImportKey, pbData, cbData, phKey);
    return kspFail(KSP_NTE_NOT_SUPPORTED, "KSP: Unsupported blob type for import");
}

}  // namespace

extern "C" SECURITY_STATUS WINAPI KSPImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey,
                                               LPCWSTR pszBlobType, NCryptBufferDesc* /*pParameterList*/,
                                               NCRYPT_KEY_HANDLE* phKey, PBYTE pbData, DWORD cbData,
                                               DWORD /*dwFlags*/) {
    return runKspOperation(
        "KSPImportKey", [&] { return importKey(hProvider, hImportKey, pszBlobType, phKey, pbData, cbData); });
}
