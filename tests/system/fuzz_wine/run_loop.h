// The loop every entry point of the in-Wine harness runs: deterministic inputs, the iteration noted
// for the crash report, and private memory measured after a warm-up so that a leak that grows with
// the number of inputs fails the test.
#pragma once

#include <algorithm>
#include <cstdio>
#include <gtest/gtest.h>

#include "system/fuzz_wine/mutator.h"

namespace fuzzwine {

constexpr uint64_t kCiIterations = 1000;
constexpr size_t kAllowedGrowth = 16u * 1024 * 1024;

template <typename Step>
void runEntryPoint(const char* testName, uint32_t entryIndex, Step one) {
    RunSettings settings = runSettings(kCiIterations);
    size_t warm = privateBytes();
    uint64_t end = settings.start + settings.iterations;
    for (uint64_t i = settings.start; i < end; ++i) {
        if (i - settings.start == settings.iterations / 10)
            warm = privateBytes();
        if (i != settings.start && (i - settings.start) % 20000 == 0) {
            std::printf("fuzz_wine: %s %llu inputs so far\n", testName,
                        static_cast<unsigned long long>(i - settings.start));
            std::fflush(stdout);
        }
        enterIteration(testName, i);
        Random random(settings.seed, entryIndex, i);
        one(random);
    }
    size_t now = privateBytes();
    size_t grown = now - std::min(warm, now);
    std::printf("fuzz_wine: %s %llu inputs (seed %llu, from %llu), private bytes %zu, +%zu after warm-up\n",
                testName, static_cast<unsigned long long>(settings.iterations),
                static_cast<unsigned long long>(settings.seed),
                static_cast<unsigned long long>(settings.start), now, grown);
    EXPECT_LT(grown, kAllowedGrowth) << testName << ": memory grows with the number of inputs";
}

}  // namespace fuzzwine
