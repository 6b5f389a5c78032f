#pragma once

#include "common/CacheLine.hpp"
#include "platform/PrefaultedPages.hpp"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace varnel {

// Where a scan keeps the text of the paths it makes (RelativePath::appending): large
// chunks filled one path after the other, instead of a heap block per path with its
// header and rounding. A scan makes hundreds of thousands of paths; this saves about 16
// bytes of each and most of the cost of making and freeing them.
//
// Each chunk counts the paths made in it and goes back to the system with its last one,
// so a text that is replaced by an equal one kept elsewhere (as the planner does for the
// destination's paths) frees its room. The arena itself lives until its Handle and its
// last chunk are gone. Paths may be copied and released on any thread; only the handle's
// owner may make new ones. A scan's readers each fill an arena of their own at once, so
// an arena takes a cache line of its own: two in one line would pass it back and forth
// between the processors at every path.
class alignas(kCacheLineBytes) PathArena {
public:
    // The owner's reference: makes the arena and releases it when it goes.
    class Handle {
    public:
        Handle() : arena_(new PathArena) {}
        Handle(const Handle&) = delete;
        Handle& operator=(const Handle&) = delete;
        ~Handle() { arena_->close(); }
        PathArena* get() const { return arena_; }

    private:
        PathArena* arena_;
    };

    // Room for `bytes` (4-byte aligned) and a reference for the path that will use it;
    // null when the text is too large for a chunk (the caller then uses the heap).
    void* allocate(std::size_t bytes);

    // Adds or drops the reference of one path whose text starts at `text`, in one of an
    // arena's chunks. Chunks are aligned to their size, so the address alone finds the
    // chunk and a text needs no room to say where it lies.
    static void retain(const void* text);
    static void release(const void* text);

    // How many chunks have not gone back yet (the one being filled included), while the
    // handle lives: every reference but the handle's is a chunk's.
    std::size_t chunksHeld() const { return references_.load(std::memory_order_acquire) - 1; }

private:
    static constexpr std::size_t kChunkSize = std::size_t{1} << 20;
    struct ChunkHeader {
        PathArena* owner;
        // The paths made in the chunk, and one more while it is the one being filled.
        std::atomic<std::size_t> references;
    };

    PathArena() = default;
    ~PathArena() = default;
    static ChunkHeader& chunkOf(const void* text);
    static void releaseChunk(ChunkHeader& chunk);
    // The handle is gone: no path will be made in the current chunk any more.
    void close();
    void release() {
        if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

    // The handle's, and one for each chunk held.
    std::atomic<std::size_t> references_{1};
    ChunkHeader* current_ = nullptr;  // the chunk being filled
    std::size_t used_ = kChunkSize;   // of it; full until the first one exists
    PrefaultAhead prefaulted_;        // of the chunk being filled
};

}  // namespace varnel
