#pragma once

#include "model/ProfileStoring.hpp"
#include "transfer/SyncError.hpp"

#include <mutex>
#include <optional>
#include <vector>

namespace varnel {

// A thread-safe store in memory, for tests and previews of the application's paths,
// including its error paths.
class InMemoryProfileStore final : public ProfileStoring {
public:
    explicit InMemoryProfileStore(std::vector<SyncProfile> profiles = {});

    std::vector<SyncProfile> load() override;
    void save(const std::vector<SyncProfile>& profiles) override;

    // The next load or save throws `error` instead of doing its work. One-shot: the
    // error is cleared when thrown, so a test can show a failure and then a retry that
    // succeeds.
    void setNextError(std::optional<SyncError> error);

private:
    std::mutex lock_;
    std::vector<SyncProfile> profiles_;
    std::optional<SyncError> nextError_;

    // Called with the lock held.
    void throwPendingError();
};

}  // namespace varnel
