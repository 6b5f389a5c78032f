#pragma once

#include "common/Date.hpp"
#include "common/Uuid.hpp"
#include "model/ExclusionRule.hpp"
#include "model/SafetyThresholds.hpp"
#include "model/SyncOptions.hpp"
#include "model/SyncSchedule.hpp"
#include "scan/VolumeIdentity.hpp"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace varnel {

// A persistent reference to a chosen folder, opaque to everything but the resolver. On
// Linux it holds the folder's absolute path bytes. Stored as Base64.
using BookmarkData = std::vector<std::uint8_t>;

// One saved synchronisation job: what is copied where, how, what is left out, when it
// runs by itself and how its last run ended.
struct SyncProfile {
    Uuid id;  // never changes
    std::string name;
    std::optional<BookmarkData> sourceBookmark;
    std::string sourceDisplayPath;  // "" when no folder is chosen
    std::optional<VolumeIdentity> sourceVolume;
    std::optional<BookmarkData> destinationBookmark;
    std::string destinationDisplayPath;
    std::optional<VolumeIdentity> destinationVolume;
    SyncMode mode = SyncMode::update;
    DurabilityMode durability = DurabilityMode::durable;
    VerificationMode verification = VerificationMode::none;
    MetadataPolicy metadataPolicy = MetadataPolicy::extended;
    HiddenFilePolicy hiddenFilePolicy = HiddenFilePolicy::include;
    std::vector<ExclusionRule> exclusionRules;
    SafetyThresholds safetyThresholds;
    OnlineOnlyPolicy onlineOnlyFiles = OnlineOnlyPolicy::download;
    SyncSchedule schedule;
    std::optional<Date> lastAnalysisDate;
    std::optional<Date> lastSyncDate;
    std::optional<SyncRunOutcome> lastResult;
    std::optional<std::int64_t> lastBytesTransferred;
    std::optional<std::int64_t> lastFilesTransferred;
    std::optional<Uuid> lastRunID;  // ties the profile to its run log
    Date createdAt{};
    Date modifiedAt{};
    // Read from a file written before durability modes existed. Held in memory only.
    bool wasMigratedFromLegacySchema = false;

    // The problems that keep the profile from being analysed, in a fixed order; empty
    // when there are none.
    std::vector<std::string> validationProblems() const;

    friend bool operator==(const SyncProfile&, const SyncProfile&) = default;
};

// All 25 stored keys; optionals only when present; never the migration flag.
void to_json(nlohmann::json& json, const SyncProfile& profile);

// "id" and "name" are required; every other absent (or null) key takes its default.
// `createdAt` and `modifiedAt` default to `clock`'s current time. A wrong type or an
// unknown raw value anywhere throws DecodingError naming the key.
SyncProfile decodeSyncProfile(const nlohmann::json& json, const Clock& clock = SystemClock::shared());
void from_json(const nlohmann::json& json, SyncProfile& profile);

}  // namespace varnel
