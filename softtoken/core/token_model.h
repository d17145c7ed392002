// What one soft token holds, and its file form.
//
// The file is text, one record per line, every free text and byte string in hexadecimal so that no
// value needs escaping; the last line carries a SHA-256 of everything before it, so a truncated or
// damaged file is recognised as such instead of being half read.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "util/encoding.h"

namespace softtoken {

using KeyId = std::array<unsigned char, 16>;

enum class SsoState { Off, On, Expired };

struct KeyRecord {
    int32_t handle = 0;
    KeyId id{};
    Bytes objectId;
    std::string label;
    int32_t usage = 3;
    int32_t sizeCode = 0;
    unsigned char tokenFlag = 1;
    Bytes publicKey;   // as the key pair record carries it: raw modulus, EC point or DER
    Bytes privateKey;  // canonical S-expression
};

struct AesRecord {
    int32_t handle = 0;
    KeyId id{};
    Bytes reference;
    std::string label;
    int32_t usage = 3;
    int32_t type = 0;
    unsigned char tokenFlag = 1;
    Bytes key;
};

struct CertificateRecord {
    int32_t handle = 0;
    KeyId keyId{};  // zero when no key pair matched at import
    Bytes objectId;
    std::string label;
    Bytes der;
};

// The next `count` calls of `function` (name without the calyth_ prefix) answer `code`.
struct Fault {
    std::string function;
    int32_t count = 0;
    int32_t code = 0;
};

struct PinRecord {
    int32_t iterations = 0;
    Bytes salt;
    Bytes hash;
};

struct TokenData {
    std::string serial;
    std::string label;
    PinRecord pin;
    int32_t retryLimit = 10;
    int32_t attemptsLeft = 10;
    std::string firmware = "2.1.0";
    bool plugged = true;
    SsoState sso = SsoState::Off;
    int32_t nextHandle = 1;
    std::vector<KeyRecord> keys;
    std::vector<AesRecord> aesKeys;
    std::vector<CertificateRecord> certificates;
    std::vector<Fault> faults;

    const KeyRecord* findKey(const unsigned char* id) const;
    KeyRecord* findKey(const unsigned char* id);
    bool pinLocked() const { return attemptsLeft <= 0; }
};

constexpr char kTokenFileMagic[] = "calyth-soft-token 1";

std::string serializeToken(const TokenData& token);
// kOk, or kCorruptToken when the text is not a complete token file.
int parseToken(const std::string& text, TokenData& token);

// The parts of parseToken that need no cryptography. splitTokenFile: the text before the last
// "end=" line and what follows "end=" (the checksum with its line feed); false without one.
// parseTokenBody: the records of a body whose checksum has been checked; kOk or kCorruptToken.
bool splitTokenFile(const std::string& text, std::string* body, std::string* checksum);
int parseTokenBody(const std::string& body, TokenData& token);

// Serials become file names: letters, digits, '-', '_' and '.', 1 to 64 characters, not starting with '.'.
bool isValidSerial(const std::string& serial);

std::string hexOf(const Bytes& bytes);
std::string hexOf(const std::string& text);
std::string hexOf(const KeyId& id);
const char* ssoName(SsoState state);

}  // namespace softtoken
