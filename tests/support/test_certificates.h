// Real X.509 certificates for tests, made by the native openssl: a root CA, an intermediate CA it
// signed, and a leaf the intermediate signed (RSA-2048, DER). Their CertificateDetails are read
// with crypt32, in the device library's form, so that a fake token can answer for them.
#pragma once

#include <string>
#include <vector>

#include "token/device_library.h"

namespace testcerts {

struct TestCertificate {
    std::string commonName;
    std::vector<unsigned char> der;
    CertificateDetails details;
};

struct TestChain {
    TestCertificate root;
    TestCertificate intermediate;
    TestCertificate leaf;
    // A second leaf signed by a CA that is nowhere on the token.
    TestCertificate strangerLeaf;
};

// Made once per program, in the program's temporary folder. Fails the calling test (and answers
// empty certificates) when openssl is not available.
const TestChain& opensslChain();

// Subject and issuer as "C=.., O=.., CN=..", common names, serial, validity and the RSA modulus
// (big-endian, no leading zero), as the device library reports them.
CertificateDetails detailsOf(const std::vector<unsigned char>& der);

// A certificate record holding the DER bytes and the label.
CalythCertificate certificateRecord(const std::vector<unsigned char>& der, const std::string& label = "");

// A key pair record whose public key is the certificate's public key.
CalythKeyPair keyPairFor(const std::string& keyIdHex, const CertificateDetails& details, int32_t usage,
                         const std::string& label = "");

// The certificates of a PKCS #7 SignedData message in the order of the message, as crypt32's
// decoder reads them; empty when the bytes are no such message.
std::vector<std::vector<unsigned char>> pkcs7Certificates(const std::vector<unsigned char>& pkcs7);

// Message type, certificate count, signer count and inner content size of a PKCS #7 message.
struct MessageShape {
    unsigned long type = 0;
    unsigned long certificates = 0;
    unsigned long signers = 0;
    unsigned long contentSize = 0;
};
MessageShape pkcs7Shape(const std::vector<unsigned char>& pkcs7);

}  // namespace testcerts
