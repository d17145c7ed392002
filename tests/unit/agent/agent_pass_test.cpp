// The certificate agent's pass against the fake device library and real crypt32 system stores of
// the current user. Each test works on a pair of stores of its own ("...-MY", "...-CA"), so that
// nothing here meets the user's real MY and CA stores or another test program.
#include "agent_pass.h"

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fake_device/fake_device.h"
#include "support/scratch_files.h"
#include "support/test_certificates.h"
#include "support/test_support.h"

using namespace agent;

namespace {

constexpr const char* kSignKey = "0102030405060708090A0B0C0D0E0F10";
constexpr const char* kExchangeKey = "1112131415161718191A1B1C1D1E1F20";
constexpr const char* kDualKey = "2122232425262728292A2B2C2D2E2F30";
constexpr const char* kEcKey = "3132333435363738393A3B3C3D3E3F40";

using Bytes = std::vector<unsigned char>;

// What a store holds for one certificate.
struct Entry {
    Bytes der;
    std::string description;
    std::string friendlyName;
    KeyProviderInfo keyProvider;
};

std::string wideProperty(PCCERT_CONTEXT certificate, DWORD property) {
    DWORD size = 0;
    if (!CertGetCertificateContextProperty(certificate, property, nullptr, &size))
        return "";
    std::vector<wchar_t> text(size / sizeof(wchar_t) + 1, L'\0');
    CertGetCertificateContextProperty(certificate, property, text.data(), &size);
    std::string out;
    for (const wchar_t* c = text.data(); *c; ++c)
        out.push_back(static_cast<char>(*c));
    return out;
}

std::vector<Entry> entries(const std::string& storeName) {
    std::vector<Entry> out;
    HCERTSTORE store =
        CertOpenStore(CERT_STORE_PROV_SYSTEM_A, 0, 0,
                      CERT_SYSTEM_STORE_CURRENT_USER | CERT_STORE_READONLY_FLAG, storeName.c_str());
    PCCERT_CONTEXT certificate = nullptr;
    while (store && (certificate = CertEnumCertificatesInStore(store, certificate)) != nullptr) {
        Entry entry;
        entry.der.assign(certificate->pbCertEncoded, certificate->pbCertEncoded + certificate->cbCertEncoded);
        entry.description = wideProperty(certificate, CERT_DESCRIPTION_PROP_ID);
        entry.friendlyName = wideProperty(certificate, CERT_FRIENDLY_NAME_PROP_ID);
        entry.keyProvider = keyProviderInfo(certificate);
        out.push_back(entry);
    }
    if (store)
        CertCloseStore(store, 0);
    return out;
}

size_t countOf(const std::vector<Entry>& list, const Bytes& der) {
    return std::count_if(list.begin(), list.end(), [&](const Entry& entry) { return entry.der == der; });
}

const Entry* find(const std::vector<Entry>& list, const Bytes& der) {
    for (const Entry& entry : list) {
        if (entry.der == der)
            return &entry;
    }
    return nullptr;
}

bool hasLine(const PassResult& result, const std::string& start) {
    return std::any_of(result.lines.begin(), result.lines.end(),
                       [&](const std::string& line) { return line.rfind(start, 0) == 0; });
}

std::string allLines(const PassResult& result) {
    std::string out;
    for (const std::string& line : result.lines)
        out += line + "\n";
    return out + (result.error.empty() ? "" : "error: " + result.error + "\n");
}

// A self-signed certificate made by OpenSSL for `commonName` (DER).
Bytes selfSigned(const std::string& commonName) {
    std::string der = testsupport::tempPath(commonName + ".der");
    std::string key = testsupport::tempPath(commonName + ".key");
    std::string output;
    EXPECT_EQ(testsupport::runOpenSsl(
                  "req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=" + commonName +
                      " -days 30 -outform DER -keyout " + testsupport::unixPath(key) + " -out " +
                      testsupport::unixPath(der),
                  &output),
              0)
        << output;
    Bytes bytes;
    HANDLE file = CreateFileA(der.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    DWORD size = GetFileSize(file, nullptr);
    bytes.resize(size);
    DWORD read = 0;
    ReadFile(file, bytes.data(), size, &read, nullptr);
    CloseHandle(file);
    return bytes;
}

// A key pair whose object identifier is 20 bytes derived from its id, as a token links it.
CalythKeyPair keyPair(const std::string& idHex, int32_t usage, int32_t sizeCode,
                      const std::string& label = "") {
    CalythKeyPair pair = fake::makeKeyPair(idHex, usage, sizeCode, label);
    for (int i = 0; i < 20; ++i)
        pair.objectId[i] = static_cast<unsigned char>(pair.keyId[i % 16] ^ 0x5A);
    pair.objectIdLength = 20;
    return pair;
}

// A certificate record linked to `pair` by its object identifier.
CalythCertificate linkedCertificate(const Bytes& der, const CalythKeyPair& pair,
                                    const std::string& label = "") {
    CalythCertificate record = testcerts::certificateRecord(der, label);
    std::memcpy(record.keyId, pair.keyId, sizeof pair.keyId);
    std::memcpy(record.objectId, pair.objectId, sizeof pair.objectId);
    record.objectIdLength = pair.objectIdLength;
    return record;
}

void deleteStore(const std::string& name) {
    HCERTSTORE store =
        CertOpenStore(CERT_STORE_PROV_SYSTEM_A, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, name.c_str());
    PCCERT_CONTEXT certificate = nullptr;
    while (store && (certificate = CertEnumCertificatesInStore(store, nullptr)) != nullptr)
        CertDeleteCertificateFromStore(certificate);
    if (store)
        CertCloseStore(store, 0);
}

FILETIME lastWrite(const std::string& storeName) {
    FILETIME time{};
    HKEY key = nullptr;
    std::string path = "Software\\Microsoft\\SystemCertificates\\" + storeName + "\\Certificates";
    if (RegOpenKeyExA(HKEY_CURRENT_USER, path.c_str(), 0, KEY_READ, &key) == ERROR_SUCCESS) {
        RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr, &time);
        RegCloseKey(key);
    }
    return time;
}

class AgentPass : public ::testing::Test {
protected:
    void SetUp() override {
        fake::reset();
        std::string base = std::string("CalythAgentTest-") +
                           ::testing::UnitTest::GetInstance()->current_test_info()->name() + "-" +
                           std::to_string(GetCurrentProcessId());
        names_.personal = base + "-MY";
        names_.authorities = base + "-CA";
        library_.init = &calyth_init;
        library_.getConnectedDeviceList = &calyth_getConnectedDeviceList;
        library_.initDevice = &calyth_initDevice;
        library_.getTokenInfo = &calyth_getTokenInfo;
        library_.getKeyPairList = &calyth_getKeyPairList;
        library_.getCertificateList = &calyth_getCertificateList;
        session_.library = &library_;
    }
    void TearDown() override {
        deleteStore(names_.personal);
        deleteStore(names_.authorities);
    }

