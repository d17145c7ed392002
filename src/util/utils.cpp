#include "util/utils.h"

#include <cctype>

std::string Utils::bytesToHex(const unsigned char* bytes, int count) const {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    if (bytes == nullptr || count < 1) {
        return out;
    }
    out.reserve(static_cast<size_t>(count) * 2);
    for (int i = 0; i < count; ++i) {
        out.push_back(digits[bytes[i] >> 4]);
        out.push_back(digits[bytes[i] & 0x0F]);
    }
    return out;
}

std::vector<std::string> Utils::split(const std::string& text, const std::string& delimiters) const {
    std::vector<std::string> pieces;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find_first_of(delimiters, start);
        if (end == std::string::npos)
            end = text.size();
        if (end > start)
            pieces.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return pieces;
}

std::string Utils::trim(const std::string& text) const {
    size_t first = text.find_first_not_of(kWhitespace);
    if (first == std::string::npos)
        return std::string();
    size_t last = text.find_last_not_of(kWhitespace);
    return text.substr(first, last - first + 1);
}

std::string Utils::normalizeName(const std::string& name) const {
    std::string out;
    for (const std::string& part : split(name, ",;")) {
        std::string piece;
        size_t eq = part.find('=');
        if (eq == std::string::npos) {
            piece = trim(part);
        } else {
            piece = trim(part.substr(0, eq)) + "=" + trim(part.substr(eq + 1));
        }
        if (piece.empty())
            continue;
        for (char& c : piece)
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        if (!out.empty())
            out += ",";
        out += piece;
    }
    return out;
}
