#include "platform/FileDataCopy.hpp"

#include "common/TestHooks.hpp"
#include "platform/SystemCall.hpp"
#include "scan/OperationCancelled.hpp"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>

namespace varnel {

namespace {

// The read/write fallback moves at most this much per call, through one buffer.
constexpr std::size_t kFallbackBufferBytes = std::size_t{1} << 20;

// A copy that starts its writeback does so this much at a time: a photo is a few of
// these, so its writing overlaps its reading instead of all waiting for the flush.
constexpr std::size_t kWritebackBlockBytes = std::size_t{1} << 20;

// The kernel's ways of saying "copy_file_range cannot do this pair of files".
bool copyFileRangeRefused(int error) {
    return error == EXDEV || error == EINVAL || error == EOPNOTSUPP || error == ENOSYS;
}

// FICLONE's answers that hold for every file between the two file systems: they cannot
// share blocks at all, or are not one file system. EINVAL is not among them: btrfs gives
// it for single files (one with checksums off, say) while others clone fine.
bool cloneUnsupportedBetweenFileSystems(int error) {
    return error == EOPNOTSUPP || error == ENOTTY || error == ENOSYS || error == EXDEV;
}

// Errors that can only come from writing the target.
bool isTargetError(int error) {
    return error == ENOSPC || error == EDQUOT || error == EFBIG || error == EROFS;
}

class DataMover {
public:
    DataMover(int sourceFd, int targetFd, std::size_t chunkBytes, bool startsWriteback, const CopyProgress& progress)
        : source_(sourceFd),
          target_(targetFd),
          chunkBytes_(std::max<std::size_t>(startsWriteback ? std::min(chunkBytes, kWritebackBlockBytes) : chunkBytes,
                                            4096)),
          startsWriteback_(startsWriteback),
          progress_(progress) {}

    void report(std::int64_t increment) {
        if (progress_ && !progress_(increment)) throw OperationCancelled();
    }

    // Copies [start, end) block by block. Returns a failure, or none.
    std::optional<DataCopyFailure> copyRange(std::int64_t start, std::int64_t end) {
        std::int64_t position = start;
        while (position < end) {
            const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(end - position, chunkBytes_));
            std::int64_t moved = 0;
            if (auto failure = moveBlock(position, wanted, moved)) return failure;
            if (moved == 0) return DataCopyFailure{"read", ENODATA, true};  // the source ended early
            // Not for the last block: the flush that follows writes it at once anyway, and a
            // small file would pay a system call for nothing.
            if (startsWriteback_ && position + moved < end) startWriteback(position, moved);
            position += moved;
            if (position < end) testhooks::reached(testhooks::CommitStep::copyData);
            report(moved);
        }
        return std::nullopt;
    }

private:
    // Advisory: a failure here shows again in the flush, which reports it.
    void startWriteback(std::int64_t position, std::int64_t bytes) const {
#ifdef SYNC_FILE_RANGE_WRITE
        [[maybe_unused]] const int ignored = ::sync_file_range(target_, position, bytes, SYNC_FILE_RANGE_WRITE);
#else
        (void)position;
        (void)bytes;
#endif
    }

    // Moves up to `wanted` bytes at `position`; `moved` 0 means the source ended.
    std::optional<DataCopyFailure> moveBlock(std::int64_t position, std::size_t wanted, std::int64_t& moved) {
        if (useCopyFileRange_) {
            loff_t in = position;
            loff_t out = position;
            const ssize_t count =
                retryOnInterrupt([&] { return ::copy_file_range(source_, &in, target_, &out, wanted, 0); });
            if (count >= 0) {
                moved = count;
                return std::nullopt;
            }
            const int error = errno;
            if (!copyFileRangeRefused(error)) {
                return DataCopyFailure{"copy_file_range", error, !isTargetError(error)};
            }
            useCopyFileRange_ = false;  // for the rest of this file
        }
        return readThenWrite(position, std::min(wanted, kFallbackBufferBytes), moved);
    }

