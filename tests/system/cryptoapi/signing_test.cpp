// Signatures made by real CryptoAPI clients: advapi32's CryptSignHash and crypt32's CryptSignMessage
// reach CalythCSP.dll through its registration, the soft token signs, and the native OpenSSL
// verifies the results with the key's public key exported by calyth-token. The program runs
// headless: the PIN is handed over with CryptSetProvParam, never typed into the dialog.
#include <windows.h>

#include <wincrypt.h>

#include <cctype>
#include <cstring>
#include <gtest/gtest.h>

#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/test_certificates.h"
#include "support/test_support.h"
#include "support/token_tool.h"
#include "util/utils.h"

using namespace testsupport;
using testsupport::unixPath;

namespace {

constexpr const char* kSerial = "CLIENT-SIGN-01";
constexpr const char* kPin = "246810";
const Bytes kDocument = bytesOf("The quarterly figures, signed on the token.\n");

struct SigningToken {
    std::string keyId;
    std::string publicPem;
};

// The token, its key and the key's public key as OpenSSL reads it: made once for the program.
const SigningToken& signingToken() {
    static SigningToken token = [] {
        SigningToken made;
        EXPECT_EQ(registerProvider(), ERROR_SUCCESS);
        useFreshTokenStore();
        if (!makeToken(kSerial, std::string("--pin ") + kPin))
            return made;
        made.keyId = makeKey(kSerial, "rsa2048", "--usage both --label ClientSigner");
        if (!made.keyId.empty())
            made.publicPem = exportPublicKey(kSerial, made.keyId, tempPath("signer-pub.pem"));
        return made;
    }();
    return token;
}

class Signing : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(token.keyId.empty());
        ASSERT_FALSE(token.publicPem.empty());
    }

    // A context on the signing key with the PIN handed over.
    void openWithPin(Provider& provider) {
        ASSERT_TRUE(acquire(provider, token.keyId.c_str())) << std::hex << GetLastError();
        ASSERT_TRUE(
            CryptSetProvParam(provider.handle, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(kPin), 0))
            << std::hex << GetLastError();
    }

    // CryptCreateHash + CryptHashData + CryptSignHash; the little-endian signature CryptoAPI hands out.
    static Bytes signDocument(HCRYPTPROV provider, ALG_ID algorithm, const Bytes& data) {
        HCRYPTHASH hash = 0;
        EXPECT_TRUE(CryptCreateHash(provider, algorithm, 0, 0, &hash)) << std::hex << GetLastError();
        if (!hash)
            return {};
        EXPECT_TRUE(CryptHashData(hash, data.data(), static_cast<DWORD>(data.size()), 0));
        DWORD length = 0;
        EXPECT_TRUE(CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, nullptr, &length));
        Bytes signature(length);
        BOOL signedOk = CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature.data(), &length);
        EXPECT_TRUE(signedOk) << std::hex << GetLastError();
        CryptDestroyHash(hash);
        if (!signedOk)
            return {};
        signature.resize(length);
        return signature;
    }

    const SigningToken& token = signingToken();
};

struct HashCase {
    ALG_ID algorithm;
    const char* opensslName;
};

class SigningPerHash : public Signing, public ::testing::WithParamInterface<HashCase> {};

TEST_P(SigningPerHash, SignHashIsVerifiedByOpenSsl) {
    Provider provider;
    openWithPin(provider);
    testsupport::clearLog();
    Bytes signature = signDocument(provider.handle, GetParam().algorithm, kDocument);
    ASSERT_EQ(signature.size(), 256u);
    // The provider answered, not a built-in one: its own log lines are in this program's log.
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSignHash"));

    std::string name = GetParam().opensslName;
    std::string data = writeTemp("document-" + name + ".txt", kDocument);
    std::string sig = writeTemp("document-" + name + ".sig", reversed(signature));
    std::string output;
    EXPECT_EQ(runOpenSsl("dgst -" + name + " -verify " + unixPath(token.publicPem) + " -signature " +
                             unixPath(sig) + " " + unixPath(data),
                         &output),
              0)
        << output;
    EXPECT_NE(output.find("Verified OK"), std::string::npos) << output;

    // The same bytes as CryptoAPI handed them out (little-endian) do not verify.
    std::string wrongOrder = writeTemp("document-" + name + ".le.sig", signature);
    EXPECT_NE(runOpenSsl("dgst -" + name + " -verify " + unixPath(token.publicPem) + " -signature " +
                         unixPath(wrongOrder) + " " + unixPath(data)),
              0);
}

