// The values of a key-derivation parameter list, one buffer at a time, without Windows headers so
// that the same code builds natively for fuzzing. Every read is bounded by the buffer's size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "util/encoding.h"

// The buffer types this provider reads. The token's host software numbers the SP 800-56A inputs
// 13 and 14 (and the ignored party-V input 15), not as bcrypt.h's KDF_ALGORITHMID (8) and
// KDF_PARTYUINFO (9): callers of this provider pass 13 and 14, and 8 and 9 are ignored.
constexpr uint32_t kKdfHashAlgorithm = 0;
constexpr uint32_t kKdfAlgorithmId = 13;
constexpr uint32_t kKdfPartyUInfo = 14;
constexpr uint32_t kKdfPartyVInfo = 15;

struct KdfValues {
    std::u16string hashName;  // the last hash name given; empty when none
    Bytes algorithmId;
    Bytes partyUInfo;
};

// Takes one buffer: a hash name (UTF-16, ending at its NUL or at the end of the buffer; an odd last
// byte is not part of a character) replaces an earlier one, algorithm-identifier and party-U bytes
// accumulate; a null value, size 0 and all other types are skipped. `value` need not be aligned.
void addKdfBuffer(uint32_t type, const void* value, uint32_t size, KdfValues* values);
