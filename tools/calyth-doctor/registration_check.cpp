#include <windows.h>

#include <wincrypt.h>

#include <algorithm>

#include "checks.h"
#include "files.h"
#include "pe_image.h"

namespace doctor {
namespace {

constexpr const char* kProviderKey =
    "Software\\Microsoft\\Cryptography\\Defaults\\Provider\\Calyth Cryptographic Provider CSP";

// What advapi32 calls in a CryptoAPI provider.
const char* const kCryptoApiEntryPoints[] = {
    "CPAcquireContext", "CPReleaseContext",  "CPCreateHash",  "CPHashData",       "CPDuplicateHash",
    "CPSetHashParam",   "CPGetHashParam",    "CPDestroyHash", "CPHashSessionKey", "CPGenKey",
    "CPGetUserKey",     "CPGetKeyParam",     "CPSetKeyParam", "CPDestroyKey",     "CPDeriveKey",
    "CPSignHash",       "CPVerifySignature", "CPGenRandom",   "CPImportKey",      "CPExportKey",
    "CPGetProvParam",   "CPSetProvParam",    "CPEncrypt",     "CPDecrypt"};

const char* kRegisterRemedy =
    "install the provider with its package (CalythSetup msi), or write the key as docs/using.md "
    "\"Registration\" shows: \"Image Path\" REG_SZ = full path of CalythCSP.dll, \"Type\" REG_DWORD 1";

struct View {
    const char* label;     // "64-bit" or "32-bit"
    REGSAM access;         // KEY_WOW64_64KEY or KEY_WOW64_32KEY
    WORD machine;          // the bitness the registered DLL must have
    std::string keyShown;  // the key as regedit shows it
};

struct Registration {
    std::string imagePath;
    DWORD imageType = REG_NONE;
    DWORD type = 0;
    DWORD typeType = REG_NONE;
    bool hasImage = false;
    bool hasType = false;
};

bool readRegistration(REGSAM view, Registration* registration) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kProviderKey, 0, KEY_QUERY_VALUE | view, &key) != ERROR_SUCCESS)
        return false;
    char image[2048] = {};
    DWORD size = sizeof image - 1;
    registration->hasImage = RegQueryValueExA(key, "Image Path", nullptr, &registration->imageType,
                                              reinterpret_cast<BYTE*>(image), &size) == ERROR_SUCCESS;
    registration->imagePath = image;
    size = sizeof registration->type;
    registration->hasType =
        RegQueryValueExA(key, "Type", nullptr, &registration->typeType,
                         reinterpret_cast<BYTE*>(&registration->type), &size) == ERROR_SUCCESS;
    RegCloseKey(key);
    return true;
}

// A 32-bit process asking for ...\System32\... is given the 32-bit system folder.
std::string pathAsSeenBy(const View& view, const std::string& path) {
    std::string system = systemFolder();
    std::string wow64 = systemWow64Folder();
    if (view.machine == IMAGE_FILE_MACHINE_I386 && !wow64.empty() && path.size() > system.size() &&
        sameTextIgnoringCase(path.substr(0, system.size()), system) &&
        (path[system.size()] == '\\' || path[system.size()] == '/'))
        return wow64 + path.substr(system.size());
    return path;
}

std::vector<std::string> missingEntryPoints(const PeImage& image) {
    std::vector<std::string> missing;
    for (const char* name : kCryptoApiEntryPoints) {
        if (std::find(image.exports.begin(), image.exports.end(), name) == image.exports.end())
            missing.push_back(name);
    }
    return missing;
}

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : ", ") + name;
    return text;
}

