// Contexts for the provider-parameter tests, built the way CPAcquireContext leaves them.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "csp/csp_context.h"
#include "csp/csp_entry_points.h"
#include "fake_device/fake_device.h"
#include "log/log.h"
#include "support/test_support.h"
#include "token/process_state.h"
#include "token/token_table.h"
#include "unit/csp/csp_fixture.h"

namespace paramtest {

constexpr const char* kSerial = "SN1";
constexpr const char* kKeyA = "000102030405060708090A0B0C0D0E0F";
constexpr const char* kKeyB = "A0A1A2A3A4A5A6A7A8A9AAABACADAEAF";
constexpr const char* kKeyC = "C0C1C2C3C4C5C6C7C8C9CACBCCCDCECF";

inline CspContext tokenContext(const std::string& container = "", std::vector<std::string> keyIds = {}) {
    CspContext context;
    csptest::openOnToken(context, kSerial);
    context.containerName = container;
    context.keyIds = std::move(keyIds);
    return context;
}

// A verify-only context: no token, no container.
inline CspContext verifyContext() {
    CspContext context;
    context.initialized = true;
    context.keysetType = CSP_KEYSET_TYPE;
    return context;
}

inline HCRYPTPROV handleOf(CspContext& context) {
    return reinterpret_cast<HCRYPTPROV>(&context);
}

class ParamTest : public csptest::CspTest {};

}  // namespace paramtest
