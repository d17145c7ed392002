// The checks every device call makes before it touches a token: the token exists and is plugged
// in, a fault set up by the admin tool fires, and private-key work has a valid PIN or a live
// single-sign-on session.
#pragma once

#include <string>

#include "token_store.h"

namespace softtoken {

// Names of the functions that faults can be set on (without the calyth_ prefix).
bool isFaultableFunction(const std::string& function);

// kOk with the token, kNoToken (unknown, unplugged), kCorruptToken, or the code of a pending fault
// of `function`, which is then counted down.
int openConnected(const char* serial, const char* function, TokenRef& token);

// PIN gate for private-key work. An empty PIN passes when single sign-on is on; after the session
// expired it answers 49 when `expiredIs49` (signing, decryption) and kPinRequired otherwise.
// A wrong PIN costs one attempt; a right one resets the count.
int authorize(const std::string& serial, const TokenRef& token, const char* pin, bool expiredIs49);

// calyth_validatePassword: kOk and a full count, kPinIncorrect with attempts left, kPinLocked with 0.
int validatePin(const std::string& serial, const TokenRef& token, const char* pin, int* attemptsLeft);

}  // namespace softtoken
