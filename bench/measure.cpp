#include "measure.h"

#include <windows.h>

#include <psapi.h>

#include <algorithm>
#include <cstdio>

namespace bench {

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

Summary summarize(std::vector<double> rounds) {
    Summary summary;
    if (rounds.empty() || std::any_of(rounds.begin(), rounds.end(), [](double r) { return r < 0; }))
        return summary;
    std::sort(rounds.begin(), rounds.end());
    size_t middle = rounds.size() / 2;
    summary.median = rounds.size() % 2 ? rounds[middle] : (rounds[middle - 1] + rounds[middle]) / 2;
    summary.low = rounds.front();
    summary.high = rounds.back();
    summary.valid = true;
    return summary;
}

namespace {

std::string formatted(double value, Unit unit) {
    char text[32];
    switch (unit) {
        case Unit::Percent:
            std::snprintf(text, sizeof text, "%.2f %%", value * 100);
            break;
        case Unit::Times:
            std::snprintf(text, sizeof text, "%.2fx", value);
            break;
        case Unit::Kilobytes:
            std::snprintf(text, sizeof text, "%.0f KB", value / 1024);
            break;
        case Unit::Count:
            std::snprintf(text, sizeof text, "%.2f", value);
            break;
    }
    return text;
}

}  // namespace

void printRow(const std::string& figure, const Summary& summary, Unit unit, const std::string& goal,
              bool met) {
    printRowWithVerdict(figure, summary, unit, goal, goal.empty() ? "" : met ? "met" : "MISSED");
}

void printRowWithVerdict(const std::string& figure, const Summary& summary, Unit unit,
                         const std::string& goal, const std::string& verdict) {
    std::string median = summary.valid ? formatted(summary.median, unit) : "failed";
    std::string spread =
        summary.valid ? formatted(summary.low, unit) + " .. " + formatted(summary.high, unit) : "-";
    std::string shown = !goal.empty() && !summary.valid ? "FAILED" : verdict;
    std::printf("| %-58s | %10s | %22s | %-10s | %-6s |\n", figure.c_str(), median.c_str(), spread.c_str(),
                goal.c_str(), shown.c_str());
    std::fflush(stdout);
}

double processCpuSeconds(HANDLE process) {
    FILETIME created, exited, kernel, user;
    if (!GetProcessTimes(process, &created, &exited, &kernel, &user))
        return 0;
    auto seconds = [](const FILETIME& t) {
        return (static_cast<unsigned long long>(t.dwHighDateTime) << 32 | t.dwLowDateTime) / 1e7;
    };
    return seconds(kernel) + seconds(user);
}

double workingSetBytes() {
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof counters;
    if (!GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters))
        return 0;
    return static_cast<double>(counters.WorkingSetSize);
}

}  // namespace bench
