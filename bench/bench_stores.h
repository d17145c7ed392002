// The soft-token stores the benchmark runs on, made once and kept under the build folder: one
// folder per configuration, switched by pointing CALYTH_TOKEN_STORE at it.
//   k1    one token with one RSA-2048 key
//   k20   one token with 20 keys (RSA-2048, P-256, 18 copies of them under other ids)
//   k200  one token with 200 keys
//   t4    four tokens of 20 keys each
// Every token's first key is the RSA-2048 key, its second (when it has one) the P-256 key.
#pragma once

#include <string>
#include <vector>

#include "core/token_store.h"

namespace bench {

struct StoreLayout {
    const char* name;
    int tokens;
    int keysPerToken;
};
const std::vector<StoreLayout>& storeLayouts();

// Makes every store of storeLayouts() under `root` that is not there yet; false on failure.
bool prepareStores(const std::string& root);

// Points this process (and the device library in it) at one store.
void useStore(const std::string& root, const char* name);

// The serials of the current store, sorted, and the RSA (index 0) or P-256 (index 1) key of one.
std::vector<std::string> storeSerials();
bool benchKey(const std::string& serial, int index, softtoken::KeyRecord& out);

std::string keyIdText(const softtoken::KeyRecord& key);  // 32 upper-case hexadecimal digits

}  // namespace bench
