// Hexadecimal text both ways, and the comparison form of distinguished names (splitting, trimming,
// upper-casing), which must not change when applied twice.
#include <string>

#include "exact_copy.h"
#include "util/encoding.h"
#include "util/utils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    Bytes bytes = hexToBytes(text);
    FUZZ_CHECK(bytes.size() <= size / 2 + 1);

    Utils utils;
    ExactCopy copy(data, size);
    std::string hex = utils.bytesToHex(copy.data(), static_cast<int>(copy.size));
    FUZZ_CHECK(hex.size() == 2 * size && hexToBytes(hex) == Bytes(data, data + size));

    std::string name = utils.normalizeName(text);
    FUZZ_CHECK(utils.normalizeName(name) == name);
    utils.trim(text);
    return 0;
}
