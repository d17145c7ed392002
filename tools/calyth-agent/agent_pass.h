// One pass of the agent: read the connected tokens, work out which certificates belong in the
// user's stores and bring the stores in line.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "token_reading.h"
#include "user_store.h"

namespace agent {

// The connected tokens and what they hold. `expected` names the tokens whose certificates are in
// the store (markedSerials, or the tokens of the last look), so that a removal is confirmed by a
// second device list before their certificates go.
std::vector<TokenContents> readConnectedTokens(DeviceSession* session, const std::set<std::string>& expected);

// Plans and applies; the plan's notes (certificates skipped, untrusted roots) come first in the
// result's lines.
PassResult propagate(const std::vector<TokenContents>& tokens, const StoreNames& names);

}  // namespace agent
