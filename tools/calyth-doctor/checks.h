// The doctor's checks, in the order they run. Each appends its verdicts to the report; none changes
// anything in the registry or on a token.
#pragma once

#include <string>

#include "device_functions.h"
#include "report.h"
#include "token_view.h"

namespace doctor {

// The device library and what a token holds are read as the certificate agent reads them.
using tokenview::DeviceFunctions;
using tokenview::kDeviceFunctionCount;
using tokenview::keyAlgorithm;
using tokenview::keyUsageText;
using tokenview::deviceLibraryFolder;
using tokenview::loadDeviceFunctions;
using tokenview::readToken;
using tokenview::TokenCertificate;
using tokenview::TokenKey;
using tokenview::TokenView;

constexpr const char* kProviderName = "Calyth Cryptographic Provider CSP";

// The CryptoAPI provider key in the 64-bit view of the registry (always reported) and in the 32-bit
// view (reported when it is there). *providerDll receives the registered 64-bit CalythCSP.dll when
// that file exists, else "".
void checkCryptoApiRegistration(Report* report, std::string* providerDll);

// GetKeyStorageInterface of providerDll (or of the CalythCSP.dll the loader finds) hands out a
// complete function table.
void checkKeyStorageProvider(Report* report, const std::string& providerDll);

// CalythDSCLibrary.dll where the loader finds it, with all its functions; *library is loaded when
// the check passed.
// Looks for the device library beside the registered provider (providerDll), or in the system
// folder when no provider was found.
void checkDeviceLibrary(Report* report, const std::string& providerDll, DeviceFunctions* library);

// The log level as the provider reads it, the log folder and today's log files.
void checkLog(Report* report);

// The connected tokens, their key pairs and certificates, and the certificates' chains.
void checkTokens(Report* report, const DeviceFunctions& library);

// The certificate agent: set to start at logon, and every certificate of a connected token's key
// in the user's personal store with the key provider information of its key.
void checkCertificateAgent(Report* report, const DeviceFunctions& library);

struct SignTestRequest {
    std::string pin;    // "" lets the provider ask with its dialog
    std::string keyId;  // "" picks the first RSA signature key of the first token
    std::string providerDll;
};

// A signature through CryptoAPI and one through the key storage provider, each verified here.
void checkSignatures(Report* report, const DeviceFunctions& library, const SignTestRequest& request);

}  // namespace doctor
