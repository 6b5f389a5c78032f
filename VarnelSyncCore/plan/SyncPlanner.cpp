#include "plan/SyncPlanner.hpp"

#include "common/ByteCount.hpp"
#include "common/CacheLine.hpp"
#include "common/CheckedArithmetic.hpp"
#include "common/FlatKeyMap.hpp"
#include "common/Localization.hpp"
#include "common/TextSearch.hpp"
#include "common/Unicode.hpp"
#include "plan/TwoThreadTrial.hpp"
#include "transfer/SyncError.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <deque>
#include <exception>
#include <limits>
#include <stdexcept>
#include <thread>
#include <unordered_set>
#include <utility>

namespace varnel {

namespace {

using Category = SyncWarning::Category;
using Reason = SyncActionReason;

constexpr const char* kHiddenDescription = "Hidden files are skipped by this profile";

enum class Side { source, destination };

// How the destination volume tells names apart: canonical form, lower-cased when it
// ignores case. On a case-sensitive volume a scanned item's key is a view of its path's
// own text, so planning allocates nothing per item for its look-ups; lower-cased keys are
// kept here, one per scanned item, made the first time that item's key is asked for.
// Every path handed in must outlive the planning pass (they all live in its input).
class MatchKeys {
public:
    MatchKeys(bool caseSensitive, const EntryStore& source, const EntryStore& destination)
        : caseSensitive_(caseSensitive), sides_{Made{&source, {}}, Made{&destination, {}}} {}

    std::string_view of(const RelativePath& path) {
        if (caseSensitive_) return path.canonicalValue();
        return lowered_.emplace_back(unicode::toLower(path.canonicalValue()));
    }

    // Whether keys are the paths' own canonical texts: then nothing is made or stored.
    bool caseSensitive() const { return caseSensitive_; }
    std::size_t count(Side side) const { return sideOf(side).entries->size(); }
    const FileSystemEntry& entry(Side side, std::size_t index) const { return (*sideOf(side).entries)[index]; }

    // The key of a side's item; items are asked for in increasing order the first time.
    std::string_view of(Side side, std::size_t index) {
        Made& made = sideOf(side);
        if (caseSensitive_) return canonical(made, index);
        while (made.keys.size() <= index) made.keys.push_back(unicode::toLower(canonical(made, made.keys.size())));
        return made.keys[index];
    }
    // The key of an item asked for before.
    std::string_view made(Side side, std::size_t index) const {
        const Made& made = sideOf(side);
        return caseSensitive_ ? canonical(made, index) : std::string_view(made.keys[index]);
    }
    // Starts loading the text that made() will read (the item itself should be loaded by now).
    void prefetchText(Side side, std::size_t index) const {
        if (caseSensitive_) entry(side, index).relativePath.prefetch();
    }

private:
    struct Made {
        const EntryStore* entries;
        std::deque<std::string> keys;  // lower-cased, by index; a deque never moves what it holds
    };
    static std::string_view canonical(const Made& made, std::size_t index) {
        return (*made.entries)[index].relativePath.canonicalValue();
    }
    Made& sideOf(Side side) { return sides_[side == Side::source ? 0 : 1]; }
    const Made& sideOf(Side side) const { return sides_[side == Side::source ? 0 : 1]; }

    bool caseSensitive_;
    std::array<Made, 2> sides_;
    std::deque<std::string> lowered_;  // the keys of paths beside the entries
};

using KeySet = std::unordered_set<std::string_view>;

constexpr std::uint32_t kNoItem = std::numeric_limits<std::uint32_t>::max();

// An index reads a stored item's key from the scanned item itself, so a bucket is the
// key's hash and the item's index in its scan: 8 bytes.
struct ItemKey {
    const MatchKeys* keys;
    Side side;
    std::string_view operator()(std::uint32_t index) const { return keys->made(side, index); }
};

using ItemIndex = FlatKeyMap<std::uint32_t, ItemKey>;

// The match keys of one side's entries, in order, each made a few entries before it is
// looked up in the destination's index, with its bucket, then the item found there under
// the key's hash, then that item's path text told to start loading: a look-up per item
// into an index of hundreds of thousands otherwise waits on memory each time.
class KeysAhead {
public:
    KeysAhead(Side side, MatchKeys& keys, const ItemIndex& destinations)
        : side_(side), count_(keys.count(side)), keys_(keys), destinations_(destinations) {}

