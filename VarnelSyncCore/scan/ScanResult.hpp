#pragma once

#include "model/RelativePath.hpp"
#include "plan/SyncWarning.hpp"
#include "scan/FileSystemEntry.hpp"
#include "transfer/EndpointRole.hpp"

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace varnel {

// Everything one scan of one endpoint found. Each entry is stored once, in discovery
// order; the key index points into that storage (a deque never moves its elements), so
// the result is move-only.
class ScanResult {
public:
    struct ExcludedItem {
        RelativePath path;
        bool isDirectory = false;
        std::string ruleDescription;
        friend bool operator==(const ExcludedItem&, const ExcludedItem&) = default;
    };
    // An item or folder that could not be read; the planner lists source ones as errors.
    struct ReadFailure {
        RelativePath path;
        bool isDirectory = false;
        int errnoValue = 0;
        std::string detail;  // the low-level error's message
        friend bool operator==(const ReadFailure&, const ReadFailure&) = default;
    };
    struct CaseCollision {
        RelativePath kept;
        RelativePath collided;
        friend bool operator==(const CaseCollision&, const CaseCollision&) = default;
    };

    ScanResult() = default;
    ScanResult(ScanResult&&) = default;
    ScanResult& operator=(ScanResult&&) = default;
    ScanResult(const ScanResult&) = delete;
    ScanResult& operator=(const ScanResult&) = delete;

    // Records an included item. Returns it as stored.
    const FileSystemEntry& add(FileSystemEntry entry);

    // The item at `path` (compared canonically), or nullptr.
    const FileSystemEntry* entry(const RelativePath& path) const;
    const std::deque<FileSystemEntry>& orderedEntries() const { return entries_; }
    std::size_t size() const { return entries_.size(); }

    std::vector<ExcludedItem> excluded;
    std::vector<SyncWarning> warnings;
    std::int64_t directoriesScanned = 0;
    std::vector<CaseCollision> caseCollisions;
    std::vector<RelativePath> unreadableDirectories;
    std::vector<ReadFailure> readFailures;
    // Staging-named items found on the destination: leftovers of interrupted runs.
    std::vector<FileSystemEntry> stagingItems;

private:
    std::deque<FileSystemEntry> entries_;
    // Keyed by each stored entry's canonical path text.
    std::unordered_map<std::string_view, const FileSystemEntry*> byKey_;
};

// A snapshot sent to the caller every so many items.
struct ScanProgress {
    EndpointRole role = EndpointRole::source;
    std::int64_t itemsFound = 0;
    std::int64_t directoriesScanned = 0;
    std::optional<RelativePath> currentRelativePath;
};

}  // namespace varnel
