#pragma once

#include "common/Sha256.hpp"
#include "model/RelativePath.hpp"
#include "scan/CopyOptions.hpp"
#include "scan/CopyOutcome.hpp"
#include "scan/DirectoryNames.hpp"
#include "scan/EndpointRoot.hpp"
#include "scan/FileSystemEntry.hpp"
#include "scan/FileTimestamp.hpp"
#include "scan/VolumeInfo.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace varnel {

// One folder opened for scanning: listed once, its children examined relative to it,
// so a scan costs one listing per folder and one stat per item.
class OpenDirectory {
public:
    virtual ~OpenDirectory() = default;

    // The folder's own path below its endpoint root.
    virtual const RelativePath& path() const = 0;
    // The names inside, without "." and "..", in the order the system returns them
    // (unsorted). Throws POSIXFileError "readdir".
    virtual DirectoryNames names() = 0;
    // The entry of the child `name`, whose path is `childPath`, never following a final
    // link. The entry takes the path: a scan makes one for each item and keeps no other
    // copy. Throws POSIXFileError "statx".
    virtual FileSystemEntry entry(std::string_view name, RelativePath childPath) = 0;
};

// The engine's only door to the disk. Every operation on an item inside an endpoint
// takes the endpoint's open root and a RelativePath, and never reaches outside that
// root: ".." cannot occur in a RelativePath, and no symbolic link is followed on the
// way down (a link in place of a folder makes the operation fail with ELOOP, ENOTDIR or
// EXDEV). Paths longer than PATH_MAX work.
//
// Absolute paths appear only for what lies outside endpoints: opening a root,
// validation, canonical paths, volume queries and creating the staging area.
//
// Failures throw POSIXFileError carrying the system call's name, the full path (root
// path + "/" + relative path) and errno; no call is retried except on EINTR.
// Implementations hold no mutable state visible to callers and are safe to use from
// several threads at once.
class FileSystemProviding {
public:
    enum class RenameMode {
        replace,    // rename(2): an existing destination is replaced atomically
        noReplace,  // fails with EEXIST instead of replacing; never replaces
    };

    virtual ~FileSystemProviding() = default;

    // --- Endpoints -------------------------------------------------------------------
    // Opens the folder at `absolutePath` (following links in the path itself, as a user
    // would expect of a chosen folder). Throws POSIXFileError "open".
    virtual EndpointRoot openRoot(const std::string& absolutePath) = 0;

    // --- Inspect ---------------------------------------------------------------------
    // One statx of the item; for a link also one readlink whose failure leaves the
    // target absent. Throws POSIXFileError "statx".
    virtual FreshEntry entry(const EndpointRoot& root, const RelativePath& path) = 0;
    // Whether the item exists (a dangling link exists). Never throws.
    virtual bool exists(const EndpointRoot& root, const RelativePath& path) = 0;
    // Throws POSIXFileError "readlink".
    virtual std::string readLink(const EndpointRoot& root, const RelativePath& path) = 0;
    // The value of one extended attribute of the item itself (links not followed), or
    // none when the item does not have it. Throws POSIXFileError "getxattr".
    virtual std::optional<std::string> extendedAttribute(const EndpointRoot& root, const RelativePath& path,
                                                         const std::string& name) = 0;
    // Throws POSIXFileError "listxattr".
    virtual std::vector<std::string> extendedAttributeNames(const EndpointRoot& root, const RelativePath& path) = 0;

    // --- List ------------------------------------------------------------------------
    // Names in the folder, without "." and "..", unsorted. Throws POSIXFileError
    // "opendir" or "readdir".
    virtual std::vector<std::string> listDirectory(const EndpointRoot& root, const RelativePath& path) = 0;
    // Opens the folder for a scan. Throws POSIXFileError "opendir".
    virtual std::unique_ptr<OpenDirectory> openDirectory(const EndpointRoot& root, const RelativePath& path) = 0;

    // --- A folder as a root of its own -----------------------------------------------
    // Opens the folder at `path` beneath `root` (never through a link, like every other
    // operation) and returns it as a root, so that several operations on the items inside
    // it resolve nothing again: (folder, "name") is the item (root, path + "/name"), and
    // it is shown with the same path in messages. The folder stays the one that was
    // opened, even if it is renamed or replaced by a link afterwards. The root path
    // returns `root` itself. Throws POSIXFileError "open" (ELOOP or ENOTDIR for a link or
    // a file on the way or at `path`).
    virtual EndpointRoot openFolder(const EndpointRoot& root, const RelativePath& path) = 0;

    // --- Create and remove -----------------------------------------------------------
    // Throws POSIXFileError "mkdir".
    virtual void makeDirectory(const EndpointRoot& root, const RelativePath& path, std::uint16_t mode = 0777) = 0;
    // Throws POSIXFileError "symlink".
    virtual void makeSymbolicLink(const EndpointRoot& root, const RelativePath& path, const std::string& target) = 0;
    // Removes a file, link or special file. Throws POSIXFileError "unlink".
    virtual void removeFile(const EndpointRoot& root, const RelativePath& path) = 0;
    // Removes an empty folder. Throws POSIXFileError "rmdir".
    virtual void removeDirectory(const EndpointRoot& root, const RelativePath& path) = 0;