INSTANTIATE_TEST_SUITE_P(Hashes, SigningPerHash,
                         ::testing::Values(HashCase{CALG_SHA1, "sha1"}, HashCase{CALG_SHA_256, "sha256"},
                                           HashCase{CALG_SHA_384, "sha384"},
                                           HashCase{CALG_SHA_512, "sha512"}),
                         [](const ::testing::TestParamInfo<HashCase>& testInfo) {
                             return std::string(testInfo.param.opensslName);
                         });

TEST_F(Signing, SizeQueryAnswers256) {
    Provider provider;
    openWithPin(provider);
    HCRYPTHASH hash = 0;
    ASSERT_TRUE(CryptCreateHash(provider.handle, CALG_SHA_256, 0, 0, &hash));
    ASSERT_TRUE(CryptHashData(hash, kDocument.data(), static_cast<DWORD>(kDocument.size()), 0));
    DWORD length = 0;
    EXPECT_TRUE(CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, nullptr, &length));
    EXPECT_EQ(length, 256u);
    CryptDestroyHash(hash);
}

TEST_F(Signing, HashValueReadBackIsTheDigestOpenSslComputes) {
    Provider provider;
    openWithPin(provider);
    HCRYPTHASH hash = 0;
    ASSERT_TRUE(CryptCreateHash(provider.handle, CALG_SHA_256, 0, 0, &hash));
    ASSERT_TRUE(CryptHashData(hash, kDocument.data(), static_cast<DWORD>(kDocument.size()), 0));
    Bytes value(32);
    DWORD length = static_cast<DWORD>(value.size());
    ASSERT_TRUE(CryptGetHashParam(hash, HP_HASHVAL, value.data(), &length, 0)) << std::hex << GetLastError();
    CryptDestroyHash(hash);

    std::string data = writeTemp("digest-input.txt", kDocument);
    std::string output;
    ASSERT_EQ(runOpenSsl("dgst -sha256 -r " + unixPath(data), &output), 0) << output;
    std::string expected = Utils().bytesToHex(value.data(), static_cast<int>(length));
    for (char& c : expected)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    EXPECT_EQ(length, 32u);
    EXPECT_EQ(output.substr(0, 64), expected);
}

TEST_F(Signing, VerifySignatureThroughTheTokenKeyAcceptsItsSignatureAndRejectsAChangedOne) {
    Provider provider;
    openWithPin(provider);
    Bytes signature = signDocument(provider.handle, CALG_SHA_256, kDocument);
    ASSERT_EQ(signature.size(), 256u);

    HCRYPTKEY key = 0;
    ASSERT_TRUE(CryptGetUserKey(provider.handle, AT_SIGNATURE, &key)) << std::hex << GetLastError();
    HCRYPTHASH hash = 0;
    ASSERT_TRUE(CryptCreateHash(provider.handle, CALG_SHA_256, 0, 0, &hash));
    ASSERT_TRUE(CryptHashData(hash, kDocument.data(), static_cast<DWORD>(kDocument.size()), 0));
    EXPECT_TRUE(
        CryptVerifySignatureA(hash, signature.data(), static_cast<DWORD>(signature.size()), key, nullptr, 0))
        << std::hex << GetLastError();
    Bytes changed = signature;
    changed[10] ^= 0x01;
    SetLastError(0);
    EXPECT_FALSE(
        CryptVerifySignatureA(hash, changed.data(), static_cast<DWORD>(changed.size()), key, nullptr, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_SIGNATURE));
    CryptDestroyHash(hash);
    CryptDestroyKey(key);
}

