// Deterministic input mutation for the in-Wine fuzz harness. Every iteration draws from its own
// generator, seeded from (run seed, entry point, iteration), so one iteration replays alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzzwine {

using Bytes = std::vector<unsigned char>;

class Random {
public:
    Random(uint64_t seed, uint32_t entryPoint, uint64_t iteration);
    uint64_t next();
    uint32_t below(uint32_t bound) { return bound == 0 ? 0 : static_cast<uint32_t>(next() % bound); }
    bool chance(uint32_t percent) { return below(100) < percent; }
    // 0, 1, all ones, the sign bits, lengths around powers of two and the key sizes.
    uint32_t interesting32();

private:
    uint64_t state_;
};

// A few random edits of `seed`: bit flips, random and interesting bytes and 32-bit fields, cuts,
// random bytes appended, runs duplicated; now and then plain garbage of a random length.
Bytes mutate(const Bytes& seed, Random& random, size_t maxLength = 8192);

// The run's settings, from the environment: CALYTH_FUZZ_WINE_SEED (default 1),
// CALYTH_FUZZ_WINE_ITERATIONS (per entry point, default `defaultIterations`) and
// CALYTH_FUZZ_WINE_START (first iteration, default 0; with ITERATIONS=1 it replays one input).
struct RunSettings {
    uint64_t seed;
    uint64_t start;
    uint64_t iterations;
};
RunSettings runSettings(uint64_t defaultIterations);

// Set before each call, so that a crash names the input that caused it (printed by an unhandled
// exception filter with the command line that replays it).
void enterIteration(const char* entryPoint, uint64_t iteration);
void installCrashReport();

// The process's private bytes (GetProcessMemoryInfo), to tell a leak that grows with the input count.
size_t privateBytes();

}  // namespace fuzzwine
