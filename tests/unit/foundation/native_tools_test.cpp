#include <gtest/gtest.h>

#include "support/test_support.h"

// The test bed can hand files to native tools such as openssl for independent checks.
TEST(NativeTools, OpenSslRunsAndSeesFilesWrittenByTheTest) {
    std::string path = testsupport::tempFolder() + "native_tools.txt";
    testsupport::writeFile(path, {'a', 'b', 'c'});
    std::string output;
    ASSERT_EQ(testsupport::runOpenSsl("dgst -sha256 -r " + testsupport::unixPath(path), &output), 0);
    EXPECT_EQ(output.substr(0, 64), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(NativeTools, ExitCodeOfAFailingCommandComesBack) {
    std::string output;
    EXPECT_EQ(testsupport::runNative("/bin/sh -c 'exit 3'", &output), 3);
    EXPECT_NE(testsupport::runOpenSsl("dgst -sha256 /nonexistent/file", &output), 0);
}
