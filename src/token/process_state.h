// Process-wide switches shared by both front-ends. Unguarded by design: last writer wins.
#pragma once

#include <vector>

// The IV used by CBC encryption and decryption on both front-ends; written by KP_IV and by the
// CNG "IV" key property.
extern std::vector<unsigned char> g_ivBuffer;

// Random numbers from the token's generator (true) or the device library's software source;
// set through PP_USE_HARDWARE_RNG.
extern bool g_useHardwareRng;
