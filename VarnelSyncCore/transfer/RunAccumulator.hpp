#pragma once

#include "plan/SyncAction.hpp"
#include "plan/SyncWarning.hpp"
#include "transfer/DurabilityError.hpp"
#include "transfer/DurabilityOutcome.hpp"
#include "transfer/SyncError.hpp"
#include "transfer/SyncRunResult.hpp"

#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace varnel {

// Gathers everything that happens during one run, from any number of copy threads,
// one update at a time. Per-item detail is capped so memory stays bounded over millions
// of items; the counters always stay exact.
class RunAccumulator {
public:
    static constexpr std::size_t kMaximumActionResults = 20'000;
    static constexpr std::size_t kMaximumErrors = 10'000;

    // What the run itself knows when it ends.
    struct RunFacts {
        Uuid runID;
        Uuid profileID;
        std::optional<Uuid> planID;
        SyncMode mode = SyncMode::update;
        Date startedAt;
        Date finishedAt;
        double durationSeconds = 0;
        double peakBytesPerSecond = 0;
        VerificationMode verification = VerificationMode::none;
        std::optional<std::string> logFileName;
    };

    explicit RunAccumulator(DurabilityMode mode) : durability_(mode) {}

    void recordSuccess(const SyncAction& action, std::uint64_t bytesWritten, bool verified,
                       const std::vector<std::string>& metadataProblems, double durationSeconds);
    // Counts one committed file's durability; a folder-flush failure becomes a warning.
    void recordDurability(DurabilityOutcome outcome, double flushSeconds,
                          const std::optional<DurabilityError>& warning,
                          const std::optional<RelativePath>& path = std::nullopt);
    // A failed flush of a folder the run created (Durable and Maximum modes).
    void recordDirectoryTreeFlush(const RelativePath& folder, bool succeeded);
    void recordFailure(const SyncAction& action, const SyncError& error, double durationSeconds = 0);
    void recordSkip(const RelativePath& path, const std::string& message);
    // Only the first fatal error is kept: it is the one that stopped the run.
    void setFatalError(const SyncError& error);
    void addWarning(SyncWarning warning);

    std::optional<SyncError> fatalError() const;
    std::vector<ActionResult> actionResults() const;
    SyncRunResult makeResult(const RunFacts& facts) const;

private:
    mutable std::mutex mutex_;
    int filesCopied_ = 0;
    int filesUpdated_ = 0;
    int filesSkipped_ = 0;
    int filesFailed_ = 0;
    int directoriesCreated_ = 0;
    int symlinksWritten_ = 0;
    int itemsArchived_ = 0;
    std::uint64_t bytesTransferred_ = 0;
    std::uint64_t bytesArchived_ = 0;
    int filesVerified_ = 0;
    int verificationFailures_ = 0;
    DurabilitySummary durability_;
    std::vector<RecordedError> errors_;
    std::vector<SyncWarning> warnings_;
    std::vector<ActionResult> actionResults_;
    std::optional<SyncError> fatalError_;
    int recentAttempts_ = 0;
    int recentFailures_ = 0;
    int successResultsTruncated_ = 0;
    int errorsTruncated_ = 0;
};

}  // namespace varnel
