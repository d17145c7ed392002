#include "provider_registration.h"

#include <cstring>

namespace testsupport {

std::string programFolder() {
    char path[MAX_PATH] = {};
    DWORD length = GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string text(path, length);
    return text.substr(0, text.find_last_of("\\/") + 1);
}

std::string providerImagePath() {
    return programFolder() + "CalythCSP.dll";
}

LONG registerProvider() {
    return registerProviderAt(providerImagePath());
}

LONG registerProviderAt(const std::string& image) {
    HKEY key = nullptr;
    LONG status = RegCreateKeyExA(HKEY_LOCAL_MACHINE, kProviderKey, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                  KEY_SET_VALUE, nullptr, &key, nullptr);
    if (status != ERROR_SUCCESS)
        return status;
    DWORD type = PROV_RSA_FULL;
    status = RegSetValueExA(key, "Image Path", 0, REG_SZ, reinterpret_cast<const BYTE*>(image.c_str()),
                            static_cast<DWORD>(image.size() + 1));
    if (status == ERROR_SUCCESS)
        status = RegSetValueExA(key, "Type", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&type), sizeof type);
    RegCloseKey(key);
    return status;
}

bool readRegistration(std::string* imagePath, DWORD* type) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kProviderKey, 0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS)
        return false;
    char image[MAX_PATH * 2] = {};
    DWORD imageSize = sizeof image - 1;
    DWORD valueType = 0;
    bool ok = RegQueryValueExA(key, "Image Path", nullptr, &valueType, reinterpret_cast<BYTE*>(image),
                               &imageSize) == ERROR_SUCCESS &&
              valueType == REG_SZ;
    DWORD typeSize = sizeof *type;
    ok = ok &&
         RegQueryValueExA(key, "Type", nullptr, &valueType, reinterpret_cast<BYTE*>(type), &typeSize) ==
             ERROR_SUCCESS &&
         valueType == REG_DWORD;
    RegCloseKey(key);
    *imagePath = image;
    return ok;
}

BOOL acquire(Provider& provider, const char* container, DWORD flags) {
    return CryptAcquireContextA(&provider.handle, container, kProviderName, PROV_RSA_FULL, flags);
}

std::string stringProvParam(HCRYPTPROV provider, DWORD param, DWORD flags) {
    char buffer[512] = {};
    DWORD length = sizeof buffer;
    if (!CryptGetProvParam(provider, param, reinterpret_cast<BYTE*>(buffer), &length, flags))
        return std::string();
    return std::string(buffer, strnlen(buffer, sizeof buffer));
}

}  // namespace testsupport
