#include "csp_keys_fixture.h"

#include <cstdlib>
#include <cstring>

namespace keystest {

const char* const kSignId = "11111111111111111111111111111111";
const char* const kExchangeId = "22222222222222222222222222222222";
const char* const kBothId = "33333333333333333333333333333333";

std::vector<unsigned char> bytesOf(std::initializer_list<int> values) {
    std::vector<unsigned char> out;
    for (int v : values)
        out.push_back(static_cast<unsigned char>(v));
    return out;
}

std::vector<unsigned char> reversed(std::vector<unsigned char> bytes) {
    return std::vector<unsigned char>(bytes.rbegin(), bytes.rend());
}

std::vector<unsigned char> counting(size_t length, int start) {
    std::vector<unsigned char> out(length);
    for (size_t i = 0; i < length; ++i)
        out[i] = static_cast<unsigned char>(start + i);
    return out;
}

unsigned char* mallocCopy(const std::vector<unsigned char>& bytes) {
    auto* copy = static_cast<unsigned char*>(std::malloc(bytes.size() + 1));
    std::memcpy(copy, bytes.data(), bytes.size());
    return copy;
}

void KeysTest::SetUp() {
    CspTest::SetUp();
    fake::addToken("SN1");
    csptest::openOnToken(context_, "SN1");
}

void KeysTest::TearDown() {
    for (HCRYPTKEY key : keys_)
        CPDestroyKey(prov(), key);
    keys_.clear();
    CspTest::TearDown();
}

HCRYPTKEY KeysTest::userKey(DWORD keySpec) {
    HCRYPTKEY key = 0;
    EXPECT_TRUE(CPGetUserKey(prov(), keySpec, &key)) << "CPGetUserKey(" << keySpec << ") failed";
    if (key != 0)
        keep(key);
    return key;
}

KEY_HANDLE* KeysTest::newKey() {
    KEY_HANDLE* key = allocateKeyHandle();
    keep(handleOf(key));
    return key;
}

DWORD KeysTest::getDword(HCRYPTKEY key, DWORD param) {
    DWORD value = 0xDEADBEEF;
    DWORD length = sizeof value;
    EXPECT_TRUE(CPGetKeyParam(prov(), key, param, reinterpret_cast<BYTE*>(&value), &length, 0));
    EXPECT_EQ(length, 4u);
    return value;
}

}  // namespace keystest
