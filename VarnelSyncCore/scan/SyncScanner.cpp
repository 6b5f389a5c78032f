#include "scan/SyncScanner.hpp"

#include "common/ByteCount.hpp"
#include "common/Localization.hpp"
#include "common/Unicode.hpp"
#include "model/PathArena.hpp"
#include "scan/FolderReadAhead.hpp"
#include "scan/POSIXFileError.hpp"
#include "transfer/PartialFileNaming.hpp"
#include "transfer/SyncError.hpp"

#include <cerrno>
#include <deque>
#include <stop_token>
#include <unordered_map>
#include <unordered_set>

namespace varnel {

namespace {

using Category = SyncWarning::Category;

struct DirectoryIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    friend bool operator==(const DirectoryIdentity&, const DirectoryIdentity&) = default;
};

struct DirectoryIdentityHash {
    std::size_t operator()(const DirectoryIdentity& identity) const noexcept {
        return std::hash<std::uint64_t>{}(identity.inode * 0x9E3779B97F4A7C15ULL ^ identity.device);
    }
};

struct PendingFolder {
    RelativePath path;
    bool visitedBefore = false;  // reached again through a file system loop
};

Category categoryFor(int errnoValue) {
    return errnoValue == EACCES ? Category::permissionDenied : Category::scanError;
}

std::vector<std::string_view> splitComponents(std::string_view text) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t slash = text.find('/', start);
        const std::size_t end = slash == std::string_view::npos ? text.size() : slash;
        const std::string_view part = text.substr(start, end - start);
        if (part == "..") {
            if (!parts.empty() && parts.back() != "..") {
                parts.pop_back();
            } else {
                parts.push_back(part);
            }
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        if (slash == std::string_view::npos) break;
        start = slash + 1;
    }
    return parts;
}

// Everything the scan of one endpoint keeps while it runs.
class ScanRun {
public:
    ScanRun(FileSystemProviding& fileSystem, const ExclusionEngine& exclusions, std::int64_t progressInterval,
            const EndpointRoot& root, EndpointRole role, bool caseSensitive,
            const SyncScanner::ProgressHandler& onProgress, SyncScanner::ReadAhead readAhead)
        : fileSystem_(fileSystem),
          exclusions_(exclusions),
          progressInterval_(progressInterval > 0 ? progressInterval : 1),
          root_(root),
          role_(role),
          caseSensitive_(caseSensitive),
          onProgress_(onProgress),
          paths_(readAhead.helpers + 1),
          readAhead_([this](const RelativePath& folder, std::size_t reader) { return readFolder(folder, reader); },
                     readAhead.helpers, readAhead.helpers * kFoldersAheadPerHelper, readAhead.diskBlocksBeforeHelping) {}

    ScanResult run(std::stop_token stop, std::stop_token helpersWanted) {
        const std::stop_callback startHelpers(std::move(helpersWanted), [this] { readAhead_.startHelping(); });
        enqueueRoot();
        while (!pending_.empty()) {
            if (stop.stop_requested()) throw SyncError(SyncError::Cancelled{});
            PendingFolder folder = std::move(pending_.front());
            pending_.pop_front();
            scanFolder(folder);
        }
        return std::move(result_);
    }

private:
    void enqueueRoot() {
        try {
            const FileSystemEntry rootEntry = fileSystem_.entry(root_, RelativePath());
            enqueue(RelativePath(), {rootEntry.deviceID, rootEntry.inode});
        } catch (const POSIXFileError& error) {
            // The root itself cannot be read: report it like any unlistable folder.
            reportUnlistable(RelativePath(), error);
        }
    }

    // Folders are judged against the loop guard in the order they are queued, which is
    // the order they are taken, so the first arrival keeps its contents either way; a
    // folder seen before is never read.
    void enqueue(const RelativePath& path, DirectoryIdentity identity) {
        const bool visitedBefore = !visited_.insert(identity).second;
        pending_.push_back({path, visitedBefore});
        if (!visitedBefore) readAhead_.add(path);
    }

