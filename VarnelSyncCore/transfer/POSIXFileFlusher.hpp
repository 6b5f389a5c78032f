#pragma once

#include "common/MonotonicClock.hpp"
#include "transfer/FileFlushing.hpp"

#include <functional>
#include <memory>

namespace varnel {

// FileFlushing with the system's own calls, on roots opened by RealFileSystem (a root
// from elsewhere fails to open with EBADF). Items are opened beneath the root without
// following links (a link in place of the staged file fails with ELOOP), read-only and
// non-blocking, so a FIFO planted there cannot hang the run.
//
// On Linux the modes map to:
//   durable  file: fdatasync            folder: fsync
//   maximum  file and folder: fsync (data and all metadata); where the file system
//            refuses it as unsupported (EINVAL, ENOTTY, EOPNOTSUPP, ENOSYS), fdatasync
//            instead, reported as fellBackFromFullFlush.
// Only the flush calls are timed, so time / count reflects what the storage costs.
// Keeps no state besides its clock and calls; every flush uses its own descriptor,
// which is closed on every path.
class POSIXFileFlusher final : public FileFlushing {
public:
    // The calls that push data to storage; each returns 0, or -1 with errno set, as the
    // system calls do. Tests replace them to play a device that refuses or fails.
    struct FlushCalls {
        std::function<int(int fd)> fullFlush;  // data and all metadata (fsync)
        std::function<int(int fd)> dataFlush;  // data and what is needed to read it back (fdatasync)

        static FlushCalls system();
    };

    explicit POSIXFileFlusher(std::shared_ptr<const MonotonicClock> clock = std::make_shared<SteadyMonotonicClock>(),
                              FlushCalls calls = FlushCalls::system());

    FlushResult flushFile(const EndpointRoot& root, const RelativePath& path, DurabilityMode mode,
                          std::uint64_t expectedSize) override;
    FlushResult flushDirectory(const EndpointRoot& root, const RelativePath& path, DurabilityMode mode) override;

private:
    std::shared_ptr<const MonotonicClock> clock_;
    FlushCalls calls_;
};

}  // namespace varnel
