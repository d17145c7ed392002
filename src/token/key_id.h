// The length of a key pair's identifier on the token: raw bytes, the same for key pairs,
// certificates, symmetric keys and the key objects of both front-ends.
#pragma once

#include <cstdint>

constexpr int32_t KEY_ID_LENGTH = 16;