    // One pass as calyth-agent --once makes it.
    PassResult pass() { return propagate(readConnectedTokens(&session_, markedSerials(names_)), names_); }

    std::vector<Entry> personal() const { return entries(names_.personal); }
    std::vector<Entry> authorities() const { return entries(names_.authorities); }

    // A certificate in the personal store as an application or the user put it there.
    void addByHand(const Bytes& der, const char* provider = nullptr, DWORD keySpec = AT_SIGNATURE) {
        HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_A, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER,
                                         names_.personal.c_str());
        ASSERT_NE(store, nullptr);
        PCCERT_CONTEXT added = nullptr;
        ASSERT_TRUE(CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, der.data(),
                                                     static_cast<DWORD>(der.size()), CERT_STORE_ADD_NEW,
                                                     &added));
        if (provider) {
            std::wstring container = L"0102030405060708090A0B0C0D0E0F10";
            std::wstring name(provider, provider + std::strlen(provider));
            CRYPT_KEY_PROV_INFO info{};
            info.pwszContainerName = &container[0];
            info.pwszProvName = &name[0];
            info.dwProvType = PROV_RSA_FULL;
            info.dwKeySpec = keySpec;
            EXPECT_TRUE(CertSetCertificateContextProperty(added, CERT_KEY_PROV_INFO_PROP_ID, 0, &info));
        }
        CertFreeCertificateContext(added);
        CertCloseStore(store, 0);
    }

    // A connected token `serial` with an RSA signature key whose certificate is `der`.
    CalythKeyPair tokenWithCertifiedKey(const std::string& serial, const Bytes& der) {
        fake::addToken(serial);
        CalythKeyPair pair = keyPair(kSignKey, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048);
        fake::addKeyPair(serial, pair);
        fake::token(serial).certificates = {linkedCertificate(der, pair)};
        return pair;
    }

    tokenview::DeviceFunctions library_;
    DeviceSession session_;
    StoreNames names_;
};

