// calyth-sign: signs a file through CryptoAPI, or with --cng through the key storage provider, with
// the token's key.
//
//   calyth-sign --container KEYID --in FILE --out FILE [--pin PIN] [--hash sha256] [--cms [--attached]]
//               [--provider NAME]
//   calyth-sign --cng --container KEYID --in FILE --out FILE [--pin PIN] [--hash sha256] [--dll PATH]
//   calyth-sign --subject TEXT --in FILE --out FILE [--pin PIN] [--hash sha256] [--attached]
//
// Without --cms it writes the bare PKCS #1 v1.5 signature, big-endian, as
// `openssl dgst -sha256 -verify pub.pem -signature OUT FILE` reads it. With --cms it writes a DER
// CMS SignedData made by CryptSignMessage with the key's certificate from the token, as
// `openssl cms -verify -inform DER -in OUT -content FILE -CAfile ca.pem` reads it. With --subject it
// signs as applications sign with "my certificate": found by subject in the user's store, its key
// reached by crypt32 through the certificate's key provider information, a CMS message.
#include <windows.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include "calyth_version.h"
#include "cng_signer.h"
#include "signer.h"

using namespace calythsign;

namespace {

const char* kUsage =
    "usage: calyth-sign --container KEYID --in FILE --out FILE [--pin PIN] [--hash "
    "sha1|sha256|sha384|sha512]\n"
    "                   [--cms [--attached]] [--provider NAME]\n"
    "       calyth-sign --cng --container KEYID --in FILE --out FILE [--pin PIN] [--hash ...] [--dll PATH]\n"
    "       calyth-sign --subject TEXT --in FILE --out FILE [--pin PIN] [--hash ...] [--attached]\n"
    "       calyth-sign --version\n"
    "  Signs FILE through CryptoAPI with the key KEYID (its 32-character id) of the registered\n"
    "  provider (default \"Calyth Cryptographic Provider CSP\"). Without --pin the provider asks\n"
    "  for the PIN itself. Writes the big-endian PKCS #1 signature, or with --cms a DER CMS\n"
    "  SignedData (detached unless --attached) carrying the key's certificate from the token.\n"
    "  With --cng it loads the provider DLL (default CalythCSP.dll beside this program), takes its\n"
    "  key storage function table and signs a digest computed by BCrypt with the key named KEYID\n"
    "  (PKCS #1 v1.5, the PIN handed over as \"SmartCardPin\"); the signature is written big-endian.\n"
    "  With --subject it finds the certificate whose subject contains TEXT in the current user's\n"
    "  personal store (\"MY\", where calyth-agent puts the token's certificates), lets crypt32\n"
    "  acquire its private key through the certificate's key provider information and writes a DER\n"
    "  CMS SignedData made by CryptSignMessage; no provider or container is named.\n";

bool readFile(const std::string& path, Bytes* bytes) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

bool writeFile(const std::string& path, const Bytes& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

int usageError(const std::string& message) {
    (void)std::fprintf(stderr, "calyth-sign: %s\n\n%s", message.c_str(), kUsage);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::map<std::string, std::string> values;
    bool cms = false;
    bool attached = false;
    bool cng = false;
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word == "--help" || word == "-h") {
            std::printf("%s", kUsage);
            return 0;
        } else if (word == "--version") {
            std::printf("calyth-sign %s\n", CALYTH_VERSION_TEXT);
            return 0;
        } else if (word == "--cms") {
            cms = true;
        } else if (word == "--attached") {
            attached = true;
        } else if (word == "--cng") {
            cng = true;
        } else if (word == "--container" || word == "--in" || word == "--out" || word == "--pin" ||
                   word == "--hash" || word == "--provider" || word == "--dll" || word == "--subject") {
            if (i + 1 >= argc)
                return usageError("missing value of " + word);
            values[word] = argv[++i];
        } else {
            return usageError("unknown argument '" + word + "'");
        }
    }
    bool bySubject = values.count("--subject") != 0;
    for (const char* required : {bySubject ? "--subject" : "--container", "--in", "--out"})
        if (values[required].empty())
            return usageError(std::string("missing ") + required);
    if (bySubject && (cng || cms || values.count("--container") || values.count("--provider")))
        return usageError(
            "--subject signs a CMS message with the certificate from the user's store: "
            "no --cng, --cms, --container or --provider");
    if (attached && !cms && !bySubject)
        return usageError("--attached needs --cms");
    if (cng && (cms || values.count("--provider")))
        return usageError("--cng signs a bare PKCS #1 signature: no --cms, no --provider");
    if (!cng && values.count("--dll"))
        return usageError("--dll needs --cng");

    SignRequest request;
    request.provider =
        values.count("--provider") ? values["--provider"] : "Calyth Cryptographic Provider CSP";
    request.container = values["--container"];
    request.pin = values["--pin"];
    request.attached = attached;
    std::string hashName = values.count("--hash") ? values["--hash"] : "sha256";
    request.hash = hashByName(hashName);
    if (request.hash == 0)
        return usageError("unknown hash '" + hashName + "'");

    Bytes document;
    if (!readFile(values["--in"], &document)) {
        (void)std::fprintf(stderr, "calyth-sign: cannot read '%s'\n", values["--in"].c_str());
        return 1;
    }
    Bytes output;
    SignError failure;
    bool ok;
    if (bySubject) {
        SubjectSignRequest subjectRequest;
        subjectRequest.subject = values["--subject"];
        subjectRequest.pin = request.pin;
        subjectRequest.hash = request.hash;
        subjectRequest.attached = attached;
        ok = signMessageAsSubject(subjectRequest, document, &output, &failure);
    } else if (cng) {
        CngSignRequest cngRequest;
        cngRequest.dll = values.count("--dll") ? values["--dll"] : providerDllBesideProgram();
        cngRequest.keyId = request.container;
        cngRequest.pin = request.pin;
        cngRequest.hash = hashName;
        ok = signHashCng(cngRequest, document, &output, &failure);
    } else {
        ok = cms ? signMessage(request, document, &output, &failure)
                 : signHash(request, document, &output, &failure);
    }
    if (!ok) {
        (void)std::fprintf(stderr, "calyth-sign: %s failed: 0x%08lX\n", failure.step.c_str(),
                           static_cast<unsigned long>(failure.error));
        return 1;
    }
    if (!writeFile(values["--out"], output)) {
        (void)std::fprintf(stderr, "calyth-sign: cannot write '%s'\n", values["--out"].c_str());
        return 1;
    }
    std::printf("%s: %u bytes (%s, %s) written to %s\n",
                cms || bySubject ? "CMS signature"
                : cng            ? "CNG signature"
                                 : "signature",
                static_cast<unsigned>(output.size()), hashName.c_str(),
                bySubject ? values["--subject"].c_str() : request.container.c_str(), values["--out"].c_str());
    return 0;
}
