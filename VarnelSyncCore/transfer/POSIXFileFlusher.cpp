#include "transfer/POSIXFileFlusher.hpp"

#include "platform/BeneathResolver.hpp"
#include "platform/SystemCall.hpp"
#include "platform/UniqueFd.hpp"
#include "scan/FileSystemProviding.hpp"
#include "scan/RealFileSystem.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace varnel {

namespace {

// The answers of a file system that has no full flush to offer: the weaker flush is
// used instead and the fallback is reported, not treated as a failure.
bool refusedAsUnsupported(int error) {
    return error == EINVAL || error == ENOTTY || error == EOPNOTSUPP || error == ENOSYS;
}

// Opens the item `path` beneath the root without following a link anywhere on the
// way; returns the descriptor or -1 with errno set.
int openFileBeneath(const EndpointRoot& root, const RelativePath& path) {
    const int rootFd = RealFileSystem::rootDescriptor(root);
    if (rootFd < 0) {
        errno = EBADF;  // a root this class cannot reach into
        return -1;
    }
    const RelativePath parentPath = path.parent();
    UniqueFd parent;
    int parentFd = rootFd;
    if (!parentPath.isRoot()) {
        auto opened = openDirectoryBeneath(rootFd, parentPath, DirectoryAccess::pathOnly);
        if (!opened.ok()) {
            errno = opened.error();
            return -1;
        }
        parent = std::move(opened.value());
        parentFd = parent.get();
    }
    const std::string name = path.isRoot() ? std::string(".") : std::string(path.lastComponent());
    // Non-blocking: opening a FIFO for reading would otherwise wait for a writer.
    return retryOnInterrupt(
        [&] { return ::openat(parentFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); });
}

int callRetrying(const std::function<int(int)>& flush, int fd) {
    return retryOnInterrupt([&] { return flush(fd); });
}

}  // namespace

POSIXFileFlusher::FlushCalls POSIXFileFlusher::FlushCalls::system() {
    return FlushCalls{[](int fd) { return ::fsync(fd); }, [](int fd) { return ::fdatasync(fd); }};
}

POSIXFileFlusher::POSIXFileFlusher(std::shared_ptr<const MonotonicClock> clock, FlushCalls calls)
    : clock_(std::move(clock)), calls_(std::move(calls)) {}

FlushResult POSIXFileFlusher::flushFile(const EndpointRoot& root, const RelativePath& path, DurabilityMode mode,
                                        std::uint64_t expectedSize) {
    if (mode == DurabilityMode::fast) return {};
    const std::string name(path.lastComponent());

    // errno is read at once: building the error's strings may allocate.
    const UniqueFd fd(openFileBeneath(root, path));
    if (!fd) {
        const int error = errno;
        throw DurabilityError(DurabilityError::PartialFileOpenFailed{name, error});
    }
    struct stat status {};
    if (::fstat(fd.get(), &status) != 0) {
        const int error = errno;
        throw DurabilityError(DurabilityError::PartialFileOpenFailed{name, error});
    }
    if (!S_ISREG(status.st_mode)) throw DurabilityError(DurabilityError::PartialFileOpenFailed{name, ENOTSUP});
    const auto actual = static_cast<std::uint64_t>(status.st_size);
    if (actual != expectedSize) {
        throw DurabilityError(DurabilityError::StagedFileChangedBeforeFlush{name, expectedSize, actual});
    }

    FlushResult result;
    const std::uint64_t start = clock_->nanoseconds();
    if (mode == DurabilityMode::durable) {
        if (callRetrying(calls_.dataFlush, fd.get()) != 0) {
            const int error = errno;
            throw DurabilityError(DurabilityError::FileFlushFailed{name, error});
        }
    } else if (callRetrying(calls_.fullFlush, fd.get()) != 0) {
        const int error = errno;
        if (!refusedAsUnsupported(error)) throw DurabilityError(DurabilityError::FullFlushFailed{name, error});
        if (callRetrying(calls_.dataFlush, fd.get()) != 0) {
            const int fallbackError = errno;
            throw DurabilityError(DurabilityError::FileFlushFailed{name, fallbackError});
        }
        result.fellBackFromFullFlush = true;
    }
    result.seconds = MonotonicClock::secondsBetween(start, clock_->nanoseconds());
    return result;
}

FlushResult POSIXFileFlusher::flushDirectory(const EndpointRoot& root, const RelativePath& path,
                                             DurabilityMode mode) {
    if (mode == DurabilityMode::fast) return {};
    const std::string shown = displayPath(root, path);

    const int rootFd = RealFileSystem::rootDescriptor(root);
    if (rootFd < 0) throw DurabilityError(DurabilityError::ParentDirectoryOpenFailed{shown, EBADF});
    auto opened = openDirectoryBeneath(rootFd, path, DirectoryAccess::read);
    if (!opened.ok()) throw DurabilityError(DurabilityError::ParentDirectoryOpenFailed{shown, opened.error()});
    const UniqueFd fd = std::move(opened.value());

    FlushResult result;
    const std::uint64_t start = clock_->nanoseconds();
    if (callRetrying(calls_.fullFlush, fd.get()) != 0) {
        const int error = errno;
        // Durable mode asks for the folder's fsync itself: nothing weaker would do.
        if (mode == DurabilityMode::durable || !refusedAsUnsupported(error)) {
            throw DurabilityError(DurabilityError::ParentDirectoryFlushFailed{shown, error});
        }
        if (callRetrying(calls_.dataFlush, fd.get()) != 0) {
            const int fallbackError = errno;
            throw DurabilityError(DurabilityError::ParentDirectoryFlushFailed{shown, fallbackError});
        }
        result.fellBackFromFullFlush = true;
    }
    result.seconds = MonotonicClock::secondsBetween(start, clock_->nanoseconds());
    return result;
}

}  // namespace varnel
