#include "transfer/FileCopyEngine.hpp"

#include "common/ByteCount.hpp"
#include "common/Localization.hpp"
#include "common/TestHooks.hpp"
#include "scan/OperationCancelled.hpp"
#include "scan/POSIXFileError.hpp"
#include "transfer/PartialFileNaming.hpp"
#include "transfer/SyncError.hpp"

#include <cerrno>

namespace varnel {

namespace {

using RenameMode = FileSystemProviding::RenameMode;

// Removes the staging item when the copy ends in any way other than a commit. A
// removal that fails leaves a file whose name marks it as a leftover for the cleanup.
class StagingGuard {
public:
    StagingGuard(FileSystemProviding& fileSystem, const FileCopyEngine::StagingLocation& location)
        : fileSystem_(fileSystem), location_(location) {}
    ~StagingGuard() {
        if (!armed_) return;
        try {
            fileSystem_.removeFile(location_.root, location_.path);
        } catch (...) {  // NOLINT(bugprone-empty-catch): the original failure is what the user must see
        }
    }
    StagingGuard(const StagingGuard&) = delete;
    StagingGuard& operator=(const StagingGuard&) = delete;

    // The staging item is committed, or was never ours.
    void disarm() { armed_ = false; }

private:
    FileSystemProviding& fileSystem_;
    const FileCopyEngine::StagingLocation& location_;
    bool armed_ = true;
};

[[noreturn]] void throwChanged(const RelativePath& path, std::string detail) {
    throw SyncError(SyncError::SourceChangedSinceAnalysis{path, std::move(detail)});
}

void throwIfCancelled(const FileCopyEngine::CancellationCheck& isCancelled) {
    if (isCancelled && isCancelled()) throw SyncError(SyncError::Cancelled{});
}

// The item is not reachable at its path any more (removed, or a folder on the way was
// replaced by a file or a link, which is never followed).
bool isGone(int error) { return error == ENOENT || error == ENOTDIR || error == ELOOP; }

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const auto& name : names) {
        if (!text.empty()) text += ", ";
        text += name;
    }
    return text;
}

RenameMode renameModeFor(SyncActionType type) {
    // Only an update may replace what is there; anything else never overwrites.
    return type == SyncActionType::replaceChangedFile || type == SyncActionType::replaceSymlink
               ? RenameMode::replace
               : RenameMode::noReplace;
}

}  // namespace

FileCopyEngine::StagingLocation FileCopyEngine::stagingLocation(const RelativePath& destinationPath) const {
    return stagingLocation(destinationRoot, destinationPath);
}

FileCopyEngine::StagingLocation FileCopyEngine::stagingLocation(const EndpointRoot& root,
                                                                const RelativePath& destinationPath) const {
    const std::string name = PartialFileNaming::makeStagingName(destinationPath.lastComponent(), runID);
    if (stagingDirectory) return {*stagingDirectory, *RelativePath().appending(name)};
    return {root, *destinationPath.parent().appending(name)};
}

std::string FileCopyEngine::checksum(const EndpointRoot& root, const RelativePath& path,
                                     const CancellationCheck& isCancelled, bool readFromDevice) const {
    try {
        return toHex(fileSystem->sha256(root, path, HashOptions{readFromDevice}, isCancelled));
    } catch (const OperationCancelled&) {
        throw SyncError(SyncError::Cancelled{});
    }
}

namespace {

// A folder flush after commits; its failure is kept in the result, never thrown.
FileCopyEngine::FolderFlushResult flushFolder(const FileCopyEngine& engine, const EndpointRoot& root,
                                              const RelativePath& folder) {
    FileCopyEngine::FolderFlushResult result;
    try {
        result.flush = engine.flusher->flushDirectory(root, folder, engine.durabilityMode);
    } catch (const DurabilityError& error) {
        result.error = error;
    }
    return result;
}

// An item as a root and a path below it.
struct ItemAt {
    EndpointRoot root;
    RelativePath path;
};

// The engine's steps, each throwing the SyncError that ends the copy. The item is
// addressed through `source_` and `destination_`: the endpoint roots and the item's path
// at first; for a file, the folders holding it, once opened (openFolders), and its name.
class CopyRun {
public:
    CopyRun(const FileCopyEngine& engine, const RelativePath& path)
        : engine_(engine),
          path_(path),
          source_{engine.sourceRoot, path},
          destination_{engine.destinationRoot, path} {}

    const ItemAt& source() const { return source_; }
    const ItemAt& destination() const { return destination_; }

