// The readers behind KSPImportKey, one per blob family. Each checks its blob (reading the caller's
// bytes only within cbData), logs its own lines and, on success only, hands a new key object out
// through *phKey.
#pragma once

#include <windows.h>

#include <ncrypt.h>

#include <memory>

#include "ksp/ksp_objects.h"

// Public keys kept in the key object; nothing reaches the token.
SECURITY_STATUS importRsaPublicBlob(const BYTE* pbData, DWORD cbData, NCRYPT_KEY_HANDLE* phKey);
SECURITY_STATUS importEccPublicBlob(const BYTE* pbData, DWORD cbData, NCRYPT_KEY_HANDLE* phKey);
SECURITY_STATUS importLegacyRsaPublicBlob(const BYTE* pbData, DWORD cbData, NCRYPT_KEY_HANDLE* phKey);

// AES keys: stored on the token (wrapped under a token key-encryption key, or in plain), or
// decrypted with a token RSA key and kept in the object.
SECURITY_STATUS importOpaqueKeyBlob(const KspProvider* provider, const BYTE* pbData, DWORD cbData,
                                    NCRYPT_KEY_HANDLE* phKey);
SECURITY_STATUS importKeyDataBlob(const KspProvider* provider, const BYTE* pbData, DWORD cbData,
                                  NCRYPT_KEY_HANDLE* phKey);
SECURITY_STATUS importTransportBlob(const KspProvider* provider, NCRYPT_KEY_HANDLE hImportKey,
                                    const BYTE* pbData, DWORD cbData, NCRYPT_KEY_HANDLE* phKey);

// A zeroed key object, or null with "KSPImportKey: failed to allocate key" logged.
std::unique_ptr<KspKey> newImportedKey();
// Gives the object to the caller: *phKey = its address.
void handOut(std::unique_ptr<KspKey> key, NCRYPT_KEY_HANDLE* phKey);
