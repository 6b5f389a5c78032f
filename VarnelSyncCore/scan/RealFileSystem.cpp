#include "scan/RealFileSystem.hpp"

#include "common/TestHooks.hpp"
#include "platform/BeneathResolver.hpp"
#include "platform/ErrnoOr.hpp"
#include "platform/FileDataCopy.hpp"
#include "platform/FileMetadataCopy.hpp"
#include "platform/LinuxVolumeQuery.hpp"
#include "platform/SystemCall.hpp"
#include "platform/UniqueFd.hpp"
#include "scan/OperationCancelled.hpp"
#include "scan/POSIXFileError.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <variant>

namespace varnel {

namespace {

class RealRootHandle final : public EndpointRoot::Handle {
public:
    explicit RealRootHandle(UniqueFd fd) : fd_(std::move(fd)) {}
    int fd() const { return fd_.get(); }

private:
    UniqueFd fd_;
};

[[noreturn]] void fail(int error, const char* operation, const EndpointRoot& root, const RelativePath& path) {
    throw POSIXFileError(error, operation, displayPath(root, path));
}

int rootFdFor(const EndpointRoot& root, const char* operation, const RelativePath& path) {
    const int fd = RealFileSystem::rootDescriptor(root);
    if (fd < 0) fail(EBADF, operation, root, path);  // a root opened by another implementation
    return fd;
}

// An item as the folder that holds it, opened beneath the root, plus its name there.
// The root itself is "." inside the root.
struct ItemLocation {
    UniqueFd heldParent;  // empty when the parent is the root, whose descriptor the root keeps
    int parentFd = -1;
    std::string name;
};

ErrnoOr<ItemLocation> locate(int rootFd, const RelativePath& path) {
    ItemLocation location;
    location.parentFd = rootFd;
    if (path.isRoot()) {
        location.name = ".";
        return location;
    }
    location.name = std::string(path.lastComponent());
    const RelativePath parent = path.parent();
    if (parent.isRoot()) return location;
    auto opened = openDirectoryBeneath(rootFd, parent, DirectoryAccess::pathOnly);
    if (!opened.ok()) return ErrnoOr<ItemLocation>::failure(opened.error());
    location.heldParent = std::move(opened.value());
    location.parentFd = location.heldParent.get();
    return location;
}

// A failure on the way to the item is reported as a failure of the call that was asked for.
ItemLocation locateOrThrow(const EndpointRoot& root, const RelativePath& path, const char* operation) {
    auto location = locate(rootFdFor(root, operation, path), path);
    if (!location.ok()) fail(location.error(), operation, root, path);
    return std::move(location.value());
}

// Links on /proc name an item by its folder's descriptor, so the l*xattr calls reach
// any kind of item, links included, without opening it (a FIFO or device would react
// to an open) and without resolving anything again from the root.
std::string procPath(const ItemLocation& location) {
    return "/proc/self/fd/" + std::to_string(location.parentFd) + "/" + location.name;
}

ErrnoOr<std::string> readLinkAt(int dirFd, const char* name, std::size_t expectedLength) {
    std::string buffer(std::max<std::size_t>(expectedLength + 1, 128), '\0');
    while (true) {
        const ssize_t length = ::readlinkat(dirFd, name, buffer.data(), buffer.size());
        if (length < 0) return ErrnoOr<std::string>::failure(errno);
        if (static_cast<std::size_t>(length) < buffer.size()) {
            buffer.resize(static_cast<std::size_t>(length));
            return buffer;
        }
        // The target filled the buffer: it may be longer (the link was replaced meanwhile).
        if (buffer.size() >= (std::size_t{1} << 20)) return ErrnoOr<std::string>::failure(ENAMETOOLONG);
        buffer.resize(buffer.size() * 2);
    }
}

FileTimestamp timestampOf(const statx_timestamp& value) {
    return FileTimestamp{static_cast<std::int64_t>(value.tv_sec), static_cast<std::int32_t>(value.tv_nsec)};
}

template <typename Count>
std::int64_t blockCount(Count blocks) {
    return static_cast<std::int64_t>(std::min<std::uint64_t>(blocks, FileSystemEntry::kMaxAllocatedBlocks));
}

template <typename Count>
std::uint16_t linkCount(Count links) {
    return static_cast<std::uint16_t>(std::min<std::uint64_t>(links, FileSystemEntry::kMaxHardLinkCount));
}

// The entry of an item from its statx, without its path, which the caller knows.
FreshEntry entryFromStatx(const struct statx& item) {
    FreshEntry entry;
    entry.kind = entryKindFromMode(item.stx_mode, entry.unsupportedReason);
    entry.size = entry.kind == EntryKind::regularFile ? static_cast<std::int64_t>(item.stx_size) : 0;
    entry.allocatedBlocks = blockCount(item.stx_blocks);
    entry.modificationTime = timestampOf(item.stx_mtime);
    if ((item.stx_mask & STATX_CTIME) != 0) entry.changeTime = timestampOf(item.stx_ctime);
    // Only meaningful when the file system answered for it; 0 or less means "none kept".
    if ((item.stx_mask & STATX_BTIME) != 0 && item.stx_btime.tv_sec >= 1) {
        entry.creationTime = timestampOf(item.stx_btime);
    }
    entry.posixPermissions = static_cast<std::uint16_t>(item.stx_mode & 07777);
    entry.ownerUID = item.stx_uid;
    entry.ownerGID = item.stx_gid;
    entry.deviceID = static_cast<std::uint32_t>(makedev(item.stx_dev_major, item.stx_dev_minor));
    entry.inode = item.stx_ino;
    entry.hardLinkCount = linkCount(item.stx_nlink);
    entry.isDataless = false;  // Linux has no online-only files
    return entry;
}

// The entry of an open file, from its fstat: what a statx of its path gives, without the
// birth time, which fstat does not report and no check of an open file needs.
FreshEntry entryFromStat(const struct stat& item, RelativePath path) {
    FreshEntry entry;
    entry.relativePath = std::move(path);
    entry.kind = entryKindFromMode(item.st_mode, entry.unsupportedReason);
    entry.size = entry.kind == EntryKind::regularFile ? static_cast<std::int64_t>(item.st_size) : 0;
    entry.allocatedBlocks = blockCount(item.st_blocks);
    entry.modificationTime = FileTimestamp::fromTimespec(item.st_mtim);
    entry.changeTime = FileTimestamp::fromTimespec(item.st_ctim);
    entry.posixPermissions = static_cast<std::uint16_t>(item.st_mode & 07777);
    entry.ownerUID = item.st_uid;
    entry.ownerGID = item.st_gid;
    entry.deviceID = static_cast<std::uint32_t>(item.st_dev);
    entry.inode = item.st_ino;
    entry.hardLinkCount = linkCount(item.st_nlink);
    entry.isDataless = false;
    return entry;
}

// One statx of `name` in `dirFd`, never following it; for a link one readlinkat whose
// failure leaves the target absent. The entry's path is left to the caller.
ErrnoOr<FreshEntry> statEntry(int dirFd, const char* name) {
    // Not zeroed first: the system writes the whole structure, and this runs once per item.
    struct statx item;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    if (::statx(dirFd, name, AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &item) != 0) {
        return ErrnoOr<FreshEntry>::failure(errno);
    }
    FreshEntry entry = entryFromStatx(item);
    if (entry.kind == EntryKind::symbolicLink) {
        auto target = readLinkAt(dirFd, name, static_cast<std::size_t>(item.stx_size));
        if (target.ok()) entry.symlinkTarget = std::move(target.value());
    }
    return entry;
}

// Lists `fd`'s names with getdents64 into a buffer on the stack: a directory stream
// would first check the descriptor with fstat and two fcntl calls and allocate its own
// 32 KiB buffer, for every folder a scan lists. `fromStart` rewinds a folder listed before.
ErrnoOr<DirectoryNames> readNames(int fd, bool fromStart) {
    if (fromStart && ::lseek(fd, 0, SEEK_SET) < 0) return ErrnoOr<DirectoryNames>::failure(errno);
    DirectoryNames names;
    alignas(dirent64) std::array<char, 32 * 1024> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled next
    while (true) {
        const ssize_t filled = ::getdents64(fd, buffer.data(), buffer.size());
        if (filled < 0) {
            if (errno == EINTR) continue;
            return ErrnoOr<DirectoryNames>::failure(errno);
        }
        if (filled == 0) return names;
        // Room for the first batch's names at once (a record takes at least 24 bytes, its
        // name included), rather than growing the two arrays step by step in every folder;
        // a folder of more batches grows as usual from there.
        if (names.empty()) names.reserve(static_cast<std::size_t>(filled), static_cast<std::size_t>(filled) / 24);
        for (std::size_t offset = 0; offset < static_cast<std::size_t>(filled);) {
            const auto* item = reinterpret_cast<const dirent64*>(buffer.data() + offset);
            offset += item->d_reclen;
            const std::string_view name = item->d_name;
            if (name == "." || name == "..") continue;
            names.add(name);
        }
    }
}

class RealOpenDirectory final : public OpenDirectory {
public:
    RealOpenDirectory(EndpointRoot root, RelativePath path, UniqueFd fd)
        : root_(std::move(root)), path_(std::move(path)), fd_(std::move(fd)) {}

