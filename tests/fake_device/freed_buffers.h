// Follows memory blocks to their free() and records whether the bytes that mattered were zero by
// then: the blocks the fake device library hands out (its malloc'ed outputs, announced through
// fake::setHandedOutObserver) and any block a test names (a key object, a digest buffer).
//
// A program that uses this links calyth_fake_device_freed_buffers, which routes every free() of the
// program through here (the linker's --wrap=free); blocks nobody follows go straight on to free().
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace fake {

struct FreedBlock {
    std::string what;  // the device function that handed it out, or the name a test gave
    size_t size;       // the bytes looked at
    bool wiped;        // all of them were zero when the block was freed
};

// From now on, every block the fake hands out is followed; forgets earlier records.
void followHandedOutBuffers();
// Follows `size` bytes at `offset` in the block that starts at `block` (as malloc returned it).
void followBlock(const void* block, size_t offset, size_t size, const std::string& what);
// The followed blocks freed since followHandedOutBuffers(), in order.
std::vector<FreedBlock> freedBlocks();
// Followed blocks not freed yet.
size_t blocksStillFollowed();

}  // namespace fake
