// Helpers shared by the CNG cryptographic-operation tests: the fixed inputs of the fake token.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "fake_device/fake_device.h"
#include "unit/ksp/ksp_fixture.h"

namespace ksptest {

constexpr DWORD kUnsetResult = 0xDEADBEEF;

// A 32-byte digest; the fake token signs any bytes, a fixed pattern keeps the rendered arguments
// predictable.
inline std::vector<unsigned char> testDigest(size_t length = 32) {
    std::vector<unsigned char> digest(length);
    for (size_t i = 0; i < digest.size(); ++i)
        digest[i] = static_cast<unsigned char>(0x10 + i * 7);
    return digest;
}

}  // namespace ksptest
