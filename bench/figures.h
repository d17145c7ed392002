// The figures of the benchmark table, grouped by the process that measures them: one process on
// the zero-cost device library (the provider's own cost), one on the soft token, and the pair of
// idle processes that tell what the device monitor costs at rest.
#pragma once

#include <string>

namespace bench {

struct Scale {
    int rounds;
    int signatures;      // per round and side, soft-token signatures
    int freeOperations;  // zero-cost device library: provider operations per signature taken
    int acquisitions;    // per round and store, each beside one signature
    int threadSignatures;
    int firstCycles;  // memory: the working set after these cycles is the base
    int allCycles;
};
Scale scaleFor(bool quick);

// 1 (provider overhead) and 6 (memory), run beside the zero-cost device library.
int nullDeviceFigures(const Scale& scale);
// 2 (end to end) and 3 (acquisition), on the soft-token stores under `storeRoot` (made if missing).
int softTokenFigures(const std::string& storeRoot, const Scale& scale);
// 4 (threads), on the soft token.
int threadFigures(const std::string& storeRoot, const Scale& scale);
// 5: one idle process, with the device monitor started or with the provider merely loaded; prints
// the CPU seconds of each window on one line.
int idleProcess(const std::string& storeRoot, bool withMonitor, int windowSeconds, int windows);
// 5, the certificate agent: calyth-agent.exe started in the background on the store's one-key token;
// prints "agent" and the agent process's CPU seconds in each window.
int idleAgent(const std::string& storeRoot, int windowSeconds, int windows);

}  // namespace bench
