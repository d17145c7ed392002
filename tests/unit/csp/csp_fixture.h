// The base fixture of the CryptoAPI unit tests: the provider's process-wide state back to a fresh
// process before each test (fake device, token table, IV buffer, random source) and an empty log.
// Derived fixtures add their tokens and contexts.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <gtest/gtest.h>
#include <string>

#include "csp/csp_context.h"
#include "fake_device/fake_device.h"
#include "support/test_support.h"

namespace csptest {

class CspTest : public ::testing::Test {
protected:
    // Resets the fake device (no tokens), the token table, the process IV and the random source
    // (the token's), and empties the log after making its folders.
    void SetUp() override;
    // Puts the random source back to the token's.
    void TearDown() override;
};

// `context` as CPAcquireContext leaves it on the token `serial`: initialised, a key set.
void openOnToken(CspContext& context, const std::string& serial);

}  // namespace csptest
