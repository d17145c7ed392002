#include "bench_stores.h"

#include <windows.h>

#include "clients.h"
#include "core/crypto.h"
#include "core/pin.h"
#include "core/status.h"
#include "core/token_objects.h"

namespace bench {
namespace {

std::string serialFor(const StoreLayout& layout, int index) {
    return std::string("BENCH-") + layout.name + "-" + std::to_string(index + 1);
}

// Fills the token up to `count` keys with copies of its first keys under fresh ids, in one write.
int addCopies(const std::string& serial, int count) {
    return softtoken::updateToken(serial, [&](softtoken::TokenData& token, bool& changed) {
        size_t originals = token.keys.size();
        for (int i = static_cast<int>(originals); i < count; ++i) {
            softtoken::KeyRecord copy = token.keys[i % originals];
            softtoken::randomBytes(copy.id.data(), copy.id.size());
            copy.objectId = softtoken::randomVector(copy.objectId.empty() ? 16 : copy.objectId.size());
            copy.label = "copy-" + std::to_string(i);
            copy.handle = token.nextHandle++;
            token.keys.push_back(copy);
            changed = true;
        }
        return softtoken::kOk;
    });
}

bool makeToken(const std::string& serial, int keys) {
    softtoken::TokenData token;
    token.serial = serial;
    token.label = "Benchmark";
    token.pin = softtoken::makePinRecord(kPin);
    softtoken::KeyRecord made;
    return softtoken::createToken(token, true) == softtoken::kOk &&
           softtoken::addGeneratedKey(serial, CALYTH_KEY_RSA_2048, CALYTH_USAGE_BOTH, "rsa", false, made) ==
               softtoken::kOk &&
           (keys < 2 || softtoken::addGeneratedKey(serial, CALYTH_KEY_EC_P256, CALYTH_USAGE_BOTH, "p256",
                                                   false, made) == softtoken::kOk) &&
           (keys <= 2 || addCopies(serial, keys) == softtoken::kOk);
}

}  // namespace

const std::vector<StoreLayout>& storeLayouts() {
    static const std::vector<StoreLayout> layouts = {
        {"k1", 1, 1}, {"k20", 1, 20}, {"k200", 1, 200}, {"t4", 4, 20}};
    return layouts;
}

bool prepareStores(const std::string& root) {
    softtoken::ensureCryptoReady();
    CreateDirectoryA(root.c_str(), nullptr);
    for (const StoreLayout& layout : storeLayouts()) {
        useStore(root, layout.name);
        CreateDirectoryA((root + "\\" + layout.name).c_str(), nullptr);
        if (static_cast<int>(storeSerials().size()) == layout.tokens)
            continue;
        for (int i = 0; i < layout.tokens; ++i)
            if (!makeToken(serialFor(layout, i), layout.keysPerToken))
                return false;
    }
    return true;
}

void useStore(const std::string& root, const char* name) {
    SetEnvironmentVariableA("CALYTH_TOKEN_STORE", (root + "\\" + name).c_str());
}

std::vector<std::string> storeSerials() {
    return softtoken::listTokenSerials();
}

bool benchKey(const std::string& serial, int index, softtoken::KeyRecord& out) {
    softtoken::TokenRef token;
    if (softtoken::loadToken(serial, token) != softtoken::kOk ||
        static_cast<int>(token->data.keys.size()) <= index)
        return false;
    out = token->data.keys[index];
    return true;
}

std::string keyIdText(const softtoken::KeyRecord& key) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (unsigned char byte : key.id) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

}  // namespace bench
