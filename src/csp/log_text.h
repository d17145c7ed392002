// Number formats of the CryptoAPI entry points' log lines.
#pragma once

#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <string>

// Eight upper-case hexadecimal digits, as "%08X" writes them.
inline std::string hex8Text(uint32_t value) {
    char text[16];
    (void)std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(value));
    return text;
}

// A pointer in upper-case hexadecimal without leading zeros.
inline std::string pointerHexText(const void* pointer) {
    char text[32];
    (void)std::snprintf(text, sizeof text, "%llX",
                        static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pointer)));
    return text;
}

// A pointer or handle value in decimal, as the "invalid parameter" lines print them.
inline std::string decimalText(const void* pointer) {
    return std::to_string(static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pointer)));
}
inline std::string decimalText(ULONG_PTR handle) {
    return std::to_string(static_cast<unsigned long long>(handle));
}
