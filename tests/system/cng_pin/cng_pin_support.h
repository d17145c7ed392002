// The token of the PIN tests: PIN 5791 (not the admin tool's default, so a PIN that reaches the
// token is the one the test gave) and one RSA-2048 key for signing and decryption, in a fresh store
// named after the serial (tests/support/cng_fixture.h).
#pragma once

#include <string>

#include "support/cng_fixture.h"

namespace cngpin {

constexpr const char* kPin = "5791";

inline bool makeTokenKey(const std::string& serial, cngtest::TokenKey* made) {
    return cngtest::makeTokenKey({serial, kPin}, "rsa2048", "both", made);
}

}  // namespace cngpin