    // Steps 1 and 2 begin here: the folders on both sides are opened once, never through
    // a link, and the file's own operations act on its name inside them. A source folder
    // that is gone means the file is; the destination's must be a real folder.
    void openFolders() {
        const RelativePath parent = path_.parent();
        if (parent.isRoot()) return;
        const RelativePath name = *RelativePath().appending(path_.lastComponent());
        try {
            source_ = {engine_.fileSystem->openFolder(engine_.sourceRoot, parent), name};
        } catch (const POSIXFileError& error) {
            if (isGone(error.errnoValue())) throwChanged(path_, tr("The file no longer exists in the source."));
            throw SyncError(SyncError::CopyFailed{path_, error.errnoValue(), error.message()});
        }
        try {
            destination_ = {engine_.fileSystem->openFolder(engine_.destinationRoot, parent), name};
        } catch (const POSIXFileError& error) {
            if (error.errnoValue() == ELOOP || error.errnoValue() == ENOTDIR) throwNotARealFolder();
            throw SyncError(SyncError::CopyFailed{path_, error.errnoValue(), error.message()});
        }
    }

    // Step 1, on the file the copy opened: it must still be the regular file of the
    // plan's size (the open itself refuses anything else).
    void checkOpenedSource(const FileSystemEntry& opened, const FileSystemEntry& planned) const {
        checkSize(planned, opened);
    }

    // Why the source could not be opened, looked up by its path: gone, or not a file any
    // more. Returns when neither explains it.
    void explainUnopenedSource(const FileSystemEntry& planned) const { (void)recheckSource(planned); }

    // After the copy, before anything is committed: the source's path must still lead to
    // the very file the copy opened, untouched. A write moves the change time even when
    // the size stays and the modification time is set back; a rename over the source or
    // its removal changes the inode or takes the name away. Otherwise the staged bytes may
    // mix two versions, and the old destination file stays.
    void checkSourceUnchangedSince(const FreshEntry& before) const {
        const FreshEntry after = recheckSource(before);
        const bool changeTimeMoved = after.changeTime && before.changeTime && after.changeTime != before.changeTime;
        if (after.deviceID != before.deviceID || after.inode != before.inode ||
            after.modificationTime != before.modificationTime || changeTimeMoved) {
            throwChanged(path_, tr("It changed while it was being copied, so the copy was discarded. Run Analyze "
                                   "again to include the new version."));
        }
    }

    // Step 2 for a link: the folder that will hold it must be a real folder, not a link.
    void checkDestinationFolder() const {
        try {
            if (!engine_.fileSystem->entry(destination_.root, destination_.path.parent()).isDirectory()) {
                throwNotARealFolder();
            }
        } catch (const POSIXFileError& error) {
            if (error.errnoValue() == ELOOP || error.errnoValue() == ENOTDIR) throwNotARealFolder();
            throw SyncError(SyncError::CopyFailed{path_, error.errnoValue(), error.message()});
        }
    }

    // Step 4: under the strict policy any metadata that was lost fails the file.
    void checkMetadata(const std::vector<std::string>& problems) const {
        if (problems.empty() || engine_.metadataPolicy != MetadataPolicy::strict) return;
        throw SyncError(SyncError::MetadataPreservationFailed{
            path_, trFormat("Could not preserve: {}. The destination file was not changed.", joined(problems))});
    }

    // Step 5: the staged bytes, read back from the device, must hash like the source.
    void verify(const FileCopyEngine::StagingLocation& staging,
                const FileCopyEngine::CancellationCheck& isCancelled) const {
        std::string expected;
        std::string actual;
        try {
            expected = engine_.checksum(source_.root, source_.path, isCancelled);
            actual = engine_.checksum(staging.root, staging.path, isCancelled, true);
        } catch (const POSIXFileError& error) {
            throw SyncError(SyncError::CopyFailed{
                path_, error.errnoValue(),
                trFormat("Verification could not read the file: {}", systemErrorText(error.errnoValue()))});
        }
        if (expected != actual) throw SyncError(SyncError::VerificationFailed{path_, expected, actual});
    }

    // Step 6: the staged file's own flush; a failure means nothing is committed.
    FlushResult flushStaged(const FileCopyEngine::StagingLocation& staging, std::uint64_t expectedSize) const {
        if (testhooks::skipFileFlush()) return {};  // the deliberate bug of the power-cut test
        try {
            return engine_.flusher->flushFile(staging.root, staging.path, engine_.durabilityMode, expectedSize);
        } catch (const DurabilityError& error) {
            throw SyncError(SyncError::DurabilityFailed{error});
        }
    }

    // Step 7: one rename into place.
    void commit(const FileCopyEngine::StagingLocation& staging, RenameMode mode) const {
        try {
            engine_.fileSystem->rename(staging.root, staging.path, destination_.root, destination_.path, mode);
        } catch (const POSIXFileError& error) {
            if (mode == RenameMode::noReplace && error.errnoValue() == EEXIST) {
                throwChanged(path_, tr("A file appeared at this destination path after the plan was created. It was "
                                       "left untouched. Run Analyze again."));
            }
            throw SyncError(SyncError::AtomicReplaceFailed{path_, error.errnoValue(), error.message()});
        }
    }

