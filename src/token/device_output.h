// A buffer the device library allocates with malloc and hands over through an `unsigned char**`
// output; zeroed and released with free when it goes out of scope or before the next call reuses
// it. Such blocks may hold secrets (decrypted keys, plaintexts, an ECDH secret), so none goes back
// to the heap with its bytes in it.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdlib>

struct DeviceOutput {
    unsigned char* bytes = nullptr;
    int length = 0;

    DeviceOutput() = default;
    DeviceOutput(const DeviceOutput&) = delete;
    DeviceOutput& operator=(const DeviceOutput&) = delete;
    ~DeviceOutput() { release(); }

    // The length to copy from: 0 when no block came back or the library reported a negative length.
    size_t size() const { return bytes != nullptr && length > 0 ? static_cast<size_t>(length) : 0; }

    void release() {
        if (bytes != nullptr)
            SecureZeroMemory(bytes, size());
        std::free(bytes);
        bytes = nullptr;
        length = 0;
    }
};
