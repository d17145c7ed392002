// Figures measured beside the zero-cost device library (bench-null/CalythDSCLibrary.dll): whatever
// time a call takes there is the provider's own.
#include <cstdio>
#include <functional>

#include "clients.h"
#include "figures.h"
#include "level_read_stub.h"
#include "level_reads.h"
#include "log/log.h"
#include "measure.h"
#include "reference.h"
#include "token/device_library.h"

namespace bench {
namespace {

// The zero-cost library's RSA-2048 key, named as the provider names containers and CNG keys.
std::string nullRsaKeyName() {
    static const char digits[] = "0123456789ABCDEF";
    std::string name;
    for (int i = 0; i < 16; ++i) {
        name += digits[(0xA0 + i) >> 4];
        name += digits[(0xA0 + i) & 15];
    }
    return name;
}

bool cspCycle(const std::string& container) {
    HCRYPTPROV provider = acquireContext(container, kPin);
    bool ok = provider && signDocument(provider, sampleDocument());
    if (provider)
        CryptReleaseContext(provider, 0);
    return ok;
}

bool kspCycle(const std::string& name) {
    KspKey key;
    bool ok = openKspKey(name, kPin, key) && kspSign(key, sampleDigest(), false);
    closeKspKey(key);
    return ok;
}

// Working-set growth between the first `first` cycles and all `all` of them.
template <typename Cycle>
Summary growth(int first, int all, Cycle cycle) {
    for (int i = 0; i < first; ++i)
        if (!cycle())
            return Summary();
    double base = workingSetBytes();
    for (int i = first; i < all; ++i)
        if (!cycle())
            return Summary();
    return summarize({workingSetBytes() - base});
}

}  // namespace

int nullDeviceFigures(const Scale& scale) {
    if (!registerProviderBesideProgram()) {
        std::fprintf(stderr, "cannot register the provider\n");
        return 1;
    }
    KeyPtr reference = freshKey(CALYTH_KEY_RSA_2048);
    std::string name = nullRsaKeyName();
    HCRYPTPROV provider = acquireContext(name, kPin);
    KspKey key;
    int keys = keysOnFirstToken();
    if (!reference || !provider || !openKspKey(name, kPin, key) || keys < 0) {
        std::fprintf(stderr, "cannot open the zero-cost token through the provider\n");
        return 1;
    }
    if (!stubLevelReads(false)) {
        std::fprintf(stderr, "cannot find the provider's import of RegGetValueA\n");
        return 1;
    }
    // Log calls per operation, counted once from the log file: each is one level read.
    double cspCalls = logCallsPerOperation(20, [&] { return signDocument(provider, sampleDocument()); });
    double kspCalls = logCallsPerOperation(20, [&] { return kspSign(key, sampleDigest(), false); });
    double acquireCalls = logCallsPerOperation(20, [&] { return acquireOnce(name); });
    double openCalls = logCallsPerOperation(20, [&] { return openOnce(name); });
    if (cspCalls < 0 || kspCalls < 0 || acquireCalls < 0 || openCalls < 0) {
        std::fprintf(stderr, "cannot count the provider's log calls\n");
        return 1;
    }
    std::vector<double> cspShare, kspShare, cspTime, kspTime, signatureTime, acquireShare, openShare,
        readShare, readTime, builtInShare, cspOwn, kspOwn, acquireOwn, openOwn;
    for (int round = 0; round < scale.rounds; ++round) {
        // The provider's operations take a few per cent of a signature: many of them per signature.
        auto signature = [&](int) { return referenceSign(*reference, sampleDigest()); };
        double csp = 0, ksp = 0, acquire = 0, open = 0, read = 0, builtIn = 0;
        double floor1 = 0, floor2 = 0, floor3 = 0, floor4 = 0, floor5 = 0, floor6 = 0;
        bool ok =
            alternate(
                scale.signatures, scale.freeOperations,
                [&](int) { return signDocument(provider, sampleDocument()); }, signature, csp, floor1) &&
            alternate(
                scale.signatures, scale.freeOperations,
                [&](int) { return kspSign(key, sampleDigest(), false); }, signature, ksp, floor2) &&
            alternate(
                scale.signatures, 2, [&](int) { return acquireOnce(name); }, signature, acquire, floor3) &&
            alternate(
                scale.signatures, 2, [&](int) { return openOnce(name); }, signature, open, floor4) &&
            alternate(
                scale.signatures, 10 * scale.freeOperations,
                [&](int) {
                    getLogLevel();  // the facility's own read, as every log call makes it
                    return true;
                },
                signature, read, floor5) &&
            alternate(
                scale.signatures, 2, [&](int) { return acquireBuiltInOnce(); }, signature, builtIn, floor6);
        cspTime.push_back(ok ? csp : -1);
        kspTime.push_back(ok ? ksp : -1);
        readTime.push_back(ok ? read : -1);
        signatureTime.push_back(ok ? floor1 : -1);
        cspShare.push_back(ok ? csp / floor1 : -1);
        kspShare.push_back(ok ? ksp / floor2 : -1);
        acquireShare.push_back(ok ? acquire / floor3 : -1);
        openShare.push_back(ok ? open / floor4 : -1);
        readShare.push_back(ok ? read / floor5 : -1);
        builtInShare.push_back(ok ? builtIn / floor6 : -1);
        // The same operations with the level reads stubbed out: the provider's own time.
        auto ownShare = [&](int perSignature, const std::function<bool()>& operation) {
            return alternatingRatio(
                scale.signatures, perSignature, [&](int) { return operation(); }, signature);
        };
        bool stubbed = stubLevelReads(true);
        cspOwn.push_back(
            stubbed ? ownShare(scale.freeOperations, [&] { return signDocument(provider, sampleDocument()); })
                    : -1);
        kspOwn.push_back(
            stubbed ? ownShare(scale.freeOperations, [&] { return kspSign(key, sampleDigest(), false); })
                    : -1);
        acquireOwn.push_back(stubbed ? ownShare(2, [&] { return acquireOnce(name); }) : -1);
        openOwn.push_back(stubbed ? ownShare(2, [&] { return openOnce(name); }) : -1);
        stubLevelReads(false);
    }
    CryptReleaseContext(provider, 0);
    closeKspKey(key);
    std::printf(
        "# medians: RSA-2048 libgcrypt signature %.0f us, provider per CryptSignHash %.1f us, per KSP "
        "SignHash %.1f us; one log level read %.1f us\n",
        summarize(signatureTime).median * 1e6, summarize(cspTime).median * 1e6,
        summarize(kspTime).median * 1e6, summarize(readTime).median * 1e6);

    // The provider's own time is measured with the level reads stubbed out (level_read_stub.h); for
    // an acquisition through advapi32 the median of advapi32's own share is taken out too. Beside it
    // the design's reads (the prescribed count times one read's median share, timed with the
    // facility's own getLogLevel) and the operation's whole share.
    Summary read = summarize(readShare);
    Summary builtIn = summarize(builtInShare);
    bool countsAsDesigned = true;
    auto ownTimeFigure = [&](const std::string& figure, const std::vector<double>& shares,
                             const std::vector<double>& ownShares, int prescribed, double calls,
                             const Summary* advapi, double goal) {
        Summary own = summarize(ownShares);
        double besides = advapi ? advapi->median : 0;
        own.median -= besides;
        own.low -= besides;
        own.high -= besides;
        Summary reads = read;
        reads.median *= prescribed;
        reads.low *= prescribed;
        reads.high *= prescribed;
        std::string number = figure.substr(0, 1);
        std::string goalText = "<= " + std::to_string(static_cast<int>(goal * 100 + 0.5)) + " %";
        // Below zero, advapi32's share was measured larger than the whole acquisition: the load moved
        // between the passes more than the provider's own time weighs, and the run cannot judge it.
        printRowWithVerdict(figure + ", provider's own time", own, Unit::Percent, goalText,
                            own.median < 0       ? "noise"
                            : own.median <= goal ? "met"
                                                 : "MISSED");
        printRow(number + "   + the design's " + std::to_string(prescribed) + " level reads", reads,
                 Unit::Percent, "", true);
        if (advapi) {
            // advapi32 alone goes through Wine's own provider, whose own work it holds too: shown
            // beside the stubbed time with advapi32's part still in, the reader sees both sides.
            printRow(number + "   stubbed reads, advapi32's part still in", summarize(ownShares),
                     Unit::Percent, "", true);
            printRow(number + "   + advapi32 alone: Wine's own provider, verify-only", *advapi, Unit::Percent,
                     "", true);
        }
        printRow(number + "   = all of it, zero-cost device", summarize(shares), Unit::Percent, "", true);
        bool met = logCallsAsDesigned(calls, prescribed);
        countsAsDesigned = countsAsDesigned && met;
        printRow(number + "   log calls per operation", summarize({calls}), Unit::Count,
                 "= " + std::to_string(prescribed), met);
    };

    ownTimeFigure("1 CryptSignHash / RSA-2048 signature", cspShare, cspOwn, kSignDocumentLogCalls, cspCalls,
                  nullptr, 0.01);
    ownTimeFigure("1 KSP SignHash / RSA-2048 signature", kspShare, kspOwn, kKspSignHashLogCalls, kspCalls,
                  nullptr, 0.01);
    std::string atKeys = std::to_string(keys) + " keys";
    ownTimeFigure("3 CryptAcquire+Release, " + atKeys, acquireShare, acquireOwn, acquireReleaseLogCalls(keys),
                  acquireCalls, &builtIn, 0.05);
    ownTimeFigure("3 KSP open+openkey+frees, " + atKeys, openShare, openOwn, kKspOpenFirstKeyLogCalls,
                  openCalls, nullptr, 0.05);

    std::string cycles = std::to_string(scale.firstCycles) + " -> " + std::to_string(scale.allCycles);
    Summary cspGrowth = growth(scale.firstCycles, scale.allCycles, [&] { return cspCycle(name); });
    printRow("6 working set, CryptoAPI cycles " + cycles, cspGrowth, Unit::Kilobytes, "<= 1024 KB",
             cspGrowth.median <= 1024 * 1024);
    Summary kspGrowth = growth(scale.firstCycles, scale.allCycles, [&] { return kspCycle(name); });
    printRow("6 working set, KSP cycles " + cycles, kspGrowth, Unit::Kilobytes, "<= 1024 KB",
             kspGrowth.median <= 1024 * 1024);
    // The timed figures are not judged here (a shared machine moves them); a log-call count that
    // is not the design's is a regression whatever the load, so it fails the run.
    if (!countsAsDesigned)
        std::fprintf(stderr, "log calls per operation differ from the design's (rows marked MISSED)\n");
    return countsAsDesigned ? 0 : 1;
}

}  // namespace bench