TEST_F(Signing, OpenSslSignatureIsVerifiedThroughAnImportedPublicKeyBlob) {
    std::string keyPem = tempPath("openssl-signer.key");
    std::string pubPem = tempPath("openssl-signer.pub.pem");
    std::string data = writeTemp("openssl-signed.txt", kDocument);
    std::string sig = tempPath("openssl-signed.sig");
    std::string output;
    ASSERT_EQ(
        runOpenSsl("genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out " + unixPath(keyPem), &output),
        0)
        << output;
    ASSERT_EQ(runOpenSsl("pkey -in " + unixPath(keyPem) + " -pubout -out " + unixPath(pubPem), &output), 0);
    ASSERT_EQ(
        runOpenSsl("dgst -sha256 -sign " + unixPath(keyPem) + " -out " + unixPath(sig) + " " + unixPath(data),
                   &output),
        0)
        << output;
    Bytes blob = publicKeyBlob(opensslModulus(pubPem), CALG_RSA_SIGN);

    Provider provider;
    ASSERT_TRUE(acquire(provider, token.keyId.c_str()));
    HCRYPTKEY imported = 0;
    ASSERT_TRUE(
        CryptImportKey(provider.handle, blob.data(), static_cast<DWORD>(blob.size()), 0, 0, &imported))
        << std::hex << GetLastError();
    HCRYPTHASH hash = 0;
    ASSERT_TRUE(CryptCreateHash(provider.handle, CALG_SHA_256, 0, 0, &hash));
    ASSERT_TRUE(CryptHashData(hash, kDocument.data(), static_cast<DWORD>(kDocument.size()), 0));
    Bytes signature = reversed(testsupport::readFile(sig));
    EXPECT_TRUE(CryptVerifySignatureA(hash, signature.data(), static_cast<DWORD>(signature.size()), imported,
                                      nullptr, 0))
        << std::hex << GetLastError();
    CryptDestroyHash(hash);
    CryptDestroyKey(imported);
}

TEST_F(Signing, WrongPinIsRefusedWithKeysetEntryBad) {
    Provider provider;
    ASSERT_TRUE(acquire(provider, token.keyId.c_str()));
    SetLastError(0);
    EXPECT_FALSE(
        CryptSetProvParam(provider.handle, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>("13579"), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_KEYSET_ENTRY_BAD));
    // The token counted the wrong PIN; the right one resets the count.
    std::string output;
    calythToken(std::string("list --serial ") + kSerial, &output);
    EXPECT_NE(output.find("pin attempts left: 9 of 10"), std::string::npos) << output;
    EXPECT_TRUE(CryptSetProvParam(provider.handle, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(kPin), 0));
    calythToken(std::string("list --serial ") + kSerial, &output);
    EXPECT_NE(output.find("pin attempts left: 10 of 10"), std::string::npos) << output;
}

// Tokens of their own: the validated PIN is kept per token for the whole process, so a token that
// has seen the PIN cannot show what happens without it.
TEST_F(Signing, KeyExchangePinUnlocksSigningOnASilentContext) {
    const char* serial = "CLIENT-SIGN-02";
    ASSERT_TRUE(makeToken(serial, std::string("--pin ") + "97531"));
    std::string keyId = makeKey(serial, "rsa2048", "--usage sign");
    ASSERT_FALSE(keyId.empty());
    std::string pem = exportPublicKey(serial, keyId, tempPath("silent-pub.pem"));

    Provider provider;
    ASSERT_TRUE(acquire(provider, keyId.c_str(), CRYPT_SILENT)) << std::hex << GetLastError();
    ASSERT_TRUE(
        CryptSetProvParam(provider.handle, PP_KEYEXCHANGE_PIN, reinterpret_cast<const BYTE*>("97531"), 0));
    Bytes signature = signDocument(provider.handle, CALG_SHA_256, kDocument);
    ASSERT_EQ(signature.size(), 256u);
    std::string data = writeTemp("silent.txt", kDocument);
    std::string sig = writeTemp("silent.sig", reversed(signature));
    EXPECT_EQ(runOpenSsl("dgst -sha256 -verify " + unixPath(pem) + " -signature " + unixPath(sig) + " " +
                         unixPath(data)),
              0);
}

