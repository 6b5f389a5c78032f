#pragma once

#include "archive/ArchiveItem.hpp"
#include "archive/ArchiveOverview.hpp"
#include "archive/ArchiveRun.hpp"
#include "scan/EndpointRoot.hpp"
#include "scan/FileSystemProviding.hpp"

#include <stop_token>
#include <vector>

namespace varnel {

// Lists what the Mirror archive of a destination holds, for the Tools window. It only
// reads, through the file-system seam beneath the destination's open root, and never
// follows a symbolic link. A folder or item that cannot be read is counted and flagged,
// never thrown: one unreadable corner must not hide the rest of the archive.
// Cancellation is checked between items and throws SyncError::Cancelled.
class ArchiveManager {
public:
    explicit ArchiveManager(FileSystemProviding& fileSystem);

    // Every run folder below every profile folder, in ascending path order, each
    // measured (items, bytes of files, unreadable items), with the destination
    // volume's free and total space. No archive root: no runs.
    ArchiveOverview overview(const EndpointRoot& destination, std::stop_token stop = {}) const;

    // Everything below one run folder, depth first in ascending name order; paths are
    // relative to the run folder. A run folder that cannot be listed gives no items.
    std::vector<ArchiveItem> items(const EndpointRoot& destination, const ArchiveRun& run,
                                   std::stop_token stop = {}) const;

private:
    struct Walk;

    // Names in the folder in ascending RelativePath order, or none when it cannot be listed.
    std::optional<std::vector<RelativePath>> sortedChildren(const EndpointRoot& root, const RelativePath& folder,
                                                            bool& hadReadErrors) const;
    void walk(const EndpointRoot& destination, const RelativePath& runFolder, Walk& walk,
              const std::stop_token& stop) const;

    FileSystemProviding& fileSystem_;
};

}  // namespace varnel
