// Self-registration as a CNG key storage provider through bcrypt.dll, loaded only for the call.
// The CryptoAPI side of the provider is registered by the installation, not here.
#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include <cstdint>
#include <string>

#include "log/log.h"
#include "register/bcrypt_registration.h"
#include "util/entry_guard.h"

namespace {

wchar_t kProviderName[] = L"Calyth Cryptographic Provider CSP";
wchar_t kImageName[] = L"CalythCSP.dll";
wchar_t kKeyStorageFunction[] = NCRYPT_KEY_STORAGE_ALGORITHM;

struct RegistrationFunctions {
    BCryptRegisterProviderFn registerProvider = nullptr;
    BCryptUnregisterProviderFn unregisterProvider = nullptr;
    BCryptAddContextFunctionProviderFn addContextFunction = nullptr;
    BCryptRemoveContextFunctionProviderFn removeContextFunction = nullptr;  // optional
};

template <typename Fn>
Fn lookUp(HMODULE bcrypt, const char* name) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(bcrypt, name)));
}

RegistrationFunctions lookUpAll(HMODULE bcrypt) {
    RegistrationFunctions functions;
    functions.registerProvider = lookUp<BCryptRegisterProviderFn>(bcrypt, "BCryptRegisterProvider");
    functions.unregisterProvider = lookUp<BCryptUnregisterProviderFn>(bcrypt, "BCryptUnregisterProvider");
    functions.addContextFunction =
        lookUp<BCryptAddContextFunctionProviderFn>(bcrypt, "BCryptAddContextFunctionProvider");
    functions.removeContextFunction =
        lookUp<BCryptRemoveContextFunctionProviderFn>(bcrypt, "BCryptRemoveContextFunctionProvider");
    return functions;
}

// Removes the context entry (when the function exists) and then the provider; results ignored,
// as there may be nothing to remove.
void removeRegistration(const RegistrationFunctions& functions) {
    if (functions.removeContextFunction != nullptr)
        functions.removeContextFunction(CRYPT_LOCAL, nullptr, NCRYPT_KEY_STORAGE_INTERFACE,
                                        kKeyStorageFunction, kProviderName);
    if (functions.unregisterProvider != nullptr)
        functions.unregisterProvider(kProviderName);
}

// The NTSTATUS as an HRESULT of the NT facility. The log line carries "0x" followed by the signed
// decimal value (0x-1073741790 for STATUS_ACCESS_DENIED): readers of the log expect that form.
HRESULT registrationFailure(const char* function, NTSTATUS status) {
    logError(std::string(function) + " failed: 0x" + std::to_string(static_cast<int32_t>(status)));
    return static_cast<HRESULT>(static_cast<uint32_t>(status) | 0x10000000u);
}

HRESULT registerKeyStorage(const RegistrationFunctions& functions) {
    removeRegistration(functions);

    PWSTR functionNames[] = {kKeyStorageFunction};
    CRYPT_INTERFACE_REG keyStorage = {NCRYPT_KEY_STORAGE_INTERFACE, CRYPT_LOCAL, 1, functionNames};
    PCRYPT_INTERFACE_REG interfaces[] = {&keyStorage};
    CRYPT_IMAGE_REG userModeImage = {kImageName, 1, interfaces};
    CRYPT_PROVIDER_REG provider = {0, nullptr, &userModeImage, nullptr};

    NTSTATUS status = functions.registerProvider(kProviderName, 0, &provider);
    if (status < 0)
        return registrationFailure("BCryptRegisterProvider", status);
    status = functions.addContextFunction(CRYPT_LOCAL, nullptr, NCRYPT_KEY_STORAGE_INTERFACE,
                                          kKeyStorageFunction, kProviderName, CRYPT_PRIORITY_BOTTOM);
    if (status < 0)
        return registrationFailure("BCryptAddContextFunctionProvider", status);
    return S_OK;
}

HRESULT registerServer() {
    logDebug("DllRegisterServer: Registering KSP via CNG API");
    HMODULE bcrypt = LoadLibraryW(L"bcrypt.dll");
    if (bcrypt == nullptr) {
        logError("Failed to load bcrypt.dll");
        return E_FAIL;
    }
    RegistrationFunctions functions = lookUpAll(bcrypt);
    if (functions.registerProvider == nullptr || functions.unregisterProvider == nullptr ||
        functions.addContextFunction == nullptr) {
        logError("Failed to find BCrypt registration functions");
        FreeLibrary(bcrypt);
        return E_FAIL;
    }
    HRESULT result = registerKeyStorage(functions);
    FreeLibrary(bcrypt);
    if (result == S_OK)
        logDebug("DllRegisterServer: KSP registered successfully");
    return result;
}

HRESULT unregisterServer() {
    logDebug("DllUnregisterServer: Unregistering KSP via CNG API");
    HMODULE bcrypt = LoadLibraryW(L"bcrypt.dll");
    if (bcrypt == nullptr) {
        logError("DllUnregisterServer: LoadLibraryW failed to load bcrypt.dll");
        return E_FAIL;
    }
    removeRegistration(lookUpAll(bcrypt));
    FreeLibrary(bcrypt);
    logDebug("DllUnregisterServer: KSP unregistered successfully");
    return S_OK;
}

// No exception may reach the registration tool.
HRESULT guarded(const char* name, HRESULT (*body)()) {
    return guardEntryPoint<HRESULT>(name, body, [](const EscapedException& escaped) {
        logError(escaped.message);
        return E_FAIL;
    });
}

}  // namespace

extern "C" HRESULT WINAPI DllRegisterServer() {
    return guarded("DllRegisterServer", registerServer);
}

extern "C" HRESULT WINAPI DllUnregisterServer() {
    return guarded("DllUnregisterServer", unregisterServer);
}
