// Command-line handling of calyth-token: the command table, option parsing and error reporting.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace calythtoken {

// Bad command line: printed with the command's usage, exit code 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// The command was understood but could not be carried out: exit code 1.
struct CommandError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct OptionSpec {
    const char* name;  // "--serial"
    bool takesValue;
};

struct Arguments {
    std::map<std::string, std::string> values;
    std::vector<std::string> flags;
    std::vector<std::string> positional;

    bool has(const std::string& name) const;
    std::string value(const std::string& name, const std::string& fallback = "") const;
    // The value of a mandatory option; UsageError when it is missing or empty.
    std::string required(const std::string& name) const;
    int number(const std::string& name, int fallback, int minimum, int maximum) const;
};

struct Command {
    const char* name;
    const char* summary;
    const char* usage;  // the complete help text of the command
    std::vector<OptionSpec> options;
    size_t maxPositional;
    int (*run)(const Arguments& arguments);
};

Arguments parseArguments(const Command& command, const std::vector<std::string>& words);

const std::vector<Command>& tokenCommands();
const std::vector<Command>& objectCommands();

// Helpers shared by the commands.
std::string statusMessage(int status);
void check(int status, const std::string& what);  // CommandError "<what>: <status text>" unless 0
std::vector<unsigned char> readInputFile(const std::string& path);
void writeOutputFile(const std::string& path, const std::string& content);

}  // namespace calythtoken
