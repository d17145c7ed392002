// Shared set-up of the token-access unit-test programs: every test starts with an empty fake device
// library, an empty token table and an empty log.
#pragma once

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fake_device/fake_device.h"
#include "support/test_support.h"

namespace access_test {

// The distinct threads other than those listed that called a device function (the monitor's
// polling thread, when the listed threads are the test's own).
size_t otherThreadsCalling(const std::string& function, const std::vector<unsigned long>& known);

// The device monitor's polls: calls of calyth_getConnectedDeviceList from threads other than the
// calling one (the test thread makes none in the monitor's tests, but be exact).
size_t monitorPolls();

// The serials of the recorded calls of one device function.
std::vector<std::string> serialsOf(const std::string& function);

class AccessTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

// A 32-character key identifier text.
inline std::string keyIdHex(int n) {
    char text[33];
    std::snprintf(text, sizeof text, "A1B2C3D4E5F60718293A4B5C6D7E%04X", n);
    return text;
}

}  // namespace access_test
