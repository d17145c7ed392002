// Process-wide state shared by both front-ends. Last writer wins: the IV is replaced and copied
// under a small lock of its own (never held across a device call), so that an operation keeps the
// IV it started with while another thread sets a new one; the random-source switch is atomic.
#pragma once

#include <atomic>
#include <cstddef>
#include <vector>

// The IV used by CBC encryption and decryption on both front-ends; written by KP_IV and by the
// CNG "IV" key property. An operation takes its own copy when it starts and hands the device that.
std::vector<unsigned char> processIv();
void setProcessIv(const unsigned char* bytes, size_t length);
void setProcessIv(const std::vector<unsigned char>& bytes);
void clearProcessIv();

// Random numbers from the token's generator (true) or the device library's software source;
// set through PP_USE_HARDWARE_RNG.
extern std::atomic<bool> g_useHardwareRng;
