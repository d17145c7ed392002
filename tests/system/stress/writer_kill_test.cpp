// The soft token survives its writer being killed: 200 writes, by the admin command and by an
// application going through the provider, each terminated at a random (seeded) moment. After each
// one the token file holds the old state or the new one, never a damaged one, and no key is lost.
#include <windows.h>

#include <algorithm>
#include <gtest/gtest.h>
#include <random>

#include "support/provider_registration.h"
#include "support/test_support.h"
#include "support/token_tool.h"

namespace {

constexpr const char* kSerial = "KILL1";
constexpr const char* kBystander = "KILL2";
constexpr int kWrites = 200;

// Milliseconds a writer takes when left alone.
DWORD timeOf(const std::string& commandLine) {
    ULONGLONG begin = GetTickCount64();
    HANDLE process = nullptr;
    if (!testsupport::startProcess(commandLine, &process) || !process)
        return 0;
    WaitForSingleObject(process, 60000);
    CloseHandle(process);
    return static_cast<DWORD>(GetTickCount64() - begin);
}

TEST(WriterKill, EveryTokenFileIsTheOldOrTheNewStateAndNoKeyIsLost) {
    std::string store = testsupport::useFreshTokenStore("kill-store");
    ASSERT_TRUE(testsupport::makeToken(kSerial));
    ASSERT_TRUE(testsupport::makeToken(kBystander));
    ASSERT_FALSE(testsupport::makeKey(kBystander, "p256").empty());
    std::string tokenFile = store + "\\" + kSerial + ".token";
    std::string bystanderFile = store + "\\" + kBystander + ".token";
    const std::vector<unsigned char> bystanderBytes = testsupport::readFile(bystanderFile);

    const std::string writers[2] = {
        testsupport::programFolder() + "calyth-token.exe genkey --serial " + kSerial + " --type p256",
        testsupport::programFolder() + "stress_writer_app.exe " + kSerial + " 1234"};
    // Each writer's own time, then brought to the moment it writes: shorter when the last one had
    // finished before the kill, longer when it had not written yet.
    timeOf(writers[0]);
    DWORD durations[2] = {timeOf(writers[0]), timeOf(writers[1])};
    ASSERT_GT(durations[0], 0u);
    ASSERT_GT(durations[1], 0u);

    std::vector<std::string> keys = testsupport::listedKeyIds(kSerial);
    ASSERT_EQ(keys.size(), 3u);  // both timed writers made a key, the first twice
    std::mt19937 random(20261123);
    int unchanged = 0;
    int written = 0;
    int finishedBeforeKill = 0;
    for (int write = 0; write < kWrites; ++write) {
        const int which = write % 2;
        const std::vector<unsigned char> before = testsupport::readFile(tokenFile);
        HANDLE process = nullptr;
        testsupport::startProcess(writers[which], &process);
        ASSERT_NE(process, nullptr) << writers[which];
        Sleep(durations[which] * 4 / 5 + random() % (durations[which] * 3 / 10 + 1));
        const bool finished = WaitForSingleObject(process, 0) == WAIT_OBJECT_0;
        finishedBeforeKill += finished;
        TerminateProcess(process, 9);
        WaitForSingleObject(process, 10000);
        CloseHandle(process);

        std::string listing;
        ASSERT_EQ(testsupport::calythToken(std::string("list --serial ") + kSerial, &listing), 0)
            << "write " << write << ": the token no longer reads\n"
            << listing;
        std::vector<std::string> now = testsupport::listedKeyIds(kSerial);
        for (const auto& key : keys)
            ASSERT_NE(std::find(now.begin(), now.end(), key), now.end())
                << "write " << write << " lost " << key;
        if (testsupport::readFile(tokenFile) == before) {
            ASSERT_EQ(now.size(), keys.size()) << "write " << write;
            ++unchanged;
            durations[which] = durations[which] * 21 / 20 + 1;
        } else {
            ASSERT_EQ(now.size(), keys.size() + 1) << "write " << write << ": the file changed\n" << listing;
            ++written;
            if (finished)
                durations[which] = durations[which] * 19 / 20;
        }
        keys = now;
        ASSERT_EQ(testsupport::readFile(bystanderFile), bystanderBytes) << "write " << write;
    }
    std::printf(
        "%d writes killed: %d left the old state, %d the new one (%d writers had finished), "
        "%zu keys kept\n",
        kWrites, unchanged, written, finishedBeforeKill, keys.size());
    EXPECT_GT(unchanged, 0);
    EXPECT_GT(written, 0);
}

}  // namespace
