// The total length of a DER element from its header alone, as a certificate handed over without a
// length announces itself. Without Windows headers, so that it also builds natively for fuzzing.
#pragma once

#include <cstddef>
#include <cstdint>

enum class DerHeaderResult {
    Ok,
    Truncated,    // fewer bytes than the header names
    Unsupported,  // a length form other than short, 0x81, 0x82 or 0x83
};

// Tag byte, then a short length (< 0x80: 2 + it) or 0x81, 0x82, 0x83 followed by one to three
// big-endian length bytes (3, 4 or 5 + the length). `available` bounds the header bytes read; a
// caller that has no length (the certificate key parameter) passes kDerLengthUnknown and relies on
// the caller's buffer holding the header it announces.
constexpr size_t kDerLengthUnknown = SIZE_MAX;
DerHeaderResult derTotalLength(const unsigned char* der, size_t available, uint32_t* total);
