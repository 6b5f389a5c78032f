#include "transfer/ProgressAggregator.hpp"

#include "common/CheckedArithmetic.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

namespace varnel {

namespace {

std::uint64_t toNanoseconds(double seconds) {
    return seconds > 0 ? static_cast<std::uint64_t>(std::llround(seconds * 1e9)) : 0;
}

std::uint64_t addBytesChecked(std::uint64_t a, std::uint64_t b) {
    std::uint64_t sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) fatalOverflow("transferred bytes");
    return sum;
}

}  // namespace

ProgressAggregator::ProgressAggregator(std::shared_ptr<const MonotonicClock> clock, ETACalculator etaCalculator,
                                       double publishInterval, double sampleInterval)
    : clock_(std::move(clock)),
      etaCalculator_(etaCalculator),
      publishIntervalNanoseconds_(toNanoseconds(publishInterval)),
      sampleIntervalNanoseconds_(toNanoseconds(sampleInterval)) {}

void ProgressAggregator::setSnapshotHandler(SnapshotHandler handler) {
    std::lock_guard lock(mutex_);
    snapshotHandler_ = std::move(handler);
}

void ProgressAggregator::setPlannedTotals(std::uint64_t totalBytes, int totalFiles) {
    std::unique_lock lock(mutex_);
    progress_.totalBytesPlanned = totalBytes;
    progress_.totalFilesPlanned = totalFiles;
    changed(lock, false);
}

void ProgressAggregator::setPhase(SyncPhase phase) {
    std::unique_lock lock(mutex_);
    progress_.phase = phase;
    changed(lock, true);
}

void ProgressAggregator::beginItem(const RelativePath& path, std::uint64_t size, std::string operation) {
    std::unique_lock lock(mutex_);
    startClockIfNeeded(clock_->nanoseconds());
    inFlight_[std::string(path.value())] = InFlightItem{size, 0, std::move(operation), nextSequence_++};
    refreshCurrentItem();
    changed(lock, false);
}

void ProgressAggregator::addBytes(const RelativePath& path, std::uint64_t bytes) {
    std::unique_lock lock(mutex_);
    startClockIfNeeded(clock_->nanoseconds());
    progress_.bytesTransferred = addBytesChecked(progress_.bytesTransferred, bytes);
    if (const auto found = inFlight_.find(path.value()); found != inFlight_.end()) {
        found->second.transferred = addBytesChecked(found->second.transferred, bytes);
        refreshCurrentItem();
    }
    changed(lock, false);
}

void ProgressAggregator::finishItem(const RelativePath& path, ItemOutcome outcome, std::uint64_t plannedSize) {
    std::unique_lock lock(mutex_);
    startClockIfNeeded(clock_->nanoseconds());
    std::uint64_t uncopied = plannedSize;
    if (const auto found = inFlight_.find(path.value()); found != inFlight_.end()) {
        const InFlightItem& item = found->second;
        uncopied = item.size > item.transferred ? item.size - item.transferred : 0;
        inFlight_.erase(found);
        refreshCurrentItem();
    }
    bytesSettledUncopied_ = addBytesChecked(bytesSettledUncopied_, uncopied);
    switch (outcome) {
        case ItemOutcome::completed: ++progress_.filesCompleted; break;
        case ItemOutcome::skipped: ++progress_.filesSkipped; break;
        case ItemOutcome::failed: ++progress_.filesFailed; break;
    }
    changed(lock, false);
}

void ProgressAggregator::recordDirectoryCreated() {
    std::unique_lock lock(mutex_);
    ++progress_.directoriesCreated;
    changed(lock, false);
}

void ProgressAggregator::recordItemArchived() {
    std::unique_lock lock(mutex_);
    ++progress_.itemsArchived;
    changed(lock, false);
}

void ProgressAggregator::publish() {
    std::unique_lock lock(mutex_);
    changed(lock, true);
}

TransferProgress ProgressAggregator::snapshot() const {
    std::lock_guard lock(mutex_);
    return makeSnapshot(clock_->nanoseconds());
}