TEST_F(AgentPass, EachKeysCertificateGoesIntoMyWithTheKeyProviderInformationOfItsKind) {
    Bytes signCert = selfSigned("AgentSign");
    Bytes exchangeCert = selfSigned("AgentExchange");
    Bytes dualCert = selfSigned("AgentDual");
    Bytes ecCert = selfSigned("AgentEc");
    fake::Token& token = fake::addToken("SN-A");
    token.info.label = "Work token";
    CalythKeyPair sign = keyPair(kSignKey, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048);
    CalythKeyPair exchange = keyPair(kExchangeKey, CALYTH_USAGE_EXCHANGE, CALYTH_KEY_RSA_2048);
    CalythKeyPair dual = keyPair(kDualKey, CALYTH_USAGE_BOTH, CALYTH_KEY_RSA_3072);
    CalythKeyPair ec = keyPair(kEcKey, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_EC_P256);
    for (const CalythKeyPair& pair : {sign, exchange, dual, ec})
        fake::addKeyPair("SN-A", pair);
    token.certificates = {linkedCertificate(signCert, sign), linkedCertificate(exchangeCert, exchange),
                          linkedCertificate(dualCert, dual), linkedCertificate(ecCert, ec)};

    PassResult result = pass();
    ASSERT_EQ(result.error, "") << allLines(result);
    EXPECT_EQ(result.added, 4) << allLines(result);
    EXPECT_TRUE(
        hasLine(result, "added to " + names_.personal + ": CN=AgentSign (token SN-A, key " + kSignKey + ")"))
        << allLines(result);

    std::vector<Entry> store = personal();
    ASSERT_EQ(store.size(), 4u);
    struct Expected {
        const Bytes* der;
        const char* keyId;
        DWORD type;
        DWORD keySpec;
        const char* friendly;
    } expected[] = {
        {&signCert, kSignKey, PROV_RSA_FULL, AT_SIGNATURE, "AgentSign (Work token)"},
        {&exchangeCert, kExchangeKey, PROV_RSA_FULL, AT_KEYEXCHANGE, "AgentExchange (Work token)"},
        {&dualCert, kDualKey, PROV_RSA_FULL, AT_KEYEXCHANGE, "AgentDual (Work token)"},
        {&ecCert, kEcKey, 0, AT_SIGNATURE, "AgentEc (Work token)"}};
    for (const Expected& e : expected) {
        const Entry* entry = find(store, *e.der);
        ASSERT_NE(entry, nullptr) << e.friendly;
        EXPECT_TRUE(entry->keyProvider.present) << e.friendly;
        EXPECT_EQ(entry->keyProvider.provider, "Calyth Cryptographic Provider CSP") << e.friendly;
        EXPECT_EQ(entry->keyProvider.container, e.keyId) << e.friendly;
        EXPECT_EQ(entry->keyProvider.providerType, e.type) << e.friendly;
        EXPECT_EQ(entry->keyProvider.keySpec, e.keySpec) << e.friendly;
        EXPECT_EQ(entry->friendlyName, e.friendly);
        EXPECT_EQ(entry->description, "Added by calyth-agent from token SN-A");
    }
}

TEST_F(AgentPass, ATokenWithoutALabelIsNamedByItsSerialAndACertificateIsFoundByLabelToo) {
    Bytes cert = selfSigned("AgentByLabel");
    fake::Token& token = fake::addToken("SN-L");
    token.info.label = "";
    CalythKeyPair pair = keyPair(kSignKey, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048, "signer");
    pair.objectIdLength = 0;  // nothing to link by but the label
    fake::addKeyPair("SN-L", pair);
    token.certificates = {testcerts::certificateRecord(cert, "signer")};

    PassResult result = pass();
    std::vector<Entry> store = personal();
    const Entry* entry = find(store, cert);
    ASSERT_NE(entry, nullptr) << allLines(result);
    EXPECT_EQ(entry->friendlyName, "AgentByLabel (SN-L)");
    EXPECT_EQ(entry->keyProvider.container, kSignKey);
}

