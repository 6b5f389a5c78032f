#pragma once

#include "scan/FileSystemEntry.hpp"

#include <memory>
#include <optional>
#include <utility>

namespace varnel {

// An optional scanned entry whose copies share one immutable value. A plan names
// hundreds of thousands of entries that its scans already hold, so an action points
// into the scan (see ScanResult::share) instead of carrying two copies of its own.
// Equality compares the entries, not where they live.
class SharedEntry {
public:
    SharedEntry() = default;
    SharedEntry(std::nullopt_t) {}  // NOLINT(google-explicit-constructor): reads like an optional
    // A new entry of its own, for values that do not come from a scan.
    explicit SharedEntry(FileSystemEntry entry)
        : entry_(std::make_shared<const FileSystemEntry>(std::move(entry))) {}
    explicit SharedEntry(std::shared_ptr<const FileSystemEntry> entry) : entry_(std::move(entry)) {}

    bool has_value() const { return entry_ != nullptr; }
    explicit operator bool() const { return has_value(); }
    const FileSystemEntry& operator*() const { return *entry_; }
    const FileSystemEntry* operator->() const { return entry_.get(); }
    const FileSystemEntry* get() const { return entry_.get(); }

    friend bool operator==(const SharedEntry& a, const SharedEntry& b) {
        if (a.entry_ == b.entry_) return true;
        return a && b && *a == *b;
    }

private:
    std::shared_ptr<const FileSystemEntry> entry_;
};

}  // namespace varnel
