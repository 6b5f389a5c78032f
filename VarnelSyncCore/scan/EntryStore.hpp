#pragma once

#include "common/CacheLine.hpp"
#include "common/IndexedIterator.hpp"
#include "platform/PrefaultedPages.hpp"
#include "scan/FileSystemEntry.hpp"

#include <atomic>
#include <cstddef>
#include <memory>
#include <new>
#include <vector>

namespace varnel {

class SharedEntry;

// A scan's entries in discovery order, in large blocks that never move. A plan's
// actions point into the store rather than copy its entries (see share), and the store
// lives until the last of those handles and its owner are gone. Blocks are aligned to
// their size, so a handle finds its store from the entry's address alone and is a single
// pointer. One thread adds; once it is done, any number may read and share.
class EntryStore {
    struct Release {
        void operator()(EntryStore* store) const { store->release(); }
    };

public:
    // The owner's reference; the store outlives it while handles remain.
    using Owner = std::unique_ptr<EntryStore, Release>;

    static Owner create() { return Owner(new EntryStore()); }
    EntryStore(const EntryStore&) = delete;
    EntryStore& operator=(const EntryStore&) = delete;

    // Appends `entry`; returns it as stored, at an address that never changes.
    const FileSystemEntry& add(FileSystemEntry&& entry);

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    const FileSystemEntry& operator[](std::size_t index) const {
        return entriesOf(blocks_[index / kPerBlock])[index % kPerBlock];
    }
    IndexedIterator<EntryStore> begin() const { return {this, 0}; }
    IndexedIterator<EntryStore> end() const { return {this, size_}; }

    // A handle that keeps `stored`, one of this store's entries, alive without copying it.
    SharedEntry share(const FileSystemEntry& stored) const;

    // Entry `index`'s path, whose text the caller has found to hold the very bytes of
    // `candidate`'s, names its path with `candidate`'s text from now on, and its own text
    // goes unless something else holds it. No value changes; still, no other thread may
    // read the entry meanwhile, and views of the old text end here. (The bytes are not
    // compared again: the caller compares them where they are still in cache.)
    void sharePathText(std::size_t index, const RelativePath& candidate);

private:
    friend class SharedEntry;

    static constexpr std::size_t kBlockBytes = std::size_t{1} << 20;
    static constexpr std::align_val_t kBlockAlignment{kBlockBytes};
    // Each block starts with the store it belongs to; its entries follow.
    static constexpr std::size_t kHeaderBytes = alignof(FileSystemEntry) > sizeof(EntryStore*)
                                                    ? alignof(FileSystemEntry)
                                                    : sizeof(EntryStore*);
    static constexpr std::size_t kPerBlock = (kBlockBytes - kHeaderBytes) / sizeof(FileSystemEntry);

    EntryStore() = default;
    ~EntryStore();

    static FileSystemEntry* entriesOf(std::byte* block) {
        return reinterpret_cast<FileSystemEntry*>(block + kHeaderBytes);
    }
    // The store holding `entry`, one of some store's entries.
    static const EntryStore& holding(const FileSystemEntry* entry);

    void retain() const { references_.fetch_add(1, std::memory_order_relaxed); }
    void release() const;

    std::vector<std::byte*> blocks_;
    PrefaultAhead prefaulted_;  // of the last block
    std::size_t size_ = 0;
    // On a cache line of its own: the planning shares entries (a write here for each
    // action) while a second thread looks entries up through blocks_, and a line they
    // both used would go back and forth between the processors at every item.
    alignas(kCacheLineBytes) mutable std::atomic<std::size_t> references_{1};
};

}  // namespace varnel
