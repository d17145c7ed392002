// Shared set-up of the property tests: the KSP fixture with its provider on token "SN1", buffers that
// show a write past their end, and input that ends right where memory stops being readable.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "unit/ksp/ksp_fixture.h"

namespace proptest {

constexpr BYTE kGuard = 0xEE;

// An output buffer of `size` bytes followed by guard bytes.
class GuardedBuffer {
public:
    explicit GuardedBuffer(size_t size) : size_(size), bytes_(size + 16, kGuard) {}
    PBYTE data() { return bytes_.data(); }
    DWORD size() const { return static_cast<DWORD>(size_); }
    std::vector<BYTE> value(size_t length) const { return {bytes_.begin(), bytes_.begin() + length}; }
    // True when no byte at or after `from` was written.
    bool untouchedFrom(size_t from) const;

private:
    size_t size_;
    std::vector<BYTE> bytes_;
};

// Bytes placed at the very end of a readable page followed by an inaccessible one: reading one byte
// past them faults.
class FencedBytes {
public:
    explicit FencedBytes(const std::vector<BYTE>& bytes);
    ~FencedBytes();
    FencedBytes(const FencedBytes&) = delete;
    FencedBytes& operator=(const FencedBytes&) = delete;
    PBYTE data() const { return start_; }

private:
    BYTE* region_ = nullptr;
    PBYTE start_ = nullptr;
};

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
