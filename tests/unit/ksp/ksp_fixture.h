// Shared set-up of the CNG key storage provider's unit tests: one fake token "SN1", a provider
// opened through KSPOpenProvider on it, keys opened by name, and log and text helpers.
#pragma once

#include <windows.h>

#include <ncrypt.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fake_device/fake_device.h"
#include "ksp/ksp_interface.h"
#include "ksp/ksp_objects.h"
#include "support/test_support.h"

namespace ksptest {

// Key identifiers used across the tests (32 upper-case hex characters each).
extern const char* const kRsaSignId;      // usage 1, RSA-2048, label "rsa-sign"
extern const char* const kRsaExchangeId;  // usage 2, RSA-2048, label "rsa-exchange"
extern const char* const kEcSignId;       // usage 1, P-256, label "ec-sign"

std::wstring wide(const std::string& text);

class KspTest : public ::testing::Test {
protected:
    // Resets the fake, the token table, the IV buffer and the log; adds token "SN1" (firmware
    // "2.1.0", PIN "1234") with the three keys above.
    void SetUp() override;
    // Frees every key and provider made through the helpers below.
    void TearDown() override;

    // A provider object built here as KSPOpenProvider leaves it on token `serial` (initialised,
    // firmware "2.1.0"), without calling the provider. The first one made becomes provider_.
    NCRYPT_PROV_HANDLE makeProvider(const std::string& serial = "SN1");
    // A key object built here as KSPOpenKey leaves it, from the fake token's key pair with that
    // identifier on the fixture's token (algorithm, usage, bits, name, finalised 1).
    NCRYPT_KEY_HANDLE makeKey(const std::string& keyIdHex);
    // An empty key object (new KspKey{}), freed at tear-down.
    NCRYPT_KEY_HANDLE makeEmptyKey();

    // KSPOpenProvider and KSPOpenKey through the provider itself; fail the test on an error.
    NCRYPT_PROV_HANDLE openProvider();
    NCRYPT_KEY_HANDLE openKey(const std::string& name, NCRYPT_PROV_HANDLE provider = 0);

    // Released with delete (the way the free operations release them) at tear-down.
    void keep(NCRYPT_KEY_HANDLE key) { keys_.push_back(key); }
    void keepProvider(NCRYPT_PROV_HANDLE provider) { providers_.push_back(provider); }

    KspProvider* provider() { return kspProviderFrom(provider_); }
    // The key's "Length" property through KSPGetKeyProperty; a failed read fails the test and
    // answers 0xFFFFFFFF.
    DWORD lengthProperty(NCRYPT_KEY_HANDLE key);

    NCRYPT_PROV_HANDLE provider_ = 0;
    std::vector<NCRYPT_KEY_HANDLE> keys_;
    std::vector<NCRYPT_PROV_HANDLE> providers_;
};

}  // namespace ksptest
