// Shared set-up of the property tests: the KSP fixture with its provider on token "SN1" and the
// bytes of property values.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "support/fenced_buffer.h"
#include "support/guarded_buffer.h"
#include "unit/ksp/ksp_fixture.h"

namespace proptest {

std::vector<BYTE> wideBytes(const std::wstring& text, bool withNul = true);
std::vector<BYTE> narrowBytes(const std::string& text, bool withNul = true);
// Wide NUL-terminated text read back from an output buffer.
std::wstring wideAt(const BYTE* bytes);
DWORD dwordAt(const BYTE* bytes);

class PropertiesTest : public ksptest::KspTest {
protected:
    void SetUp() override;

    // Runs KSPGetKeyProperty on `key` with a buffer of exactly the reported size.
    SECURITY_STATUS getKeyProperty(NCRYPT_KEY_HANDLE key, const wchar_t* name, std::vector<BYTE>* value);
    SECURITY_STATUS getProviderProperty(const wchar_t* name, std::vector<BYTE>* value);
    SECURITY_STATUS setKeyProperty(NCRYPT_KEY_HANDLE key, const wchar_t* name, std::vector<BYTE> value);
};

}  // namespace proptest
