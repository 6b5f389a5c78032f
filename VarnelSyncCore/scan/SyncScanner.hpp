#pragma once

#include "scan/EndpointRoot.hpp"
#include "scan/ExclusionEngine.hpp"
#include "scan/FileSystemProviding.hpp"
#include "scan/ScanResult.hpp"
#include "transfer/EndpointRole.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <stop_token>

namespace varnel {

// Threads per scan that list folders and read their items ahead of the walk, which on a
// cold disk keeps many requests in flight. What a scan finds, and in which order, is the
// same with or without them.
struct ScanReadAhead {
    std::size_t helpers = 0;
    // The disk blocks (512 bytes) the walk's own reads must have needed before the
    // helpers start; 0 starts them at once. 32 KiB is a few folders on a cold disk.
    std::int64_t diskBlocksBeforeHelping = 64;
};

// Walks one endpoint breadth-first and records what is there. It only reads: one
// listing per folder and one stat per item, never file contents. A folder that cannot
// be listed is reported in unreadableDirectories, so the planner can protect what lies
// below its counterpart.
class SyncScanner {
public:
    // The engine's own folder at the destination root; never part of a sync.
    static constexpr const char* kArchiveFolderName = ".VarnelSync-Archive";
    static constexpr std::int64_t kDefaultProgressInterval = 1000;

    using ProgressHandler = std::function<void(const ScanProgress&)>;

    using ReadAhead = ScanReadAhead;
    static constexpr ReadAhead kDefaultReadAhead{4, 64};

    SyncScanner(FileSystemProviding& fileSystem, ExclusionEngine exclusions,
                std::int64_t progressInterval = kDefaultProgressInterval, ReadAhead readAhead = {});

    // Throws SyncError::Cancelled (with no partial result) when `stop` is requested;
    // every other problem becomes a warning and the scan goes on. Once `helpersWanted` is
    // requested, the read-ahead helpers work on a warm cache too: a processor is free.
    ScanResult scan(const EndpointRoot& root, EndpointRole role, bool volumeIsCaseSensitive,
                    const ProgressHandler& onProgress = {}, std::stop_token stop = {},
                    std::stop_token helpersWanted = {}) const;

private:
    FileSystemProviding& fileSystem_;
    ExclusionEngine exclusions_;
    std::int64_t progressInterval_;
    ReadAhead readAhead_;
};

// Whether a link at `linkPath` with `target` points outside the endpoint whose root was
// opened at `rootPath`. Relative targets are resolved against the link's folder, by
// their text alone (nothing is followed).
bool symlinkTargetEscapesRoot(const RelativePath& linkPath, const std::string& target, const std::string& rootPath);

}  // namespace varnel
