#pragma once

#include "scan/FileSystemProviding.hpp"
#include "support/UnflushedWrites.hpp"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace varnel::testing {

// A FileSystemProviding that forwards every call to another one (usually the real
// file system) and can fail a chosen call, or run a callback at it, so tests can break
// a sequence of operations at any step and see what is left on the disk:
//
//     auto fs = std::make_shared<FaultInjectingFileSystem>(std::make_shared<RealFileSystem>());
//     fs->failCall("rename", EIO);                    // the next rename fails, nothing renamed
//     fs->atCall("sha256", [&] { corrupt(...); });      // runs before the next sha256
//     fs->failCopyWhenReached(1 << 20, ENOSPC);        // a copy fails once 1 MiB is written
//     fs->shortenWrite(100);                            // the next copy stores only 100 bytes
//     fs->shortenRead(100);                             // the next sha256 sees only 100 bytes
//     fs->trackWrites(writes);                          // for UnflushedWrites::simulateCrash
//
// Operations are named after the interface's functions ("entry", "copyFile",
// "sha256", "rename", "removeFile", "openFolder", ...), plus "sourceOpened": the moment
// inside copyFile when the source is open and has passed the caller's check, before the
// staging file exists and any data moves. Calls are counted per operation from the
// moment a fault is set (occurrence 1 = the next call). An injected failure throws
// POSIXFileError with the system call the real implementation would name ("rename",
// "unlink", "open" for copyFile, "read" for sha256, ...) and the display path of the
// call's first item (for copyFile the staging file, as if creating it failed), before
// the inner file system is reached. Thread-safe.
class FaultInjectingFileSystem final : public FileSystemProviding {
public:
    explicit FaultInjectingFileSystem(std::shared_ptr<FileSystemProviding> inner);

    void failCall(const std::string& operation, int errnoValue, int occurrence = 1);
    void atCall(const std::string& operation, std::function<void()> action, int occurrence = 1);
    // The next copyFile writes data until at least `bytes` have been reported, then
    // fails with POSIXFileError "write" on the staging file (its partial data stays), or
    // with CopySide::source as a "read" of the source.
    enum class CopySide { target, source };
    void failCopyWhenReached(std::int64_t bytes, int errnoValue, CopySide side = CopySide::target);
    // The next copyFile reports `problem` among its metadata problems.
    void addMetadataProblem(const std::string& problem);
    // The next copyFile reports success with the full length, but its staging file keeps
    // only the first `keepBytes`: a write the device acknowledged and did not store. What
    // the size check before the flush and the verification are there to catch.
    void shortenWrite(std::int64_t keepBytes);
    // The next sha256 reads only the first `keepBytes` of its file, as if it ended there
    // (a short read taken for the end of the file).
    void shortenRead(std::int64_t keepBytes);
    // Reports written, renamed and removed files to `writes` from now on.
    void trackWrites(std::shared_ptr<UnflushedWrites> writes);

    // Whether volumeFailure asks the inner file system, as the engine does of the real
    // one after a failure that may mean a vanished drive; off, it answers "none", so
    // every failure stays the file's own (as the fault recipes expect).
    bool checksVolumes = false;

    // The display path of the first item of every call of `operation` so far, in order
    // (for rename, the item renamed; for copyFile, the staging file).
    std::vector<std::string> callPaths(const std::string& operation) const;

    EndpointRoot openRoot(const std::string& absolutePath) override;
    FreshEntry entry(const EndpointRoot& root, const RelativePath& path) override;
    bool exists(const EndpointRoot& root, const RelativePath& path) override;
    std::string readLink(const EndpointRoot& root, const RelativePath& path) override;
    std::optional<std::string> extendedAttribute(const EndpointRoot& root, const RelativePath& path,
                                                 const std::string& name) override;
    std::vector<std::string> extendedAttributeNames(const EndpointRoot& root, const RelativePath& path) override;
    std::vector<std::string> listDirectory(const EndpointRoot& root, const RelativePath& path) override;
    std::unique_ptr<OpenDirectory> openDirectory(const EndpointRoot& root, const RelativePath& path) override;
    EndpointRoot openFolder(const EndpointRoot& root, const RelativePath& path) override;
    void makeDirectory(const EndpointRoot& root, const RelativePath& path, std::uint16_t mode = 0777) override;
    void makeSymbolicLink(const EndpointRoot& root, const RelativePath& path, const std::string& target) override;
    void removeFile(const EndpointRoot& root, const RelativePath& path) override;
    void removeDirectory(const EndpointRoot& root, const RelativePath& path) override;
    void rename(const EndpointRoot& fromRoot, const RelativePath& from, const EndpointRoot& toRoot,
                const RelativePath& to, RenameMode mode) override;
    void setPermissions(const EndpointRoot& root, const RelativePath& path, std::uint16_t mode) override;
    void setOwner(const EndpointRoot& root, const RelativePath& path, std::uint32_t uid, std::uint32_t gid) override;
    void setTimes(const EndpointRoot& root, const RelativePath& path, FileTimestamp modification,
                  std::optional<FileTimestamp> access = std::nullopt) override;
    CopyOutcome copyFile(const EndpointRoot& sourceRoot, const RelativePath& sourcePath,
                         const EndpointRoot& stagingRoot, const RelativePath& stagingPath, const CopyOptions& options,
                         const CopyProgress& progress, const SourceCheck& checkSource = {}) override;
    Sha256Digest sha256(const EndpointRoot& root, const RelativePath& path, const HashOptions& options,
                        const StopRequested& stopRequested) override;
    bool existsAtPath(const std::string& absolutePath) override;
    FileSystemEntry entryAtPath(const std::string& absolutePath) override;
    std::string canonicalPath(const std::string& absolutePath) override;
    void makeDirectoryAtPath(const std::string& absolutePath, std::uint16_t mode) override;
    VolumeInfo volumeInfo(const std::string& absolutePath) override;
    std::optional<int> volumeFailure(const EndpointRoot& root) override;

private:
    struct Trigger {
        std::string operation;
        int callNumber;
        std::function<void()> action;
        std::optional<int> errnoValue;
    };
    struct CopyFault {
        std::int64_t bytes;
        int errnoValue;
        CopySide side;
    };

    // Counts the call, then runs what is due for it (throwing an injected failure).
    void enter(const std::string& operation, const std::string& shownPath);
    std::shared_ptr<UnflushedWrites> trackedWrites() const;

    std::shared_ptr<FileSystemProviding> inner_;
    mutable std::mutex mutex_;
    std::map<std::string, int> counts_;
    std::map<std::string, std::vector<std::string>> paths_;
    std::vector<Trigger> triggers_;
    std::optional<CopyFault> copyFault_;
    std::vector<std::string> extraMetadataProblems_;
    std::optional<std::int64_t> shortWrite_;
    std::optional<std::int64_t> shortRead_;
    std::shared_ptr<UnflushedWrites> writes_;
};

}  // namespace varnel::testing
