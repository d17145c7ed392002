// A buffer the device library allocates with malloc and hands over through an `unsigned char**`
// output; released with free when it goes out of scope or before the next call reuses it.
#pragma once

#include <cstdlib>

struct DeviceOutput {
    unsigned char* bytes = nullptr;
    int length = 0;

    DeviceOutput() = default;
    DeviceOutput(const DeviceOutput&) = delete;
    DeviceOutput& operator=(const DeviceOutput&) = delete;
    ~DeviceOutput() { std::free(bytes); }

    void release() {
        std::free(bytes);
        bytes = nullptr;
        length = 0;
    }
};
