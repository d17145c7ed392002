#include "signer.h"

#include <algorithm>

namespace calythsign {
namespace {

bool fail(SignError* failure, const std::string& step) {
    failure->step = step;
    failure->error = GetLastError();
    return false;
}

// A provider context on the request's container, the PIN handed over when one is given.
class Context {
public:
    ~Context() {
        if (handle_)
            CryptReleaseContext(handle_, 0);
    }
    bool open(const SignRequest& request, SignError* failure) {
        if (!CryptAcquireContextA(&handle_, request.container.c_str(), request.provider.c_str(),
                                  PROV_RSA_FULL, 0))
            return fail(failure, "CryptAcquireContext");
        if (!request.pin.empty() && !CryptSetProvParam(handle_, PP_SIGNATURE_PIN,
                                                       reinterpret_cast<const BYTE*>(request.pin.c_str()), 0))
            return fail(failure, "CryptSetProvParam(PP_SIGNATURE_PIN)");
        return true;
    }
    HCRYPTPROV handle() const { return handle_; }

private:
    HCRYPTPROV handle_ = 0;
};

const char* hashOid(ALG_ID hash) {
    switch (hash) {
        case CALG_SHA1:
            return szOID_OIWSEC_sha1;
        case CALG_SHA_384:
            return szOID_NIST_sha384;
        case CALG_SHA_512:
            return szOID_NIST_sha512;
        default:
            return szOID_NIST_sha256;
    }
}

bool keyCertificate(HCRYPTPROV provider, Bytes* certificate, SignError* failure) {
    HCRYPTKEY key = 0;
    if (!CryptGetUserKey(provider, AT_SIGNATURE, &key))
        return fail(failure, "CryptGetUserKey");
    DWORD size = 0;
    bool ok = CryptGetKeyParam(key, KP_CERTIFICATE, nullptr, &size, 0);
    if (ok) {
        certificate->resize(size);
        ok = CryptGetKeyParam(key, KP_CERTIFICATE, certificate->data(), &size, 0);
        certificate->resize(size);
    }
    if (!ok)
        fail(failure, "CryptGetKeyParam(KP_CERTIFICATE)");
    CryptDestroyKey(key);
    return ok;
}

}  // namespace

ALG_ID hashByName(const std::string& name) {
    if (name == "sha1")
        return CALG_SHA1;
    if (name == "sha256")
        return CALG_SHA_256;
    if (name == "sha384")
        return CALG_SHA_384;
    if (name == "sha512")
        return CALG_SHA_512;
    return 0;
}

bool signHash(const SignRequest& request, const Bytes& document, Bytes* signature, SignError* failure) {
    Context context;
    if (!context.open(request, failure))
        return false;
    HCRYPTHASH hash = 0;
    if (!CryptCreateHash(context.handle(), request.hash, 0, 0, &hash))
        return fail(failure, "CryptCreateHash");
    DWORD length = 0;
    bool ok = CryptHashData(hash, document.data(), static_cast<DWORD>(document.size()), 0) ||
              fail(failure, "CryptHashData");
    ok = ok && (CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, nullptr, &length) ||
                fail(failure, "CryptSignHash (size)"));
    if (ok) {
        signature->resize(length);
        ok = CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature->data(), &length) ||
             fail(failure, "CryptSignHash");
    }
    CryptDestroyHash(hash);
    if (!ok)
        return false;
    // CryptoAPI hands signatures out little-endian.
    signature->resize(length);
    std::reverse(signature->begin(), signature->end());
    return true;
}

