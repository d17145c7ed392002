// A token certificate judged by the system's chain engine, with the token's CA certificates and
// those of the installation's CA folder as extra certificates to build from.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <string>
#include <vector>

#include "report.h"

namespace doctor {

struct ChainFinding {
    Verdict verdict = Verdict::Ok;
    std::string problems;  // "" when the chain is sound
    std::string path;      // "Alice < Demo-CA < Root" as far as it was built
    std::string remedy;
};

// extraCertificates: a memory store with the token's certificates and the CA folder's.
ChainFinding judgeChain(const std::vector<unsigned char>& der, HCERTSTORE extraCertificates,
                        const std::string& caFolder);

// A memory store holding the given DER certificates (the ones crypt32 cannot read are left out).
HCERTSTORE certificateStore(const std::vector<std::vector<unsigned char>>& certificates);

}  // namespace doctor
