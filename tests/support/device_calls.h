// Direct calls into the device library for the soft token's own tests (programs linked with its
// import library).
#pragma once

#include <string>

#include "token/device_library.h"
#include "util/encoding.h"

namespace testsupport {

// The device record of a key, from calyth_getKeyPairList (zeroed record when missing).
CalythKeyPair keyRecord(const std::string& serial, const Bytes& keyId);
// Digest through the library's hash functions (codes 2-5), without a token.
Bytes digest(int hashCode, const Bytes& data);

}  // namespace testsupport
