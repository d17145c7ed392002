// Timing and summaries: every figure is a ratio of two measurements taken side by side, round
// after round, so that other work on a shared machine weighs on both alike.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start);

// Seconds per call of `operation` over `count` calls; a failed call ends the loop and answers -1.
template <typename Operation>
double perCall(int count, Operation&& operation) {
    auto start = Clock::now();
    for (int i = 0; i < count; ++i)
        if (!operation(i))
            return -1;
    return secondsSince(start) / count;
}

struct Summary {
    double median = 0;
    double low = 0;
    double high = 0;
    bool valid = false;  // false when a round failed
};

// Median and range of the rounds; a negative round (a failure) makes the summary invalid.
Summary summarize(std::vector<double> rounds);

// How a figure reads: a fraction shown in per cent, a factor, or kilobytes.
enum class Unit { Percent, Times, Kilobytes };

// One line of the table: figure, median, spread (lowest..highest round), goal, verdict.
// `met` is ignored when `goal` is empty (a figure shown for information).
void printRow(const std::string& figure, const Summary& summary, Unit unit, const std::string& goal,
              bool met);

// Process CPU time (user + kernel) in seconds, and the working set in bytes.
double processCpuSeconds();
double workingSetBytes();

}  // namespace bench
