// Commands on whole tokens: init, list, delete, plug, unplug, sso, set-firmware, fault, unlock, reset.
#include <algorithm>
#include <cstdio>

#include "arguments.h"
#include "core/certificate.h"
#include "core/pin.h"
#include "core/status.h"
#include "core/token_access.h"
#include "core/token_objects.h"

using namespace softtoken;

namespace calythtoken {
namespace {

std::string serialOption(const Arguments& a) {
    std::string serial = a.required("--serial");
    if (!isValidSerial(serial))
        throw UsageError("invalid serial '" + serial +
                         "': use 1 to 64 letters, digits, '-', '_' or '.', not starting with '.'");
    return serial;
}

void checkPin(const std::string& pin) {
    if (pin.size() < static_cast<size_t>(kMinPinLength) || pin.size() > static_cast<size_t>(kMaxPinLength))
        throw UsageError("the PIN must have " + std::to_string(kMinPinLength) + " to " +
                         std::to_string(kMaxPinLength) + " characters");
}

// Applies `change` to the token and reports failures by name.
void change(const std::string& serial, const std::function<void(TokenData&)>& edit) {
    int status = updateToken(serial, [&](TokenData& t, bool& changed) {
        edit(t);
        changed = true;
        return int(kOk);
    });
    check(status, "token " + serial);
}

const char* sizeName(int32_t code) {
    static const char* names[] = {"?", "rsa1024", "rsa2048", "rsa3072", "rsa4096", "p256", "p384", "p521"};
    return code >= 0 && code <= 7 ? names[code] : "?";
}

const char* usageName(int32_t usage) {
    switch (usage) {
        case 1:
            return "sign";
        case 2:
            return "exchange";
        case 3:
            return "both";
        default:
            return "?";
    }
}

void printToken(const TokenData& t) {
    std::printf("token %s\n", t.serial.c_str());
    std::printf("  label: %s\n", t.label.c_str());
    std::printf("  firmware: %s\n", t.firmware.c_str());
    std::printf("  plugged: %s\n", t.plugged ? "yes" : "no");
    std::printf("  sso: %s\n", ssoName(t.sso));
    std::printf("  pin attempts left: %d of %d%s\n", t.attemptsLeft, t.retryLimit,
                t.pinLocked() ? " (locked)" : "");
    for (const KeyRecord& k : t.keys)
        std::printf("  key %s %s usage=%s public=%s label=\"%s\"\n", hexOf(k.id).c_str(),
                    sizeName(k.sizeCode), usageName(k.usage),
                    !k.publicKey.empty() && k.publicKey[0] == 0x30 ? "der" : "raw", k.label.c_str());
    for (const CertificateRecord& c : t.certificates) {
        CertificateDetails details;
        readCertificate(c.der.data(), static_cast<int>(c.der.size()), details);
        bool linked = std::any_of(c.keyId.begin(), c.keyId.end(), [](unsigned char b) { return b != 0; });
        std::printf("  certificate %d key=%s label=\"%s\" subject=\"%s\" issuer=\"%s\"\n", c.handle,
                    linked ? hexOf(c.keyId).c_str() : "none", c.label.c_str(), details.subjectName.c_str(),
                    details.issuerName.c_str());
    }
    for (const AesRecord& k : t.aesKeys)
        std::printf("  secret-key %s type=%d bits=%d reference=%s label=\"%s\"\n", hexOf(k.id).c_str(),
                    k.type, static_cast<int>(k.key.size() * 8), hexOf(k.reference).c_str(), k.label.c_str());
    for (const Fault& f : t.faults)
        std::printf("  fault %s code=%d remaining=%s\n", f.function.c_str(), f.code,
                    f.count < 0 ? "always" : std::to_string(f.count).c_str());
}

int runInit(const Arguments& a) {
    TokenData t;
    t.serial = serialOption(a);
    std::string pin = a.required("--pin");
    checkPin(pin);
    t.label = a.value("--label", t.serial);
    if (t.label.size() > 32)
        throw UsageError("the label must have at most 32 characters");
    t.retryLimit = a.number("--retries", 10, 1, 100);
    t.attemptsLeft = t.retryLimit;
    t.firmware = a.value("--firmware", "2.1.0");
    t.pin = makePinRecord(pin);
    int status = createToken(t, a.has("--force"));
    if (status == kAlreadyExists)
        throw CommandError("token " + t.serial + " already exists (use --force to replace it)");
    check(status, "cannot create token " + t.serial);
    std::printf("token %s created in %s\n", t.serial.c_str(), storeRoot().c_str());
    return 0;
}

int runList(const Arguments& a) {
    std::vector<std::string> serials = listTokenSerials();
    if (a.has("--serial"))
        serials = {serialOption(a)};
    if (serials.empty())
        std::printf("no tokens in %s\n", storeRoot().c_str());
    for (const std::string& serial : serials) {
        TokenRef token;
        int status = loadToken(serial, token);
        if (status == kOk)
            printToken(token->data);
        else if (a.has("--serial"))
            check(status, "token " + serial);
        else
            std::printf("token %s\n  unreadable: %s\n", serial.c_str(), statusMessage(status).c_str());
    }
    return 0;
}

int runDelete(const Arguments& a) {
    std::string serial = serialOption(a);
    check(deleteToken(serial), "cannot delete token " + serial);
    std::printf("token %s deleted\n", serial.c_str());
    return 0;
}

int runPlug(const Arguments& a) {
    std::string serial = serialOption(a);
    change(serial, [](TokenData& t) { t.plugged = true; });
    std::printf("token %s plugged in\n", serial.c_str());
    return 0;
}

int runUnplug(const Arguments& a) {
    std::string serial = serialOption(a);
    change(serial, [](TokenData& t) { t.plugged = false; });
    std::printf("token %s unplugged\n", serial.c_str());
    return 0;
}

int runSso(const Arguments& a) {
    std::string serial = serialOption(a);
    if (a.positional.size() != 1)
        throw UsageError("say on, off or expired");
    const std::string& word = a.positional[0];
    SsoState state = word == "on" ? SsoState::On : word == "off" ? SsoState::Off : SsoState::Expired;
    if (word != "on" && word != "off" && word != "expired")
        throw UsageError("single sign-on state must be on, off or expired, not '" + word + "'");
    change(serial, [&](TokenData& t) { t.sso = state; });
    std::printf("token %s single sign-on %s\n", serial.c_str(), ssoName(state));
    return 0;
}

int runSetFirmware(const Arguments& a) {
    std::string serial = serialOption(a);
    std::string version = a.required("--version");
    change(serial, [&](TokenData& t) { t.firmware = version; });
    std::printf("token %s firmware %s\n", serial.c_str(), version.c_str());
    return 0;
}

int runFault(const Arguments& a) {
    std::string serial = serialOption(a);
    std::string function = a.value("--function");
    if (function.compare(0, 7, "calyth_") == 0)
        function = function.substr(7);
    if (!function.empty() && !isFaultableFunction(function))
        throw UsageError("no fault can be set on '" + function + "'");
    if (a.has("--clear")) {
        change(serial, [&](TokenData& t) {
            t.faults.erase(
                std::remove_if(t.faults.begin(), t.faults.end(),
                               [&](const Fault& f) { return function.empty() || f.function == function; }),
                t.faults.end());
        });
        std::printf("token %s faults cleared\n", serial.c_str());
        return 0;
    }
    if (function.empty())
        throw UsageError("missing --function");
    Fault fault;
    fault.function = function;
    fault.code = a.number("--code", 0, -1000000, 1000000);
    if (!a.has("--code") || fault.code == 0)
        throw UsageError("--code must be given and not 0");
    fault.count = a.has("--always") ? -1 : a.number("--count", 1, 1, 1000000);
    change(serial, [&](TokenData& t) {
        t.faults.erase(std::remove_if(t.faults.begin(), t.faults.end(),
                                      [&](const Fault& f) { return f.function == function; }),
                       t.faults.end());
        t.faults.push_back(fault);
    });
    std::printf("token %s: next %s calls of %s answer %d\n", serial.c_str(),
                fault.count < 0 ? "all" : std::to_string(fault.count).c_str(), function.c_str(), fault.code);
    return 0;
}

int runUnlock(const Arguments& a) {
    std::string serial = serialOption(a);
    std::string pin = a.value("--pin");
    if (a.has("--pin"))
        checkPin(pin);
    change(serial, [&](TokenData& t) {
        t.attemptsLeft = t.retryLimit;
        if (!pin.empty())
            t.pin = makePinRecord(pin);
    });
    std::printf("token %s unlocked%s\n", serial.c_str(), pin.empty() ? "" : ", PIN changed");
    return 0;
}

int runReset(const Arguments& a) {
    std::string serial = serialOption(a);
    change(serial, [](TokenData& t) {
        t.keys.clear();
        t.aesKeys.clear();
        t.certificates.clear();
        t.faults.clear();
        t.attemptsLeft = t.retryLimit;
        t.sso = SsoState::Off;
        t.plugged = true;
    });
    std::printf("token %s reset: no keys, certificates or faults; unlocked, plugged in, single sign-on off\n",
                serial.c_str());
    return 0;
}

}  // namespace

const std::vector<Command>& tokenCommands() {
    static const std::vector<Command> commands = {
        {"init",
         "create a token",
         "calyth-token init --serial SERIAL --pin PIN [--label LABEL] [--retries N] [--firmware VERSION] "
         "[--force]\n"
         "  Creates a plugged-in token with no keys. The label defaults to the serial, the retry\n"
         "  limit to 10 wrong PINs, the firmware version to 2.1.0. --force replaces an existing token.",
         {{"--serial", true},
          {"--pin", true},
          {"--label", true},
          {"--retries", true},
          {"--firmware", true},
          {"--force", false}},
         0,
         runInit},
        {"list",
         "show tokens with their keys, certificates and faults",
         "calyth-token list [--serial SERIAL]\n"
         "  Shows every token of the store (or one), connected or not, with its state, key pairs,\n"
         "  certificates, secret keys and pending faults. Damaged token files are shown as unreadable.",
         {{"--serial", true}},
         0,
         runList},
        {"delete",
         "remove a token from the store",
         "calyth-token delete --serial SERIAL\n  Removes the token file with everything on it.",
         {{"--serial", true}},
         0,
         runDelete},
        {"plug",
         "plug a token in",
         "calyth-token plug --serial SERIAL\n  The token is listed again and answers calls.",
         {{"--serial", true}},
         0,
         runPlug},
        {"unplug",
         "unplug a token",
         "calyth-token unplug --serial SERIAL\n"
         "  The token disappears from the device list and every call naming it fails until it is\n"
         "  plugged in again.",
         {{"--serial", true}},
         0,
         runUnplug},
        {"sso",
         "switch the single-sign-on session on, off, or make it expire",
         "calyth-token sso --serial SERIAL on|off|expired\n"
         "  on: the token reports the user logged in (userLoggedIn=1, ssoValid=1) and private-key work\n"
         "      runs with an empty PIN.\n"
         "  expired: userLoggedIn=1, ssoValid=0; signing or decrypting with an empty PIN answers 49.\n"
         "  off: a PIN is needed.",
         {{"--serial", true}},
         1,
         runSso},
        {"set-firmware",
         "set the firmware version text",
         "calyth-token set-firmware --serial SERIAL --version VERSION\n"
         "  The text calyth_getTokenInfo reports as firmware version, e.g. 1.9.9.",
         {{"--serial", true}, {"--version", true}},
         0,
         runSetFirmware},
        {"fault",
         "make the next calls of a device function fail",
         "calyth-token fault --serial SERIAL --function NAME --code CODE [--count N | --always]\n"
         "calyth-token fault --serial SERIAL --clear [--function NAME]\n"
         "  The next N (default 1) calls of the function on this token answer CODE and do nothing\n"
         "  else, in any process. Codes the provider tells apart: 49 (single sign-on expired) for\n"
         "  signHash and decrypt, 48 (system time mismatch) for validatePassword. NAME is the device\n"
         "  function with or without its calyth_ prefix: initDevice, getTokenInfo, validatePassword,\n"
         "  getKeyPairList, getAesKeyList, getCertificateList, generateKeyPair, deleteKeyPair,\n"
         "  updateKeyPairDetails, importCertificate, importAesKey, initHash, updateHash, finalHash,\n"
         "  signHash, verifySignatureHash, decrypt, encrypt_aes, decrypt_aes, decryptSymetric,\n"
         "  ecdhDerive, generateRamdomNumber. List functions answer an empty list.",
         {{"--serial", true},
          {"--function", true},
          {"--code", true},
          {"--count", true},
          {"--always", false},
          {"--clear", false}},
         0,
         runFault},
        {"unlock",
         "reset the wrong-PIN count, optionally set a new PIN",
         "calyth-token unlock --serial SERIAL [--pin NEWPIN]",
         {{"--serial", true}, {"--pin", true}},
         0,
         runUnlock},
        {"reset",
         "empty a token for a new test",
         "calyth-token reset --serial SERIAL\n"
         "  Removes all keys, certificates, secret keys and faults, resets the wrong-PIN count,\n"
         "  plugs the token in and switches single sign-on off. PIN, label and firmware stay.",
         {{"--serial", true}},
         0,
         runReset},
    };
    return commands;
}

}  // namespace calythtoken
