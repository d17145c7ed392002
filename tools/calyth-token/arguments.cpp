#include "arguments.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "core/certificate.h"
#include "core/status.h"

namespace calythtoken {

bool Arguments::has(const std::string& name) const {
    return values.count(name) != 0 || std::find(flags.begin(), flags.end(), name) != flags.end();
}

std::string Arguments::value(const std::string& name, const std::string& fallback) const {
    auto found = values.find(name);
    return found == values.end() ? fallback : found->second;
}

std::string Arguments::required(const std::string& name) const {
    auto found = values.find(name);
    if (found == values.end() || found->second.empty())
        throw UsageError("missing " + name);
    return found->second;
}

int Arguments::number(const std::string& name, int fallback, int minimum, int maximum) const {
    auto found = values.find(name);
    if (found == values.end())
        return fallback;
    char* end = nullptr;
    long value = std::strtol(found->second.c_str(), &end, 10);
    if (found->second.empty() || *end != '\0' || value < minimum || value > maximum)
        throw UsageError(name + " must be a whole number from " + std::to_string(minimum) + " to " +
                         std::to_string(maximum) + ", not '" + found->second + "'");
    return static_cast<int>(value);
}

Arguments parseArguments(const Command& command, const std::vector<std::string>& words) {
    Arguments arguments;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word.size() < 2 || word.compare(0, 2, "--") != 0) {
            if (arguments.positional.size() >= command.maxPositional)
                throw UsageError("unexpected argument '" + word + "'");
            arguments.positional.push_back(word);
            continue;
        }
        std::string name = word;
        std::string inlineValue;
        bool hasInline = false;
        size_t equals = word.find('=');
        if (equals != std::string::npos) {
            name = word.substr(0, equals);
            inlineValue = word.substr(equals + 1);
            hasInline = true;
        }
        auto option = std::find_if(command.options.begin(), command.options.end(),
                                 [&](const OptionSpec& o) { return name == o.name; });
        if (option == command.options.end())
            throw UsageError("unknown option '" + name + "'");
        if (!option->takesValue) {
            if (hasInline)
                throw UsageError(name + " takes no value");
            arguments.flags.push_back(name);
        } else if (hasInline) {
            arguments.values[name] = inlineValue;
        } else {
            if (i + 1 >= words.size())
                throw UsageError(name + " needs a value");
            arguments.values[name] = words[++i];
        }
    }
    return arguments;
}

std::string statusMessage(int status) {
    return std::string(softtoken::statusText(status)) + " (status " + std::to_string(status) + ")";
}

void check(int status, const std::string& what) {
    if (status != softtoken::kOk)
        throw CommandError(what + ": " + statusMessage(status));
}

std::vector<unsigned char> readInputFile(const std::string& path) {
    std::vector<unsigned char> content;
    if (!softtoken::readWholeFile(path, content))
        throw CommandError("cannot read '" + path + "'");
    return content;
}

void writeOutputFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!out.flush())
        throw CommandError("cannot write '" + path + "'");
}

}  // namespace calythtoken
