// calyth-stress [seconds]: 8 application threads (6 CryptoAPI, 2 CNG) on two soft tokens while
// calyth-token processes unplug and replug the first token every second and inject device faults.
// Exit code 0 when every check held, 1 when one failed, 3 when the watchdog saw no progress.
#include <windows.h>

#include <wincrypt.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

#include "stress.h"
#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/test_support.h"
#include "support/token_tool.h"

namespace stress {
namespace {

int calythToken(Run& run, const std::string& arguments) {
    note(run, "calyth-token " + arguments);
    return testsupport::calythToken(arguments);
}
using testsupport::listedLines;

constexpr ULONGLONG kWatchdogMilliseconds = 30000;

struct Fault {
    const char* function;
    int code;
};
// No 49: its retry clears the PIN on purpose, which would blur the count of PIN requests.
const Fault kFaults[] = {{"signHash", 11},         {"decrypt", 13},       {"initHash", 1},
                         {"finalHash", 1},         {"getKeyPairList", 1}, {"verifySignatureHash", 12},
                         {"validatePassword", 48}, {"getTokenInfo", 1},   {"initDevice", 1},
                         {"getCertificateList", 1}};

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

bool setUpToken(Token& token, const std::string& serial) {
    token.serial = serial;
    if (!testsupport::makeToken(serial, std::string("--pin ") + kPin))
        return false;
    token.keyId = testsupport::makeKey(serial, "rsa2048", "--usage both --label stress");
    std::string certificateKey = testsupport::tempPath(serial + "-other.key");
    std::string certificate = testsupport::tempPath(serial + ".pem");
    if (token.keyId.empty() ||
        testsupport::runOpenSsl(
            "req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 30 -subj /CN=" + serial +
            " -keyout " + testsupport::unixPath(certificateKey) + " -out " +
            testsupport::unixPath(certificate)) != 0 ||
        testsupport::calythToken("import-cert --serial " + serial + " --in " + certificate) != 0)
        return false;
    HCRYPTPROV provider = 0;
    HCRYPTKEY key = 0;
    if (!CryptAcquireContextA(&provider, token.keyId.c_str(), testsupport::kProviderName, PROV_RSA_FULL,
                              CRYPT_SILENT))
        return false;
    DWORD length = 0;
    bool ok = CryptGetUserKey(provider, AT_SIGNATURE, &key) &&
              CryptExportKey(key, 0, PUBLICKEYBLOB, 0, nullptr, &length);
    token.publicKeyBlob.resize(length);
    ok = ok && CryptExportKey(key, 0, PUBLICKEYBLOB, 0, token.publicKeyBlob.data(), &length);
    if (key)
        CryptDestroyKey(key);
    CryptReleaseContext(provider, 0);
    return ok;
}

std::vector<std::string> keysAndCertificates(const Token& token) {
    std::vector<std::string> lines = listedLines(token.serial, "key");
    for (const auto& line : listedLines(token.serial, "certificate"))
        lines.push_back(line);
    return lines;
}

// The other processes: one calyth-token each second, unplug and plug of the first token in turn,
// and a fault on either token every other second.
void controller(Run& run, unsigned seed) {
    std::mt19937 random(seed);
    Token& removable = run.tokens[0];
    bool plugged = true;
    auto removedAt = std::chrono::steady_clock::now();
    for (int second = 0; !run.stop; ++second) {
        auto start = std::chrono::steady_clock::now();
        if (plugged) {
            calythToken(run, "unplug --serial " + removable.serial);
            removedAt = std::chrono::steady_clock::now();
        } else {
            std::lock_guard<std::mutex> lock(removable.periodsMutex);
            removable.periods.push_back({secondsSince(removedAt), 0, 0});
        }
        if (!plugged)
            calythToken(run, "plug --serial " + removable.serial);
        plugged = !plugged;
        if (second % 2 == 0) {
            const Fault& fault = kFaults[random() % (sizeof kFaults / sizeof kFaults[0])];
            calythToken(run, "fault --serial " + run.tokens[random() % 2].serial + " --function " +
                                 fault.function + " --code " + std::to_string(fault.code) + " --count " +
                                 std::to_string(1 + random() % 3));
        }
        std::this_thread::sleep_until(start + std::chrono::seconds(1));
    }
    if (!plugged)
        calythToken(run, "plug --serial " + removable.serial);
}

void watchdog(Run& run, std::vector<ThreadState>& threads) {
    while (!run.stop) {
        Sleep(500);
        ULONGLONG now = GetTickCount64();
        if (now - run.tally.lastProgressTick < kWatchdogMilliseconds)
            continue;
        std::printf("WATCHDOG: no operation completed for %llu s\n",
                    (now - run.tally.lastProgressTick) / 1000);
        for (const auto& thread : threads)
            std::printf("  %-8s in %-32s %ld operations, last one %llu s ago\n", thread.name.c_str(),
                        thread.step.load(), thread.operations.load(),
                        (now - thread.lastOperationTick) / 1000);
        (void)std::fflush(stdout);  // the process ends next: nothing to do when the report is lost
        TerminateProcess(GetCurrentProcess(), 3);
    }
}

// Exactly one PIN request per plugged period that saw private-key work, where the removal before
// it lasted long enough for the provider's once-a-second device monitor to see it.
void printEventsBefore(Run& run, const std::string& serial, int entry) {
    std::lock_guard<std::mutex> lock(run.eventsMutex);
    int seen = 0;
    for (size_t i = 0; i < run.events.size(); ++i) {
        if (run.events[i].what.rfind("PIN entered on " + serial + " ", 0) != 0 || ++seen != entry)
            continue;
        for (size_t j = 0; j <= i; ++j)
            if (run.events[i].tick - run.events[j].tick <= 3000)
                std::printf("    -%5llu ms %s\n", run.events[i].tick - run.events[j].tick,
                            run.events[j].what.c_str());
    }
}

bool pinRequestsHold(Run& run, Token& token) {
    int entries = 0;
    bool ok = true;
    int periodsChecked = 0;
    int periodsWithoutRequest = 0;
    for (size_t i = 0; i < token.periods.size(); ++i) {
        const PluggedPeriod& period = token.periods[i];
        entries += period.pinEntries;
        if (period.pinEntries > 1 || (period.privateOperations > 0 && period.pinEntries == 0 &&
                                      (i == 0 || period.removedSeconds >= 2.5))) {
            std::printf(
                "FAIL %s plugged period %zu (removed %.2f s before): %d PIN requests, %ld signatures\n",
                token.serial.c_str(), i, period.removedSeconds, period.pinEntries, period.privateOperations);
            ok = false;
            if (period.pinEntries > 1)
                printEventsBefore(run, token.serial, entries);
        }
        if (period.privateOperations > 0) {
            ++periodsChecked;
            periodsWithoutRequest += period.pinEntries == 0;
        }
    }
    std::printf(
        "%s: %zu plugged periods, %d with signatures, %d of them without a PIN request (removal "
        "shorter than the monitor saw)\n",
        token.serial.c_str(), token.periods.size(), periodsChecked, periodsWithoutRequest);
    return ok;
}

int runStress(int seconds) {
    testsupport::usePrivateTempFolder();
    if (testsupport::registerProvider() != ERROR_SUCCESS) {
        std::printf("FAIL could not register the provider\n");
        return 1;
    }
    testsupport::useFreshTokenStore("stress-store");
    Run run;
    run.tokens[0].removable = true;
    if (!setUpToken(run.tokens[0], "STRESSA") || !setUpToken(run.tokens[1], "STRESSB")) {
        std::printf("FAIL could not set up the tokens\n");
        return 1;
    }
    std::vector<std::string> before[2] = {keysAndCertificates(run.tokens[0]),
                                          keysAndCertificates(run.tokens[1])};

    std::vector<ThreadState> threads(8);
    run.tally.lastProgressTick = GetTickCount64();
    std::vector<std::thread> workers;
    for (size_t i = 0; i < threads.size(); ++i) {
        threads[i].name = (i < 6 ? "capi-" : "cng-") + std::to_string(i);
        threads[i].lastOperationTick = GetTickCount64();
        if (i < 6)
            workers.emplace_back(cryptoApiWorker, std::ref(run), std::ref(threads[i]), 1000 + i);
        else
            workers.emplace_back(cngWorker, std::ref(run), std::ref(threads[i]), 1000 + i);
    }
    std::thread watching(watchdog, std::ref(run), std::ref(threads));
    std::thread controlling(controller, std::ref(run), 77);
    auto start = std::chrono::steady_clock::now();
    while (secondsSince(start) < seconds)
        Sleep(250);
    run.stop = true;
    controlling.join();
    for (auto& worker : workers)
        worker.join();
    watching.join();
    double elapsed = secondsSince(start);

    for (const auto& token : run.tokens)
        calythToken(run, "fault --serial " + token.serial + " --clear");
    bool ok = true;
    for (int i = 0; i < 2; ++i) {
        if (keysAndCertificates(run.tokens[i]) != before[i] || before[i].size() != 2) {
            std::printf("FAIL %s: keys or certificates changed\n", run.tokens[i].serial.c_str());
            ok = false;
        }
    }
    std::printf(
        "%.0f s, 8 threads: %ld operations completed, %ld signatures (%ld not verifying), %ld "
        "encrypt/decrypt round trips differing\n",
        elapsed, run.tally.operations.load(), run.tally.signatures.load(),
        run.tally.signaturesNotVerifying.load(), run.tally.roundTripMismatches.load());
    for (const auto& thread : threads)
        std::printf("  %-8s %ld operations\n", thread.name.c_str(), thread.operations.load());
    std::printf("failures by call and code:\n");
    for (const auto& [what, count] : run.tally.failures)
        std::printf("  %-44s %ld\n", what.c_str(), count);
    for (auto& token : run.tokens)
        ok = pinRequestsHold(run, token) && ok;
    ok = ok && run.tally.signaturesNotVerifying == 0 && run.tally.roundTripMismatches == 0 &&
         run.tally.signatures > 0;
    std::printf("crashes 0, watchdog quiet; %s\n", ok ? "PASS" : "FAIL");
    return ok ? 0 : 1;
}

}  // namespace

void completed(Run& run, ThreadState& thread) {
    ULONGLONG now = GetTickCount64();
    ++run.tally.operations;
    ++thread.operations;
    thread.lastOperationTick = now;
    run.tally.lastProgressTick = now;
}

void failed(Run& run, const char* call, unsigned long code) {
    char text[128];
    (void)std::snprintf(text, sizeof text, "%s 0x%lx", call, code);  // call names are short; cut at worst
    std::lock_guard<std::mutex> lock(run.tally.failuresMutex);
    ++run.tally.failures[text];
}

void note(Run& run, const std::string& what) {
    std::lock_guard<std::mutex> lock(run.eventsMutex);
    run.events.push_back({GetTickCount64(), what});
}

void countInPeriod(Token& token, int pinEntries, long privateOperations) {
    std::lock_guard<std::mutex> lock(token.periodsMutex);
    token.periods.back().pinEntries += pinEntries;
    token.periods.back().privateOperations += privateOperations;
}

bool verifiesOutside(HCRYPTPROV system, const Token& token, const Bytes& message, const Bytes& signature) {
    HCRYPTKEY key = 0;
    HCRYPTHASH hash = 0;
    bool ok =
        CryptImportKey(system, token.publicKeyBlob.data(), static_cast<DWORD>(token.publicKeyBlob.size()), 0,
                       0, &key) &&
        CryptCreateHash(system, CALG_SHA_256, 0, 0, &hash) &&
        CryptHashData(hash, message.data(), static_cast<DWORD>(message.size()), 0) &&
        CryptVerifySignatureA(hash, signature.data(), static_cast<DWORD>(signature.size()), key, nullptr, 0);
    if (hash)
        CryptDestroyHash(hash);
    if (key)
        CryptDestroyKey(key);
    return ok;
}

}  // namespace stress

int main(int argc, char** argv) {
    // Anything but a whole number of seconds from 1 to a day runs the default minute.
    long seconds = 60;
    if (argc > 1) {
        char* end = nullptr;
        seconds = std::strtol(argv[1], &end, 10);
        if (end == argv[1] || *end != '\0' || seconds < 1 || seconds > 24 * 3600)
            seconds = 60;
    }
    return stress::runStress(static_cast<int>(seconds));
}