    // The key of entry `position`. Positions are asked for in increasing order.
    const ItemIndex::HashedKey& operator[](std::size_t position) {
        for (; made_ < count_ && made_ <= position + kBucketDistance; ++made_) {
            ItemIndex::HashedKey& key = ring_[made_ % kRing];
            key = ItemIndex::HashedKey(keys_.of(side_, made_));
            destinations_.prefetch(key);
        }
        // Their buckets have had time to arrive.
        if (position + kItemDistance < made_) {
            if (const std::uint32_t* found = destinations_.candidate(ring_[(position + kItemDistance) % kRing])) {
                __builtin_prefetch(&keys_.entry(Side::destination, *found));
            }
        }
        if (position + kTextDistance < made_) {
            if (const std::uint32_t* found = destinations_.candidate(ring_[(position + kTextDistance) % kRing])) {
                keys_.prefetchText(Side::destination, *found);
            }
        }
        return ring_[position % kRing];
    }

private:
    static constexpr std::size_t kBucketDistance = 16;
    static constexpr std::size_t kItemDistance = 8;
    static constexpr std::size_t kTextDistance = 4;
    static constexpr std::size_t kRing = 32;  // more than kBucketDistance + 1

    Side side_;
    std::size_t count_;
    MatchKeys& keys_;
    const ItemIndex& destinations_;
    std::array<ItemIndex::HashedKey, kRing> ring_{};
    std::size_t made_ = 0;
};

// A source item's key and the destination item found under it, if any.
struct SourceLookUp {
    ItemIndex::HashedKey key;
    std::uint32_t destination = kNoItem;
    bool samePathText = false;  // the two items' paths are the same text, byte for byte
};

// Runs `beside` on a second thread while `here` runs on this one; a failure of either
// reaches the caller once both are done.
template <typename Here, typename Beside>
void runBeside(Here here, Beside beside) {
    std::exception_ptr failure;
    {
        const std::jthread second([&] {
            try {
                beside();
            } catch (...) {
                failure = std::current_exception();
            }
        });
        here();
    }
    if (failure) std::rethrow_exception(failure);
}

std::string_view parentKey(std::string_view key) {
    const std::size_t slash = lastIndexOf(key, '/');
    return slash == std::string_view::npos ? std::string_view() : key.substr(0, slash);
}

// Whether `key` or one of its ancestors is in `folders`.
bool isAtOrBelow(std::string_view key, const KeySet& folders) {
    if (folders.empty()) return false;
    if (folders.contains(std::string_view())) return true;  // the root itself
    for (std::size_t slash = key.find('/'); slash != std::string_view::npos; slash = key.find('/', slash + 1)) {
        if (folders.contains(key.substr(0, slash))) return true;
    }
    return folders.contains(key);
}

// Everything one planning pass keeps while it runs.
class PlanBuilder {
public:
    PlanBuilder(const SyncPlanner::Input& input, const FileComparator& comparator)
        : input_(input),
          comparator_(comparator),
          keys_(input.destinationCaseSensitive, input.source.orderedEntries(), input.destination.orderedEntries()),
          destinations_(ItemKey{&keys_, Side::destination}, input.destination.size()),
          // At least this many source keys have no destination item.
          sourceOnly_(ItemKey{&keys_, Side::source},
                      input.source.size() - std::min(input.source.size(), input.destination.size())),
          firstSources_(input.destination.size(), kNoItem),
          matched_(input.destination.size()) {
        if (std::max(input.destination.size(), input.source.size()) >= kNoItem) {
            throw std::length_error("More items than one plan can hold.");
        }
        // Room for every source item and exclusion, so that the file list can become the
        // whole plan in place (see sortActionsForExecution).
        files_.reserve(input.source.size() + input.source.excluded.size() + input.destination.excluded.size());
        // Lower-cased keys are made on demand, one after another, so only the paths' own
        // texts can be hashed and placed on two threads.
        if (keys_.caseSensitive() && input.destination.size() >= kChunk && std::thread::hardware_concurrency() > 1) {
            destinations_.emplaceIndices(input.destination.size(),
                                         [](auto first, auto second) { runBeside(first, second); });
            return;
        }
        KeysAhead keys(Side::destination, keys_, destinations_);
        for (std::uint32_t index = 0; index < input.destination.size(); ++index) {
            destinations_.tryEmplace(keys[index], index);
        }
    }