TEST_F(AgentPass, UnplugRemovesPlugAgainBringsBackAndTwoTokensGoTheirOwnWays) {
    Bytes first = selfSigned("AgentFirst");
    Bytes second = selfSigned("AgentSecond");
    for (const char* serial : {"SN-1", "SN-2"}) {
        fake::addToken(serial);
        CalythKeyPair pair =
            keyPair(serial[3] == '1' ? kSignKey : kExchangeKey, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048);
        fake::addKeyPair(serial, pair);
        fake::token(serial).certificates = {linkedCertificate(serial[3] == '1' ? first : second, pair)};
    }
    ASSERT_EQ(pass().added, 2);

    fake::setConnected("SN-1", false);
    PassResult removed = pass();
    EXPECT_TRUE(hasLine(removed, "removed from " + names_.personal + ": CN=AgentFirst (token SN-1)"))
        << allLines(removed);
    EXPECT_EQ(countOf(personal(), first), 0u);
    EXPECT_EQ(countOf(personal(), second), 1u);

    fake::setConnected("SN-2", false);
    fake::setConnected("SN-1", true);
    PassResult swapped = pass();
    EXPECT_EQ(swapped.added, 1) << allLines(swapped);
    EXPECT_EQ(swapped.removed, 1) << allLines(swapped);
    EXPECT_EQ(countOf(personal(), first), 1u);
    EXPECT_EQ(countOf(personal(), second), 0u);
    // The token plugged in again is initialised again, as a device expects.
    EXPECT_GE(fake::callsTo("calyth_initDevice").size(), 3u);
}

TEST_F(AgentPass, ASecondPassWithNothingChangedWritesNothingAndAddsNothingTwice) {
    Bytes cert = selfSigned("AgentQuiet");
    tokenWithCertifiedKey("SN-Q", cert);
    ASSERT_TRUE(pass().wroteStore);
    FILETIME before = lastWrite(names_.personal);
    Sleep(50);  // the registry's clock must be able to show a later write

    PassResult again = pass();
    EXPECT_FALSE(again.wroteStore) << allLines(again);
    EXPECT_EQ(again.added + again.removed + again.updated, 0) << allLines(again);
    EXPECT_TRUE(hasLine(again, "kept in " + names_.personal + ": CN=AgentQuiet")) << allLines(again);
    FILETIME after = lastWrite(names_.personal);
    EXPECT_EQ(CompareFileTime(&before, &after), 0);
    EXPECT_EQ(countOf(personal(), cert), 1u);
}

TEST_F(AgentPass, WhatTheUserImportedAndOtherProvidersCertificatesStay) {
    Bytes token = selfSigned("AgentOnToken");
    Bytes userOwn = selfSigned("AgentUserOwn");
    Bytes userNamingProvider = selfSigned("AgentUserNamingProvider");
    Bytes otherProvider = selfSigned("AgentOtherProvider");
    addByHand(userOwn);
    addByHand(userNamingProvider, "Calyth Cryptographic Provider CSP");
    addByHand(otherProvider, "Microsoft Enhanced Cryptographic Provider v1.0");
    // The token's own certificate imported by hand before the agent saw it: it stays the user's.
    addByHand(token, "Calyth Cryptographic Provider CSP", AT_KEYEXCHANGE);
    tokenWithCertifiedKey("SN-U", token);

    PassResult result = pass();
    EXPECT_EQ(result.added, 0) << allLines(result);
    EXPECT_TRUE(hasLine(result, "left as it is in " + names_.personal + ": CN=AgentOnToken"))
        << allLines(result);
    fake::setConnected("SN-U", false);
    EXPECT_EQ(pass().removed, 0);
    EXPECT_EQ(removeAll(names_).removed, 0);

    std::vector<Entry> store = personal();
    EXPECT_EQ(store.size(), 4u);
    const Entry* own = find(store, token);
    ASSERT_NE(own, nullptr);
    EXPECT_EQ(own->keyProvider.keySpec, static_cast<DWORD>(AT_KEYEXCHANGE)) << "the user's entry was changed";
    EXPECT_EQ(own->description, "");
    EXPECT_EQ(countOf(store, userNamingProvider), 1u);
    EXPECT_EQ(countOf(store, otherProvider), 1u);
}

