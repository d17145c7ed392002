// Shared set-up of the key, blob and encryption tests: one fake token "SN1", a CryptoAPI context
// built directly on it, and helpers for log lines and key objects.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "csp/csp_context.h"
#include "csp/csp_entry_points.h"
#include "csp/key_handle.h"
#include "fake_device/fake_device.h"
#include "token/device_library.h"
#include "unit/csp/csp_fixture.h"

namespace keystest {

// Key identifiers used across the tests (32 upper-case hex characters each).
extern const char* const kSignId;      // usage 1, RSA-2048
extern const char* const kExchangeId;  // usage 2, RSA-2048
extern const char* const kBothId;      // usage 3, RSA-2048

std::vector<unsigned char> bytesOf(std::initializer_list<int> values);
std::vector<unsigned char> reversed(std::vector<unsigned char> bytes);
// `length` bytes counting up from `start` (wrapping at 256).
std::vector<unsigned char> counting(size_t length, int start);
// A malloc'ed copy, as the device library hands out its output buffers.
unsigned char* mallocCopy(const std::vector<unsigned char>& bytes);

class KeysTest : public csptest::CspTest {
protected:
    void SetUp() override;
    void TearDown() override;

    HCRYPTPROV prov() { return reinterpret_cast<HCRYPTPROV>(&context_); }
    // A key object made by CPGetUserKey(dwKeySpec); fails the test when the call fails.
    HCRYPTKEY userKey(DWORD keySpec);
    // A zero-filled key object made here, destroyed at tear-down.
    KEY_HANDLE* newKey();
    HCRYPTKEY handleOf(KEY_HANDLE* key) { return reinterpret_cast<HCRYPTKEY>(key); }
    // Destroyed through CPDestroyKey at tear-down.
    void keep(HCRYPTKEY key) { keys_.push_back(key); }
    DWORD getDword(HCRYPTKEY key, DWORD param);

    CspContext context_;
    std::vector<HCRYPTKEY> keys_;
};

}  // namespace keystest
