#include "device_functions.h"

namespace tokenview {
namespace {

template <typename F>
void take(HMODULE module, const char* name, F* slot, std::vector<std::string>* missing) {
    FARPROC address = GetProcAddress(module, name);
    if (!address)
        missing->push_back(name);
    *slot = reinterpret_cast<F>(reinterpret_cast<void*>(address));
}

}  // namespace

bool DeviceFunctions::complete() const {
    return module && init && getConnectedDeviceList && initDevice && getTokenInfo && validatePassword &&
           getKeyPairList && getAesKeyList && getCertificateList && getCertificateDetails &&
           generateKeyPair && deleteKeyPair && updateKeyPairDetails && importCertificate &&
           getFilesWithExtensionsAndConvertDER && importAesKey && initHash && updateHash && finalHash &&
           signHash && verifySignatureHash && encrypt && decrypt && encryptAes && decryptAes &&
           decryptSymetric && ecdhDerive && generateRamdomNumber;
}

std::string deviceLibraryFolder(const std::string& providerDll) {
    size_t separator = providerDll.find_last_of("\\/");
    if (separator != std::string::npos)
        return providerDll.substr(0, separator + 1);
    char system[MAX_PATH] = {};
    GetSystemDirectoryA(system, MAX_PATH);
    return std::string(system) + "\\";
}

std::string registeredProviderDll() {
    char image[MAX_PATH] = {};
    DWORD size = sizeof image;
    // RRF_RT_REG_SZ also takes a REG_EXPAND_SZ path, expanded (RRF_RT_REG_EXPAND_SZ is refused
    // without RRF_NOEXPAND).
    LSTATUS status = RegGetValueA(
        HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Cryptography\\Defaults\\Provider\\Calyth Cryptographic Provider CSP",
        "Image Path", RRF_RT_REG_SZ, nullptr, image, &size);
    return status == ERROR_SUCCESS ? std::string(image) : std::string();
}

bool loadDeviceFunctions(const std::string& folder, DeviceFunctions* library, DWORD* error,
                         std::vector<std::string>* missing) {
    HMODULE module = LoadLibraryExA((folder + "CalythDSCLibrary.dll").c_str(), nullptr,
                                    LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (!module) {
        *error = GetLastError();
        return false;
    }
    library->module = module;
    char path[MAX_PATH] = {};
    GetModuleFileNameA(module, path, MAX_PATH);
    library->path = path;
    take(module, "calyth_init", &library->init, missing);
    take(module, "calyth_getConnectedDeviceList", &library->getConnectedDeviceList, missing);
    take(module, "calyth_initDevice", &library->initDevice, missing);
    take(module, "calyth_getTokenInfo", &library->getTokenInfo, missing);
    take(module, "calyth_validatePassword", &library->validatePassword, missing);
    take(module, "calyth_getKeyPairList", &library->getKeyPairList, missing);
    take(module, "calyth_getAesKeyList", &library->getAesKeyList, missing);
    take(module, "calyth_getCertificateList", &library->getCertificateList, missing);
    take(module, "calyth_getCertificateDetails", &library->getCertificateDetails, missing);
    take(module, "calyth_generateKeyPair", &library->generateKeyPair, missing);
    take(module, "calyth_deleteKeyPair", &library->deleteKeyPair, missing);
    take(module, "calyth_updateKeyPairDetails", &library->updateKeyPairDetails, missing);
    take(module, "calyth_importCertificate", &library->importCertificate, missing);
    take(module, "calyth_getFilesWithExtensionsAndConvertDER", &library->getFilesWithExtensionsAndConvertDER,
         missing);
    take(module, "calyth_importAesKey", &library->importAesKey, missing);
    take(module, "calyth_initHash", &library->initHash, missing);
    take(module, "calyth_updateHash", &library->updateHash, missing);
    take(module, "calyth_finalHash", &library->finalHash, missing);
    take(module, "calyth_signHash", &library->signHash, missing);
    take(module, "calyth_verifySignatureHash", &library->verifySignatureHash, missing);
    take(module, "calyth_encrypt", &library->encrypt, missing);
    take(module, "calyth_decrypt", &library->decrypt, missing);
    take(module, "calyth_encrypt_aes", &library->encryptAes, missing);
    take(module, "calyth_decrypt_aes", &library->decryptAes, missing);
    take(module, "calyth_decryptSymetric", &library->decryptSymetric, missing);
    take(module, "calyth_ecdhDerive", &library->ecdhDerive, missing);
    take(module, "calyth_generateRamdomNumber", &library->generateRamdomNumber, missing);
    return true;
}

}  // namespace tokenview
