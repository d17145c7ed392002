// Signing through CryptoAPI: a raw PKCS #1 signature with CryptSignHash, or a CMS SignedData with
// CryptSignMessage and the key's certificate read from the token.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <string>
#include <vector>

namespace calythsign {

using Bytes = std::vector<unsigned char>;

struct SignRequest {
    std::string provider;   // registered CryptoAPI provider name
    std::string container;  // the key's 32-character id
    std::string pin;        // handed over with PP_SIGNATURE_PIN; empty: the provider asks for it
    ALG_ID hash = CALG_SHA_256;
    bool attached = false;  // CMS only: carry the document inside the message
};

// Why a step failed: the CryptoAPI function and its last error.
struct SignError {
    std::string step;
    DWORD error = 0;
};

// PKCS #1 v1.5 signature of `document`, big-endian (the byte order of OpenSSL and of the token).
bool signHash(const SignRequest& request, const Bytes& document, Bytes* signature, SignError* failure);

// CMS SignedData (DER) over `document`, signed with the key and carrying its certificate, which is
// read from the token through KP_CERTIFICATE.
bool signMessage(const SignRequest& request, const Bytes& document, Bytes* message, SignError* failure);

// What an application that knows only its certificate's subject signs with.
struct SubjectSignRequest {
    std::string
        subject;      // found in the current user's personal store ("MY"), as CERT_FIND_SUBJECT_STR finds it
    std::string pin;  // handed to the certificate's provider first; empty: the provider asks
    ALG_ID hash = CALG_SHA_256;
    bool attached = false;
};

// CMS SignedData (DER) over `document` made the way applications sign with "my certificate": the
// certificate found by subject in the user's store, its private key acquired by crypt32 through
// the certificate's key provider information, CryptSignMessage.
bool signMessageAsSubject(const SubjectSignRequest& request, const Bytes& document, Bytes* message,
                          SignError* failure);

// CryptSignMessage with `certificate`, whose key provider information names its key; the message
// carries the certificate.
bool signWithCertificate(PCCERT_CONTEXT certificate, ALG_ID hash, bool attached, const Bytes& document,
                         Bytes* message, SignError* failure);

// The CryptoAPI hash id for "sha1", "sha256", "sha384", "sha512"; 0 for anything else.
ALG_ID hashByName(const std::string& name);

}  // namespace calythsign
