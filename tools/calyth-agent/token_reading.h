// What the certificate agent reads of the connected tokens, through the device library and without
// a PIN: each token's label, key pairs and certificates.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "device_functions.h"

namespace agent {

struct TokenContents {
    std::string serial;
    std::string label;      // the token's label, "" when it answered none
    bool readable = false;  // initialised and answered; an unreadable token's entries stay as they are
    std::vector<CalythKeyPair> keyPairs;
    std::vector<CalythCertificate> certificates;
};

// The device library as one process uses it: calyth_init before the first list and before each
// calyth_initDevice, each serial initialised once while it stays connected (a token plugged in
// again is initialised again).
struct DeviceSession {
    const tokenview::DeviceFunctions* library = nullptr;
    std::set<std::string> initialized;
};

// How long to wait before asking again for a token that one device list left out.
constexpr unsigned kAbsenceRecheckMilliseconds = 250;

// The serials of the connected tokens. A serial of `expected` that the list lacks is looked for
// once more after kAbsenceRecheckMilliseconds: a token counts as removed only when two lists
// agree, so that one list that misses a plugged token does not take its certificates away.
std::vector<std::string> connectedTokens(DeviceSession* session, const std::set<std::string>& expected);

std::vector<TokenContents> readTokens(DeviceSession* session, const std::vector<std::string>& serials);

// Equal for two readings when nothing the agent puts into the store changed between them.
std::string fingerprint(const std::vector<TokenContents>& tokens);

}  // namespace agent
