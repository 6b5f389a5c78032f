#pragma once

#include "model/RelativePath.hpp"
#include "scan/EndpointRoot.hpp"
#include "scan/FileSystemEntry.hpp"
#include "scan/FileSystemProviding.hpp"

#include <cstdint>
#include <memory>
#include <stop_token>

namespace varnel {

// Copies one regular file or symbolic link of the destination into the archive run
// folder when a rename cannot move it there, because the item lies on another file
// system mounted inside the destination. The executor plugs the copy engine in here,
// so an archived copy is staged, flushed and verified like any other copy.
class CrossDeviceCopying {
public:
    virtual ~CrossDeviceCopying() = default;

    // Writes a new item at runFolder/item.relativePath (below the same destination
    // root), never replacing one; the parent folder exists. Returns the bytes copied.
    // On failure nothing is left at the target and the original is untouched. Throws
    // SyncError (Cancelled when `stop` is requested) or POSIXFileError.
    virtual std::uint64_t copy(const EndpointRoot& destination, const FileSystemEntry& item,
                               const RelativePath& runFolder, std::stop_token stop) = 0;
};

// Moves one destination item into the run's archive folder, keeping its relative path
// below the run folder. Everything goes through the file-system seam beneath the
// destination's open root.
//
// 1. The run folder and the item's parent folders inside it are created as needed.
// 2. One rename that never replaces moves the item, whatever its kind.
// 3. A folder whose place in the archive is already taken by a folder (its contents
//    were archived first, or an earlier run of the same second archived there) is
//    merged: each child is moved in the same way, then the emptied folder is removed.
// 4. When the rename fails with EXDEV (the item is on another device than the
//    archive), a folder is recreated and merged, and a file or link is copied through
//    CrossDeviceCopying; only after the copy succeeded is the original removed. A
//    failing copy leaves the original where it was.
// Failures throw SyncError::ArchiveFailed for the item, with the system's message;
// cancellation (checked before each item) throws SyncError::Cancelled. An item already
// present at its archive place is never replaced: that fails too, and both stay.
class ArchiveMover {
public:
    struct Result {
        RelativePath archivedPath;       // where the item now lies, below the destination root
        std::uint64_t bytesArchived = 0; // size of a regular file; 0 for folders and links
        bool copiedAcrossDevices = false;

        friend bool operator==(const Result&, const Result&) = default;
    };

    // Without a copier, an item on another device fails with the system's EXDEV message.
    explicit ArchiveMover(FileSystemProviding& fileSystem, std::shared_ptr<CrossDeviceCopying> copier = nullptr);

    Result move(const EndpointRoot& destination, const RelativePath& item, const RelativePath& runFolder,
                std::stop_token stop = {}) const;

private:
    // Creates the folder and any missing folder above it; failures name `item`.
    void ensureFolder(const EndpointRoot& destination, const RelativePath& folder, const RelativePath& item) const;
    // Moves one item to its place below the run folder; failures name that item.
    void moveItem(const EndpointRoot& destination, const FileSystemEntry& entry, const RelativePath& runFolder,
                  bool& copiedAcrossDevices, const std::stop_token& stop) const;
    void mergeFolder(const EndpointRoot& destination, const FileSystemEntry& folder, const RelativePath& runFolder,
                     bool& copiedAcrossDevices, const std::stop_token& stop) const;
    void copyAcrossDevices(const EndpointRoot& destination, const FileSystemEntry& entry,
                           const RelativePath& runFolder, const std::stop_token& stop) const;

    FileSystemProviding& fileSystem_;
    std::shared_ptr<CrossDeviceCopying> copier_;
};

}  // namespace varnel
