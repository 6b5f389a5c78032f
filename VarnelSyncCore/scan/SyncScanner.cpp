#include "scan/SyncScanner.hpp"

#include "common/ByteCount.hpp"
#include "common/Localization.hpp"
#include "common/Unicode.hpp"
#include "model/PathArena.hpp"
#include "scan/POSIXFileError.hpp"
#include "transfer/PartialFileNaming.hpp"
#include "transfer/SyncError.hpp"

#include <cerrno>
#include <deque>
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
    DirectoryIdentity identity;
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
            const SyncScanner::ProgressHandler& onProgress)
        : fileSystem_(fileSystem),
          exclusions_(exclusions),
          progressInterval_(progressInterval > 0 ? progressInterval : 1),
          root_(root),
          role_(role),
          caseSensitive_(caseSensitive),
          onProgress_(onProgress) {}

    ScanResult run(std::stop_token stop) {
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
            pending_.push_back({RelativePath(), {rootEntry.deviceID, rootEntry.inode}});
        } catch (const POSIXFileError& error) {
            // The root itself cannot be read: report it like any unlistable folder.
            reportUnlistable(RelativePath(), error);
        }
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
        if (!visited_.insert(folder.identity).second) {
            result_.warnings.emplace_back(
                Category::scanError,
                trFormat("Skipped “{}” — it resolves to a folder already visited in this scan (filesystem loop).",
                         folder.path.description()),
                folder.path);
            return;
        }
        std::unique_ptr<OpenDirectory> directory;
        DirectoryNames names;
        try {
            directory = fileSystem_.openDirectory(root_, folder.path);
            names = directory->names();
        } catch (const POSIXFileError& error) {
            reportUnlistable(folder.path, error);
            return;
        }
        ++result_.directoriesScanned;

        // Lower-cased names seen in this folder, for volumes that cannot tell case apart.
        std::unordered_map<std::string, RelativePath> seenNames;
        for (const std::string_view name : names) {
            scanItem(*directory, folder.path, name, seenNames);
        }
    }

    void scanItem(OpenDirectory& directory, const RelativePath& folder, std::string_view name,
                  std::unordered_map<std::string, RelativePath>& seenNames) {
        // Names that are not UTF-8 cannot be shown, compared or recreated faithfully.
        std::optional<RelativePath> child;
        if (unicode::isValidUTF8(name)) child = folder.appending(name, paths_.get());
        if (!child) {
            result_.warnings.emplace_back(
                Category::scanError,
                trFormat("Skipped an item with an unusable name in “{}”.", folder.description()), folder);
            return;
        }
        const RelativePath& path = *child;
        if (role_ == EndpointRole::destination && folder.isRoot() && name == SyncScanner::kArchiveFolderName) {
            return;  // the archive is the engine's own and never takes part
        }

        FileSystemEntry entry;
        try {
            entry = directory.entry(name, path);
        } catch (const POSIXFileError& error) {
            result_.readFailures.push_back({path, false, error.errnoValue(), error.message()});
            result_.warnings.emplace_back(categoryFor(error.errnoValue()),
                                          trFormat("Could not read “{}”: {}.", path.description(), error.message()),
                                          path);
            return;
        }

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

        record(std::move(entry));
        ++itemsFound_;
        if (itemsFound_ % progressInterval_ == 0 && onProgress_) {
            onProgress_(ScanProgress{role_, itemsFound_, result_.directoriesScanned, path});
        }
    }

    void record(FileSystemEntry entry) {
        const FileSystemEntry& stored = result_.add(std::move(entry));
        const RelativePath& path = stored.relativePath;
        switch (stored.kind) {
            case EntryKind::directory:
                pending_.push_back({path, {stored.deviceID, stored.inode}});
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

    PathArena::Handle paths_;  // every path this scan makes keeps its text here
    ScanResult result_;
    std::deque<PendingFolder> pending_;
    std::unordered_set<DirectoryIdentity, DirectoryIdentityHash> visited_;
    std::int64_t itemsFound_ = 0;
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

SyncScanner::SyncScanner(FileSystemProviding& fileSystem, ExclusionEngine exclusions, std::int64_t progressInterval)
    : fileSystem_(fileSystem), exclusions_(std::move(exclusions)), progressInterval_(progressInterval) {}

ScanResult SyncScanner::scan(const EndpointRoot& root, EndpointRole role, bool volumeIsCaseSensitive,
                             const ProgressHandler& onProgress, std::stop_token stop) const {
    ScanRun run(fileSystem_, exclusions_, progressInterval_, root, role, volumeIsCaseSensitive, onProgress);
    return run.run(std::move(stop));
}

}  // namespace varnel
