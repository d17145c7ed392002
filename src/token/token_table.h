// Process-wide state shared by both front-ends and the device monitor: the token table (per
// serial: initialised, PIN validated, the PIN), the container table, and token selection.
// One plain, non-recursive mutex guards both tables; every operation here takes it for one lookup
// or update only and never while calling the device library.
#pragma once

#include <mutex>
#include <set>
#include <string>
#include <vector>

std::mutex& providerMutex();

// Token table. An absent serial reads as: not initialised, not validated, empty PIN.
bool isDeviceInitialized(const std::string& serial);
void markDeviceInitialized(const std::string& serial);
bool isPinValidated(const std::string& serial);
std::string getValidatedPin(const std::string& serial);
// One locked lookup: pinValidated is set and the stored PIN is not empty.
bool hasValidatedPin(const std::string& serial);
void storeValidatedPin(const std::string& serial, const std::string& pin);
void clearValidatedPin(const std::string& serial);  // never creates an entry
void eraseDevice(const std::string& serial);
bool hasDeviceEntry(const std::string& serial);
// One locked sweep: erases (and logs "Device disconnected: <serial>") every entry not in `connected`.
void eraseDisconnectedDevices(const std::set<std::string>& connected);

// Container table: application container name -> resolved container (a key identifier in hex).
std::string resolveContainer(const std::string& name);
// True and the resolved name when `name` is a key of the table (exact match).
bool lookupResolvedContainer(const std::string& name, std::string* resolved);
void recordResolvedContainer(const std::string& name, const std::string& resolved);

// The token for a container name: the first connected token holding a key whose hex identifier
// equals the name ignoring case, else the first connected token; "" when none is connected.
std::string selectDeviceForContainer(const std::string& containerName);

// What counts as already initialised, and the failure line's prefix, differ between the front-ends:
// CryptoAPI retries a token whose initialisation failed earlier, CNG skips any token the table knows.
struct DeviceInitRule {
    bool skipAnyEntry;          // skip a serial with any table entry, not only an initialised one
    std::string failurePrefix;  // followed by "<serial> : <result>"
};
inline const DeviceInitRule kCspDeviceInit{false, "Init device failed for "};
inline const DeviceInitRule kKspDeviceInit{true, "KSP: Init device failed for "};

// Initialises (calyth_init, calyth_initDevice) every connected token not yet initialised in this
// process, logging failures; used by both front-ends when they open, each with its own rule.
void initializeConnectedDevices(const std::vector<std::string>& serials, void* deviceContext,
                                const DeviceInitRule& rule);

// The key identifiers of a token's key pairs (32 upper-case hex characters each, library order),
// each logged at debug level; "Acquire Context :: Key List is empty" when there are none.
std::vector<std::string> loadKeyIdentifiers(const std::string& serial, void* deviceContext);

// Empties both tables (test programs only).
void resetTokenTableForTests();
