// A buffer the device library allocates with malloc and hands over through an `unsigned char**`
// output; released with free when it goes out of scope or before the next call reuses it.
#pragma once

#include <cstddef>
#include <cstdlib>

struct DeviceOutput {
    unsigned char* bytes = nullptr;
    int length = 0;

    DeviceOutput() = default;
    DeviceOutput(const DeviceOutput&) = delete;
    DeviceOutput& operator=(const DeviceOutput&) = delete;
    ~DeviceOutput() { std::free(bytes); }

    // The length to copy from: 0 when no block came back or the library reported a negative length.
    size_t size() const { return bytes != nullptr && length > 0 ? static_cast<size_t>(length) : 0; }

    void release() {
        std::free(bytes);
        bytes = nullptr;
        length = 0;
    }
};