double ProgressAggregator::peakBytesPerSecond() const {
    std::lock_guard lock(mutex_);
    return peakBytesPerSecond_;
}

void ProgressAggregator::startClockIfNeeded(std::uint64_t now) {
    if (startTime_) return;
    startTime_ = now;
    lastSampleTime_ = now;
}

void ProgressAggregator::sampleIfDue(std::uint64_t now) {
    if (!startTime_ || now < lastSampleTime_ || now - lastSampleTime_ < sampleIntervalNanoseconds_) return;
    const double interval = MonotonicClock::secondsBetween(lastSampleTime_, now);
    if (!(interval > 0)) return;
    const std::uint64_t bytes = progress_.bytesTransferred - bytesAtLastSample_;
    const int files = finishedFiles() - filesAtLastSample_;
    etaState_ = etaCalculator_.recordSample(etaState_, bytes, files, interval,
                                            MonotonicClock::secondsBetween(*startTime_, now));
    peakBytesPerSecond_ = std::max(peakBytesPerSecond_, static_cast<double>(bytes) / interval);
    lastSampleTime_ = now;
    bytesAtLastSample_ = progress_.bytesTransferred;
    filesAtLastSample_ = finishedFiles();
    estimateAtSample_ = etaCalculator_.estimate(etaState_, remainingBytes(), remainingFiles());
    estimateTime_ = now;
}

void ProgressAggregator::refreshCurrentItem() {
    const auto newest = std::max_element(inFlight_.begin(), inFlight_.end(), [](const auto& a, const auto& b) {
        return a.second.sequence < b.second.sequence;
    });
    progress_.activeCopyCount = static_cast<int>(inFlight_.size());
    if (newest == inFlight_.end()) {
        progress_.currentRelativePath.reset();
        progress_.currentOperation.reset();
        progress_.currentFileSize = 0;
        progress_.currentFileBytesTransferred = 0;
        return;
    }
    progress_.currentRelativePath = newest->first;
    progress_.currentOperation = newest->second.operation;
    progress_.currentFileSize = newest->second.size;
    progress_.currentFileBytesTransferred = newest->second.transferred;
}

std::uint64_t ProgressAggregator::remainingBytes() const {
    const std::uint64_t settled = addBytesChecked(progress_.bytesTransferred, bytesSettledUncopied_);
    return progress_.totalBytesPlanned > settled ? progress_.totalBytesPlanned - settled : 0;
}

std::int64_t ProgressAggregator::remainingFiles() const {
    return std::max<std::int64_t>(0, std::int64_t{progress_.totalFilesPlanned} - finishedFiles());
}

int ProgressAggregator::finishedFiles() const {
    return progress_.filesCompleted + progress_.filesSkipped + progress_.filesFailed;
}

TransferProgress ProgressAggregator::makeSnapshot(std::uint64_t now) const {
    TransferProgress snapshot = progress_;
    snapshot.bytesPerSecond = etaState_.smoothedBytesPerSecond;
    if (remainingBytes() == 0 && remainingFiles() == 0) {
        snapshot.estimatedSecondsRemaining = 0.0;
    } else if (estimateAtSample_) {
        const double sinceEstimate = MonotonicClock::secondsBetween(estimateTime_, now);
        snapshot.estimatedSecondsRemaining = std::max(0.0, *estimateAtSample_ - sinceEstimate);
    }
    return snapshot;
}

void ProgressAggregator::changed(std::unique_lock<std::mutex>& lock, bool force) {
    const std::uint64_t now = clock_->nanoseconds();
    sampleIfDue(now);
    if (!snapshotHandler_) return;
    if (!force && lastPublishTime_ && now - *lastPublishTime_ < publishIntervalNanoseconds_) return;
    lastPublishTime_ = now;
    const TransferProgress snapshot = makeSnapshot(now);
    const SnapshotHandler handler = snapshotHandler_;
    const std::uint64_t sequence = ++publishSequence_;
    lock.unlock();

    std::lock_guard delivery(deliveryMutex_);
    if (sequence <= deliveredSequence_) return;  // a newer snapshot went out first
    deliveredSequence_ = sequence;
    handler(snapshot);
}

}  // namespace varnel
