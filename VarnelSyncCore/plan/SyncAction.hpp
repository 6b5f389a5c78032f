#pragma once

#include "model/RelativePath.hpp"
#include "plan/SyncActionReason.hpp"
#include "plan/SyncActionType.hpp"
#include "scan/FileSystemEntry.hpp"
#include "scan/SharedEntry.hpp"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>

namespace varnel {

// One decision of the plan: what happens to one relative path, and why.
struct SyncAction {
    SyncActionType type = SyncActionType::warning;
    RelativePath relativePath;
    SyncActionReason reason;
    SharedEntry sourceEntry;         // the scanned source item, when there is one
    SharedEntry destinationEntry;    // the scanned destination item, when there is one
    std::int64_t expectedBytes = 0;  // what the action is expected to write

    friend bool operator==(const SyncAction&, const SyncAction&) = default;
};
static_assert(sizeof(void*) != 8 || sizeof(SyncAction) == 64);  // a plan holds one per scanned pair

void to_json(nlohmann::json& json, const FileSystemEntry& entry);
void from_json(const nlohmann::json& json, FileSystemEntry& entry);
void to_json(nlohmann::json& json, const SyncAction& action);
// Appends the action as compact JSON, the very text nlohmann::json(action).dump() gives
// (keys in sorted order, invalid UTF-8 replaced), without building the document first:
// a plan of a million actions is written in a fraction of the time.
void appendCompactJSON(std::string& out, const SyncAction& action);
void from_json(const nlohmann::json& json, SyncAction& action);

}  // namespace varnel