TEST_F(AgentPass, IntermediatesGoToCaRootsNowhereAndLeaveWhenNoConnectedTokenNeedsThem) {
    const testcerts::TestChain& chain = testcerts::opensslChain();
    HCERTSTORE root = CertOpenStore(CERT_STORE_PROV_SYSTEM_A, 0, 0,
                                    CERT_SYSTEM_STORE_CURRENT_USER | CERT_STORE_READONLY_FLAG, "Root");
    size_t rootsBefore = 0;
    for (PCCERT_CONTEXT c = nullptr; (c = CertEnumCertificatesInStore(root, c)) != nullptr;)
        ++rootsBefore;
    for (const char* serial : {"SN-C1", "SN-C2"}) {
        fake::addToken(serial);
        CalythKeyPair pair =
            keyPair(serial[4] == '1' ? kSignKey : kExchangeKey, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048);
        fake::addKeyPair(serial, pair);
        // Both tokens hold the same certificate chain; only the first carries the root.
        fake::token(serial).certificates = {
            testcerts::certificateRecord(chain.intermediate.der, "Intermediate"),
            linkedCertificate(chain.leaf.der, pair)};
        if (serial[4] == '1')
            fake::token(serial).certificates.push_back(testcerts::certificateRecord(chain.root.der, "Root"));
    }
    PassResult result = pass();
    EXPECT_EQ(countOf(authorities(), chain.intermediate.der), 1u) << allLines(result);
    EXPECT_EQ(countOf(authorities(), chain.root.der), 0u);
    EXPECT_EQ(countOf(personal(), chain.root.der), 0u);
    EXPECT_EQ(countOf(personal(), chain.leaf.der), 1u);
    EXPECT_TRUE(hasLine(result, "the chain of " + testcerts::detailsOf(chain.leaf.der).subjectName))
        << allLines(result);
    EXPECT_NE(allLines(result).find("which this machine does not trust"), std::string::npos)
        << allLines(result);

    // The intermediate stays while the second token still needs it.
    fake::setConnected("SN-C1", false);
    pass();
    EXPECT_EQ(countOf(authorities(), chain.intermediate.der), 1u);
    fake::setConnected("SN-C2", false);
    PassResult gone = pass();
    EXPECT_EQ(countOf(authorities(), chain.intermediate.der), 0u) << allLines(gone);
    EXPECT_EQ(countOf(personal(), chain.leaf.der), 0u);

    size_t rootsAfter = 0;
    for (PCCERT_CONTEXT c = nullptr; (c = CertEnumCertificatesInStore(root, c)) != nullptr;)
        ++rootsAfter;
    CertCloseStore(root, 0);
    EXPECT_EQ(rootsAfter, rootsBefore);
}

TEST_F(AgentPass, KeysWithoutCertificatesAndCertificatesWithoutKeysAddNothing) {
    Bytes orphan = selfSigned("AgentOrphan");
    fake::addToken("SN-K");
    fake::addKeyPair("SN-K", keyPair(kSignKey, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048));
    fake::token("SN-K").certificates = {testcerts::certificateRecord(orphan, "nobody's")};
    PassResult result = pass();
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.added, 0) << allLines(result);
    EXPECT_TRUE(personal().empty());
    EXPECT_TRUE(authorities().empty());
}

TEST_F(AgentPass, ACertificateOrAKeyPairDeletedFromTheTokenLeavesOnTheNextPass) {
    Bytes first = selfSigned("AgentDeletedCert");
    Bytes second = selfSigned("AgentDeletedKey");
    fake::Token& token = fake::addToken("SN-D");
    CalythKeyPair a = keyPair(kSignKey, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048);
    CalythKeyPair b = keyPair(kExchangeKey, CALYTH_USAGE_EXCHANGE, CALYTH_KEY_RSA_2048);
    fake::addKeyPair("SN-D", a);
    fake::addKeyPair("SN-D", b);
    token.certificates = {linkedCertificate(first, a), linkedCertificate(second, b)};
    ASSERT_EQ(pass().added, 2);

    token.certificates.erase(token.certificates.begin());
    PassResult certificateGone = pass();
    EXPECT_EQ(certificateGone.removed, 1) << allLines(certificateGone);
    EXPECT_EQ(countOf(personal(), first), 0u);

    token.keyPairs.erase(token.keyPairs.begin() + 1);
    PassResult keyGone = pass();
    EXPECT_EQ(keyGone.removed, 1) << allLines(keyGone);
    EXPECT_TRUE(personal().empty());
}

