// Host-side copies of secret bytes (AES key material, a key derivation's input and digest, decrypted
// data), zeroed when they go out of scope, on every path out.
#pragma once

#include <windows.h>

#include <cstddef>
#include <vector>

struct WipedBytes {
    std::vector<unsigned char> bytes;

    WipedBytes() = default;
    explicit WipedBytes(size_t size) : bytes(size) {}
    WipedBytes(const WipedBytes&) = delete;
    WipedBytes& operator=(const WipedBytes&) = delete;
    // The whole allocation, not only the bytes in use.
    ~WipedBytes() { SecureZeroMemory(bytes.data(), bytes.capacity()); }

    unsigned char* data() { return bytes.data(); }
    const unsigned char* data() const { return bytes.data(); }
    size_t size() const { return bytes.size(); }
};
