#include "model/PathArena.hpp"

#include <cstdlib>
#include <new>

namespace varnel {

PathArena::~PathArena() {
    for (char* chunk : chunks_) std::free(chunk);
}

void* PathArena::allocate(std::size_t bytes, std::uint32_t& offsetToChunk) {
    bytes = (bytes + 3) & ~std::size_t{3};
    if (bytes > kChunkSize - sizeof(ChunkHeader)) return nullptr;
    if (kChunkSize - used_ < bytes) {
        chunks_.reserve(chunks_.size() + 1);  // so that keeping the new chunk cannot throw
        auto* chunk = static_cast<char*>(std::malloc(kChunkSize));
        if (!chunk) throw std::bad_alloc();
        new (chunk) ChunkHeader{this};
        chunks_.push_back(chunk);
        used_ = sizeof(ChunkHeader);
    }
    offsetToChunk = static_cast<std::uint32_t>(used_);
    void* room = chunks_.back() + used_;
    used_ += bytes;
    references_.fetch_add(1, std::memory_order_relaxed);
    return room;
}

PathArena& PathArena::ownerOf(const void* text, std::uint32_t offsetToChunk) {
    const char* chunk = static_cast<const char*>(text) - offsetToChunk;
    return *reinterpret_cast<const ChunkHeader*>(chunk)->owner;
}

void PathArena::retain(const void* text, std::uint32_t offsetToChunk) {
    ownerOf(text, offsetToChunk).references_.fetch_add(1, std::memory_order_relaxed);
}

void PathArena::release(const void* text, std::uint32_t offsetToChunk) {
    ownerOf(text, offsetToChunk).release();
}

}  // namespace varnel
