// Stand-in for the certificate import with CA chain until that routine is on main: the leaf alone,
// parsed and stored through the device library as the real routine does without a CA folder.
#include "cert/certificate_import.h"

int32_t importCertificateWithChain(const std::string& serial, const std::string& pin,
                                   CalythCertificate& certificate, void* deviceContext) {
    CertificateDetails details;
    int result = calyth_getCertificateDetails(certificate.der, certificate.derLength, details, deviceContext);
    if (result != 0)
        return result;
    return calyth_importCertificate(serial.c_str(), pin.c_str(), &certificate, deviceContext);
}
