// Helpers shared by the CNG cryptographic-operation tests: guarded output buffers and the fixed
// inputs of the fake token.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "fake_device/fake_device.h"
#include "unit/ksp/ksp_fixture.h"

namespace ksptest {

constexpr unsigned char kGuardByte = 0xEE;
constexpr DWORD kUnsetResult = 0xDEADBEEF;

// A caller's output buffer of `room` bytes followed by a guard zone that must stay untouched.
struct GuardedBuffer {
    explicit GuardedBuffer(size_t roomBytes, size_t guard = 64)
        : room(roomBytes), bytes(roomBytes + guard, kGuardByte) {}
    PBYTE data() { return bytes.data(); }
    DWORD size() const { return static_cast<DWORD>(room); }
    bool guardIntact() const {
        for (size_t i = room; i < bytes.size(); ++i) {
            if (bytes[i] != kGuardByte)
                return false;
        }
        return true;
    }
    bool untouched() const {
        for (unsigned char b : bytes) {
            if (b != kGuardByte)
                return false;
        }
        return true;
    }
    std::vector<unsigned char> written(size_t count) const {
        return std::vector<unsigned char>(bytes.begin(), bytes.begin() + static_cast<long>(count));
    }
    size_t room;
    std::vector<unsigned char> bytes;
};

// A 32-byte digest; the fake token signs any bytes, a fixed pattern keeps the rendered arguments
// predictable.
inline std::vector<unsigned char> testDigest(size_t length = 32) {
    std::vector<unsigned char> digest(length);
    for (size_t i = 0; i < digest.size(); ++i)
        digest[i] = static_cast<unsigned char>(0x10 + i * 7);
    return digest;
}

}  // namespace ksptest
