#include "token/token_table.h"

#include <map>
#include <new>

#include "log/log.h"
#include "token/device_library.h"
#include "token/key_lookup.h"
#include "token/secret_text.h"

namespace {

struct TokenState {
    bool pinValidated = false;
    std::string pin;
    bool initialized = false;

    TokenState() = default;
    TokenState(const TokenState&) = delete;
    TokenState& operator=(const TokenState&) = delete;
    ~TokenState() { wipeText(&pin); }
};

struct Tables {
    std::map<std::string, TokenState> tokens;       // by serial, byte-wise order
    std::map<std::string, std::string> containers;  // application name -> key identifier
};

// The mutex and the tables are built in place and never destroyed: at process exit the monitor
// thread may still sweep the token table after the runtime has started running destructors.
std::mutex& mutexInstance() {
    alignas(std::mutex) static unsigned char storage[sizeof(std::mutex)];
    static std::mutex* instance = new (storage) std::mutex();
    return *instance;
}

Tables& tables() {
    alignas(Tables) static unsigned char storage[sizeof(Tables)];
    static Tables* instance = new (storage) Tables();
    return *instance;
}

}  // namespace

std::mutex& providerMutex() {
    return mutexInstance();
}

bool isDeviceInitialized(const std::string& serial) {
    std::lock_guard<std::mutex> lock(providerMutex());
    auto it = tables().tokens.find(serial);
    return it != tables().tokens.end() && it->second.initialized;
}

void markDeviceInitialized(const std::string& serial) {
    std::lock_guard<std::mutex> lock(providerMutex());
    tables().tokens[serial].initialized = true;
}

bool isPinValidated(const std::string& serial) {
    std::lock_guard<std::mutex> lock(providerMutex());
    auto it = tables().tokens.find(serial);
    return it != tables().tokens.end() && it->second.pinValidated;
}

std::string getValidatedPin(const std::string& serial) {
    std::lock_guard<std::mutex> lock(providerMutex());
    auto it = tables().tokens.find(serial);
    return it == tables().tokens.end() ? std::string() : it->second.pin;
}

bool hasValidatedPin(const std::string& serial) {
    std::lock_guard<std::mutex> lock(providerMutex());
    auto it = tables().tokens.find(serial);
    return it != tables().tokens.end() && it->second.pinValidated && !it->second.pin.empty();
}

void storeValidatedPin(const std::string& serial, const std::string& pin) {
    std::lock_guard<std::mutex> lock(providerMutex());
    TokenState& state = tables().tokens[serial];
    wipeText(&state.pin);
    state.pin = pin;
    state.pinValidated = true;
}

void clearValidatedPin(const std::string& serial) {
    std::lock_guard<std::mutex> lock(providerMutex());
    auto it = tables().tokens.find(serial);
    if (it == tables().tokens.end())
        return;
    it->second.pinValidated = false;
    wipeText(&it->second.pin);
}

void eraseDevice(const std::string& serial) {
    std::lock_guard<std::mutex> lock(providerMutex());
    tables().tokens.erase(serial);
}

bool hasDeviceEntry(const std::string& serial) {
    std::lock_guard<std::mutex> lock(providerMutex());
    return tables().tokens.count(serial) != 0;
}

void eraseDisconnectedDevices(const std::set<std::string>& connected) {
    std::lock_guard<std::mutex> lock(providerMutex());
    auto& tokens = tables().tokens;
    for (auto it = tokens.begin(); it != tokens.end();) {
        if (connected.count(it->first) == 0) {
            logDebug("Device disconnected: " + it->first);
            it = tokens.erase(it);
        } else {
            ++it;
        }
    }
}

std::string resolveContainer(const std::string& name) {
    std::string resolved;
    return lookupResolvedContainer(name, &resolved) ? resolved : name;
}

bool lookupResolvedContainer(const std::string& name, std::string* resolved) {
    std::lock_guard<std::mutex> lock(providerMutex());
    auto it = tables().containers.find(name);
    if (it == tables().containers.end())
        return false;
    if (resolved)
        *resolved = it->second;
    return true;
}

void recordResolvedContainer(const std::string& name, const std::string& resolved) {
    std::lock_guard<std::mutex> lock(providerMutex());
    tables().containers[name] = resolved;
}

std::string selectDeviceForContainer(const std::string& containerName) {
    return deviceForKeyName(containerName, kKeyIdIgnoringCase);
}

void initializeConnectedDevices(const std::vector<std::string>& serials, void* deviceContext,
                                const DeviceInitRule& rule) {
    for (const std::string& serial : serials) {
        if (rule.skipAnyEntry ? hasDeviceEntry(serial) : isDeviceInitialized(serial))
            continue;
        calyth_init(0, nullptr, 2);
        int result = calyth_initDevice(serial.c_str(), false, deviceContext);
        if (result == CALYTH_OK) {
            markDeviceInitialized(serial);
        } else {
            logError(rule.failurePrefix + serial + " : " + std::to_string(result));
        }
    }
}

std::vector<std::string> loadKeyIdentifiers(const std::string& serial, void* deviceContext) {
    std::vector<CalythKeyPair> keyPairs = calyth_getKeyPairList(serial.c_str(), deviceContext);
    std::vector<std::string> keyIds;
    if (keyPairs.empty()) {
        logDebug("Acquire Context :: Key List is empty");
        return keyIds;
    }
    keyIds.reserve(keyPairs.size());
    for (const CalythKeyPair& keyPair : keyPairs) {
        std::string id = keyIdHex(keyPair);
        logDebug(id);
        keyIds.push_back(id);
    }
    return keyIds;
}

void resetTokenTableForTests() {
    std::lock_guard<std::mutex> lock(providerMutex());
    tables().tokens.clear();
    tables().containers.clear();
}
