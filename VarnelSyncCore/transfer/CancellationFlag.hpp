#pragma once

#include "transfer/SyncError.hpp"

#include <atomic>
#include <mutex>
#include <optional>

namespace varnel {

// Set once by the user's Stop (or by a vanished volume) and read by every copy before
// each block, from any thread.
class CancellationFlag {
public:
    // The user's Stop: the run ends as cancelled.
    void cancel() { stopBecause(SyncError::Cancelled{}); }
    // A stop for another reason (a volume that went away); the first reason is kept.
    void stopBecause(const SyncError& reason) {
        std::lock_guard lock(mutex_);
        if (!reason_) reason_ = reason;
        cancelled_.store(true, std::memory_order_release);
    }
    bool isCancelled() const { return cancelled_.load(std::memory_order_acquire); }
    std::optional<SyncError> reason() const {
        std::lock_guard lock(mutex_);
        return reason_;
    }

private:
    std::atomic<bool> cancelled_{false};
    mutable std::mutex mutex_;
    std::optional<SyncError> reason_;
};

}  // namespace varnel
