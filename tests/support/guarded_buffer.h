// A caller's output buffer followed by guard bytes, to see whether the code under test wrote past
// the room it was given.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace testsupport {

constexpr unsigned char kGuardByte = 0xEE;

// `room` bytes for the callee followed by `guard` bytes; all of them start as kGuardByte.
class GuardedBuffer {
public:
    explicit GuardedBuffer(size_t room, size_t guard = 64) : room_(room), bytes_(room + guard, kGuardByte) {}

    unsigned char* data() { return bytes_.data(); }
    // The room as the DWORD length a caller passes.
    unsigned long size() const { return static_cast<unsigned long>(room_); }
    // The first `count` bytes.
    std::vector<unsigned char> written(size_t count) const {
        return std::vector<unsigned char>(bytes_.begin(),
                                          bytes_.begin() + static_cast<std::ptrdiff_t>(count));
    }
    // True when no byte at or after `from` was written.
    bool untouchedFrom(size_t from) const {
        return std::all_of(bytes_.begin() + static_cast<std::ptrdiff_t>(from), bytes_.end(),
                           [](unsigned char b) { return b == kGuardByte; });
    }
    // Nothing written past the room.
    bool guardIntact() const { return untouchedFrom(room_); }
    // Nothing written at all.
    bool untouched() const { return untouchedFrom(0); }

private:
    size_t room_;
    std::vector<unsigned char> bytes_;
};

}  // namespace testsupport
