// PP_CERTCHAIN: the container's certificate chain from the token's certificates, as PKCS #7, with
// real certificates made by openssl.
#include <algorithm>
#include <cstring>

#include "param_test_context.h"
#include "support/test_certificates.h"

using namespace paramtest;

namespace {

class CertChainParamTest : public ParamTest {
protected:
    void SetUp() override {
        ParamTest::SetUp();
        chain = &testcerts::opensslChain();
        for (const testcerts::TestCertificate* c :
             {&chain->root, &chain->intermediate, &chain->leaf, &chain->strangerLeaf})
            fake::registerCertificate(c->der, c->details);
        fake::addToken(kSerial);
    }

    void putOnToken(const testcerts::TestCertificate& certificate) {
        fake::token(kSerial).certificates.push_back(testcerts::certificateRecord(certificate.der));
    }

    std::vector<BYTE> fetch(CspContext& context) {
        DWORD length = 0;
        SetLastError(0);
        EXPECT_TRUE(CPGetProvParam(handleOf(context), PP_CERTCHAIN, nullptr, &length, 0));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
        std::vector<BYTE> data(length);
        if (!CPGetProvParam(handleOf(context), PP_CERTCHAIN, data.data(), &length, 0)) {
            ADD_FAILURE() << "PP_CERTCHAIN failed: " << GetLastError();
            return {};
        }
        data.resize(length);
        return data;
    }

    // The certificates of the message, sorted: the platform's encoder may write the SET OF
    // certificates in DER order.
    static std::vector<std::vector<unsigned char>> certificatesOf(const std::vector<BYTE>& pkcs7) {
        std::vector<std::vector<unsigned char>> out = testcerts::pkcs7Certificates(pkcs7);
        std::sort(out.begin(), out.end());
        return out;
    }
    static std::vector<std::vector<unsigned char>> set(std::vector<std::vector<unsigned char>> certificates) {
        std::sort(certificates.begin(), certificates.end());
        return certificates;
    }

    const testcerts::TestChain* chain = nullptr;
};

}  // namespace

TEST_F(CertChainParamTest, ChainOfTheContainersKeyListsRootIntermediateLeaf) {
    // The token lists the leaf between its issuers, the root first.
    putOnToken(chain->root);
    putOnToken(chain->leaf);
    putOnToken(chain->intermediate);
    fake::addKeyPair(kSerial, testcerts::keyPairFor(kKeyB, chain->leaf.details, CALYTH_USAGE_SIGNATURE));
    CspContext context = tokenContext(kKeyB, {kKeyB});

    std::vector<BYTE> pkcs7 = fetch(context);
    ASSERT_FALSE(pkcs7.empty());
    EXPECT_EQ(certificatesOf(pkcs7), set({chain->root.der, chain->intermediate.der, chain->leaf.der}));
    testcerts::MessageShape shape = testcerts::pkcs7Shape(pkcs7);
    EXPECT_EQ(shape.type, static_cast<unsigned long>(CMSG_SIGNED));
    EXPECT_EQ(shape.signers, 0u);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", std::string("Public key match found; container=") + kKeyB));
    EXPECT_EQ(fake::callsTo("calyth_getKeyPairList")[0].serial, kSerial);
    EXPECT_EQ(fake::callsTo("calyth_getCertificateList")[0].serial, kSerial);
}

TEST_F(CertChainParamTest, OtherContainersOfTheTokenAreNotMixedIn) {
    putOnToken(chain->strangerLeaf);
    putOnToken(chain->leaf);
    putOnToken(chain->intermediate);
    fake::addKeyPair(kSerial,
                     testcerts::keyPairFor(kKeyA, chain->strangerLeaf.details, CALYTH_USAGE_EXCHANGE));
    fake::addKeyPair(kSerial, testcerts::keyPairFor(kKeyB, chain->leaf.details, CALYTH_USAGE_SIGNATURE));

    CspContext stranger = tokenContext(kKeyA, {kKeyA, kKeyB});
    EXPECT_EQ(certificatesOf(fetch(stranger)), set({chain->strangerLeaf.der}));

    CspContext leaf = tokenContext(kKeyB, {kKeyA, kKeyB});
    EXPECT_EQ(certificatesOf(fetch(leaf)), set({chain->intermediate.der, chain->leaf.der}));
}

