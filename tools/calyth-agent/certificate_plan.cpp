#include "certificate_plan.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "token/legacy_key_spec.h"
#include "util/bounded_length.h"
#include "util/utils.h"

namespace agent {
namespace {

// One certificate record of a token, parsed by crypt32.
struct TokenCertificate {
    const CalythCertificate* record = nullptr;
    Certificate context;
};

Certificate parse(const CalythCertificate& record) {
    size_t length = fieldLength(record.der, record.derLength);
    if (length == 0 || static_cast<int64_t>(length) != record.derLength)
        return nullptr;
    return Certificate(CertCreateCertificateContext(kEncoding, record.der, static_cast<DWORD>(length)));
}

std::string commonName(PCCERT_CONTEXT certificate) {
    char name[256] = {};
    CertGetNameStringA(certificate, CERT_NAME_ATTR_TYPE, 0, const_cast<char*>(szOID_COMMON_NAME), name,
                       sizeof name);
    if (name[0] == '\0')
        CertGetNameStringA(certificate, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, name, sizeof name);
    return name;
}

bool selfIssued(PCCERT_CONTEXT certificate) {
    return CertCompareCertificateName(kEncoding, &certificate->pCertInfo->Subject,
                                      &certificate->pCertInfo->Issuer) != FALSE;
}

// A key pair's certificate is found as the provider finds it for KP_CERTIFICATE: the same
// non-empty label, or the same object identifier. An empty identifier links nothing.
bool belongsTo(const CalythCertificate& certificate, const CalythKeyPair& keyPair) {
    std::string certificateLabel = fieldText(certificate.label);
    bool sameLabel = !certificateLabel.empty() && certificateLabel == fieldText(keyPair.label);
    size_t objectIdLength = fieldLength(keyPair.objectId, keyPair.objectIdLength);
    bool sameObject = objectIdLength != 0 && certificate.objectIdLength == keyPair.objectIdLength &&
                      std::memcmp(certificate.objectId, keyPair.objectId, objectIdLength) == 0;
    return sameLabel || sameObject;
}

bool isEllipticCurve(const CalythKeyPair& keyPair) {
    return keyPair.keySizeCode >= CALYTH_KEY_EC_P256 && keyPair.keySizeCode <= CALYTH_KEY_EC_P521;
}

std::string tokenName(const TokenContents& token) {
    return token.label.empty() ? token.serial : token.label;
}

bool containsDer(const std::vector<WantedCertificate>& list, const std::vector<unsigned char>& der) {
    for (const WantedCertificate& wanted : list) {
        if (wanted.der == der)
            return true;
    }
    return false;
}

WantedCertificate personalEntry(const TokenContents& token, const CalythKeyPair& keyPair,
                                PCCERT_CONTEXT certificate) {
    WantedCertificate wanted;
    wanted.der = derOf(certificate);
    wanted.serial = token.serial;
    wanted.subject = subjectText(certificate);
    wanted.keyId = Utils().bytesToHex(keyPair.keyId, sizeof keyPair.keyId);
    wanted.providerType = isEllipticCurve(keyPair) ? 0 : PROV_RSA_FULL;
    wanted.keySpec = legacyKeySpec(keyPair.keyUsage);
    wanted.friendlyName = commonName(certificate) + " (" + tokenName(token) + ")";
    return wanted;
}

// The authorities on the token above `leaf`, leaf's issuer first, up to but without the root.
std::vector<PCCERT_CONTEXT> tokenAuthorities(PCCERT_CONTEXT leaf, const std::vector<TokenCertificate>& all) {
    std::vector<PCCERT_CONTEXT> chain;
    PCCERT_CONTEXT current = leaf;
    while (!selfIssued(current)) {
        PCCERT_CONTEXT issuer = nullptr;
        for (const TokenCertificate& candidate : all) {
            if (CertCompareCertificateName(kEncoding, &current->pCertInfo->Issuer,
                                           &candidate.context->pCertInfo->Subject)) {
                issuer = candidate.context.get();
                break;
            }
        }
        // Two authorities naming each other would otherwise never end.
        bool seen = issuer == leaf || std::find(chain.begin(), chain.end(), issuer) != chain.end();
        if (!issuer || seen || selfIssued(issuer))
            break;
        chain.push_back(issuer);
        current = issuer;
    }
    return chain;
}

// A line when the chain of `leaf` does not end in a root this machine trusts.
std::string trustNote(PCCERT_CONTEXT leaf, HCERTSTORE tokenStore) {
    CERT_CHAIN_PARA para{};
    para.cbSize = sizeof para;
    PCCERT_CHAIN_CONTEXT chain = nullptr;
    if (!CertGetCertificateChain(nullptr, leaf, nullptr, tokenStore, &para, 0, nullptr, &chain))
        return "";
    std::string note;
    DWORD status = chain->TrustStatus.dwErrorStatus;
    if (chain->cChain > 0 && chain->rgpChain[0]->cElement > 0) {
        const CERT_SIMPLE_CHAIN* simple = chain->rgpChain[0];
        PCCERT_CONTEXT top = simple->rgpElement[simple->cElement - 1]->pCertContext;
        if (status & CERT_TRUST_IS_PARTIAL_CHAIN)
            note = "the chain of " + subjectText(leaf) + " stops at " + subjectText(top) +
                   ": its issuer is neither on the token nor in the certificate stores";
        else if (status & CERT_TRUST_IS_UNTRUSTED_ROOT)
            note = "the chain of " + subjectText(leaf) + " ends in the root " + subjectText(top) +
                   ", which this machine does not trust (the agent never adds roots: installing one into "
                   "Root is the user's or the administrator's decision)";
    }
    CertFreeCertificateChain(chain);
    return note;
}

void planToken(const TokenContents& token, CertificatePlan* plan) {
    std::vector<TokenCertificate> parsed;
    Store tokenStore(CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr));
    for (const CalythCertificate& record : token.certificates) {
        Certificate context = parse(record);
        if (!context) {
            plan->notes.push_back("skipped: certificate \"" + fieldText(record.label) + "\" on token " +
                                  token.serial + " does not parse");
            continue;
        }
        CertAddCertificateContextToStore(tokenStore.get(), context.get(), CERT_STORE_ADD_USE_EXISTING,
                                         nullptr);
        parsed.push_back(TokenCertificate{&record, std::move(context)});
    }
    for (const CalythKeyPair& keyPair : token.keyPairs) {
        const TokenCertificate* found = nullptr;
        for (const TokenCertificate& certificate : parsed) {
            if (belongsTo(*certificate.record, keyPair)) {
                found = &certificate;
                break;
            }
        }
        if (!found)
            continue;
        PCCERT_CONTEXT leaf = found->context.get();
        WantedCertificate wanted = personalEntry(token, keyPair, leaf);
        if (containsDer(plan->personal, wanted.der))
            continue;
        plan->personal.push_back(wanted);
        for (PCCERT_CONTEXT authority : tokenAuthorities(leaf, parsed)) {
            std::vector<unsigned char> der = derOf(authority);
            if (containsDer(plan->authorities, der))
                continue;
            WantedCertificate entry;
            entry.der = der;
            entry.serial = token.serial;
            entry.subject = subjectText(authority);
            entry.friendlyName = commonName(authority);
            plan->authorities.push_back(entry);
        }
        std::string note = trustNote(leaf, tokenStore.get());
        if (!note.empty())
            plan->notes.push_back(note);
    }
}

}  // namespace

CertificatePlan planCertificates(const std::vector<TokenContents>& tokens) {
    CertificatePlan plan;
    for (const TokenContents& token : tokens) {
        if (token.readable)
            planToken(token, &plan);
        else
            plan.heldSerials.insert(token.serial);
    }
    return plan;
}

}  // namespace agent
