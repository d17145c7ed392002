#include "fake_device/fake_device.h"

#include <windows.h>

#include <bcrypt.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>

#include "token/token_table.h"
#include "util/bounded_length.h"

namespace fake {
namespace {

struct HashState {
    int code = 0;
    std::vector<unsigned char> data;
};

struct State {
    std::vector<std::string> order;
    std::map<std::string, Token> tokens;
    std::vector<Call> calls;
    std::map<std::string, std::deque<int>> forced;
    std::map<std::vector<unsigned char>, CertificateDetails> certificateDetails;
    CalythFileList files;
    Hooks hooks;
    std::vector<std::unique_ptr<HashState>> hashes;  // live for the whole test program
    int nextKeyNumber = 1;
    std::vector<std::string> callsUnderProviderMutex;
};

std::recursive_mutex& stateMutex() {
    static std::recursive_mutex m;
    return m;
}

State& state() {
    static State s;
    return s;
}

// Lists handed out by reference must outlive the call; unknown serials get these empty ones.
std::vector<CalythKeyPair> g_noKeyPairs;
std::vector<CalythSymmetricKey> g_noAesKeys;
std::vector<CalythCertificate> g_noCertificates;

std::string text(const char* s) {
    return s ? std::string(s) : std::string("null");
}
std::string num(long long v) {
    return std::to_string(v);
}
std::string flag(bool b) {
    return b ? "true" : "false";
}
std::string bytesArg(const unsigned char* p, int length) {
    if (!p)
        return "null";
    return hex(p, length > 0 ? static_cast<size_t>(length) : 0);
}

// Another thread (the device monitor, a test's worker) may hold the provider's mutex for one table
// update; the calling thread holding it never lets go while it waits here, so a mutex that stays
// taken for about a second means the provider called the device with its own mutex held.
bool providerMutexStaysTaken() {
    for (int attempt = 0; attempt < 200; ++attempt) {
        if (providerMutex().try_lock()) {
            providerMutex().unlock();
            return false;
        }
        Sleep(5);
    }
    return true;
}

// Records the call; answers true with *result set when a forced result is queued.
bool record(const char* function, const char* serial, std::vector<std::string> args, int* result) {
    if (providerMutexStaysTaken()) {
        {
            std::lock_guard<std::recursive_mutex> lock(stateMutex());
            state().callsUnderProviderMutex.push_back(function);
        }
        ADD_FAILURE() << function << " was called while the provider's mutex was held";
    }
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    State& s = state();
    s.calls.push_back(Call{function, serial ? serial : "", std::move(args), GetCurrentThreadId()});
    if (s.hooks.afterCall) {
        Call call = s.calls.back();
        s.hooks.afterCall(call);
    }
    auto it = s.forced.find(function);
    if (it != s.forced.end() && !it->second.empty()) {
        *result = it->second.front();
        it->second.pop_front();
        return true;
    }
    return false;
}

Token* findToken(const char* serial) {
    if (!serial)
        return nullptr;
    auto it = state().tokens.find(serial);
    return it == state().tokens.end() ? nullptr : &it->second;
}

Token* connectedToken(const char* serial) {
    Token* t = findToken(serial);
    return (t && t->connected) ? t : nullptr;
}

TokenInfo defaultInfo(const std::string& serial) {
    TokenInfo info{};
    info.label = "FAKE-TOKEN";
    info.manufacturer = "Quorvik Labs";
    info.model = "Calyth fake";
    info.serialNumber = serial;
    info.hardwareVersion = "1.0";
    info.firmwareVersion = "2.1.0";
    info.maxPinLength = 63;
    info.minPinLength = 4;
    info.pinAttemptsLeft = 10;
    return info;
}

int digestLengthOf(int code) {
    switch (code) {
        case CALYTH_HASH_SHA1:
            return 20;
        case CALYTH_HASH_SHA256:
            return 32;
        case CALYTH_HASH_SHA384:
            return 48;
        case CALYTH_HASH_SHA512:
            return 64;
        default:
            return 0;
    }
}

std::vector<unsigned char> sha(int code, const std::vector<unsigned char>& data) {
    const wchar_t* alg = code == CALYTH_HASH_SHA1     ? BCRYPT_SHA1_ALGORITHM
                         : code == CALYTH_HASH_SHA256 ? BCRYPT_SHA256_ALGORITHM
                         : code == CALYTH_HASH_SHA384 ? BCRYPT_SHA384_ALGORITHM
                                                      : BCRYPT_SHA512_ALGORITHM;
    std::vector<unsigned char> out(digestLengthOf(code));
    BCRYPT_ALG_HANDLE h = nullptr;
    if (BCryptOpenAlgorithmProvider(&h, alg, nullptr, 0) == 0) {
        BCryptHash(h, nullptr, 0, const_cast<unsigned char*>(data.data()), static_cast<ULONG>(data.size()),
                   out.data(), static_cast<ULONG>(out.size()));
        BCryptCloseAlgorithmProvider(h, 0);
    }
    return out;
}

int signatureLengthOf(const CalythKeyPair& kp) {
    switch (kp.keySizeCode) {
        case CALYTH_KEY_EC_P256:
            return 64;
        case CALYTH_KEY_EC_P384:
            return 96;
        case CALYTH_KEY_EC_P521:
            return 132;
        default:
            return kp.publicKeyLength > 0 && kp.publicKey[0] != 0x30 ? kp.publicKeyLength : 256;
    }
}

std::atomic<HandedOutObserver> g_handedOutObserver{nullptr};

unsigned char* mallocCopy(const char* function, const std::vector<unsigned char>& bytes) {
    auto* p = static_cast<unsigned char*>(std::malloc(bytes.empty() ? 1 : bytes.size()));
    if (!bytes.empty())
        std::memcpy(p, bytes.data(), bytes.size());
    if (HandedOutObserver observer = g_handedOutObserver.load())
        observer(function, p, bytes.size());
    return p;
}

void announceIv(const unsigned char* iv, int ivLength) {
    if (hooks().symmetricIv)
        hooks().symmetricIv(iv, ivLength);
}

}  // namespace

void reset() {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    State& s = state();
    s.order.clear();
    s.tokens.clear();
    s.calls.clear();
    s.forced.clear();
    s.certificateDetails.clear();
    s.files.clear();
    s.hooks = Hooks{};
    s.nextKeyNumber = 1;
    s.callsUnderProviderMutex.clear();
}

void setHandedOutObserver(HandedOutObserver observer) {
    g_handedOutObserver = observer;
}

Token& addToken(const std::string& serial) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    State& s = state();
    if (s.tokens.find(serial) == s.tokens.end()) {
        s.order.push_back(serial);
        Token t;
        t.info = defaultInfo(serial);
        s.tokens.emplace(serial, std::move(t));
    }
    return s.tokens[serial];
}

