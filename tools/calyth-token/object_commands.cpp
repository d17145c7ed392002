// Commands on the objects of a token: genkey, import-key, delkey, export-pubkey, import-cert, export-cert,
// import-aes.
#include <cctype>
#include <cstdio>
#include <cstring>

#include "arguments.h"
#include "core/certificate.h"
#include "core/private_key_file.h"
#include "core/public_key.h"
#include "core/status.h"
#include "core/token_objects.h"
#include "util/encoding.h"

using namespace softtoken;

namespace calythtoken {
namespace {

std::string serialOption(const Arguments& a) {
    std::string serial = a.required("--serial");
    if (!isValidSerial(serial))
        throw UsageError("invalid serial '" + serial + "'");
    return serial;
}

TokenRef token(const std::string& serial) {
    TokenRef loaded;
    check(loadToken(serial, loaded), "token " + serial);
    return loaded;
}

const KeyRecord& keyOption(const TokenRef& t, const Arguments& a) {
    std::string name = a.required("--key");
    const KeyRecord* key = findKeyByName(t->data, name);
    if (!key)
        throw CommandError("token " + t->data.serial + " has no key '" + name +
                           "' (give the 32-character key id or a unique label)");
    return *key;
}

int32_t typeCode(const std::string& type) {
    static const char* names[] = {"rsa1024", "rsa2048", "rsa3072", "rsa4096", "p256", "p384", "p521"};
    for (int32_t code = 1; code <= 7; ++code)
        if (type == names[code - 1])
            return code;
    throw UsageError("unknown key type '" + type +
                     "': use rsa1024, rsa2048, rsa3072, rsa4096, p256, p384 or p521");
}

int32_t usageCode(const std::string& usage) {
    if (usage == "sign" || usage == "1")
        return 1;
    if (usage == "exchange" || usage == "2")
        return 2;
    if (usage == "both" || usage == "3")
        return 3;
    throw UsageError("unknown usage '" + usage + "': use sign, exchange or both");
}

bool isHexText(const std::string& text) {
    if (text.empty() || text.size() % 2 != 0)
        return false;
    for (char c : text)
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            return false;
    return true;
}

int runGenkey(const Arguments& a) {
    std::string serial = serialOption(a);
    int32_t size = typeCode(a.value("--type", "rsa2048"));
    int32_t usage = usageCode(a.value("--usage", "both"));
    std::string label = a.value("--label");
    if (label.size() > kMaxLabelLength)
        throw UsageError("the label must have at most 131 characters");
    std::string form = a.value("--pubform", "raw");
    if (form != "raw" && form != "der")
        throw UsageError("--pubform must be raw or der");
    token(serial);
    KeyRecord key;
    check(addGeneratedKey(serial, size, usage, label, form == "der", key), "cannot generate the key");
    std::printf("%s\n", hexOf(key.id).c_str());
    return 0;
}

int runImportKey(const Arguments& a) {
    std::string serial = serialOption(a);
    int32_t usage = usageCode(a.value("--usage", "both"));
    std::string label = a.value("--label");
    if (label.size() > kMaxLabelLength)
        throw UsageError("the label must have at most 131 characters");
    std::string file = a.required("--in");
    token(serial);
    ImportedKeyPair pair;
    int status = readPrivateKeyFile(readInputFile(file), pair);
    if (status == kNotSupported)
        throw CommandError("'" + file +
                           "' holds a key the token does not keep: use RSA 1024, 2048, 3072 or 4096 "
                           "bits, or EC P-256, P-384 or P-521");
    if (status != kOk)
        throw CommandError("'" + file +
                           "' is not an RSA or EC private key (PKCS #1, SEC1 or PKCS #8, DER or PEM): " +
                           statusMessage(status));
    KeyRecord key;
    check(addImportedKey(serial, pair, usage, label, key), "cannot store the key");
    std::printf("%s\n", hexOf(key.id).c_str());
    return 0;
}

int runDelkey(const Arguments& a) {
    std::string serial = serialOption(a);
    TokenRef t = token(serial);
    const KeyRecord& key = keyOption(t, a);
    std::string id = hexOf(key.id);
    check(removeKey(serial, key.id.data(), !a.has("--keep-certs")), "cannot delete key " + id);
    std::printf("key %s deleted\n", id.c_str());
    return 0;
}

int runExportPubkey(const Arguments& a) {
    std::string serial = serialOption(a);
    TokenRef t = token(serial);
    const KeyRecord& key = keyOption(t, a);
    PublicKey parsed;
    if (!keyPublicKey(key, parsed))
        throw CommandError("the public key of " + hexOf(key.id) + " cannot be read");
    Bytes der = subjectPublicKeyInfo(parsed);
    std::string content = a.has("--der") ? std::string(der.begin(), der.end()) : toPem(der, "PUBLIC KEY");
    if (a.has("--out"))
        writeOutputFile(a.value("--out"), content);
    else if (std::fwrite(content.data(), 1, content.size(), stdout) != content.size())
        return 1;  // a closed or full standard output loses the key: say so in the exit code
    return 0;
}

int runImportCert(const Arguments& a) {
    std::string serial = serialOption(a);
    token(serial);
    Bytes der = toDer(readInputFile(a.required("--in")));
    CertificateDetails details;
    if (der.empty() || readCertificate(der.data(), static_cast<int>(der.size()), details) != kOk)
        throw CommandError("'" + a.value("--in") + "' is not a DER or PEM certificate");
    CertificateRecord stored;
    check(addCertificate(serial, der, a.value("--label"), stored), "cannot store the certificate");
    bool linked = false;
    for (unsigned char b : stored.keyId)
        linked = linked || b != 0;
    std::printf("certificate %d \"%s\" key=%s\n", stored.handle, stored.label.c_str(),
                linked ? hexOf(stored.keyId).c_str() : "none");
    return 0;
}

int runExportCert(const Arguments& a) {
    std::string serial = serialOption(a);
    TokenRef t = token(serial);
    std::string wanted = a.required("--cert");
    const CertificateRecord* found = nullptr;
    for (const CertificateRecord& c : t->data.certificates)
        if (std::to_string(c.handle) == wanted || c.label == wanted)
            found = found ? found : &c;
    if (!found)
        throw CommandError("token " + serial + " has no certificate '" + wanted + "'");
    std::string content =
        a.has("--pem") ? toPem(found->der, "CERTIFICATE") : std::string(found->der.begin(), found->der.end());
    writeOutputFile(a.required("--out"), content);
    return 0;
}

int runImportAes(const Arguments& a) {
    std::string serial = serialOption(a);
    std::string hex = a.required("--key");
    if (!isHexText(hex))
        throw UsageError("--key must be the key bytes in hexadecimal");
    Bytes key = hexToBytes(hex);
    std::string type = a.value("--type", key.size() == 16 ? "aes128" : "aes256");
    int32_t code = type == "aes128"   ? CALYTH_SYMMETRIC_AES_128
                   : type == "aes256" ? CALYTH_SYMMETRIC_AES_256
                   : type == "3des"   ? CALYTH_SYMMETRIC_3DES
                                      : 0;
    if (code == 0)
        throw UsageError("--type must be aes128, aes256 or 3des");
    token(serial);
    AesRecord stored;
    check(addAesKey(serial, key, code, a.value("--label"), stored), "cannot store the secret key");
    std::printf("%s reference=%s\n", hexOf(stored.id).c_str(), hexOf(stored.reference).c_str());
    return 0;
}

}  // namespace

const std::vector<Command>& objectCommands() {
    static const std::vector<Command> commands = {
        {"genkey",
         "generate a key pair on a token and print its key id",
         "calyth-token genkey --serial SERIAL [--type TYPE] [--usage USAGE] [--label LABEL] [--pubform "
         "raw|der]\n"
         "  TYPE: rsa1024, rsa2048 (default), rsa3072, rsa4096, p256, p384, p521.\n"
         "  USAGE: sign, exchange or both (default).\n"
         "  --pubform der keeps the public key as a DER SubjectPublicKeyInfo instead of the raw\n"
         "  modulus or EC point. Prints the 32-character key id (the provider's container name).",
         {{"--serial", true}, {"--type", true}, {"--usage", true}, {"--label", true}, {"--pubform", true}},
         0,
         runGenkey},
        {"import-key",
         "store a private key made elsewhere (OpenSSL) and print its key id",
         "calyth-token import-key --serial SERIAL --in FILE [--usage USAGE] [--label LABEL]\n"
         "  FILE: an RSA (1024, 2048, 3072 or 4096 bits) or EC (P-256, P-384, P-521) private key,\n"
         "  PKCS #1 / SEC1 or PKCS #8 (unencrypted), DER or PEM. USAGE: sign, exchange or both\n"
         "  (default). Prints the 32-character key id, as genkey does.",
         {{"--serial", true}, {"--in", true}, {"--usage", true}, {"--label", true}},
         0,
         runImportKey},
        {"delkey",
         "delete a key pair",
         "calyth-token delkey --serial SERIAL --key KEY [--keep-certs]\n"
         "  KEY is the key id or a unique label. Its certificates go with it unless --keep-certs.",
         {{"--serial", true}, {"--key", true}, {"--keep-certs", false}},
         0,
         runDelkey},
        {"export-pubkey",
         "write a key's public key as PEM (or DER) for OpenSSL",
         "calyth-token export-pubkey --serial SERIAL --key KEY [--out FILE] [--der]\n"
         "  Writes the SubjectPublicKeyInfo, PEM \"PUBLIC KEY\" by default, to FILE or standard output.",
         {{"--serial", true}, {"--key", true}, {"--out", true}, {"--der", false}},
         0,
         runExportPubkey},
        {"import-cert",
         "store a certificate (DER or PEM) on a token",
         "calyth-token import-cert --serial SERIAL --in FILE [--label LABEL]\n"
         "  Links the certificate to the key pair whose public key it carries and prints\n"
         "  'certificate <handle> \"<label>\" key=<key id or none>'. The label defaults to the\n"
         "  subject's common name.",
         {{"--serial", true}, {"--in", true}, {"--label", true}},
         0,
         runImportCert},
        {"export-cert",
         "write a stored certificate to a file",
         "calyth-token export-cert --serial SERIAL --cert HANDLE|LABEL --out FILE [--pem]",
         {{"--serial", true}, {"--cert", true}, {"--out", true}, {"--pem", false}},
         0,
         runExportCert},
        {"import-aes",
         "store a secret key (key-encryption key for unwrapping)",
         "calyth-token import-aes --serial SERIAL --key HEX [--type aes128|aes256|3des] [--label LABEL]\n"
         "  Prints the key id and its reference bytes.",
         {{"--serial", true}, {"--key", true}, {"--type", true}, {"--label", true}},
         0,
         runImportAes},
    };
    return commands;
}

}  // namespace calythtoken
