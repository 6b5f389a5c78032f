#include "model/InMemoryProfileStore.hpp"

namespace varnel {

InMemoryProfileStore::InMemoryProfileStore(std::vector<SyncProfile> profiles) : profiles_(std::move(profiles)) {}

std::vector<SyncProfile> InMemoryProfileStore::load() {
    const std::lock_guard guard(lock_);
    throwPendingError();
    return profiles_;
}

void InMemoryProfileStore::save(const std::vector<SyncProfile>& profiles) {
    const std::lock_guard guard(lock_);
    throwPendingError();
    profiles_ = profiles;
}

void InMemoryProfileStore::setNextError(std::optional<SyncError> error) {
    const std::lock_guard guard(lock_);
    nextError_ = std::move(error);
}

void InMemoryProfileStore::throwPendingError() {
    if (!nextError_) return;
    SyncError error = std::move(*nextError_);
    nextError_.reset();
    throw error;
}

}  // namespace varnel