Token& token(const std::string& serial) {
    return addToken(serial);
}

void setConnected(const std::string& serial, bool connected) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    addToken(serial).connected = connected;
}

void setSingleSignOn(const std::string& serial, bool active) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    Token& t = addToken(serial);
    if (t.info.label.empty())
        t.info.label = "FAKE-TOKEN";
    t.info.userLoggedIn = active ? 1 : 0;
    t.info.ssoValid = active ? 1 : 0;
}

CalythKeyPair makeKeyPair(const std::string& keyIdHex, int32_t usage, int32_t keySizeCode,
                          const std::string& label) {
    CalythKeyPair kp{};
    std::vector<unsigned char> id = unhex(keyIdHex);
    std::memcpy(kp.keyId, id.data(), std::min<size_t>(id.size(), 16));
    kp.keyUsage = usage;
    kp.keySizeCode = keySizeCode;
    kp.tokenFlag = 1;
    int modulusBytes = 0;
    switch (keySizeCode) {
        case CALYTH_KEY_RSA_1024:
            modulusBytes = 128;
            break;
        case CALYTH_KEY_RSA_2048:
            modulusBytes = 256;
            break;
        case CALYTH_KEY_RSA_3072:
            modulusBytes = 384;
            break;
        case CALYTH_KEY_RSA_4096:
            modulusBytes = 512;
            break;
        default:
            break;
    }
    if (modulusBytes > 0) {
        for (int i = 0; i < modulusBytes; ++i)
            kp.publicKey[i] = static_cast<unsigned char>(i * 31 + 7);
        kp.publicKey[0] = 0xC1;
        kp.publicKey[modulusBytes - 1] |= 1;
        kp.publicKeyLength = modulusBytes;
    } else {
        int coordinate = keySizeCode == CALYTH_KEY_EC_P256 ? 32 : keySizeCode == CALYTH_KEY_EC_P384 ? 48 : 66;
        kp.publicKey[0] = 0x04;
        for (int i = 1; i <= 2 * coordinate; ++i)
            kp.publicKey[i] = static_cast<unsigned char>(i * 13 + 1);
        kp.publicKeyLength = 1 + 2 * coordinate;
    }
    for (int i = 0; i < 20; ++i)
        kp.objectId[i] = static_cast<unsigned char>(id.empty() ? i : id[i % id.size()] ^ 0x5A);
    kp.objectIdLength = 20;
    std::strncpy(kp.label, label.c_str(), sizeof(kp.label) - 1);
    return kp;
}

