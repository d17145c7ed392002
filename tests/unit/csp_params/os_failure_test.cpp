// Provider parameters when the operating system refuses: the self-relative security descriptor
// (PP_KEYSET_SEC_DESCR), the chain engine and the message encoder (PP_CERTCHAIN). The program
// routes the provider's imports of those functions through switches that can make them fail;
// otherwise the real functions answer.
#include <windows.h>

#include <wincrypt.h>

#include <gtest/gtest.h>
#include <vector>

#include "cert/certificate_chain.h"
#include "csp/csp_context.h"
#include "csp/csp_entry_points.h"
#include "fake_device/fake_device.h"
#include "log/log.h"
#include "support/test_certificates.h"
#include "support/test_support.h"

namespace {

enum class ChainFailure { none, refused, noContext, emptyContext };

bool g_refuseDescriptorCopy = false;  // fail the call that writes into a buffer
ChainFailure g_chainFailure = ChainFailure::none;
bool g_refuseMessage = false;
CERT_CHAIN_CONTEXT g_emptyChain{};  // no simple chains at all

template <typename Function>
Function real(const char* dll, const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(LoadLibraryA(dll), name)));
}

BOOL WINAPI switchableMakeSelfRelativeSD(PSECURITY_DESCRIPTOR absolute, PSECURITY_DESCRIPTOR relative,
                                         LPDWORD length) {
    using Real = BOOL(WINAPI*)(PSECURITY_DESCRIPTOR, PSECURITY_DESCRIPTOR, LPDWORD);
    static Real function = real<Real>("advapi32.dll", "MakeSelfRelativeSD");
    if (g_refuseDescriptorCopy && relative != nullptr) {
        SetLastError(ERROR_INVALID_SECURITY_DESCR);
        return FALSE;
    }
    return function(absolute, relative, length);
}

BOOL WINAPI switchableCertGetCertificateChain(HCERTCHAINENGINE engine, PCCERT_CONTEXT certificate,
                                              LPFILETIME time, HCERTSTORE store, PCERT_CHAIN_PARA parameters,
                                              DWORD flags, LPVOID reserved, PCCERT_CHAIN_CONTEXT* chain) {
    using Real = BOOL(WINAPI*)(HCERTCHAINENGINE, PCCERT_CONTEXT, LPFILETIME, HCERTSTORE, PCERT_CHAIN_PARA,
                               DWORD, LPVOID, PCCERT_CHAIN_CONTEXT*);
    static Real function = real<Real>("crypt32.dll", "CertGetCertificateChain");
    switch (g_chainFailure) {
        case ChainFailure::refused:
            SetLastError(static_cast<DWORD>(CRYPT_E_NOT_FOUND));
            return FALSE;
        case ChainFailure::noContext:
            *chain = nullptr;
            return TRUE;
        case ChainFailure::emptyContext:
            *chain = &g_emptyChain;
            return TRUE;
        case ChainFailure::none:
            break;
    }
    return function(engine, certificate, time, store, parameters, flags, reserved, chain);
}

VOID WINAPI switchableCertFreeCertificateChain(PCCERT_CHAIN_CONTEXT chain) {
    using Real = VOID(WINAPI*)(PCCERT_CHAIN_CONTEXT);
    static Real function = real<Real>("crypt32.dll", "CertFreeCertificateChain");
    if (chain != &g_emptyChain)
        function(chain);
}

HCRYPTMSG WINAPI switchableCryptMsgOpenToEncode(DWORD encoding, DWORD flags, DWORD type, void const* info,
                                                LPSTR innerType, PCMSG_STREAM_INFO stream) {
    using Real = HCRYPTMSG(WINAPI*)(DWORD, DWORD, DWORD, void const*, LPSTR, PCMSG_STREAM_INFO);
    static Real function = real<Real>("crypt32.dll", "CryptMsgOpenToEncode");
    if (g_refuseMessage) {
        SetLastError(static_cast<DWORD>(E_INVALIDARG));
        return nullptr;
    }
    return function(encoding, flags, type, info, innerType, stream);
}

}  // namespace

// The import slots the provider's code calls through. On x86 a WINAPI function's slot carries the
// decorated name: a leading underscore and "@" with the bytes of its arguments.
#if defined(__i386__)
#define IMPORT_SLOT(name, argumentBytes) __asm__("__imp__" #name "@" #argumentBytes)
#else
#define IMPORT_SLOT(name, argumentBytes) __asm__("__imp_" #name)
#endif
void* makeSelfRelativeSdSlot IMPORT_SLOT(MakeSelfRelativeSD,
                                         12) = reinterpret_cast<void*>(&switchableMakeSelfRelativeSD);
void* certGetCertificateChainSlot IMPORT_SLOT(CertGetCertificateChain, 32) =
    reinterpret_cast<void*>(&switchableCertGetCertificateChain);
