#include "pin.h"

#include <gcrypt.h>

#include <map>
#include <mutex>

#include "crypto.h"

namespace softtoken {
namespace {

constexpr int kIterations = 2000;

std::mutex cacheMutex;
std::map<std::string, std::string>& matchedPins() {
    static auto* pins = new std::map<std::string, std::string>();
    return *pins;
}

bool derive(const std::string& pin, const Bytes& salt, int iterations, Bytes& out) {
    ensureCryptoReady();
    out.assign(32, 0);
    return iterations > 0 && !salt.empty() &&
           gcry_kdf_derive(pin.data(), pin.size(), GCRY_KDF_PBKDF2, GCRY_MD_SHA256, salt.data(), salt.size(),
                           static_cast<unsigned long>(iterations), out.size(), out.data()) == 0;
}

}  // namespace

PinRecord makePinRecord(const std::string& pin) {
    PinRecord record;
    record.iterations = kIterations;
    record.salt = randomVector(16);
    derive(pin, record.salt, record.iterations, record.hash);
    return record;
}

bool pinMatches(const PinRecord& record, const std::string& pin) {
    std::string recordKey = hexOf(record.salt) + ":" + hexOf(record.hash);
    {
        std::lock_guard<std::mutex> guard(cacheMutex);
        auto found = matchedPins().find(recordKey);
        if (found != matchedPins().end() && found->second == pin)
            return true;
    }
    Bytes derived;
    if (!derive(pin, record.salt, record.iterations, derived) || derived.size() != record.hash.size())
        return false;
    unsigned char difference = 0;
    for (size_t i = 0; i < derived.size(); ++i)
        difference = static_cast<unsigned char>(difference | (derived[i] ^ record.hash[i]));
    if (difference != 0)
        return false;
    std::lock_guard<std::mutex> guard(cacheMutex);
    matchedPins()[recordKey] = pin;
    return true;
}

}  // namespace softtoken
