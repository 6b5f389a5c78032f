#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace varnel {

// Where a scan keeps the text of the paths it makes (RelativePath::appending): large
// chunks filled one path after the other, instead of a heap block per path with its
// header and rounding, and given back all at once. A scan makes hundreds of thousands
// of paths; this saves about 16 bytes of each and most of the cost of making and
// freeing them.
//
// A path made here counts as a reference to the whole arena, so the arena lives until
// its last path and its Handle are gone, as an action keeps its scan's entries alive.
// Paths may be copied and released on any thread; only the handle's owner may make
// new ones.
class PathArena {
public:
    // The owner's reference: makes the arena and releases it when it goes.
    class Handle {
    public:
        Handle() : arena_(new PathArena) {}
        Handle(const Handle&) = delete;
        Handle& operator=(const Handle&) = delete;
        ~Handle() { arena_->release(); }
        PathArena* get() const { return arena_; }

    private:
        PathArena* arena_;
    };

    // Room for `bytes` (4-byte aligned) and a reference for the path that will use it;
    // null when the text is too large for a chunk (the caller then uses the heap).
    // `offsetToChunk` receives how far the room lies from its chunk's start.
    void* allocate(std::size_t bytes, std::uint32_t& offsetToChunk);

    // Adds or drops the reference of one path whose text lies `offsetToChunk` bytes into
    // one of an arena's chunks.
    static void retain(const void* text, std::uint32_t offsetToChunk);
    static void release(const void* text, std::uint32_t offsetToChunk);

private:
    static constexpr std::size_t kChunkSize = std::size_t{1} << 20;
    struct ChunkHeader {
        PathArena* owner;
    };

    PathArena() = default;
    ~PathArena();
    static PathArena& ownerOf(const void* text, std::uint32_t offsetToChunk);
    void release() {
        if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

    std::atomic<std::size_t> references_{1};
    std::vector<char*> chunks_;
    std::size_t used_ = kChunkSize;  // in the newest chunk; full until the first one exists
};

}  // namespace varnel
