#include "support/test_certificates.h"

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <sstream>

#include "support/test_support.h"

namespace testcerts {
namespace {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

std::string nameText(const CERT_NAME_BLOB& name) {
    DWORD flags = CERT_X500_NAME_STR | CERT_NAME_STR_REVERSE_FLAG;
    CERT_NAME_BLOB copy = name;
    DWORD size = CertNameToStrA(X509_ASN_ENCODING, &copy, flags, nullptr, 0);
    std::string text(size, '\0');
    CertNameToStrA(X509_ASN_ENCODING, &copy, flags, text.data(), size);
    text.resize(size > 0 ? size - 1 : 0);
    return text;
}

std::string commonName(const CERT_CONTEXT* context, DWORD flags) {
    char buffer[256] = {};
    CertGetNameStringA(context, CERT_NAME_ATTR_TYPE, flags, const_cast<char*>(szOID_COMMON_NAME), buffer,
                       sizeof buffer);
    return buffer;
}

std::string timeText(const FILETIME& time) {
    SYSTEMTIME st{};
    FileTimeToSystemTime(&time, &st);
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%04u-%02u-%02u %02u:%02u:%02u", st.wYear, st.wMonth, st.wDay,
                  st.wHour, st.wMinute, st.wSecond);
    return buffer;
}

std::vector<unsigned char> rsaModulus(const CERT_PUBLIC_KEY_INFO& info) {
    BYTE* blob = nullptr;
    DWORD size = 0;
    if (!CryptDecodeObjectEx(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, info.PublicKey.pbData,
                             info.PublicKey.cbData, CRYPT_DECODE_ALLOC_FLAG, nullptr, &blob, &size))
        return {};
    const RSAPUBKEY* rsa = reinterpret_cast<const RSAPUBKEY*>(blob + sizeof(PUBLICKEYSTRUC));
    const BYTE* modulus = blob + sizeof(PUBLICKEYSTRUC) + sizeof(RSAPUBKEY);
    std::vector<unsigned char> out(modulus, modulus + rsa->bitlen / 8);
    std::reverse(out.begin(), out.end());  // CryptoAPI blobs are little-endian
    LocalFree(blob);
    while (out.size() > 1 && out.front() == 0)
        out.erase(out.begin());
    return out;
}

bool run(const std::string& arguments) {
    std::string output;
    int rc = testsupport::runOpenSsl(arguments, &output);
    EXPECT_EQ(rc, 0) << "openssl " << arguments << "\n" << output;
    return rc == 0;
}

// Key and certificate files of one certificate, by short name.
struct Paths {
    std::string key, csr, pem, der;
};

Paths pathsOf(const std::string& name) {
    std::string base = testsupport::tempFolder() + "testcert-" + name;
    return Paths{testsupport::unixPath(base + ".key"), testsupport::unixPath(base + ".csr"),
                 testsupport::unixPath(base + ".pem"), base + ".der"};
}

bool makeSelfSignedCa(const std::string& name, const std::string& subject) {
    Paths p = pathsOf(name);
    return run("req -x509 -newkey rsa:2048 -nodes -sha256 -days 3650 -keyout " + p.key + " -out " + p.pem +
               " -subj " + subject + " -addext basicConstraints=critical,CA:TRUE" +
               " -addext keyUsage=critical,keyCertSign,cRLSign") &&
           run("x509 -in " + p.pem + " -outform DER -out " + testsupport::unixPath(p.der));
}

bool makeSigned(const std::string& name, const std::string& subject, const std::string& issuer, bool ca) {
    Paths p = pathsOf(name);
    Paths i = pathsOf(issuer);
    std::string extensions =
        ca ? " -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign"
           : " -addext basicConstraints=critical,CA:FALSE -addext keyUsage=critical,digitalSignature";
    return run("req -new -newkey rsa:2048 -nodes -sha256 -keyout " + p.key + " -out " + p.csr + " -subj " +
               subject + extensions) &&
           run("x509 -req -sha256 -days 3000 -in " + p.csr + " -CA " + i.pem + " -CAkey " + i.key +
               " -set_serial 0x" + std::to_string(1000 + name.size()) + " -copy_extensions copyall -out " +
               p.pem) &&
           run("x509 -in " + p.pem + " -outform DER -out " + testsupport::unixPath(p.der));
}

TestCertificate load(const std::string& name, const std::string& commonName) {
    TestCertificate out;
    out.commonName = commonName;
    out.der = testsupport::readFile(pathsOf(name).der);
    out.details = detailsOf(out.der);
    return out;
}

TestChain makeChain() {
    TestChain chain;
    bool ok = makeSelfSignedCa("root", "/C=IN/O=CalythTests/CN=CalythTestRoot") &&
              makeSigned("intermediate", "/C=IN/O=CalythTests/CN=CalythTestIntermediate", "root", true) &&
              makeSigned("leaf", "/C=IN/O=CalythTests/CN=CalythTestLeaf", "intermediate", false) &&
              makeSelfSignedCa("otherroot", "/C=IN/O=Elsewhere/CN=ElsewhereRoot") &&
              makeSigned("strangerleaf", "/C=IN/O=Elsewhere/CN=StrangerLeaf", "otherroot", false);
    if (!ok)
        return chain;
    chain.root = load("root", "CalythTestRoot");
    chain.intermediate = load("intermediate", "CalythTestIntermediate");
    chain.leaf = load("leaf", "CalythTestLeaf");
    chain.strangerLeaf = load("strangerleaf", "StrangerLeaf");
    return chain;
}

}  // namespace

