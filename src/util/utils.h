// Text helpers shared by both front-ends: hexadecimal text, splitting, trimming and the comparison
// form of distinguished names. Stateless; callers make one on the stack.
#pragma once

#include <string>
#include <vector>

class Utils {
public:
    virtual ~Utils() = default;

    // Upper-case hexadecimal, two characters per byte, no separators; empty for count < 1.
    std::string bytesToHex(const unsigned char* bytes, int count) const;

    // Splits at any of the delimiter characters; empty pieces are dropped.
    std::vector<std::string> split(const std::string& text, const std::string& delimiters) const;

    // Removes the characters of kWhitespace from both ends.
    std::string trim(const std::string& text) const;

    // Comparison form of a distinguished name: each "type=value" part trimmed, type and value
    // upper-cased, parts joined by ",". Applying it twice changes nothing.
    std::string normalizeName(const std::string& name) const;

    static constexpr const char* kWhitespace = " \t\n\r\f\v";
};
