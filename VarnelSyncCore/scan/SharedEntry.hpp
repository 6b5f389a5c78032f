#pragma once

#include "scan/EntryStore.hpp"
#include "scan/FileSystemEntry.hpp"

#include <atomic>
#include <cstdint>
#include <optional>
#include <utility>

namespace varnel {

// An optional scanned entry whose copies share one immutable value. A plan names
// hundreds of thousands of entries that its scans already hold, so an action points
// into the scan's store (EntryStore::share) instead of carrying two copies of its own;
// either way a handle is one pointer. Equality compares the entries, not where they live.
class SharedEntry {
public:
    SharedEntry() = default;
    SharedEntry(std::nullopt_t) {}  // NOLINT(google-explicit-constructor): reads like an optional
    // A new entry of its own, for values that do not come from a scan.
    explicit SharedEntry(FileSystemEntry entry)
        : bits_(reinterpret_cast<std::uintptr_t>(new Own{{1}, std::move(entry)}) | kOwn) {}
    SharedEntry(const SharedEntry& other) noexcept : bits_(other.bits_) { retain(); }
    SharedEntry(SharedEntry&& other) noexcept : bits_(std::exchange(other.bits_, 0)) {}
    SharedEntry& operator=(SharedEntry other) noexcept {
        std::swap(bits_, other.bits_);
        return *this;
    }
    ~SharedEntry() { release(); }

    bool has_value() const { return bits_ != 0; }
    explicit operator bool() const { return has_value(); }
    const FileSystemEntry& operator*() const { return *get(); }
    const FileSystemEntry* operator->() const { return get(); }
    const FileSystemEntry* get() const {
        if ((bits_ & kOwn) != 0) return &reinterpret_cast<const Own*>(bits_ & ~kOwn)->entry;
        return reinterpret_cast<const FileSystemEntry*>(bits_);
    }

    friend bool operator==(const SharedEntry& a, const SharedEntry& b) {
        if (a.bits_ == b.bits_) return true;
        return a && b && *a == *b;
    }

private:
    friend class EntryStore;

    // An entry of its own, with its own count.
    struct Own {
        std::atomic<std::uint32_t> references;
        FileSystemEntry entry;
    };
    // Tags the pointer to an Own; untagged, it points at an entry in a store (both are
    // aligned to at least 8 bytes, so the low bit is free).
    static constexpr std::uintptr_t kOwn = 1;
    enum InStore { kInStore };

    // `stored` lies in a store that has already counted this handle.
    SharedEntry(const FileSystemEntry* stored, InStore) : bits_(reinterpret_cast<std::uintptr_t>(stored)) {}

    void retain() const {
        if (bits_ == 0) return;
        if ((bits_ & kOwn) != 0) {
            reinterpret_cast<Own*>(bits_ & ~kOwn)->references.fetch_add(1, std::memory_order_relaxed);
        } else {
            EntryStore::holding(get()).retain();
        }
    }
    void release() {
        if (bits_ == 0) return;
        if ((bits_ & kOwn) != 0) {
            auto* own = reinterpret_cast<Own*>(bits_ & ~kOwn);
            if (own->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete own;
        } else {
            EntryStore::holding(get()).release();
        }
        bits_ = 0;
    }

    std::uintptr_t bits_ = 0;
};

}  // namespace varnel
