// Figures measured beside the zero-cost device library (bench-null/CalythDSCLibrary.dll): whatever
// time a call takes there is the provider's own.
#include <cstdio>

#include "clients.h"
#include "figures.h"
#include "level_reads.h"
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
    if (!reference || !provider || !openKspKey(name, kPin, key)) {
        std::fprintf(stderr, "cannot open the zero-cost token through the provider\n");
        return 1;
    }
    // Log calls per operation, counted once: each reads the level from the registry.
    double cspCalls = logCallsPerOperation(20, [&] { return signDocument(provider, sampleDocument()); });
    double kspCalls = logCallsPerOperation(20, [&] { return kspSign(key, sampleDigest(), false); });
    double acquireCalls = logCallsPerOperation(20, [&] { return acquireOnce(name); });
    double openCalls = logCallsPerOperation(20, [&] { return openOnce(name); });
    if (cspCalls < 0 || kspCalls < 0 || acquireCalls < 0 || openCalls < 0) {
        std::fprintf(stderr, "cannot count the provider's log calls\n");
        return 1;
    }
    std::vector<double> cspShare, kspShare, cspTime, kspTime, signatureTime, acquireShare, openShare,
        readShare, readTime, builtInShare;
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
                    providerLogLevel();
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
    }
    CryptReleaseContext(provider, 0);
    closeKspKey(key);
    Summary csp = summarize(cspShare), ksp = summarize(kspShare);
    std::printf(
        "# medians: RSA-2048 libgcrypt signature %.0f us, provider per CryptSignHash %.1f us, per KSP "
        "SignHash %.1f us; one log level read %.1f us\n",
        summarize(signatureTime).median * 1e6, summarize(cspTime).median * 1e6,
        summarize(kspTime).median * 1e6, summarize(readTime).median * 1e6);
    std::printf(
        "# log calls (each one level read): CryptSignHash %.1f, KSP SignHash %.1f, "
        "CryptAcquire+Release %.1f, KSP open+openkey+frees %.1f\n",
        cspCalls, kspCalls, acquireCalls, openCalls);
    printRow("1 overhead per CryptSignHash / RSA-2048 signature", csp, Unit::Percent, "<= 2 %",
             csp.median <= 0.02);
    printRow("1 overhead per KSP SignHash / RSA-2048 signature", ksp, Unit::Percent, "<= 2 %",
             ksp.median <= 0.02);
    // The same figures without the level reads that the log facility makes on every call: the
    // median share of the operation less its log calls times the median share of one read (round
    // by round the two are too noisy on a shared machine to subtract).
    double readMedian = summarize(readShare).median;
    auto withoutReads = [&](const std::vector<double>& shares, double calls) {
        Summary rest = summarize(shares);
        rest.median -= calls * readMedian;
        rest.low = rest.high = rest.median;
        return rest;
    };
    Summary cspReads = summarize(readShare);
    cspReads.median *= cspCalls;
    cspReads.low *= cspCalls;
    cspReads.high *= cspCalls;
    printRow("1   of it the log level reads, per CryptSignHash", cspReads, Unit::Percent, "", true);
    printRow("1   CryptSignHash without the level reads", withoutReads(cspShare, cspCalls), Unit::Percent, "",
             true);
    printRow("1   KSP SignHash without the level reads", withoutReads(kspShare, kspCalls), Unit::Percent, "",
             true);

    printRow("3 CryptAcquire+Release / signature, zero-cost device", summarize(acquireShare), Unit::Percent,
             "", true);
    printRow("3 KSP open+openkey+frees / signature, zero-cost device", summarize(openShare), Unit::Percent,
             "", true);
    printRow("3   CryptAcquire+Release without the level reads", withoutReads(acquireShare, acquireCalls),
             Unit::Percent, "", true);
    printRow("3   KSP open+openkey+frees without the level reads", withoutReads(openShare, openCalls),
             Unit::Percent, "", true);
    printRow("3   advapi32 alone: acquire+release of Wine's own provider", summarize(builtInShare),
             Unit::Percent, "", true);

    std::string cycles = std::to_string(scale.firstCycles) + " -> " + std::to_string(scale.allCycles);
    Summary cspGrowth = growth(scale.firstCycles, scale.allCycles, [&] { return cspCycle(name); });
    printRow("6 working set, CryptoAPI cycles " + cycles, cspGrowth, Unit::Kilobytes, "<= 1024 KB",
             cspGrowth.median <= 1024 * 1024);
    Summary kspGrowth = growth(scale.firstCycles, scale.allCycles, [&] { return kspCycle(name); });
    printRow("6 working set, KSP cycles " + cycles, kspGrowth, Unit::Kilobytes, "<= 1024 KB",
             kspGrowth.median <= 1024 * 1024);
    return 0;
}

}  // namespace bench
