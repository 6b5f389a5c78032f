#include "archive/CopyEngineArchiveCopier.hpp"

#include "scan/POSIXFileError.hpp"

#include <cerrno>
#include <utility>

namespace varnel {

CopyEngineArchiveCopier::CopyEngineArchiveCopier(FileCopyEngine engine) : engine_(std::move(engine)) {}

std::uint64_t CopyEngineArchiveCopier::copy(const EndpointRoot& destination, const FileSystemEntry& item,
                                            const RelativePath& runFolder, std::stop_token stop) {
    FileCopyEngine engine = engine_;
    FileSystemProviding& fileSystem = *engine.fileSystem;

    // Opening by absolute path follows links, so make sure the folder opened is the one
    // found beneath the destination without following any.
    const std::string runFolderPath = displayPath(destination, runFolder);
    EndpointRoot runRoot = fileSystem.openRoot(runFolderPath);
    const FileSystemEntry expected = fileSystem.entry(destination, runFolder);
    const FileSystemEntry opened = fileSystem.entry(runRoot, RelativePath());
    if (!expected.isDirectory() || expected.deviceID != opened.deviceID || expected.inode != opened.inode) {
        throw POSIXFileError(ELOOP, "open", runFolderPath);
    }

    engine.sourceRoot = destination;
    engine.destinationRoot = std::move(runRoot);
    engine.stagingDirectory.reset();  // stage beside the archived copy, on the archive's file system

    SyncAction action;
    action.type = item.isSymbolicLink() ? SyncActionType::createSymlink : SyncActionType::copyNewFile;
    action.relativePath = item.relativePath;
    action.sourceEntry = SharedEntry(item);
    action.expectedBytes = SyncAction::heldBytes(item.size);
    const auto isCancelled = [&stop] { return stop.stop_requested(); };
    if (item.isSymbolicLink()) {
        engine.writeSymbolicLink(action, isCancelled);
        return 0;
    }
    return engine.copyFile(action, {}, isCancelled).bytesWritten;
}

}  // namespace varnel
