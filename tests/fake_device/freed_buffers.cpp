#include "fake_device/freed_buffers.h"

#include <windows.h>

#include <atomic>
#include <cstring>

#include "fake_device/fake_device.h"

extern "C" void __real_free(void* block);

namespace {

// free() runs here for the whole program, also inside the C runtime: nothing below allocates,
// and the lock is a slim reader/writer lock, which needs no memory of its own.
constexpr size_t kFollowedRoom = 256;
constexpr size_t kFreedRoom = 4096;
constexpr size_t kNameRoom = 48;

struct Followed {
    const void* block;
    size_t offset;
    size_t size;
    char what[kNameRoom];
};

struct Freed {
    char what[kNameRoom];
    size_t size;
    bool wiped;
};

SRWLOCK g_lock = SRWLOCK_INIT;
Followed g_followed[kFollowedRoom];
size_t g_followedCount = 0;
Freed g_freed[kFreedRoom];
size_t g_freedCount = 0;
std::atomic<size_t> g_following{0};

void copyName(char* target, const char* name) {
    std::strncpy(target, name, kNameRoom - 1);
    target[kNameRoom - 1] = '\0';
}

void follow(const void* block, size_t offset, size_t size, const char* what) {
    AcquireSRWLockExclusive(&g_lock);
    if (g_followedCount < kFollowedRoom) {
        Followed& entry = g_followed[g_followedCount++];
        entry.block = block;
        entry.offset = offset;
        entry.size = size;
        copyName(entry.what, what);
        g_following = g_followedCount;
    }
    ReleaseSRWLockExclusive(&g_lock);
}

void followHandedOut(const char* function, const void* block, size_t size) {
    follow(block, 0, size, function);
}

bool allZero(const unsigned char* bytes, size_t size) {
    for (size_t i = 0; i < size; ++i)
        if (bytes[i] != 0)
            return false;
    return true;
}

}  // namespace

extern "C" void __wrap_free(void* block) {
    if (block != nullptr && g_following.load() != 0) {
        AcquireSRWLockExclusive(&g_lock);
        for (size_t i = 0; i < g_followedCount; ++i) {
            if (g_followed[i].block != block)
                continue;
            const Followed entry = g_followed[i];
            g_followed[i] = g_followed[--g_followedCount];
            g_following = g_followedCount;
            if (g_freedCount < kFreedRoom) {
                Freed& freed = g_freed[g_freedCount++];
                copyName(freed.what, entry.what);
                freed.size = entry.size;
                freed.wiped = allZero(static_cast<const unsigned char*>(block) + entry.offset, entry.size);
            }
            break;
        }
        ReleaseSRWLockExclusive(&g_lock);
    }
    __real_free(block);
}

namespace fake {

void followHandedOutBuffers() {
    AcquireSRWLockExclusive(&g_lock);
    g_followedCount = 0;
    g_freedCount = 0;
    g_following = 0;
    ReleaseSRWLockExclusive(&g_lock);
    setHandedOutObserver(followHandedOut);
}

void followBlock(const void* block, size_t offset, size_t size, const std::string& what) {
    follow(block, offset, size, what.c_str());
}

std::vector<FreedBlock> freedBlocks() {
    std::vector<Freed> copy;
    AcquireSRWLockShared(&g_lock);
    copy.assign(g_freed, g_freed + g_freedCount);
    ReleaseSRWLockShared(&g_lock);
    std::vector<FreedBlock> out;
    for (const Freed& freed : copy)
        out.push_back(FreedBlock{freed.what, freed.size, freed.wiped});
    return out;
}

size_t blocksStillFollowed() {
    AcquireSRWLockShared(&g_lock);
    size_t count = g_followedCount;
    ReleaseSRWLockShared(&g_lock);
    return count;
}

}  // namespace fake
