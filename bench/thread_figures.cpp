// Figure 4: signatures per second with 1, 2 and 4 threads, each on a context of its own.
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

// Signatures per second of `contexts.size()` threads signing `each` documents apiece.
double throughput(const std::vector<HCRYPTPROV>& contexts, int each) {
    std::atomic<bool> go{false};
    std::atomic<bool> failed{false};
    std::vector<std::thread> threads;
    for (HCRYPTPROV provider : contexts)
        threads.emplace_back([&, provider] {
            while (!go)
                std::this_thread::yield();
            for (int i = 0; i < each; ++i)
                if (!signDocument(provider, sampleDocument()))
                    failed = true;
        });
    auto start = Clock::now();
    go = true;
    for (std::thread& thread : threads)
        thread.join();
    double seconds = secondsSince(start);
    return failed ? -1 : contexts.size() * each / seconds;
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
    auto first = [&](size_t count) {
        return std::vector<HCRYPTPROV>(contexts.begin(), contexts.begin() + count);
    };
    std::vector<double> twoOverOne, fourOverTwo;
    for (int round = 0; round < scale.rounds; ++round) {
        double one = throughput(first(1), scale.threadSignatures);
        double two = throughput(first(2), scale.threadSignatures);
        double four = throughput(first(4), scale.threadSignatures);
        twoOverOne.push_back(one < 0 || two < 0 ? -1 : two / one);
        fourOverTwo.push_back(two < 0 || four < 0 ? -1 : four / two);
    }
    for (HCRYPTPROV provider : contexts)
        CryptReleaseContext(provider, 0);
    Summary two = summarize(twoOverOne), four = summarize(fourOverTwo);
    unsigned cores = std::thread::hardware_concurrency();
    printRow("4 signatures/s, 2 threads / 1 thread (" + std::to_string(cores) + " cores)", two, Unit::Times,
             ">= 1.8x", two.median >= 1.8);
    printRow("4 signatures/s, 4 threads / 2 threads", four, Unit::Times, ">= 1.0x", four.median >= 1.0);
    return 0;
}

}  // namespace bench
