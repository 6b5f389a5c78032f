#include "model/PathArena.hpp"

#include <sys/mman.h>

#include <new>
#include <utility>

namespace varnel {

namespace {

// Chunks come straight from the system, not from malloc: a freed chunk must give its
// pages back at once, where malloc may keep a block of this size for itself.
void* mapChunk(std::size_t size) {
    void* memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    return memory;
}

}  // namespace

void* PathArena::allocate(std::size_t bytes, std::uint32_t& offsetToChunk) {
    bytes = (bytes + 3) & ~std::size_t{3};
    if (bytes > kChunkSize - sizeof(ChunkHeader)) return nullptr;
    if (kChunkSize - used_ < bytes) {
        auto* fresh = new (mapChunk(kChunkSize)) ChunkHeader{this, {1}};
        references_.fetch_add(1, std::memory_order_relaxed);
        if (current_) releaseChunk(*current_);
        current_ = fresh;
        used_ = sizeof(ChunkHeader);
    }
    offsetToChunk = static_cast<std::uint32_t>(used_);
    void* room = reinterpret_cast<char*>(current_) + used_;
    used_ += bytes;
    current_->references.fetch_add(1, std::memory_order_relaxed);
    return room;
}

void PathArena::close() {
    if (current_) releaseChunk(*std::exchange(current_, nullptr));
    release();
}

PathArena::ChunkHeader& PathArena::chunkOf(const void* text, std::uint32_t offsetToChunk) {
    return *reinterpret_cast<ChunkHeader*>(const_cast<char*>(static_cast<const char*>(text)) - offsetToChunk);
}

void PathArena::releaseChunk(ChunkHeader& chunk) {
    if (chunk.references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    PathArena* owner = chunk.owner;
    chunk.~ChunkHeader();
    ::munmap(&chunk, kChunkSize);
    owner->release();
}

void PathArena::retain(const void* text, std::uint32_t offsetToChunk) {
    chunkOf(text, offsetToChunk).references.fetch_add(1, std::memory_order_relaxed);
}

void PathArena::release(const void* text, std::uint32_t offsetToChunk) {
    releaseChunk(chunkOf(text, offsetToChunk));
}

}  // namespace varnel
