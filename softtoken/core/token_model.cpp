#include "token_model.h"

#include <gcrypt.h>

#include <cstring>
#include <sstream>

#include "crypto.h"
#include "status.h"
#include "util/utils.h"

namespace softtoken {
namespace {

std::string sha256Hex(const std::string& text) {
    ensureCryptoReady();
    unsigned char digest[32];
    gcry_md_hash_buffer(GCRY_MD_SHA256, digest, text.data(), text.size());
    return Utils().bytesToHex(digest, 32);
}

}  // namespace

std::string hexOf(const Bytes& bytes) {
    return Utils().bytesToHex(bytes.data(), static_cast<int>(bytes.size()));
}
std::string hexOf(const std::string& text) {
    return Utils().bytesToHex(reinterpret_cast<const unsigned char*>(text.data()),
                              static_cast<int>(text.size()));
}
std::string hexOf(const KeyId& id) {
    return Utils().bytesToHex(id.data(), static_cast<int>(id.size()));
}

const char* ssoName(SsoState state) {
    switch (state) {
        case SsoState::On:
            return "on";
        case SsoState::Expired:
            return "expired";
        default:
            return "off";
    }
}

const KeyRecord* TokenData::findKey(const unsigned char* id) const {
    if (!id)
        return nullptr;
    for (const KeyRecord& key : keys)
        if (std::memcmp(key.id.data(), id, key.id.size()) == 0)
            return &key;
    return nullptr;
}

KeyRecord* TokenData::findKey(const unsigned char* id) {
    return const_cast<KeyRecord*>(static_cast<const TokenData*>(this)->findKey(id));
}

std::string serializeToken(const TokenData& t) {
    std::ostringstream out;
    out << kTokenFileMagic << "\n";
    out << "serial=" << t.serial << "\n";
    out << "label=" << hexOf(t.label) << "\n";
    out << "pin=" << t.pin.iterations << "," << hexOf(t.pin.salt) << "," << hexOf(t.pin.hash) << "\n";
    out << "retry-limit=" << t.retryLimit << "\n";
    out << "attempts-left=" << t.attemptsLeft << "\n";
    out << "firmware=" << hexOf(t.firmware) << "\n";
    out << "plugged=" << (t.plugged ? 1 : 0) << "\n";
    out << "sso=" << ssoName(t.sso) << "\n";
    out << "next-handle=" << t.nextHandle << "\n";
    for (const KeyRecord& k : t.keys)
        out << "keypair=" << k.handle << "," << hexOf(k.id) << "," << hexOf(k.objectId) << ","
            << hexOf(k.label) << "," << k.usage << "," << k.sizeCode << "," << static_cast<int>(k.tokenFlag)
            << "," << hexOf(k.publicKey) << "," << hexOf(k.privateKey) << "\n";
    for (const AesRecord& k : t.aesKeys)
        out << "aeskey=" << k.handle << "," << hexOf(k.id) << "," << hexOf(k.reference) << ","
            << hexOf(k.label) << "," << k.usage << "," << k.type << "," << static_cast<int>(k.tokenFlag)
            << "," << hexOf(k.key) << "\n";
    for (const CertificateRecord& c : t.certificates)
        out << "certificate=" << c.handle << "," << hexOf(c.keyId) << "," << hexOf(c.objectId) << ","
            << hexOf(c.label) << "," << hexOf(c.der) << "\n";
    for (const Fault& f : t.faults)
        out << "fault=" << f.function << "," << f.count << "," << f.code << "\n";
    std::string body = out.str();
    return body + "end=" + sha256Hex(body) + "\n";
}

int parseToken(const std::string& text, TokenData& token) {
    std::string body;
    std::string checksum;
    if (!splitTokenFile(text, &body, &checksum))
        return kCorruptToken;
    // Any cut, even of the last line feed alone, tells a file that was not written to its end.
    if (checksum != sha256Hex(body) + "\n")
        return kCorruptToken;
    return parseTokenBody(body, token);
}

}  // namespace softtoken
