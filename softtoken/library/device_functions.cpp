// Device discovery, token state and PIN validation.
#include "core/crypto.h"
#include "core/pin.h"
#include "core/token_access.h"
#include "core/token_objects.h"
#include "entry_guard.h"
#include "thread_lists.h"
#include "token/device_library.h"

using namespace softtoken;

namespace {

constexpr int32_t kFlagPinLocked = 1;

TokenInfo describe(const TokenData& t) {
    TokenInfo info{};
    info.label = t.label.empty() ? t.serial : t.label;
    info.manufacturer = "Calyth soft token";
    info.model = "Soft token";
    info.serialNumber = t.serial;
    info.hardwareVersion = "1.0";
    info.firmwareVersion = t.firmware;
    info.maxPinLength = kMaxPinLength;
    info.minPinLength = kMinPinLength;
    info.pinAttemptsLeft = t.attemptsLeft;
    info.userLoggedIn = t.sso != SsoState::Off ? 1 : 0;
    info.ssoValid = t.sso == SsoState::On ? 1 : 0;
    info.flags = t.pinLocked() ? kFlagPinLocked : 0;
    return info;
}

template <typename Record, typename Source>
std::vector<Record>& fillList(std::map<std::string, std::vector<Record>>& lists, const char* serial,
                              const char* function, Source source) {
    std::vector<Record>& list = lists[serial ? serial : ""];
    list.clear();
    TokenRef token;
    if (openConnected(serial, function, token) != kOk)
        return list;
    for (const auto& object : source(token->data))
        list.push_back(toDeviceRecord(object));
    return list;
}

}  // namespace

extern "C" {

int calyth_init(int, void*, int) {
    return guarded<int>(kFailed, [] {
        ensureCryptoReady();
        return kOk;
    });
}

std::vector<std::string> calyth_getConnectedDeviceList(bool, void*) {
    return guarded<std::vector<std::string>>({}, [] {
        std::vector<std::string> connected;
        for (const std::string& serial : listTokenSerials()) {
            TokenRef token;
            if (loadToken(serial, token) == kOk && token->data.plugged)
                connected.push_back(serial);
        }
        return connected;
    });
}

int calyth_initDevice(const char* serial, bool, void*) {
    return guarded<int>(kFailed, [&] {
        TokenRef token;
        return openConnected(serial, "initDevice", token);
    });
}

TokenInfo calyth_getTokenInfo(const char* serial, void*) {
    return guarded<TokenInfo>(TokenInfo{}, [&] {
        TokenRef token;
        if (openConnected(serial, "getTokenInfo", token) != kOk)
            return TokenInfo{};
        return describe(token->data);
    });
}

int calyth_validatePassword(const char* serial, const char* pin, int userType, int* attemptsLeft, void*) {
    return guarded<int>(kFailed, [&] {
        if (attemptsLeft)
            *attemptsLeft = 0;
        TokenRef token;
        int status = openConnected(serial, "validatePassword", token);
        if (status != kOk) {
            // A forced answer other than a time mismatch still reports the token's count.
            if (attemptsLeft && token && status != CALYTH_SYSTEM_TIME_MISMATCH && status != kNoToken &&
                status != kCorruptToken)
                *attemptsLeft = token->data.attemptsLeft;
            return status;
        }
        if (userType != 1)
            return int(kBadArgument);
        return validatePin(serial, token, pin, attemptsLeft);
    });
}

std::vector<CalythKeyPair>& calyth_getKeyPairList(const char* serial, void*) {
    ThreadLists& lists = threadLists();
    return guarded<std::vector<CalythKeyPair>&>(lists.keyPairs[""], [&]() -> std::vector<CalythKeyPair>& {
        return fillList(
            lists.keyPairs, serial, "getKeyPairList",
            [](const TokenData& t) -> const auto& { return t.keys; });
    });
}

std::vector<CalythSymmetricKey>& calyth_getAesKeyList(const char* serial, void*) {
    ThreadLists& lists = threadLists();
    return guarded<std::vector<CalythSymmetricKey>&>(
        lists.symmetricKeys[""], [&]() -> std::vector<CalythSymmetricKey>& {
            return fillList(
                lists.symmetricKeys, serial, "getAesKeyList",
                [](const TokenData& t) -> const auto& { return t.aesKeys; });
        });
}

std::vector<CalythCertificate>& calyth_getCertificateList(const char* serial, void*) {
    ThreadLists& lists = threadLists();
    return guarded<std::vector<CalythCertificate>&>(
        lists.certificates[""], [&]() -> std::vector<CalythCertificate>& {
            return fillList(
                lists.certificates, serial, "getCertificateList",
                [](const TokenData& t) -> const auto& { return t.certificates; });
        });
}

}  // extern "C"
