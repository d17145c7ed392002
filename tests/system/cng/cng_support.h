// The token of the CNG system tests: CNG1 with PIN 1234 in a fresh store of each test's own, the
// PIN handed over through "SmartCardPin" so that no dialog is shown (tests/support/cng_fixture.h).
#pragma once

#include "support/cng_fixture.h"

namespace cngtest {

constexpr const char* kSerial = "CNG1";
constexpr const char* kPin = "1234";

class CngSystemTest : public CngTokenTest {
protected:
    CngSystemTest() : CngTokenTest({kSerial, kPin}) {}
};

}  // namespace cngtest
