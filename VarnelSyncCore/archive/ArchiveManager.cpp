#include "archive/ArchiveManager.hpp"

#include "archive/ArchiveLayout.hpp"
#include "common/CheckedArithmetic.hpp"
#include "scan/POSIXFileError.hpp"
#include "transfer/SyncError.hpp"

#include <algorithm>
#include <functional>
#include <utility>

namespace varnel {

namespace {

void checkCancellation(const std::stop_token& stop) {
    if (stop.stop_requested()) throw SyncError(SyncError::Cancelled{});
}

std::optional<FileSystemEntry> readEntry(FileSystemProviding& fileSystem, const EndpointRoot& root,
                                         const RelativePath& path) {
    try {
        return fileSystem.entry(root, path);
    } catch (const POSIXFileError&) {
        return std::nullopt;
    }
}

}  // namespace

struct ArchiveManager::Walk {
    std::function<void(ArchiveItem&&)> onItem;
    bool hadReadErrors = false;
    bool runFolderListed = false;
};

ArchiveManager::ArchiveManager(FileSystemProviding& fileSystem) : fileSystem_(fileSystem) {}

std::optional<std::vector<RelativePath>> ArchiveManager::sortedChildren(const EndpointRoot& root,
                                                                        const RelativePath& folder,
                                                                        bool& hadReadErrors) const {
    std::vector<std::string> names;
    try {
        names = fileSystem_.listDirectory(root, folder);
    } catch (const POSIXFileError&) {
        hadReadErrors = true;
        return std::nullopt;
    }
    std::vector<RelativePath> children;
    children.reserve(names.size());
    for (const auto& name : names) {
        if (auto child = folder.appending(name)) children.push_back(std::move(*child));
    }
    std::sort(children.begin(), children.end());
    return children;
}

void ArchiveManager::walk(const EndpointRoot& destination, const RelativePath& runFolder, Walk& walk,
                          const std::stop_token& stop) const {
    // Depth first with an explicit stack, so a deep archive cannot exhaust the thread's stack.
    struct Frame {
        std::vector<RelativePath> children;  // full paths below the destination root
        std::size_t next = 0;
    };
    auto top = sortedChildren(destination, runFolder, walk.hadReadErrors);
    walk.runFolderListed = top.has_value();
    if (!top) return;
    const std::size_t prefixLength = runFolder.value().size() + 1;

    std::vector<Frame> stack;
    stack.push_back(Frame{std::move(*top)});
    while (!stack.empty()) {
        Frame& frame = stack.back();
        if (frame.next == frame.children.size()) {
            stack.pop_back();
            continue;
        }
        const RelativePath path = frame.children[frame.next++];
        checkCancellation(stop);

        ArchiveItem item;
        item.relativePath = *RelativePath::fromString(std::string_view(path.value()).substr(prefixLength));
        std::optional<std::vector<RelativePath>> children;
        if (const auto entry = readEntry(fileSystem_, destination, path)) {
            item.kind = entry->kind;
            item.sizeBytes = entry->isRegularFile() ? static_cast<std::uint64_t>(std::max<std::int64_t>(0, entry->size))
                                                    : 0;
            if (entry->isDirectory()) {
                children = sortedChildren(destination, path, walk.hadReadErrors);
                item.isAccessible = children.has_value();
            }
        } else {
            item.kind = EntryKind::unsupported;
            item.isAccessible = false;
            walk.hadReadErrors = true;
        }
        walk.onItem(std::move(item));
        if (children && !children->empty()) stack.push_back(Frame{std::move(*children)});
    }
}

ArchiveOverview ArchiveManager::overview(const EndpointRoot& destination, std::stop_token stop) const {
    ArchiveOverview overview;
    try {
        const VolumeInfo volume = fileSystem_.volumeInfo(destination.path());
        overview.destinationFreeBytes = static_cast<std::uint64_t>(std::max<std::int64_t>(0, volume.availableBytes));
        overview.destinationTotalBytes =
            static_cast<std::uint64_t>(std::max<std::int64_t>(0, volume.identity.totalCapacity.value_or(0)));
    } catch (const POSIXFileError&) {
        // Unknown space leaves the share out of the summary; the listing still works.
    }

    const RelativePath archiveRoot = ArchiveLayout::archiveRoot();
    if (!fileSystem_.exists(destination, archiveRoot)) return overview;
    const auto rootEntry = readEntry(fileSystem_, destination, archiveRoot);
    if (!rootEntry) {
        overview.hadReadErrors = true;
        return overview;
    }
    if (!rootEntry->isDirectory()) return overview;

    const auto profiles = sortedChildren(destination, archiveRoot, overview.hadReadErrors);
    if (!profiles) return overview;
    for (const auto& profileFolder : *profiles) {
        checkCancellation(stop);
        const auto profileEntry = readEntry(fileSystem_, destination, profileFolder);
        if (!profileEntry) {
            overview.hadReadErrors = true;
            continue;
        }
        if (!profileEntry->isDirectory()) continue;
        const auto runFolders = sortedChildren(destination, profileFolder, overview.hadReadErrors);
        if (!runFolders) continue;
        const std::optional<Uuid> profileID = Uuid::parse(profileFolder.lastComponent());

        for (const auto& runFolder : *runFolders) {
            checkCancellation(stop);
            const auto runEntry = readEntry(fileSystem_, destination, runFolder);
            if (!runEntry) {
                overview.hadReadErrors = true;
                continue;
            }
            if (!runEntry->isDirectory()) continue;

            ArchiveRun run;
            run.relativePath = runFolder;
            run.profileID = profileID;
            run.timestamp = ArchiveLayout::parseRunFolderName(runFolder.lastComponent());
            Walk measure;
            measure.onItem = [&run](ArchiveItem&& item) {
                run.itemCount = checkedAdd(run.itemCount, 1, "archive item count");
                if (!item.isAccessible) ++run.inaccessibleItemCount;
                if (__builtin_add_overflow(run.totalBytes, item.sizeBytes, &run.totalBytes)) {
                    fatalOverflow("archive run size");
                }
            };
            walk(destination, runFolder, measure, stop);
            overview.hadReadErrors = overview.hadReadErrors || measure.hadReadErrors;
            if (measure.runFolderListed) overview.runs.push_back(std::move(run));
        }
    }
    return overview;
}

std::vector<ArchiveItem> ArchiveManager::items(const EndpointRoot& destination, const ArchiveRun& run,
                                               std::stop_token stop) const {
    std::vector<ArchiveItem> items;
    Walk collect;
    collect.onItem = [&items](ArchiveItem&& item) { items.push_back(std::move(item)); };
    walk(destination, run.relativePath, collect, stop);
    return items;
}

}  // namespace varnel