    // Source items go in chunks: each chunk is looked up in the destination's index
    // first (hashing, and most of the pass's waits on memory), then planned in order.
    // Where the keys are the paths' own texts, the next chunk's look-ups can run on a
    // second thread while this one plans, and do while that is the faster way (see
    // TwoThreadTrial); otherwise they follow the planning. The look-ups read only what
    // stays put meanwhile: the destination's index (source keys without a destination
    // item go to an index of their own) and the scanned entries (the destination's path
    // texts are handed over between chunks).
    void planSource(const std::stop_token& stop) {
        const std::size_t count = input_.source.size();
        const std::size_t chunks = (count + kChunk - 1) / kChunk;
        KeysAhead keys(Side::source, keys_, destinations_);
        std::array<std::vector<SourceLookUp>, 2> lookUps;
        const auto lookUp = [&](std::size_t chunk) {
            // Filled as a vector of its own and handed back whole: the two vectors' own
            // words share a cache line, which the planning reads at every item.
            std::vector<SourceLookUp> into = std::move(lookUps[chunk % 2]);
            into.clear();
            for (std::size_t index = chunk * kChunk; index < std::min(count, (chunk + 1) * kChunk); ++index) {
                const ItemIndex::HashedKey& key = keys[index];
                const std::uint32_t* destination = destinations_.find(key);
                if (destination == nullptr) {
                    into.push_back(SourceLookUp{key, kNoItem});
                    continue;
                }
                const RelativePath& path = keys_.entry(Side::source, index).relativePath;
                const RelativePath& twin = keys_.entry(Side::destination, *destination).relativePath;
                into.push_back(SourceLookUp{key, *destination, isSameText(path, twin)});
            }
            lookUps[chunk % 2] = std::move(into);
        };
        // Lower-cased keys are made on demand into a list the planning also reads.
        const bool beside = keys_.caseSensitive() && chunks > 1 && std::thread::hardware_concurrency() > 1;
        if (beside) lookUp(0);
        TwoThreadTrial trial;
        for (std::size_t chunk = 0; chunk < chunks; ++chunk) {
            if (!beside) lookUp(chunk);
            const auto plan = [&] { planChunk(chunk * kChunk, lookUps[chunk % 2], stop); };
            if (beside && chunk + 1 < chunks) {
                // Either way this plans one chunk and looks up the next.
                const auto started = std::chrono::steady_clock::now();
                if (trial.twoThreadsNext()) {
                    runBeside(plan, [&] { lookUp(chunk + 1); });
                } else {
                    plan();
                    lookUp(chunk + 1);
                }
                trial.finished(std::chrono::steady_clock::now() - started);
            } else {
                plan();
            }
            shareDestinationPathTexts();
        }
    }

    void planExcludedAndUnreadable() {
        KeySet listed;
        for (const ScanResult* scan : {&input_.source, &std::as_const(input_.destination)}) {
            for (const auto& item : scan->excluded) {
                const std::string_view key = keys_.of(item.path);
                excludedKeys_.insert(key);
                if (!listed.insert(key).second) continue;  // excluded on both sides: one row
                const Reason reason = item.ruleDescription == tr(kHiddenDescription)
                                          ? Reason(Reason::HiddenFileSkipped{})
                                          : Reason(Reason::MatchedExclusionRule{item.ruleDescription});
                emit(others_, SyncAction{SyncActionType::excludeItem, item.path, reason, std::nullopt, std::nullopt, 0});
            }
        }
        for (const auto& collision : input_.source.caseCollisions) {
            emit(others_, SyncAction{SyncActionType::warning, collision.collided,
                                     Reason::CaseCollision{std::string(collision.kept.value())}, std::nullopt,
                                     std::nullopt, 0});
        }
        for (const auto& failure : input_.source.readFailures) {
            const Reason reason = failure.errnoValue == EACCES ? Reason(Reason::PermissionDenied{failure.detail})
                                                               : Reason(Reason::ScanFailure{failure.detail});
            emit(others_, SyncAction{SyncActionType::error, failure.path, reason, std::nullopt, std::nullopt, 0});
        }
        for (const auto& folder : input_.source.unreadableDirectories) {
            unreadableSourceKeys_.insert(keys_.of(folder));
        }
    }

    void planMirrorDestinationPass() {
        if (input_.mode != SyncMode::mirror) return;
        const auto& destinations = input_.destination.orderedEntries();
        KeysAhead keys(Side::destination, keys_, destinations_);
        for (std::size_t index = 0; index < destinations.size(); ++index) {
            const FileSystemEntry& entry = destinations[index];
            const ItemIndex::HashedKey& hashed = keys[index];
            const std::string_view key = hashed.text;
            // An item whose key an earlier destination item holds goes with that item.
            if (const std::uint32_t* found = destinations_.find(hashed); found && matched_[*found]) continue;
            // An exclusion protects the destination item too.
            if (isAtOrBelow(key, excludedKeys_)) continue;
            // What the source could not list cannot be judged missing.
            if (isAtOrBelow(key, unreadableSourceKeys_)) continue;
            archive(entry, Reason::NotPresentInSource{});
        }
    }

    SyncPlan finish(SyncPlan plan) {
        plan.summary = summary_;
        plan.summary.totalSourceItemsScanned = static_cast<std::int64_t>(input_.source.size());
        plan.summary.totalDestinationItemsScanned = static_cast<std::int64_t>(input_.destination.size());
        for (const auto& entry : input_.destination.orderedEntries()) {
            if (entry.isRegularFile() && entry.isDataless) ++plan.summary.destinationOnlineOnlyFiles;
        }

        auto& warnings = plan.warnings;
        warnings = input_.preflightWarnings;
        warnings.insert(warnings.end(), input_.source.warnings.begin(), input_.source.warnings.end());
        warnings.insert(warnings.end(), input_.destination.warnings.begin(), input_.destination.warnings.end());
        warnings.insert(warnings.end(), warnings_.begin(), warnings_.end());
        addRunWarnings(warnings, plan.summary);
        plan.summary.warningCount = static_cast<std::int64_t>(warnings.size());

        // Their room goes to the sort.
        destinations_.clear();
        sourceOnly_.clear();
        std::vector<std::uint32_t>().swap(firstSources_);
        sortActionsForExecution(creations_, files_, archives_, others_, plan.actions);
        plan.notes = cloudFolderNotes(plan);
        return plan;
    }

private:
    static constexpr std::size_t kChunk = 8192;
    static constexpr std::size_t kSourceOnlyAhead = 16;  // look-ups whose bucket is requested ahead
    static constexpr std::size_t kEntriesAhead = 16;     // items whose entries are requested ahead
    static constexpr std::size_t kTextsAhead = 8;        // items whose path texts are requested ahead

