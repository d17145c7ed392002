#include "certificates.h"

namespace agent {

std::vector<unsigned char> derOf(PCCERT_CONTEXT certificate) {
    return std::vector<unsigned char>(certificate->pbCertEncoded,
                                      certificate->pbCertEncoded + certificate->cbCertEncoded);
}

std::string subjectText(PCCERT_CONTEXT certificate) {
    char name[1024] = {};
    CertNameToStrA(kEncoding, &certificate->pCertInfo->Subject,
                   CERT_X500_NAME_STR | CERT_NAME_STR_REVERSE_FLAG, name, sizeof name);
    return name;
}

}  // namespace agent
