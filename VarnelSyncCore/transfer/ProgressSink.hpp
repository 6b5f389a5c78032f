#pragma once

#include "common/MonotonicClock.hpp"
#include "model/RelativePath.hpp"
#include "transfer/ProgressAggregator.hpp"

#include <cstdint>
#include <mutex>

namespace varnel {

// The progress of one file in flight. The copy engine reports every block from its
// copying thread; the sink passes the bytes on to the run's aggregator at most once per
// interval, and always at the end, so many parallel copies do not queue on its lock.
class ProgressSink {
public:
    static constexpr std::uint64_t kDefaultFlushIntervalNanoseconds = 100'000'000;  // 0.1 s

    ProgressSink(ProgressAggregator& aggregator, const MonotonicClock& clock, RelativePath path,
                 std::uint64_t flushIntervalNanoseconds = kDefaultFlushIntervalNanoseconds)
        : aggregator_(aggregator),
          clock_(clock),
          path_(std::move(path)),
          flushIntervalNanoseconds_(flushIntervalNanoseconds),
          lastFlush_(clock.nanoseconds()) {}

    void add(std::int64_t increment) {
        if (increment <= 0) return;
        std::lock_guard lock(mutex_);
        totalBytes_ += static_cast<std::uint64_t>(increment);
        const std::uint64_t now = clock_.nanoseconds();
        if (now - lastFlush_ >= flushIntervalNanoseconds_) passOn(now);
    }

    // Passes on whatever is still held; call once when the item ends.
    void finish() {
        std::lock_guard lock(mutex_);
        passOn(clock_.nanoseconds());
    }

    std::uint64_t totalBytes() const {
        std::lock_guard lock(mutex_);
        return totalBytes_;
    }

private:
    void passOn(std::uint64_t now) {
        if (totalBytes_ > lastFlushedTotal_) aggregator_.addBytes(path_, totalBytes_ - lastFlushedTotal_);
        lastFlushedTotal_ = totalBytes_;
        lastFlush_ = now;
    }

    ProgressAggregator& aggregator_;
    const MonotonicClock& clock_;
    const RelativePath path_;
    const std::uint64_t flushIntervalNanoseconds_;
    mutable std::mutex mutex_;
    std::uint64_t totalBytes_ = 0;
    std::uint64_t lastFlushedTotal_ = 0;
    std::uint64_t lastFlush_;
};

}  // namespace varnel
