#pragma once

#include "model/RelativePath.hpp"
#include "plan/SyncWarning.hpp"
#include "scan/EntryStore.hpp"
#include "scan/FileSystemEntry.hpp"
#include "scan/SharedEntry.hpp"
#include "transfer/EndpointRole.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace varnel {

// Everything one scan of one endpoint found. Each entry is stored once, in discovery
// order, in a store that a plan's actions share, so the entries outlive the result when
// a plan still points at them. Move-only.
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

    ScanResult() : entries_(EntryStore::create()) {}
    ScanResult(ScanResult&&) = default;
    ScanResult& operator=(ScanResult&&) = default;
    ScanResult(const ScanResult&) = delete;
    ScanResult& operator=(const ScanResult&) = delete;

    // Records an included item. Returns it as stored.
    const FileSystemEntry& add(FileSystemEntry&& entry);

    // The item at `path` (compared canonically), or nullptr. Looks through every entry:
    // the planner keeps its own index.
    const FileSystemEntry* entry(const RelativePath& path) const;
    const EntryStore& orderedEntries() const { return *entries_; }
    std::size_t size() const { return entries_->size(); }
    // `stored`, which must be one of this result's entries, as a handle that keeps it
    // alive without copying it.
    SharedEntry share(const FileSystemEntry& stored) const { return entries_->share(stored); }
    // See EntryStore::sharePathText.
    void sharePathText(std::size_t index, const RelativePath& candidate) {
        entries_->sharePathText(index, candidate);
    }

    std::vector<ExcludedItem> excluded;
    std::vector<SyncWarning> warnings;
    std::int64_t directoriesScanned = 0;
    std::vector<CaseCollision> caseCollisions;
    std::vector<RelativePath> unreadableDirectories;
    std::vector<ReadFailure> readFailures;
    // Staging-named items found on the destination: leftovers of interrupted runs.
    std::vector<FileSystemEntry> stagingItems;

private:
    EntryStore::Owner entries_;
};

// A snapshot sent to the caller every so many items.
struct ScanProgress {
    EndpointRole role = EndpointRole::source;
    std::int64_t itemsFound = 0;
    std::int64_t directoriesScanned = 0;
    std::optional<RelativePath> currentRelativePath;
};

}  // namespace varnel
