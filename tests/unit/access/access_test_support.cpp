#include "access_test_support.h"

#include <sstream>

#include "log/log.h"
#include "support/test_support.h"
#include "token/token_table.h"

namespace access_test {

std::vector<std::string> logEntries() {
    std::vector<std::string> out;
    std::istringstream in(testsupport::readLog());
    std::string line;
    while (std::getline(in, line)) {
        for (const char* tag : {"DEBUG", "ERROR", "EXCEP", "INFO "}) {
            std::string marker = std::string(tag) + " ::=>";
            size_t at = line.find(marker);
            if (at != std::string::npos) {
                std::string name = tag;
                if (name == "INFO ")
                    name = "INFO";
                out.push_back(name + ":" + line.substr(at + marker.size()));
                break;
            }
        }
    }
    return out;
}

bool logHas(const std::string& entry) {
    return logCount(entry) > 0;
}

size_t logCount(const std::string& entry) {
    size_t count = 0;
    for (const std::string& line : logEntries())
        if (line == entry)
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
