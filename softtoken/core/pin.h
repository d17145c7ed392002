// The token PIN: kept as a salted PBKDF2-SHA-256 value, never in clear.
#pragma once

#include <string>

#include "token_model.h"

namespace softtoken {

constexpr int kMinPinLength = 4;
constexpr int kMaxPinLength = 32;

PinRecord makePinRecord(const std::string& pin);
// True when `pin` is the one the record was made from. A PIN that matched once is remembered for
// the record, so that repeated checks do not pay for the key derivation again.
bool pinMatches(const PinRecord& record, const std::string& pin);

}  // namespace softtoken
