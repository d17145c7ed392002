// calyth-doctor: tells an administrator what is wrong with an installation of the provider.
//
//   calyth-doctor [--json] [--sign-test [--pin PIN] [--key KEYID]]
//
// It checks, in order, the CryptoAPI registration, the key storage provider, the device library,
// the log settings, the connected tokens and the certificate agent, and with --sign-test signs once through
// CryptoAPI and once through the key storage provider. One line per check; exit code 1 when a check failed.
// It changes nothing in the registry or on a token, and never shows the PIN.
#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <string>

#include "calyth_version.h"
#include "checks.h"

using namespace doctor;

namespace {

const char* kUsage =
    "usage: calyth-doctor [--json] [--sign-test [--pin PIN] [--key KEYID]]\n"
    "  Checks the provider's installation: the CryptoAPI registration (64-bit and, when present, 32-bit),\n"
    "  the key storage provider, the device library CalythDSCLibrary.dll, the log level and files, and\n"
    "  the connected tokens with their keys and certificates, and whether the certificate agent starts\n"
    "  at logon and has put the tokens' certificates into the user's store. One line per check with\n"
    "  its verdict and,\n"
    "  for a problem, what to do. Exit code 0 when no check failed, 1 when one did, 2 for a bad command "
    "line.\n"
    "  --json       the same report as JSON, for a support ticket\n"
    "  --sign-test  also sign through CryptoAPI and through the key storage provider and verify both\n"
    "               signatures; the PIN from --pin, else the provider's PIN dialog\n"
    "  --key KEYID  the key to sign with (its 32-character id or its label); default: the first RSA\n"
    "               signature key of the connected tokens\n";

int usageError(const std::string& message) {
    (void)std::fprintf(stderr, "calyth-doctor: %s\n\n%s", message.c_str(), kUsage);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    bool json = false;
    bool signTest = false;
    bool pinGiven = false;
    SignTestRequest signRequest;
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word == "--help" || word == "-h") {
            std::printf("%s", kUsage);
            return 0;
        } else if (word == "--version") {
            std::printf("calyth-doctor %s\n", CALYTH_VERSION_TEXT);
            return 0;
        } else if (word == "--json") {
            json = true;
        } else if (word == "--sign-test") {
            signTest = true;
        } else if (word == "--pin" || word == "--key") {
            if (i + 1 >= argc)
                return usageError("missing value of " + word);
            if (word == "--pin") {
                signRequest.pin = argv[++i];
                pinGiven = true;
            } else {
                signRequest.keyId = argv[++i];
            }
        } else {
            return usageError("unknown argument '" + word + "'");
        }
    }
    if ((pinGiven || !signRequest.keyId.empty()) && !signTest)
        return usageError("--pin and --key belong to --sign-test");

    // The provider loaded by the checks prints its own log troubles on standard output; they must
    // not mix with the report (the JSON above all).
    (void)std::fflush(stdout);
    int savedOutput = _dup(1);
    int discard = _open("NUL", _O_WRONLY);
    if (discard >= 0)
        _dup2(discard, 1);

    Report report;
    std::string providerDll;
    checkCryptoApiRegistration(&report, &providerDll);
    checkKeyStorageProvider(&report, providerDll);
    DeviceFunctions library;
    checkDeviceLibrary(&report, providerDll, &library);
    checkLog(&report);
    checkTokens(&report, library);
    checkCertificateAgent(&report, library);
    if (signTest) {
        signRequest.providerDll = providerDll;
        checkSignatures(&report, library, signRequest);
    }
    // The PIN is not needed any more; nothing below may show it.
    SecureZeroMemory(&signRequest.pin[0], signRequest.pin.size());

    (void)std::fflush(stdout);
    if (savedOutput >= 0)
        _dup2(savedOutput, 1);
    if (json)
        printJson(report, stdout);
    else
        printText(report, stdout);
    return exitCode(report);
}
