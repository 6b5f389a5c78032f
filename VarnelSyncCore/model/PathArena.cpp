#include "model/PathArena.hpp"

#include <sys/mman.h>

#include <cstdint>
#include <new>
#include <utility>

namespace varnel {

namespace {

// Chunks come straight from the system, not from malloc: a freed chunk must give its
// pages back at once, where malloc may keep a block of this size for itself. A chunk is
// aligned to its size: twice the room is mapped and what lies outside is given back.
void* mapChunk(std::size_t size) {
    void* memory = ::mmap(nullptr, 2 * size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    const auto start = reinterpret_cast<std::uintptr_t>(memory);
    const std::uintptr_t aligned = (start + size - 1) & ~(std::uintptr_t{size} - 1);
    if (aligned > start) ::munmap(memory, aligned - start);
    const std::uintptr_t end = start + 2 * size;
    if (end > aligned + size) ::munmap(reinterpret_cast<void*>(aligned + size), end - (aligned + size));
    return reinterpret_cast<void*>(aligned);
}

}  // namespace

void* PathArena::allocate(std::size_t bytes) {
    bytes = (bytes + 3) & ~std::size_t{3};
    if (bytes > kChunkSize - sizeof(ChunkHeader)) return nullptr;
    if (kChunkSize - used_ < bytes) {
        auto* fresh = new (mapChunk(kChunkSize)) ChunkHeader{this, {1}};
        references_.fetch_add(1, std::memory_order_relaxed);
        if (current_) releaseChunk(*current_);
        current_ = fresh;
        used_ = sizeof(ChunkHeader);
        prefaulted_.restart();
    }
    void* room = reinterpret_cast<char*>(current_) + used_;
    used_ += bytes;
    prefaulted_.cover(reinterpret_cast<std::byte*>(current_), kChunkSize, used_);
    current_->references.fetch_add(1, std::memory_order_relaxed);
    return room;
}

void PathArena::close() {
    if (current_) releaseChunk(*std::exchange(current_, nullptr));
    release();
}

PathArena::ChunkHeader& PathArena::chunkOf(const void* text) {
    const auto address = reinterpret_cast<std::uintptr_t>(text);
    return *reinterpret_cast<ChunkHeader*>(address & ~(std::uintptr_t{kChunkSize} - 1));
}

void PathArena::releaseChunk(ChunkHeader& chunk) {
    if (chunk.references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    PathArena* owner = chunk.owner;
    chunk.~ChunkHeader();
    ::munmap(&chunk, kChunkSize);
    owner->release();
}

void PathArena::retain(const void* text) {
    chunkOf(text).references.fetch_add(1, std::memory_order_relaxed);
}

void PathArena::release(const void* text) {
    releaseChunk(chunkOf(text));
}

}  // namespace varnel