TEST_F(AgentPass, ACorruptCertificateIsSkippedWithALineAndTheOthersStillGoIn) {
    Bytes good = selfSigned("AgentGood");
    Bytes corrupt = selfSigned("AgentCorrupt");
    corrupt[0] = 0x31;  // a SET where the certificate's SEQUENCE starts
    fake::Token& token = fake::addToken("SN-X");
    CalythKeyPair a = keyPair(kSignKey, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048);
    CalythKeyPair b = keyPair(kExchangeKey, CALYTH_USAGE_EXCHANGE, CALYTH_KEY_RSA_2048);
    fake::addKeyPair("SN-X", a);
    fake::addKeyPair("SN-X", b);
    CalythCertificate hostile = linkedCertificate(corrupt, b, "broken");
    CalythCertificate longLength = linkedCertificate(good, b, "too long");
    longLength.derLength = 100000;  // longer than the record: never read past it
    token.certificates = {hostile, longLength, linkedCertificate(good, a)};

    PassResult result = pass();
    EXPECT_EQ(result.error, "");
    EXPECT_TRUE(hasLine(result, "skipped: certificate \"broken\" on token SN-X does not parse"))
        << allLines(result);
    EXPECT_TRUE(hasLine(result, "skipped: certificate \"too long\" on token SN-X does not parse"))
        << allLines(result);
    EXPECT_EQ(countOf(personal(), good), 1u);
    EXPECT_EQ(personal().size(), 1u);
}

TEST_F(AgentPass, ATokenMissingFromOneDeviceListIsLookedForAgainBeforeItsCertificatesLeave) {
    Bytes cert = selfSigned("AgentFlicker");
    tokenWithCertifiedKey("SN-F", cert);
    ASSERT_EQ(pass().added, 1);

    // The next device list leaves the token out, the one after it lists it again.
    int lists = 0;
    fake::hooks().afterCall = [&](const fake::Call& call) {
        if (call.function == "calyth_getConnectedDeviceList")
            fake::setConnected("SN-F", ++lists != 1);
    };
    PassResult result = pass();
    EXPECT_EQ(lists, 2);
    EXPECT_EQ(result.removed, 0) << allLines(result);
    EXPECT_FALSE(result.wroteStore);
    EXPECT_EQ(countOf(personal(), cert), 1u);

    // Gone from both lists: removed.
    lists = 0;
    fake::hooks().afterCall = [&](const fake::Call& call) {
        if (call.function == "calyth_getConnectedDeviceList") {
            ++lists;
            fake::setConnected("SN-F", false);
        }
    };
    EXPECT_EQ(pass().removed, 1);
    EXPECT_EQ(lists, 2);
    EXPECT_EQ(countOf(personal(), cert), 0u);
}

TEST_F(AgentPass, ATokenThatDoesNotInitialiseKeepsWhatIsInTheStore) {
    Bytes cert = selfSigned("AgentHeld");
    tokenWithCertifiedKey("SN-H", cert);
    ASSERT_EQ(pass().added, 1);

    DeviceSession fresh{&library_, {}};  // a new process: the serial is initialised again
    session_ = fresh;
    fake::token("SN-H").initResult = 5;
    PassResult result = propagate(readConnectedTokens(&session_, markedSerials(names_)), names_);
    EXPECT_EQ(result.removed, 0) << allLines(result);
    EXPECT_EQ(countOf(personal(), cert), 1u);
}

TEST_F(AgentPass, AChangedKeyUsageUpdatesTheKeyProviderInformation) {
    Bytes cert = selfSigned("AgentUsage");
    tokenWithCertifiedKey("SN-W", cert);
    ASSERT_EQ(pass().added, 1);

    fake::token("SN-W").keyPairs[0].keyUsage = CALYTH_USAGE_EXCHANGE;
    PassResult result = pass();
    EXPECT_EQ(result.updated, 1) << allLines(result);
    std::vector<Entry> store = personal();
    const Entry* entry = find(store, cert);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->keyProvider.keySpec, static_cast<DWORD>(AT_KEYEXCHANGE));
    EXPECT_EQ(countOf(personal(), cert), 1u);
}

TEST_F(AgentPass, RemoveAllTakesOutOnlyWhatTheAgentAdded) {
    const testcerts::TestChain& chain = testcerts::opensslChain();
    Bytes own = selfSigned("AgentKeptOnRemoveAll");
    addByHand(own);
    fake::addToken("SN-R");
    CalythKeyPair pair = keyPair(kSignKey, CALYTH_USAGE_SIGNATURE, CALYTH_KEY_RSA_2048);
    fake::addKeyPair("SN-R", pair);
    fake::token("SN-R").certificates = {testcerts::certificateRecord(chain.intermediate.der, "Intermediate"),
                                        linkedCertificate(chain.leaf.der, pair)};
    ASSERT_EQ(pass().added, 2);

    PassResult result = removeAll(names_);
    EXPECT_EQ(result.removed, 2) << allLines(result);
    EXPECT_TRUE(authorities().empty());
    ASSERT_EQ(personal().size(), 1u);
    EXPECT_EQ(personal()[0].der, own);
}

}  // namespace
