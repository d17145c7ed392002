// Eight threads sign at once through the key storage function table, each on a provider and key of
// its own: every signature verifies with KSPVerifySignature, and OpenSSL verifies a sample of them
// with the public key calyth-token exported. The PIN goes through "SmartCardPin" once, for the
// whole process; the program runs headless, so any PIN dialog would fail the signing.
#include <windows.h>

#include <bcrypt.h>

#include <gtest/gtest.h>
#include <thread>

#include "cng_pin_support.h"
#include "support/scratch_files.h"
#include "support/test_support.h"

using namespace cngtest;

namespace cngpin {
namespace {

constexpr int kThreads = 8;
constexpr int kSignaturesPerThread = 50;

Bytes documentOf(int thread, int index) {
    return testsupport::bytesOf("thread " + std::to_string(thread) + " document " + std::to_string(index) +
                                "\n");
}

// What one thread did: the status of each step and its signatures, in order.
struct ThreadRun {
    SECURITY_STATUS openProvider = -1;
    SECURITY_STATUS openKey = -1;
    std::vector<SECURITY_STATUS> signs;
    std::vector<SECURITY_STATUS> verifies;
    std::vector<Bytes> signatures;
};

// Opens its own provider and key and signs (then verifies) each digest, straight through the table
// (the client's ownership records are not made for several threads).
void signAll(const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table, const std::wstring& keyName,
             const std::vector<Bytes>& digests, ThreadRun* run) {
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE key = 0;
    run->openProvider = table->OpenProvider(&provider, cngtest::kProviderName, 0);
    if (run->openProvider != 0)
        return;
    run->openKey = table->OpenKey(provider, &key, keyName.c_str(), 0, 0);
    if (run->openKey == 0) {
        BCRYPT_PKCS1_PADDING_INFO padding{BCRYPT_SHA256_ALGORITHM};
        for (const Bytes& digest : digests) {
            Bytes hash(digest);
            Bytes signature(256);
            DWORD length = 0;
            run->signs.push_back(table->SignHash(
                provider, key, &padding, hash.data(), static_cast<DWORD>(hash.size()), signature.data(),
                static_cast<DWORD>(signature.size()), &length, BCRYPT_PAD_PKCS1));
            signature.resize(length);
            run->verifies.push_back(table->VerifySignature(
                provider, key, &padding, hash.data(), static_cast<DWORD>(hash.size()), signature.data(),
                static_cast<DWORD>(signature.size()), BCRYPT_PAD_PKCS1));
            run->signatures.push_back(signature);
        }
        table->FreeKey(provider, key);
    }
    table->FreeProvider(provider);
}

TEST(ConcurrentSigning, EightThreadsSignFiftyTimesEachAndEverySignatureVerifies) {
    startProviderLog();
    TokenKey token;
    ASSERT_TRUE(makeTokenKey("CNGPIN-THREADS-01", &token));
    CngClient client;
    ASSERT_TRUE(client.loaded());
    ProviderSession session(client, kPin);
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ(session.openKey(token.keyId, &key), 0);

    std::vector<std::vector<Bytes>> digests(kThreads);
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < kSignaturesPerThread; ++i)
            digests[t].push_back(nativeHash(BCRYPT_SHA256_ALGORITHM, documentOf(t, i)));

    std::vector<ThreadRun> runs(kThreads);
    std::vector<std::thread> threads;
    std::wstring keyName = cngtest::wide(token.keyId);
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back(signAll, client.table(), keyName, std::cref(digests[t]), &runs[t]);
    for (std::thread& thread : threads)
        thread.join();

    for (int t = 0; t < kThreads; ++t) {
        SCOPED_TRACE("thread " + std::to_string(t));
        const ThreadRun& run = runs[t];
        ASSERT_EQ(run.openProvider, 0) << hexStatus(run.openProvider);
        ASSERT_EQ(run.openKey, 0) << hexStatus(run.openKey);
        ASSERT_EQ(run.signs.size(), static_cast<size_t>(kSignaturesPerThread));
        for (int i = 0; i < kSignaturesPerThread; ++i) {
            EXPECT_EQ(run.signs[i], 0) << "signature " << i << ": " << hexStatus(run.signs[i]);
            EXPECT_EQ(run.signatures[i].size(), 256u) << "signature " << i;
            EXPECT_EQ(run.verifies[i], 0) << "signature " << i << ": " << hexStatus(run.verifies[i]);
        }
        // A sample for OpenSSL: the first and the last signature of each thread.
        for (int i : {0, kSignaturesPerThread - 1})
            opensslVerifies(token.publicPem, "sha256", documentOf(t, i), run.signatures[i]);
    }
    EXPECT_FALSE(testsupport::logContains("Password dialog show window"));

    // KSPVerifySignature is no rubber stamp: another document's signature is refused.
    Bytes mismatched = runs[0].signatures[1];
    EXPECT_EQ(
        client.verifySignature(session.provider(), key, nullptr, digests[0][0], mismatched, BCRYPT_PAD_PKCS1),
        KSP_NTE_BAD_SIGNATURE);
}

}  // namespace
}  // namespace cngpin