TEST_F(CertChainParamTest, ContainerWithoutCertificateFailsWithNoKey) {
    putOnToken(chain->leaf);
    fake::addKeyPair(kSerial, testcerts::keyPairFor(kKeyB, chain->leaf.details, CALYTH_USAGE_SIGNATURE));
    fake::addKeyPair(kSerial, fake::makeKeyPair(kKeyC, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048));
    CspContext context = tokenContext(kKeyC, {kKeyB, kKeyC});
    BYTE data[16];
    DWORD length = sizeof data;
    SetLastError(0);
    EXPECT_FALSE(CPGetProvParam(handleOf(context), PP_CERTCHAIN, data, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NO_KEY));
    EXPECT_EQ(length, 0u);
    EXPECT_TRUE(testsupport::logHasLine(
        "ERROR", std::string("CPGetProvParam PP_CERTCHAIN: container not found, containerName=") + kKeyC));
}

TEST_F(CertChainParamTest, ContainerNameIsComparedExactly) {
    putOnToken(chain->leaf);
    fake::addKeyPair(kSerial, testcerts::keyPairFor(kKeyB, chain->leaf.details, CALYTH_USAGE_SIGNATURE));
    CspContext context = tokenContext("a0a1a2a3a4a5a6a7a8a9aaabacadaeaf", {kKeyB});
    DWORD length = 100;
    EXPECT_FALSE(CPGetProvParam(handleOf(context), PP_CERTCHAIN, nullptr, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NO_KEY));
    EXPECT_EQ(length, 0u);
}

TEST_F(CertChainParamTest, VerifyContextHasNoChain) {
    CspContext context = verifyContext();
    DWORD length = 100;
    EXPECT_FALSE(CPGetProvParam(handleOf(context), PP_CERTCHAIN, nullptr, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NO_KEY));
    EXPECT_TRUE(
        testsupport::logHasLine("ERROR", "CPGetProvParam PP_CERTCHAIN: container not found, containerName="));
}

TEST_F(CertChainParamTest, FirstCertificateOfAKeyWins) {
    // Two certificates carry the same public key: the one listed first makes the chain.
    CertificateDetails second = chain->strangerLeaf.details;
    second.publicKey = chain->leaf.details.publicKey;
    fake::registerCertificate(chain->strangerLeaf.der, second);
    putOnToken(chain->strangerLeaf);
    putOnToken(chain->leaf);
    putOnToken(chain->intermediate);
    fake::addKeyPair(kSerial, testcerts::keyPairFor(kKeyB, chain->leaf.details, CALYTH_USAGE_SIGNATURE));
    CspContext context = tokenContext(kKeyB, {kKeyB});
    EXPECT_EQ(certificatesOf(fetch(context)), set({chain->strangerLeaf.der}));
}

TEST_F(CertChainParamTest, CertificateTheDeviceCannotParseIsSkipped) {
    putOnToken(chain->leaf);
    putOnToken(chain->intermediate);
    putOnToken(chain->root);
    fake::addKeyPair(kSerial, testcerts::keyPairFor(kKeyB, chain->leaf.details, CALYTH_USAGE_SIGNATURE));
    CspContext context = tokenContext(kKeyB, {kKeyB});
    fake::failNext("calyth_getCertificateDetails", 5);
    DWORD length = 0;
    EXPECT_FALSE(CPGetProvParam(handleOf(context), PP_CERTCHAIN, nullptr, &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NO_KEY));
    // Issuers are still found among all the token's certificates when the leaf parses.
    std::vector<BYTE> pkcs7 = fetch(context);
    EXPECT_EQ(certificatesOf(pkcs7), set({chain->root.der, chain->intermediate.der, chain->leaf.der}));
}

TEST_F(CertChainParamTest, BufferOneByteShortGivesTrueWithMoreData) {
    putOnToken(chain->leaf);
    putOnToken(chain->intermediate);
    fake::addKeyPair(kSerial, testcerts::keyPairFor(kKeyB, chain->leaf.details, CALYTH_USAGE_SIGNATURE));
    CspContext context = tokenContext(kKeyB, {kKeyB});
    std::vector<BYTE> full = fetch(context);
    ASSERT_FALSE(full.empty());
    std::vector<BYTE> data(full.size() - 1, 0x5A);
    DWORD length = static_cast<DWORD>(data.size());
    SetLastError(0);
    EXPECT_TRUE(CPGetProvParam(handleOf(context), PP_CERTCHAIN, data.data(), &length, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(length, full.size());
    EXPECT_EQ(data[0], 0x5A);
}
