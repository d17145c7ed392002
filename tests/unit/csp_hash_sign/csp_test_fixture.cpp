#include "csp_test_fixture.h"

#include <sstream>

#include "log/log.h"
#include "support/test_support.h"
#include "token/process_state.h"
#include "token/token_table.h"

namespace csptest {

bool logged(const std::string& level, const std::string& message) {
    std::istringstream in(testsupport::readLog());
    std::string line;
    const std::string tail = level + " ::=>" + message;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.size() >= tail.size() && line.compare(line.size() - tail.size(), tail.size(), tail) == 0)
            return true;
    }
    return false;
}

size_t countLogged(const std::string& message) {
    size_t count = 0;
    for (const std::string& line : testsupport::logMessages()) {
        std::string text = line;
        if (!text.empty() && text.back() == '\r')
            text.pop_back();
        if (text == message)
            ++count;
    }
    return count;
}

std::vector<unsigned char> bytesOf(const std::string& text) {
    return std::vector<unsigned char>(text.begin(), text.end());
}

std::vector<unsigned char> unhex(const std::string& hexText) {
    return fake::unhex(hexText);
}

std::string lowerHex(const std::vector<unsigned char>& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char b : bytes) {
        out.push_back(digits[b >> 4]);
        out.push_back(digits[b & 15]);
    }
    return out;
}

void CspFixture::SetUp() {
    fake::reset();
    resetTokenTableForTests();
    g_useHardwareRng = true;
    fake::addToken(kSerial);
    context.serialNumber = kSerial;
    context.initialized = true;
    context.keysetType = CSP_KEYSET_TYPE;
    // The log writer makes its folders one level per line; make sure the file exists first.
    for (int i = 0;
         i < 8 && GetFileAttributesA(testsupport::logFilePath().c_str()) == INVALID_FILE_ATTRIBUTES; ++i)
        logDebug("test set-up");
    testsupport::clearLog();
}

void CspFixture::TearDown() {
    for (HCRYPTHASH hash : hashes)
        CPDestroyHash(provider(), hash);
    hashes.clear();
    g_useHardwareRng = true;
}

HCRYPTHASH CspFixture::createHash(ALG_ID algId, const std::string& data) {
    HCRYPTHASH hash = 0;
    EXPECT_TRUE(CPCreateHash(provider(), algId, 0, 0, &hash)) << GetLastError();
    if (hash == 0)
        return 0;
    hashes.push_back(hash);
    if (!data.empty()) {
        EXPECT_TRUE(CPHashData(provider(), hash, reinterpret_cast<const BYTE*>(data.data()),
                               static_cast<DWORD>(data.size()), 0));
    }
    return hash;
}

std::string CspFixture::hashValue(HCRYPTHASH hash) {
    BYTE value[64] = {};
    DWORD length = sizeof value;
    if (!CPGetHashParam(provider(), hash, HP_HASHVAL, value, &length, 0))
        return "";
    return lowerHex(std::vector<unsigned char>(value, value + length));
}

}  // namespace csptest
