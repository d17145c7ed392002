#include "csp_test_fixture.h"

namespace csptest {

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
    CspTest::SetUp();
    fake::addToken(kSerial);
    openOnToken(context, kSerial);
}

void CspFixture::TearDown() {
    for (HCRYPTHASH hash : hashes)
        CPDestroyHash(provider(), hash);
    hashes.clear();
    CspTest::TearDown();
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