const TestChain& opensslChain() {
    static const TestChain chain = makeChain();
    EXPECT_FALSE(chain.leaf.der.empty()) << "openssl could not make the test certificates";
    return chain;
}

CertificateDetails detailsOf(const std::vector<unsigned char>& der) {
    CertificateDetails details;
    const CERT_CONTEXT* context =
        CertCreateCertificateContext(kEncoding, der.data(), static_cast<DWORD>(der.size()));
    if (!context)
        return details;
    const CERT_INFO* info = context->pCertInfo;
    details.subjectName = nameText(info->Subject);
    details.issuerName = nameText(info->Issuer);
    details.subjectCommonName = commonName(context, 0);
    details.issuerCommonName = commonName(context, CERT_NAME_ISSUER_FLAG);
    std::ostringstream serial;
    for (DWORD i = info->SerialNumber.cbData; i > 0; --i) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02X", info->SerialNumber.pbData[i - 1]);
        serial << digits;
    }
    details.serialNumberHex = serial.str();
    details.notBefore = timeText(info->NotBefore);
    details.notAfter = timeText(info->NotAfter);
    details.publicKey = rsaModulus(info->SubjectPublicKeyInfo);
    details.keySizeCode = details.publicKey.size() == 256 ? CALYTH_KEY_RSA_2048 : 0;
    details.selfSigned = CertCompareCertificateName(X509_ASN_ENCODING, &context->pCertInfo->Subject,
                                                    &context->pCertInfo->Issuer) != FALSE;
    CertFreeCertificateContext(context);
    return details;
}

CalythCertificate certificateRecord(const std::vector<unsigned char>& der, const std::string& label) {
    CalythCertificate record{};
    size_t length = std::min(der.size(), sizeof record.der);
    std::memcpy(record.der, der.data(), length);
    record.derLength = static_cast<int32_t>(length);
    std::strncpy(record.label, label.c_str(), 128);
    return record;
}

CalythKeyPair keyPairFor(const std::string& keyIdHex, const CertificateDetails& details, int32_t usage,
                         const std::string& label) {
    CalythKeyPair keyPair{};
    for (size_t i = 0; i < 16 && 2 * i + 1 < keyIdHex.size(); ++i)
        keyPair.keyId[i] = static_cast<unsigned char>(std::stoi(keyIdHex.substr(2 * i, 2), nullptr, 16));
    size_t length = std::min(details.publicKey.size(), sizeof keyPair.publicKey);
    std::memcpy(keyPair.publicKey, details.publicKey.data(), length);
    keyPair.publicKeyLength = static_cast<int32_t>(length);
    std::strncpy(keyPair.label, label.c_str(), 128);
    keyPair.keyUsage = usage;
    keyPair.keySizeCode = CALYTH_KEY_RSA_2048;
    keyPair.tokenFlag = 1;
    return keyPair;
}

std::vector<std::vector<unsigned char>> pkcs7Certificates(const std::vector<unsigned char>& pkcs7) {
    std::vector<std::vector<unsigned char>> out;
    HCRYPTMSG message = CryptMsgOpenToDecode(kEncoding, 0, 0, 0, nullptr, nullptr);
    if (!message)
        return out;
    DWORD count = 0;
    DWORD size = sizeof count;
    if (CryptMsgUpdate(message, pkcs7.data(), static_cast<DWORD>(pkcs7.size()), TRUE) &&
        CryptMsgGetParam(message, CMSG_CERT_COUNT_PARAM, 0, &count, &size)) {
        for (DWORD i = 0; i < count; ++i) {
            DWORD length = 0;
            CryptMsgGetParam(message, CMSG_CERT_PARAM, i, nullptr, &length);
            std::vector<unsigned char> certificate(length);
            if (CryptMsgGetParam(message, CMSG_CERT_PARAM, i, certificate.data(), &length))
                out.push_back(certificate);
        }
    }
    CryptMsgClose(message);
    return out;
}

MessageShape pkcs7Shape(const std::vector<unsigned char>& pkcs7) {
    MessageShape shape;
    HCRYPTMSG message = CryptMsgOpenToDecode(kEncoding, 0, 0, 0, nullptr, nullptr);
    if (!message)
        return shape;
    if (CryptMsgUpdate(message, pkcs7.data(), static_cast<DWORD>(pkcs7.size()), TRUE)) {
        DWORD value = 0;
        DWORD size = sizeof value;
        if (CryptMsgGetParam(message, CMSG_TYPE_PARAM, 0, &value, &size))
            shape.type = value;
        size = sizeof value;
        if (CryptMsgGetParam(message, CMSG_CERT_COUNT_PARAM, 0, &value, &size))
            shape.certificates = value;
        size = sizeof value;
        if (CryptMsgGetParam(message, CMSG_SIGNER_COUNT_PARAM, 0, &value, &size))
            shape.signers = value;
        DWORD contentSize = 0;
        if (CryptMsgGetParam(message, CMSG_CONTENT_PARAM, 0, nullptr, &contentSize))
            shape.contentSize = contentSize;
    }
    CryptMsgClose(message);
    return shape;
}

}  // namespace testcerts
