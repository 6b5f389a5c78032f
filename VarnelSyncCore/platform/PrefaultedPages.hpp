#pragma once

#include <algorithm>
#include <cstddef>

namespace varnel {

// Asks the system to back [start, start + bytes) with writable pages now, in one call,
// rather than on a fault at the first write to each page. A scan fills tens of
// thousands of fresh pages, and in a virtual machine every fault is a trip through the
// host as well. Best effort: where the system cannot, the pages come on first write as
// before.
void prefaultForWriting(void* start, std::size_t bytes);

// For a block that is filled from its start on: keeps the pages up to a step past the
// filled part prefaulted, so that a block that is never filled does not hold memory it
// does not use.
class PrefaultAhead {
public:
    static constexpr std::size_t kStep = std::size_t{64} << 10;

    // A new block: nothing of it is prefaulted yet.
    void restart() { prefaulted_ = 0; }

    // The block at `block` (aligned to kStep) of `blockBytes` is about to be filled up
    // to `filledTo`.
    void cover(std::byte* block, std::size_t blockBytes, std::size_t filledTo) {
        if (filledTo <= prefaulted_) return;
        const std::size_t to = std::min(blockBytes, (filledTo + kStep - 1) / kStep * kStep);
        prefaultForWriting(block + prefaulted_, to - prefaulted_);
        prefaulted_ = to;
    }

private:
    std::size_t prefaulted_ = 0;
};

}  // namespace varnel
