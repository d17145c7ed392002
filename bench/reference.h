// libgcrypt signing alone, the floor every figure is measured against: the same code the soft
// token signs with, without the token's bookkeeping or the provider.
#pragma once

#include <memory>

#include "core/crypto.h"
#include "core/token_model.h"

namespace bench {

using KeyPtr = std::shared_ptr<softtoken::PrivateKey>;

KeyPtr freshKey(int32_t sizeCode);                     // a new libgcrypt key of that kind
KeyPtr parsedKey(const softtoken::KeyRecord& record);  // the token key itself, parsed
bool referenceSign(const softtoken::PrivateKey& key, const Bytes& digest);

// A 1 KB document and a SHA-256 digest (stand-ins: the values do not matter to the timing).
const Bytes& sampleDocument();
const Bytes& sampleDigest();

}  // namespace bench
