// The PIN handed over without the dialog: "SmartCardPin" through the key storage function table, a
// silent signature without a PIN, and a PIN validated on one front-end honoured by the other in the
// same process (CryptoAPI through advapi32 and the registered provider, CNG through the function
// table of the same CalythCSP.dll). The program has a display, and a simulated user watches for
// any PIN dialog or message box: none may appear.
#include <windows.h>

#include <wincrypt.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cng_pin_support.h"
#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/simulated_user.h"
#include "support/test_support.h"
#include "support/token_tool.h"

using namespace cngtest;
using testing::IsEmpty;
using testsupport::SimulatedUser;

namespace cngpin {
namespace {

const Bytes kDocument = testsupport::bytesOf("Signed with a PIN nobody typed.\n");

class PinWithoutDialog : public ::testing::Test {
protected:
    // Before the first fixture loads the provider: its first log lines would only make the folders.
    static void SetUpTestSuite() { startProviderLog(); }
    void SetUp() override {
        startProviderLog();
        ASSERT_TRUE(client.loaded());
    }
    CngClient client;
    SimulatedUser watcher{{}};
};

TEST_F(PinWithoutDialog, WrongSmartCardPinIsRefusedAndTheRightOneSigns) {
    TokenKey token;
    ASSERT_TRUE(makeTokenKey("CNGPIN-PROP-01", &token));
    ProviderSession session(client);
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ(session.openKey(token.keyId, &key), 0);

    EXPECT_EQ(client.setPin(session.provider(), "0000"), KSP_NTE_VALIDATION_FAILED);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSP: PIN validation failed: 7"));
    std::vector<std::string> state = testsupport::listedLines(token.serial, "pin");
    ASSERT_EQ(state.size(), 1u);
    EXPECT_EQ(state[0], "pin attempts left: 9 of 10");

    ASSERT_EQ(client.setPin(session.provider(), kPin), 0);
    EXPECT_EQ(testsupport::listedLines(token.serial, "pin"),
              std::vector<std::string>{"pin attempts left: 10 of 10"});
    Bytes signature;
    SECURITY_STATUS status = signDocument(session, key, kDocument, &signature);
    ASSERT_EQ(status, 0) << hexStatus(status);
    EXPECT_EQ(signature.size(), 256u);
    EXPECT_TRUE(opensslVerifies(token.publicPem, "sha256", kDocument, signature));
    EXPECT_THAT(watcher.finish(), IsEmpty());
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: PIN already validated"));
    EXPECT_FALSE(testsupport::logContains("Password dialog show window"));
}

TEST_F(PinWithoutDialog, SilentSigningWithoutAValidatedPinFailsWithoutADialog) {
    TokenKey token;
    ASSERT_TRUE(makeTokenKey("CNGPIN-PROP-02", &token));
    ProviderSession session(client);
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ(session.openKey(token.keyId, &key), 0);

    Bytes signature;
    SECURITY_STATUS status = signDocument(session, key, kDocument, &signature, NCRYPT_SILENT_FLAG);
    EXPECT_EQ(status, KSP_NTE_SILENT_CONTEXT) << hexStatus(status);
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "KSPSignHash: silent mode requested but PIN not validated"));
    EXPECT_FALSE(testsupport::logContains("Password dialog show window"));

    // Once the PIN is validated the silent call signs.
    ASSERT_EQ(client.setPin(session.provider(), kPin), 0);
    status = signDocument(session, key, kDocument, &signature, NCRYPT_SILENT_FLAG);
    ASSERT_EQ(status, 0) << hexStatus(status);
    EXPECT_TRUE(opensslVerifies(token.publicPem, "sha256", kDocument, signature));
    EXPECT_THAT(watcher.finish(), IsEmpty());
}

// CryptoAPI: a context on the key, SHA-256 of the document signed with CryptSignHash; the
// big-endian signature (CryptoAPI hands it out little-endian).
Bytes cryptoApiSignature(HCRYPTPROV provider, const Bytes& document) {
    HCRYPTHASH hash = 0;
    if (!CryptCreateHash(provider, CALG_SHA_256, 0, 0, &hash)) {
        ADD_FAILURE() << "CryptCreateHash: " << std::hex << GetLastError();
        return {};
    }
    Bytes signature(256);
    DWORD length = static_cast<DWORD>(signature.size());
    BOOL ok = CryptHashData(hash, document.data(), static_cast<DWORD>(document.size()), 0) &&
              CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature.data(), &length);
    DWORD error = GetLastError();
    CryptDestroyHash(hash);
    if (!ok) {
        ADD_FAILURE() << "CryptSignHash: " << std::hex << error;
        return {};
    }
    signature.resize(length);
    return testsupport::reversed(signature);
}

// The CryptoAPI side loaded the very CalythCSP.dll that the CNG client drives: one token table.
void expectOneProviderModule(const CngClient& client) {
    EXPECT_EQ(GetModuleHandleA(testsupport::providerImagePath().c_str()), client.module());
}

TEST_F(PinWithoutDialog, PinGivenThroughCryptoApiLetsTheKspSignWithoutADialog) {
    TokenKey token;
    ASSERT_TRUE(makeTokenKey("CNGPIN-PROP-03", &token));
    ASSERT_EQ(testsupport::registerProvider(), ERROR_SUCCESS);
    testsupport::Provider context;
    ASSERT_TRUE(testsupport::acquire(context, token.keyId.c_str())) << std::hex << GetLastError();
    ASSERT_TRUE(CryptSetProvParam(context.handle, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(kPin), 0))
        << std::hex << GetLastError();
    expectOneProviderModule(client);
    testsupport::clearLog();

    ProviderSession session(client);
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ(session.openKey(token.keyId, &key), 0);
    Bytes signature;
    SECURITY_STATUS status = signDocument(session, key, kDocument, &signature);
    ASSERT_EQ(status, 0) << hexStatus(status);
    EXPECT_TRUE(opensslVerifies(token.publicPem, "sha256", kDocument, signature));
    EXPECT_THAT(watcher.finish(), IsEmpty());
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "KSP: PIN already validated"));
    EXPECT_FALSE(testsupport::logContains("Password dialog show window"));
}

TEST_F(PinWithoutDialog, SmartCardPinLetsCryptSignHashSignWithoutADialog) {
    TokenKey token;
    ASSERT_TRUE(makeTokenKey("CNGPIN-PROP-04", &token));
    ProviderSession session(client);
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ(session.openKey(token.keyId, &key), 0);
    ASSERT_EQ(client.setPin(session.provider(), kPin), 0);

    ASSERT_EQ(testsupport::registerProvider(), ERROR_SUCCESS);
    testsupport::Provider context;
    ASSERT_TRUE(testsupport::acquire(context, token.keyId.c_str())) << std::hex << GetLastError();
    expectOneProviderModule(client);
    testsupport::clearLog();
    Bytes signature = cryptoApiSignature(context.handle, kDocument);
    ASSERT_EQ(signature.size(), 256u);
    EXPECT_TRUE(opensslVerifies(token.publicPem, "sha256", kDocument, signature));
    EXPECT_THAT(watcher.finish(), IsEmpty());
    EXPECT_TRUE(
        testsupport::logHasLine("DEBUG", "ensurePasswordValidated: PIN already validated, return true"));
    EXPECT_FALSE(testsupport::logContains("Password dialog show window"));
}

}  // namespace
}  // namespace cngpin
