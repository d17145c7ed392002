// The CNG key storage provider interface: the function table the NCrypt router takes from
// GetKeyStorageInterface, and the operations behind its 26 slots.
//
// mingw-w64 ships ncrypt.h and bcrypt.h but not the provider-side declarations, so the table is
// declared here from the published layout: a BCRYPT_INTERFACE_VERSION followed by 26 function
// pointers, OpenProvider ... FreeSecret. The static_asserts catch a slot in the wrong place.
#pragma once

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include <cstddef>

// Status codes of the CNG side (winerror.h spells them as HRESULTs).
constexpr SECURITY_STATUS KSP_SUCCESS = 0;
constexpr SECURITY_STATUS KSP_NTE_BAD_KEY = static_cast<SECURITY_STATUS>(0x80090003);
constexpr SECURITY_STATUS KSP_NTE_BAD_DATA = static_cast<SECURITY_STATUS>(0x80090005);
constexpr SECURITY_STATUS KSP_NTE_BAD_SIGNATURE = static_cast<SECURITY_STATUS>(0x80090006);
constexpr SECURITY_STATUS KSP_NTE_BAD_TYPE = static_cast<SECURITY_STATUS>(0x8009000A);
constexpr SECURITY_STATUS KSP_NTE_NO_KEY = static_cast<SECURITY_STATUS>(0x8009000D);
constexpr SECURITY_STATUS KSP_NTE_NO_MEMORY = static_cast<SECURITY_STATUS>(0x8009000E);
constexpr SECURITY_STATUS KSP_NTE_NOT_FOUND = static_cast<SECURITY_STATUS>(0x80090011);
constexpr SECURITY_STATUS KSP_NTE_PROVIDER_DLL_FAIL = static_cast<SECURITY_STATUS>(0x8009001D);
constexpr SECURITY_STATUS KSP_NTE_FAIL = static_cast<SECURITY_STATUS>(0x80090020);
constexpr SECURITY_STATUS KSP_NTE_SILENT_CONTEXT = static_cast<SECURITY_STATUS>(0x80090022);
constexpr SECURITY_STATUS KSP_NTE_INVALID_HANDLE = static_cast<SECURITY_STATUS>(0x80090026);
constexpr SECURITY_STATUS KSP_NTE_INVALID_PARAMETER = static_cast<SECURITY_STATUS>(0x80090027);
constexpr SECURITY_STATUS KSP_NTE_BUFFER_TOO_SMALL = static_cast<SECURITY_STATUS>(0x80090028);
constexpr SECURITY_STATUS KSP_NTE_NOT_SUPPORTED = static_cast<SECURITY_STATUS>(0x80090029);
constexpr SECURITY_STATUS KSP_NTE_NO_MORE_ITEMS = static_cast<SECURITY_STATUS>(0x8009002A);
constexpr SECURITY_STATUS KSP_NTE_INTERNAL_ERROR = static_cast<SECURITY_STATUS>(0x8009002D);
constexpr SECURITY_STATUS KSP_NTE_VALIDATION_FAILED = static_cast<SECURITY_STATUS>(0x80090032);

extern "C" {

typedef SECURITY_STATUS(WINAPI* KspOpenProviderFn)(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName,
                                                   DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspOpenKeyFn)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                              LPCWSTR pszKeyName, DWORD dwLegacyKeySpec, DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspCreatePersistedKeyFn)(NCRYPT_PROV_HANDLE hProvider,
                                                         NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszAlgId,
                                                         LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                                         DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspGetProviderPropertyFn)(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty,
                                                          PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                                                          DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspGetKeyPropertyFn)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                                     LPCWSTR pszProperty, PBYTE pbOutput, DWORD cbOutput,
                                                     DWORD* pcbResult, DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspSetProviderPropertyFn)(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty,
                                                          PBYTE pbInput, DWORD cbInput, DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspSetKeyPropertyFn)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                                     LPCWSTR pszProperty, PBYTE pbInput, DWORD cbInput,
                                                     DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspFinalizeKeyFn)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                                  DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspDeleteKeyFn)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                                DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspFreeProviderFn)(NCRYPT_PROV_HANDLE hProvider);
