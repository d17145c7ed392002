// Chain gathering among the token's certificates and BuildCertificateChain, with real certificates
// made by openssl; the operating system's chain engine orders them and its message decoder reads
// the PKCS #7 output back.
#include "cert/certificate_chain.h"

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

#include "fake_device/fake_device.h"
#include "log/log.h"
#include "support/test_certificates.h"
#include "support/test_support.h"

namespace {

using testcerts::certificateRecord;

std::vector<unsigned char> derOf(const CalythCertificate& record) {
    return std::vector<unsigned char>(record.der, record.der + record.derLength);
}

std::vector<BYTE> build(const std::vector<CalythCertificate>& chain) {
    DWORD length = 0;
    SetLastError(0);
    EXPECT_TRUE(BuildCertificateChain(chain, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    std::vector<BYTE> data(length);
    EXPECT_TRUE(BuildCertificateChain(chain, data.data(), &length));
    data.resize(length);
    return data;
}

using Certificates = std::vector<std::vector<unsigned char>>;

// The certificates of a message whatever their order there: the platform's encoder may write the
// SET OF certificates in DER order.
Certificates sorted(Certificates certificates) {
    std::sort(certificates.begin(), certificates.end());
    return certificates;
}

class ChainTest : public ::testing::Test {
protected:
    void SetUp() override {
        fake::reset();
        // The log makes its folders over its first calls and writes from the third call on.
        static const bool logReady =
            (logDebug("log warm-up"), logDebug("log warm-up"), logDebug("log warm-up"), true);
        (void)logReady;
        testsupport::clearLog();
        chain = &testcerts::opensslChain();
    }
    const testcerts::TestChain* chain = nullptr;
};

}  // namespace

// ---- gathering ----

TEST_F(ChainTest, GatheringFollowsIssuersUpToTheSelfSignedRoot) {
    std::vector<CalythCertificate> token = {
        certificateRecord(chain->root.der), certificateRecord(chain->strangerLeaf.der),
        certificateRecord(chain->leaf.der), certificateRecord(chain->intermediate.der)};
    std::vector<CalythCertificate> gathered = gatherCertificateChain(token[2], token);
    ASSERT_EQ(gathered.size(), 3u);
    EXPECT_EQ(derOf(gathered[0]), chain->leaf.der);
    EXPECT_EQ(derOf(gathered[1]), chain->intermediate.der);
    EXPECT_EQ(derOf(gathered[2]), chain->root.der);
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "[ROOT] Self-signed root detected."));
}

TEST_F(ChainTest, GatheringStopsSilentlyAtAMissingIssuer) {
    std::vector<CalythCertificate> token = {certificateRecord(chain->leaf.der),
                                            certificateRecord(chain->root.der)};
    std::vector<CalythCertificate> gathered = gatherCertificateChain(token[0], token);
    ASSERT_EQ(gathered.size(), 1u);
    EXPECT_EQ(derOf(gathered[0]), chain->leaf.der);
    EXPECT_FALSE(testsupport::logContains("Self-signed"));
    EXPECT_FALSE(testsupport::logContains("[ERROR]"));
}

TEST_F(ChainTest, GatheringASelfSignedLeafGivesTheLeafAlone) {
    std::vector<CalythCertificate> token = {certificateRecord(chain->root.der),
                                            certificateRecord(chain->leaf.der)};
    std::vector<CalythCertificate> gathered = gatherCertificateChain(token[0], token);
    ASSERT_EQ(gathered.size(), 1u);
    EXPECT_EQ(derOf(gathered[0]), chain->root.der);
}

TEST_F(ChainTest, GatheringSkipsRecordsThatDoNotParse) {
    CalythCertificate broken = certificateRecord({0x30, 0x03, 0x02, 0x01, 0x00});
    std::vector<CalythCertificate> token = {broken, certificateRecord(chain->leaf.der),
                                            certificateRecord(chain->intermediate.der)};
    std::vector<CalythCertificate> gathered = gatherCertificateChain(token[1], token);
    ASSERT_EQ(gathered.size(), 2u);
    EXPECT_EQ(derOf(gathered[1]), chain->intermediate.der);
}

TEST_F(ChainTest, GatheringFromALeafThatDoesNotParseGivesTheLeafAlone) {
    CalythCertificate broken = certificateRecord({0x01, 0x02, 0x03});
    std::vector<CalythCertificate> token = {broken, certificateRecord(chain->intermediate.der)};
    std::vector<CalythCertificate> gathered = gatherCertificateChain(broken, token);
    ASSERT_EQ(gathered.size(), 1u);
    EXPECT_EQ(derOf(gathered[0]), derOf(broken));
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "[ERROR] Cannot parse leaf cert"));
}

// ---- ordering by the chain engine ----

TEST_F(ChainTest, ChainEngineOrdersLeafIntermediateAndRootRootFirst) {
    std::vector<CalythCertificate> gathered = {certificateRecord(chain->leaf.der),
                                               certificateRecord(chain->intermediate.der),
                                               certificateRecord(chain->root.der)};
    Certificates ordered;
    ASSERT_TRUE(chainCertificatesRootFirst(gathered, &ordered));
    EXPECT_EQ(ordered, (Certificates{chain->root.der, chain->intermediate.der, chain->leaf.der}));
}

