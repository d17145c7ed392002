#include "cert/certificate_chain.h"

#include <wincrypt.h>

#include <cstring>
#include <memory>

#include "log/log.h"
#include "token/last_error.h"
#include "util/bounded_length.h"

namespace {

constexpr DWORD kCertificateEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

struct CertificateContextDeleter {
    void operator()(const CERT_CONTEXT* context) const {
        if (context)
            CertFreeCertificateContext(context);
    }
};
using CertificateContext = std::unique_ptr<const CERT_CONTEXT, CertificateContextDeleter>;

CertificateContext contextOf(const CalythCertificate& record) {
    if (record.derLength == 0 || !lengthFits(record.derLength, sizeof record.der))
        return CertificateContext();
    return CertificateContext(
        CertCreateCertificateContext(kCertificateEncoding, record.der, static_cast<DWORD>(record.derLength)));
}

bool sameDer(const CalythCertificate& a, const CalythCertificate& b) {
    return a.derLength == b.derLength && a.derLength != 0 && lengthFits(a.derLength, sizeof a.der) &&
           std::memcmp(a.der, b.der, a.derLength) == 0;
}

bool isSelfSigned(const CERT_CONTEXT* context) {
    return CertCompareCertificateName(X509_ASN_ENCODING, &context->pCertInfo->Subject,
                                      &context->pCertInfo->Issuer) != FALSE;
}

bool alreadyInChain(const std::vector<CalythCertificate>& chain, const CalythCertificate& record) {
    for (const CalythCertificate& member : chain) {
        if (sameDer(member, record))
            return true;
    }
    return false;
}

}  // namespace

std::vector<CalythCertificate> gatherCertificateChain(
    const CalythCertificate& leaf, const std::vector<CalythCertificate>& tokenCertificates) {
    std::vector<CalythCertificate> chain{leaf};
    CertificateContext current = contextOf(leaf);
    if (!current) {
        logDebug("[ERROR] Cannot parse leaf cert");
        return chain;
    }
    for (;;) {
        const CalythCertificate* issuerRecord = nullptr;
        CertificateContext issuer;
        for (const CalythCertificate& candidate : tokenCertificates) {
            if (sameDer(candidate, leaf))
                continue;
            CertificateContext context = contextOf(candidate);
            if (!context)
                continue;
            if (CertCompareCertificateName(X509_ASN_ENCODING, &current->pCertInfo->Issuer,
                                           &context->pCertInfo->Subject)) {
                issuerRecord = &candidate;
                issuer = std::move(context);
                break;
            }
        }
        // Two certificates naming each other as issuer would otherwise never end.
        if (!issuerRecord || alreadyInChain(chain, *issuerRecord))
            return chain;
        chain.push_back(*issuerRecord);
        current = std::move(issuer);
        if (isSelfSigned(current.get())) {
            logDebug("[ROOT] Self-signed root detected.");
            return chain;
        }
    }
}

bool chainCertificatesRootFirst(const std::vector<CalythCertificate>& chain,
                                std::vector<std::vector<unsigned char>>* encoded) {
    encoded->clear();
    if (chain.empty()) {
        logError("Certificate Is Empty");
        setLastErrorCode(NTE_NO_KEY);
        return false;
    }
    CertificateContext leaf = contextOf(chain.front());
    if (!leaf) {
        logError("Failed creating leaf certificate");
        setLastErrorCode(NTE_BAD_KEY);
        return false;
    }

    HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
    if (store) {
        for (const CalythCertificate& record : chain) {
            if (record.derLength == 0 || !lengthFits(record.derLength, sizeof record.der))
                continue;
            CertAddEncodedCertificateToStore(store, kCertificateEncoding, record.der,
                                             static_cast<DWORD>(record.derLength), CERT_STORE_ADD_ALWAYS,
                                             nullptr);
        }
    }

    // The chain engine orders the certificates; its trust verdict is not looked at, so an untrusted
    // or partial chain is exported as it stands.
    CERT_CHAIN_PARA parameters{};
    parameters.cbSize = sizeof parameters;
    PCCERT_CHAIN_CONTEXT chainContext = nullptr;
    if (!CertGetCertificateChain(nullptr, leaf.get(), nullptr, store, &parameters, 0, nullptr,
                                 &chainContext) ||
        !chainContext) {
        logError("Chain build failed");
        if (store)
            CertCloseStore(store, 0);
        return false;
    }
    for (DWORD i = 0; i < chainContext->cChain; ++i) {
        const CERT_SIMPLE_CHAIN* simple = chainContext->rgpChain[i];
        for (DWORD j = simple->cElement; j > 0; --j) {
            const CERT_CONTEXT* element = simple->rgpElement[j - 1]->pCertContext;
            encoded->emplace_back(element->pbCertEncoded, element->pbCertEncoded + element->cbCertEncoded);
        }
    }
    CertFreeCertificateChain(chainContext);
    if (store)
        CertCloseStore(store, 0);
    if (encoded->empty()) {
        logError("No certificates in PKCS#7 chain");
        return false;
    }
    return true;
}

BOOL BuildCertificateChain(const std::vector<CalythCertificate>& chain, BYTE* pbData, DWORD* pdwDataLen) {
    std::vector<std::vector<unsigned char>> certificates;
    if (!chainCertificatesRootFirst(chain, &certificates))
        return FALSE;

    std::vector<CERT_BLOB> blobs;
    for (std::vector<unsigned char>& certificate : certificates)
        blobs.push_back(CERT_BLOB{static_cast<DWORD>(certificate.size()), certificate.data()});
    CMSG_SIGNED_ENCODE_INFO signedInfo{};
    signedInfo.cbSize = sizeof signedInfo;
    signedInfo.cCertEncoded = static_cast<DWORD>(blobs.size());
    signedInfo.rgCertEncoded = blobs.data();
    HCRYPTMSG message =
        CryptMsgOpenToEncode(kCertificateEncoding, 0, CMSG_SIGNED, &signedInfo, nullptr, nullptr);
    if (!message) {
        logError("BuildCertificateChain: CryptMsgOpenToEncode failed");
        return FALSE;
    }
    CryptMsgUpdate(message, nullptr, 0, TRUE);
    DWORD size = 0;
    CryptMsgGetParam(message, CMSG_CONTENT_PARAM, 0, nullptr, &size);
    if (pbData == nullptr || *pdwDataLen < size) {
        CryptMsgClose(message);
        *pdwDataLen = size;
        SetLastError(ERROR_MORE_DATA);
        return TRUE;
    }
    CryptMsgGetParam(message, CMSG_CONTENT_PARAM, 0, pbData, pdwDataLen);
    CryptMsgClose(message);
    return TRUE;
}
