// Shared set-up of the CryptoAPI hash, signature and random tests: one fake token "SN1", a
// context built directly on it (no acquisition, no dialog), and exact log-line checks.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "csp/csp_context.h"
#include "csp/csp_entry_points.h"
#include "csp/hash_context.h"
#include "fake_device/fake_device.h"
#include "unit/csp/csp_fixture.h"

namespace csptest {

constexpr const char* kSerial = "SN1";
constexpr const char* kPin = "1234";

std::vector<unsigned char> bytesOf(const std::string& text);
std::vector<unsigned char> unhex(const std::string& hexText);
std::string lowerHex(const std::vector<unsigned char>& bytes);

class CspFixture : public CspTest {
protected:
    void SetUp() override;
    void TearDown() override;

    HCRYPTPROV provider() { return reinterpret_cast<HCRYPTPROV>(&context); }
    static HCRYPTPROV handleOf(CspContext& other) { return reinterpret_cast<HCRYPTPROV>(&other); }
    static HCRYPTHASH handleOf(HASH_CONTEXT& record) { return reinterpret_cast<HCRYPTHASH>(&record); }

    // A hash object of the algorithm, fed with `data` when it is not empty.
    HCRYPTHASH createHash(ALG_ID algId, const std::string& data = "");
    // HP_HASHVAL as lower-case hex, "" on failure.
    std::string hashValue(HCRYPTHASH hash);

    CspContext context;
    std::vector<HCRYPTHASH> hashes;  // destroyed after each test
};

}  // namespace csptest