    // Plans the source items from `first` on, one per look-up, in order. Look-ups on the
    // other processor were the last to read the entries and their path texts: they are
    // requested a few items ahead, the entries first and their texts once they are here.
    void planChunk(std::size_t first, const std::vector<SourceLookUp>& lookUps, const std::stop_token& stop) {
        const auto& sources = input_.source.orderedEntries();
        const auto& destinations = input_.destination.orderedEntries();
        for (std::size_t at = 0; at < lookUps.size(); ++at) {
            if (stop.stop_requested()) throw SyncError(SyncError::Cancelled{});
            if (at + kEntriesAhead < lookUps.size()) {
                __builtin_prefetch(&sources[first + at + kEntriesAhead]);
                const std::uint32_t twin = lookUps[at + kEntriesAhead].destination;
                if (twin != kNoItem) __builtin_prefetch(&destinations[twin]);
            }
            if (at + kTextsAhead < lookUps.size()) sources[first + at + kTextsAhead].relativePath.prefetch();
            const auto index = static_cast<std::uint32_t>(first + at);
            const FileSystemEntry& entry = sources[index];
            const SourceLookUp& lookUp = lookUps[at];
            const std::string_view key = lookUp.key.text;
            if (at + kSourceOnlyAhead < lookUps.size() && lookUps[at + kSourceOnlyAhead].destination == kNoItem) {
                sourceOnly_.prefetch(lookUps[at + kSourceOnlyAhead].key);
            }
            if (!unplannedFolders_.empty() && unplannedFolders_.contains(parentKey(key))) {
                if (entry.isDirectory()) unplannedFolders_.insert(key);
                // Never archive what the source still holds.
                if (lookUp.destination != kNoItem) matched_[lookUp.destination] = true;
                continue;
            }
            std::uint32_t earlier = kNoItem;  // the source item first planned under this key
            if (lookUp.destination != kNoItem) {
                earlier = firstSources_[lookUp.destination];
            } else if (auto [stored, inserted] = sourceOnly_.tryEmplace(lookUp.key, index); !inserted) {
                earlier = stored;
            }
            if (earlier != kNoItem) {
                planSourceCollision(entry, sources[earlier].relativePath);
                if (entry.isDirectory()) unplannedFolders_.insert(key);
                continue;
            }
            if (lookUp.destination != kNoItem) {
                firstSources_[lookUp.destination] = index;
                if (lookUp.samePathText) textsToShare_.emplace_back(lookUp.destination, index);
            }
            planSourceEntry(entry, key, lookUp.destination);
        }
    }

    // Whether a source item's path and that of the destination item found under its key
    // are the same text. Asked right after the look-up, while both texts are in this
    // processor's cache: a case-sensitive key is the canonical text, so paths that have no
    // other form (nearly all) are equal once found.
    bool isSameText(const RelativePath& path, const RelativePath& twin) const {
        if (keys_.caseSensitive() && path.valueIsCanonical() && twin.valueIsCanonical()) return true;
        return path.value() == twin.value();
    }

    // A matched destination item nearly always has the source item's very path. It takes
    // the source's text, and the destination scan's copy goes while the plan grows, rather
    // than both being held to the end. The destination's index reads the item's key from
    // it, so it reads the new text from now on: the same bytes.
    void shareDestinationPathTexts() {
        const auto& sources = input_.source.orderedEntries();
        for (const auto& [destination, source] : textsToShare_) {
            input_.destination.sharePathText(destination, sources[source].relativePath);
        }
        textsToShare_.clear();
    }

    void planSourceCollision(const FileSystemEntry& entry, const RelativePath& earlier) {
        emit(others_, SyncAction{SyncActionType::warning, entry.relativePath,
                                 Reason::CaseCollision{std::string(earlier.value())}, shared(entry), std::nullopt, 0});
        warnings_.emplace_back(Category::caseCollision,
                               trFormat("“{}” cannot be distinguished from another source item on the destination "
                                        "volume's naming rules. It was skipped so the two cannot overwrite each other.",
                                        entry.relativePath.description()),
                               entry.relativePath);
    }

