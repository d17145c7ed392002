#include "properties_fixture.h"

#include <algorithm>
#include <cstring>

namespace proptest {

std::vector<BYTE> wideBytes(const std::wstring& text, bool withNul) {
    size_t count = text.size() + (withNul ? 1 : 0);
    std::vector<BYTE> out(count * sizeof(wchar_t));
    std::memcpy(out.data(), text.c_str(), out.size());
    return out;
}

std::vector<BYTE> narrowBytes(const std::string& text, bool withNul) {
    std::vector<BYTE> out(text.begin(), text.end());
    if (withNul)
        out.push_back(0);
    return out;
}

std::wstring wideAt(const BYTE* bytes) {
    std::wstring out;
    for (;; bytes += sizeof(wchar_t)) {
        wchar_t c;
        std::memcpy(&c, bytes, sizeof c);
        if (c == L'\0')
            return out;
        out.push_back(c);
    }
}

DWORD dwordAt(const BYTE* bytes) {
    DWORD value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

void PropertiesTest::SetUp() {
    KspTest::SetUp();
    makeProvider();
}

SECURITY_STATUS PropertiesTest::getKeyProperty(NCRYPT_KEY_HANDLE key, const wchar_t* name,
                                               std::vector<BYTE>* value) {
    DWORD size = 0;
    SECURITY_STATUS status = KSPGetKeyProperty(provider_, key, name, nullptr, 0, &size, 0);
    if (status != 0)
        return status;
    value->assign(size, testsupport::kGuardByte);
    DWORD written = 0;
    status = KSPGetKeyProperty(provider_, key, name, value->data(), size, &written, 0);
    EXPECT_EQ(written, size);
    return status;
}

SECURITY_STATUS PropertiesTest::getProviderProperty(const wchar_t* name, std::vector<BYTE>* value) {
    DWORD size = 0;
    SECURITY_STATUS status = KSPGetProviderProperty(provider_, name, nullptr, 0, &size, 0);
    if (status != 0)
        return status;
    value->assign(size, testsupport::kGuardByte);
    DWORD written = 0;
    status = KSPGetProviderProperty(provider_, name, value->data(), size, &written, 0);
    EXPECT_EQ(written, size);
    return status;
}

SECURITY_STATUS PropertiesTest::setKeyProperty(NCRYPT_KEY_HANDLE key, const wchar_t* name,
                                               std::vector<BYTE> value) {
    return KSPSetKeyProperty(provider_, key, name, value.data(), static_cast<DWORD>(value.size()), 0);
}

}  // namespace proptest
