// The CryptoAPI provider entry points exported by CalythCSP.dll, with the platform's signatures.
#pragma once

#include <windows.h>

#include <wincrypt.h>

// The table the operating system hands to CPAcquireContext. mingw's wincrypt.h declares it only
// for targets older than Windows XP; the provider only checks the pointer for null.
#if !defined(NTDDI_VERSION) || NTDDI_VERSION >= NTDDI_WINXP
typedef struct _VTableProvStruc {
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

// Key objects

// Signatures

// Random numbers

// Key blobs

// Provider parameters

// Encryption

}  // extern "C"