bool signMessage(const SignRequest& request, const Bytes& document, Bytes* message, SignError* failure) {
    // This context holds the PIN for the token while crypt32 opens its own on the same container.
    Context context;
    if (!context.open(request, failure))
        return false;
    Bytes der;
    if (!keyCertificate(context.handle(), &der, failure))
        return false;
    PCCERT_CONTEXT certificate = CertCreateCertificateContext(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING,
                                                              der.data(), static_cast<DWORD>(der.size()));
    if (!certificate)
        return fail(failure, "CertCreateCertificateContext");
    std::wstring container(request.container.begin(), request.container.end());
    std::wstring provider(request.provider.begin(), request.provider.end());
    CRYPT_KEY_PROV_INFO info{};
    info.pwszContainerName = container.data();
    info.pwszProvName = provider.data();
    info.dwProvType = PROV_RSA_FULL;
    info.dwKeySpec = AT_SIGNATURE;
    bool ok = (CertSetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, 0, &info) ||
               fail(failure, "CertSetCertificateContextProperty(CERT_KEY_PROV_INFO_PROP_ID)")) &&
              signWithCertificate(certificate, request.hash, request.attached, document, message, failure);
    CertFreeCertificateContext(certificate);
    return ok;
}

bool signMessageAsSubject(const SubjectSignRequest& request, const Bytes& document, Bytes* message,
                          SignError* failure) {
    HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_A, 0, 0,
                                     CERT_SYSTEM_STORE_CURRENT_USER | CERT_STORE_READONLY_FLAG, "MY");
    if (!store)
        return fail(failure, "CertOpenStore(MY)");
    PCCERT_CONTEXT certificate =
        CertFindCertificateInStore(store, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0, CERT_FIND_SUBJECT_STR_A,
                                   request.subject.c_str(), nullptr);
    bool ok = certificate || fail(failure, "CertFindCertificateInStore(\"" + request.subject + "\")");
    // crypt32 finds the key through the certificate's key provider information; the PIN, when one is
    // given, goes to that provider before it signs, as an application that keeps it would hand it.
    HCRYPTPROV_OR_NCRYPT_KEY_HANDLE key = 0;
    DWORD keySpec = 0;
    BOOL mustFree = FALSE;
    ok = ok && (CryptAcquireCertificatePrivateKey(certificate, 0, nullptr, &key, &keySpec, &mustFree) ||
                fail(failure, "CryptAcquireCertificatePrivateKey"));
    if (ok && !request.pin.empty()) {
        DWORD parameter = keySpec == AT_SIGNATURE ? PP_SIGNATURE_PIN : PP_KEYEXCHANGE_PIN;
        ok = CryptSetProvParam(key, parameter, reinterpret_cast<const BYTE*>(request.pin.c_str()), 0) ||
             fail(failure, "CryptSetProvParam(PIN)");
    }
    ok = ok && signWithCertificate(certificate, request.hash, request.attached, document, message, failure);
    if (key && mustFree)
        CryptReleaseContext(key, 0);
    if (certificate)
        CertFreeCertificateContext(certificate);
    CertCloseStore(store, 0);
    return ok;
}

bool signWithCertificate(PCCERT_CONTEXT certificate, ALG_ID hash, bool attached, const Bytes& document,
                         Bytes* message, SignError* failure) {
    CRYPT_SIGN_MESSAGE_PARA para{};
    para.cbSize = sizeof para;
    para.dwMsgEncodingType = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
    para.pSigningCert = certificate;
    para.HashAlgorithm.pszObjId = const_cast<char*>(hashOid(hash));
    para.cMsgCert = 1;
    para.rgpMsgCert = &certificate;
    const BYTE* parts[] = {document.data()};
    DWORD sizes[] = {static_cast<DWORD>(document.size())};
    BOOL detached = attached ? FALSE : TRUE;
    DWORD length = 0;
    bool ok = CryptSignMessage(&para, detached, 1, parts, sizes, nullptr, &length) ||
              fail(failure, "CryptSignMessage (size)");
    if (ok) {
        message->resize(length);
        ok = CryptSignMessage(&para, detached, 1, parts, sizes, message->data(), &length) ||
             fail(failure, "CryptSignMessage");
        message->resize(length);
    }
    return ok;
}

}  // namespace calythsign
