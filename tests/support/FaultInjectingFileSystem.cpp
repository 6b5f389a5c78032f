#include "support/FaultInjectingFileSystem.hpp"

#include "common/Sha256.hpp"
#include "scan/POSIXFileError.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace varnel::testing {

namespace {

// The system call the real file system names when the operation fails.
std::string systemCallOf(const std::string& operation) {
    static const std::map<std::string, std::string> names = {
        {"openRoot", "open"},         {"entry", "statx"},          {"exists", "access"},
        {"readLink", "readlink"},     {"extendedAttribute", "getxattr"},
        {"extendedAttributeNames", "listxattr"},                   {"listDirectory", "opendir"},
        {"openDirectory", "opendir"}, {"openFolder", "open"},      {"sourceOpened", "open"},
        {"makeDirectory", "mkdir"},   {"makeSymbolicLink", "symlink"},
        {"removeFile", "unlink"},     {"removeDirectory", "rmdir"}, {"rename", "rename"},
        {"setPermissions", "chmod"},  {"setOwner", "lchown"},      {"setTimes", "utimensat"},
        {"copyFile", "open"},         {"sha256", "read"},          {"existsAtPath", "access"},
        {"entryAtPath", "statx"},     {"canonicalPath", "realpath"}, {"makeDirectoryAtPath", "mkdir"},
        {"volumeInfo", "statfs"},
    };
    const auto found = names.find(operation);
    return found != names.end() ? found->second : operation;
}

}  // namespace

FaultInjectingFileSystem::FaultInjectingFileSystem(std::shared_ptr<FileSystemProviding> inner)
    : inner_(std::move(inner)) {}

void FaultInjectingFileSystem::failCall(const std::string& operation, int errnoValue, int occurrence) {
    std::lock_guard lock(mutex_);
    triggers_.push_back(Trigger{operation, counts_[operation] + occurrence, nullptr, errnoValue});
}

void FaultInjectingFileSystem::atCall(const std::string& operation, std::function<void()> action, int occurrence) {
    std::lock_guard lock(mutex_);
    triggers_.push_back(Trigger{operation, counts_[operation] + occurrence, std::move(action), std::nullopt});
}

void FaultInjectingFileSystem::failCopyWhenReached(std::int64_t bytes, int errnoValue, CopySide side) {
    std::lock_guard lock(mutex_);
    copyFault_ = CopyFault{bytes, errnoValue, side};
}

std::vector<std::string> FaultInjectingFileSystem::callPaths(const std::string& operation) const {
    std::lock_guard lock(mutex_);
    const auto found = paths_.find(operation);
    return found != paths_.end() ? found->second : std::vector<std::string>{};
}

void FaultInjectingFileSystem::addMetadataProblem(const std::string& problem) {
    std::lock_guard lock(mutex_);
    extraMetadataProblems_.push_back(problem);
}

void FaultInjectingFileSystem::shortenWrite(std::int64_t keepBytes) {
    std::lock_guard lock(mutex_);
    shortWrite_ = keepBytes;
}

void FaultInjectingFileSystem::shortenRead(std::int64_t keepBytes) {
    std::lock_guard lock(mutex_);
    shortRead_ = keepBytes;
}

void FaultInjectingFileSystem::trackWrites(std::shared_ptr<UnflushedWrites> writes) {
    std::lock_guard lock(mutex_);
    writes_ = std::move(writes);
}

std::shared_ptr<UnflushedWrites> FaultInjectingFileSystem::trackedWrites() const {
    std::lock_guard lock(mutex_);
    return writes_;
}

void FaultInjectingFileSystem::enter(const std::string& operation, const std::string& shownPath) {
    std::vector<Trigger> due;
    {
        std::lock_guard lock(mutex_);
        const int number = ++counts_[operation];
        paths_[operation].push_back(shownPath);
        for (const auto& trigger : triggers_) {
            if (trigger.operation == operation && trigger.callNumber == number) due.push_back(trigger);
        }
    }
    // Actions run without the lock: they may use this file system themselves.
    for (const auto& trigger : due) {
        if (trigger.errnoValue) throw POSIXFileError(*trigger.errnoValue, systemCallOf(operation), shownPath);
        trigger.action();
    }
}

EndpointRoot FaultInjectingFileSystem::openRoot(const std::string& absolutePath) {
    enter("openRoot", absolutePath);
    return inner_->openRoot(absolutePath);
}

