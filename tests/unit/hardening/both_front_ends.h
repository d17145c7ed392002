// One pass through the PIN, key, signing, encryption, certificate and parameter paths of both
// front-ends on the fixture's token "SN1", for tests that watch every device call or every log line.
#pragma once

#include <string>

#include "csp/csp_context.h"
#include "unit/ksp/ksp_fixture.h"

namespace hardening {

// A CryptoAPI context on "SN1" as CPAcquireContext leaves it, for the key pair `container`.
CspContext cspContextOn(const std::string& container);

class BothFrontEnds : public ksptest::KspTest {
protected:
    void SetUp() override;
    HCRYPTPROV prov() { return reinterpret_cast<HCRYPTPROV>(&context_); }

    // CryptoAPI: PP_SIGNATURE_PIN and PP_KEYEXCHANGE_PIN (`pin`), key objects and their parameters,
    // hashing and signing, RSA encryption and decryption, the provider parameters and random bytes.
    void runCryptoApi(const std::string& pin);
    // CNG: "SmartCardPin" on the provider and a key (`pin`), key enumeration, opening, properties,
    // signing, verification, encryption, decryption and ECDH with a derivation.
    void runCng(const std::string& pin);

    CspContext context_;
};

}  // namespace hardening
