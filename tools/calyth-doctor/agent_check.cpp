#include <windows.h>

#include "agent_pass.h"
#include "background.h"
#include "checks.h"
#include "files.h"

namespace doctor {
namespace {

constexpr const char* kRemedy =
    "run calyth-agent --once (from the provider's folder) with the token plugged in; to have it "
    "done at every logon, reinstall the provider package";

Check startCheck() {
    const char* name = "Certificate agent";
    char command[MAX_PATH * 2] = {};
    DWORD size = sizeof command;
    LONG status = RegGetValueA(HKEY_LOCAL_MACHINE, agent::kLogonRunKey, agent::kLogonRunValue,
                               RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr, command, &size);
    if (status != ERROR_SUCCESS)
        return makeCheck(name, Verdict::Warn,
                         "not set to start at logon (no \"" + std::string(agent::kLogonRunValue) +
                             "\" under HKLM\\" + agent::kLogonRunKey + ")",
                         kRemedy);
    std::string program = command;
    if (!program.empty() && program.front() == '"')
        program = program.substr(1, program.find('"', 1) - 1);
    if (!fileExists(program))
        return makeCheck(name, Verdict::Warn, "set to start at logon, but " + program + " does not exist",
                         kRemedy);
    return makeCheck(name, Verdict::Ok, "starts at every logon: " + program);
}

Check storeCheck(const DeviceFunctions& library) {
    const char* name = "Certificates in the user's store";
    if (!library.complete())
        return makeCheck(name, Verdict::Skip, "not checked without a complete device library");
    agent::DeviceSession session{&library, {}};
    agent::CertificatePlan plan = agent::planCertificates(agent::readConnectedTokens(&session, {}));
    agent::StoreNames names;
    std::vector<std::string> wrong;
    for (const agent::WantedCertificate& wanted : plan.personal) {
        PCCERT_CONTEXT present = agent::findInPersonalStore(wanted, names);
        if (!present)
            wrong.push_back(wanted.subject + " of token " + wanted.serial + " is not in MY");
        else if (!agent::carriesKeyProviderOf(present, wanted))
            wrong.push_back(wanted.subject + " of token " + wanted.serial +
                            " is in MY without the key provider information of key " + wanted.keyId);
        if (present)
            CertFreeCertificateContext(present);
    }
    std::string count = std::to_string(plan.personal.size());
    if (plan.personal.empty())
        return makeCheck(name, Verdict::Ok, "the connected tokens hold no certificate of a key pair");
    if (wrong.empty())
        return makeCheck(name, Verdict::Ok,
                         "every certificate of the connected tokens' keys (" + count +
                             ") is in MY with the key provider information of its key");
    Check check = makeCheck(name, Verdict::Warn,
                            std::to_string(wrong.size()) + " of " + count +
                                " certificates of the connected tokens are missing or wrong in MY: "
                                "applications that pick a certificate do not offer their keys",
                            kRemedy);
    check.facts = wrong;
    return check;
}

}  // namespace

void checkCertificateAgent(Report* report, const DeviceFunctions& library) {
    report->push_back(startCheck());
    report->push_back(storeCheck(library));
}

}  // namespace doctor
