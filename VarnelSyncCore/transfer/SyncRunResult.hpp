#pragma once

#include "common/Date.hpp"
#include "common/Uuid.hpp"
#include "model/RelativePath.hpp"
#include "model/SyncOptions.hpp"
#include "plan/SyncActionType.hpp"
#include "plan/SyncWarning.hpp"
#include "transfer/DurabilitySummary.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace varnel {

// One line of per-item detail of a run.
struct ActionResult {
    RelativePath relativePath;
    SyncActionType type = SyncActionType::copyNewFile;
    bool succeeded = false;
    std::uint64_t bytesWritten = 0;
    double durationSeconds = 0;
    std::optional<std::string> errorCode;
    std::optional<std::string> errorMessage;

    friend bool operator==(const ActionResult&, const ActionResult&) = default;
};

// One failure of a run, as the completion screen and the run log list it.
struct RecordedError {
    Uuid id;
    std::optional<RelativePath> relativePath;  // absent for run-wide errors
    std::string code;
    std::string message;

    friend bool operator==(const RecordedError&, const RecordedError&) = default;
};

// Everything a finished run reports.
struct SyncRunResult {
    Uuid id;
    Uuid profileID;
    std::optional<Uuid> planID;
    SyncMode mode = SyncMode::update;
    SyncRunOutcome outcome = SyncRunOutcome::success;
    Date startedAt;
    Date finishedAt;
    double durationSeconds = 0;
    int filesCopied = 0;
    int filesUpdated = 0;
    int filesSkipped = 0;
    int filesFailed = 0;
    int directoriesCreated = 0;
    int symlinksWritten = 0;
    int itemsArchived = 0;
    std::uint64_t bytesTransferred = 0;
    std::uint64_t bytesArchived = 0;
    double averageBytesPerSecond = 0;
    double peakBytesPerSecond = 0;
    VerificationMode verification = VerificationMode::none;
    int filesVerified = 0;
    int verificationFailures = 0;
    DurabilitySummary durability;
    std::vector<RecordedError> errors;
    std::vector<SyncWarning> warnings;
    std::optional<std::string> logFileName;

    friend bool operator==(const SyncRunResult&, const SyncRunResult&) = default;
};

// Encoded with the keys in declaration order; optionals only when present.
nlohmann::ordered_json toJSON(const ActionResult& result);
nlohmann::ordered_json toJSON(const RecordedError& error);
nlohmann::ordered_json toJSON(const SyncRunResult& result);
SyncRunResult runResultFromJSON(const nlohmann::json& json);

}  // namespace varnel
