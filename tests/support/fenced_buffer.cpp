#include "support/fenced_buffer.h"

#include <windows.h>

#include <cstring>

namespace testsupport {

FencedBuffer::FencedBuffer(size_t capacity) {
    SYSTEM_INFO info{};
    GetSystemInfo(&info);
    size_t page = info.dwPageSize;
    usable_ = (capacity + page - 1) / page * page;
    base_ = static_cast<unsigned char*>(
        VirtualAlloc(nullptr, usable_ + page, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    DWORD old = 0;
    VirtualProtect(base_ + usable_, page, PAGE_NOACCESS, &old);
}

FencedBuffer::~FencedBuffer() {
    VirtualFree(base_, 0, MEM_RELEASE);
}

unsigned char* FencedBuffer::place(const std::vector<unsigned char>& bytes) {
    size_t length = bytes.size() < usable_ ? bytes.size() : usable_;
    unsigned char* at = base_ + usable_ - length;
    if (length != 0)
        std::memcpy(at, bytes.data(), length);
    return at;
}

unsigned char* FencedBuffer::room(size_t length) {
    if (length > usable_)
        length = usable_;
    unsigned char* at = base_ + usable_ - length;
    std::memset(at, 0xCC, length);
    return at;
}

}  // namespace testsupport
