#pragma once

#include "model/RelativePath.hpp"
#include "plan/SyncActionReason.hpp"
#include "plan/SyncActionType.hpp"
#include "scan/FileSystemEntry.hpp"
#include "scan/SharedEntry.hpp"

#include <nlohmann/json_fwd.hpp>

#include <algorithm>
#include <cstdint>
#include <utility>

namespace varnel {

// One decision of the plan: what happens to one relative path, and why.
struct SyncAction {
    SyncAction() = default;
    SyncAction(SyncActionType type, RelativePath relativePath, SyncActionReason reason, SharedEntry sourceEntry = {},
               SharedEntry destinationEntry = {}, std::int64_t expectedBytes = 0)
        : relativePath(std::move(relativePath)),
          reason(std::move(reason)),
          sourceEntry(std::move(sourceEntry)),
          destinationEntry(std::move(destinationEntry)),
          type(type),
          expectedBytes(heldBytes(expectedBytes)) {}

    RelativePath relativePath;
    SyncActionReason reason;
    SharedEntry sourceEntry;       // the scanned source item, when there is one
    SharedEntry destinationEntry;  // the scanned destination item, when there is one
    // The type and the byte count share one word: a plan holds an action for every
    // scanned pair. 55 bits count up to 32 PiB; a sparse file that claims more is held
    // at that (heldBytes).
    SyncActionType type : 8 = SyncActionType::warning;
    std::int64_t expectedBytes : 56 = 0;  // what the action is expected to write

    static constexpr std::int64_t kMaxExpectedBytes = (std::int64_t{1} << 55) - 1;
    // `bytes` as expectedBytes can hold it: a sparse file may claim up to 8 EiB.
    static constexpr std::int64_t heldBytes(std::int64_t bytes) {
        return std::clamp(bytes, -kMaxExpectedBytes - 1, kMaxExpectedBytes);
    }

    friend bool operator==(const SyncAction&, const SyncAction&) = default;
};
static_assert(sizeof(void*) != 8 || sizeof(SyncAction) == 48);

void to_json(nlohmann::json& json, const FileSystemEntry& entry);
void from_json(const nlohmann::json& json, FileSystemEntry& entry);
void to_json(nlohmann::json& json, const SyncAction& action);
// Appends the action as compact JSON, the very text nlohmann::json(action).dump() gives
// (keys in sorted order, invalid UTF-8 replaced), without building the document first:
// a plan of a million actions is written in a fraction of the time.
void appendCompactJSON(std::string& out, const SyncAction& action);
void from_json(const nlohmann::json& json, SyncAction& action);

}  // namespace varnel
