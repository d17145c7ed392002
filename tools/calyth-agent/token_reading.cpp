#include "token_reading.h"

#include <windows.h>

#include <algorithm>
#include <cstring>

#include "log/log.h"

namespace agent {
namespace {

bool listed(const std::vector<std::string>& serials, const std::string& serial) {
    return std::find(serials.begin(), serials.end(), serial) != serials.end();
}

std::vector<std::string> deviceList(DeviceSession* session) {
    session->library->init(0, nullptr, 2);
    return session->library->getConnectedDeviceList(false, nullptr);
}

bool ensureInitialized(DeviceSession* session, const std::string& serial) {
    if (session->initialized.count(serial) != 0)
        return true;
    session->library->init(0, nullptr, 2);
    int status = session->library->initDevice(serial.c_str(), false, nullptr);
    if (status != CALYTH_OK) {
        logError("calyth-agent: token " + serial + " does not initialise, device status " +
                 std::to_string(status));
        return false;
    }
    session->initialized.insert(serial);
    return true;
}

void appendField(std::string* out, const void* bytes, size_t length) {
    out->append(std::to_string(length)).append(":");
    out->append(static_cast<const char*>(bytes), length);
}

}  // namespace

std::vector<std::string> connectedTokens(DeviceSession* session, const std::set<std::string>& expected) {
    std::vector<std::string> serials = deviceList(session);
    bool missing = std::any_of(expected.begin(), expected.end(),
                               [&](const std::string& serial) { return !listed(serials, serial); });
    if (missing) {
        Sleep(kAbsenceRecheckMilliseconds);
        for (const std::string& serial : deviceList(session)) {
            if (!listed(serials, serial) && expected.count(serial) != 0)
                serials.push_back(serial);
        }
    }
    // A token that left is initialised again when it comes back.
    for (auto it = session->initialized.begin(); it != session->initialized.end();)
        it = listed(serials, *it) ? std::next(it) : session->initialized.erase(it);
    return serials;
}

std::vector<TokenContents> readTokens(DeviceSession* session, const std::vector<std::string>& serials) {
    std::vector<TokenContents> tokens;
    for (const std::string& serial : serials) {
        TokenContents token;
        token.serial = serial;
        if (ensureInitialized(session, serial)) {
            const tokenview::DeviceFunctions& library = *session->library;
            token.label = library.getTokenInfo(serial.c_str(), nullptr).label;
            // The library's lists stay its own: copies are taken before anything looks at them.
            token.keyPairs = library.getKeyPairList(serial.c_str(), nullptr);
            token.certificates = library.getCertificateList(serial.c_str(), nullptr);
            token.readable = true;
        }
        tokens.push_back(std::move(token));
    }
    return tokens;
}

std::string fingerprint(const std::vector<TokenContents>& tokens) {
    std::string out;
    for (const TokenContents& token : tokens) {
        appendField(&out, token.serial.data(), token.serial.size());
        appendField(&out, token.label.data(), token.label.size());
        out.push_back(token.readable ? 'r' : 'u');
        for (const CalythKeyPair& keyPair : token.keyPairs)
            appendField(&out, &keyPair, sizeof keyPair);
        for (const CalythCertificate& certificate : token.certificates)
            appendField(&out, &certificate, sizeof certificate);
    }
    return out;
}

}  // namespace agent