typedef SECURITY_STATUS(WINAPI* KspFreeKeyFn)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey);
typedef SECURITY_STATUS(WINAPI* KspFreeBufferFn)(PVOID pvInput);
typedef SECURITY_STATUS(WINAPI* KspEncryptFn)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                              PBYTE pbInput, DWORD cbInput, VOID* pPaddingInfo,
                                              PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                                              DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspDecryptFn)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                              PBYTE pbInput, DWORD cbInput, VOID* pPaddingInfo,
                                              PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                                              DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspIsAlgSupportedFn)(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszAlgId,
                                                     DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspEnumAlgorithmsFn)(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations,
                                                     DWORD* pdwAlgCount, NCryptAlgorithmName** ppAlgList,
                                                     DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspEnumKeysFn)(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszScope,
                                               NCryptKeyName** ppKeyName, PVOID* ppEnumState, DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspImportKeyFn)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey,
                                                LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList,
                                                NCRYPT_KEY_HANDLE* phKey, PBYTE pbData, DWORD cbData,
                                                DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspExportKeyFn)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                                NCRYPT_KEY_HANDLE hExportKey, LPCWSTR pszBlobType,
                                                NCryptBufferDesc* pParameterList, PBYTE pbOutput,
                                                DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspSignHashFn)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                               VOID* pPaddingInfo, PBYTE pbHashValue, DWORD cbHashValue,
                                               PBYTE pbSignature, DWORD cbSignature, DWORD* pcbResult,
                                               DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspVerifySignatureFn)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                                      VOID* pPaddingInfo, PBYTE pbHashValue,
                                                      DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                                      DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspPromptUserFn)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                                 LPCWSTR pszOperation, DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspNotifyChangeKeyFn)(NCRYPT_PROV_HANDLE hProvider, HANDLE* phEvent,
                                                      DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspSecretAgreementFn)(NCRYPT_PROV_HANDLE hProvider,
                                                      NCRYPT_KEY_HANDLE hPrivKey, NCRYPT_KEY_HANDLE hPubKey,
                                                      NCRYPT_SECRET_HANDLE* phAgreedSecret, DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspDeriveKeyFn)(NCRYPT_PROV_HANDLE hProvider,
                                                NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                                                NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey,
                                                DWORD cbDerivedKey, DWORD* pcbResult, DWORD dwFlags);
typedef SECURITY_STATUS(WINAPI* KspFreeSecretFn)(NCRYPT_PROV_HANDLE hProvider,
                                                 NCRYPT_SECRET_HANDLE hSharedSecret);

// NCRYPT_KEY_STORAGE_FUNCTION_TABLE, version 1.0.
struct NCRYPT_KEY_STORAGE_FUNCTION_TABLE {
    BCRYPT_INTERFACE_VERSION Version;
    KspOpenProviderFn OpenProvider;
    KspOpenKeyFn OpenKey;
    KspCreatePersistedKeyFn CreatePersistedKey;
    KspGetProviderPropertyFn GetProviderProperty;
    KspGetKeyPropertyFn GetKeyProperty;
    KspSetProviderPropertyFn SetProviderProperty;
    KspSetKeyPropertyFn SetKeyProperty;
    KspFinalizeKeyFn FinalizeKey;
    KspDeleteKeyFn DeleteKey;
    KspFreeProviderFn FreeProvider;
    KspFreeKeyFn FreeKey;
    KspFreeBufferFn FreeBuffer;
    KspEncryptFn Encrypt;
    KspDecryptFn Decrypt;
    KspIsAlgSupportedFn IsAlgSupported;
    KspEnumAlgorithmsFn EnumAlgorithms;
    KspEnumKeysFn EnumKeys;
    KspImportKeyFn ImportKey;
    KspExportKeyFn ExportKey;
    KspSignHashFn SignHash;
    KspVerifySignatureFn VerifySignature;
    KspPromptUserFn PromptUser;
    KspNotifyChangeKeyFn NotifyChangeKey;
    KspSecretAgreementFn SecretAgreement;
    KspDeriveKeyFn DeriveKey;
    KspFreeSecretFn FreeSecret;
};