    // Steps 8 and 9: the folder flush after the commit, then the outcome. A failure here
    // is a warning: the file is in place. Under FolderFlush::byCaller the outcome is the
    // file flush's alone until the caller settles it.
    void finish(const FlushResult& fileFlush, FileResult& result, FileCopyEngine::FolderFlush folderFlush) const {
        result.durabilityOutcome =
            chooseDurabilityOutcome(engine_.durabilityMode, false, fileFlush.fellBackFromFullFlush);
        result.flushSeconds = fileFlush.seconds;
        if (folderFlush == FileCopyEngine::FolderFlush::byCaller) return;
        engine_.settle(result, flushFolder(engine_, destination_.root, destination_.path.parent()));
    }

private:
    // The source, looked up by its path, must still be a regular file of `expected`'s size.
    FreshEntry recheckSource(const FileSystemEntry& expected) const {
        FreshEntry current;
        try {
            current = engine_.fileSystem->entry(source_.root, source_.path);
        } catch (const POSIXFileError& error) {
            if (isGone(error.errnoValue())) throwChanged(path_, tr("The file no longer exists in the source."));
            throw SyncError(SyncError::CopyFailed{path_, error.errnoValue(), error.message()});
        }
        if (current.kind != EntryKind::regularFile) {
            throwChanged(path_, trFormat("It is now a {} rather than a file.", kindWord(current.kind)));
        }
        checkSize(expected, current);
        return current;
    }

    void checkSize(const FileSystemEntry& expected, const FileSystemEntry& current) const {
        if (current.size == expected.size) return;
        throwChanged(path_, trFormat("It was {} when the plan was created and is now {}. Run Analyze again to "
                                     "include the new version.",
                                     formatByteCount(expected.size), formatByteCount(current.size)));
    }

    [[noreturn]] void throwNotARealFolder() const {
        throwChanged(path_, tr("The destination folder for this file is not a real folder (it is a symbolic link or "
                               "another file type). Nothing was written."));
    }

    const FileCopyEngine& engine_;
    const RelativePath& path_;
    ItemAt source_;
    ItemAt destination_;
};

}  // namespace

FileResult FileCopyEngine::copyFile(const SyncAction& action, const ProgressCallback& progress,
                                    const CancellationCheck& isCancelled, const SourceCheck& sourceAsPlanned,
                                    FolderFlush folderFlush) const {
    const RelativePath& path = action.relativePath;
    if (!action.sourceEntry) {
        throw SyncError(SyncError::CopyFailed{path, EINVAL, tr("The plan entry carried no source information.")});
    }
    if (path.isRoot()) throw SyncError(SyncError::CopyFailed{path, EISDIR, systemErrorText(EISDIR)});
    throwIfCancelled(isCancelled);
    const FileSystemEntry& planned = *action.sourceEntry;

    CopyRun run(*this, path);
    run.openFolders();
    const auto& source = run.source();
    const StagingLocation staging = stagingLocation(run.destination().root, run.destination().path);
    StagingGuard guard(*fileSystem, staging);
    // The source as opened for the copy, before any data moved: what the plan is compared
    // with, and what the source must still be afterwards.
    std::optional<FreshEntry> opened;
    CopyOutcome copied;
    try {
        // Online-only sources are never cloned: their blocks must really be fetched.
        // A copy that is flushed next starts writing to the device while it copies: the
        // first half of its flush, so the power-cut test's skipped flush skips it too.
        const bool flushedNext = durabilityMode != DurabilityMode::fast && !testhooks::skipFileFlush();
        const CopyOptions options{metadataPolicy, !planned.isDataless, copyChunkBytes, flushedNext};
        copied = fileSystem->copyFile(
            source.root, source.path, staging.root, staging.path, options,
            [&](std::int64_t increment) {
                if (isCancelled && isCancelled()) return false;
                if (increment > 0 && progress) progress(increment);
                return true;
            },
            [&](const FreshEntry& found) {
                try {
                    if (sourceAsPlanned) sourceAsPlanned(found);
                    run.checkOpenedSource(found, planned);
                } catch (...) {
                    guard.disarm();  // refused before the staging file was made
                    throw;
                }
                opened = found;
            });
    } catch (const OperationCancelled&) {
        throw SyncError(SyncError::Cancelled{});
    } catch (const POSIXFileError& error) {
        // An item already at the fresh staging name is not ours to remove.
        if (error.errnoValue() == EEXIST && error.path() == displayPath(staging.root, staging.path)) guard.disarm();
        if (error.path() == displayPath(source.root, source.path)) {
            // A source cut short or replaced during the copy is a change, not a broken copy;
            // one that could not be opened may be gone or no file any more.
            if (opened) run.checkSourceUnchangedSince(*opened);
            else run.explainUnopenedSource(planned);
        }
        throw SyncError(SyncError::CopyFailed{path, error.errnoValue(), error.message()});
    }

    FileResult result;
    result.bytesWritten = static_cast<std::uint64_t>(copied.bytesWritten);
    result.usedClone = copied.usedClone;
    result.metadataProblems = copied.metadataProblems;
    run.checkMetadata(copied.metadataProblems);
    if (verificationMode == VerificationMode::verifyCopiedFiles) {
        try {
            run.verify(staging, isCancelled);
        } catch (const SyncError& error) {
            // A source written to after its copy hashes differently: that is the change.
            if (error.is<SyncError::VerificationFailed>()) run.checkSourceUnchangedSince(opened.value());
            throw;
        }
        result.verified = true;
        testhooks::reached(testhooks::CommitStep::verify);
    }
    const FlushResult fileFlush = run.flushStaged(staging, result.bytesWritten);
    testhooks::reached(testhooks::CommitStep::flushFile);
    throwIfCancelled(isCancelled);  // the last moment at which stopping leaves the destination as it was
    run.checkSourceUnchangedSince(opened.value());

    run.commit(staging, renameModeFor(action.type));
    guard.disarm();
    testhooks::reached(testhooks::CommitStep::rename);
    run.finish(fileFlush, result, folderFlush);
    if (folderFlush == FolderFlush::afterEachFile) testhooks::reached(testhooks::CommitStep::flushFolder);
    return result;
}

