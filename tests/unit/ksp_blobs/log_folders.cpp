// The log facility makes at most one missing folder per line and loses the lines written until its
// folders exist; the program's private temp folder starts empty, so they are made before any test.
#include <gtest/gtest.h>

#include "log/log.h"

namespace {

class LogFolders : public ::testing::Environment {
public:
    void SetUp() override {
        for (int i = 0; i < 3; ++i)
            logDebug("log folders ready");
    }
};

const ::testing::Environment* const kLogFolders = ::testing::AddGlobalTestEnvironment(new LogFolders);

}  // namespace
