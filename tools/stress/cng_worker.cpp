// A CNG application thread: the provider's function table as the router would call it. It never
// gives a PIN: it uses the PIN the CryptoAPI threads validated, which the provider keeps per token
// for the whole process, and its login dialog fails at once without a display.
#include <windows.h>

#include <wincrypt.h>

#include <bcrypt.h>

#include <mutex>
#include <random>
#include <shared_mutex>

#include "stress.h"
#include "support/cng_client.h"

namespace stress {
namespace {

Bytes sha256(HCRYPTPROV system, const Bytes& message) {
    HCRYPTHASH hash = 0;
    Bytes digest(32);
    DWORD length = static_cast<DWORD>(digest.size());
    CryptCreateHash(system, CALG_SHA_256, 0, 0, &hash);
    CryptHashData(hash, message.data(), static_cast<DWORD>(message.size()), 0);
    CryptGetHashParam(hash, HP_HASHVAL, digest.data(), &length, 0);
    CryptDestroyHash(hash);
    return digest;
}

// The KSP encrypt and decrypt steps differ only in the client call and the step's name.
using CipherCall = SECURITY_STATUS (cngtest::CngClient::*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE,
                                                           const Bytes&, void*, Bytes*, DWORD);

// One step with PKCS #1 padding; false (counted as a failure) when the provider refused it.
bool cipherStep(Run& run, ThreadState& thread, cngtest::CngClient& client, CipherCall call, const char* step,
                const char* operation, NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, const Bytes& input,
                Bytes* output) {
    thread.step = step;
    SECURITY_STATUS status = (client.*call)(provider, key, input, nullptr, output, NCRYPT_PAD_PKCS1_FLAG);
    if (status) {
        failed(run, operation, status);
        return false;
    }
    completed(run, thread);
    return true;
}

void signAndDecrypt(Run& run, ThreadState& thread, cngtest::CngClient& client, NCRYPT_PROV_HANDLE provider,
                    NCRYPT_KEY_HANDLE key, Token& token, HCRYPTPROV system, std::mt19937& random) {
    Bytes message(1 + random() % 200);
    for (auto& byte : message)
        byte = static_cast<unsigned char>(random());
    Bytes digest = sha256(system, message);
    BCRYPT_PKCS1_PADDING_INFO padding = {BCRYPT_SHA256_ALGORITHM};
    Bytes signature;
    std::shared_lock<LoginGate> gate(token.loginGate);
    thread.step = "SignHash";
    SECURITY_STATUS status = client.signHash(provider, key, &padding, digest, &signature, BCRYPT_PAD_PKCS1);
    if (status) {
        failed(run, "KSP SignHash", status);
    } else {
        completed(run, thread);
        ++run.tally.signatures;
        if (!verifiesOutside(system, token, message, Bytes(signature.rbegin(), signature.rend())))
            ++run.tally.signaturesNotVerifying;
        thread.step = "VerifySignature";
        status = client.verifySignature(provider, key, &padding, digest, signature, BCRYPT_PAD_PKCS1);
        if (status)
            failed(run, "KSP VerifySignature", status);
        else
            completed(run, thread);
    }
    Bytes plain(message.data(), message.data() + std::min<size_t>(message.size(), 32));
    Bytes cipher;
    if (!cipherStep(run, thread, client, &cngtest::CngClient::encrypt, "Encrypt", "KSP Encrypt", provider,
                    key, plain, &cipher))
        return;
    Bytes decrypted;
    if (!cipherStep(run, thread, client, &cngtest::CngClient::decrypt, "Decrypt", "KSP Decrypt", provider,
                    key, cipher, &decrypted))
        return;
    if (decrypted != plain)
        ++run.tally.roundTripMismatches;
}

void iteration(Run& run, ThreadState& thread, cngtest::CngClient& client, HCRYPTPROV system,
               std::mt19937& random) {
    Token& token = run.tokens[random() % 2];
    thread.step = "OpenProvider";
    NCRYPT_PROV_HANDLE provider = 0;
    SECURITY_STATUS status = client.openProvider(&provider);
    if (status) {
        failed(run, "KSP OpenProvider", status);
        return;
    }
    completed(run, thread);
    thread.step = "OpenKey";
    NCRYPT_KEY_HANDLE key = 0;
    status = client.openKey(provider, &key, cngtest::wide(token.keyId));
    if (status) {
        failed(run, "KSP OpenKey", status);
    } else {
        completed(run, thread);
        signAndDecrypt(run, thread, client, provider, key, token, system, random);
        thread.step = "FreeKey";
        client.freeKey(provider, key);
    }
    thread.step = "FreeProvider";
    client.freeProvider(provider);
    completed(run, thread);
}

}  // namespace

void cngWorker(Run& run, ThreadState& thread, unsigned seed) {
    std::mt19937 random(seed);
    HCRYPTPROV system = 0;
    CryptAcquireContextA(&system, nullptr, MS_ENH_RSA_AES_PROV_A, PROV_RSA_AES, CRYPT_VERIFYCONTEXT);
    {
        cngtest::CngClient client;
        while (!run.stop && client.loaded())
            iteration(run, thread, client, system, random);
    }
    CryptReleaseContext(system, 0);
    thread.step = "done";
}

}  // namespace stress
