#pragma once

#include "common/Date.hpp"
#include "common/Uuid.hpp"
#include "model/SyncOptions.hpp"
#include "plan/PlanNote.hpp"
#include "plan/SyncAction.hpp"
#include "plan/SyncPlanSummary.hpp"
#include "plan/SyncWarning.hpp"
#include "scan/CloudFolderInfo.hpp"
#include "scan/VolumeIdentity.hpp"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace varnel {

// The result of analysis: the ordered actions, their summary, the warnings, and the
// facts about both endpoints captured at analysis time. Nothing has been written.
struct SyncPlan {
    Uuid id;
    Uuid profileID;
    SyncMode mode = SyncMode::update;
    Date createdAt;
    std::string sourceRoot;       // absolute path
    std::string destinationRoot;  // absolute path
    std::vector<SyncAction> actions;
    SyncPlanSummary summary;
    std::vector<SyncWarning> warnings;
    std::optional<VolumeIdentity> sourceVolume;
    std::optional<VolumeIdentity> destinationVolume;
    bool isSameVolume = false;
    std::int64_t destinationFreeBytes = 0;
    std::optional<std::string> archiveRoot;
    bool archiveIsOnDestinationVolume = true;
    std::optional<CloudFolderInfo> sourceCloud;
    std::optional<CloudFolderInfo> destinationCloud;
    std::optional<std::string> stagingDirectory;
    std::optional<std::int64_t> sourceFreeBytes;
    std::vector<PlanNote> notes;  // information boxes for cloud-folder endpoints

    friend bool operator==(const SyncPlan&, const SyncPlan&) = default;
};

// The whole plan, for export and for the command-line tool's --json output.
void to_json(nlohmann::json& json, const SyncPlan& plan);
void from_json(const nlohmann::json& json, SyncPlan& plan);

}  // namespace varnel
