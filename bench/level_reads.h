// The log facility's level reads: how many one operation makes, and how many the design prescribes.
// Every logDebug and logError call reads the level from the registry afresh, at every level (the
// facility keeps no handle and no cache between calls), and under Wine each read is a round trip to
// the wineserver. The number of calls is set by the lines each entry point must write, so their cost
// is the design's; the table shows it beside the provider's own time, and any call more than the
// design prescribes is the provider's.
#pragma once

#include <functional>

namespace bench {

// Log calls the design prescribes per operation, as the bench drives it (PIN already given, device
// monitor already running, the token's first key).

// signDocument(): CPCreateHash (4: "CPCreateHash", "Crete hash algorithm input", the algorithm's own
// line, "Crete hash algorithm"), CPHashData (1), CPSignHash (5: "CPSignHash", "ensurePasswordValidated:
// PIN already validated", dwFlags, hashAlgorithm, key mechanism), CPDestroyHash (1).
constexpr int kSignDocumentLogCalls = 11;
// kspSign(), one KSPSignHash: "KSPSignHash", the PIN check's "already validated" line, padding,
// credential, hash length, "KSP: SignHash success".
constexpr int kKspSignHashLogCalls = 6;
// acquireOnce(), CPAcquireContext and CPReleaseContext with no PIN: "CPAcquireContext", dwFlags,
// isSilent, "Monitor thread already running", the container name, the closing "container=... return
// TRUE" line and "CPReleaseContext"; besides these, one line per key on the selected token (the key
// list is logged as it is loaded).
constexpr int kAcquireReleaseFixedLogCalls = 7;
constexpr int acquireReleaseLogCalls(int keysOnToken) {
    return kAcquireReleaseFixedLogCalls + keysOnToken;
}
// openOnce() on the token's first key: KSPOpenProvider (4: "KSPOpenProvider", "Monitor thread already
// running", firmware, "Provider opened successfully"), KSPOpenKey (6: "KSPOpenKey", "Opening key",
// "Resolved key to device", one "Available key" per key up to the match, so one, "Key match found",
// "Key opened"), "KSPFreeKey", "KSPFreeProvider".
constexpr int kKspOpenFirstKeyLogCalls = 12;

// Log calls that one run of `operation` makes, counted from the log file: the level is set to 3 for
// the count (and back to what it was after), where every logDebug and logError call writes exactly
// one line, so the lines that `runs` runs add to this process's log file (the provider's own path
// rule, logFilePath()) divided by `runs`. -1 when an operation failed or the log could not be read.
double logCallsPerOperation(int runs, const std::function<bool()>& operation);

// The lower of two counts in a row. The device monitor notes a token that has gone (a switch of the
// soft-token store) once, from its own thread, with one "Device disconnected" line: such a line falls
// into one count only, while a call that the operation itself makes shows in both.
double logCallsPerOperationBesideMonitor(int runs, const std::function<bool()>& operation);

// The regression check: true only when `measured` is the prescribed count. More calls are reads the
// design does not make; fewer mean that a prescribed line is gone or the count went wrong.
bool logCallsAsDesigned(double measured, int prescribed);

}  // namespace bench
