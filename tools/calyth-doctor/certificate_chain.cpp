#include "certificate_chain.h"

namespace doctor {
namespace {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

std::string displayName(PCCERT_CONTEXT certificate, DWORD flags = 0) {
    char name[512] = {};
    CertGetNameStringA(certificate, CERT_NAME_SIMPLE_DISPLAY_TYPE, flags, nullptr, name, sizeof name);
    return name;
}

std::string issuerText(PCCERT_CONTEXT certificate) {
    char name[1024] = {};
    CertNameToStrA(kEncoding, &certificate->pCertInfo->Issuer,
                   CERT_X500_NAME_STR | CERT_NAME_STR_REVERSE_FLAG, name, sizeof name);
    return name;
}

void addProblem(ChainFinding* finding, Verdict verdict, const std::string& problem,
                const std::string& remedy) {
    finding->problems += (finding->problems.empty() ? "" : "; ") + problem;
    if (verdict == Verdict::Fail && finding->verdict != Verdict::Fail) {
        finding->verdict = Verdict::Fail;
        finding->remedy = remedy;
    } else if (verdict == Verdict::Warn && finding->verdict == Verdict::Ok) {
        finding->verdict = Verdict::Warn;
        finding->remedy = remedy;
    }
}

}  // namespace

HCERTSTORE certificateStore(const std::vector<std::vector<unsigned char>>& certificates) {
    HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
    for (const std::vector<unsigned char>& der : certificates) {
        if (!der.empty())
            CertAddEncodedCertificateToStore(store, kEncoding, der.data(), static_cast<DWORD>(der.size()),
                                             CERT_STORE_ADD_USE_EXISTING, nullptr);
    }
    return store;
}

ChainFinding judgeChain(const std::vector<unsigned char>& der, HCERTSTORE extraCertificates,
                        const std::string& caFolder) {
    ChainFinding finding;
    PCCERT_CONTEXT leaf = CertCreateCertificateContext(kEncoding, der.data(), static_cast<DWORD>(der.size()));
    if (!leaf) {
        addProblem(&finding, Verdict::Fail, "crypt32 cannot read it: " + describeError(GetLastError()),
                   "store a valid certificate for the key");
        return finding;
    }
    CERT_CHAIN_PARA para{};
    para.cbSize = sizeof para;
    PCCERT_CHAIN_CONTEXT chain = nullptr;
    if (!CertGetCertificateChain(nullptr, leaf, nullptr, extraCertificates, &para, 0, nullptr, &chain)) {
        addProblem(&finding, Verdict::Fail, "the chain engine fails: " + describeError(GetLastError()),
                   "check the machine's certificate stores");
        CertFreeCertificateContext(leaf);
        return finding;
    }
    const CERT_SIMPLE_CHAIN* simple = chain->rgpChain[0];
    for (DWORD i = 0; i < simple->cElement; ++i)
        finding.path += (i ? " < " : "") + displayName(simple->rgpElement[i]->pCertContext);

    LONG time = CertVerifyTimeValidity(nullptr, leaf->pCertInfo);
    if (time > 0)
        addProblem(
            &finding, Verdict::Fail, "expired",
            "renew the certificate with its authority and store the new one on the token: applications "
            "refuse to sign with an expired certificate");
    else if (time < 0)
        addProblem(&finding, Verdict::Fail, "not valid yet",
                   "check the machine's clock and time zone; otherwise wait for the start of its validity");
    for (DWORD i = 1; i < simple->cElement; ++i) {
        if (simple->rgpElement[i]->TrustStatus.dwErrorStatus & CERT_TRUST_IS_NOT_TIME_VALID)
            addProblem(&finding, Verdict::Fail,
                       "the CA certificate " + displayName(simple->rgpElement[i]->pCertContext) +
                           " is out of its validity",
                       "install the authority's current certificate in " + caFolder +
                           " and in the machine's certificate stores");
    }
    DWORD status = chain->TrustStatus.dwErrorStatus;
    const CERT_CHAIN_ELEMENT* last = simple->rgpElement[simple->cElement - 1];
    bool selfSigned = CertCompareCertificateName(kEncoding, &last->pCertContext->pCertInfo->Subject,
                                                 &last->pCertContext->pCertInfo->Issuer);
    if ((status & CERT_TRUST_IS_PARTIAL_CHAIN) || !selfSigned) {
        addProblem(
            &finding, Verdict::Fail,
            "the chain stops at " + displayName(last->pCertContext) + ": the certificate of its issuer \"" +
                issuerText(last->pCertContext) +
                "\" is neither on the token, in the CA folder nor in the system's stores",
            "copy the issuing authority's certificate (.cer, .der, .pem or .crt) into " + caFolder +
                " and store the certificate on the token again (the provider stores the chain with it), "
                "or install it in the machine's intermediate certification authorities store");
    } else if (status & CERT_TRUST_IS_UNTRUSTED_ROOT) {
        addProblem(&finding, Verdict::Warn,
                   "the root " + displayName(last->pCertContext) + " is not trusted on this machine",
                   "if the organisation trusts this authority, install its root certificate in the machine's "
                   "trusted root certification authorities store; relying parties need it too");
    }
    if (status & CERT_TRUST_IS_NOT_SIGNATURE_VALID)
        addProblem(
            &finding, Verdict::Fail, "a signature in the chain does not verify",
            "the certificate or a CA certificate is damaged or forged: get it again from the authority");
    if (status & CERT_TRUST_IS_REVOKED)
        addProblem(&finding, Verdict::Fail, "revoked",
                   "the authority revoked it: request a new certificate and store it on the token");
    CertFreeCertificateChain(chain);
    CertFreeCertificateContext(leaf);
    return finding;
}

}  // namespace doctor