Check checkView(const View& view, const Registration& registration, std::string* loadedDll) {
    Check check = makeCheck("CryptoAPI registration (" + std::string(view.label) + ")", Verdict::Ok, "");
    check.facts.push_back("key: " + view.keyShown);
    if (!registration.hasImage ||
        (registration.imageType != REG_SZ && registration.imageType != REG_EXPAND_SZ)) {
        check.verdict = Verdict::Fail;
        check.detail = "the provider key has no \"Image Path\" text value";
        check.remedy = kRegisterRemedy;
        return check;
    }
    check.facts.push_back("Image Path: " + registration.imagePath);
    if (!registration.hasType || registration.typeType != REG_DWORD || registration.type != PROV_RSA_FULL) {
        check.verdict = Verdict::Fail;
        check.detail = registration.hasType && registration.typeType == REG_DWORD
                           ? "\"Type\" is " + std::to_string(registration.type) + ", not 1 (PROV_RSA_FULL)"
                           : "\"Type\" is missing or not a REG_DWORD";
        check.remedy = "set \"Type\" to REG_DWORD 1: applications ask for the provider with PROV_RSA_FULL";
        return check;
    }
    std::string path = pathAsSeenBy(view, expandEnvironment(registration.imagePath));
    if (path != registration.imagePath)
        check.facts.push_back("file for " + std::string(view.label) + " applications: " + path);
    if (!fileExists(path)) {
        check.verdict = Verdict::Fail;
        check.detail = "the image path points nowhere: " + path + " does not exist";
        check.remedy = "reinstall the provider, or set \"Image Path\" to the installed CalythCSP.dll";
        return check;
    }
    PeImage image;
    std::string problem;
    if (!readPeImage(path, &image, &problem)) {
        check.verdict = Verdict::Fail;
        check.detail = path + " " + problem;
        check.remedy = "reinstall the provider: the file is damaged or not CalythCSP.dll";
        return check;
    }
    std::string version = fileVersionText(path);
    check.facts.push_back("file: " + machineName(image.machine) + ", " + sizeText(fileSize(path)) +
                          (version.empty() ? "" : ", version " + version));
    if (image.machine != view.machine) {
        check.verdict = Verdict::Fail;
        check.detail =
            "a " + machineName(image.machine) + " DLL is registered for " + view.label + " applications";
        check.remedy = "register the " + std::string(view.label) + " build of CalythCSP.dll in this view";
        return check;
    }
    std::vector<std::string> missing = missingEntryPoints(image);
    if (!missing.empty()) {
        check.verdict = Verdict::Fail;
        check.detail = path + " lacks CryptoAPI entry points: " + joined(missing);
        check.remedy = "the file is not a complete CalythCSP.dll: reinstall the provider";
        return check;
    }
    std::string loads = "not loaded (another bitness than calyth-doctor; exports read from the file)";
    if (view.machine == IMAGE_FILE_MACHINE_AMD64) {
        HMODULE module = LoadLibraryExA(path.c_str(), nullptr, 0);
        if (!module) {
            DWORD error = GetLastError();
            check.verdict = Verdict::Fail;
            check.detail = path + " does not load: " + describeError(error);
            // The device library is delay-loaded: a missing one does not stop the load.
            check.remedy = error == ERROR_MOD_NOT_FOUND ? "a system DLL it needs is missing: repair Windows"
                                                        : "reinstall the provider";
            return check;
        }
        FreeLibrary(module);
        loads = "loads";
        *loadedDll = path;
    }
    check.detail = path + ", type 1, " + loads + ", all " + std::to_string(std::size(kCryptoApiEntryPoints)) +
                   " entry points exported";
    return check;
}

}  // namespace

void checkCryptoApiRegistration(Report* report, std::string* providerDll) {
    providerDll->clear();
    View view64{"64-bit", KEY_WOW64_64KEY, IMAGE_FILE_MACHINE_AMD64, std::string("HKLM\\") + kProviderKey};
    Registration registration;
    if (readRegistration(view64.access, &registration)) {
        report->push_back(checkView(view64, registration, providerDll));
        if (providerDll->empty() && fileExists(expandEnvironment(registration.imagePath)))
            *providerDll = expandEnvironment(registration.imagePath);
    } else {
        report->push_back(
            makeCheck("CryptoAPI registration (64-bit)", Verdict::Fail,
                      "the provider is not registered: HKLM\\" + std::string(kProviderKey) + " is missing",
                      kRegisterRemedy));
    }

    View view32{"32-bit", KEY_WOW64_32KEY, IMAGE_FILE_MACHINE_I386,
                "HKLM\\Software\\WOW6432Node\\Microsoft\\Cryptography\\Defaults\\Provider\\" +
                    std::string(kProviderName)};
    Registration registration32;
    if (readRegistration(view32.access, &registration32)) {
        std::string unused;
        report->push_back(checkView(view32, registration32, &unused));
    } else {
        report->push_back(
            makeCheck("CryptoAPI registration (32-bit)", Verdict::Skip,
                      "not registered for 32-bit applications (only 64-bit applications can use "
                      "the provider)"));
    }
}

}  // namespace doctor
