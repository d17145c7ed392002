// Timing and summaries: every figure is a ratio of two measurements taken side by side, round
// after round, so that other work on a shared machine weighs on both alike.
#pragma once

#include <windows.h>

#include <chrono>
#include <string>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start);

// Seconds per call of `first` and of `second`, taken in turns: `firstPerTurn` calls of `first`,
// then one of `second`, `turns` times, so that a change of load during the round weighs on both
// alike. False when a call failed.
template <typename First, typename Second>
bool alternate(int turns, int firstPerTurn, First&& first, Second&& second, double& firstTime,
               double& secondTime) {
    double firstTotal = 0, secondTotal = 0;
    for (int turn = 0; turn < turns; ++turn) {
        auto start = Clock::now();
        for (int i = 0; i < firstPerTurn; ++i)
            if (!first(i))
                return false;
        auto middle = Clock::now();
        if (!second(turn))
            return false;
        firstTotal += std::chrono::duration<double>(middle - start).count();
        secondTotal += secondsSince(middle);
    }
    firstTime = firstTotal / (double(turns) * firstPerTurn);
    secondTime = secondTotal / turns;
    return true;
}

// first / second from alternate(), or -1 when a call failed.
template <typename First, typename Second>
double alternatingRatio(int turns, int firstPerTurn, First&& first, Second&& second) {
    double firstTime = 0, secondTime = 0;
    if (!alternate(turns, firstPerTurn, first, second, firstTime, secondTime) || secondTime <= 0)
        return -1;
    return firstTime / secondTime;
}

struct Summary {
    double median = 0;
    double low = 0;
    double high = 0;
    bool valid = false;  // false when a round failed
};

// Median and range of the rounds; a negative round (a failure) makes the summary invalid.
Summary summarize(std::vector<double> rounds);

// How a figure reads: a fraction shown in per cent, a factor, kilobytes, or a count per operation.
enum class Unit { Percent, Times, Kilobytes, Count };

// One line of the table: figure, median, spread (lowest..highest round), goal, verdict.
// `met` is ignored when `goal` is empty (a figure shown for information).
void printRow(const std::string& figure, const Summary& summary, Unit unit, const std::string& goal,
              bool met);

// The same row with the caller's own verdict, such as "noise" for a figure the run could not resolve.
void printRowWithVerdict(const std::string& figure, const Summary& summary, Unit unit,
                         const std::string& goal, const std::string& verdict);

// Process CPU time (user + kernel) in seconds, and the working set in bytes.
double processCpuSeconds(HANDLE process = GetCurrentProcess());
double workingSetBytes();

}  // namespace bench
