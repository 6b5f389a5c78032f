#pragma once

#include "scan/EndpointRoot.hpp"
#include "scan/ExclusionEngine.hpp"
#include "scan/FileSystemProviding.hpp"
#include "scan/ScanResult.hpp"
#include "transfer/EndpointRole.hpp"

#include <cstdint>
#include <functional>
#include <stop_token>

namespace varnel {

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

    SyncScanner(FileSystemProviding& fileSystem, ExclusionEngine exclusions,
                std::int64_t progressInterval = kDefaultProgressInterval);

    // Throws SyncError::Cancelled (with no partial result) when `stop` is requested;
    // every other problem becomes a warning and the scan goes on.
    ScanResult scan(const EndpointRoot& root, EndpointRole role, bool volumeIsCaseSensitive,
                    const ProgressHandler& onProgress = {}, std::stop_token stop = {}) const;

private:
    FileSystemProviding& fileSystem_;
    ExclusionEngine exclusions_;
    std::int64_t progressInterval_;
};

// Whether a link at `linkPath` with `target` points outside the endpoint whose root was
// opened at `rootPath`. Relative targets are resolved against the link's folder, by
// their text alone (nothing is followed).
bool symlinkTargetEscapesRoot(const RelativePath& linkPath, const std::string& target, const std::string& rootPath);

}  // namespace varnel