CalythKeyPair& addKeyPair(const std::string& serial, const CalythKeyPair& keyPair) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    Token& t = addToken(serial);
    t.keyPairs.push_back(keyPair);
    return t.keyPairs.back();
}

void registerCertificate(const std::vector<unsigned char>& der, const CertificateDetails& details) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    state().certificateDetails[der] = details;
}

void setFiles(const CalythFileList& files) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    state().files = files;
}

void failNext(const std::string& function, int result, int times) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    for (int i = 0; i < times; ++i)
        state().forced[function].push_back(result);
}

void setHostileRecordLengths(const std::string& serial, int32_t length) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    Token& t = addToken(serial);
    for (CalythKeyPair& kp : t.keyPairs) {
        kp.publicKeyLength = length;
        kp.objectIdLength = length;
        std::memset(kp.label, 'K', sizeof kp.label);
    }
    for (CalythCertificate& c : t.certificates) {
        c.derLength = length;
        c.objectIdLength = length;
        std::memset(c.label, 'C', sizeof c.label);
    }
    for (CalythSymmetricKey& k : t.aesKeys) {
        k.referenceLength = length;
        k.keyLength = length;
        std::memset(k.label, 'A', sizeof k.label);
    }
}

std::vector<std::string> callsUnderProviderMutex() {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    return state().callsUnderProviderMutex;
}

Hooks& hooks() {
    return state().hooks;
}

std::vector<Call> calls() {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    return state().calls;
}

std::vector<Call> callsTo(const std::string& function) {
    std::vector<Call> out;
    for (const Call& c : calls())
        if (c.function == function)
            out.push_back(c);
    return out;
}

std::vector<Call> callsFromThisThread() {
    std::vector<Call> out;
    for (const Call& c : calls())
        if (c.threadId == GetCurrentThreadId())
            out.push_back(c);
    return out;
}

size_t countCalls(const std::string& function) {
    return callsTo(function).size();
}

std::vector<std::string> callNames() {
    std::vector<std::string> out;
    for (const Call& c : calls())
        out.push_back(c.function);
    return out;
}

void clearCalls() {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    state().calls.clear();
}

std::vector<unsigned char> defaultSignature(int length) {
    std::vector<unsigned char> sig(length > 0 ? length : 0);
    for (int i = 0; i < length; ++i)
        sig[i] = static_cast<unsigned char>((i + 1) & 0xFF);
    return sig;
}

std::string hex(const unsigned char* bytes, size_t length) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(length * 2);
    for (size_t i = 0; i < length; ++i) {
        out.push_back(digits[bytes[i] >> 4]);
        out.push_back(digits[bytes[i] & 15]);
    }
    return out;
}

std::string hex(const std::vector<unsigned char>& bytes) {
    return hex(bytes.data(), bytes.size());
}