TEST_F(ChainTest, ChainEngineOrdersWhateverTheGivenOrder) {
    std::vector<CalythCertificate> mixed = {
        certificateRecord(chain->leaf.der), certificateRecord(chain->root.der),
        certificateRecord(chain->strangerLeaf.der), certificateRecord(chain->intermediate.der)};
    Certificates ordered;
    ASSERT_TRUE(chainCertificatesRootFirst(mixed, &ordered));
    EXPECT_EQ(ordered, (Certificates{chain->root.der, chain->intermediate.der, chain->leaf.der}));
}

TEST_F(ChainTest, ChainEngineExportsAPartialChainAsItStands) {
    std::vector<CalythCertificate> partial = {certificateRecord(chain->leaf.der),
                                              certificateRecord(chain->intermediate.der)};
    Certificates ordered;
    ASSERT_TRUE(chainCertificatesRootFirst(partial, &ordered));
    EXPECT_EQ(ordered, (Certificates{chain->intermediate.der, chain->leaf.der}));
}

TEST_F(ChainTest, ChainRecordsThatDoNotParseAreLeftOut) {
    std::vector<CalythCertificate> gathered = {certificateRecord(chain->leaf.der),
                                               certificateRecord({0x30, 0x00}),
                                               certificateRecord(chain->intermediate.der)};
    Certificates ordered;
    ASSERT_TRUE(chainCertificatesRootFirst(gathered, &ordered));
    EXPECT_EQ(ordered, (Certificates{chain->intermediate.der, chain->leaf.der}));
}

// ---- encoding ----

TEST_F(ChainTest, MessageIsADegenerateSignedDataWithTheWholeChain) {
    std::vector<CalythCertificate> gathered = {certificateRecord(chain->leaf.der),
                                               certificateRecord(chain->intermediate.der),
                                               certificateRecord(chain->root.der)};
    std::vector<BYTE> pkcs7 = build(gathered);
    EXPECT_EQ(sorted(testcerts::pkcs7Certificates(pkcs7)),
              sorted({chain->root.der, chain->intermediate.der, chain->leaf.der}));
    testcerts::MessageShape shape = testcerts::pkcs7Shape(pkcs7);
    EXPECT_EQ(shape.type, static_cast<unsigned long>(CMSG_SIGNED));
    EXPECT_EQ(shape.certificates, 3u);
    EXPECT_EQ(shape.signers, 0u);
    EXPECT_EQ(shape.contentSize, 0u);
}

TEST_F(ChainTest, LeafWhoseIssuerIsMissingIsExportedAlone) {
    std::vector<BYTE> pkcs7 = build({certificateRecord(chain->leaf.der)});
    EXPECT_EQ(testcerts::pkcs7Certificates(pkcs7), (Certificates{chain->leaf.der}));
}

TEST_F(ChainTest, CertificatesOutsideTheChainAreNotExported) {
    std::vector<CalythCertificate> mixed = {
        certificateRecord(chain->leaf.der), certificateRecord(chain->root.der),
        certificateRecord(chain->strangerLeaf.der), certificateRecord(chain->intermediate.der)};
    EXPECT_EQ(sorted(testcerts::pkcs7Certificates(build(mixed))),
              sorted({chain->root.der, chain->intermediate.der, chain->leaf.der}));
}

TEST_F(ChainTest, BufferOneByteTooShortGivesTrueWithMoreData) {
    std::vector<CalythCertificate> gathered = {certificateRecord(chain->leaf.der),
                                               certificateRecord(chain->intermediate.der)};
    std::vector<BYTE> full = build(gathered);
    ASSERT_FALSE(full.empty());
    std::vector<BYTE> data(full.size() - 1, 0x77);
    DWORD length = static_cast<DWORD>(data.size());
    SetLastError(0);
    EXPECT_TRUE(BuildCertificateChain(gathered, data.data(), &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(length, full.size());
    EXPECT_EQ(data[0], 0x77);
    EXPECT_EQ(data.back(), 0x77);
}

TEST_F(ChainTest, ExactBufferReceivesTheWholeMessage) {
    std::vector<CalythCertificate> gathered = {certificateRecord(chain->leaf.der)};
    std::vector<BYTE> full = build(gathered);
    std::vector<BYTE> data(full.size(), 0);
    DWORD length = static_cast<DWORD>(data.size());
    ASSERT_TRUE(BuildCertificateChain(gathered, data.data(), &length));
    EXPECT_EQ(length, full.size());
    EXPECT_EQ(data, full);
}

TEST_F(ChainTest, LeafThatDoesNotParseFailsWithBadKey) {
    SetLastError(0);
    DWORD length = 100;
    EXPECT_FALSE(BuildCertificateChain(
        {certificateRecord({0x30, 0x03, 0x02, 0x01, 0x00}), certificateRecord(chain->root.der)}, nullptr,
        &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Failed creating leaf certificate"));
    EXPECT_EQ(length, 100u);
}

TEST_F(ChainTest, EmptyChainFailsWithNoKey) {
    SetLastError(0);
    DWORD length = 100;
    EXPECT_FALSE(BuildCertificateChain({}, nullptr, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NO_KEY));
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "Certificate Is Empty"));
}
