// The one function table handed to the NCrypt router, in the slot order of the published
// NCRYPT_KEY_STORAGE_FUNCTION_TABLE, version 1.0.
#include "ksp/ksp_interface.h"
#include "log/log.h"

namespace {

const NCRYPT_KEY_STORAGE_FUNCTION_TABLE kFunctionTable = {
    {1, 0},  // NCRYPT_KEY_STORAGE_INTERFACE_VERSION
    KSPOpenProvider,
    KSPOpenKey,
    KSPCreatePersistedKey,
    KSPGetProviderProperty,
    KSPGetKeyProperty,
    KSPSetProviderProperty,
    KSPSetKeyProperty,
    KSPFinalizeKey,
    KSPDeleteKey,
    KSPFreeProvider,
    KSPFreeKey,
    KSPFreeBuffer,
    KSPEncrypt,
    KSPDecrypt,
    KSPIsAlgSupported,
    KSPEnumAlgorithms,
    KSPEnumKeys,
    KSPImportKey,
    KSPExportKey,
    KSPSignHash,
    KSPVerifySignature,
    KSPPromptUser,
    KSPNotifyChangeKey,
    KSPSecretAgreement,
    KSPDeriveKey,
    KSPFreeSecret,
};

}  // namespace

extern "C" SECURITY_STATUS WINAPI GetKeyStorageInterface(LPCWSTR /*pszProviderName*/,
                                                         NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppFunctionTable,
                                                         DWORD /*dwFlags*/) {
    logDebug("GetKeyStorageInterface");
    // The router always passes its output; a null one is not checked.
    *ppFunctionTable = const_cast<NCRYPT_KEY_STORAGE_FUNCTION_TABLE*>(&kFunctionTable);
    return 0;
}
