// Reading a token file back: the checksum line apart, then the records. Neither Windows nor the
// cryptographic library is needed here, so that the reader also builds natively for fuzzing.
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <utility>

#include "status.h"
#include "token_model.h"

namespace softtoken {
namespace {

bool isHex(const std::string& text) {
    if (text.size() % 2 != 0)
        return false;
    for (char c : text)
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            return false;
    return true;
}

bool bytesField(const std::string& text, Bytes& out) {
    if (!isHex(text))
        return false;
    out = hexToBytes(text);
    return true;
}

bool textField(const std::string& text, std::string& out) {
    Bytes bytes;
    if (!bytesField(text, bytes))
        return false;
    out.assign(bytes.begin(), bytes.end());
    return true;
}

bool idField(const std::string& text, KeyId& out) {
    Bytes bytes;
    if (!bytesField(text, bytes) || bytes.size() != out.size())
        return false;
    std::memcpy(out.data(), bytes.data(), out.size());
    return true;
}

bool intField(const std::string& text, int32_t& out) {
    if (text.empty() || text.size() > 11)
        return false;
    char* end = nullptr;
    long value = std::strtol(text.c_str(), &end, 10);
    if (*end != '\0')
        return false;
    out = static_cast<int32_t>(value);
    return true;
}

std::vector<std::string> fields(const std::string& text) {
    std::vector<std::string> out;
    size_t start = 0;
    for (;;) {
        size_t comma = text.find(',', start);
        out.push_back(text.substr(start, comma - start));
        if (comma == std::string::npos)
            return out;
        start = comma + 1;
    }
}

bool parseKey(const std::vector<std::string>& f, KeyRecord& key) {
    int32_t flag = 0;
    if (!(f.size() == 9 && intField(f[0], key.handle) && idField(f[1], key.id) &&
          bytesField(f[2], key.objectId) && textField(f[3], key.label) && intField(f[4], key.usage) &&
          intField(f[5], key.sizeCode) && intField(f[6], flag) && bytesField(f[7], key.publicKey) &&
          bytesField(f[8], key.privateKey)))
        return false;
    key.tokenFlag = static_cast<unsigned char>(flag);
    return true;
}

bool parseAes(const std::vector<std::string>& f, AesRecord& key) {
    int32_t flag = 0;
    if (!(f.size() == 8 && intField(f[0], key.handle) && idField(f[1], key.id) &&
          bytesField(f[2], key.reference) && textField(f[3], key.label) && intField(f[4], key.usage) &&
          intField(f[5], key.type) && intField(f[6], flag) && bytesField(f[7], key.key)))
        return false;
    key.tokenFlag = static_cast<unsigned char>(flag);
    return true;
}

bool parseCertificate(const std::vector<std::string>& f, CertificateRecord& certificate) {
    return f.size() == 5 && intField(f[0], certificate.handle) && idField(f[1], certificate.keyId) &&
           bytesField(f[2], certificate.objectId) && textField(f[3], certificate.label) &&
           bytesField(f[4], certificate.der);
}

bool parseFault(const std::vector<std::string>& f, Fault& fault) {
    if (!(f.size() == 3 && !f[0].empty() && intField(f[1], fault.count) && intField(f[2], fault.code)))
        return false;
    fault.function = f[0];
    return true;
}

bool parsePin(const std::vector<std::string>& f, PinRecord& pin) {
    return f.size() == 3 && intField(f[0], pin.iterations) && bytesField(f[1], pin.salt) &&
           bytesField(f[2], pin.hash);
}

bool parseSso(const std::string& text, SsoState& state) {
    if (text == "off")
        state = SsoState::Off;
    else if (text == "on")
        state = SsoState::On;
    else if (text == "expired")
        state = SsoState::Expired;
    else
        return false;
    return true;
}

}  // namespace

bool isValidSerial(const std::string& serial) {
    if (serial.empty() || serial.size() > 64 || serial[0] == '.')
        return false;
    for (char c : serial)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.')
            return false;
    return true;
}

bool splitTokenFile(const std::string& text, std::string* body, std::string* checksum) {
    size_t endAt = text.rfind("end=");
    if (endAt == std::string::npos || (endAt > 0 && text[endAt - 1] != '\n'))
        return false;
    body->assign(text, 0, endAt);
    checksum->assign(text, endAt + 4, std::string::npos);
    return true;
}

int parseTokenBody(const std::string& body, TokenData& token) {
    std::istringstream in(body);
    std::string line;
    if (!std::getline(in, line) || line != kTokenFileMagic)
        return kCorruptToken;
    TokenData t;
    t.firmware.clear();
    bool haveSerial = false;
    while (std::getline(in, line)) {
        size_t equals = line.find('=');
        if (equals == std::string::npos)
            return kCorruptToken;
        std::string name = line.substr(0, equals);
        std::string value = line.substr(equals + 1);
        int32_t number = 0;
        bool ok = true;
        if (name == "serial") {
            t.serial = value;
            ok = haveSerial = isValidSerial(value);
        } else if (name == "label") {
            ok = textField(value, t.label);
        } else if (name == "pin") {
            ok = parsePin(fields(value), t.pin);
        } else if (name == "retry-limit") {
            ok = intField(value, t.retryLimit);
        } else if (name == "attempts-left") {
            ok = intField(value, t.attemptsLeft);
        } else if (name == "firmware") {
            ok = textField(value, t.firmware);
        } else if (name == "plugged") {
            ok = intField(value, number);
            t.plugged = number != 0;
        } else if (name == "sso") {
            ok = parseSso(value, t.sso);
        } else if (name == "next-handle") {
            ok = intField(value, t.nextHandle);
        } else if (name == "keypair") {
            t.keys.emplace_back();
            ok = parseKey(fields(value), t.keys.back());
        } else if (name == "aeskey") {
            t.aesKeys.emplace_back();
            ok = parseAes(fields(value), t.aesKeys.back());
        } else if (name == "certificate") {
            t.certificates.emplace_back();
            ok = parseCertificate(fields(value), t.certificates.back());
        } else if (name == "fault") {
            t.faults.emplace_back();
            ok = parseFault(fields(value), t.faults.back());
        }  // unknown names are left for newer versions
        if (!ok)
            return kCorruptToken;
    }
    if (!haveSerial)
        return kCorruptToken;
    token = std::move(t);
    return kOk;
}

}  // namespace softtoken