    // Lists `folder` and reads each item's entry. Runs on the scan's thread (reader 0) and
    // on read-ahead helpers at once, so it only touches the file system and its own arena.
    FolderListing readFolder(const RelativePath& folder, std::size_t reader) {
        FolderListing listing;
        std::unique_ptr<OpenDirectory> directory;
        try {
            directory = fileSystem_.openDirectory(root_, folder);
            listing.names = directory->names();
        } catch (const POSIXFileError& error) {
            listing.failure = error;
            return listing;
        }
        listing.children.resize(listing.names.size());
        PathArena* const arena = paths_[reader].get();
        for (std::size_t i = 0; i < listing.names.size(); ++i) {
            const std::string_view name = listing.names[i];
            FolderListing::Child& child = listing.children[i];
            // Names that are not UTF-8 cannot be shown, compared or recreated faithfully.
            if (!unicode::isValidUTF8(name)) continue;
            std::optional<RelativePath> path = folder.appending(name, arena);
            if (!path || isArchiveFolder(folder, name)) {
                child.pathWithoutEntry = std::move(path);
                continue;
            }
            try {
                child.entry = directory->entry(name, std::move(*path));
            } catch (const POSIXFileError& error) {
                child.pathWithoutEntry = folder.appending(name, arena);  // the entry took the first
                child.failure = std::make_unique<POSIXFileError>(error);
            }
        }
        return listing;
    }

    bool isArchiveFolder(const RelativePath& folder, std::string_view name) const {
        return role_ == EndpointRole::destination && folder.isRoot() && name == SyncScanner::kArchiveFolderName;
    }

    void reportUnlistable(const RelativePath& path, const POSIXFileError& error) {
        result_.unreadableDirectories.push_back(path);
        result_.readFailures.push_back({path, true, error.errnoValue(), error.message()});
        result_.warnings.emplace_back(
            categoryFor(error.errnoValue()),
            trFormat("Could not list “{}”: {}. Its contents could not be read, so nothing inside it was synchronized "
                     "and nothing inside the matching destination folder will be removed.",
                     path.description(), error.message()),
            path);
    }

    void scanFolder(const PendingFolder& folder) {
        if (folder.visitedBefore) {
            result_.warnings.emplace_back(
                Category::scanError,
                trFormat("Skipped “{}” — it resolves to a folder already visited in this scan (filesystem loop).",
                         folder.path.description()),
                folder.path);
            return;
        }
        FolderListing listing = readAhead_.take();
        if (listing.failure) {
            reportUnlistable(folder.path, *listing.failure);
            return;
        }
        ++result_.directoriesScanned;

        // Lower-cased names seen in this folder, for volumes that cannot tell case apart.
        std::unordered_map<std::string, RelativePath> seenNames;
        for (std::size_t i = 0; i < listing.names.size(); ++i) {
            scanItem(folder.path, listing.names[i], listing.children[i], seenNames);
        }
    }

    void scanItem(const RelativePath& folder, std::string_view name, FolderListing::Child& child,
                  std::unordered_map<std::string, RelativePath>& seenNames) {
        if (!child.path()) {
            result_.warnings.emplace_back(
                Category::scanError,
                trFormat("Skipped an item with an unusable name in “{}”.", folder.description()), folder);
            return;
        }
        const RelativePath& path = *child.path();
        if (isArchiveFolder(folder, name)) return;  // the archive is the engine's own and never takes part

        if (child.failure) {
            const POSIXFileError& error = *child.failure;
            result_.readFailures.push_back({path, false, error.errnoValue(), error.message()});
            result_.warnings.emplace_back(categoryFor(error.errnoValue()),
                                          trFormat("Could not read “{}”: {}.", path.description(), error.message()),
                                          path);
            return;
        }
        FileSystemEntry& entry = *child.entry;

        if (auto match = exclusions_.match(path.value(), entry.isDirectory())) {
            result_.excluded.push_back({path, entry.isDirectory(), std::move(match->ruleDescription)});
            return;
        }

        if (!caseSensitive_) {
            auto [earlier, inserted] = seenNames.try_emplace(unicode::toLower(unicode::toNFC(name)), path);
            if (!inserted) {
                const RelativePath& kept = earlier->second;
                result_.caseCollisions.push_back({kept, path});
                result_.warnings.emplace_back(
                    Category::caseCollision,
                    trFormat("“{}” and “{}” collide on this volume's naming rules. Only “{}” will be synchronized.",
                             path.description(), kept.description(), kept.description()),
                    path);
                return;
            }
        }

        if (PartialFileNaming::isStagingName(name)) {
            if (role_ == EndpointRole::destination) {
                // The engine's own leftovers; analysis summarises them in one warning.
                result_.stagingItems.push_back(std::move(entry));
                return;
            }
            result_.warnings.emplace_back(
                Category::orphanedPartialFile,
                trFormat("“{}” is named like a Varnel Sync staging file, so it was not copied. If this is your own "
                         "file, rename it and analyze again.",
                         path.description()),
                path);
            return;
        }

        const FileSystemEntry& stored = record(std::move(entry));  // `path` went with the entry
        ++itemsFound_;
        if (itemsFound_ % progressInterval_ == 0 && onProgress_) {
            onProgress_(ScanProgress{role_, itemsFound_, result_.directoriesScanned, stored.relativePath});
        }
    }

