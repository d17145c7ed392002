// Opening and closing CryptoAPI provider handles.
#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "csp/csp_context.h"
#include "csp/csp_entry_points.h"
#include "csp/entry_point_guard.h"
#include "log/log.h"
#include "token/device_library.h"
#include "token/device_library_loading.h"
#include "token/device_monitor.h"
#include "token/token_table.h"

namespace {

// Any bit of this group asks for a verify-only context (CRYPT_VERIFYCONTEXT and its neighbours).
constexpr DWORD kVerifyContextGroup = 0xF0000000;
// The code the provider reports when no token can be used.
constexpr HRESULT kNoTokenError = NTE_TOKEN_KEYSET_STORAGE_FULL;
const char kContextAllocationFailed[] = "CPAcquireContext: failed to allocate CSP context, return FALSE";

std::string bitText(bool value) {
    return value ? "1" : "0";
}

std::string pointerText(const void* pointer) {
    return std::to_string(reinterpret_cast<uintptr_t>(pointer));
}

// Fills a new context for a token; FALSE (with the log line and last error) when none is usable.
BOOL openToken(CspContext& context, LPCSTR pszContainer) {
    calyth_init(0, nullptr, 2);
    startDeviceMonitor();
    std::vector<std::string> serials = calyth_getConnectedDeviceList(false, context.deviceContext);
    if (serials.empty()) {
        return failWithError(kNoTokenError, "CPAcquireContext: valid token not connected, return FALSE");
    }
    initializeConnectedDevices(serials, context.deviceContext, kCspDeviceInit);

    std::string name;
    if (pszContainer != nullptr) {
        name = pszContainer;
        logDebug("CPAcquireContext - Container name : " + name);
    } else {
        logDebug("CPAcquireContext - Container name not provided");
    }
    // Only emptiness counts: a selected token whose initialisation failed above is still used.
    context.serialNumber = selectDeviceForContainer(name);
    if (context.serialNumber.empty()) {
        return failWithError(kNoTokenError, "CPAcquireContext: no initialized device found, return FALSE");
    }
    context.keyIds = loadKeyIdentifiers(context.serialNumber, context.deviceContext);

    std::string resolved;
    if (lookupResolvedContainer(name, &resolved)) {
        logDebug("CPAcquireContext - resolved container " + name + " -> " + resolved);
        context.containerName = resolved;
    } else {
        context.containerName = name;
    }
    return TRUE;
}

BOOL acquireContext(HCRYPTPROV* phProv, LPCSTR pszContainer, DWORD dwFlags, PVTableProvStruc pVTable) {
    logDebug("CPAcquireContext");
    if (phProv == nullptr || pVTable == nullptr)
        return failWithError(ERROR_INVALID_PARAMETER,
                             "CPAcquireContext: invalid parameter - phProv=" + pointerText(phProv) +
                                 " pVTable=" + pointerText(pVTable));
    logDebug("CPAcquireContext - dwFlags : " + std::to_string(dwFlags));

    // Key-set deletion is accepted as a no-op: nothing on the token is deleted.
    if (dwFlags & CRYPT_DELETEKEYSET) {
        logDebug("CPAcquireContext: CRYPT_DELETEKEYSET, return TRUE");
        *phProv = 0;
        return TRUE;
    }

    // Verify-only contexts too: hashing and random numbers go to the device library as well.
    if (!deviceLibraryAvailable())
        return failWithError(NTE_PROVIDER_DLL_FAIL,
                             "CPAcquireContext: device library not available, return FALSE");

    std::unique_ptr<CspContext> context(new (std::nothrow) CspContext());
    if (!context)
        return failWithError(NTE_NO_MEMORY, kContextAllocationFailed);
    context->deviceContext = nullptr;
    context->silent = (dwFlags & CRYPT_SILENT) != 0;
    logDebug("CPAcquireContext - isSilent : " + bitText(context->silent));

    if (dwFlags & kVerifyContextGroup) {
        logDebug("CPAcquireContext: CRYPT_VERIFYCONTEXT, no token required, return TRUE");
        context->keysetType = CSP_KEYSET_TYPE;
        context->initialized = true;
        *phProv = reinterpret_cast<HCRYPTPROV>(context.release());
        return TRUE;
    }

    if (!openToken(*context, pszContainer))
        return FALSE;

    context->keysetType = CSP_KEYSET_TYPE;
    context->initialized = true;
    const std::string summary = "CPAcquireContext: container=" + context->containerName +
                                " serial=" + context->serialNumber + " silent=" + bitText(context->silent) +
                                ", return TRUE";
    *phProv = reinterpret_cast<HCRYPTPROV>(context.release());
    logDebug(summary);
    return TRUE;
}

// Memory running out is reported like the failed allocation of the context; other exceptions
// keep their own wording.
BOOL failAcquisition(const EscapedException& escaped) {
    if (escaped.outOfMemory)
        return failWithError(NTE_NO_MEMORY, kContextAllocationFailed);
    if (escaped.standardException != nullptr)
        return failWithError(
            NTE_FAIL, std::string("CPAcquireContext: exception - ") + escaped.standardException->what());
    return failWithError(NTE_FAIL, "CPAcquireContext: unknown exception");
}

BOOL releaseContext(HCRYPTPROV hProv, DWORD dwFlags) {
    logDebug("CPReleaseContext");
    if (dwFlags != 0) {
        char flags[16];
        (void)std::snprintf(flags, sizeof flags, "%08X", static_cast<unsigned>(dwFlags));
        return failWithError(NTE_BAD_FLAGS, std::string("CPReleaseContext: invalid dwFlags=0x") + flags);
    }
    if (!isUsableContext(hProv))
        return failWithError(NTE_BAD_UID, "CPReleaseContext: invalid or uninitialized context");
    // The token table and the monitor stay as they are: validated PINs outlive contexts.
    delete cspContextFrom(hProv);
    return TRUE;
}

// The release writes no line for an escaping exception, only the last error.
BOOL failReleaseSilently(const EscapedException& /*escaped*/) {
    setLastErrorCode(NTE_FAIL);
    return FALSE;
}

}  // namespace

BOOL WINAPI CPAcquireContext(HCRYPTPROV* phProv, LPCSTR pszContainer, DWORD dwFlags,
                             PVTableProvStruc pVTable) {
    return runEntryPoint(
        "CPAcquireContext", [&] { return acquireContext(phProv, pszContainer, dwFlags, pVTable); },
        failAcquisition);
}

BOOL WINAPI CPReleaseContext(HCRYPTPROV hProv, DWORD dwFlags) {
    return runEntryPoint(
        "CPReleaseContext", [&] { return releaseContext(hProv, dwFlags); }, failReleaseSilently);
}
