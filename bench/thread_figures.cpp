// Figure 4: signatures per second with 1, 2 and 4 threads, each on a context of its own, beside
// libgcrypt alone on as many threads.
#include <atomic>
#include <cstdio>
#include <thread>

#include "bench_stores.h"
#include "clients.h"
#include "figures.h"
#include "measure.h"
#include "reference.h"

namespace bench {
namespace {

// Operations per second of `threads` threads calling `operation(thread)` `each` times apiece.
template <typename Operation>
double throughput(int threads, int each, Operation operation) {
    std::atomic<bool> go{false};
    std::atomic<bool> failed{false};
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t)
        running.emplace_back([&, t] {
            while (!go)
                std::this_thread::yield();
            for (int i = 0; i < each; ++i)
                if (!operation(t))
                    failed = true;
        });
    auto start = Clock::now();
    go = true;
    for (std::thread& thread : running)
        thread.join();
    double seconds = secondsSince(start);
    return failed ? -1 : threads * each / seconds;
}

// Throughput with 2 threads over 1, and 4 over 2, round by round.
template <typename Operation>
void scaling(const Scale& scale, Operation operation, std::vector<double>& twoOverOne,
             std::vector<double>& fourOverTwo) {
    double one = throughput(1, scale.threadSignatures, operation);
    double two = throughput(2, scale.threadSignatures, operation);
    double four = throughput(4, scale.threadSignatures, operation);
    twoOverOne.push_back(one < 0 || two < 0 ? -1 : two / one);
    fourOverTwo.push_back(two < 0 || four < 0 ? -1 : four / two);
}

}  // namespace

int threadFigures(const std::string& root, const Scale& scale) {
    useStore(root, "k20");
    std::vector<std::string> serials = storeSerials();
    softtoken::KeyRecord rsa;
    if (serials.empty() || !benchKey(serials[0], 0, rsa))
        return 1;
    std::vector<HCRYPTPROV> contexts;
    for (int i = 0; i < 4; ++i) {
        HCRYPTPROV provider = acquireContext(keyIdText(rsa), kPin);
        if (!provider)
            return 1;
        contexts.push_back(provider);
    }
    KeyPtr key = parsedKey(rsa);
    if (!key)
        return 1;
    // libgcrypt alone on the same threads tells how much of the machine's two cores the run got.
    std::vector<double> twoOverOne, fourOverTwo, floorTwo, floorFour;
    for (int round = 0; round < scale.rounds; ++round) {
        scaling(
            scale, [&](int t) { return signDocument(contexts[t], sampleDocument()); }, twoOverOne,
            fourOverTwo);
        scaling(
            scale, [&](int) { return referenceSign(*key, sampleDigest()); }, floorTwo, floorFour);
    }
    for (HCRYPTPROV provider : contexts)
        CryptReleaseContext(provider, 0);
    Summary two = summarize(twoOverOne), four = summarize(fourOverTwo);
    Summary floor2 = summarize(floorTwo), floor4 = summarize(floorFour);
    unsigned cores = std::thread::hardware_concurrency();
    printRow("4 signatures/s, 2 threads / 1 thread (" + std::to_string(cores) + " cores)", two, Unit::Times,
             ">= 1.8x", two.median >= 1.8);
    printRow("4 signatures/s, 4 threads / 2 threads", four, Unit::Times, ">= 1.0x", four.median >= 1.0);
    printRow("4 libgcrypt alone, 2 threads / 1 thread", floor2, Unit::Times, "", true);
    printRow("4 libgcrypt alone, 4 threads / 2 threads", floor4, Unit::Times, "", true);
    return 0;
}

}  // namespace bench
