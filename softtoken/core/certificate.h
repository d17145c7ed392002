// X.509 certificates and PEM text, read with the crypt32 functions.
#pragma once

#include <string>
#include <vector>

#include "crypto.h"
#include "token/device_library.h"

namespace softtoken {

// Fills `details` from a DER certificate; `publicKey` (optional) receives its key. kOk or a status.
int readCertificate(const unsigned char* der, int length, CertificateDetails& details,
                    PublicKey* publicKey = nullptr);

// DER bytes of a file's content: PEM ("-----BEGIN ...") is decoded, anything else is returned as
// it stands. An undecodable PEM text gives empty bytes.
Bytes toDer(const Bytes& content);

// PEM text of DER bytes under the given label ("PUBLIC KEY", "CERTIFICATE").
std::string toPem(const Bytes& der, const std::string& label);

bool readWholeFile(const std::string& path, Bytes& out);

// The files of `folder` whose names end in one of `extensions` (case-insensitive; with or without
// the dot), sorted by name, each with its DER bytes (empty when unreadable).
CalythFileList listFilesAsDer(const std::string& folder, const std::vector<std::string>& extensions);

}  // namespace softtoken
