#include "access_log.h"

#include <sstream>

#include "support/test_support.h"

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

bool waitUntil(const std::function<bool()>& condition, DWORD timeoutMs) {
    DWORD start = GetTickCount();
    while (!condition()) {
        if (GetTickCount() - start > timeoutMs)
            return false;
        Sleep(10);
    }
    return true;
}

}  // namespace access_test
