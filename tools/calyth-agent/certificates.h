// Owners of crypt32 handles and the few certificate facts the agent reads, in one place.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <memory>
#include <string>
#include <vector>

namespace agent {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

struct StoreClose {
    void operator()(HCERTSTORE store) const { CertCloseStore(store, 0); }
};
using Store = std::unique_ptr<void, StoreClose>;

struct CertificateFree {
    void operator()(PCCERT_CONTEXT context) const { CertFreeCertificateContext(context); }
};
using Certificate = std::unique_ptr<const CERT_CONTEXT, CertificateFree>;

std::vector<unsigned char> derOf(PCCERT_CONTEXT certificate);

// "CN=Alice, O=Example".
std::string subjectText(PCCERT_CONTEXT certificate);

}  // namespace agent
