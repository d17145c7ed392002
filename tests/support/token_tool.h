// Soft tokens made with calyth-token.exe (beside the test program) in a token store of the test's
// own: the admin command, the fixtures that give each test its store and scratch folder.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace testsupport {

// Runs calyth-token.exe with `arguments`; answers its exit code, its output in *output.
int calythToken(const std::string& arguments, std::string* output = nullptr);
// calyth-token init with PIN 1234 unless `more` holds a --pin of its own; a failure is a fatal
// failure of the test (ASSERT_NO_FATAL_FAILURE sees it). Answers whether the token was made.
bool makeToken(const std::string& serial, const std::string& more = "");
// calyth-token genkey --type `type` `more`; answers the 32-character key id it prints (the
// container name), "" on failure.
std::string makeKey(const std::string& serial, const std::string& type, const std::string& more = "");
// calyth-token export-pubkey of the key (hex id) into `path`; answers `path`, "" on failure.
std::string exportPublicKey(const std::string& serial, const std::string& keyId, const std::string& path);
// The lines of calyth-token list --serial that start with `word` ("key", "certificate",
// "secret-key"), trimmed, in the token's order.
std::vector<std::string> listedLines(const std::string& serial, const std::string& word);
// The key ids of `serial` in the token's own order.
std::vector<std::string> listedKeyIds(const std::string& serial);

// Points CALYTH_TOKEN_STORE of this process (read by the device library on every call and inherited
// by calyth-token) at an empty folder <temp>\<name>; answers the folder.
std::string useFreshTokenStore(const std::string& name = "store");

// "<suite>-<test>" of the running test, usable as a file name.
std::string testFileName();

// Every test gets an empty store folder of its own in CALYTH_TOKEN_STORE (inherited by the admin
// command the test starts) and a scratch folder.
class TokenStoreTest : public ::testing::Test {
public:
    void SetUp() override;
    // A path in the test's own scratch folder.
    std::string file(const std::string& name) const;

protected:
    std::string store;
    std::string scratch;  // ends with a backslash
};

// Creates the provider's log folders for the named process, so that no line is lost to the
// folder creation of the first calls, and empties its log of today; returns the log file's path.
// An empty name is this process.
std::string prepareLog(const std::string& processName = "");

// For programs that drive the registered provider: the store is shared by the tests of the program
// (<temp>\token-store), each with serials of its own: a token that vanished between tests would have
// the device monitor write lines in the middle of the next test's, and lines of concurrent writers
// may be lost in the shared log file. Also registers the provider and empties this program's log.
class ProviderStoreTest : public TokenStoreTest {
public:
    void SetUp() override;
};

}  // namespace testsupport
