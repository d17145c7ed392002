// Random bytes. The provider has no generator of its own: the device library serves both the
// token's generator and its software source.
#include <windows.h>

#include <wincrypt.h>

#include <string>

#include "csp/csp_entry_points.h"
#include "csp/entry_point_guard.h"
#include "csp/log_text.h"
#include "log/log.h"
#include "token/csp_context.h"
#include "token/device_library.h"
#include "token/process_state.h"

extern "C" {

BOOL WINAPI CPGenRandom(HCRYPTPROV hProv, DWORD cbLen, BYTE* pbBuffer) {
    return runEntryPoint("CPGenRandom", [&]() -> BOOL {
        logDebug("CPGenRandom");
        if (!isUsableContext(hProv))
            return failWithError(NTE_BAD_UID, "CPGenRandom: context is null or not initialized");
        if (pbBuffer == nullptr || cbLen == 0)
            return failWithError(ERROR_INVALID_PARAMETER,
                                 "CPGenRandom: invalid buffer or length, cbLen=" + std::to_string(cbLen));
        const CspContext* context = cspContextFrom(hProv);
        int length = static_cast<int>(cbLen);

        if (context->serialNumber.empty()) {
            // No token behind a verify-only context: always the software source.
            logDebug("CPGenRandom: no token, using software RNG");
            int ret = calyth_generateRamdomNumber("", length, pbBuffer, true, context->deviceContext);
            if (ret != CALYTH_OK)
                return failWithError(NTE_PROVIDER_DLL_FAIL,
                                     "CPGenRandom: software RNG failed: " + std::to_string(ret));
            return TRUE;
        }

        // A token failure is the caller's failure: no fallback to the software source.
        int ret = calyth_generateRamdomNumber(context->serialNumber.c_str(), length, pbBuffer,
                                              !g_useHardwareRng, context->deviceContext);
        if (ret != CALYTH_OK)
            return failWithError(NTE_PROVIDER_DLL_FAIL,
                                 "Random number generation failed: " + std::to_string(ret));
        return TRUE;
    });
}

}  // extern "C"
