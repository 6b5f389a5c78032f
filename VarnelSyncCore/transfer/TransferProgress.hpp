#pragma once

#include "transfer/SyncPhase.hpp"

#include <cstdint>
#include <optional>
#include <string>

namespace varnel {

// One snapshot of a run's progress, as published to the interface. The "current"
// fields describe the copy begun most recently among those still in flight.
struct TransferProgress {
    SyncPhase phase = SyncPhase::idle;
    std::uint64_t totalBytesPlanned = 0;
    std::uint64_t bytesTransferred = 0;
    int totalFilesPlanned = 0;
    int filesCompleted = 0;
    int filesSkipped = 0;
    int filesFailed = 0;
    int directoriesCreated = 0;
    int itemsArchived = 0;
    std::optional<std::string> currentRelativePath;
    std::uint64_t currentFileSize = 0;
    std::uint64_t currentFileBytesTransferred = 0;
    std::optional<std::string> currentOperation;  // "Copying", "Downloading and updating", ...
    int activeCopyCount = 0;
    // The interface needs these as well, and the aggregator is where they are known:
    std::optional<double> estimatedSecondsRemaining;  // none while the estimate warms up
    double bytesPerSecond = 0;                        // smoothed throughput

    // Share of the planned work done, by bytes when any are planned, else by files; 0...1.
    double fractionCompleted() const;

    friend bool operator==(const TransferProgress&, const TransferProgress&) = default;
};

}  // namespace varnel
