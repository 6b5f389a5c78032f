#pragma once

#include "archive/ArchiveMover.hpp"
#include "transfer/FileCopyEngine.hpp"

namespace varnel {

// Archives an item that lies on another device than the archive by copying it with the
// run's copy engine, so the archived copy is staged, verified and flushed as the run's
// settings ask before ArchiveMover removes the original. The run folder is opened as
// the engine's destination root; the item keeps its relative path below it.
class CopyEngineArchiveCopier final : public CrossDeviceCopying {
public:
    // The run's engine; its source and destination roots and staging folder are
    // replaced for each copy.
    explicit CopyEngineArchiveCopier(FileCopyEngine engine);

    // Regular files and symbolic links. Throws SyncError (copyFailed,
    // verificationFailed, durabilityFailed, cancelled, ...) or POSIXFileError "open"
    // when the run folder cannot be opened, or ELOOP when what was opened is not the
    // folder found beneath the destination (a link planted meanwhile).
    std::uint64_t copy(const EndpointRoot& destination, const FileSystemEntry& item, const RelativePath& runFolder,
                       std::stop_token stop) override;

private:
    FileCopyEngine engine_;
};

}  // namespace varnel
