#include "device_calls.h"

#include <cstring>
#include <gtest/gtest.h>

namespace testsupport {

CalythKeyPair keyRecord(const std::string& serial, const Bytes& id) {
    std::vector<CalythKeyPair> keys = calyth_getKeyPairList(serial.c_str(), nullptr);
    for (const CalythKeyPair& key : keys)
        if (id.size() == 16 && std::memcmp(key.keyId, id.data(), 16) == 0)
            return key;
    CalythKeyPair none;
    std::memset(&none, 0, sizeof none);
    return none;
}

Bytes digest(int hashCode, const Bytes& data) {
    void* handle = nullptr;
    EXPECT_EQ(calyth_initHash("", hashCode, &handle, nullptr), 0);
    EXPECT_EQ(calyth_updateHash(handle, data.data(), static_cast<int>(data.size()), nullptr), 0);
    Bytes out(64);
    int length = 64;
    EXPECT_EQ(calyth_finalHash(handle, out.data(), &length, nullptr), 0);
    out.resize(static_cast<size_t>(length));
    return out;
}

}  // namespace testsupport
