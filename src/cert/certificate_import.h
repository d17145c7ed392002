// Storing a user certificate on the token together with its issuing chain from the CA folder.
#pragma once

#include <cstdint>
#include <string>

#include "token/device_library.h"

// Imports the chain (root first, leaf last) or, when a link is missing, the leaf alone, then gives
// the matching key pair the certificate's label as alias when it has none. Returns 0 or the failing
// device result. A default label written into `certificate` is visible to the caller.
int32_t importCertificateWithChain(const std::string& serial, const std::string& pin,
                                   CalythCertificate& certificate, void* deviceContext);
