// Transient copies of the PIN are overwritten once they are no longer needed, so that they do not
// linger in freed memory.
#pragma once

#include <windows.h>

#include <string>

// Overwrites every character the string holds (its whole capacity) and empties it.
inline void wipeText(std::string* text) {
    SecureZeroMemory(text->data(), text->capacity());
    text->clear();
}

// A PIN copy wiped when it goes out of scope.
struct WipedText {
    std::string text;

    WipedText() = default;
    explicit WipedText(std::string value) : text(std::move(value)) {}
    WipedText(const WipedText&) = delete;
    WipedText& operator=(const WipedText&) = delete;
    ~WipedText() { wipeText(&text); }

    const char* c_str() const { return text.c_str(); }
};
