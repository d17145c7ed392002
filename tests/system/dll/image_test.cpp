// CalythCSP.dll as a file: export table, PE headers, the PIN dialog template and the version
// resource. Loaded as a data file only, so the device library need not be present.
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

#include "calyth_version.h"
#include "device_functions.h"
#include "pe_file.h"
#include "provider_exports.h"
#include "resource.h"

namespace {

using Bytes = std::vector<unsigned char>;

std::string lower(std::string s) {
    for (char& c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string hex(const Bytes& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < bytes.size(); ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
        out += (i % 16 == 15) ? '\n' : ' ';
    }
    return out;
}

// Writes a DLGTEMPLATEEX the way the dialog manager reads it: little-endian WORDs and DWORDs,
// UTF-16 texts ending in a zero WORD, each item starting on a DWORD boundary.
class TemplateWriter {
public:
    void word(uint16_t v) {
        bytes_.push_back(static_cast<unsigned char>(v & 0xFF));
        bytes_.push_back(static_cast<unsigned char>(v >> 8));
    }
    void dword(uint32_t v) {
        word(static_cast<uint16_t>(v & 0xFFFF));
        word(static_cast<uint16_t>(v >> 16));
    }
    void byte(uint8_t v) { bytes_.push_back(v); }
    void text(const char* s) {
        for (; *s; ++s)
            word(static_cast<unsigned char>(*s));
        word(0);
    }
    void ordinal(uint16_t v) {
        word(0xFFFF);
        word(v);
    }
    void align() {
        while (bytes_.size() % 4 != 0)
            bytes_.push_back(0);
    }
    void item(uint32_t id, uint16_t classOrdinal, const char* title, uint32_t style, int16_t x, int16_t y,
              int16_t cx, int16_t cy) {
        align();
        dword(0);  // help id
        dword(0);  // extended style
        dword(style);
        word(static_cast<uint16_t>(x));
        word(static_cast<uint16_t>(y));
        word(static_cast<uint16_t>(cx));
        word(static_cast<uint16_t>(cy));
        dword(id);
        ordinal(classOrdinal);
        text(title);
        word(0);  // no creation data
    }
    const Bytes& bytes() const { return bytes_; }

private:
    Bytes bytes_;
};

const uint16_t kButton = 0x0080;
const uint16_t kEdit = 0x0081;
const uint16_t kStatic = 0x0082;

Bytes expectedPinDialog() {
    TemplateWriter t;
    t.word(1);       // dlgVer
    t.word(0xFFFF);  // signature of the extended template
    t.dword(0);      // help id
    t.dword(WS_EX_TOPMOST);
    t.dword(0x80C808C8);  // WS_POPUP | WS_CAPTION | WS_SYSMENU | DS_MODALFRAME | DS_CENTER | DS_SETFONT |
                          // DS_FIXEDSYS
    t.word(5);            // controls
    t.word(0);
    t.word(0);
    t.word(200);
    t.word(78);
    t.word(0);  // no menu
    t.word(0);  // the default dialog class
    t.text("Verify User Pin");
    t.word(8);    // points
    t.word(400);  // weight
    t.byte(0);    // not italic
    t.byte(1);    // character set
    t.text("MS Shell Dlg");
    t.item(IDOK, kButton, "Login", 0x50010000, 64, 50, 50, 14);
    t.item(IDCANCEL, kButton, "Cancel", 0x50010000, 127, 50, 50, 14);
    t.item(1001, kEdit, "", 0x508100A0, 65, 27, 111, 14);
    t.item(0xFFFFFFFF, kStatic, "User Pin :", 0x50020000, 12, 30, 42, 12);
    t.item(0xFFFFFFFF, kStatic, "Please enter user pin to verify,", 0x50020000, 12, 6, 163, 13);
    return t.bytes();
}

class ProviderImage : public testing::Test {
protected:
    static void SetUpTestSuite() {
        module_ = LoadLibraryExA(providerDllPath().c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
    }
    static void TearDownTestSuite() {
        if (module_)
            FreeLibrary(module_);
        module_ = nullptr;
    }

    // The bytes of a resource in US English, or nothing.
    static Bytes resource(LPCSTR type, LPCSTR name) {
        HRSRC found = FindResourceExA(module_, type, name, MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US));
        if (!found)
            return {};
        HGLOBAL loaded = LoadResource(module_, found);
        const unsigned char* data = static_cast<const unsigned char*>(LockResource(loaded));
        DWORD size = SizeofResource(module_, found);
        if (!data)
            return {};
        return Bytes(data, data + size);
    }

    static HMODULE module_;
};

HMODULE ProviderImage::module_ = nullptr;

TEST_F(ProviderImage, IsADllForTheMachineOfItsBuild) {
    PeFile pe = readPeFile(providerDllPath());
    ASSERT_TRUE(pe.valid);
    EXPECT_EQ(pe.machine, sizeof(void*) == 8 ? IMAGE_FILE_MACHINE_AMD64 : IMAGE_FILE_MACHINE_I386);
    EXPECT_TRUE(pe.characteristics & IMAGE_FILE_DLL);
}

TEST_F(ProviderImage, ExportsExactlyTheNamesOfItsDefinitionFile) {
    std::set<std::string> expected;
    for (const char* const* name = kProviderExports; *name; ++name)
        expected.insert(*name);
    PeFile pe = readPeFile(providerDllPath());
    ASSERT_TRUE(pe.valid);
    std::set<std::string> actual(pe.exports.begin(), pe.exports.end());
    EXPECT_EQ(actual, expected);
    EXPECT_EQ(pe.exports.size(), actual.size()) << "an export name appears twice";
}

TEST_F(ProviderImage, ImportsNoCompilerRuntimeDll) {
    // A provider that needs libstdc++-6.dll or libwinpthread-1.dll fails to load in a host that
    // lacks them.
    PeFile pe = readPeFile(providerDllPath());
    ASSERT_TRUE(pe.valid);
    ASSERT_FALSE(pe.imports.empty());
    for (const std::string& dll : pe.imports) {
        std::string name = lower(dll);
        EXPECT_EQ(name.find("libstdc++"), std::string::npos) << dll;
        EXPECT_EQ(name.find("libgcc"), std::string::npos) << dll;
        EXPECT_EQ(name.find("libwinpthread"), std::string::npos) << dll;
    }
}

TEST_F(ProviderImage, DelayImportsEveryDeviceFunctionAndImportsNoneAtLoad) {
    // The device library is named in the delay-import table, never in the import table that the
    // loader resolves through its search order (which looks beside the host program first).
    PeFile pe = readPeFile(providerDllPath());
    ASSERT_TRUE(pe.valid);
    for (const std::string& dll : pe.imports)
        EXPECT_NE(lower(dll), "calythdsclibrary.dll");
    std::vector<std::string> expected;
    for (const char* const* name = kDeviceFunctions; *name; ++name)
        expected.push_back(*name);
    ASSERT_EQ(expected.size(), 27u);
    int found = 0;
    for (const auto& [dll, functions] : pe.delayImports) {
        if (lower(dll) != "calythdsclibrary.dll")
            continue;
        ++found;
        EXPECT_THAT(functions, ::testing::UnorderedElementsAreArray(expected));
    }
    EXPECT_EQ(found, 1);
}

TEST_F(ProviderImage, PinDialogTemplateIsExactlyTheVerifyUserPinDialog) {
    ASSERT_NE(module_, nullptr) << GetLastError();
    Bytes actual = resource(RT_DIALOG, MAKEINTRESOURCEA(IDD_VERIFY_USER_PIN));
    Bytes expected = expectedPinDialog();
    EXPECT_EQ(IDD_VERIFY_USER_PIN, 101);
    EXPECT_EQ(actual.size(), expected.size());
    EXPECT_TRUE(actual == expected) << "actual:\n" << hex(actual) << "\nexpected:\n" << hex(expected);
}

TEST_F(ProviderImage, PinDialogFieldsReadBackThroughTheTemplateLayout) {
    // The same facts read with the platform's own view of the header, as the dialog manager does.
    ASSERT_NE(module_, nullptr);
    Bytes data = resource(RT_DIALOG, MAKEINTRESOURCEA(101));
    ASSERT_GE(data.size(), 26u);
    uint16_t version, signature, count;
    uint32_t exStyle, style;
    int16_t rect[4];
    std::memcpy(&version, &data[0], 2);
    std::memcpy(&signature, &data[2], 2);
    std::memcpy(&exStyle, &data[8], 4);
    std::memcpy(&style, &data[12], 4);
    std::memcpy(&count, &data[16], 2);
    std::memcpy(rect, &data[18], 8);
    EXPECT_EQ(version, 1);
    EXPECT_EQ(signature, 0xFFFF);
    EXPECT_EQ(exStyle, static_cast<uint32_t>(WS_EX_TOPMOST));
    EXPECT_EQ(style, static_cast<uint32_t>(WS_POPUP | WS_CAPTION | WS_SYSMENU | DS_MODALFRAME | DS_CENTER |
                                           DS_SETFONT | DS_FIXEDSYS));
    EXPECT_EQ(count, 5);
    EXPECT_EQ(rect[0], 0);
    EXPECT_EQ(rect[1], 0);
    EXPECT_EQ(rect[2], 200);
    EXPECT_EQ(rect[3], 78);
}

// ---- version ----

std::string versionString(const std::vector<char>& info, const char* name) {
    char* value = nullptr;
    UINT length = 0;
    std::string path = std::string("\\StringFileInfo\\040904B0\\") + name;
    if (!VerQueryValueA(info.data(), path.c_str(), reinterpret_cast<void**>(&value), &length) || !value)
        return "<missing>";
    return std::string(value);
}

TEST(ProviderVersion, FixedInfoIsADllOfTheProjectVersion) {
    DWORD handle = 0;
    DWORD size = GetFileVersionInfoSizeA(providerDllPath().c_str(), &handle);
    ASSERT_GT(size, 0u);
    std::vector<char> info(size);
    ASSERT_TRUE(GetFileVersionInfoA(providerDllPath().c_str(), 0, size, info.data()));
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueA(info.data(), "\\", reinterpret_cast<void**>(&fixed), &length));
    ASSERT_EQ(length, sizeof(VS_FIXEDFILEINFO));
    EXPECT_EQ(fixed->dwSignature, 0xFEEF04BDu);
    EXPECT_EQ(fixed->dwFileVersionMS,
              static_cast<DWORD>(MAKELONG(CALYTH_VERSION_MINOR, CALYTH_VERSION_MAJOR)));
    EXPECT_EQ(fixed->dwFileVersionLS, static_cast<DWORD>(MAKELONG(0, CALYTH_VERSION_PATCH)));
    EXPECT_EQ(fixed->dwProductVersionMS, fixed->dwFileVersionMS);
    EXPECT_EQ(fixed->dwProductVersionLS, fixed->dwFileVersionLS);
    EXPECT_EQ(fixed->dwFileType, static_cast<DWORD>(VFT_DLL));
    EXPECT_EQ(fixed->dwFileOS, static_cast<DWORD>(VOS_NT_WINDOWS32));
    EXPECT_EQ(fixed->dwFileFlags & fixed->dwFileFlagsMask, 0u);
}

TEST(ProviderVersion, StringsNameTheProvider) {
    DWORD handle = 0;
    DWORD size = GetFileVersionInfoSizeA(providerDllPath().c_str(), &handle);
    ASSERT_GT(size, 0u);
    std::vector<char> info(size);
    ASSERT_TRUE(GetFileVersionInfoA(providerDllPath().c_str(), 0, size, info.data()));
    EXPECT_EQ(versionString(info, "ProductName"), "Calyth Cryptographic Provider CSP");
    EXPECT_EQ(versionString(info, "FileDescription"), "Calyth Cryptographic Provider CSP");
    EXPECT_EQ(versionString(info, "OriginalFilename"), "CalythCSP.dll");
    EXPECT_EQ(versionString(info, "InternalName"), "CalythCSP");
    EXPECT_EQ(versionString(info, "CompanyName"), "Quorvik Labs");
    EXPECT_EQ(versionString(info, "FileVersion"), CALYTH_VERSION_TEXT);
    EXPECT_EQ(versionString(info, "ProductVersion"), CALYTH_VERSION_TEXT);

    struct Translation {
        WORD language;
        WORD codePage;
    }* translation = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueA(info.data(), "\\VarFileInfo\\Translation",
                               reinterpret_cast<void**>(&translation), &length));
    ASSERT_EQ(length, 4u);
    EXPECT_EQ(translation->language, 0x0409);
    EXPECT_EQ(translation->codePage, 1200);
}

}  // namespace
