// The CryptoAPI provider entry points exported by CalythCSP.dll, with the platform's signatures.
#pragma once

#include <windows.h>

#include <wincrypt.h>

// The table the operating system hands to CPAcquireContext. mingw's wincrypt.h declares it only
// for targets older than Windows XP; the provider only checks the pointer for null.
#if !defined(NTDDI_VERSION) || NTDDI_VERSION >= NTDDI_WINXP
typedef struct VTableProvStruc {
    DWORD Version;
    FARPROC FuncVerifyImage;
    FARPROC FuncReturnhWnd;
    DWORD dwProvType;
    BYTE* pbContextInfo;
    DWORD cbContextInfo;
    LPSTR pszProvName;
} VTableProvStruc, *PVTableProvStruc;
#endif

extern "C" {

// Contexts
BOOL WINAPI CPAcquireContext(HCRYPTPROV* phProv, LPCSTR pszContainer, DWORD dwFlags,
                             PVTableProvStruc pVTable);
BOOL WINAPI CPReleaseContext(HCRYPTPROV hProv, DWORD dwFlags);

// Hash objects
BOOL WINAPI CPCreateHash(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTKEY hKey, DWORD dwFlags, HCRYPTHASH* phHash);
BOOL WINAPI CPHashData(HCRYPTPROV hProv, HCRYPTHASH hHash, const BYTE* pbData, DWORD cbDataLen,
                       DWORD dwFlags);
BOOL WINAPI CPDuplicateHash(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD* pdwReserved, DWORD dwFlags,
                            HCRYPTHASH* phHash);
BOOL WINAPI CPSetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, const BYTE* pbData,
                           DWORD dwFlags);
BOOL WINAPI CPGetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, BYTE* pbData, DWORD* pcbDataLen,
                           DWORD dwFlags);
BOOL WINAPI CPDestroyHash(HCRYPTPROV hProv, HCRYPTHASH hHash);
BOOL WINAPI CPHashSessionKey(HCRYPTPROV hProv, HCRYPTHASH hHash, HCRYPTKEY hKey, DWORD dwFlags);

// Key objects
BOOL WINAPI CPGenKey(HCRYPTPROV hProv, ALG_ID Algid, DWORD dwFlags, HCRYPTKEY* phKey);
BOOL WINAPI CPGetUserKey(HCRYPTPROV hProv, DWORD dwKeySpec, HCRYPTKEY* phUserKey);
BOOL WINAPI CPGetKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, BYTE* pbData, DWORD* pcbDataLen,
                          DWORD dwFlags);
BOOL WINAPI CPSetKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, const BYTE* pbData, DWORD dwFlags);
BOOL WINAPI CPDestroyKey(HCRYPTPROV hProv, HCRYPTKEY hKey);
BOOL WINAPI CPDeriveKey(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTHASH hBaseData, DWORD dwFlags,
                        HCRYPTKEY* phKey);

// Signatures
BOOL WINAPI CPSignHash(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwKeySpec, LPCWSTR szDescription,
                       DWORD dwFlags, BYTE* pbSignature, DWORD* pdwSigLen);
BOOL WINAPI CPVerifySignature(HCRYPTPROV hProv, HCRYPTHASH hHash, const BYTE* pbSignature, DWORD cbSigLen,
                              HCRYPTKEY hPubKey, LPCWSTR szDescription, DWORD dwFlags);

// Random numbers
BOOL WINAPI CPGenRandom(HCRYPTPROV hProv, DWORD cbLen, BYTE* pbBuffer);

// Key blobs
BOOL WINAPI CPImportKey(HCRYPTPROV hProv, const BYTE* pbData, DWORD cbDataLen, HCRYPTKEY hPubKey,
                        DWORD dwFlags, HCRYPTKEY* phKey);
BOOL WINAPI CPExportKey(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTKEY hPubKey, DWORD dwBlobType, DWORD dwFlags,
                        BYTE* pbData, DWORD* pcbDataLen);

// Provider parameters
BOOL WINAPI CPGetProvParam(HCRYPTPROV hProv, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags);
BOOL WINAPI CPSetProvParam(HCRYPTPROV hProv, DWORD dwParam, const BYTE* pbData, DWORD dwFlags);

// Encryption
BOOL WINAPI CPEncrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH hHash, BOOL fFinal, DWORD dwFlags,
                      BYTE* pbData, DWORD* pcbDataLen, DWORD cbBufLen);
BOOL WINAPI CPDecrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH hHash, BOOL fFinal, DWORD dwFlags,
                      BYTE* pbData, DWORD* pcbDataLen);

}  // extern "C"