    void planSourceEntry(const FileSystemEntry& source, std::string_view key, std::uint32_t twin) {
        const FileSystemEntry* destination = nullptr;
        if (twin != kNoItem) {
            destination = &input_.destination.orderedEntries()[twin];
            matched_[twin] = true;
        }
        if (source.kind == EntryKind::unsupported) {
            emit(others_, SyncAction{SyncActionType::skipUnsupportedItem, source.relativePath,
                                     Reason::UnsupportedFileType{source.unsupportedReason.value_or(
                                         UnsupportedReason::unknownType)},
                                     shared(source), shared(destination), 0});
            return;
        }
        if (!destination) {
            planNewItem(source, Reason::NotPresentInDestination{});
            return;
        }
        const auto verdict = comparator_.compare(source, *destination);
        if (std::holds_alternative<FileComparator::Unchanged>(verdict)) {
            if (source.isDirectory()) return;  // nothing to do for a folder on both sides
            if (source.isRegularFile() && source.isDataless) ++summary_.onlineOnlyFilesUnchanged;
            emit(files_, SyncAction{SyncActionType::preserveUnchangedFile, source.relativePath,
                                    Reason::IdenticalMetadata{}, shared(source), shared(destination), 0});
            return;
        }
        const Reason& reason = std::get<FileComparator::Changed>(verdict).reason;
        if (const auto* typeChange = reason.as<Reason::TypeChanged>()) {
            planTypeChange(source, *destination, *typeChange, key);
            return;
        }
        if (source.isSymbolicLink()) {
            emit(files_, SyncAction{SyncActionType::replaceSymlink, source.relativePath, reason, shared(source),
                                    shared(destination), 0});
            return;
        }
        if (skipsOnlineOnly(source, destination)) return;
        if (reason.is<Reason::TimestampsDifferAmbiguously>()) {
            warnings_.emplace_back(Category::other,
                                   trFormat("The destination copy of “{}” is newer than the source. It will be "
                                            "overwritten because the source is authoritative in a one-way sync.",
                                            source.relativePath.description()),
                                   source.relativePath);
        }
        countDownload(source);
        emit(files_, SyncAction{SyncActionType::replaceChangedFile, source.relativePath, reason, shared(source),
                                shared(destination), source.size});
    }

    void planNewItem(const FileSystemEntry& source, const Reason& reason) {
        switch (source.kind) {
            case EntryKind::directory:
                emit(creations_, SyncAction{SyncActionType::createDirectory, source.relativePath, reason,
                                            shared(source), std::nullopt, 0});
                break;
            case EntryKind::regularFile:
                if (skipsOnlineOnly(source, nullptr)) return;
                countDownload(source);
                emit(files_, SyncAction{SyncActionType::copyNewFile, source.relativePath, reason, shared(source),
                                        std::nullopt, source.size});
                break;
            case EntryKind::symbolicLink:
                emit(files_, SyncAction{SyncActionType::createSymlink, source.relativePath, reason, shared(source),
                                        std::nullopt, 0});
                break;
            case EntryKind::unsupported:
                break;  // handled before
        }
    }

    void planTypeChange(const FileSystemEntry& source, const FileSystemEntry& destination,
                        const Reason::TypeChanged& change, std::string_view key) {
        if (input_.mode == SyncMode::mirror) {
            // Move the old item aside, then create the source's item in its place.
            archive(destination, change);
            planNewItem(source, change);
            return;
        }
        emit(others_, SyncAction{SyncActionType::error, source.relativePath, change, shared(source),
                                 shared(&destination), 0});
        if (source.isDirectory()) {
            unplannedFolders_.insert(key);
            warnings_.emplace_back(Category::other,
                                   trFormat("“{}” is a folder in the source but a {} in the destination. Update mode "
                                            "will not replace it; its contents were not planned.",
                                            source.relativePath.description(), kindWord(destination.kind)),
                                   source.relativePath);
        }
    }

    // Under the skip policy an online-only source file is not read; its destination copy
    // stays as it is.
    bool skipsOnlineOnly(const FileSystemEntry& source, const FileSystemEntry* destination) {
        if (!source.isDataless || input_.onlineOnlyPolicy != OnlineOnlyPolicy::skip) return false;
        emit(files_, SyncAction{SyncActionType::skipOnlineOnlyFile, source.relativePath, Reason::OnlineOnlyInSource{},
                                shared(source), shared(destination), 0});
        return true;
    }

    void countDownload(const FileSystemEntry& source) {
        if (!source.isDataless) return;
        ++summary_.filesToDownload;
        summary_.bytesToDownload = checkedAdd(summary_.bytesToDownload, source.size, "bytes to download");
    }

    void archive(const FileSystemEntry& destination, const Reason& reason) {
        emit(archives_, SyncAction{SyncActionType::archiveDestinationItem, destination.relativePath, reason,
                                   std::nullopt, shared(&destination), 0});
    }

    // Actions point into the scans instead of copying their entries.
    SharedEntry shared(const FileSystemEntry& source) const { return input_.source.share(source); }
    SharedEntry shared(const FileSystemEntry* destination) const {
        return destination ? input_.destination.share(*destination) : SharedEntry();
    }

