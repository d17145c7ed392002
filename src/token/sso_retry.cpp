#include "token/sso_retry.h"

#include "log/log.h"
#include "token/device_library.h"
#include "token/token_table.h"

SsoRetryOutcome callWithSsoRetry(const std::string& serial, const SsoRetryTexts& texts,
                                 const std::function<int()>& deviceCall,
                                 const std::function<bool()>& passwordCheck, int* result) {
    *result = deviceCall();
    if (*result != CALYTH_SSO_EXPIRED)
        return SsoRetryOutcome::DeviceAnswered;
    logDebug(texts.expired);
    clearValidatedPin(serial);
    if (!passwordCheck()) {
        logError(texts.recheckFailed);
        return SsoRetryOutcome::PinRecheckFailed;
    }
    *result = deviceCall();
    return SsoRetryOutcome::DeviceAnswered;
}
