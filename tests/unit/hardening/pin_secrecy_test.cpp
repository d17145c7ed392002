// The PIN never reaches the log: a distinctive PIN goes through the login, property and parameter
// paths of both front-ends (PP_SIGNATURE_PIN, PP_KEYEXCHANGE_PIN, "SmartCardPin" on the provider and
// on a key, the PIN dialog answered by a simulated user) at log level 3, and no log line carries
// it, as text or in hexadecimal.
#include <windows.h>

#include <wincrypt.h>

#include <gmock/gmock.h>

#include "both_front_ends.h"
#include "csp/csp_entry_points.h"
#include "support/simulated_user.h"
#include "support/test_support.h"
#include "token/token_table.h"
#include "util/utils.h"

using namespace hardening;
using namespace testsupport;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const std::string kPin = "7394615082";
const std::string kWrongPin = "5820739461";

class PinSecrecy : public BothFrontEnds {
protected:
    void SetUp() override {
        BothFrontEnds::SetUp();
        fake::token("SN1").pin = kPin;
    }
};

std::vector<std::string> linesCarrying(const std::string& secret) {
    Utils utils;
    std::string hex = utils.bytesToHex(reinterpret_cast<const unsigned char*>(secret.data()),
                                       static_cast<int>(secret.size()));
    std::vector<std::string> found;
    for (const std::string& line : testsupport::logMessages()) {
        std::string upper = line;
        for (char& c : upper)
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        if (line.find(secret) != std::string::npos || upper.find(hex) != std::string::npos)
            found.push_back(line);
    }
    return found;
}

TEST_F(PinSecrecy, NoLogLineCarriesThePin) {
    // Parameters and properties, with a wrong PIN first.
    EXPECT_FALSE(
        CPSetProvParam(prov(), PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(kWrongPin.c_str()), 0));
    EXPECT_EQ(KSPSetProviderProperty(provider_, L"SmartCardPin",
                                     reinterpret_cast<PBYTE>(const_cast<char*>(kWrongPin.c_str())),
                                     static_cast<DWORD>(kWrongPin.size() + 1), 0),
              KSP_NTE_VALIDATION_FAILED);
    runCryptoApi(kPin);
    runCng(kPin);

    // The dialog of each front-end: a wrong PIN, its message, then the right one.
    clearValidatedPin("SN1");
    {
        SimulatedUser user({enterPin(kWrongPin), answerMessage(), enterPin(kPin)});
        HCRYPTHASH hash = 0;
        ASSERT_TRUE(CPCreateHash(prov(), CALG_SHA_256, 0, 0, &hash));
        std::vector<BYTE> signature(256);
        DWORD length = 256;
        EXPECT_TRUE(CPSignHash(prov(), hash, AT_KEYEXCHANGE, nullptr, 0, signature.data(), &length));
        CPDestroyHash(prov(), hash);
        EXPECT_EQ(user.finish().size(), 3u);
    }
    clearValidatedPin("SN1");
    {
        SimulatedUser user({enterPin(kPin)});
        EXPECT_EQ(KSPPromptUser(provider_, 0, nullptr, 0), 0);
        EXPECT_THAT(user.finish(), ElementsAre("dialog"));
    }
    // CPSetKeyParam(KP_CERTIFICATE) logs in through the dialog when no PIN is held.
    clearValidatedPin("SN1");
    {
        SimulatedUser user({enterPin(kPin)});
        HCRYPTKEY key = 0;
        ASSERT_TRUE(CPGetUserKey(prov(), AT_KEYEXCHANGE, &key));
        const BYTE certificate[] = {0x30, 0x03, 0x02, 0x01, 0x01};
        CPSetKeyParam(prov(), key, KP_CERTIFICATE, certificate, 0);
        CPDestroyKey(prov(), key);
        EXPECT_THAT(user.finish(), ElementsAre("dialog"));
    }

    EXPECT_THAT(fake::callsTo("calyth_validatePassword"), ::testing::Not(IsEmpty()));
    EXPECT_FALSE(testsupport::logMessagesAt("DEBUG").empty()) << "the log runs at level 3";
    EXPECT_THAT(linesCarrying(kPin), IsEmpty());
    EXPECT_THAT(linesCarrying(kWrongPin), IsEmpty());
}

}  // namespace