    // Adds the action to its list and counts it.
    void emit(std::vector<SyncAction>& list, SyncAction action) {
        auto& s = summary_;
        const std::int64_t destinationSize = action.destinationEntry ? action.destinationEntry->size : 0;
        switch (action.type) {
            case SyncActionType::createDirectory: ++s.directoriesToCreate; break;
            case SyncActionType::copyNewFile: ++s.filesToCopy; break;
            case SyncActionType::replaceChangedFile:
                ++s.filesToUpdate;
                s.bytesBeingReplaced = checkedAdd(s.bytesBeingReplaced, destinationSize, "bytes being replaced");
                break;
            case SyncActionType::preserveUnchangedFile: ++s.filesUnchanged; break;
            case SyncActionType::createSymlink: ++s.symlinksToCreate; break;
            case SyncActionType::replaceSymlink: ++s.symlinksToUpdate; break;
            case SyncActionType::archiveDestinationItem:
                ++s.itemsToArchive;
                s.bytesToArchive = checkedAdd(s.bytesToArchive, destinationSize, "bytes to archive");
                break;
            case SyncActionType::excludeItem: ++s.itemsExcluded; break;
            case SyncActionType::skipUnsupportedItem: ++s.itemsUnsupported; break;
            case SyncActionType::skipOnlineOnlyFile:
                ++s.filesSkippedOnlineOnly;
                s.bytesSkippedOnlineOnly = checkedAdd(s.bytesSkippedOnlineOnly, action.sourceEntry->size,
                                                      "bytes skipped online-only");
                break;
            case SyncActionType::error: ++s.errorCount; break;
            case SyncActionType::warning: break;
        }
        if (action.type == SyncActionType::copyNewFile || action.type == SyncActionType::replaceChangedFile) {
            s.bytesToTransfer = checkedAdd(s.bytesToTransfer, action.expectedBytes, "bytes to transfer");
            s.largestFileBytes = std::max(s.largestFileBytes, action.expectedBytes);
        }
        list.push_back(std::move(action));
    }

    void addRunWarnings(std::vector<SyncWarning>& warnings, const SyncPlanSummary& summary) const {
        if (input_.mode == SyncMode::mirror && !input_.source.unreadableDirectories.empty()) {
            warnings.emplace_back(
                Category::scanError,
                trFormat("{} source folder(s) could not be read. Nothing inside the matching destination folders will "
                         "be removed, because Varnel Sync cannot tell what is genuinely missing. Resolve the errors "
                         "and analyze again for a complete mirror.",
                         input_.source.unreadableDirectories.size()));
        }
        if (input_.mode == SyncMode::mirror && summary.itemsToArchive > 0 && !input_.archiveIsOnDestinationVolume) {
            warnings.emplace_back(Category::archiveOnDifferentVolume,
                                  trFormat("The archive folder is not on the destination volume, so archived items "
                                           "must be copied rather than moved. This is slower and needs {} of extra "
                                           "space.",
                                           formatByteCount(summary.bytesToArchive)));
        }
        if (summary.filesSkippedOnlineOnly > 0) {
            warnings.emplace_back(Category::onlineOnlyFile,
                                  trFormat("{} online-only source files ({}) were not downloaded, because this profile "
                                           "skips them. Their copies in the destination were left as they are.",
                                           summary.filesSkippedOnlineOnly,
                                           formatByteCount(summary.bytesSkippedOnlineOnly)));
        }
    }

    const SyncPlanner::Input& input_;
    const FileComparator& comparator_;
    MatchKeys keys_;

    // The destination's keys, each under its first item; read-only while the source pass
    // runs, so its look-ups can run on another thread. Both indices start a cache line,
    // so that the planning's writes to the second never move the first's line away from
    // the look-up thread.
    alignas(kCacheLineBytes) ItemIndex destinations_;
    // The keys of source items with no destination item, each under its first source item.
    alignas(kCacheLineBytes) ItemIndex sourceOnly_;
    // By destination index: the first source item planned under its key.
    std::vector<std::uint32_t> firstSources_;
    // Destination items matched in the chunk being planned, and their source twins.
    std::vector<std::pair<std::uint32_t, std::uint32_t>> textsToShare_;
    // By destination index: whether the source still holds that key's destination item.
    std::vector<bool> matched_;
    KeySet unplannedFolders_;
    KeySet excludedKeys_;
    KeySet unreadableSourceKeys_;

    std::vector<SyncAction> creations_, files_, archives_, others_;
    std::vector<SyncWarning> warnings_;
    SyncPlanSummary summary_;
};

// A name's first 16 bytes as two big-endian words, zero-padded: comparing the words
// compares those bytes as text does (a name holds no zero byte), so most comparisons
// within a folder stay in the folder's own small array instead of reading two path texts.
struct NamePrefix {
    std::array<std::uint64_t, 2> words{};
    std::uint32_t index = 0;  // of the action, as it stands before the sort

