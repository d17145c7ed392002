// Storing a user certificate on the token together with its issuing chain from the CA folder.
#pragma once

#include <cstdint>
#include <string>

#include "token/device_library.h"

// Imports the certificate (DER bytes, length, label) and the CA certificates that issued it, root
// first, and names the matching key pair when it has no alias yet. An empty label is replaced by
// "<subject CN>_<issuer CN>" and written back into the record. Returns 0, or the non-zero result
// of the device call that failed.
int32_t importCertificateWithChain(const std::string& serial, const std::string& pin,
                                   CalythCertificate& certificate, void* deviceContext);
