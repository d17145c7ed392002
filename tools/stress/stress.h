// Shared records of the stress run: the two tokens, the per-thread state the watchdog prints, and
// the tallies the final report checks.
#pragma once

#include <windows.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "login_gate.h"
#include "util/encoding.h"

namespace stress {

constexpr const char* kPin = "24680";

// One plugged period of a token. The removable token starts a new one each time it is plugged back.
struct PluggedPeriod {
    double removedSeconds = 0;   // how long the token was gone before this period
    int pinEntries = 0;          // PINs the provider asked for and accepted in this period
    long privateOperations = 0;  // successful CryptoAPI signatures in this period
};

struct Token {
    std::string serial;
    std::string keyId;
    Bytes publicKeyBlob;  // PUBLICKEYBLOB of the key, for verification outside the provider
    bool removable = false;
    // Private-key work of the CNG threads holds it shared: the CNG login clears the stored PIN
    // before its (failing) dialog, which must not undo a PIN entry made meanwhile (taken exclusive).
    LoginGate loginGate;
    std::mutex periodsMutex;
    std::vector<PluggedPeriod> periods{1};
};

struct ThreadState {
    std::string name;
    std::atomic<const char*> step{"starting"};
    std::atomic<long> operations{0};
    std::atomic<ULONGLONG> lastOperationTick{0};
};

struct Tally {
    std::atomic<long> operations{0};
    std::atomic<long> signatures{0};
    std::atomic<long> signaturesNotVerifying{0};
    std::atomic<long> roundTripMismatches{0};
    std::atomic<ULONGLONG> lastProgressTick{0};
    std::mutex failuresMutex;
    std::map<std::string, long> failures;  // "call 0xcode" -> count
};

// What happened when, for explaining a PIN request that should not have come.
struct Event {
    ULONGLONG tick;
    std::string what;
};

struct Run {
    Token tokens[2];
    std::mutex eventsMutex;
    std::vector<Event> events;
    Tally tally;
    std::atomic<bool> stop{false};
};

// Counts one completed operation of `thread`.
void completed(Run& run, ThreadState& thread);
// Counts one failure of `call` with `code`.
void failed(Run& run, const char* call, unsigned long code);
// Adds to the current plugged period of `token`.
void countInPeriod(Token& token, int pinEntries, long privateOperations);
void note(Run& run, const std::string& what);

// The worker loops: iterations until run.stop.
void cryptoApiWorker(Run& run, ThreadState& thread, unsigned seed);
void cngWorker(Run& run, ThreadState& thread, unsigned seed);

// True when `signature` (little-endian, as CryptoAPI hands it out) is a valid PKCS #1 v1.5 SHA-256
// signature of `message` under `token`'s key, checked by the system's own provider.
bool verifiesOutside(HCRYPTPROV systemProvider, const Token& token, const Bytes& message,
                     const Bytes& signature);

}  // namespace stress
