#include "token/key_lookup.h"

#include <cstring>

#include "util/bounded_length.h"
#include "util/utils.h"

namespace {

constexpr int kKeyIdLength = 16;

char upper(char c) {
    return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}

bool sameText(const std::string& a, const std::string& b, bool ignoreCase) {
    if (a.size() != b.size())
        return false;
    if (!ignoreCase)
        return a == b;
    for (size_t i = 0; i < a.size(); ++i) {
        if (upper(a[i]) != upper(b[i]))
            return false;
    }
    return true;
}

}  // namespace

std::string keyIdHex(const unsigned char* keyId) {
    return Utils().bytesToHex(keyId, kKeyIdLength);
}

std::string keyIdHex(const CalythKeyPair& keyPair) {
    return keyIdHex(keyPair.keyId);
}

std::string keyLabel(const CalythKeyPair& keyPair) {
    return fieldText(keyPair.label);
}

bool keyPairNamed(const CalythKeyPair& keyPair, const std::string& name, KeyNameMatch match) {
    if (sameText(keyIdHex(keyPair), name, match.ignoreCase))
        return true;
    return match.orLabel && sameText(keyLabel(keyPair), name, match.ignoreCase);
}

const CalythKeyPair* findKeyPair(const std::vector<CalythKeyPair>& keyPairs, const std::string& name,
                                 KeyNameMatch match) {
    for (const CalythKeyPair& keyPair : keyPairs) {
        if (keyPairNamed(keyPair, name, match))
            return &keyPair;
    }
    return nullptr;
}

const CalythKeyPair* findKeyPairById(const std::vector<CalythKeyPair>& keyPairs, const unsigned char* keyId) {
    for (const CalythKeyPair& keyPair : keyPairs) {
        if (std::memcmp(keyPair.keyId, keyId, kKeyIdLength) == 0)
            return &keyPair;
    }
    return nullptr;
}

std::string deviceForKeyName(const std::string& name, KeyNameMatch match) {
    std::vector<std::string> serials = calyth_getConnectedDeviceList(false, nullptr);
    if (serials.empty())
        return std::string();
    if (name.empty())
        return serials.front();
    for (const std::string& serial : serials) {
        std::vector<CalythKeyPair> keyPairs = calyth_getKeyPairList(serial.c_str(), nullptr);
        if (findKeyPair(keyPairs, name, match) != nullptr)
            return serial;
    }
    return serials.front();
}
