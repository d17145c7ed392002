#include "system/fuzz_wine/mutator.h"

#include <windows.h>

#include <psapi.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace fuzzwine {
namespace {

uint64_t splitMix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

uint64_t environmentNumber(const char* name, uint64_t fallback) {
    const char* text = std::getenv(name);
    return text != nullptr && *text != '\0' ? std::strtoull(text, nullptr, 0) : fallback;
}

const char* g_entryPoint = "";
uint64_t g_iteration = 0;
uint64_t g_seed = 1;

LONG WINAPI reportCrash(EXCEPTION_POINTERS* info) {
    std::fprintf(stderr,
                 "fuzz_wine: exception 0x%08lx in %s, iteration %llu; replay with CALYTH_FUZZ_WINE_SEED=%llu "
                 "CALYTH_FUZZ_WINE_START=%llu CALYTH_FUZZ_WINE_ITERATIONS=1 --gtest_filter=*%s*\n",
                 info->ExceptionRecord->ExceptionCode, g_entryPoint,
                 static_cast<unsigned long long>(g_iteration), static_cast<unsigned long long>(g_seed),
                 static_cast<unsigned long long>(g_iteration), g_entryPoint);
    std::fflush(stderr);
    return EXCEPTION_CONTINUE_SEARCH;
}

}  // namespace

Random::Random(uint64_t seed, uint32_t entryPoint, uint64_t iteration)
    : state_(splitMix(seed ^ splitMix(uint64_t{entryPoint} << 40 ^ iteration))) {}

uint64_t Random::next() {
    state_ = splitMix(state_);
    return state_;
}

uint32_t Random::interesting32() {
    static const uint32_t kValues[] = {
        0,    1,    2,    3,    4,     7,     8,     15,         16,         17,         20,        24,
        31,   32,   33,   64,   127,   128,   255,   256,        511,        512,        513,       1024,
        2048, 3072, 4096, 4097, 65535, 65536, 65537, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF};
    uint32_t value = kValues[below(sizeof kValues / sizeof kValues[0])];
    return chance(10) ? value + below(3) - 1 : value;
}

Bytes mutate(const Bytes& seed, Random& random, size_t maxLength) {
    Bytes out = seed;
    if (random.chance(5)) {
        out.resize(random.chance(50) ? random.below(64) : random.below(static_cast<uint32_t>(maxLength)));
        for (unsigned char& b : out)
            b = static_cast<unsigned char>(random.next());
        return out;
    }
    uint32_t edits = 1 + random.below(random.chance(20) ? 16 : 4);
    for (uint32_t i = 0; i < edits; ++i) {
        switch (random.below(7)) {
            case 0:
                if (!out.empty())
                    out[random.below(static_cast<uint32_t>(out.size()))] ^=
                        static_cast<unsigned char>(1u << random.below(8));
                break;
            case 1:
                if (!out.empty())
                    out[random.below(static_cast<uint32_t>(out.size()))] =
                        static_cast<unsigned char>(random.next());
                break;
            case 2:
            case 3:
                // A 32-bit little-endian field, aligned as the blob headers are.
                if (out.size() >= 4) {
                    size_t at = 4 * random.below(static_cast<uint32_t>(out.size() / 4));
                    uint32_t value = random.interesting32();
                    std::memcpy(out.data() + at, &value, sizeof value);
                }
                break;
            case 4:
                out.resize(random.below(static_cast<uint32_t>(out.size() + 1)));
                break;
            case 5: {
                size_t extra = random.below(random.chance(10) ? 4096 : 32);
                for (size_t j = 0; j < extra && out.size() < maxLength; ++j)
                    out.push_back(static_cast<unsigned char>(random.next()));
                break;
            }
            default:
                if (!out.empty() && out.size() < maxLength) {
                    size_t from = random.below(static_cast<uint32_t>(out.size()));
                    size_t length = std::min<size_t>(random.below(64), out.size() - from);
                    Bytes run(out.begin() + from, out.begin() + from + length);
                    out.insert(out.begin() + random.below(static_cast<uint32_t>(out.size())), run.begin(),
                               run.end());
                }
                break;
        }
    }
    if (out.size() > maxLength)
        out.resize(maxLength);
    return out;
}

RunSettings runSettings(uint64_t defaultIterations) {
    RunSettings settings{environmentNumber("CALYTH_FUZZ_WINE_SEED", 1),
                         environmentNumber("CALYTH_FUZZ_WINE_START", 0),
                         environmentNumber("CALYTH_FUZZ_WINE_ITERATIONS", defaultIterations)};
    g_seed = settings.seed;
    return settings;
}

void enterIteration(const char* entryPoint, uint64_t iteration) {
    g_entryPoint = entryPoint;
    g_iteration = iteration;
}

void installCrashReport() {
    SetUnhandledExceptionFilter(reportCrash);
}

size_t privateBytes() {
    PROCESS_MEMORY_COUNTERS_EX counters{};
    counters.cb = sizeof counters;
    GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters),
                         sizeof counters);
    // Wine leaves PrivateUsage at 0; the commit charge tells the same.
    return counters.PrivateUsage != 0 ? counters.PrivateUsage : counters.PagefileUsage;
}

}  // namespace fuzzwine
