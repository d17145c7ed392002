// The device library loaded at run time. calyth-doctor and calyth-agent must report a missing
// library instead of failing to start, so they take the functions with GetProcAddress, with the
// signatures of token/device_library.h, and never link the library's import library.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "token/device_library.h"

namespace tokenview {

struct DeviceFunctions {
    HMODULE module = nullptr;
    std::string path;
    decltype(&calyth_init) init = nullptr;
    decltype(&calyth_getConnectedDeviceList) getConnectedDeviceList = nullptr;
    decltype(&calyth_initDevice) initDevice = nullptr;
    decltype(&calyth_getTokenInfo) getTokenInfo = nullptr;
    decltype(&calyth_validatePassword) validatePassword = nullptr;
    decltype(&calyth_getKeyPairList) getKeyPairList = nullptr;
    decltype(&calyth_getAesKeyList) getAesKeyList = nullptr;
    decltype(&calyth_getCertificateList) getCertificateList = nullptr;
    decltype(&calyth_getCertificateDetails) getCertificateDetails = nullptr;
    decltype(&calyth_generateKeyPair) generateKeyPair = nullptr;
    decltype(&calyth_deleteKeyPair) deleteKeyPair = nullptr;
    decltype(&calyth_updateKeyPairDetails) updateKeyPairDetails = nullptr;
    decltype(&calyth_importCertificate) importCertificate = nullptr;
    decltype(&calyth_getFilesWithExtensionsAndConvertDER) getFilesWithExtensionsAndConvertDER = nullptr;
    decltype(&calyth_importAesKey) importAesKey = nullptr;
    decltype(&calyth_initHash) initHash = nullptr;
    decltype(&calyth_updateHash) updateHash = nullptr;
    decltype(&calyth_finalHash) finalHash = nullptr;
    decltype(&calyth_signHash) signHash = nullptr;
    decltype(&calyth_verifySignatureHash) verifySignatureHash = nullptr;
    decltype(&calyth_encrypt) encrypt = nullptr;
    decltype(&calyth_decrypt) decrypt = nullptr;
    decltype(&calyth_encrypt_aes) encryptAes = nullptr;
    decltype(&calyth_decrypt_aes) decryptAes = nullptr;
    decltype(&calyth_decryptSymetric) decryptSymetric = nullptr;
    decltype(&calyth_ecdhDerive) ecdhDerive = nullptr;
    decltype(&calyth_generateRamdomNumber) generateRamdomNumber = nullptr;

    bool complete() const;
};

constexpr int kDeviceFunctionCount = 27;

// The folder the provider opens the device library from: that of `providerDll` (the registered
// CalythCSP.dll), or the system folder when none is registered. Ends in a backslash.
std::string deviceLibraryFolder(const std::string& providerDll);
// The "Image Path" of the CryptoAPI registration in this process's registry view, "" when none.
std::string registeredProviderDll();

// Loads <folder>CalythDSCLibrary.dll by its full path, as the provider does from its own folder.
// False with *error set when it does not load; otherwise the functions it lacks are named in *missing.
bool loadDeviceFunctions(const std::string& folder, DeviceFunctions* library, DWORD* error,
                         std::vector<std::string>* missing);

}  // namespace tokenview
