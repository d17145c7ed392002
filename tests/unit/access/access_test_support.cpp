#include "access_test_support.h"

#include <algorithm>
#include <set>

#include "log/log.h"
#include "token/token_table.h"

namespace access_test {

size_t otherThreadsCalling(const std::string& function, const std::vector<unsigned long>& known) {
    std::set<unsigned long> threads;
    for (const fake::Call& call : fake::callsTo(function))
        if (std::find(known.begin(), known.end(), call.threadId) == known.end())
            threads.insert(call.threadId);
    return threads.size();
}

size_t monitorPolls() {
    size_t count = 0;
    for (const fake::Call& call : fake::callsTo("calyth_getConnectedDeviceList"))
        if (call.threadId != GetCurrentThreadId())
            ++count;
    return count;
}

std::vector<std::string> serialsOf(const std::string& function) {
    std::vector<std::string> out;
    for (const fake::Call& call : fake::callsTo(function))
        out.push_back(call.serial);
    return out;
}

void AccessTest::SetUp() {
    // The log creates its folders one level per call before it writes lines.
    for (int i = 0; i < 3; ++i)
        logDebug("test set-up");
    fake::reset();
    resetTokenTableForTests();
    testsupport::clearLog();
}

void AccessTest::TearDown() {
    resetTokenTableForTests();
}

}  // namespace access_test
