#pragma once

#include "common/Uuid.hpp"
#include "model/RelativePath.hpp"
#include "model/SyncOptions.hpp"
#include "plan/SyncAction.hpp"
#include "scan/EndpointRoot.hpp"
#include "scan/FileSystemProviding.hpp"
#include "transfer/FileFlushing.hpp"
#include "transfer/FileResult.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace varnel {

// Writes one planned file or symbolic link into the destination so that the
// destination never holds a half-written one: the new content goes to a staging file,
// is checked, flushed as the durability mode asks, and only then takes the final name
// with one rename. Just before writing it checks again that the source and the
// destination still look as they did when the plan was made.
//
// A file's source folder and destination folder are opened once, never through a link,
// and everything done for the file acts on its name inside them (FileSystemProviding::
// openFolder). The source is checked against the plan on the very file opened for the
// copy, before anything is written; after the copy its path must still lead to that
// file, unchanged.
//
// The order of a file's commit, which is also where faults are injected in tests:
// create the staging file, copy the data, write the final block, copy the metadata,
// verify, flush the file, rename into place, flush the folder. Every failure before
// the rename removes the staging file and leaves the destination as it was; a failure
// of the folder flush after the rename is a warning in the result, never an undo.
// Test builds name these steps for the crash tests (common/TestHooks.hpp).
//
// Failures are thrown as SyncError:
// - sourceChangedSinceAnalysis: the source is gone, changed kind or size, or changed
//   during the copy (its inode, size, modification or change time differ afterwards); the
//   destination's folder is not a real folder; a new file's path was taken meanwhile.
//   Nothing was written; the executor records these as skips with a warning.
// - copyFailed, metadataPreservationFailed (strict policy), verificationFailed,
//   durabilityFailed (the file's own flush), atomicReplaceFailed (the rename),
//   cancelled.
//
// Configured once per run; holds no other state, so several copies may run at once
// (each has its own staging name, descriptors and buffers). The progress callback and
// the cancellation check are called from the copying thread and must be thread-safe.
struct FileCopyEngine {
    // Byte increments as data is copied (skipped holes included).
    using ProgressCallback = std::function<void(std::int64_t increment)>;
    // True once the run has been stopped; asked before each block.
    using CancellationCheck = std::function<bool()>;

    // Where one file is staged: a root and a path below it.
    struct StagingLocation {
        EndpointRoot root;
        RelativePath path;
    };

    std::shared_ptr<FileSystemProviding> fileSystem;
    VerificationMode verificationMode = VerificationMode::none;
    MetadataPolicy metadataPolicy = MetadataPolicy::basic;
    DurabilityMode durabilityMode = DurabilityMode::durable;
    std::shared_ptr<FileFlushing> flusher;
    std::optional<Uuid> runID;  // tags staging names
    EndpointRoot sourceRoot;
    EndpointRoot destinationRoot;
    // The run's staging folder (opened as a root, on the destination's volume) for
    // cloud destinations; absent means each file is staged beside its final name.
    std::optional<EndpointRoot> stagingDirectory;
    // The most bytes copied between two progress reports and cancellation checks.
    std::size_t copyChunkBytes = std::size_t{8} << 20;

    // A fresh staging name for the destination file, made from its last component and
    // the run id, in the staging folder when there is one, else beside the file.
    StagingLocation stagingLocation(const RelativePath& destinationPath) const;
    // The same for a destination file at `destinationPath` below `root` (its folder, say).
    StagingLocation stagingLocation(const EndpointRoot& root, const RelativePath& destinationPath) const;

    // Who flushes the folder that a file was renamed into.
    enum class FolderFlush {
        afterEachFile,  // copyFile itself, so its result is final
        // The caller, once for several files it committed into one folder one after the
        // other: flushFolder after the last rename, then settle for each result. Every
        // file's data is still flushed before its rename, and its folder after it.
        byCaller,
    };

    // What one folder flush after some commits came to.
    struct FolderFlushResult {
        FlushResult flush;
        std::optional<DurabilityError> error;  // the folder could not be opened or flushed
    };

    // Copies the regular file of a copyNewFile or replaceChangedFile action. A new file
    // is committed by a rename that never replaces (an item that appeared at its path
    // meanwhile stays untouched); an update replaces the old file atomically.
    // `sourceAsPlanned`, when given, is asked about the source as opened, before the
    // engine's own check and before anything is written; what it throws passes through.
    FileResult copyFile(const SyncAction& action, const ProgressCallback& progress,
                        const CancellationCheck& isCancelled, const SourceCheck& sourceAsPlanned = {},
                        FolderFlush folderFlush = FolderFlush::afterEachFile) const;

    // Flushes a destination folder as the durability mode asks (nothing in Fast mode).
    FolderFlushResult flushFolder(const RelativePath& folder) const;
    // Completes a result that copyFile returned under FolderFlush::byCaller with the flush
    // of its folder: its outcome, warning and flush time.
    void settle(FileResult& result, const FolderFlushResult& folder) const;

    // Recreates the symbolic link of a createSymlink or replaceSymlink action with the
    // same target text, never following it, through a staging name and a rename that
    // never replaces a folder. The result has no data bytes and is never verified.
    FileResult writeSymbolicLink(const SyncAction& action, const CancellationCheck& isCancelled = {}) const;

    // The lower-case hexadecimal SHA-256 (64 characters) of a regular file.
    // `readFromDevice` flushes it and drops it from the cache first, so a copy just
    // written is read back from the device. Throws POSIXFileError naming "open" or
    // "read" (or "fdatasync"), and SyncError cancelled.
    std::string checksum(const EndpointRoot& root, const RelativePath& path, const CancellationCheck& isCancelled,
                         bool readFromDevice = false) const;
};

}  // namespace varnel
