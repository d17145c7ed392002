// The benchmark's log-call check (bench/level_reads.h): the count comes from the lines the provider's
// log code writes, and a count with one call more than the design prescribes is not as designed.
#include <gmock/gmock.h>
#include <string>

#include "level_reads.h"
#include "log/log.h"
#include "support/test_support.h"

namespace {

// Stands in for an entry-point path: `calls` log calls, as an operation of the provider makes them.
bool loggingOperation(int calls) {
    for (int i = 0; i < calls; ++i)
        logDebug("bench test line " + std::to_string(i));
    return true;
}

class BenchLogCallsTest : public ::testing::Test {
protected:
    void SetUp() override { testsupport::setLogLevel(LOG_LEVEL_ERROR); }
    // Back to the run's level (tests/wine-env.sh sets 3): later programs make their log folders
    // with debug lines, which level 2 would drop.
    void TearDown() override { testsupport::setLogLevel(LOG_LEVEL_DEBUG); }
};

TEST_F(BenchLogCallsTest, TheDesignsCountIsAsDesigned) {
    EXPECT_TRUE(bench::logCallsAsDesigned(11, bench::kSignDocumentLogCalls));
    EXPECT_TRUE(bench::logCallsAsDesigned(27, bench::acquireReleaseLogCalls(20)));
}

TEST_F(BenchLogCallsTest, OneCallMoreIsMissed) {
    EXPECT_FALSE(bench::logCallsAsDesigned(12, 11));
    // One extra call in one run out of twenty.
    EXPECT_FALSE(bench::logCallsAsDesigned(11.05, 11));
}

TEST_F(BenchLogCallsTest, OneCallLessIsMissed) {
    EXPECT_FALSE(bench::logCallsAsDesigned(10, 11));
}

TEST_F(BenchLogCallsTest, AcquisitionPrescribesOneCallMorePerKey) {
    EXPECT_EQ(bench::acquireReleaseLogCalls(20), 27);
    EXPECT_EQ(bench::acquireReleaseLogCalls(200), 207);
    EXPECT_EQ(bench::acquireReleaseLogCalls(1), 8);
}

TEST_F(BenchLogCallsTest, CountsTheCallsOfAnOperationFromTheLog) {
    double calls = bench::logCallsPerOperation(20, [] { return loggingOperation(11); });
    EXPECT_EQ(calls, 11.0);
    EXPECT_TRUE(bench::logCallsAsDesigned(calls, 11));
}

TEST_F(BenchLogCallsTest, APlantedExtraLineIsMissed) {
    double calls = bench::logCallsPerOperation(20, [] {
        bool ok = loggingOperation(11);
        logError("planted extra line");
        return ok;
    });
    EXPECT_EQ(calls, 12.0);
    EXPECT_FALSE(bench::logCallsAsDesigned(calls, 11));
}

TEST_F(BenchLogCallsTest, AnExtraLineInOneRunIsMissed) {
    int run = 0;
    double calls = bench::logCallsPerOperation(20, [&run] {
        bool ok = loggingOperation(11);
        // The two warm-up runs come first; the planted line falls in the tenth counted run.
        if (++run == 12)
            logDebug("planted extra line");
        return ok;
    });
    EXPECT_DOUBLE_EQ(calls, 11.05);
    EXPECT_FALSE(bench::logCallsAsDesigned(calls, 11));
}

TEST_F(BenchLogCallsTest, BesideTheMonitorALineWrittenOnceIsNotTheOperations) {
    int run = 0;
    double calls = bench::logCallsPerOperationBesideMonitor(5, [&run] {
        bool ok = loggingOperation(11);
        // As the device monitor writes "Device disconnected" once, during the first count.
        if (++run == 4)
            logDebug("Device disconnected: planted");
        return ok;
    });
    EXPECT_EQ(calls, 11.0);
    EXPECT_TRUE(bench::logCallsAsDesigned(calls, 11));
}

TEST_F(BenchLogCallsTest, BesideTheMonitorAnExtraCallOfEveryRunIsMissed) {
    double calls = bench::logCallsPerOperationBesideMonitor(5, [] {
        bool ok = loggingOperation(11);
        logError("planted extra line");
        return ok;
    });
    EXPECT_EQ(calls, 12.0);
    EXPECT_FALSE(bench::logCallsAsDesigned(calls, 11));
}

TEST_F(BenchLogCallsTest, AFailedOperationGivesNoCount) {
    EXPECT_EQ(bench::logCallsPerOperation(5, [] { return false; }), -1.0);
}

TEST_F(BenchLogCallsTest, TheLevelIsPutBackAfterTheCount) {
    bench::logCallsPerOperation(5, [] { return loggingOperation(1); });
    EXPECT_EQ(getLogLevel(), LOG_LEVEL_ERROR);
    testsupport::clearLog();
    logDebug("after the count");
    EXPECT_FALSE(testsupport::logContains("after the count"));
}

TEST_F(BenchLogCallsTest, LogFilePathIsTheFileTheLinesGoTo) {
    testsupport::setLogLevel(LOG_LEVEL_DEBUG);
    testsupport::makeLogFolders();
    logError("where this line goes");
    std::vector<unsigned char> bytes = testsupport::readFile(logFilePath());
    std::string text(bytes.begin(), bytes.end());
    EXPECT_THAT(text, ::testing::HasSubstr("->ERROR ::=>where this line goes\n"));
    // The provider spells the path with its own separators ('/' after the temporary folder), so
    // the two paths are compared by what each reads, not by their spelling.
    EXPECT_TRUE(testsupport::logHasLine("ERROR", "where this line goes"));
}

}  // namespace
