// A caller's buffer placed at the very end of a committed page with an inaccessible page after it:
// a read or write one byte past its length faults at once (the in-Wine stand-in for
// AddressSanitizer). One region, reused for every place() or room().
#pragma once

#include <cstddef>
#include <vector>

namespace testsupport {

class FencedBuffer {
public:
    explicit FencedBuffer(size_t capacity = 64 * 1024);
    ~FencedBuffer();
    FencedBuffer(const FencedBuffer&) = delete;
    FencedBuffer& operator=(const FencedBuffer&) = delete;

    // The bytes, copied so that they end at the fence; valid until the next place().
    unsigned char* place(const std::vector<unsigned char>& bytes);
    // `length` bytes of room ending at the fence, filled with 0xCC.
    unsigned char* room(size_t length);

private:
    unsigned char* base_ = nullptr;
    size_t usable_ = 0;
};

}  // namespace testsupport