    const RelativePath& path() const override { return path_; }

    DirectoryNames names() override {
        auto names = readNames(fd_.get(), listed_);
        listed_ = true;
        if (!names.ok()) fail(names.error(), "readdir", root_, path_);
        return std::move(names.value());
    }

    FileSystemEntry entry(std::string_view name, RelativePath childPath) override {
        // A name with "/" or ".." would walk away from this folder.
        if (!RelativePath::isValidComponent(name)) fail(EINVAL, "statx", root_, childPath);
        // Listed names fit NAME_MAX, so the terminated copy stays on the stack.
        if (name.size() > NAME_MAX) fail(ENAMETOOLONG, "statx", root_, childPath);
        std::array<char, NAME_MAX + 1> terminated;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled next
        std::memcpy(terminated.data(), name.data(), name.size());
        terminated[name.size()] = '\0';
        auto entry = statEntry(fd_.get(), terminated.data());
        if (!entry.ok()) fail(entry.error(), "statx", root_, childPath);
        entry.value().relativePath = std::move(childPath);
        return std::move(entry.value());
    }

private:
    EndpointRoot root_;  // keeps the root's descriptor alive for messages and lifetime
    RelativePath path_;
    UniqueFd fd_;
    bool listed_ = false;
};

// The no-replace rename where there are no hard links either (FAT and exFAT through
// FUSE): the target name is first reserved by creating it exclusively (a folder for a
// folder), which fails with EEXIST when anything has that name, also under the volume's
// own rules for case; then the item is renamed over its own, empty placeholder. An item
// that appeared before the reservation is never replaced. Returns 0 or the errno.
int reserveThenRename(const ItemLocation& source, const ItemLocation& target) {
    struct stat item {};
    if (::fstatat(source.parentFd, source.name.c_str(), &item, AT_SYMLINK_NOFOLLOW) != 0) return errno;
    const bool folder = S_ISDIR(item.st_mode);
    if (folder) {
        if (::mkdirat(target.parentFd, target.name.c_str(), 0700) != 0) return errno;
    } else {
        const int placeholder = retryOnInterrupt([&] {
            return ::openat(target.parentFd, target.name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                            0600);
        });
        if (placeholder < 0) return errno;
        ::close(placeholder);
    }
    if (::renameat(source.parentFd, source.name.c_str(), target.parentFd, target.name.c_str()) != 0) {
        const int error = errno;
        ::unlinkat(target.parentFd, target.name.c_str(), folder ? AT_REMOVEDIR : 0);  // our placeholder
        return error;
    }
    return 0;
}

// The no-replace rename where the file system refuses RENAME_NOREPLACE (EINVAL): a hard
// link never replaces an existing name, and removing the old name completes the move.
// Folders cannot be hard-linked and some file systems (FAT) have no hard links; then
// the name is reserved first (reserveThenRename). Returns 0 or the errno.
int linkThenUnlink(const ItemLocation& source, const ItemLocation& target) {
    if (::linkat(source.parentFd, source.name.c_str(), target.parentFd, target.name.c_str(), 0) != 0) {
        const int error = errno;
        if (error == EPERM || error == EOPNOTSUPP || error == ENOSYS || error == EMLINK) {
            return reserveThenRename(source, target);
        }
        return error;
    }
    if (::unlinkat(source.parentFd, source.name.c_str(), 0) != 0) {
        const int error = errno;
        ::unlinkat(target.parentFd, target.name.c_str(), 0);  // the new name is the one just made
        return error;
    }
    return 0;
}

// Opens a regular file beneath its folder for reading only: never through a final link,
// without updating its access time where the caller owns it (O_NOATIME needs that:
// EPERM otherwise), and non-blocking so a FIFO planted there cannot hang the open.
// Anything but a regular file fails: EISDIR for a folder, ENOTSUP for the rest.
ErrnoOr<UniqueFd> openRegularFileForReading(const ItemLocation& location, struct stat& status) {
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    int fd = retryOnInterrupt([&] { return ::openat(location.parentFd, location.name.c_str(), flags | O_NOATIME); });
    if (fd < 0 && errno == EPERM) {
        fd = retryOnInterrupt([&] { return ::openat(location.parentFd, location.name.c_str(), flags); });
    }
    if (fd < 0) return ErrnoOr<UniqueFd>::failure(errno);
    UniqueFd file(fd);
    if (::fstat(file.get(), &status) != 0) return ErrnoOr<UniqueFd>::failure(errno);
    if (!S_ISREG(status.st_mode)) return ErrnoOr<UniqueFd>::failure(S_ISDIR(status.st_mode) ? EISDIR : ENOTSUP);
    return file;
}

// One block of a checksum read, and the size of its single buffer.
constexpr std::size_t kHashBlockBytes = std::size_t{1} << 20;

}  // namespace

bool RealFileSystem::CloneRefusals::contains(std::uint64_t source, std::uint64_t target) const {
    std::lock_guard lock(mutex_);
    return std::find(pairs_.begin(), pairs_.end(), std::pair{source, target}) != pairs_.end();
}

void RealFileSystem::CloneRefusals::add(std::uint64_t source, std::uint64_t target) {
    std::lock_guard lock(mutex_);
    if (std::find(pairs_.begin(), pairs_.end(), std::pair{source, target}) == pairs_.end()) {
        pairs_.emplace_back(source, target);
    }
}

int RealFileSystem::rootDescriptor(const EndpointRoot& root) {
    const auto* handle = root.handleAs<RealRootHandle>();
    return handle != nullptr ? handle->fd() : -1;
}

EndpointRoot RealFileSystem::openRoot(const std::string& absolutePath) {
    const int fd = retryOnInterrupt([&] { return ::open(absolutePath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); });
    if (fd < 0) throw POSIXFileError(errno, "open", absolutePath);
    return EndpointRoot(absolutePath, std::make_shared<RealRootHandle>(UniqueFd(fd)));
}

FreshEntry RealFileSystem::entry(const EndpointRoot& root, const RelativePath& path) {
    const auto location = locateOrThrow(root, path, "statx");
    auto entry = statEntry(location.parentFd, location.name.c_str());
    if (!entry.ok()) fail(entry.error(), "statx", root, path);
    entry.value().relativePath = path;
    return std::move(entry.value());
}

bool RealFileSystem::exists(const EndpointRoot& root, const RelativePath& path) {
    const int rootFd = rootDescriptor(root);
    if (rootFd < 0) return false;
    auto location = locate(rootFd, path);
    if (!location.ok()) return false;
    struct stat status {};
    return ::fstatat(location.value().parentFd, location.value().name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

std::string RealFileSystem::readLink(const EndpointRoot& root, const RelativePath& path) {
    const auto location = locateOrThrow(root, path, "readlink");
    auto target = readLinkAt(location.parentFd, location.name.c_str(), 0);
    if (!target.ok()) fail(target.error(), "readlink", root, path);
    return std::move(target.value());
}

std::optional<std::string> RealFileSystem::extendedAttribute(const EndpointRoot& root, const RelativePath& path,
                                                             const std::string& name) {
    const auto location = locateOrThrow(root, path, "getxattr");
    const std::string item = procPath(location);
    while (true) {
        const ssize_t size = ::lgetxattr(item.c_str(), name.c_str(), nullptr, 0);
        if (size < 0) {
            if (errno == ENODATA) return std::nullopt;
            fail(errno, "getxattr", root, path);
        }
        std::string value(static_cast<std::size_t>(size), '\0');
        const ssize_t read = ::lgetxattr(item.c_str(), name.c_str(), value.data(), value.size());
        if (read >= 0) {
            value.resize(static_cast<std::size_t>(read));
            return value;
        }
        if (errno == ENODATA) return std::nullopt;  // removed meanwhile
        if (errno != ERANGE) fail(errno, "getxattr", root, path);
        // ERANGE: the value grew between the two calls; ask again.
    }
}

std::vector<std::string> RealFileSystem::extendedAttributeNames(const EndpointRoot& root, const RelativePath& path) {
    const auto location = locateOrThrow(root, path, "listxattr");
    const std::string item = procPath(location);
    while (true) {
        const ssize_t size = ::llistxattr(item.c_str(), nullptr, 0);
        if (size < 0) fail(errno, "listxattr", root, path);
        std::string buffer(static_cast<std::size_t>(size), '\0');
        const ssize_t read = ::llistxattr(item.c_str(), buffer.data(), buffer.size());
        if (read < 0) {
            if (errno == ERANGE) continue;  // a name was added meanwhile
            fail(errno, "listxattr", root, path);
        }
        // The names follow each other, each ended by a NUL.
        std::vector<std::string> names;
        std::size_t start = 0;
        const auto end = static_cast<std::size_t>(read);
        while (start < end) {
            const std::size_t stop = buffer.find('\0', start);
            const std::size_t length = (stop == std::string::npos || stop > end ? end : stop) - start;
            if (length > 0) names.push_back(buffer.substr(start, length));
            start += length + 1;
        }
        return names;
    }
}

std::vector<std::string> RealFileSystem::listDirectory(const EndpointRoot& root, const RelativePath& path) {
    auto fd = openDirectoryBeneath(rootFdFor(root, "opendir", path), path, DirectoryAccess::read);
    if (!fd.ok()) fail(fd.error(), "opendir", root, path);
    auto names = readNames(fd.value().get(), false);
    if (!names.ok()) fail(names.error(), "readdir", root, path);
    return {names.value().begin(), names.value().end()};
}

std::unique_ptr<OpenDirectory> RealFileSystem::openDirectory(const EndpointRoot& root, const RelativePath& path) {
    auto fd = openDirectoryBeneath(rootFdFor(root, "opendir", path), path, DirectoryAccess::read);
    if (!fd.ok()) fail(fd.error(), "opendir", root, path);
    return std::make_unique<RealOpenDirectory>(root, path, std::move(fd.value()));
}

EndpointRoot RealFileSystem::openFolder(const EndpointRoot& root, const RelativePath& path) {
    if (path.isRoot()) return root;
    auto fd = openDirectoryBeneath(rootFdFor(root, "open", path), path, DirectoryAccess::pathOnly);
    if (!fd.ok()) fail(fd.error(), "open", root, path);
    return EndpointRoot(displayPath(root, path), std::make_shared<RealRootHandle>(std::move(fd.value())));
}

void RealFileSystem::makeDirectory(const EndpointRoot& root, const RelativePath& path, std::uint16_t mode) {
    const auto location = locateOrThrow(root, path, "mkdir");
    if (::mkdirat(location.parentFd, location.name.c_str(), mode) != 0) fail(errno, "mkdir", root, path);
}

void RealFileSystem::makeSymbolicLink(const EndpointRoot& root, const RelativePath& path, const std::string& target) {
    const auto location = locateOrThrow(root, path, "symlink");
    if (::symlinkat(target.c_str(), location.parentFd, location.name.c_str()) != 0) {
        fail(errno, "symlink", root, path);
    }
}

void RealFileSystem::removeFile(const EndpointRoot& root, const RelativePath& path) {
    const auto location = locateOrThrow(root, path, "unlink");
    if (::unlinkat(location.parentFd, location.name.c_str(), 0) != 0) fail(errno, "unlink", root, path);
}

void RealFileSystem::removeDirectory(const EndpointRoot& root, const RelativePath& path) {
    const auto location = locateOrThrow(root, path, "rmdir");
    if (::unlinkat(location.parentFd, location.name.c_str(), AT_REMOVEDIR) != 0) fail(errno, "rmdir", root, path);
}

void RealFileSystem::rename(const EndpointRoot& fromRoot, const RelativePath& from, const EndpointRoot& toRoot,
                            const RelativePath& to, RenameMode mode) {
    const auto source = locateOrThrow(fromRoot, from, "rename");
    const auto target = locateOrThrow(toRoot, to, "rename");
    const unsigned flags = mode == RenameMode::noReplace ? RENAME_NOREPLACE : 0;
    int error = 0;
    if (::renameat2(source.parentFd, source.name.c_str(), target.parentFd, target.name.c_str(), flags) != 0) {
        error = errno;
        if (error == EINVAL && mode == RenameMode::noReplace) error = linkThenUnlink(source, target);
    }
    if (error == 0) return;
    // A name that is taken is a fact about the target; everything else names the source.
    if (error == EEXIST || error == ENOTEMPTY) fail(error, "rename", toRoot, to);
    fail(error, "rename", fromRoot, from);
}

void RealFileSystem::setPermissions(const EndpointRoot& root, const RelativePath& path, std::uint16_t mode) {
    const auto location = locateOrThrow(root, path, "chmod");
    // Never follows a final link; a link itself has no mode on Linux, so glibc answers
    // EOPNOTSUPP for it, which is what the caller should see.
    if (::fchmodat(location.parentFd, location.name.c_str(), mode & 07777, AT_SYMLINK_NOFOLLOW) != 0) {
        fail(errno, "chmod", root, path);
    }
}

void RealFileSystem::setOwner(const EndpointRoot& root, const RelativePath& path, std::uint32_t uid,
                              std::uint32_t gid) {
    const auto location = locateOrThrow(root, path, "lchown");
    if (::fchownat(location.parentFd, location.name.c_str(), uid, gid, AT_SYMLINK_NOFOLLOW) != 0) {
        fail(errno, "lchown", root, path);
    }
}

void RealFileSystem::setTimes(const EndpointRoot& root, const RelativePath& path, FileTimestamp modification,
                              std::optional<FileTimestamp> access) {
    const auto location = locateOrThrow(root, path, "utimensat");
    timespec times[2];
    times[0] = access ? access->toTimespec() : timespec{0, UTIME_OMIT};
    times[1] = modification.toTimespec();
    if (::utimensat(location.parentFd, location.name.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
        fail(errno, "utimensat", root, path);
    }
}

CopyOutcome RealFileSystem::copyFile(const EndpointRoot& sourceRoot, const RelativePath& sourcePath,
                                     const EndpointRoot& stagingRoot, const RelativePath& stagingPath,
                                     const CopyOptions& options, const CopyProgress& progress,
                                     const SourceCheck& checkSource) {
    const auto source = locateOrThrow(sourceRoot, sourcePath, "open");
    struct stat status {};
    auto input = openRegularFileForReading(source, status);
    if (!input.ok()) fail(input.error(), "open", sourceRoot, sourcePath);
    if (checkSource) checkSource(entryFromStat(status, sourcePath));

    const auto staging = locateOrThrow(stagingRoot, stagingPath, "open");
    // Private until the source's permissions are applied at the very end.
    const int created = retryOnInterrupt([&] {
        return ::openat(staging.parentFd, staging.name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                        0600);
    });
    if (created < 0) fail(errno, "open", stagingRoot, stagingPath);
    const UniqueFd output(created);
    testhooks::reached(testhooks::CommitStep::createStaging);
    // The new file's device decides whether cloning is worth trying; its owner whether
    // the source's must be set.
    struct stat target {};
    if (::fstat(output.get(), &target) != 0) fail(errno, "fstat", stagingRoot, stagingPath);

    const auto sourceDevice = static_cast<std::uint64_t>(status.st_dev);
    const auto targetDevice = static_cast<std::uint64_t>(target.st_dev);
    const bool clone =
        options.allowClone && allowCloning && !cloneRefusals_->contains(sourceDevice, targetDevice);
    // A file with fewer bytes allocated than its length has holes (or is compressed);
    // any other is copied as data throughout, without asking where its holes are.
    const bool mayHaveHoles = std::int64_t{status.st_blocks} * 512 < std::int64_t{status.st_size};
    const auto data = copyFileData(input.value().get(), output.get(), status.st_size, mayHaveHoles, clone,
                                   options.chunkBytes, options.startsWriteback, progress);
    if (const auto* failure = std::get_if<DataCopyFailure>(&data)) {
        if (failure->concernsSource) fail(failure->errnoValue, failure->operation, sourceRoot, sourcePath);
        fail(failure->errnoValue, failure->operation, stagingRoot, stagingPath);
    }
    const auto& copied = std::get<DataCopied>(data);
    if (copied.cloneUnsupported) cloneRefusals_->add(sourceDevice, targetDevice);

    CopyOutcome outcome;
    outcome.bytesWritten = status.st_size;
    outcome.usedClone = copied.cloned;
    outcome.metadataProblems =
        copyFileMetadata(input.value().get(), output.get(), status, target, options.metadataPolicy);
    testhooks::reached(testhooks::CommitStep::metadata);
    return outcome;
}

Sha256Digest RealFileSystem::sha256(const EndpointRoot& root, const RelativePath& path, const HashOptions& options,
                                    const StopRequested& stopRequested) {
    const auto location = locateOrThrow(root, path, "open");
    struct stat status {};
    auto file = openRegularFileForReading(location, status);
    if (!file.ok()) fail(file.error(), "open", root, path);
    const int fd = file.value().get();

    if (options.readFromDevice) {
        // Dropping the cache only discards clean pages: write the dirty ones out first.
        if (retryOnInterrupt([&] { return ::fdatasync(fd); }) != 0) fail(errno, "fdatasync", root, path);
        ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    }
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);

    Sha256 hasher;
    const auto buffer = std::make_unique<char[]>(kHashBlockBytes);
    while (true) {
        if (stopRequested && stopRequested()) throw OperationCancelled();
        const ssize_t count = retryOnInterrupt([&] { return ::read(fd, buffer.get(), kHashBlockBytes); });
        if (count < 0) fail(errno, "read", root, path);
        if (count == 0) break;
        hasher.update(buffer.get(), static_cast<std::size_t>(count));
    }
    return hasher.finish();
}

bool RealFileSystem::existsAtPath(const std::string& absolutePath) {
    struct stat status {};
    return ::fstatat(AT_FDCWD, absolutePath.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

FileSystemEntry RealFileSystem::entryAtPath(const std::string& absolutePath) {
    auto entry = statEntry(AT_FDCWD, absolutePath.c_str());
    if (!entry.ok()) throw POSIXFileError(entry.error(), "statx", absolutePath);
    return std::move(entry.value());
}

std::string RealFileSystem::canonicalPath(const std::string& absolutePath) {
    const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(absolutePath.c_str(), nullptr), &std::free);
    if (!resolved) throw POSIXFileError(errno, "realpath", absolutePath);
    return resolved.get();
}

void RealFileSystem::makeDirectoryAtPath(const std::string& absolutePath, std::uint16_t mode) {
    if (::mkdir(absolutePath.c_str(), mode) != 0) throw POSIXFileError(errno, "mkdir", absolutePath);
}

VolumeInfo RealFileSystem::volumeInfo(const std::string& absolutePath) { return queryLinuxVolume(absolutePath); }

std::optional<int> RealFileSystem::volumeFailure(const EndpointRoot& root) {
    const int rootFd = rootDescriptor(root);
    if (rootFd < 0) return std::nullopt;
    const auto gone = [](int error) { return mayMeanVolumeGone(error) ? std::optional<int>(error) : std::nullopt; };
    const UniqueFd folder(
        retryOnInterrupt([&] { return ::openat(rootFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!folder) return gone(errno);
    struct stat status {};
    if (::fstat(folder.get(), &status) != 0) return gone(errno);
    struct statfs volume {};
    if (retryOnInterrupt([&] { return ::fstatfs(folder.get(), &volume); }) != 0) return gone(errno);
    char names[4096];
    if (retryOnInterrupt([&] { return ::getdents64(folder.get(), names, sizeof names); }) < 0) return gone(errno);
    if (retryOnInterrupt([&] { return ::fsync(folder.get()); }) != 0) return gone(errno);
    return std::nullopt;
}

}  // namespace varnel
