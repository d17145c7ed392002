// Common main of the test programs: each program gets a private, empty temporary folder (so log
// files and scratch files of one program never meet another's), then runs its tests.
#include <windows.h>

#include <gmock/gmock.h>

#include "support/test_support.h"

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    testsupport::usePrivateTempFolder();
    return RUN_ALL_TESTS();
}
