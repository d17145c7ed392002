// A CryptoAPI application thread: silent contexts through advapi32, so a token whose PIN the
// provider has forgotten answers NTE_SILENT_CONTEXT; the thread then hands the PIN over through
// PP_SIGNATURE_PIN and counts that entry, which is how the run observes every PIN request.
#include <windows.h>

#include <wincrypt.h>

#include <mutex>
#include <random>
#include <shared_mutex>

#include "stress.h"
#include "support/provider_registration.h"

namespace stress {
namespace {

Bytes randomBytes(std::mt19937& random, size_t count) {
    Bytes bytes(count);
    for (auto& byte : bytes)
        byte = static_cast<unsigned char>(random());
    return bytes;
}

// CryptSignHash of SHA-256(message) with the signature key; empty on failure (code in *error).
Bytes sign(HCRYPTPROV provider, const Bytes& message, DWORD* error) {
    HCRYPTHASH hash = 0;
    if (!CryptCreateHash(provider, CALG_SHA_256, 0, 0, &hash)) {
        *error = GetLastError();
        return {};
    }
    Bytes signature(1024);
    DWORD length = static_cast<DWORD>(signature.size());
    BOOL ok = CryptHashData(hash, message.data(), static_cast<DWORD>(message.size()), 0) &&
              CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature.data(), &length);
    *error = ok ? 0 : GetLastError();
    CryptDestroyHash(hash);
    if (!ok)
        return {};
    signature.resize(length);
    return signature;
}

// The first private-key operation after the provider forgot the PIN: one thread at a time, and only
// when the provider still refuses once this thread holds the gate, is the PIN entered and counted.
template <class Operation>
bool withLogin(Run& run, const ThreadState& thread, Token& token, HCRYPTPROV provider, Operation operation,
               DWORD* error) {
    {
        std::shared_lock<LoginGate> gate(token.loginGate);
        if (operation(error) || *error != static_cast<DWORD>(NTE_SILENT_CONTEXT))
            return *error == 0;
    }
    std::unique_lock<LoginGate> gate(token.loginGate);
    if (operation(error) || *error != static_cast<DWORD>(NTE_SILENT_CONTEXT))
        return *error == 0;
    if (!CryptSetProvParam(provider, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(kPin), 0)) {
        failed(run, "CryptSetProvParam(PP_SIGNATURE_PIN)", GetLastError());
        return false;
    }
    countInPeriod(token, 1, 0);
    note(run, "PIN entered on " + token.serial + " by " + thread.name + " in " + thread.step.load());
    return operation(error);
}

void verifyInProvider(Run& run, ThreadState& thread, HCRYPTPROV provider, const Bytes& message,
                      const Bytes& signature) {
    thread.step = "CryptVerifySignature";
    HCRYPTKEY key = 0;
    HCRYPTHASH hash = 0;
    if (!CryptGetUserKey(provider, AT_SIGNATURE, &key)) {
        failed(run, "CryptGetUserKey(AT_SIGNATURE)", GetLastError());
        return;
    }
    if (CryptCreateHash(provider, CALG_SHA_256, 0, 0, &hash) &&
        CryptHashData(hash, message.data(), static_cast<DWORD>(message.size()), 0) &&
        CryptVerifySignatureA(hash, signature.data(), static_cast<DWORD>(signature.size()), key, nullptr, 0))
        completed(run, thread);
    else
        failed(run, "CryptVerifySignature", GetLastError());
    if (hash)
        CryptDestroyHash(hash);
    CryptDestroyKey(key);
}

void encryptDecrypt(Run& run, ThreadState& thread, Token& token, HCRYPTPROV provider, std::mt19937& random) {
    thread.step = "CryptEncrypt";
    HCRYPTKEY key = 0;
    if (!CryptGetUserKey(provider, AT_KEYEXCHANGE, &key)) {
        failed(run, "CryptGetUserKey(AT_KEYEXCHANGE)", GetLastError());
        return;
    }
    Bytes plain = randomBytes(random, 32);
    Bytes buffer(1024);
    std::copy(plain.begin(), plain.end(), buffer.begin());
    DWORD length = static_cast<DWORD>(plain.size());
    if (!CryptEncrypt(key, 0, TRUE, 0, buffer.data(), &length, static_cast<DWORD>(buffer.size()))) {
        failed(run, "CryptEncrypt", GetLastError());
    } else {
        completed(run, thread);
        thread.step = "CryptDecrypt";
        DWORD error = 0;
        auto decrypt = [&](DWORD* code) {
            DWORD decryptedLength = length;
            bool ok = CryptDecrypt(key, 0, TRUE, 0, buffer.data(), &decryptedLength);
            *code = ok ? 0 : GetLastError();
            if (ok)
                length = decryptedLength;
            return ok;
        };
        if (!withLogin(run, thread, token, provider, decrypt, &error)) {
            failed(run, "CryptDecrypt", error);
        } else {
            completed(run, thread);
            if (Bytes(buffer.begin(), buffer.begin() + length) != plain)
                ++run.tally.roundTripMismatches;
        }
    }
    CryptDestroyKey(key);
}

// The run's token that the context works on, told by the key containers it lists: a context whose
// own token is away works on the first connected token instead, and a PIN entered there is that
// token's. Null when the context lists neither token's key (its key list failed at acquisition).
Token* tokenOfContext(Run& run, HCRYPTPROV provider) {
    char name[256];
    for (DWORD flags = CRYPT_FIRST;; flags = CRYPT_NEXT) {
        DWORD length = sizeof name;
        if (!CryptGetProvParam(provider, PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &length, flags))
            return nullptr;
        for (Token& token : run.tokens)
            if (_stricmp(name, token.keyId.c_str()) == 0)
                return &token;
    }
}

void iteration(Run& run, ThreadState& thread, HCRYPTPROV system, std::mt19937& random) {
    const Token& chosen = run.tokens[random() % 2];
    thread.step = "CryptAcquireContext";
    HCRYPTPROV provider = 0;
    if (!CryptAcquireContextA(&provider, chosen.keyId.c_str(), testsupport::kProviderName, PROV_RSA_FULL,
                              CRYPT_SILENT)) {
        failed(run, "CryptAcquireContext", GetLastError());
        return;
    }
    completed(run, thread);
    Token* holder = tokenOfContext(run, provider);
    if (holder == nullptr) {
        failed(run, "CryptGetProvParam(PP_ENUMCONTAINERS)", GetLastError());
        CryptReleaseContext(provider, 0);
        return;
    }
    Token& token = *holder;

    thread.step = "CryptSignHash";
    Bytes message = randomBytes(random, 1 + random() % 200);
    DWORD error = 0;
    Bytes signature;
    auto signMessage = [&](DWORD* code) {
        signature = sign(provider, message, code);
        return *code == 0;
    };
    if (!withLogin(run, thread, token, provider, signMessage, &error)) {
        failed(run, "CryptSignHash", error);
    } else {
        completed(run, thread);
        countInPeriod(token, 0, 1);
        ++run.tally.signatures;
        if (!verifiesOutside(system, token, message, signature))
            ++run.tally.signaturesNotVerifying;
        verifyInProvider(run, thread, provider, message, signature);
    }

    encryptDecrypt(run, thread, token, provider, random);

    thread.step = "CryptReleaseContext";
    if (CryptReleaseContext(provider, 0))
        completed(run, thread);
    else
        failed(run, "CryptReleaseContext", GetLastError());
}

}  // namespace

void cryptoApiWorker(Run& run, ThreadState& thread, unsigned seed) {
    std::mt19937 random(seed);
    HCRYPTPROV system = 0;
    CryptAcquireContextA(&system, nullptr, MS_ENH_RSA_AES_PROV_A, PROV_RSA_AES, CRYPT_VERIFYCONTEXT);
    while (!run.stop)
        iteration(run, thread, system, random);
    CryptReleaseContext(system, 0);
    thread.step = "done";
}

}  // namespace stress
