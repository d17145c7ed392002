#include <windows.h>

#include <bcrypt.h>

#include "checks.h"
#include "cng_signer.h"
#include "signer.h"
#include "token_view.h"
#include "util/encoding.h"

namespace doctor {
namespace {

using calythsign::Bytes;

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

bool isRsaSigningKey(const CalythKeyPair& keyPair) {
    return keyPair.keySizeCode >= CALYTH_KEY_RSA_1024 && keyPair.keySizeCode <= CALYTH_KEY_RSA_4096 &&
           (keyPair.keyUsage & CALYTH_USAGE_SIGNATURE);
}

// The token and key the test signs with: the one asked for, else the first RSA signature key,
// preferring one with a certificate.
bool chooseKey(const DeviceFunctions& library, const std::string& wanted, std::string* serial,
               TokenKey* chosen) {
    library.init(0, nullptr, 2);
    bool found = false;
    for (const std::string& candidate : library.getConnectedDeviceList(false, nullptr)) {
        if (library.initDevice(candidate.c_str(), false, nullptr) != CALYTH_OK)
            continue;
        for (const TokenKey& key : readToken(library, candidate).keys) {
            bool named =
                !wanted.empty() && (_stricmp(key.id.c_str(), wanted.c_str()) == 0 || key.label == wanted);
            bool better = wanted.empty() && isRsaSigningKey(key.record) &&
                          (!found || (chosen->certificate.empty() && !key.certificate.empty()));
            if (named || better) {
                *serial = candidate;
                *chosen = key;
                found = true;
                if (named)
                    return true;
            }
        }
    }
    return found && wanted.empty();
}

bool sha256(const Bytes& data, Bytes* digest) {
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    if (BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA256_ALGORITHM, nullptr, 0) != 0)
        return false;
    digest->assign(32, 0);
    NTSTATUS status = BCryptHash(algorithm, nullptr, 0, const_cast<PUCHAR>(data.data()),
                                 static_cast<ULONG>(data.size()), digest->data(), 32);
    BCryptCloseAlgorithmProvider(algorithm, 0);
    return status == 0;
}

// Checks a big-endian PKCS #1 v1.5 SHA-256 signature with the key pair's public key, in BCrypt.
bool verifiedHere(const CalythKeyPair& keyPair, const Bytes& document, const Bytes& signature,
                  std::string* why) {
    Bytes spki = derPublicKeyFromStored(keyPair.publicKey, keyPair.publicKeyLength);
    CERT_PUBLIC_KEY_INFO* info = nullptr;
    DWORD size = 0;
    if (!CryptDecodeObjectEx(kEncoding, X509_PUBLIC_KEY_INFO, spki.data(), static_cast<DWORD>(spki.size()),
                             CRYPT_DECODE_ALLOC_FLAG, nullptr, &info, &size)) {
        *why = "the key's public key cannot be read: " + describeError(GetLastError());
        return false;
    }
    BCRYPT_KEY_HANDLE key = nullptr;
    bool imported = CryptImportPublicKeyInfoEx2(kEncoding, info, 0, nullptr, &key);
    LocalFree(info);
    if (!imported) {
        *why = "BCrypt does not take the public key: " + describeError(GetLastError());
        return false;
    }
    Bytes digest;
    BCRYPT_PKCS1_PADDING_INFO padding{BCRYPT_SHA256_ALGORITHM};
    NTSTATUS status =
        sha256(document, &digest)
            ? BCryptVerifySignature(key, &padding, digest.data(), static_cast<ULONG>(digest.size()),
                                    const_cast<PUCHAR>(signature.data()),
                                    static_cast<ULONG>(signature.size()), BCRYPT_PAD_PKCS1)
            : -1;
    BCryptDestroyKey(key);
    if (status != 0)
        *why = "the signature does not verify with the key's public key (" +
               describeError(static_cast<DWORD>(status)) + ")";
    return status == 0;
}

Check judge(const std::string& name, bool signedOk, const calythsign::SignError& failure, const TokenKey& key,
            const Bytes& document, const Bytes& signature) {
    if (!signedOk)
        return makeCheck(
            name, Verdict::Fail, failure.step + " failed: " + describeError(failure.error),
            "a wrong PIN, a locked token or single sign-on problems show here; the provider's log "
            "file of calyth-doctor (see the log check) names the failing device call");
    std::string why;
    if (!verifiedHere(key.record, document, signature, &why))
        return makeCheck(name, Verdict::Fail, why,
                         "the token signs with another key than it reports: contact support");
    return makeCheck(name, Verdict::Ok,
                     "key " + key.id + " (" + keyAlgorithm(key.record) + ") signed " +
                         std::to_string(signature.size()) +
                         " bytes (SHA-256, PKCS #1), verified by calyth-doctor");
}

}  // namespace

void checkSignatures(Report* report, const DeviceFunctions& library, const SignTestRequest& request) {
    const char* cryptoApi = "Signature through CryptoAPI";
    const char* cng = "Signature through the key storage provider";
    std::string serial;
    TokenKey key;
    if (!library.complete() || !chooseKey(library, request.keyId, &serial, &key)) {
        std::string why = !library.complete()     ? "no complete device library"
                          : request.keyId.empty() ? "no RSA signature key on a connected token"
                                                  : "no key " + request.keyId + " on a connected token";
        report->push_back(makeCheck(cryptoApi, Verdict::Fail, "not run: " + why,
                                    "connect a token with a signature key, or name one with --key"));
        report->push_back(makeCheck(cng, Verdict::Fail, "not run: " + why,
                                    "connect a token with a signature key, or name one with --key"));
        return;
    }
    std::string text = "calyth-doctor signature test on token " + serial;
    Bytes document(text.begin(), text.end());

    calythsign::SignRequest signRequest;
    signRequest.provider = kProviderName;
    signRequest.container = key.id;
    signRequest.pin = request.pin;
    Bytes signature;
    calythsign::SignError failure;
    bool ok = calythsign::signHash(signRequest, document, &signature, &failure);
    report->push_back(judge(cryptoApi, ok, failure, key, document, signature));

    calythsign::CngSignRequest cngRequest;
    cngRequest.dll = request.providerDll.empty() ? "CalythCSP.dll" : request.providerDll;
    cngRequest.keyId = key.id;
    cngRequest.pin = request.pin;
    Bytes cngSignature;
    calythsign::SignError cngFailure;
    ok = calythsign::signHashCng(cngRequest, document, &cngSignature, &cngFailure);
    report->push_back(judge(cng, ok, cngFailure, key, document, cngSignature));
}

}  // namespace doctor