TEST_F(Signing, WithoutPinASilentContextFailsAndAHeadlessOneEndsWithoutWaiting) {
    const char* serial = "CLIENT-SIGN-03";
    ASSERT_TRUE(makeToken(serial, std::string("--pin ") + "864200"));
    std::string keyId = makeKey(serial, "rsa2048", "--usage sign");
    ASSERT_FALSE(keyId.empty());
    std::string pem = exportPublicKey(serial, keyId, tempPath("sso-pub.pem"));

    {
        Provider silent;
        ASSERT_TRUE(acquire(silent, keyId.c_str(), CRYPT_SILENT));
        HCRYPTHASH hash = 0;
        ASSERT_TRUE(CryptCreateHash(silent.handle, CALG_SHA_256, 0, 0, &hash));
        ASSERT_TRUE(CryptHashData(hash, kDocument.data(), static_cast<DWORD>(kDocument.size()), 0));
        Bytes signature(256);
        DWORD length = 256;
        SetLastError(0);
        EXPECT_FALSE(CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature.data(), &length));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_SILENT_CONTEXT));
        CryptDestroyHash(hash);
    }
    {
        // No display: the PIN dialog cannot open, which ends the login at once.
        Provider headless;
        ASSERT_TRUE(acquire(headless, keyId.c_str()));
        HCRYPTHASH hash = 0;
        ASSERT_TRUE(CryptCreateHash(headless.handle, CALG_SHA_256, 0, 0, &hash));
        ASSERT_TRUE(CryptHashData(hash, kDocument.data(), static_cast<DWORD>(kDocument.size()), 0));
        Bytes signature(256);
        DWORD length = 256;
        testsupport::clearLog();
        SetLastError(0);
        EXPECT_FALSE(CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature.data(), &length));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
        // Nothing waited for a person: the dialog was never created.
        EXPECT_TRUE(testsupport::logHasLine("ERROR", "Password dialog creation failed : -1"));
        EXPECT_TRUE(
            testsupport::logHasLine("ERROR", "loginUser: user cancelled password dialog, return FALSE"));
        CryptDestroyHash(hash);
    }
    {
        // With the token's single sign-on on, no PIN is needed at all.
        std::string output;
        ASSERT_EQ(calythToken(std::string("sso --serial ") + serial + " on", &output), 0) << output;
        Provider sso;
        ASSERT_TRUE(acquire(sso, keyId.c_str()));
        Bytes signature = signDocument(sso.handle, CALG_SHA_256, kDocument);
        ASSERT_EQ(signature.size(), 256u);
        std::string data = writeTemp("sso.txt", kDocument);
        std::string sig = writeTemp("sso.sig", reversed(signature));
        EXPECT_EQ(runOpenSsl("dgst -sha256 -verify " + unixPath(pem) + " -signature " + unixPath(sig) + " " +
                             unixPath(data)),
                  0);
    }
}

// CryptSignMessage: crypt32 finds the private key through the certificate's key provider
// information (this provider, container = key id), opens its own context and signs through it.
struct MessageCertificate {
    std::string caPem;
    Bytes leafDer;
};

// A test CA made by OpenSSL, and a certificate it issued for the token key's public key (the
// private key never leaves the token, so the certificate is made with -force_pubkey).
const MessageCertificate& messageCertificate() {
    static MessageCertificate made = [] {
        MessageCertificate out;
        const SigningToken& token = signingToken();
        if (token.publicPem.empty())
            return out;
        std::string caKey = tempPath("message-ca.key");
        std::string caPem = tempPath("message-ca.pem");
        std::string leafPem = tempPath("message-leaf.pem");
        std::string output;
        bool ok =
            runOpenSsl("req -x509 -newkey rsa:2048 -nodes -sha256 -days 30 -keyout " + unixPath(caKey) +
                           " -out " + unixPath(caPem) + " -subj /O=CalythClients/CN=ClientsTestCA",
                       &output) == 0 &&
            runOpenSsl("x509 -new -force_pubkey " + unixPath(token.publicPem) +
                           " -subj /O=CalythClients/CN=ClientSigner -CA " + unixPath(caPem) + " -CAkey " +
                           unixPath(caKey) + " -days 30 -set_serial 4242 -sha256 -out " + unixPath(leafPem),
                       &output) == 0 &&
            runOpenSsl("x509 -in " + unixPath(leafPem) + " -outform DER -out " +
                           unixPath(tempPath("message-leaf.der")),
                       &output) == 0;
        EXPECT_TRUE(ok) << output;
        if (ok) {
            out.caPem = caPem;
            out.leafDer = readTemp("message-leaf.der");
        }
        return out;
    }();
    return made;
}