    static NamePrefix of(std::string_view name, std::uint32_t index) {
        std::array<unsigned char, 16> bytes{};
        std::copy_n(name.begin(), std::min(name.size(), bytes.size()), bytes.begin());
        NamePrefix prefix;
        prefix.index = index;
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            prefix.words[i / 8] = (prefix.words[i / 8] << 8) | bytes[i];
        }
        return prefix;
    }
};

// The execution order of one list, worked out without moving an action. The sort runs
// at the end of planning, with the scans' processors free: from kSplitAt actions on, two
// threads each take half of the list and then half of its folders.
class ExecutionOrder {
public:
    explicit ExecutionOrder(const std::vector<SyncAction>& actions) : actions_(actions), nameStarts_(actions.size()) {}

    // order[i]: the index of the action that goes to position i, shallow-first.
    std::vector<std::uint32_t> shallowFirst() && {
        const std::size_t count = actions_.size();
        const bool split = count >= kSplitAt && std::thread::hardware_concurrency() > 1;
        if (split) {
            std::vector<Run> secondRuns;
            runBeside([&] { runs_ = collectRuns(0, count / 2); },
                      [&] { secondRuns = collectRuns(count / 2, count); });
            runs_.insert(runs_.end(), secondRuns.begin(), secondRuns.end());
        } else {
            runs_ = collectRuns(0, count);
        }
        std::stable_sort(runs_.begin(), runs_.end(), [&](const Run& a, const Run& b) {
            return a.depth != b.depth ? a.depth < b.depth : runFolder(a) < runFolder(b);
        });

        // The runs of one folder (several when a folder's items came apart) are now
        // neighbours and sorted together; folders[f] is the first run of folder f.
        std::vector<std::size_t> folders;
        for (std::size_t r = 0; r < runs_.size(); ++r) {
            if (r == 0 || !sameFolder(runs_[r], runs_[r - 1])) folders.push_back(r);
        }
        folders.push_back(runs_.size());
        std::vector<std::uint32_t> order(count);
        if (split) {
            std::size_t middle = 0;  // the first folder of the second half
            std::size_t before = 0;  // the items of the folders before it
            for (; middle + 1 < folders.size() && before < count / 2; ++middle) {
                for (std::size_t r = folders[middle]; r < folders[middle + 1]; ++r) before += runs_[r].end - runs_[r].begin;
            }
            runBeside([&] { orderFolders(folders, 0, middle, 0, order); },
                      [&] { orderFolders(folders, middle, folders.size() - 1, before, order); });
        } else {
            orderFolders(folders, 0, folders.size() - 1, 0, order);
        }
        return order;
    }

private:
    static constexpr std::size_t kSplitAt = 65536;

    struct Run {
        std::size_t depth = 0;
        std::size_t begin = 0;
        std::size_t end = 0;
    };

    std::string_view pathOf(std::size_t index) const { return actions_[index].relativePath.value(); }
    std::string_view folderOf(std::size_t index) const { return pathOf(index).substr(0, nameStarts_[index]); }
    std::string_view nameOf(std::size_t index) const { return pathOf(index).substr(nameStarts_[index]); }
    std::string_view runFolder(const Run& run) const { return folderOf(run.begin); }
    bool sameFolder(const Run& a, const Run& b) const { return a.depth == b.depth && runFolder(a) == runFolder(b); }

    // Finds where the names of actions [begin, end) start and returns their runs of one
    // folder each.
    std::vector<Run> collectRuns(std::size_t begin, std::size_t end) {
        std::vector<Run> runs;
        constexpr std::size_t kAhead = 8;  // items whose memory is requested before they are read
        for (std::size_t i = begin; i < end; ++i) {
            if (i + kAhead < end) actions_[i + kAhead].relativePath.prefetch();
            const std::string_view path = pathOf(i);
            const std::size_t slash = lastIndexOf(path, '/');
            nameStarts_[i] = static_cast<std::uint32_t>(slash == std::string_view::npos ? 0 : slash + 1);
            // The root (depth 0) shares the empty folder part with the top level: never one run.
            if (runs.empty() || folderOf(i - 1) != folderOf(i) || path.empty() || pathOf(i - 1).empty()) {
                const auto depth =
                    path.empty() ? 0 : static_cast<std::size_t>(std::count(path.begin(), path.end(), '/')) + 1;
                runs.push_back(Run{depth, i, i});
            }
            runs.back().end = i + 1;
        }
        return runs;
    }

    // Writes the order of folders [first, last) into `order` from position `at` on.
    void orderFolders(const std::vector<std::size_t>& folders, std::size_t first, std::size_t last, std::size_t at,
                      std::vector<std::uint32_t>& order) const {
        std::vector<NamePrefix> names;
        for (std::size_t f = first; f < last; ++f) {
            names.clear();
            for (std::size_t r = folders[f]; r < folders[f + 1]; ++r) {
                for (std::size_t i = runs_[r].begin; i < runs_[r].end; ++i) {
                    names.push_back(NamePrefix::of(nameOf(i), static_cast<std::uint32_t>(i)));
                }
            }
            std::sort(names.begin(), names.end(), [&](const NamePrefix& a, const NamePrefix& b) {
                if (a.words != b.words) return a.words < b.words;
                return nameOf(a.index) < nameOf(b.index);
            });
            for (const NamePrefix& name : names) order[at++] = name.index;
        }
    }

