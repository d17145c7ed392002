// The current user's certificate stores as the agent keeps them: it marks every certificate it
// adds with a description that names the token's serial, and it changes or removes only
// certificates that carry that mark.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <set>
#include <string>
#include <vector>

#include "certificate_plan.h"

namespace agent {

// The agent's mark: the certificate's Description property (CERT_DESCRIPTION_PROP_ID), which
// certificate managers show, reads kAgentMarkPrefix followed by the token's serial. Wine's crypt32
// refuses property ids from the range left to applications (CERT_FIRST_USER_PROP_ID and up), so a
// property of the agent's own would not be kept there.
constexpr const char* kAgentMarkPrefix = "Added by calyth-agent from token ";

// The system stores of the current user that the agent keeps. Tests give names of their own.
struct StoreNames {
    std::string personal = "MY";
    std::string authorities = "CA";
};

struct PassResult {
    std::vector<std::string> lines;  // one per certificate added, removed, updated or kept
    int added = 0;
    int removed = 0;
    int updated = 0;
    int kept = 0;
    bool wroteStore = false;
    std::string error;  // "" when the pass succeeded
};

// Brings the stores in line with the plan: adds what is missing, updates marked certificates whose
// key provider information, friendly name or token changed, removes marked certificates that no
// connected token holds any more (those of a held serial stay). Opens a store for writing only
// when something must change, so a pass that finds everything in place writes nothing.
PassResult applyPlan(const CertificatePlan& plan, const StoreNames& names);

// Takes out every certificate the agent ever added, in both stores.
PassResult removeAll(const StoreNames& names);

// The serials named by the agent's marks in the personal store: the tokens whose removal the agent
// must notice.
std::set<std::string> markedSerials(const StoreNames& names);

// The key provider information a certificate of the plan carries in the personal store.
struct KeyProviderInfo {
    std::string container;
    std::string provider;
    DWORD providerType = 0;
    DWORD keySpec = 0;
    bool present = false;
};
KeyProviderInfo keyProviderInfo(PCCERT_CONTEXT certificate);

// True when the certificate's key provider information is the one the agent gives `wanted`.
bool carriesKeyProviderOf(PCCERT_CONTEXT certificate, const WantedCertificate& wanted);

// The personal-store certificate with the same bytes as `wanted`, or null (free it with
// CertFreeCertificateContext). For checks from outside the agent (calyth-doctor).
PCCERT_CONTEXT findInPersonalStore(const WantedCertificate& wanted, const StoreNames& names);

}  // namespace agent
