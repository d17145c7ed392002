// The CryptoAPI provider entry points exported by CalythCSP.dll, with the platform's signatures.
#pragma once

#include <windows.h>

#include <wincrypt.h>

extern "C" {

// Contexts

// Hash objects

// Key objects

// Signatures

// Random numbers

// Key blobs

// Provider parameters
BOOL WINAPI CPGetProvParam(HCRYPTPROV hProv, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags);
BOOL WINAPI CPSetProvParam(HCRYPTPROV hProv, DWORD dwParam, const BYTE* pbData, DWORD dwFlags);

// Encryption

}  // extern "C"