    std::optional<DataCopyFailure> readThenWrite(std::int64_t position, std::size_t wanted, std::int64_t& moved) {
        if (!buffer_) buffer_ = std::make_unique<char[]>(kFallbackBufferBytes);
        const ssize_t count = retryOnInterrupt([&] { return ::pread(source_, buffer_.get(), wanted, position); });
        if (count < 0) return DataCopyFailure{"read", errno, true};
        std::size_t written = 0;
        while (written < static_cast<std::size_t>(count)) {
            const ssize_t step = retryOnInterrupt([&] {
                return ::pwrite(target_, buffer_.get() + written, static_cast<std::size_t>(count) - written,
                                position + static_cast<std::int64_t>(written));
            });
            if (step < 0) return DataCopyFailure{"write", errno, false};
            if (step == 0) return DataCopyFailure{"write", EIO, false};  // no progress: never loop forever
            written += static_cast<std::size_t>(step);
        }
        moved = count;
        return std::nullopt;
    }

    int source_;
    int target_;
    std::size_t chunkBytes_;
    bool startsWriteback_;
    const CopyProgress& progress_;
    bool useCopyFileRange_ = true;
    std::unique_ptr<char[]> buffer_;
};

// The next data region at or after `offset`, clamped to `size`: [start, end). Where the
// file system cannot tell holes (EINVAL), everything left is data.
std::optional<DataCopyFailure> nextDataRegion(int fd, std::int64_t offset, std::int64_t size, std::int64_t& start,
                                              std::int64_t& end) {
    const off_t data = ::lseek(fd, offset, SEEK_DATA);
    if (data < 0) {
        if (errno == ENXIO) {  // nothing but a hole up to the end
            start = end = size;
            return std::nullopt;
        }
        if (errno != EINVAL && errno != EOPNOTSUPP) return DataCopyFailure{"lseek", errno, true};
        start = offset;
        end = size;
        return std::nullopt;
    }
    start = std::min<std::int64_t>(data, size);
    if (start == size) {
        end = size;
        return std::nullopt;
    }
    const off_t hole = ::lseek(fd, start, SEEK_HOLE);
    if (hole < 0) {
        if (errno != ENXIO) return DataCopyFailure{"lseek", errno, true};
        end = size;  // the file shrank below `start` meanwhile: the copy will notice
        return std::nullopt;
    }
    end = std::min<std::int64_t>(std::max<std::int64_t>(hole, start), size);
    if (end == start) end = size;  // a file system that answers oddly: copy the rest as data
    return std::nullopt;
}

}  // namespace

std::variant<DataCopied, DataCopyFailure> copyFileData(int sourceFd, int targetFd, std::int64_t size,
                                                       bool mayHaveHoles, bool allowClone, std::size_t chunkBytes,
                                                       bool startsWriteback, const CopyProgress& progress) {
    DataMover mover(sourceFd, targetFd, chunkBytes, startsWriteback, progress);
    mover.report(0);

    DataCopied copied;
    if (allowClone && size > 0) {
        if (::ioctl(targetFd, FICLONE, sourceFd) == 0) {
            // A clone takes the source's whole length, which may have grown since `size` was read.
            testhooks::reached(testhooks::CommitStep::finalBlock);
            if (::ftruncate(targetFd, size) != 0) return DataCopyFailure{"ftruncate", errno, false};
            mover.report(size);
            copied.cloned = true;
            return copied;
        }
        copied.cloneUnsupported = cloneUnsupportedBetweenFileSystems(errno);
    }

    std::int64_t offset = 0;
    std::int64_t dataEnd = 0;  // the target's length so far: the end of the last data written
    while (offset < size) {
        std::int64_t start = offset;
        std::int64_t end = size;
        if (mayHaveHoles) {
            if (auto failure = nextDataRegion(sourceFd, offset, size, start, end)) return *failure;
        }
        if (start > offset) mover.report(start - offset);  // a hole, kept by not writing it
        if (auto failure = mover.copyRange(start, end)) return *failure;
        if (end > start) dataEnd = end;
        offset = end;
    }
    testhooks::reached(testhooks::CommitStep::finalBlock);
    // Sets the final length where the data stopped short of it, so a trailing hole stays
    // a hole. A file written up to its end needs nothing more (some FUSE drivers, such as
    // fusefat, refuse ftruncate).
    if (dataEnd != size && ::ftruncate(targetFd, size) != 0) return DataCopyFailure{"ftruncate", errno, false};
    return copied;
}

}  // namespace varnel
