#include "clients.h"

#include "token/device_library.h"

namespace bench {
namespace {

constexpr const char* kProviderName = "Calyth Cryptographic Provider CSP";
constexpr const wchar_t* kProviderWideName = L"Calyth Cryptographic Provider CSP";

}  // namespace

std::string programFolder() {
    char path[MAX_PATH] = {};
    DWORD length = GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string text(path, length);
    return text.substr(0, text.find_last_of("\\/") + 1);
}

bool registerProviderBesideProgram() {
    HKEY key = nullptr;
    std::string subkey =
        std::string("Software\\Microsoft\\Cryptography\\Defaults\\Provider\\") + kProviderName;
    if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, subkey.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                        KEY_SET_VALUE, nullptr, &key, nullptr) != ERROR_SUCCESS)
        return false;
    std::string image = programFolder() + "CalythCSP.dll";
    DWORD type = PROV_RSA_FULL;
    bool ok = RegSetValueExA(key, "Image Path", 0, REG_SZ, reinterpret_cast<const BYTE*>(image.c_str()),
                             static_cast<DWORD>(image.size() + 1)) == ERROR_SUCCESS &&
              RegSetValueExA(key, "Type", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&type), sizeof type) ==
                  ERROR_SUCCESS;
    RegCloseKey(key);
    return ok;
}

int keysOnFirstToken() {
    HMODULE library = GetModuleHandleA("CalythDSCLibrary.dll");
    auto deviceList =
        library ? reinterpret_cast<decltype(&calyth_getConnectedDeviceList)>(
                      reinterpret_cast<void*>(GetProcAddress(library, "calyth_getConnectedDeviceList")))
                : nullptr;
    auto keyPairList = library ? reinterpret_cast<decltype(&calyth_getKeyPairList)>(reinterpret_cast<void*>(
                                     GetProcAddress(library, "calyth_getKeyPairList")))
                               : nullptr;
    if (!deviceList || !keyPairList)
        return -1;
    std::vector<std::string> serials = deviceList(false, nullptr);
    return serials.empty() ? -1 : static_cast<int>(keyPairList(serials.front().c_str(), nullptr).size());
}

HCRYPTPROV acquireContext(const std::string& container, const char* pin, DWORD flags) {
    HCRYPTPROV provider = 0;
    if (!CryptAcquireContextA(&provider, container.empty() ? nullptr : container.c_str(), kProviderName,
                              PROV_RSA_FULL, flags))
        return 0;
    if (pin && !CryptSetProvParam(provider, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(pin), 0)) {
        CryptReleaseContext(provider, 0);
        return 0;
    }
    return provider;
}

bool signDocument(HCRYPTPROV provider, const Bytes& document) {
    HCRYPTHASH hash = 0;
    if (!CryptCreateHash(provider, CALG_SHA_256, 0, 0, &hash))
        return false;
    BYTE signature[512];
    DWORD length = sizeof signature;
    bool ok = CryptHashData(hash, document.data(), static_cast<DWORD>(document.size()), 0) &&
              CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature, &length);
    CryptDestroyHash(hash);
    return ok;
}

bool acquireOnce(const std::string& container) {
    HCRYPTPROV provider = acquireContext(container, nullptr);
    return provider && CryptReleaseContext(provider, 0);
}

bool acquireBuiltInOnce() {
    // Kept loaded, as the monitor keeps this project's provider loaded: otherwise every release
    // would unload Wine's provider and every acquisition load it again.
    static HMODULE kept = LoadLibraryA("rsaenh.dll");
    (void)kept;
    HCRYPTPROV provider = 0;
    return CryptAcquireContextA(&provider, nullptr, MS_ENH_RSA_AES_PROV_A, PROV_RSA_AES,
                                CRYPT_VERIFYCONTEXT) &&
           CryptReleaseContext(provider, 0);
}

const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* kspTable() {
    static NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = [] {
        NCRYPT_KEY_STORAGE_FUNCTION_TABLE* found = nullptr;
        HMODULE module = LoadLibraryA((programFolder() + "CalythCSP.dll").c_str());
        auto getInterface =
            module ? reinterpret_cast<decltype(&GetKeyStorageInterface)>(
                         reinterpret_cast<void*>(GetProcAddress(module, "GetKeyStorageInterface")))
                   : nullptr;
        if (getInterface && getInterface(kProviderWideName, &found, 0) != 0)
            found = nullptr;
        return found;
    }();
    return table;
}

bool openKspKey(const std::string& keyName, const char* pin, KspKey& out) {
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = kspTable();
    out = KspKey();
    if (!table || table->OpenProvider(&out.provider, kProviderWideName, 0) != 0)
        return false;
    std::string pinText = pin ? pin : "";
    std::wstring name(keyName.begin(), keyName.end());
    bool ok = (!pin || table->SetProviderProperty(out.provider, NCRYPT_PIN_PROPERTY,
                                                  reinterpret_cast<PBYTE>(&pinText[0]),
                                                  static_cast<DWORD>(pinText.size() + 1), 0) == 0) &&
              table->OpenKey(out.provider, &out.key, name.c_str(), 0, 0) == 0;
    if (!ok)
        closeKspKey(out);
    return ok;
}

void closeKspKey(KspKey& key) {
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = kspTable();
    if (key.key)
        table->FreeKey(key.provider, key.key);
    if (key.provider)
        table->FreeProvider(key.provider);
    key = KspKey();
}

bool openOnce(const std::string& keyName) {
    KspKey key;
    bool ok = openKspKey(keyName, nullptr, key);
    closeKspKey(key);
    return ok;
}

bool kspSign(const KspKey& key, const Bytes& digest, bool ec) {
    BCRYPT_PKCS1_PADDING_INFO padding = {BCRYPT_SHA256_ALGORITHM};
    BYTE signature[512];
    DWORD length = 0;
    return kspTable()->SignHash(key.provider, key.key, ec ? nullptr : &padding,
                                const_cast<PBYTE>(digest.data()), static_cast<DWORD>(digest.size()),
                                signature, sizeof signature, &length, ec ? 0 : BCRYPT_PAD_PKCS1) == 0;
}

}  // namespace bench
