// Reading the provider's log and waiting for conditions, for the token-access tests (unit and
// system programs alike).
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

namespace access_test {

// Log lines as "DEBUG:<message>" or "ERROR:<message>".
std::vector<std::string> logEntries();
bool logHas(const std::string& entry);
size_t logCount(const std::string& entry);

// Polls the condition every 10 ms; false when it did not hold within timeoutMs.
bool waitUntil(const std::function<bool()>& condition, DWORD timeoutMs);

}  // namespace access_test
