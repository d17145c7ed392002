// TEMPORARY: minimal token table so that the program links until the real one lands on main.
#include <map>
#include <mutex>
#include <string>

#include "token/token_table.h"

namespace {
struct Entry {
    bool pinValidated = false;
    std::string pin;
};
std::map<std::string, Entry>& table() {
    static std::map<std::string, Entry> t;
    return t;
}
std::mutex& tableMutex() {
    static std::mutex m;
    return m;
}
}  // namespace

bool isPinValidated(const std::string& serial) {
    std::lock_guard<std::mutex> lock(tableMutex());
    auto it = table().find(serial);
    return it != table().end() && it->second.pinValidated;
}
std::string getValidatedPin(const std::string& serial) {
    std::lock_guard<std::mutex> lock(tableMutex());
    auto it = table().find(serial);
    return it == table().end() ? std::string() : it->second.pin;
}
void storeValidatedPin(const std::string& serial, const std::string& pin) {
    std::lock_guard<std::mutex> lock(tableMutex());
    table()[serial].pin = pin;
    table()[serial].pinValidated = true;
}
void resetTokenTableForTests() {
    std::lock_guard<std::mutex> lock(tableMutex());
    table().clear();
}
