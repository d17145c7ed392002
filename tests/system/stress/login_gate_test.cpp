// The stress run's PIN gate: exclusive means alone, even for threads that use a new gate for the
// first time together.
#include "login_gate.h"

#include <windows.h>

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

namespace {

struct Overlaps {
    long exclusive = 0;          // another thread inside while one held the gate exclusively
    long sharedInExclusive = 0;  // a shared holder saw an exclusive holder inside
};

// `trials` new gates, each taken by 8 threads released together: shared (every third thread), then
// exclusive, three times each, as the stress threads do.
template <class Gate>
Overlaps raceOnNewGates(int trials) {
    Overlaps found;
    HANDLE start = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    for (int trial = 0; trial < trials; ++trial) {
        auto gate = std::make_unique<Gate>();
        std::atomic<int> exclusiveInside{0}, sharedInside{0};
        std::atomic<long> exclusiveOverlaps{0}, sharedOverlaps{0};
        ResetEvent(start);
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t) {
            threads.emplace_back([&, t] {
                WaitForSingleObject(start, INFINITE);
                for (int i = 0; i < 3; ++i) {
                    if (t % 3 == 0) {
                        std::shared_lock<Gate> shared(*gate);
                        ++sharedInside;
                        if (exclusiveInside != 0)
                            ++sharedOverlaps;
                        Sleep(0);
                        --sharedInside;
                    }
                    std::unique_lock<Gate> exclusive(*gate);
                    if (++exclusiveInside != 1 || sharedInside != 0)
                        ++exclusiveOverlaps;
                    Sleep(0);
                    --exclusiveInside;
                }
            });
        }
        SetEvent(start);
        for (std::thread& thread : threads)
            thread.join();
        found.exclusive += exclusiveOverlaps;
        found.sharedInExclusive += sharedOverlaps;
    }
    CloseHandle(start);
    return found;
}

}  // namespace

TEST(LoginGate, ExclusiveHolderIsAloneOnGatesThatThreadsUseForTheFirstTimeTogether) {
    Overlaps found = raceOnNewGates<stress::LoginGate>(150);
    EXPECT_EQ(found.exclusive, 0);
    EXPECT_EQ(found.sharedInExclusive, 0);
}

TEST(LoginGate, SharedHoldersAreInsideTogether) {
    stress::LoginGate gate;
    std::shared_lock<stress::LoginGate> first(gate);
    std::atomic<bool> secondInside{false};
    std::thread other([&] {
        std::shared_lock<stress::LoginGate> second(gate);
        secondInside = true;
    });
    other.join();  // returns only if the second shared holder got in while the first one holds it
    EXPECT_TRUE(secondInside);
}

TEST(LoginGate, ExclusiveWaitsForTheSharedHolder) {
    stress::LoginGate gate;
    std::atomic<bool> exclusiveInside{false};
    std::thread writer;
    {
        std::shared_lock<stress::LoginGate> reader(gate);
        writer = std::thread([&] {
            std::unique_lock<stress::LoginGate> exclusive(gate);
            exclusiveInside = true;
        });
        Sleep(100);
        EXPECT_FALSE(exclusiveInside) << "the exclusive holder got in beside a shared one";
    }
    writer.join();
    EXPECT_TRUE(exclusiveInside);
}