// CryptSignMessage: crypt32 finds the private key through the certificate's key provider
// information (this provider, container = key id), opens its own context and signs through it.
class SignMessage : public Signing {
protected:
    void SetUp() override {
        Signing::SetUp();
        const Bytes& leafDer = messageCertificate().leafDer;
        ASSERT_FALSE(leafDer.empty());
        certificate = CertCreateCertificateContext(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, leafDer.data(),
                                                   static_cast<DWORD>(leafDer.size()));
        ASSERT_NE(certificate, nullptr);
        std::wstring container(token.keyId.begin(), token.keyId.end());
        std::string name = kProviderName;
        std::wstring provider(name.begin(), name.end());
        CRYPT_KEY_PROV_INFO info{};
        info.pwszContainerName = container.data();
        info.pwszProvName = provider.data();
        info.dwProvType = PROV_RSA_FULL;
        info.dwKeySpec = AT_SIGNATURE;
        ASSERT_TRUE(CertSetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, 0, &info));
        // crypt32 opens a context of its own; the PIN handed over here is kept for the token, and this
        // context keeps the provider loaded meanwhile.
        openWithPin(holder);
    }

    void TearDown() override {
        if (certificate)
            CertFreeCertificateContext(certificate);
    }

    Bytes signMessage(BOOL detached) {
        CRYPT_SIGN_MESSAGE_PARA para{};
        para.cbSize = sizeof para;
        para.dwMsgEncodingType = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
        para.pSigningCert = certificate;
        para.HashAlgorithm.pszObjId = const_cast<char*>(szOID_NIST_sha256);
        para.cMsgCert = 1;
        para.rgpMsgCert = &certificate;
        const BYTE* parts[] = {kDocument.data()};
        DWORD sizes[] = {static_cast<DWORD>(kDocument.size())};
        DWORD length = 0;
        EXPECT_TRUE(CryptSignMessage(&para, detached, 1, parts, sizes, nullptr, &length))
            << std::hex << GetLastError();
        Bytes message(length);
        BOOL ok = CryptSignMessage(&para, detached, 1, parts, sizes, message.data(), &length);
        EXPECT_TRUE(ok) << std::hex << GetLastError();
        if (!ok)
            return {};
        message.resize(length);
        return message;
    }

    const std::string& caFile = messageCertificate().caPem;
    PCCERT_CONTEXT certificate = nullptr;
    Provider holder;
};

TEST_F(SignMessage, DetachedSignatureIsVerifiedByOpenSslCms) {
    testsupport::clearLog();
    Bytes message = signMessage(TRUE);
    ASSERT_FALSE(message.empty());
    EXPECT_TRUE(testsupport::logHasLine("DEBUG", "CPSignHash"));
    std::string p7s = writeTemp("detached.p7s", message);
    std::string data = writeTemp("detached.txt", kDocument);
    std::string output;
    EXPECT_EQ(runOpenSsl("cms -verify -binary -inform DER -in " + unixPath(p7s) + " -content " +
                             unixPath(data) + " -CAfile " + unixPath(caFile) + " -purpose any -out /dev/null",
                         &output),
              0)
        << output;
    EXPECT_NE(output.find("Verification successful"), std::string::npos) << output;
    // Another document does not match the signature.
    std::string other = writeTemp("detached-other.txt", bytesOf("Other figures.\n"));
    EXPECT_NE(runOpenSsl("cms -verify -binary -inform DER -in " + unixPath(p7s) + " -content " +
                         unixPath(other) + " -CAfile " + unixPath(caFile) + " -purpose any -out /dev/null"),
              0);
}

TEST_F(SignMessage, AttachedSignatureCarriesTheDocumentAndVerifiesInOpenSslAndCrypt32) {
    Bytes message = signMessage(FALSE);
    ASSERT_FALSE(message.empty());
    std::string p7s = writeTemp("attached.p7s", message);
    std::string content = tempPath("attached.out");
    std::string output;
    EXPECT_EQ(runOpenSsl("cms -verify -binary -inform DER -in " + unixPath(p7s) + " -noverify -out " +
                             unixPath(content),
                         &output),
              0)
        << output;
    EXPECT_EQ(testsupport::readFile(content), kDocument);

    CRYPT_VERIFY_MESSAGE_PARA para{};
    para.cbSize = sizeof para;
    para.dwMsgAndCertEncodingType = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
    Bytes decoded(message.size());
    DWORD decodedLength = static_cast<DWORD>(decoded.size());
    PCCERT_CONTEXT signer = nullptr;
    EXPECT_TRUE(CryptVerifyMessageSignature(&para, 0, message.data(), static_cast<DWORD>(message.size()),
                                            decoded.data(), &decodedLength, &signer))
        << std::hex << GetLastError();
    decoded.resize(decodedLength);
    EXPECT_EQ(decoded, kDocument);
    ASSERT_NE(signer, nullptr);
    EXPECT_TRUE(CertCompareCertificate(X509_ASN_ENCODING, signer->pCertInfo, certificate->pCertInfo));
    CertFreeCertificateContext(signer);
}

}  // namespace

