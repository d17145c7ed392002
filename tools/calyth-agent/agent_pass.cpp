#include "agent_pass.h"

#include "certificate_plan.h"
#include "log/log.h"

namespace agent {

std::vector<TokenContents> readConnectedTokens(DeviceSession* session,
                                               const std::set<std::string>& expected) {
    return readTokens(session, connectedTokens(session, expected));
}

PassResult propagate(const std::vector<TokenContents>& tokens, const StoreNames& names) {
    CertificatePlan plan = planCertificates(tokens);
    for (const std::string& note : plan.notes)
        logDebug("calyth-agent: " + note);
    PassResult result = applyPlan(plan, names);
    result.lines.insert(result.lines.begin(), plan.notes.begin(), plan.notes.end());
    return result;
}

}  // namespace agent