    const FileSystemEntry& record(FileSystemEntry&& entry) {
        const FileSystemEntry& stored = result_.add(std::move(entry));
        const RelativePath& path = stored.relativePath;
        switch (stored.kind) {
            case EntryKind::directory:
                enqueue(path, {stored.deviceID, stored.inode});
                break;
            case EntryKind::regularFile:
                if (stored.hardLinkCount >= 2) {
                    result_.warnings.emplace_back(
                        Category::hardLink,
                        trFormat("“{}” is hard-linked ({} references). It is copied as an independent file, so the "
                                 "link relationship is not preserved.",
                                 path.description(), stored.hardLinkCount),
                        path);
                }
                if (isSparse(stored)) {
                    result_.warnings.emplace_back(
                        Category::sparseFile,
                        trFormat("“{}” is sparse ({} logical, {} allocated). Varnel Sync preserves holes where the "
                                 "destination filesystem supports it.",
                                 path.description(), formatByteCount(stored.size),
                                 formatByteCount(stored.allocatedBytes())),
                        path);
                }
                break;
            case EntryKind::symbolicLink:
                if (stored.symlinkTarget && symlinkTargetEscapesRoot(path, *stored.symlinkTarget, root_.path())) {
                    result_.warnings.emplace_back(
                        Category::symlinkEscape,
                        trFormat("“{}” points to “{}”, which is outside the {} folder. The link is copied as-is; its "
                                 "contents are not.",
                                 path.description(), *stored.symlinkTarget, roleWord(role_)),
                        path);
                }
                break;
            case EntryKind::unsupported:
                result_.warnings.emplace_back(
                    Category::unsupportedFileType,
                    trFormat("“{}” is a special file and cannot be copied.", path.description()), path);
                break;
        }
        return stored;
    }

    static bool isSparse(const FileSystemEntry& entry) {
        // Online-only files have no blocks at all and are not sparse.
        const std::int64_t allocated = entry.allocatedBytes();
        return allocated >= 1 && static_cast<double>(entry.size) * 0.9 > static_cast<double>(allocated);
    }

    FileSystemProviding& fileSystem_;
    const ExclusionEngine& exclusions_;
    const std::int64_t progressInterval_;
    const EndpointRoot& root_;
    const EndpointRole role_;
    const bool caseSensitive_;
    const SyncScanner::ProgressHandler& onProgress_;

    static constexpr std::size_t kFoldersAheadPerHelper = 16;

    // Every path this scan makes keeps its text here: one arena for each reader.
    std::vector<PathArena::Handle> paths_;
    ScanResult result_;
    std::deque<PendingFolder> pending_;
    std::unordered_set<DirectoryIdentity, DirectoryIdentityHash> visited_;
    std::int64_t itemsFound_ = 0;
    FolderReadAhead readAhead_;  // last: its helpers use everything above until it is gone
};

}  // namespace

bool symlinkTargetEscapesRoot(const RelativePath& linkPath, const std::string& target, const std::string& rootPath) {
    if (!target.empty() && target.front() == '/') {
        const auto rootParts = splitComponents(rootPath);
        const auto targetParts = splitComponents(target);
        if (targetParts.size() < rootParts.size()) return true;
        for (std::size_t i = 0; i < rootParts.size(); ++i) {
            if (rootParts[i] != targetParts[i]) return true;
        }
        return false;
    }
    std::vector<std::string_view> resolved;
    for (const auto part : linkPath.parent().components()) resolved.push_back(part);
    std::string_view rest = target;
    while (true) {
        const std::size_t slash = rest.find('/');
        const std::string_view part = rest.substr(0, slash);
        if (part == "..") {
            if (resolved.empty()) return true;
            resolved.pop_back();
        } else if (!part.empty() && part != ".") {
            resolved.push_back(part);
        }
        if (slash == std::string_view::npos) break;
        rest.remove_prefix(slash + 1);
    }
    return false;
}

SyncScanner::SyncScanner(FileSystemProviding& fileSystem, ExclusionEngine exclusions, std::int64_t progressInterval,
                         ReadAhead readAhead)
    : fileSystem_(fileSystem),
      exclusions_(std::move(exclusions)),
      progressInterval_(progressInterval),
      readAhead_(readAhead) {}

ScanResult SyncScanner::scan(const EndpointRoot& root, EndpointRole role, bool volumeIsCaseSensitive,
                             const ProgressHandler& onProgress, std::stop_token stop,
                             std::stop_token helpersWanted) const {
    ScanRun run(fileSystem_, exclusions_, progressInterval_, root, role, volumeIsCaseSensitive, onProgress,
                readAhead_);
    return run.run(std::move(stop), std::move(helpersWanted));
}

}  // namespace varnel