FreshEntry FaultInjectingFileSystem::entry(const EndpointRoot& root, const RelativePath& path) {
    enter("entry", displayPath(root, path));
    return inner_->entry(root, path);
}

bool FaultInjectingFileSystem::exists(const EndpointRoot& root, const RelativePath& path) {
    try {
        enter("exists", displayPath(root, path));
    } catch (const POSIXFileError&) {
        return false;  // never throws, as the interface promises
    }
    return inner_->exists(root, path);
}

std::string FaultInjectingFileSystem::readLink(const EndpointRoot& root, const RelativePath& path) {
    enter("readLink", displayPath(root, path));
    return inner_->readLink(root, path);
}

std::optional<std::string> FaultInjectingFileSystem::extendedAttribute(const EndpointRoot& root,
                                                                       const RelativePath& path,
                                                                       const std::string& name) {
    enter("extendedAttribute", displayPath(root, path));
    return inner_->extendedAttribute(root, path, name);
}

std::vector<std::string> FaultInjectingFileSystem::extendedAttributeNames(const EndpointRoot& root,
                                                                          const RelativePath& path) {
    enter("extendedAttributeNames", displayPath(root, path));
    return inner_->extendedAttributeNames(root, path);
}

std::vector<std::string> FaultInjectingFileSystem::listDirectory(const EndpointRoot& root, const RelativePath& path) {
    enter("listDirectory", displayPath(root, path));
    return inner_->listDirectory(root, path);
}

std::unique_ptr<OpenDirectory> FaultInjectingFileSystem::openDirectory(const EndpointRoot& root,
                                                                       const RelativePath& path) {
    enter("openDirectory", displayPath(root, path));
    return inner_->openDirectory(root, path);
}

EndpointRoot FaultInjectingFileSystem::openFolder(const EndpointRoot& root, const RelativePath& path) {
    enter("openFolder", displayPath(root, path));
    return inner_->openFolder(root, path);
}

void FaultInjectingFileSystem::makeDirectory(const EndpointRoot& root, const RelativePath& path,
                                             std::uint16_t mode) {
    enter("makeDirectory", displayPath(root, path));
    inner_->makeDirectory(root, path, mode);
}

void FaultInjectingFileSystem::makeSymbolicLink(const EndpointRoot& root, const RelativePath& path,
                                                const std::string& target) {
    enter("makeSymbolicLink", displayPath(root, path));
    inner_->makeSymbolicLink(root, path, target);
}

void FaultInjectingFileSystem::removeFile(const EndpointRoot& root, const RelativePath& path) {
    const std::string shown = displayPath(root, path);
    enter("removeFile", shown);
    inner_->removeFile(root, path);
    if (const auto writes = trackedWrites()) writes->removed(shown);
}

void FaultInjectingFileSystem::removeDirectory(const EndpointRoot& root, const RelativePath& path) {
    enter("removeDirectory", displayPath(root, path));
    inner_->removeDirectory(root, path);
}

void FaultInjectingFileSystem::rename(const EndpointRoot& fromRoot, const RelativePath& from,
                                      const EndpointRoot& toRoot, const RelativePath& to, RenameMode mode) {
    const std::string shown = displayPath(fromRoot, from);
    enter("rename", shown);
    inner_->rename(fromRoot, from, toRoot, to, mode);
    if (const auto writes = trackedWrites()) writes->renamed(shown, displayPath(toRoot, to));
}

void FaultInjectingFileSystem::setPermissions(const EndpointRoot& root, const RelativePath& path,
                                              std::uint16_t mode) {
    enter("setPermissions", displayPath(root, path));
    inner_->setPermissions(root, path, mode);
}

void FaultInjectingFileSystem::setOwner(const EndpointRoot& root, const RelativePath& path, std::uint32_t uid,
                                        std::uint32_t gid) {
    enter("setOwner", displayPath(root, path));
    inner_->setOwner(root, path, uid, gid);
}

void FaultInjectingFileSystem::setTimes(const EndpointRoot& root, const RelativePath& path,
                                        FileTimestamp modification, std::optional<FileTimestamp> access) {
    enter("setTimes", displayPath(root, path));
    inner_->setTimes(root, path, modification, access);
}

