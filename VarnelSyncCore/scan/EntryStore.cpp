#include "scan/EntryStore.hpp"

#include "scan/SharedEntry.hpp"

#include <cassert>
#include <cstdint>
#include <new>
#include <string_view>
#include <utility>

namespace varnel {

EntryStore::~EntryStore() {
    for (std::size_t i = 0; i < size_; ++i) {
        entriesOf(blocks_[i / kPerBlock])[i % kPerBlock].~FileSystemEntry();
    }
    for (std::byte* block : blocks_) ::operator delete(block, kBlockAlignment);
}

const FileSystemEntry& EntryStore::add(FileSystemEntry&& entry) {
    if (size_ == blocks_.size() * kPerBlock) {
        blocks_.reserve(blocks_.size() + 1);  // so that push_back cannot throw with the block unowned
        auto* block = static_cast<std::byte*>(::operator new(kBlockBytes, kBlockAlignment));
        prefaulted_.restart();
        new (block) const EntryStore*(this);
        blocks_.push_back(block);
    }
    const std::size_t inBlock = size_ % kPerBlock;
    prefaulted_.cover(blocks_.back(), kBlockBytes, kHeaderBytes + (inBlock + 1) * sizeof(FileSystemEntry));
    FileSystemEntry* stored = new (&entriesOf(blocks_.back())[inBlock])
        FileSystemEntry(std::move(entry));
    ++size_;
    return *stored;
}

SharedEntry EntryStore::share(const FileSystemEntry& stored) const {
    retain();
    return SharedEntry(&stored, SharedEntry::kInStore);
}

void EntryStore::sharePathText(std::size_t index, const RelativePath& candidate) {
    RelativePath& path = entriesOf(blocks_[index / kPerBlock])[index % kPerBlock].relativePath;
    assert(path.value() == candidate.value());
    if (!path.sharesTextWith(candidate)) path = candidate;
}

const EntryStore& EntryStore::holding(const FileSystemEntry* entry) {
    const auto address = reinterpret_cast<std::uintptr_t>(entry);
    const auto* block = reinterpret_cast<const EntryStore* const*>(address & ~(std::uintptr_t{kBlockBytes} - 1));
    return **block;
}

void EntryStore::release() const {
    if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

}  // namespace varnel