std::vector<unsigned char> unhex(const std::string& text) {
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return 0;
    };
    std::vector<unsigned char> out;
    for (size_t i = 0; i + 1 < text.size(); i += 2)
        out.push_back(static_cast<unsigned char>(nibble(text[i]) << 4 | nibble(text[i + 1])));
    return out;
}

}  // namespace fake

using namespace fake;

extern "C" {

int calyth_init(int mode, void* reserved, int logLevel) {
    int forced = 0;
    if (record("calyth_init", nullptr, {num(mode), reserved ? "ptr" : "null", num(logLevel)}, &forced))
        return forced;
    return 0;
}

std::vector<std::string> calyth_getConnectedDeviceList(bool refresh, void* ctx) {
    int forced = 0;
    record("calyth_getConnectedDeviceList", nullptr, {flag(refresh), ctx ? "ptr" : "null"}, &forced);
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    std::vector<std::string> out;
    for (const std::string& serial : state().order)
        if (state().tokens[serial].connected)
            out.push_back(serial);
    return out;
}

int calyth_initDevice(const char* serial, bool reset, void* /*ctx*/) {
    int forced = 0;
    if (record("calyth_initDevice", serial, {flag(reset)}, &forced))
        return forced;
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    Token* t = connectedToken(serial);
    return t ? t->initResult : 1;
}

TokenInfo calyth_getTokenInfo(const char* serial, void* /*ctx*/) {
    int forced = 0;
    record("calyth_getTokenInfo", serial, {}, &forced);
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    Token* t = connectedToken(serial);
    return t ? t->info : TokenInfo{};
}

int calyth_validatePassword(const char* serial, const char* pin, int userType, int* attemptsLeft,
                            void* /*ctx*/) {
    int forced = 0;
    if (record("calyth_validatePassword", serial, {text(pin), num(userType)}, &forced))
        return forced;
    if (hooks().validatePassword)
        return hooks().validatePassword(serial, pin, attemptsLeft);
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    Token* t = connectedToken(serial);
    if (!t)
        return 1;
    if (t->timeMismatch)
        return CALYTH_SYSTEM_TIME_MISMATCH;
    if (t->attemptsLeft <= 0) {
        if (attemptsLeft)
            *attemptsLeft = 0;
        return 2;
    }
    if (pin && t->pin == pin) {
        t->attemptsLeft = t->maxAttempts;
        return 0;
    }
    t->attemptsLeft -= 1;
    if (attemptsLeft)
        *attemptsLeft = t->attemptsLeft;
    return 1;
}

std::vector<CalythKeyPair>& calyth_getKeyPairList(const char* serial, void* /*ctx*/) {
    int forced = 0;
    record("calyth_getKeyPairList", serial, {}, &forced);
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    Token* t = connectedToken(serial);
    return t ? t->keyPairs : g_noKeyPairs;
}

std::vector<CalythSymmetricKey>& calyth_getAesKeyList(const char* serial, void* /*ctx*/) {
    int forced = 0;
    record("calyth_getAesKeyList", serial, {}, &forced);
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    Token* t = connectedToken(serial);
    return t ? t->aesKeys : g_noAesKeys;
}

std::vector<CalythCertificate>& calyth_getCertificateList(const char* serial, void* /*ctx*/) {
    int forced = 0;
    record("calyth_getCertificateList", serial, {}, &forced);
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    Token* t = connectedToken(serial);
    return t ? t->certificates : g_noCertificates;
}

int calyth_getCertificateDetails(const unsigned char* der, int derLength, CertificateDetails& details,
                                 void* /*ctx*/) {
    int forced = 0;
    if (record("calyth_getCertificateDetails", nullptr, {bytesArg(der, derLength), num(derLength)}, &forced))
        return forced;
    if (!der || derLength <= 0)
        return 1;
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    auto it = state().certificateDetails.find(std::vector<unsigned char>(der, der + derLength));
    if (it == state().certificateDetails.end())
        return 1;
    details = it->second;
    return 0;
}

int calyth_generateKeyPair(const char* serial, const char* pin, CalythKeyPair* keyPair, void* /*ctx*/) {
    int forced = 0;
    std::vector<std::string> args{text(pin)};
    if (keyPair) {
        args.push_back(num(keyPair->keySizeCode));
        args.push_back(num(keyPair->keyUsage));
        args.push_back(fieldText(keyPair->label));
    }
    if (record("calyth_generateKeyPair", serial, args, &forced))
        return forced;
    if (hooks().generateKeyPair)
        return hooks().generateKeyPair(serial, pin, keyPair);
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    Token* t = connectedToken(serial);
    if (!t || !keyPair)
        return 1;
    char idHex[33];
    std::snprintf(idHex, sizeof idHex, "%08X%08X%08X%08X", 0x6E6E0000u, 0u, 0u,
                  static_cast<unsigned>(state().nextKeyNumber++));
    int code = keyPair->keySizeCode == 0 ? CALYTH_KEY_RSA_2048 : keyPair->keySizeCode;
    int usage = keyPair->keyUsage == 0 ? CALYTH_USAGE_BOTH : keyPair->keyUsage;
    CalythKeyPair made = makeKeyPair(idHex, usage, code, keyPair->label);
    t->keyPairs.push_back(made);
    *keyPair = made;
    return 0;
}

int calyth_deleteKeyPair(const char* serial, const unsigned char* keyId, const char* pin,
                         bool deleteCertificates, void* /*ctx*/) {
    int forced = 0;
    if (record("calyth_deleteKeyPair", serial, {bytesArg(keyId, 16), text(pin), flag(deleteCertificates)},
               &forced))
        return forced;
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    Token* t = connectedToken(serial);
    if (!t || !keyId)
        return 1;
    auto it = std::find_if(t->keyPairs.begin(), t->keyPairs.end(),
                           [&](const CalythKeyPair& kp) { return std::memcmp(kp.keyId, keyId, 16) == 0; });
    if (it == t->keyPairs.end())
        return 1;
    t->keyPairs.erase(it);
    return 0;
}

int calyth_updateKeyPairDetails(const char* serial, const unsigned char* keyId, const char* pin,
                                const char* label, const unsigned char* objectId, int objectIdLength,
                                void* /*ctx*/) {
    int forced = 0;
    if (record("calyth_updateKeyPairDetails", serial,
               {bytesArg(keyId, 16), text(pin), text(label), bytesArg(objectId, objectIdLength),
                num(objectIdLength)},
               &forced))
        return forced;
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    Token* t = connectedToken(serial);
    if (!t || !keyId)
        return 1;
    for (CalythKeyPair& kp : t->keyPairs) {
        if (std::memcmp(kp.keyId, keyId, 16) == 0) {
            if (label)
                std::strncpy(kp.label, label, sizeof(kp.label) - 1);
            return 0;
        }
    }
    return 1;
}

int calyth_importCertificate(const char* serial, const char* pin, CalythCertificate* certificate,
                             void* /*ctx*/) {
    int forced = 0;
    std::vector<std::string> args{text(pin)};
    if (certificate) {
        args.push_back(
            bytesArg(certificate->der, boundedDeviceLength(certificate->derLength, sizeof certificate->der)));
        args.push_back(fieldText(certificate->label));
    }
    if (record("calyth_importCertificate", serial, args, &forced))
        return forced;
    if (hooks().importCertificate)
        return hooks().importCertificate(serial, pin, certificate);
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    Token* t = connectedToken(serial);
    if (!t || !certificate)
        return 1;
    t->certificates.push_back(*certificate);
    return 0;
}

CalythFileList calyth_getFilesWithExtensionsAndConvertDER(const std::string& folder,
                                                          const std::vector<std::string>& extensions,
                                                          void* /*ctx*/) {
    int forced = 0;
    std::string joined;
    for (const std::string& e : extensions)
        joined += (joined.empty() ? "" : ",") + e;
    record("calyth_getFilesWithExtensionsAndConvertDER", nullptr, {folder, joined}, &forced);
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    return state().files;
}

int calyth_importAesKey(const char* serial, const char* pin, CalythSymmetricKey* key, void* /*ctx*/) {
    int forced = 0;
    std::vector<std::string> args{text(pin)};
    if (key) {
        args.push_back(bytesArg(key->keyBytes, boundedDeviceLength(key->keyLength, sizeof key->keyBytes)));
        args.push_back(num(key->keyLength));
        args.push_back(num(key->type));
    }
    if (record("calyth_importAesKey", serial, args, &forced))
        return forced;
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    Token* t = connectedToken(serial);
    if (!t || !key)
        return 1;
    int n = state().nextKeyNumber++;
    for (int i = 0; i < 16; ++i)
        key->keyId[i] = static_cast<unsigned char>(0xA0 + i);
    key->keyId[15] = static_cast<unsigned char>(n);
    std::memcpy(key->reference, key->keyId, 16);
    key->referenceLength = 16;
    std::snprintf(key->label, sizeof key->label, "AES-%d", n);
    key->keyUsage = CALYTH_USAGE_EXCHANGE;
    key->tokenFlag = 1;
    t->aesKeys.push_back(*key);
    return 0;
}

int calyth_initHash(const char* serial, int hashCode, void** hashHandle, void* /*ctx*/) {
    int forced = 0;
    if (record("calyth_initHash", serial, {num(hashCode)}, &forced))
        return forced;
    if (digestLengthOf(hashCode) == 0 || !hashHandle)
        return 1;
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    auto h = std::make_unique<HashState>();
    h->code = hashCode;
    *hashHandle = h.get();
    state().hashes.push_back(std::move(h));
    return 0;
}

int calyth_updateHash(void* hashHandle, const unsigned char* data, int length, void* /*ctx*/) {
    int forced = 0;
    if (record("calyth_updateHash", nullptr,
               {hashHandle ? "ptr" : "null", bytesArg(data, length), num(length)}, &forced))
        return forced;
    if (!hashHandle || (length > 0 && !data))
        return 1;
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    auto* h = static_cast<HashState*>(hashHandle);
    if (length > 0)
        h->data.insert(h->data.end(), data, data + length);
    return 0;
}

int calyth_finalHash(void* hashHandle, unsigned char* digest, int* length, void* /*ctx*/) {
    int forced = 0;
    if (record("calyth_finalHash", nullptr, {hashHandle ? "ptr" : "null", length ? num(*length) : "null"},
               &forced))
        return forced;
    if (!hashHandle || !digest || !length)
        return 1;
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    auto* h = static_cast<HashState*>(hashHandle);
    std::vector<unsigned char> d = sha(h->code, h->data);
    if (*length < static_cast<int>(d.size()))
        return 1;
    std::memcpy(digest, d.data(), d.size());
    *length = static_cast<int>(d.size());
    if (hooks().finalHash)
        return hooks().finalHash(digest, length);
    return 0;
}

int calyth_signHash(const char* serial, const unsigned char* keyId, const char* pin,
                    const unsigned char* digest, int digestLength, unsigned char* signature,
                    int* signatureLength, bool tokenFlag, void* /*ctx*/, bool usePss) {
    int forced = 0;
    if (record("calyth_signHash", serial,
               {bytesArg(keyId, 16), text(pin), bytesArg(digest, digestLength), num(digestLength),
                signatureLength ? num(*signatureLength) : "null", flag(tokenFlag), flag(usePss)},
               &forced))
        return forced;
    if (hooks().signHash)
        return hooks().signHash(serial, keyId, pin, digest, digestLength, signature, signatureLength,
                                tokenFlag, usePss);
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    Token* t = connectedToken(serial);
    if (!t || !keyId || !signature || !signatureLength)
        return 1;
    for (const CalythKeyPair& kp : t->keyPairs) {
        if (std::memcmp(kp.keyId, keyId, 16) != 0)
            continue;
        int needed = signatureLengthOf(kp);
        if (*signatureLength < needed)
            return 1;
        std::vector<unsigned char> sig = defaultSignature(needed);
        std::memcpy(signature, sig.data(), sig.size());
        *signatureLength = needed;
        return 0;
    }
    return 1;
}

int calyth_verifySignatureHash(unsigned int keySizeCode, const char* serial, const unsigned char* digest,
                               int digestLength, const unsigned char* publicKey, int publicKeyLength,
                               const unsigned char* signature, int signatureLength, void* /*ctx*/,
                               bool usePss) {
    int forced = 0;
    if (record("calyth_verifySignatureHash", serial,
               {num(keySizeCode), bytesArg(digest, digestLength), num(digestLength),
                bytesArg(publicKey, publicKeyLength), num(publicKeyLength),
                bytesArg(signature, signatureLength), num(signatureLength), flag(usePss)},
               &forced))
        return forced;
    if (hooks().verifySignatureHash)
        return hooks().verifySignatureHash(keySizeCode, digest, digestLength, publicKey, publicKeyLength,
                                           signature, signatureLength, usePss);
    // Accepts exactly the signatures the default calyth_signHash makes.
    if (!signature || signatureLength <= 0)
        return 1;
    return std::vector<unsigned char>(signature, signature + signatureLength) ==
                   defaultSignature(signatureLength)
               ? 0
               : 1;
}

int calyth_encrypt(EncryptionType type, PaddingMode padding, const unsigned char* data, int dataLength,
                   unsigned char* output, int* outputLength, const unsigned char* publicKeyDer,
                   int publicKeyDerLength, void* /*ctx*/) {
    int forced = 0;
    if (record("calyth_encrypt", nullptr,
               {num(type), num(padding), bytesArg(data, dataLength), num(dataLength),
                outputLength ? num(*outputLength) : "null", bytesArg(publicKeyDer, publicKeyDerLength),
                num(publicKeyDerLength)},
               &forced))
        return forced;
    if (hooks().encrypt)
        return hooks().encrypt(type, padding, data, dataLength, output, outputLength, publicKeyDer,
                               publicKeyDerLength);
    if (!data || !output || !outputLength)
        return 1;
    for (int i = 0; i < dataLength; ++i)
        output[i] = data[i] ^ kRsaFakeMask;
    *outputLength = dataLength;
    return 0;
}

int calyth_decrypt(const char* serial, const unsigned char* keyId, const char* pin, const unsigned char* data,
                   int dataLength, unsigned char** output, int* outputLength, bool tokenFlag, void* /*ctx*/) {
    int forced = 0;
    if (record("calyth_decrypt", serial,
               {bytesArg(keyId, 16), text(pin), bytesArg(data, dataLength), num(dataLength), flag(tokenFlag)},
               &forced))
        return forced;
    if (hooks().decrypt)
        return hooks().decrypt(serial, keyId, pin, data, dataLength, output, outputLength, tokenFlag);
    if (!data || !output || !outputLength || dataLength <= 0)
        return 1;
    std::vector<unsigned char> plain(data, data + dataLength);
    for (unsigned char& b : plain)
        b ^= kRsaFakeMask;
    *output = mallocCopy("calyth_decrypt", plain);
    *outputLength = dataLength;
    return 0;
}

int calyth_encrypt_aes(const char* serial, EncryptionType type, const unsigned char* key, int keyLength,
                       const unsigned char* data, int dataLength, unsigned char** output, int* outputLength,
                       bool tokenFlag, const unsigned char* iv, int ivLength, const unsigned char* aad,
                       int aadLength, void* /*ctx*/) {
    int forced = 0;
    if (record("calyth_encrypt_aes", serial,
               {num(type), bytesArg(key, keyLength), num(keyLength), bytesArg(data, dataLength),
                num(dataLength), flag(tokenFlag), bytesArg(iv, ivLength), num(ivLength),
                bytesArg(aad, aadLength), num(aadLength)},
               &forced))
        return forced;
    announceIv(iv, ivLength);
    if (hooks().encryptAes)
        return hooks().encryptAes(serial, type, key, keyLength, data, dataLength, output, outputLength);
    if (!key || keyLength <= 0 || !output || !outputLength || (dataLength > 0 && !data))
        return 1;
    std::vector<unsigned char> out(data, data + dataLength);
    for (size_t i = 0; i < out.size(); ++i)
        out[i] ^= key[i % keyLength];
    *output = mallocCopy("calyth_encrypt_aes", out);
    *outputLength = dataLength;
    return 0;
}

int calyth_decrypt_aes(const char* serial, const unsigned char* keyReference, int keyReferenceLength,
                       const unsigned char* data, int dataLength, unsigned char** output, int* outputLength,
                       bool tokenFlag, const unsigned char* iv, int ivLength, void* /*ctx*/) {
    int forced = 0;
    if (record(
            "calyth_decrypt_aes", serial,
            {bytesArg(keyReference, keyReferenceLength), num(keyReferenceLength), bytesArg(data, dataLength),
             num(dataLength), flag(tokenFlag), bytesArg(iv, ivLength), num(ivLength)},
            &forced))
        return forced;
    if (hooks().decryptAes)
        return hooks().decryptAes(serial, keyReference, keyReferenceLength, data, dataLength, output,
                                  outputLength);
    // "Unwrapping" drops the 8-byte integrity block in front.
    if (!data || dataLength < 16 || !output || !outputLength)
        return 1;
    *output = mallocCopy("calyth_decrypt_aes", std::vector<unsigned char>(data + 8, data + dataLength));
    *outputLength = dataLength - 8;
    return 0;
}

int calyth_decryptSymetric(const char* serial, const unsigned char* data, int dataLength,
                           unsigned char* output, int* outputLength, const unsigned char* iv, int ivLength,
                           const unsigned char* key, int keyLength, void* /*ctx*/) {
    int forced = 0;
    if (record("calyth_decryptSymetric", serial,
               {bytesArg(data, dataLength), num(dataLength), outputLength ? num(*outputLength) : "null",
                bytesArg(iv, ivLength), num(ivLength), bytesArg(key, keyLength), num(keyLength)},
               &forced))
        return forced;
    announceIv(iv, ivLength);
    if (hooks().decryptSymetric)
        return hooks().decryptSymetric(serial, data, dataLength, output, outputLength, key, keyLength);
    if (!key || keyLength <= 0 || !output || !outputLength || *outputLength < dataLength)
        return 1;
    for (int i = 0; i < dataLength; ++i)
        output[i] = data[i] ^ key[i % keyLength];
    *outputLength = dataLength;
    return 0;
}

int calyth_ecdhDerive(const char* serial, const unsigned char* keyId, const char* pin,
                      const unsigned char* peerPoint, int peerPointLength, unsigned char** secret,
                      int* secretLength, void* /*ctx*/) {
    int forced = 0;
    if (record("calyth_ecdhDerive", serial,
               {bytesArg(keyId, 16), text(pin), bytesArg(peerPoint, peerPointLength), num(peerPointLength)},
               &forced))
        return forced;
    if (hooks().ecdhDerive)
        return hooks().ecdhDerive(serial, peerPoint, peerPointLength, secret, secretLength);
    // The "shared secret" is the peer's X coordinate.
    if (!peerPoint || peerPointLength < 3 || peerPoint[0] != 0x04 || !secret || !secretLength)
        return 1;
    int coordinate = (peerPointLength - 1) / 2;
    *secret = mallocCopy("calyth_ecdhDerive",
                         std::vector<unsigned char>(peerPoint + 1, peerPoint + 1 + coordinate));
    *secretLength = coordinate;
    return 0;
}

int calyth_generateRamdomNumber(const char* serial, int length, unsigned char* output, bool useSoftware,
                                void* /*ctx*/) {
    int forced = 0;
    if (record("calyth_generateRamdomNumber", serial, {num(length), flag(useSoftware)}, &forced))
        return forced;
    if (hooks().random)
        return hooks().random(serial, length, output, useSoftware);
    if (!output || length <= 0)
        return 1;
    // Software bytes count up from 0x10, token bytes from 0x80, so a test can tell the sources apart.
    for (int i = 0; i < length; ++i)
        output[i] = static_cast<unsigned char>((useSoftware ? 0x10 : 0x80) + i);
    return 0;
}

}  // extern "C"
