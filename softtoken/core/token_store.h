// The token store: one file "<serial>.token" per token under the store root, beside a lock file
// "<serial>.lock".
//
// - Root: the environment variable CALYTH_TOKEN_STORE, else "Calyth\SoftToken" under the user's
//   local application data folder. Read on every call, so a process may switch stores.
// - Readers keep a parsed, immutable copy per token and read the file again only when it changed:
//   the lock file carries a change counter that every writer bumps, and the file's size and time
//   are compared as well (a file replaced by hand is noticed too).
// - The list of serials is kept while the store folder's last-write time stays the same (and is
//   older than two seconds), since listing a folder costs far more than reading its time.
// - Writers hold an in-process mutex and an exclusive LockFileEx lock on the lock file, read the
//   newest file, change it, write a temporary file and move it over the old one. Readers that must
//   read the file hold a shared lock, so they never see a half-written token.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "crypto.h"
#include "token_model.h"

namespace softtoken {

std::string storeRoot();
std::string tokenFilePath(const std::string& root, const std::string& serial);

// A parsed token file. Shared between threads; never changed after creation.
struct LoadedToken {
    TokenData data;
    std::map<KeyId, std::shared_ptr<PrivateKey>> privateKeys;
    std::shared_ptr<PrivateKey> privateKey(const unsigned char* id) const;
};
using TokenRef = std::shared_ptr<const LoadedToken>;

// kOk, kNoToken (no file, or the file names another serial) or kCorruptToken.
int loadToken(const std::string& serial, TokenRef& out);

// Runs `change` on the newest state of the token under the store lock; when it sets `changed`
// the token is written back (whatever `change` returns). Returns the result of `change`, or
// kNoToken / kCorruptToken / kStoreError. `after` (optional) receives the state after the change.
using TokenChange = std::function<int(TokenData& token, bool& changed)>;
int updateToken(const std::string& serial, const TokenChange& change, TokenRef* after = nullptr);

// Writes a new token; kAlreadyExists unless `replace`.
int createToken(const TokenData& token, bool replace);
int deleteToken(const std::string& serial);

// Serials of every token file of the store, connected or not, sorted; damaged files included.
std::vector<std::string> listTokenSerials();

}  // namespace softtoken
