#include "token_access.h"

#include <algorithm>

#include "pin.h"
#include "status.h"

namespace softtoken {
namespace {

const char* const kFaultableFunctions[] = {
    "initDevice",           "getTokenInfo",    "validatePassword",
    "getKeyPairList",       "getAesKeyList",   "getCertificateList",
    "generateKeyPair",      "deleteKeyPair",   "updateKeyPairDetails",
    "importCertificate",    "importAesKey",    "initHash",
    "updateHash",           "finalHash",       "signHash",
    "verifySignatureHash",  "decrypt",         "encrypt_aes",
    "decrypt_aes",          "decryptSymetric", "ecdhDerive",
    "generateRamdomNumber",
};

int takeFault(const std::string& serial, const TokenRef& token, const char* function) {
    bool pending = std::any_of(token->data.faults.begin(), token->data.faults.end(),
                               [&](const Fault& f) { return f.function == function && f.count != 0; });
    if (!pending)
        return kOk;
    int code = kOk;
    int status = updateToken(serial, [&](TokenData& t, bool& changed) {
        for (auto it = t.faults.begin(); it != t.faults.end(); ++it) {
            if (it->function != function || it->count == 0)
                continue;
            code = it->code;
            if (it->count > 0 && --it->count == 0)
                t.faults.erase(it);
            changed = true;  // a negative count fires for ever and is not written back
            break;
        }
        return kOk;
    });
    return status != kOk ? status : code;
}

// Counts one wrong PIN; answers kPinIncorrect, or kPinLocked when that was the last attempt.
int countFailure(const std::string& serial, int* attemptsLeft) {
    int left = 0;
    int status = updateToken(serial, [&](TokenData& t, bool& changed) {
        if (t.attemptsLeft > 0) {
            --t.attemptsLeft;
            changed = true;
        }
        left = t.attemptsLeft;
        return kOk;
    });
    if (attemptsLeft)
        *attemptsLeft = status == kOk ? left : 0;
    if (status != kOk)
        return status;
    return left > 0 ? kPinIncorrect : kPinLocked;
}

int resetFailures(const std::string& serial, const TokenRef& token) {
    if (token->data.attemptsLeft == token->data.retryLimit)
        return kOk;
    return updateToken(serial, [](TokenData& t, bool& changed) {
        if (t.attemptsLeft > 0 && t.attemptsLeft != t.retryLimit) {
            t.attemptsLeft = t.retryLimit;
            changed = true;
        }
        return kOk;
    });
}

}  // namespace

bool isFaultableFunction(const std::string& function) {
    return std::find(std::begin(kFaultableFunctions), std::end(kFaultableFunctions), function) !=
           std::end(kFaultableFunctions);
}

int openConnected(const char* serial, const char* function, TokenRef& token) {
    if (!serial)
        return kNoToken;
    int status = loadToken(serial, token);
    if (status != kOk)
        return status;
    if (!token->data.plugged)
        return kNoToken;
    return function ? takeFault(serial, token, function) : kOk;
}

int authorize(const std::string& serial, const TokenRef& token, const char* pin, bool expiredIs49) {
    const TokenData& t = token->data;
    if (!pin || !*pin) {
        if (t.sso == SsoState::On)
            return kOk;
        if (t.sso == SsoState::Expired && expiredIs49)
            return kSsoExpired;
        return kPinRequired;
    }
    if (t.pinLocked())
        return kPinLocked;
    if (!pinMatches(t.pin, pin))
        return countFailure(serial, nullptr);
    return resetFailures(serial, token);
}

int validatePin(const std::string& serial, const TokenRef& token, const char* pin, int* attemptsLeft) {
    const TokenData& t = token->data;
    if (t.pinLocked()) {
        if (attemptsLeft)
            *attemptsLeft = 0;
        return kPinLocked;
    }
    if (!pin || !*pin) {
        if (attemptsLeft)
            *attemptsLeft = t.attemptsLeft;
        return kPinRequired;
    }
    if (!pinMatches(t.pin, pin))
        return countFailure(serial, attemptsLeft);
    int status = resetFailures(serial, token);
    if (attemptsLeft)
        *attemptsLeft = t.retryLimit;
    return status;
}

}  // namespace softtoken
