// A buffer the device library allocates with malloc and hands over through an `unsigned char**`
// output; zeroed and released with free when it goes out of scope or before the next call reuses
// it. Such blocks may hold secrets (decrypted keys, plaintexts, an ECDH secret), so none goes back
// to the heap with its bytes in it.
#pragma once

#include <windows.h>

#include <malloc.h>

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

    // Zeroes the whole block as the heap allocated it, whatever length the library reported: a
    // reported length may be shorter or longer than the block.
    void release() {
        if (bytes != nullptr) {
            size_t room = _msize(bytes);
            if (room != static_cast<size_t>(-1))
                SecureZeroMemory(bytes, room);
        }
        std::free(bytes);
        bytes = nullptr;
        length = 0;
    }
};
