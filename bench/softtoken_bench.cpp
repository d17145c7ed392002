// Signatures per second through the soft token (CalythDSCLibrary.dll) and through libgcrypt
// directly with keys of the same kind, to show what the token's bookkeeping (store checks, PIN
// check, record handling) costs on top of the cryptography.
#include <windows.h>

#include <gcrypt.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/crypto.h"
#include "core/pin.h"
#include "core/status.h"
#include "core/token_store.h"
#include "token/device_library.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// Signs `count` digests through the device library; returns signatures per second.
double throughLibrary(const unsigned char* keyId, int count) {
    unsigned char digest[32], signature[512];
    auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        std::memset(digest, i & 0xFF, sizeof digest);
        int length = sizeof signature;
        if (calyth_signHash("BENCH", keyId, "1234", digest, 32, signature, &length, true, nullptr, false) !=
            0) {
            std::fprintf(stderr, "calyth_signHash failed\n");
            return 0;
        }
    }
    return count / seconds(start);
}

// The same work done with libgcrypt alone: build the data, sign, read the signature out.
double throughLibgcrypt(const char* keySpec, bool rsa, int count) {
    gcry_sexp_t parameters = nullptr, pair = nullptr;
    gcry_sexp_build(&parameters, nullptr, keySpec);
    if (gcry_pk_genkey(&pair, parameters) != 0)
        return 0;
    gcry_sexp_t key = gcry_sexp_find_token(pair, "private-key", 0);
    unsigned char digest[32], out[512];
    auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        std::memset(digest, i & 0xFF, sizeof digest);
        gcry_sexp_t data = nullptr, signature = nullptr;
        if (rsa)
            gcry_sexp_build(&data, nullptr, "(data (flags pkcs1) (hash sha256 %b))", 32, digest);
        else
            gcry_sexp_build(&data, nullptr, "(data (flags raw) (hash sha256 %b))", 32, digest);
        if (gcry_pk_sign(&signature, data, key) != 0)
            return 0;
        for (const char* part : {rsa ? "s" : "r", rsa ? nullptr : "s"}) {
            if (!part)
                break;
            gcry_sexp_t token = gcry_sexp_find_token(signature, part, 0);
            gcry_mpi_t value = gcry_sexp_nth_mpi(token, 1, GCRYMPI_FMT_USG);
            size_t written = 0;
            gcry_mpi_print(GCRYMPI_FMT_USG, out, sizeof out, &written, value);
            gcry_mpi_release(value);
            gcry_sexp_release(token);
        }
        gcry_sexp_release(data);
        gcry_sexp_release(signature);
    }
    double rate = count / seconds(start);
    gcry_sexp_release(key);
    gcry_sexp_release(pair);
    gcry_sexp_release(parameters);
    return rate;
}

bool makeKey(int32_t sizeCode, CalythKeyPair& key) {
    std::memset(&key, 0, sizeof key);
    key.keySizeCode = sizeCode;
    return calyth_generateKeyPair("BENCH", "1234", &key, nullptr) == 0;
}

}  // namespace

int main() {
    char temp[MAX_PATH];
    GetTempPathA(MAX_PATH, temp);
    std::string store = std::string(temp) + "calyth-softtoken-bench";
    CreateDirectoryA(store.c_str(), nullptr);
    SetEnvironmentVariableA("CALYTH_TOKEN_STORE", store.c_str());

    softtoken::ensureCryptoReady();
    softtoken::TokenData token;
    token.serial = "BENCH";
    token.label = "Benchmark";
    token.pin = softtoken::makePinRecord("1234");
    if (softtoken::createToken(token, true) != softtoken::kOk) {
        std::fprintf(stderr, "cannot create the benchmark token in %s\n", store.c_str());
        return 1;
    }
    calyth_init(0, nullptr, 2);
    CalythKeyPair rsa, ec;
    if (calyth_initDevice("BENCH", false, nullptr) != 0 || !makeKey(CALYTH_KEY_RSA_2048, rsa) ||
        !makeKey(CALYTH_KEY_EC_P256, ec)) {
        std::fprintf(stderr, "cannot make the benchmark keys\n");
        return 1;
    }
    // One warm-up signature each: the first call reads the token and checks the PIN once.
    throughLibrary(rsa.keyId, 1);
    throughLibrary(ec.keyId, 1);

    struct Row {
        const char* name;
        double library;
        double direct;
    } rows[] = {{"RSA-2048 PKCS#1 v1.5 / SHA-256", 0, 0}, {"ECDSA P-256 / SHA-256", 0, 0}};
    // Rounds alternate between the two ways and the best round of each counts, so that other
    // work on the machine weighs on both alike.
    for (int round = 0; round < 5; ++round) {
        rows[0].library = std::max(rows[0].library, throughLibrary(rsa.keyId, 100));
        rows[0].direct = std::max(
            rows[0].direct, throughLibgcrypt("(genkey (rsa (nbits 4:2048) (rsa-use-e 5:65537)))", true, 100));
        rows[1].library = std::max(rows[1].library, throughLibrary(ec.keyId, 300));
        rows[1].direct =
            std::max(rows[1].direct, throughLibgcrypt("(genkey (ecc (curve \"NIST P-256\")))", false, 300));
    }
    std::printf("%-32s %14s %14s %8s\n", "signature", "library/s", "libgcrypt/s", "cost");
    for (const Row& row : rows)
        std::printf("%-32s %14.1f %14.1f %7.2fx\n", row.name, row.library, row.direct,
                    row.library > 0 ? row.direct / row.library : 0.0);
    return 0;
}