    // --- Move ------------------------------------------------------------------------
    // Renames an item, possibly between two roots on one file system (the staging
    // folder and the destination). With noReplace an existing target fails with EEXIST
    // and both items stay; where the file system refuses that mode (EINVAL) a hard link
    // plus unlink gives the same guarantee. Throws POSIXFileError "rename".
    virtual void rename(const EndpointRoot& fromRoot, const RelativePath& from, const EndpointRoot& toRoot,
                        const RelativePath& to, RenameMode mode) = 0;

    // --- Metadata (never following a final link) -------------------------------------
    // Throws POSIXFileError "chmod"; links have no mode of their own on Linux (EOPNOTSUPP).
    virtual void setPermissions(const EndpointRoot& root, const RelativePath& path, std::uint16_t mode) = 0;
    // Throws POSIXFileError "lchown".
    virtual void setOwner(const EndpointRoot& root, const RelativePath& path, std::uint32_t uid, std::uint32_t gid) = 0;
    // Sets the modification time (and the access time when given, else leaves it).
    // Throws POSIXFileError "utimensat".
    virtual void setTimes(const EndpointRoot& root, const RelativePath& path, FileTimestamp modification,
                          std::optional<FileTimestamp> access = std::nullopt) = 0;

    // --- Copy and hash (regular files) -----------------------------------------------
    // Copies the regular file (sourceRoot, sourcePath) with its metadata into a new file
    // (stagingRoot, stagingPath); the two roots may differ (source and destination, or
    // source and the staging folder). The source is only read and never followed
    // through a link (a link there fails with ELOOP). The staging file is created
    // exclusively (an existing item there fails with EEXIST and is left alone) and stays
    // readable by its owner only until the source's permissions are applied, last. Holes
    // of a sparse source stay holes where the destination can keep them; with
    // options.allowClone the data may be cloned instead of copied.
    //
    // `checkSource`, when given, is called once with the entry of the source as opened
    // (read from its descriptor, so it describes the very file whose bytes are copied),
    // before the staging file is created; an exception it throws ends the copy with
    // nothing written and passes through unchanged.
    //
    // `progress` is called before any data moves and after each block of at most
    // options.chunkBytes; when it returns false the copy stops with OperationCancelled.
    // Exceptions thrown by `progress` pass through unchanged.
    //
    // Metadata that cannot be carried over is named in the outcome, not thrown. On any
    // failure the staging file may remain, partly written: the caller removes it (except
    // after EEXIST from creating it, when the item there is not the caller's).
    // Throws POSIXFileError "open" (naming the source or the staging file), "fstat",
    // "lseek", "copy_file_range", "read", "write" or "ftruncate"; OperationCancelled.
    virtual CopyOutcome copyFile(const EndpointRoot& sourceRoot, const RelativePath& sourcePath,
                                 const EndpointRoot& stagingRoot, const RelativePath& stagingPath,
                                 const CopyOptions& options, const CopyProgress& progress,
                                 const SourceCheck& checkSource = {}) = 0;

    // The SHA-256 of a regular file's contents, read in blocks of 1 MiB through one
    // buffer, never following a final link. `stopRequested` (may be empty) is asked
    // before each block. Throws POSIXFileError "open", "read", or "fdatasync" (only with
    // options.readFromDevice); OperationCancelled.
    virtual Sha256Digest sha256(const EndpointRoot& root, const RelativePath& path, const HashOptions& options,
                                const StopRequested& stopRequested) = 0;

    // --- Outside endpoints (absolute paths) ------------------------------------------
    // Whether anything exists at the path (not following a final link). Never throws.
    virtual bool existsAtPath(const std::string& absolutePath) = 0;
    // lstat of an absolute path; the entry's relativePath is the root. Throws "statx".
    virtual FileSystemEntry entryAtPath(const std::string& absolutePath) = 0;
    // realpath. Throws POSIXFileError "realpath".
    virtual std::string canonicalPath(const std::string& absolutePath) = 0;
    // Throws POSIXFileError "mkdir".
    virtual void makeDirectoryAtPath(const std::string& absolutePath, std::uint16_t mode) = 0;
    // The volume holding the folder. Throws POSIXFileError "statfs".
    virtual VolumeInfo volumeInfo(const std::string& absolutePath) = 0;

    // --- Is the volume still there? ------------------------------------------------
    // Asked after an operation failed with an error that a vanished volume gives (EIO,
    // ENOTCONN...): the errno by which the volume holding the open root shows that it is
    // gone (shut down, its device removed, the process behind a FUSE file system killed),
    // or none while the root still answers. Writes nothing. The default answers none, for
    // file systems whose volumes cannot vanish.
    virtual std::optional<int> volumeFailure(const EndpointRoot& root);
};

// Whether an errno is one a vanished volume gives, so that volumeFailure is worth asking.
bool mayMeanVolumeGone(int errnoValue);

// "<root path>/<relative path>" (the root path alone for the root), for messages.
std::string displayPath(const EndpointRoot& root, const RelativePath& path);

}  // namespace varnel
