// The fuzzer's input copied into a heap block of exactly its size, so that AddressSanitizer sees a
// read one byte past the end (libFuzzer's own buffer may be larger than the input).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

struct ExactCopy {
    ExactCopy(const uint8_t* data, size_t size) : bytes(new unsigned char[size]), size(size) {
        if (size != 0)
            std::memcpy(bytes.get(), data, size);
    }
    std::unique_ptr<unsigned char[]> bytes;
    size_t size;
    const unsigned char* data() const { return bytes.get(); }
};

#define FUZZ_CHECK(condition) \
    do {                      \
        if (!(condition))     \
            __builtin_trap(); \
    } while (0)
