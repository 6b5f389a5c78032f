#include "archive/ArchiveMover.hpp"

#include "archive/ArchiveLayout.hpp"
#include "common/Localization.hpp"
#include "scan/OperationCancelled.hpp"
#include "scan/POSIXFileError.hpp"
#include "transfer/SyncError.hpp"

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>
#include <vector>

namespace varnel {

namespace {

using RenameMode = FileSystemProviding::RenameMode;

void checkCancellation(const std::stop_token& stop) {
    if (stop.stop_requested()) throw SyncError(SyncError::Cancelled{});
}

[[noreturn]] void fail(const RelativePath& item, std::string detail) {
    throw SyncError(SyncError::ArchiveFailed{item, std::move(detail)});
}

[[noreturn]] void failFolder(const RelativePath& item, int errnoValue) {
    fail(item, tr("Could not create the archive folder: ") + systemErrorText(errnoValue));
}

FileSystemEntry entryOrFail(FileSystemProviding& fileSystem, const EndpointRoot& root, const RelativePath& path) {
    try {
        return fileSystem.entry(root, path);
    } catch (const POSIXFileError& error) {
        fail(path, systemErrorText(error.errnoValue()));
    }
}

bool isFolder(FileSystemProviding& fileSystem, const EndpointRoot& root, const RelativePath& path) {
    try {
        return fileSystem.entry(root, path).isDirectory();
    } catch (const POSIXFileError&) {
        return false;
    }
}

}  // namespace

ArchiveMover::ArchiveMover(FileSystemProviding& fileSystem, std::shared_ptr<CrossDeviceCopying> copier)
    : fileSystem_(fileSystem), copier_(std::move(copier)) {}

ArchiveMover::Result ArchiveMover::move(const EndpointRoot& destination, const RelativePath& item,
                                        const RelativePath& runFolder, std::stop_token stop) const {
    checkCancellation(stop);
    if (item.isRoot() || ArchiveLayout::isInsideArchive(item)) {
        fail(item, tr("The destination folder itself and the archive folder are never archived."));
    }
    const FileSystemEntry entry = entryOrFail(fileSystem_, destination, item);
    const RelativePath target = ArchiveLayout::archivedPath(runFolder, item);
    ensureFolder(destination, target.parent(), item);

    bool copiedAcrossDevices = false;
    moveItem(destination, entry, runFolder, copiedAcrossDevices, stop);
    const std::uint64_t bytes = entry.isRegularFile() ? static_cast<std::uint64_t>(std::max<std::int64_t>(0, entry.size))
                                                      : 0;
    return Result{target, bytes, copiedAcrossDevices};
}

void ArchiveMover::ensureFolder(const EndpointRoot& destination, const RelativePath& folder,
                                const RelativePath& item) const {
    // Usually the folder is there already (an earlier item created it): one stat.
    if (isFolder(fileSystem_, destination, folder)) return;
    RelativePath path;
    for (const auto component : folder.components()) {
        path = *path.appending(component);
        try {
            fileSystem_.makeDirectory(destination, path);
        } catch (const POSIXFileError& error) {
            if (error.errnoValue() != EEXIST) failFolder(item, error.errnoValue());
            // Something is there: only a real folder will do (never a link to elsewhere).
            if (!isFolder(fileSystem_, destination, path)) failFolder(item, ENOTDIR);
        }
    }
}

void ArchiveMover::moveItem(const EndpointRoot& destination, const FileSystemEntry& entry,
                            const RelativePath& runFolder, bool& copiedAcrossDevices,
                            const std::stop_token& stop) const {
    checkCancellation(stop);
    const RelativePath target = ArchiveLayout::archivedPath(runFolder, entry.relativePath);
    int errnoValue = 0;
    try {
        fileSystem_.rename(destination, entry.relativePath, destination, target, RenameMode::noReplace);
        return;
    } catch (const POSIXFileError& error) {
        errnoValue = error.errnoValue();
    }

    if (errnoValue == EXDEV) {
        if (entry.isDirectory()) {
            mergeFolder(destination, entry, runFolder, copiedAcrossDevices, stop);
        } else {
            copyAcrossDevices(destination, entry, runFolder, stop);
            copiedAcrossDevices = true;
        }
        return;
    }
    const bool placeTaken = errnoValue == EEXIST || errnoValue == ENOTEMPTY;
    if (placeTaken && entry.isDirectory() && isFolder(fileSystem_, destination, target)) {
        mergeFolder(destination, entry, runFolder, copiedAcrossDevices, stop);
        return;
    }
    fail(entry.relativePath, systemErrorText(errnoValue));
}

void ArchiveMover::mergeFolder(const EndpointRoot& destination, const FileSystemEntry& folder,
                               const RelativePath& runFolder, bool& copiedAcrossDevices,
                               const std::stop_token& stop) const {
    ensureFolder(destination, ArchiveLayout::archivedPath(runFolder, folder.relativePath), folder.relativePath);
    std::vector<std::string> names;
    try {
        names = fileSystem_.listDirectory(destination, folder.relativePath);
    } catch (const POSIXFileError& error) {
        fail(folder.relativePath, systemErrorText(error.errnoValue()));
    }
    std::sort(names.begin(), names.end());
    for (const auto& name : names) {
        const auto child = folder.relativePath.appending(name);
        if (!child) continue;  // readdir never returns such names
        moveItem(destination, entryOrFail(fileSystem_, destination, *child), runFolder, copiedAcrossDevices, stop);
    }
    try {
        fileSystem_.removeDirectory(destination, folder.relativePath);
    } catch (const POSIXFileError& error) {
        fail(folder.relativePath, systemErrorText(error.errnoValue()));
    }
}

void ArchiveMover::copyAcrossDevices(const EndpointRoot& destination, const FileSystemEntry& entry,
                                     const RelativePath& runFolder, const std::stop_token& stop) const {
    const bool copyable = entry.isRegularFile() || entry.isSymbolicLink();
    if (!copier_ || !copyable) fail(entry.relativePath, systemErrorText(EXDEV));
    try {
        copier_->copy(destination, entry, runFolder, stop);
    } catch (const SyncError& error) {
        if (error.is<SyncError::Cancelled>()) throw;
        fail(entry.relativePath, error.message());
    } catch (const POSIXFileError& error) {
        fail(entry.relativePath, systemErrorText(error.errnoValue()));
    } catch (const OperationCancelled&) {
        throw SyncError(SyncError::Cancelled{});
    }
    // The copy is complete in the archive: only now may the original go.
    try {
        fileSystem_.removeFile(destination, entry.relativePath);
    } catch (const POSIXFileError& error) {
        fail(entry.relativePath, trFormat("It was copied to the archive folder, but the original could not be "
                                          "removed: {}",
                                          systemErrorText(error.errnoValue())));
    }
}

}  // namespace varnel