void* certFreeCertificateChainSlot IMPORT_SLOT(CertFreeCertificateChain, 4) =
    reinterpret_cast<void*>(&switchableCertFreeCertificateChain);
void* cryptMsgOpenToEncodeSlot IMPORT_SLOT(CryptMsgOpenToEncode,
                                           24) = reinterpret_cast<void*>(&switchableCryptMsgOpenToEncode);

namespace {

class OsFailureTest : public ::testing::Test {
protected:
    void SetUp() override {
        static const bool logReady =
            (logDebug("log warm-up"), logDebug("log warm-up"), logDebug("log warm-up"), true);
        (void)logReady;
        testsupport::clearLog();
        fake::reset();
        g_refuseDescriptorCopy = false;
        g_chainFailure = ChainFailure::none;
        g_refuseMessage = false;
    }
    void TearDown() override {
        g_refuseDescriptorCopy = false;
        g_chainFailure = ChainFailure::none;
        g_refuseMessage = false;
    }

    // A token context whose container is the key of the openssl-made leaf, with its chain on the token.
    CspContext certificateContext() {
        const testcerts::TestChain& chain = testcerts::opensslChain();
        const char* keyId = "A0A1A2A3A4A5A6A7A8A9AAABACADAEAF";
        for (const testcerts::TestCertificate* c : {&chain.root, &chain.intermediate, &chain.leaf}) {
            fake::registerCertificate(c->der, c->details);
            fake::token("SN1").certificates.push_back(testcerts::certificateRecord(c->der));
        }
        fake::addKeyPair("SN1", testcerts::keyPairFor(keyId, chain.leaf.details, CALYTH_USAGE_SIGNATURE));
        CspContext context;
        context.initialized = true;
        context.serialNumber = "SN1";
        context.containerName = keyId;
        context.keyIds = {keyId};
        return context;
    }
};

}  // namespace

TEST_F(OsFailureTest, RefusedSecurityDescriptorFailsWithNteFail) {
    CspContext context;
    context.initialized = true;
    HCRYPTPROV handle = reinterpret_cast<HCRYPTPROV>(&context);
    DWORD length = 0;
    ASSERT_TRUE(CPGetProvParam(handle, PP_KEYSET_SEC_DESCR, nullptr, &length, 0));
    ASSERT_GT(length, 0u);
    std::vector<BYTE> data(length);

    g_refuseDescriptorCopy = true;
    SetLastError(0);
    EXPECT_FALSE(CPGetProvParam(handle, PP_KEYSET_SEC_DESCR, data.data(), &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPGetProvParam PP_KEYSET_SEC_DESCR: MakeSelfRelativeSD failed"));

    g_refuseDescriptorCopy = false;
    EXPECT_TRUE(CPGetProvParam(handle, PP_KEYSET_SEC_DESCR, data.data(), &length, 0));
    EXPECT_TRUE(IsValidSecurityDescriptor(data.data()));
}

TEST_F(OsFailureTest, ChainEngineFailureFailsTheChainParameter) {
    CspContext context = certificateContext();
    HCRYPTPROV handle = reinterpret_cast<HCRYPTPROV>(&context);
    DWORD length = 0;
    ASSERT_TRUE(CPGetProvParam(handle, PP_CERTCHAIN, nullptr, &length, 0));

    for (ChainFailure failure : {ChainFailure::refused, ChainFailure::noContext}) {
        testsupport::clearLog();
        g_chainFailure = failure;
        length = 0;
        EXPECT_FALSE(CPGetProvParam(handle, PP_CERTCHAIN, nullptr, &length, 0));
        EXPECT_TRUE(testsupport::logHasLine("ERROR", "Chain build failed"));
        EXPECT_EQ(length, 0u);
    }
}

TEST_F(OsFailureTest, ChainWithoutCertificatesFailsTheChainParameter) {
    CspContext context = certificateContext();
    HCRYPTPROV handle = reinterpret_cast<HCRYPTPROV>(&context);
    g_chainFailure = ChainFailure::emptyContext;
    DWORD length = 0;
    EXPECT_FALSE(CPGetProvParam(handle, PP_CERTCHAIN, nullptr, &length, 0));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "No certificates in PKCS#7 chain"));
    EXPECT_FALSE(testsupport::logContains("CryptMsgOpenToEncode"));
}

TEST_F(OsFailureTest, EncoderFailureFailsTheChainParameter) {
    CspContext context = certificateContext();
    HCRYPTPROV handle = reinterpret_cast<HCRYPTPROV>(&context);
    g_refuseMessage = true;
    DWORD length = 0;
    EXPECT_FALSE(CPGetProvParam(handle, PP_CERTCHAIN, nullptr, &length, 0));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "BuildCertificateChain: CryptMsgOpenToEncode failed"));
    EXPECT_EQ(length, 0u);

    g_refuseMessage = false;
    EXPECT_TRUE(CPGetProvParam(handle, PP_CERTCHAIN, nullptr, &length, 0));
    EXPECT_GT(length, 0u);
}
