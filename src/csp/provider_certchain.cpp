#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "cert/certificate_chain.h"
#include "csp/entry_point_guard.h"
#include "csp/provider_params.h"
#include "log/log.h"
#include "token/device_library.h"
#include "token/key_lookup.h"
#include "util/bounded_length.h"
#include "util/utils.h"

namespace {

bool publicKeyMatches(const CalythKeyPair& keyPair, const std::vector<unsigned char>& publicKey) {
    if (!lengthFits(keyPair.publicKeyLength, sizeof keyPair.publicKey))
        return false;
    return static_cast<size_t>(keyPair.publicKeyLength) == publicKey.size() &&
           std::equal(publicKey.begin(), publicKey.end(), keyPair.publicKey);
}

// Container name (hex key identifier) -> the chain of the first certificate carrying its public key.
std::map<std::string, std::vector<CalythCertificate>> chainsByContainer(const CspContext* context) {
    const char* serial = context->serialNumber.c_str();
    std::vector<CalythKeyPair> keyPairs = calyth_getKeyPairList(serial, context->deviceContext);
    std::vector<CalythCertificate> certificates = calyth_getCertificateList(serial, context->deviceContext);
    std::map<std::string, std::vector<CalythCertificate>> chains;
    for (const CalythCertificate& certificate : certificates) {
        CertificateDetails details;
        // The record's own length, held to its field: the parser never reads past the record.
        int derLength = static_cast<int>(fieldLength(certificate.der, certificate.derLength));
        if (calyth_getCertificateDetails(certificate.der, derLength, details, context->deviceContext) != 0)
            continue;
        for (const CalythKeyPair& keyPair : keyPairs) {
            if (!publicKeyMatches(keyPair, details.publicKey))
                continue;
            std::string container = keyIdHex(keyPair);
            logDebug("Public key match found; container=" + container);
            std::vector<CalythCertificate> chain = gatherCertificateChain(certificate, certificates);
            chains.emplace(container, std::move(chain));
        }
    }
    return chains;
}

}  // namespace

BOOL getCertificateChainParam(CspContext* context, BYTE* pbData, DWORD* pdwDataLen) {
    if (context == nullptr || !context->initialized) {
        return failWithError(NTE_BAD_UID, "CPGetProvParam PP_CERTCHAIN: context is null or not initialized");
    }
    std::map<std::string, std::vector<CalythCertificate>> chains = chainsByContainer(context);
    auto found = chains.find(context->containerName);
    if (found == chains.end()) {
        logError("CPGetProvParam PP_CERTCHAIN: container not found, containerName=" + context->containerName);
        setLastErrorCode(NTE_NO_KEY);
        *pdwDataLen = 0;
        return FALSE;
    }
    return BuildCertificateChain(found->second, pbData, pdwDataLen);
}
