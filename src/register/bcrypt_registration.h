// The bcrypt.dll registration functions and the records they take. mingw-w64's bcrypt.h declares
// the records but not the functions; the provider loads bcrypt.dll only while it registers and
// reaches them with GetProcAddress through these pointer types. The static_asserts hold the
// records to the published x64 and x86 layouts.
#pragma once

#include <windows.h>

#include <bcrypt.h>

#include <cstddef>

typedef NTSTATUS(WINAPI* BCryptRegisterProviderFn)(LPCWSTR pszProvider, ULONG dwFlags,
                                                   PCRYPT_PROVIDER_REG pReg);
typedef NTSTATUS(WINAPI* BCryptUnregisterProviderFn)(LPCWSTR pszProvider);
typedef NTSTATUS(WINAPI* BCryptAddContextFunctionProviderFn)(ULONG dwTable, LPCWSTR pszContext,
                                                             ULONG dwInterface, LPCWSTR pszFunction,
                                                             LPCWSTR pszProvider, ULONG dwPosition);
typedef NTSTATUS(WINAPI* BCryptRemoveContextFunctionProviderFn)(ULONG dwTable, LPCWSTR pszContext,
                                                                ULONG dwInterface, LPCWSTR pszFunction,
                                                                LPCWSTR pszProvider);

static_assert(CRYPT_LOCAL == 0x00000001);
static_assert(CRYPT_PRIORITY_BOTTOM == 0xFFFFFFFF);

#ifdef _WIN64
static_assert(sizeof(CRYPT_INTERFACE_REG) == 24);
static_assert(offsetof(CRYPT_INTERFACE_REG, dwInterface) == 0);
static_assert(offsetof(CRYPT_INTERFACE_REG, dwFlags) == 4);
static_assert(offsetof(CRYPT_INTERFACE_REG, cFunctions) == 8);
static_assert(offsetof(CRYPT_INTERFACE_REG, rgpszFunctions) == 16);

static_assert(sizeof(CRYPT_IMAGE_REG) == 24);
static_assert(offsetof(CRYPT_IMAGE_REG, pszImage) == 0);
static_assert(offsetof(CRYPT_IMAGE_REG, cInterfaces) == 8);
static_assert(offsetof(CRYPT_IMAGE_REG, rgpInterfaces) == 16);

static_assert(sizeof(CRYPT_PROVIDER_REG) == 32);
static_assert(offsetof(CRYPT_PROVIDER_REG, cAliases) == 0);
static_assert(offsetof(CRYPT_PROVIDER_REG, rgpszAliases) == 8);
static_assert(offsetof(CRYPT_PROVIDER_REG, pUM) == 16);
static_assert(offsetof(CRYPT_PROVIDER_REG, pKM) == 24);
#else
static_assert(sizeof(CRYPT_INTERFACE_REG) == 16);
static_assert(offsetof(CRYPT_INTERFACE_REG, dwInterface) == 0);
static_assert(offsetof(CRYPT_INTERFACE_REG, dwFlags) == 4);
static_assert(offsetof(CRYPT_INTERFACE_REG, cFunctions) == 8);
static_assert(offsetof(CRYPT_INTERFACE_REG, rgpszFunctions) == 12);

static_assert(sizeof(CRYPT_IMAGE_REG) == 12);
static_assert(offsetof(CRYPT_IMAGE_REG, pszImage) == 0);
static_assert(offsetof(CRYPT_IMAGE_REG, cInterfaces) == 4);
static_assert(offsetof(CRYPT_IMAGE_REG, rgpInterfaces) == 8);

static_assert(sizeof(CRYPT_PROVIDER_REG) == 16);
static_assert(offsetof(CRYPT_PROVIDER_REG, cAliases) == 0);
static_assert(offsetof(CRYPT_PROVIDER_REG, rgpszAliases) == 4);
static_assert(offsetof(CRYPT_PROVIDER_REG, pUM) == 8);
static_assert(offsetof(CRYPT_PROVIDER_REG, pKM) == 12);
#endif
