#include "token/process_state.h"

#include <mutex>

namespace {

std::mutex g_ivMutex;  // held only to copy or replace the bytes
std::vector<unsigned char> g_iv;

}  // namespace

std::atomic<bool> g_useHardwareRng{true};

std::vector<unsigned char> processIv() {
    std::lock_guard<std::mutex> lock(g_ivMutex);
    return g_iv;
}

void setProcessIv(const unsigned char* bytes, size_t length) {
    std::vector<unsigned char> replacement(bytes, bytes + length);
    std::lock_guard<std::mutex> lock(g_ivMutex);
    g_iv.swap(replacement);
}

void setProcessIv(const std::vector<unsigned char>& bytes) {
    setProcessIv(bytes.data(), bytes.size());
}

void clearProcessIv() {
    std::vector<unsigned char> none;
    std::lock_guard<std::mutex> lock(g_ivMutex);
    g_iv.swap(none);
}