FileResult FileCopyEngine::writeSymbolicLink(const SyncAction& action, const CancellationCheck& isCancelled) const {
    const RelativePath& path = action.relativePath;
    throwIfCancelled(isCancelled);
    const auto unreadable = [&](int error) {
        return SyncError(SyncError::CopyFailed{path, error, tr("The link target could not be read.")});
    };
    FileSystemEntry current;
    try {
        current = fileSystem->entry(sourceRoot, path);
    } catch (const POSIXFileError& error) {
        throw unreadable(error.errnoValue());
    }
    if (!current.isSymbolicLink()) throw unreadable(EINVAL);
    if (!current.symlinkTarget) {
        try {
            current.symlinkTarget = fileSystem->readLink(sourceRoot, path);
        } catch (const POSIXFileError& error) {
            throw unreadable(error.errnoValue());
        }
    }

    const CopyRun run(*this, path);
    run.checkDestinationFolder();
    const auto linkFailure = [&](int error) {
        return SyncError(SyncError::CopyFailed{path, error, trFormat("Could not create the link: {}",
                                                                     systemErrorText(error))});
    };
    // A folder is never replaced by a link (the rename would refuse too; this says why).
    if (renameModeFor(action.type) == RenameMode::replace) {
        try {
            if (fileSystem->entry(destinationRoot, path).isDirectory()) throw linkFailure(EISDIR);
        } catch (const POSIXFileError&) {  // NOLINT(bugprone-empty-catch): nothing there to protect
        }
    }

    const StagingLocation staging = stagingLocation(path);
    StagingGuard guard(*fileSystem, staging);
    try {
        fileSystem->makeSymbolicLink(staging.root, staging.path, *current.symlinkTarget);
    } catch (const POSIXFileError& error) {
        if (error.errnoValue() == EEXIST) guard.disarm();
        throw linkFailure(error.errnoValue());
    }

    FileResult result;
    try {
        fileSystem->setTimes(staging.root, staging.path, current.modificationTime);
    } catch (const POSIXFileError&) {
        result.metadataProblems.emplace_back("timestamps");
    }
    run.checkMetadata(result.metadataProblems);
    throwIfCancelled(isCancelled);

    run.commit(staging, renameModeFor(action.type));
    guard.disarm();
    run.finish(FlushResult{}, result, FolderFlush::afterEachFile);
    return result;
}

FileCopyEngine::FolderFlushResult FileCopyEngine::flushFolder(const RelativePath& folder) const {
    FolderFlushResult result = varnel::flushFolder(*this, destinationRoot, folder);
    testhooks::reached(testhooks::CommitStep::flushFolder);
    return result;
}

void FileCopyEngine::settle(FileResult& result, const FolderFlushResult& folder) const {
    if (folder.error) result.durabilityWarning = folder.error;
    const bool fellBack = result.durabilityOutcome == DurabilityOutcome::durableFullFlushUnsupported ||
                          folder.flush.fellBackFromFullFlush;
    result.durabilityOutcome = chooseDurabilityOutcome(durabilityMode, folder.error.has_value(), fellBack);
    result.flushSeconds += folder.flush.seconds;
}

}  // namespace varnel
