#pragma once

#include "common/MonotonicClock.hpp"
#include "model/RelativePath.hpp"
#include "transfer/ETACalculator.hpp"
#include "transfer/SyncPhase.hpp"
#include "transfer/TransferProgress.hpp"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace varnel {

// Collects the progress of every copy in flight into one TransferProgress for the
// interface. One per run; all copies report to it from their own threads, so every
// operation takes the lock and they apply one at a time.
//
// Throughput is sampled at most once per sampleInterval, on the first update after the
// interval has passed, and fed to the ETA calculator; the estimate is made once per
// sample (so its growth cap acts per second, not per update) and counts down between
// samples. Snapshots go to the handler at most once per publishInterval; a change of
// phase and an explicit publish() go out at once.
//
// The handler runs outside the aggregator's lock (it may call snapshot()), one call at
// a time, and never receives an older snapshot after a newer one. It must not call an
// operation that publishes, which would wait for itself.
class ProgressAggregator {
public:
    using SnapshotHandler = std::function<void(const TransferProgress&)>;
    enum class ItemOutcome { completed, skipped, failed };

    // Four snapshots a second look fluid without flooding the interface's thread; one
    // throughput sample a second is fine-grained enough for the ETA's smoothing.
    static constexpr double kDefaultPublishInterval = 0.25;
    static constexpr double kDefaultSampleInterval = 1.0;

    explicit ProgressAggregator(std::shared_ptr<const MonotonicClock> clock, ETACalculator etaCalculator = {},
                                double publishInterval = kDefaultPublishInterval,
                                double sampleInterval = kDefaultSampleInterval);

    void setSnapshotHandler(SnapshotHandler handler);
    // What the run is expected to copy: the bytes and number of its file actions.
    void setPlannedTotals(std::uint64_t totalBytes, int totalFiles);
    void setPhase(SyncPhase phase);

    // A copy starts: it becomes the current item and counts as active.
    void beginItem(const RelativePath& path, std::uint64_t size, std::string operation);
    // Bytes copied for an item since its last report.
    void addBytes(const RelativePath& path, std::uint64_t bytes);
    // A file ends. Whatever part of its size it did not copy (skipped, failed, or a file
    // that shrank) no longer counts as remaining for the estimate; for an item that never
    // began, that is `plannedSize`.
    void finishItem(const RelativePath& path, ItemOutcome outcome, std::uint64_t plannedSize = 0);
    void recordDirectoryCreated();
    void recordItemArchived();

    // Sends the current snapshot to the handler now.
    void publish();
    TransferProgress snapshot() const;
    // The fastest sampled interval so far, in bytes per second.
    double peakBytesPerSecond() const;

private:
    struct InFlightItem {
        std::uint64_t size = 0;
        std::uint64_t transferred = 0;
        std::string operation;
        std::uint64_t sequence = 0;  // order of beginning; the newest is the current item
    };

    void startClockIfNeeded(std::uint64_t now);
    void sampleIfDue(std::uint64_t now);
    void refreshCurrentItem();
    std::uint64_t remainingBytes() const;
    std::int64_t remainingFiles() const;
    int finishedFiles() const;
    TransferProgress makeSnapshot(std::uint64_t now) const;
    // Samples, then publishes when forced or when the publish interval has passed.
    void changed(std::unique_lock<std::mutex>& lock, bool force);

    const std::shared_ptr<const MonotonicClock> clock_;
    const ETACalculator etaCalculator_;
    const std::uint64_t publishIntervalNanoseconds_;
    const std::uint64_t sampleIntervalNanoseconds_;

    mutable std::mutex mutex_;
    ETACalculator::State etaState_;
    TransferProgress progress_;
    std::optional<std::uint64_t> startTime_;
    std::uint64_t lastSampleTime_ = 0;
    std::uint64_t bytesAtLastSample_ = 0;
    int filesAtLastSample_ = 0;
    std::optional<std::uint64_t> lastPublishTime_;
    std::map<std::string, InFlightItem, std::less<>> inFlight_;  // by relative path text
    SnapshotHandler snapshotHandler_;
    std::uint64_t nextSequence_ = 0;
    std::uint64_t bytesSettledUncopied_ = 0;  // planned bytes of finished items that were never copied
    std::optional<double> estimateAtSample_;
    std::uint64_t estimateTime_ = 0;
    double peakBytesPerSecond_ = 0;
    std::uint64_t publishSequence_ = 0;

    std::mutex deliveryMutex_;  // one handler call at a time, in order
    std::uint64_t deliveredSequence_ = 0;
};

}  // namespace varnel