    const std::vector<SyncAction>& actions_;
    // Small, since the sort runs when the plan is at its largest: the path is read from
    // the action, which sits among its folder's neighbours. The folder part of path i is
    // path[0, nameStarts_[i]).
    std::vector<std::uint32_t> nameStarts_;
    std::vector<Run> runs_;
};

// Sorts the list in place by (depth, path text), or for deepest-first by the exact
// reverse of that, and moves each action once, along the cycles of the permutation.
//
// Among paths of one depth, the order of the whole text is the order of the folder part
// ("a/b/", with its final "/") and then of the name: two folder parts of one depth differ
// before either ends. So the runs of siblings that a scan delivers together are ordered
// by folder (far fewer comparisons), and names are sorted only within one folder;
// comparing whole paths that share long folder prefixes was most of planning's time.
void sortInPlace(std::vector<SyncAction>& actions, bool deepestFirst) {
    if (actions.size() >= std::numeric_limits<std::uint32_t>::max()) {
        throw std::length_error("More items than one plan can hold.");
    }
    std::vector<std::uint32_t> order = ExecutionOrder(actions).shallowFirst();
    if (deepestFirst) std::reverse(order.begin(), order.end());

    // Following a cycle reads actions in scattered places; each step requests the one
    // kMovesAhead steps on, so that the waits for memory overlap one another and the
    // moves. A placed action's entry in `order` becomes its own position.
    constexpr std::size_t kMovesAhead = 16;
    const auto request = [&](std::size_t index) {
        const auto* bytes = reinterpret_cast<const char*>(&actions[index]);
        __builtin_prefetch(bytes);
        __builtin_prefetch(bytes + sizeof(SyncAction) - 1);  // an action may straddle two cache lines
    };
    for (std::size_t start = 0; start < actions.size(); ++start) {
        if (order[start] == start) continue;  // in place, or placed
        std::size_t ahead = start;  // the last position requested
        const auto requestNext = [&] {
            if (order[ahead] != start) request(ahead = order[ahead]);
        };
        for (std::size_t step = 0; step < kMovesAhead; ++step) requestNext();
        SyncAction held = std::move(actions[start]);
        std::size_t at = start;
        while (order[at] != start) {
            requestNext();
            const std::size_t from = order[at];
            actions[at] = std::move(actions[from]);
            order[at] = static_cast<std::uint32_t>(at);
            at = from;
        }
        actions[at] = std::move(held);
        order[at] = static_cast<std::uint32_t>(at);
    }
}

// Moves every action of `list` into `into` before `at`, and empties the list.
void moveInto(std::vector<SyncAction>& into, std::vector<SyncAction>::iterator at, std::vector<SyncAction>& list) {
    into.insert(at, std::make_move_iterator(list.begin()), std::make_move_iterator(list.end()));
    list.clear();
}

}  // namespace

void sortActionsForExecution(std::vector<SyncAction>& creations, std::vector<SyncAction>& files,
                             std::vector<SyncAction>& archives, std::vector<SyncAction>& others,
                             std::vector<SyncAction>& into) {
    sortInPlace(creations, false);
    sortInPlace(files, false);
    sortInPlace(archives, true);
    sortInPlace(others, false);
    // The file and link list is usually by far the longest: it becomes the result where
    // it lies, and the others move around it, so no second copy of it is ever made.
    into = std::move(files);
    files.clear();
    moveInto(into, into.begin(), creations);
    moveInto(into, into.end(), archives);
    moveInto(into, into.end(), others);
}

SyncPlan SyncPlanner::plan(const Input& input, std::stop_token stop) const {
    PlanBuilder builder(input, comparator_);
    builder.planExcludedAndUnreadable();
    builder.planSource(stop);
    builder.planMirrorDestinationPass();

    SyncPlan plan;
    plan.id = Uuid::random();
    plan.profileID = input.profileID;
    plan.mode = input.mode;
    plan.createdAt = clock_.now();
    plan.sourceRoot = input.sourceRoot;
    plan.destinationRoot = input.destinationRoot;
    plan.sourceVolume = input.sourceVolume;
    plan.destinationVolume = input.destinationVolume;
    plan.isSameVolume = input.isSameVolume;
    plan.destinationFreeBytes = input.destinationFreeBytes;
    plan.archiveRoot = input.archiveRoot;
    plan.archiveIsOnDestinationVolume = input.archiveIsOnDestinationVolume;
    plan.sourceCloud = input.sourceCloud;
    plan.destinationCloud = input.destinationCloud;
    plan.stagingDirectory = input.stagingDirectory;
    plan.sourceFreeBytes = input.sourceFreeBytes;
    return builder.finish(std::move(plan));
}

}  // namespace varnel
