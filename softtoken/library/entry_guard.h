// Shared helpers of the device functions: no exception leaves the library, and buffers handed to
// the caller are allocated with malloc() as the contract says.
#pragma once

#include <cstdlib>
#include <cstring>
#include <string>

#include "core/status.h"
#include "util/encoding.h"

namespace softtoken {

// Runs `body`; any exception becomes `fallback`.
template <typename Result, typename Body>
Result guarded(Result fallback, Body body) noexcept {
    try {
        return body();
    } catch (...) {
        return fallback;
    }
}

// Copies `bytes` into a malloc() block for an `unsigned char**` output.
inline int handOut(const Bytes& bytes, unsigned char** output, int* outputLength) {
    if (!output || !outputLength)
        return kBadArgument;
    *output = static_cast<unsigned char*>(std::malloc(bytes.empty() ? 1 : bytes.size()));
    if (!*output)
        return kFailed;
    if (!bytes.empty())
        std::memcpy(*output, bytes.data(), bytes.size());
    *outputLength = static_cast<int>(bytes.size());
    return kOk;
}

// A NUL-terminated text of at most `room` bytes (a fixed record field), cut at the room.
inline std::string fieldText(const char* text, size_t room) {
    if (!text)
        return "";
    size_t length = 0;
    while (length < room && text[length] != '\0')
        ++length;
    return std::string(text, length);
}

inline bool isEmpty(const char* text) {
    return !text || !*text;
}

}  // namespace softtoken
