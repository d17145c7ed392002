// Helpers of the provider and key object tests: calls made by the test's own thread (the device
// monitor polls from another), and key objects made through KSPCreatePersistedKey.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <ncrypt.h>

#include <string>
#include <vector>

#include "fake_device/fake_device.h"
#include "unit/ksp/ksp_fixture.h"

namespace objtest {

// Calls of `function` made by this thread, in order.
std::vector<fake::Call> myCallsTo(const std::string& function);
// Names of this thread's calls, in order.
std::vector<std::string> myCallNames();

class ObjectsTest : public ksptest::KspTest {
protected:
    // KSPCreatePersistedKey on provider_; the key is freed at tear-down. Fails the test on an error.
    NCRYPT_KEY_HANDLE createKey(const wchar_t* algorithm, const wchar_t* name = L"", DWORD legacyKeySpec = 0);
    KspKey* keyOf(NCRYPT_KEY_HANDLE handle) { return kspKeyFrom(handle); }
};

}  // namespace objtest
