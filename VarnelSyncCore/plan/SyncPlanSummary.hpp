#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>

namespace varnel {

// Counts and byte totals of a plan, accumulated while the planner emits actions.
struct SyncPlanSummary {
    std::int64_t directoriesToCreate = 0;
    std::int64_t filesToCopy = 0;
    std::int64_t filesToUpdate = 0;
    std::int64_t filesUnchanged = 0;
    std::int64_t symlinksToCreate = 0;
    std::int64_t symlinksToUpdate = 0;
    std::int64_t itemsToArchive = 0;
    std::int64_t itemsExcluded = 0;
    std::int64_t itemsUnsupported = 0;
    std::int64_t warningCount = 0;
    std::int64_t errorCount = 0;
    std::int64_t bytesToTransfer = 0;
    std::int64_t bytesToArchive = 0;
    std::int64_t bytesBeingReplaced = 0;
    std::int64_t largestFileBytes = 0;
    std::int64_t totalSourceItemsScanned = 0;
    std::int64_t totalDestinationItemsScanned = 0;
    std::int64_t filesToDownload = 0;
    std::int64_t bytesToDownload = 0;
    std::int64_t filesSkippedOnlineOnly = 0;
    std::int64_t bytesSkippedOnlineOnly = 0;
    std::int64_t onlineOnlyFilesUnchanged = 0;
    std::int64_t destinationOnlineOnlyFiles = 0;

    friend bool operator==(const SyncPlanSummary&, const SyncPlanSummary&) = default;
};

// Keys are the field names, in declaration order.
void to_json(nlohmann::json& json, const SyncPlanSummary& summary);
void from_json(const nlohmann::json& json, SyncPlanSummary& summary);

}  // namespace varnel
