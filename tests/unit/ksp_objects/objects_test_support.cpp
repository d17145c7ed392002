#include "objects_test_support.h"

namespace objtest {

std::vector<fake::Call> myCallsTo(const std::string& function) {
    std::vector<fake::Call> out;
    for (const fake::Call& call : fake::callsFromThisThread()) {
        if (call.function == function)
            out.push_back(call);
    }
    return out;
}

std::vector<std::string> myCallNames() {
    std::vector<std::string> out;
    for (const fake::Call& call : fake::callsFromThisThread())
        out.push_back(call.function);
    return out;
}

NCRYPT_KEY_HANDLE ObjectsTest::createKey(const wchar_t* algorithm, const wchar_t* name, DWORD legacyKeySpec) {
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(KSPCreatePersistedKey(provider_, &key, algorithm, name, legacyKeySpec, 0), 0);
    if (key != 0)
        keep(key);
    return key;
}

}  // namespace objtest