CopyOutcome FaultInjectingFileSystem::copyFile(const EndpointRoot& sourceRoot, const RelativePath& sourcePath,
                                               const EndpointRoot& stagingRoot, const RelativePath& stagingPath,
                                               const CopyOptions& options, const CopyProgress& progress,
                                               const SourceCheck& checkSource) {
    enter("copyFile", displayPath(stagingRoot, stagingPath));
    std::optional<CopyFault> fault;
    std::vector<std::string> extraProblems;
    std::optional<std::int64_t> shortWrite;
    std::shared_ptr<UnflushedWrites> writes;
    {
        std::lock_guard lock(mutex_);
        fault = std::exchange(copyFault_, std::nullopt);
        extraProblems = std::exchange(extraMetadataProblems_, {});
        shortWrite = std::exchange(shortWrite_, std::nullopt);
        writes = writes_;
    }
    const std::string stagingShown = displayPath(stagingRoot, stagingPath);
    if (writes) writes->written(stagingShown);
    CopyProgress observed = progress;
    if (fault) {
        const bool source = fault->side == CopySide::source;
        const std::string failedShown = source ? displayPath(sourceRoot, sourcePath) : stagingShown;
        observed = [progress, fault, failedShown, source, total = std::int64_t{0}](std::int64_t increment) mutable {
            total += increment;
            if (total >= fault->bytes && total > 0) {
                throw POSIXFileError(fault->errnoValue, source ? "read" : "write", failedShown);
            }
            return progress ? progress(increment) : true;
        };
    }
    const std::string sourceShown = displayPath(sourceRoot, sourcePath);
    const SourceCheck checked = [&](const FreshEntry& opened) {
        if (checkSource) checkSource(opened);
        enter("sourceOpened", sourceShown);
    };
    CopyOutcome outcome =
        inner_->copyFile(sourceRoot, sourcePath, stagingRoot, stagingPath, options, observed, checked);
    if (shortWrite && ::truncate(stagingShown.c_str(), *shortWrite) != 0) {
        throw POSIXFileError(errno, "truncate", stagingShown);  // the test's own set-up failed
    }
    outcome.metadataProblems.insert(outcome.metadataProblems.end(), extraProblems.begin(), extraProblems.end());
    return outcome;
}

Sha256Digest FaultInjectingFileSystem::sha256(const EndpointRoot& root, const RelativePath& path,
                                              const HashOptions& options, const StopRequested& stopRequested) {
    const std::string shown = displayPath(root, path);
    enter("sha256", shown);
    std::optional<std::int64_t> shortRead;
    {
        std::lock_guard lock(mutex_);
        shortRead = std::exchange(shortRead_, std::nullopt);
    }
    if (!shortRead) return inner_->sha256(root, path, options, stopRequested);
    // The digest of the first bytes only, as a reader that stopped early would compute it.
    const int fd = ::open(shown.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) throw POSIXFileError(errno, "open", shown);
    Sha256 hasher;
    std::string buffer(static_cast<std::size_t>(std::max<std::int64_t>(*shortRead, 0)), '\0');
    const ssize_t count = ::pread(fd, buffer.data(), buffer.size(), 0);
    const int error = errno;
    ::close(fd);
    if (count < 0) throw POSIXFileError(error, "read", shown);
    hasher.update(buffer.data(), static_cast<std::size_t>(count));
    return hasher.finish();
}

bool FaultInjectingFileSystem::existsAtPath(const std::string& absolutePath) {
    try {
        enter("existsAtPath", absolutePath);
    } catch (const POSIXFileError&) {
        return false;
    }
    return inner_->existsAtPath(absolutePath);
}

FileSystemEntry FaultInjectingFileSystem::entryAtPath(const std::string& absolutePath) {
    enter("entryAtPath", absolutePath);
    return inner_->entryAtPath(absolutePath);
}

std::string FaultInjectingFileSystem::canonicalPath(const std::string& absolutePath) {
    enter("canonicalPath", absolutePath);
    return inner_->canonicalPath(absolutePath);
}

void FaultInjectingFileSystem::makeDirectoryAtPath(const std::string& absolutePath, std::uint16_t mode) {
    enter("makeDirectoryAtPath", absolutePath);
    inner_->makeDirectoryAtPath(absolutePath, mode);
}

VolumeInfo FaultInjectingFileSystem::volumeInfo(const std::string& absolutePath) {
    enter("volumeInfo", absolutePath);
    return inner_->volumeInfo(absolutePath);
}

std::optional<int> FaultInjectingFileSystem::volumeFailure(const EndpointRoot& root) {
    return checksVolumes ? inner_->volumeFailure(root) : std::nullopt;
}

}  // namespace varnel::testing