static_assert(sizeof(BCRYPT_INTERFACE_VERSION) == 4);
static_assert(offsetof(NCRYPT_KEY_STORAGE_FUNCTION_TABLE, OpenProvider) == sizeof(void*));
static_assert(offsetof(NCRYPT_KEY_STORAGE_FUNCTION_TABLE, FreeBuffer) == 12 * sizeof(void*));
static_assert(offsetof(NCRYPT_KEY_STORAGE_FUNCTION_TABLE, SecretAgreement) == 24 * sizeof(void*));
static_assert(offsetof(NCRYPT_KEY_STORAGE_FUNCTION_TABLE, FreeSecret) == 26 * sizeof(void*));
static_assert(sizeof(NCRYPT_KEY_STORAGE_FUNCTION_TABLE) == 27 * sizeof(void*));

// The exported entry point (the router calls it once per load).
SECURITY_STATUS WINAPI GetKeyStorageInterface(LPCWSTR pszProviderName,
                                              NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppFunctionTable,
                                              DWORD dwFlags);

// The operations, in slot order.
SECURITY_STATUS WINAPI KSPOpenProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName,
                                       DWORD dwFlags);
SECURITY_STATUS WINAPI KSPOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName,
                                  DWORD dwLegacyKeySpec, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                             LPCWSTR pszAlgId, LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                             DWORD dwFlags);
SECURITY_STATUS WINAPI KSPGetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty,
                                              PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                                              DWORD dwFlags);
SECURITY_STATUS WINAPI KSPGetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                         LPCWSTR pszProperty, PBYTE pbOutput, DWORD cbOutput,
                                         DWORD* pcbResult, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPSetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty,
                                              PBYTE pbInput, DWORD cbInput, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPSetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                         LPCWSTR pszProperty, PBYTE pbInput, DWORD cbInput, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPFinalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPDeleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPFreeProvider(NCRYPT_PROV_HANDLE hProvider);
SECURITY_STATUS WINAPI KSPFreeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey);
SECURITY_STATUS WINAPI KSPFreeBuffer(PVOID pvInput);
SECURITY_STATUS WINAPI KSPEncrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput,
                                  DWORD cbInput, VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput,
                                  DWORD* pcbResult, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPDecrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput,
                                  DWORD cbInput, VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput,
                                  DWORD* pcbResult, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPIsAlgSupported(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszAlgId, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations,
                                         DWORD* pdwAlgCount, NCryptAlgorithmName** ppAlgList, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszScope, NCryptKeyName** ppKeyName,
                                   PVOID* ppEnumState, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey,
                                    LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList,
                                    NCRYPT_KEY_HANDLE* phKey, PBYTE pbData, DWORD cbData, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPExportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                    NCRYPT_KEY_HANDLE hExportKey, LPCWSTR pszBlobType,
                                    NCryptBufferDesc* pParameterList, PBYTE pbOutput, DWORD cbOutput,
                                    DWORD* pcbResult, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPSignHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo,
                                   PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                   DWORD* pcbResult, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPVerifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                          VOID* pPaddingInfo, PBYTE pbHashValue, DWORD cbHashValue,
                                          PBYTE pbSignature, DWORD cbSignature, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPPromptUser(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                     LPCWSTR pszOperation, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPNotifyChangeKey(NCRYPT_PROV_HANDLE hProvider, HANDLE* phEvent, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPSecretAgreement(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hPrivKey,
                                          NCRYPT_KEY_HANDLE hPubKey, NCRYPT_SECRET_HANDLE* phAgreedSecret,
                                          DWORD dwFlags);
SECURITY_STATUS WINAPI KSPDeriveKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_SECRET_HANDLE hSharedSecret,
                                    LPCWSTR pwszKDF, NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey,
                                    DWORD cbDerivedKey, DWORD* pcbResult, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPFreeSecret(NCRYPT_PROV_HANDLE hProvider, NCRYPT_SECRET_HANDLE hSharedSecret);

}  // extern "C"
