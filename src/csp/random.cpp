// Random bytes. The provider has no generator of its own: the device library serves both the
// token's generator and its software source.
#include <windows.h>

#include <wincrypt.h>

#include <string>

#include "csp/csp_context.h"
#include "csp/csp_entry_points.h"
#include "csp/entry_point_guard.h"
#include "csp/log_text.h"
#include "log/log.h"
#include "token/device_library.h"
#include "token/process_state.h"
#include "util/bounded_length.h"

namespace {

// The device takes an int length: a request beyond INT_MAX is served in pieces, so that no length
// the device sees is negative.
int generateRandom(const char* serial, BYTE* output, DWORD length, bool useSoftware, void* deviceContext) {
    for (DWORD done = 0; done < length;) {
        int piece = deviceLength(length - done);
        int ret = calyth_generateRamdomNumber(serial, piece, output + done, useSoftware, deviceContext);
        if (ret != CALYTH_OK)
            return ret;
        done += static_cast<DWORD>(piece);
    }
    return CALYTH_OK;
}

}  // namespace

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

        if (context->serialNumber.empty()) {
            // No token behind a verify-only context: always the software source.
            logDebug("CPGenRandom: no token, using software RNG");
            int ret = generateRandom("", pbBuffer, cbLen, true, context->deviceContext);
            if (ret != CALYTH_OK)
                return failWithError(NTE_PROVIDER_DLL_FAIL,
                                     "CPGenRandom: software RNG failed: " + std::to_string(ret));
            return TRUE;
        }

        // A token failure is the caller's failure: no fallback to the software source.
        int ret = generateRandom(context->serialNumber.c_str(), pbBuffer, cbLen, !g_useHardwareRng,
                                 context->deviceContext);
        if (ret != CALYTH_OK)
            return failWithError(NTE_PROVIDER_DLL_FAIL,
                                 "Random number generation failed: " + std::to_string(ret));
        return TRUE;
    });
}

}  // extern "C"
