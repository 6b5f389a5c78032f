#include "transfer/RunAccumulator.hpp"

#include "common/Localization.hpp"

namespace varnel {

using Category = SyncWarning::Category;

void RunAccumulator::recordSuccess(const SyncAction& action, std::uint64_t bytesWritten, bool verified,
                                   const std::vector<std::string>& metadataProblems, double durationSeconds) {
    std::lock_guard lock(mutex_);
    ++recentAttempts_;
    switch (action.type) {
        case SyncActionType::createDirectory: ++directoriesCreated_; break;
        case SyncActionType::copyNewFile:
            ++filesCopied_;
            bytesTransferred_ += bytesWritten;
            break;
        case SyncActionType::replaceChangedFile:
            ++filesUpdated_;
            bytesTransferred_ += bytesWritten;
            break;
        case SyncActionType::createSymlink:
        case SyncActionType::replaceSymlink: ++symlinksWritten_; break;
        case SyncActionType::archiveDestinationItem:
            ++itemsArchived_;
            bytesArchived_ += bytesWritten;
            break;
        default: break;
    }
    if (verified) ++filesVerified_;
    if (!metadataProblems.empty()) {
        std::string joined;
        for (const auto& problem : metadataProblems) {
            if (!joined.empty()) joined += ", ";
            joined += problem;
        }
        warnings_.emplace_back(Category::metadataNotPreserved,
                               trFormat("Could not preserve {} for “{}”.", joined, action.relativePath.description()),
                               action.relativePath);
    }
    if (actionResults_.size() >= kMaximumActionResults) {
        ++successResultsTruncated_;
        return;
    }
    actionResults_.push_back(
        ActionResult{action.relativePath, action.type, true, bytesWritten, durationSeconds, std::nullopt, std::nullopt});
}

void RunAccumulator::recordDurability(DurabilityOutcome outcome, double flushSeconds,
                                      const std::optional<DurabilityError>& warning,
                                      const std::optional<RelativePath>& path) {
    std::lock_guard lock(mutex_);
    durability_.record(outcome);
    durability_.addFlushTime(flushSeconds);
    if (warning) {
        warnings_.emplace_back(Category::durabilityUncertain,
                               std::string(tr("Durability could not be confirmed.")) + " " + warning->message(), path);
    }
}

void RunAccumulator::recordDirectoryTreeFlush(const RelativePath& folder, bool succeeded) {
    std::lock_guard lock(mutex_);
    if (succeeded) {
        ++durability_.directoriesTreeFlushed;
        return;
    }
    ++durability_.directoryTreeFlushFailures;
    warnings_.emplace_back(Category::durabilityUncertain,
                           trFormat("The folder “{}” could not be flushed. Files inside it are written and their own "
                                    "entries are durable, but the folder entry that leads to them may not survive a "
                                    "power cut.",
                                    folder.description()),
                           folder);
}

void RunAccumulator::recordFailure(const SyncAction& action, const SyncError& error, double durationSeconds) {
    std::lock_guard lock(mutex_);
    ++recentAttempts_;
    ++recentFailures_;
    ++filesFailed_;
    if (error.is<SyncError::VerificationFailed>()) ++verificationFailures_;
    if (const auto* durability = error.as<SyncError::DurabilityFailed>();
        durability && !durability->error.happenedAfterCommit()) {
        ++durability_.fileFlushFailures;
    }
    if (errors_.size() >= kMaximumErrors) {
        ++errorsTruncated_;
        return;
    }
    errors_.push_back(RecordedError{Uuid::random(), action.relativePath, error.code(), error.message()});
    actionResults_.push_back(
        ActionResult{action.relativePath, action.type, false, 0, durationSeconds, error.code(), error.message()});
}

void RunAccumulator::recordSkip(const RelativePath& path, const std::string& message) {
    std::lock_guard lock(mutex_);
    ++filesSkipped_;
    warnings_.emplace_back(Category::sourceChangedDuringRun, message, path);
}

void RunAccumulator::setFatalError(const SyncError& error) {
    std::lock_guard lock(mutex_);
    if (!fatalError_) fatalError_ = error;
}

void RunAccumulator::addWarning(SyncWarning warning) {
    std::lock_guard lock(mutex_);
    warnings_.push_back(std::move(warning));
}

std::optional<SyncError> RunAccumulator::fatalError() const {
    std::lock_guard lock(mutex_);
    return fatalError_;
}

std::vector<ActionResult> RunAccumulator::actionResults() const {
    std::lock_guard lock(mutex_);
    return actionResults_;
}

SyncRunResult RunAccumulator::makeResult(const RunFacts& facts) const {
    std::lock_guard lock(mutex_);
    SyncRunResult result;
    result.id = facts.runID;
    result.profileID = facts.profileID;
    result.planID = facts.planID;
    result.mode = facts.mode;
    result.startedAt = facts.startedAt;
    result.finishedAt = facts.finishedAt;
    result.durationSeconds = facts.durationSeconds;
    result.filesCopied = filesCopied_;
    result.filesUpdated = filesUpdated_;
    result.filesSkipped = filesSkipped_;
    result.filesFailed = filesFailed_;
    result.directoriesCreated = directoriesCreated_;
    result.symlinksWritten = symlinksWritten_;
    result.itemsArchived = itemsArchived_;
    result.bytesTransferred = bytesTransferred_;
    result.bytesArchived = bytesArchived_;
    result.averageBytesPerSecond =
        facts.durationSeconds > 0 ? static_cast<double>(bytesTransferred_) / facts.durationSeconds : 0;
    result.peakBytesPerSecond = facts.peakBytesPerSecond;
    result.verification = facts.verification;
    result.filesVerified = filesVerified_;
    result.verificationFailures = verificationFailures_;
    result.durability = durability_;
    result.errors = errors_;
    // The error that stopped the run is part of its record, so the log says why it ended.
    if (fatalError_ && !fatalError_->is<SyncError::Cancelled>()) {
        result.errors.push_back(RecordedError{Uuid::random(), std::nullopt, fatalError_->code(), fatalError_->message()});
    }
    result.warnings = warnings_;
    if (successResultsTruncated_ > 0 || errorsTruncated_ > 0) {
        result.warnings.emplace_back(
            Category::other,
            trFormat("Per-item detail was capped to keep memory bounded: {} successful action(s) and {} error(s) are "
                     "not individually listed. The totals above remain exact.",
                     successResultsTruncated_, errorsTruncated_));
    }
    result.logFileName = facts.logFileName;
    // A stop by the user outranks the error it causes; any other fatal error means failed.
    if (fatalError_ && fatalError_->is<SyncError::Cancelled>()) {
        result.outcome = SyncRunOutcome::cancelled;
    } else if (fatalError_) {
        result.outcome = SyncRunOutcome::failed;
    } else if (filesFailed_ > 0 || !result.warnings.empty()) {
        result.outcome = SyncRunOutcome::completedWithWarnings;
    } else {
        result.outcome = SyncRunOutcome::success;
    }
    return result;
}

}  // namespace varnel
