// calyth-token: the admin command of the soft token.
//
//   calyth-token [--store FOLDER] COMMAND [OPTIONS]
//
// The store folder defaults to CALYTH_TOKEN_STORE, else the user's local application data.
#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "arguments.h"
#include "calyth_version.h"
#include "core/crypto.h"

using namespace calythtoken;

namespace {

std::vector<const Command*> allCommands() {
    std::vector<const Command*> all;
    for (const Command& c : tokenCommands())
        all.push_back(&c);
    for (const Command& c : objectCommands())
        all.push_back(&c);
    return all;
}

const Command* findCommand(const std::string& name) {
    for (const Command* c : allCommands())
        if (name == c->name)
            return c;
    return nullptr;
}

void printOverview(FILE* out) {
    (void)std::fprintf(
        out,
        "usage: calyth-token [--store FOLDER] COMMAND [OPTIONS]\n"
        "       calyth-token COMMAND --help\n"
        "       calyth-token --version\n\n"
        "Manages the soft tokens that CalythDSCLibrary.dll serves. The store is FOLDER, else\n"
        "the environment variable CALYTH_TOKEN_STORE, else Calyth\\SoftToken under the user's\n"
        "local application data.\n\ncommands:\n");
    for (const Command* c : allCommands())
        (void)std::fprintf(out, "  %-14s %s\n", c->name, c->summary);
}

bool isHelp(const std::string& word) {
    return word == "--help" || word == "-h" || word == "help";
}

}  // namespace

int main(int argc, char** argv) {
    // Plain line feeds, so that a shell capturing a key id gets no carriage return with it.
    _setmode(_fileno(stdout), _O_BINARY);
    std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() >= 2 && words[0] == "--store") {
        SetEnvironmentVariableA("CALYTH_TOKEN_STORE", words[1].c_str());
        words.erase(words.begin(), words.begin() + 2);
    }
    if (words.empty()) {
        printOverview(stderr);
        return 2;
    }
    if (words[0] == "--version") {
        std::printf("calyth-token %s\n", CALYTH_VERSION_TEXT);
        return 0;
    }
    if (isHelp(words[0])) {
        const Command* c = words.size() > 1 ? findCommand(words[1]) : nullptr;
        if (c)
            std::printf("%s\n", c->usage);
        else
            printOverview(stdout);
        return 0;
    }
    const Command* command = findCommand(words[0]);
    if (!command) {
        (void)std::fprintf(stderr, "calyth-token: unknown command '%s'\n\n", words[0].c_str());
        printOverview(stderr);
        return 2;
    }
    words.erase(words.begin());
    for (const std::string& word : words) {
        if (word == "--help" || word == "-h") {
            std::printf("%s\n", command->usage);
            return 0;
        }
    }
    try {
        softtoken::ensureCryptoReady();
        return command->run(parseArguments(*command, words));
    } catch (const UsageError& e) {
        (void)std::fprintf(stderr, "calyth-token %s: %s\n\nusage: %s\n", command->name, e.what(),
                           command->usage);
        return 2;
    } catch (const CommandError& e) {
        (void)std::fprintf(stderr, "calyth-token %s: %s\n", command->name, e.what());
        return 1;
    } catch (const std::exception& e) {
        (void)std::fprintf(stderr, "calyth-token %s: %s\n", command->name, e.what());
        return 1;
    }
}