// calyth-sign.exe, the signing tool of the main job, as a separate client process.
class SignTool : public Signing {
protected:
    static int signTool(const std::string& arguments, std::string* output) {
        return testsupport::runCommand("\"" + programFolder() + "calyth-sign.exe\" " + arguments, output);
    }
};

TEST_F(SignTool, WritesTheBigEndianSignatureOpenSslVerifies) {
    std::string data = writeTemp("tool-document.txt", kDocument);
    std::string sig = tempPath("tool-document.sig");
    std::string output;
    ASSERT_EQ(signTool("--container " + token.keyId + " --pin " + kPin + " --hash sha384 --in \"" + data +
                           "\" --out \"" + sig + "\"",
                       &output),
              0)
        << output;
    EXPECT_NE(output.find("signature: 256 bytes (sha384, " + token.keyId + ")"), std::string::npos) << output;
    EXPECT_EQ(runOpenSsl("dgst -sha384 -verify " + unixPath(token.publicPem) + " -signature " +
                             unixPath(sig) + " " + unixPath(data),
                         &output),
              0)
        << output;
}

TEST_F(SignTool, CmsCarriesTheCertificateStoredOnTheToken) {
    const MessageCertificate& certificate = messageCertificate();
    ASSERT_FALSE(certificate.leafDer.empty());
    std::string output;
    if (listedLines(kSerial, "certificate").empty()) {
        ASSERT_EQ(calythToken(std::string("import-cert --serial ") + kSerial + " --in \"" +
                                  tempPath("message-leaf.der") + "\"",
                              &output),
                  0)
            << output;
    }
    std::string data = writeTemp("tool-message.txt", kDocument);
    std::string p7s = tempPath("tool-message.p7s");
    ASSERT_EQ(signTool("--container " + token.keyId + " --pin " + kPin + " --cms --in \"" + data +
                           "\" --out \"" + p7s + "\"",
                       &output),
              0)
        << output;
    EXPECT_EQ(
        runOpenSsl("cms -verify -binary -inform DER -in " + unixPath(p7s) + " -content " + unixPath(data) +
                       " -CAfile " + unixPath(certificate.caPem) + " -purpose any -out /dev/null",
                   &output),
        0)
        << output;
    std::vector<Bytes> carried = testcerts::pkcs7Certificates(testsupport::readFile(p7s));
    ASSERT_EQ(carried.size(), 1u);
    EXPECT_EQ(carried[0], certificate.leafDer);
}

TEST_F(SignTool, WrongPinAndBadArgumentsEndWithTheirExitCodes) {
    std::string data = writeTemp("tool-refused.txt", kDocument);
    std::string sig = tempPath("tool-refused.sig");
    std::string output;
    EXPECT_EQ(
        signTool("--container " + token.keyId + " --pin 0000 --in \"" + data + "\" --out \"" + sig + "\"",
                 &output),
        1);
    EXPECT_NE(output.find("CryptSetProvParam(PP_SIGNATURE_PIN) failed: 0x8009001A"), std::string::npos)
        << output;
    EXPECT_FALSE(testsupport::pathExists(sig));
    EXPECT_EQ(signTool("--container " + token.keyId + " --in \"" + data + "\"", &output), 2);
    EXPECT_NE(output.find("missing --out"), std::string::npos) << output;
    EXPECT_EQ(
        signTool("--container " + token.keyId + " --hash md5 --in \"" + data + "\" --out \"" + sig + "\"",
                 &output),
        2);
    // A wrong PIN costs an attempt; put the count back for the other tests.
    Provider provider;
    openWithPin(provider);
}
