// Key-derivation parameter lists: the input is a sequence of buffers, each a type byte, a 16-bit
// little-endian size and that many bytes (cut short at the end of the input). Each value is handed
// over in a block of exactly its size, as a caller's separate buffers would be.
#include <algorithm>

#include "exact_copy.h"
#include "util/kdf_buffers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    KdfValues values;
    size_t expectedAlgorithmId = 0;
    size_t position = 0;
    while (size - position >= 3) {
        // Types 0, 13, 14 and 15 come often; any other value stands for the types that are skipped.
        static const uint32_t kTypes[] = {0, 13, 14, 15, 8, 9, 0xFFFFFFFF};
        uint32_t type = kTypes[data[position] % 7];
        size_t length = data[position + 1] | data[position + 2] << 8;
        position += 3;
        length = std::min(length, size - position);
        ExactCopy value(data + position, length);
        bool nullValue = length == 1 && data[position] == 0xEE;
        addKdfBuffer(type, nullValue ? nullptr : value.data(), static_cast<uint32_t>(length), &values);
        if (type == 13 && !nullValue)
            expectedAlgorithmId += length;
        position += length;
    }
    FUZZ_CHECK(values.algorithmId.size() == expectedAlgorithmId);
    for (char16_t unit : values.hashName)
        FUZZ_CHECK(unit != 0);
    return 0;
}
