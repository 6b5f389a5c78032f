#include "model/SyncProfile.hpp"

#include "common/Base64.hpp"
#include "common/Localization.hpp"
#include "common/Unicode.hpp"
#include "model/JSONFields.hpp"

namespace varnel {

namespace {

using namespace json_fields;

BookmarkData asBookmark(const nlohmann::json& value, const char* key) {
    auto bytes = base64Decode(asString(value, key));
    if (!bytes) throw DecodingError(std::string("“") + key + "”: the bookmark is not valid Base64.");
    return std::move(*bytes);
}

template <typename T, typename Decode>
void decodeOptional(const nlohmann::json& object, const char* key, std::optional<T>& field, Decode decode) {
    if (const auto* value = find(object, key)) {
        field = decode(*value, key);
    } else {
        field.reset();
    }
}

template <typename T, typename Decode>
void decodeWithDefault(const nlohmann::json& object, const char* key, T& field, Decode decode) {
    if (const auto* value = find(object, key)) field = decode(*value, key);
}

// Stored dates carry whole seconds; defaults do too, so a saved and reloaded profile
// compares equal to the one in memory.
Date wholeSeconds(Date date) {
    return std::chrono::floor<std::chrono::seconds>(date);
}

}  // namespace

std::vector<std::string> SyncProfile::validationProblems() const {
    std::vector<std::string> problems;
    if (unicode::trimWhitespace(name).empty()) problems.emplace_back(tr("The profile needs a name."));
    if (!sourceBookmark) problems.emplace_back(tr("Choose a source folder."));
    if (!destinationBookmark) problems.emplace_back(tr("Choose a destination folder."));
    // Exact text only: nesting and overlap are for endpoint validation, which sees real paths.
    if (!sourceDisplayPath.empty() && sourceDisplayPath == destinationDisplayPath) {
        problems.emplace_back(tr("The source and destination must be different folders."));
    }
    for (const auto& rule : exclusionRules) {
        if (unicode::trimWhitespace(rule.value).empty()) {
            problems.push_back(trFormat("Exclusion rule “{}” has no value.", displayName(rule.kind)));
        }
    }
    return problems;
}

void to_json(nlohmann::json& json, const SyncProfile& profile) {
    json = nlohmann::json::object();
    json["id"] = profile.id;
    json["name"] = profile.name;
    if (profile.sourceBookmark) json["sourceBookmark"] = base64Encode(*profile.sourceBookmark);
    json["sourceDisplayPath"] = profile.sourceDisplayPath;
    if (profile.sourceVolume) json["sourceVolume"] = *profile.sourceVolume;
    if (profile.destinationBookmark) json["destinationBookmark"] = base64Encode(*profile.destinationBookmark);
    json["destinationDisplayPath"] = profile.destinationDisplayPath;
    if (profile.destinationVolume) json["destinationVolume"] = *profile.destinationVolume;
    json["mode"] = profile.mode;
    json["durability"] = profile.durability;
    json["verification"] = profile.verification;
    json["metadataPolicy"] = profile.metadataPolicy;
    json["hiddenFilePolicy"] = profile.hiddenFilePolicy;
    json["exclusionRules"] = profile.exclusionRules;
    json["safetyThresholds"] = profile.safetyThresholds;
    json["onlineOnlyFiles"] = profile.onlineOnlyFiles;
    json["schedule"] = profile.schedule;
    if (profile.lastAnalysisDate) json["lastAnalysisDate"] = formatISO8601(*profile.lastAnalysisDate);
    if (profile.lastSyncDate) json["lastSyncDate"] = formatISO8601(*profile.lastSyncDate);
    if (profile.lastResult) json["lastResult"] = *profile.lastResult;
    if (profile.lastBytesTransferred) json["lastBytesTransferred"] = *profile.lastBytesTransferred;
    if (profile.lastFilesTransferred) json["lastFilesTransferred"] = *profile.lastFilesTransferred;
    if (profile.lastRunID) json["lastRunID"] = *profile.lastRunID;
    json["createdAt"] = formatISO8601(profile.createdAt);
    json["modifiedAt"] = formatISO8601(profile.modifiedAt);
}

SyncProfile decodeSyncProfile(const nlohmann::json& json, const Clock& clock) {
    requireObject(json, "profile");
    const auto record = [](auto tag) {
        using T = typename decltype(tag)::type;
        return [](const nlohmann::json& value, const char* key) { return asRecord<T>(value, key); };
    };
    const auto string = [](const nlohmann::json& value, const char* key) { return asString(value, key); };
    const auto date = [](const nlohmann::json& value, const char* key) { return asDate(value, key); };
    const auto int64 = [](const nlohmann::json& value, const char* key) {
        return asInteger<std::int64_t>(value, key);
    };

    SyncProfile profile;
    profile.id = asRecord<Uuid>(require(json, "id"), "id");
    profile.name = asString(require(json, "name"), "name");
    decodeOptional(json, "sourceBookmark", profile.sourceBookmark, asBookmark);
    decodeWithDefault(json, "sourceDisplayPath", profile.sourceDisplayPath, string);
    decodeOptional(json, "sourceVolume", profile.sourceVolume, record(std::type_identity<VolumeIdentity>{}));
    decodeOptional(json, "destinationBookmark", profile.destinationBookmark, asBookmark);
    decodeWithDefault(json, "destinationDisplayPath", profile.destinationDisplayPath, string);
    decodeOptional(json, "destinationVolume", profile.destinationVolume,
                   record(std::type_identity<VolumeIdentity>{}));
    decodeWithDefault(json, "mode", profile.mode, record(std::type_identity<SyncMode>{}));
    // No durability key: the profile predates durability modes. It comes up as Durable,
    // a deliberate upgrade over the unflushed copies it used to make.
    profile.wasMigratedFromLegacySchema = find(json, "durability") == nullptr;
    decodeWithDefault(json, "durability", profile.durability, record(std::type_identity<DurabilityMode>{}));
    decodeWithDefault(json, "verification", profile.verification, record(std::type_identity<VerificationMode>{}));
    decodeWithDefault(json, "metadataPolicy", profile.metadataPolicy, record(std::type_identity<MetadataPolicy>{}));
    decodeWithDefault(json, "hiddenFilePolicy", profile.hiddenFilePolicy,
                      record(std::type_identity<HiddenFilePolicy>{}));
    decodeWithDefault(json, "exclusionRules", profile.exclusionRules,
                      record(std::type_identity<std::vector<ExclusionRule>>{}));
    decodeWithDefault(json, "safetyThresholds", profile.safetyThresholds,
                      record(std::type_identity<SafetyThresholds>{}));
    decodeWithDefault(json, "onlineOnlyFiles", profile.onlineOnlyFiles,
                      record(std::type_identity<OnlineOnlyPolicy>{}));
    decodeWithDefault(json, "schedule", profile.schedule, record(std::type_identity<SyncSchedule>{}));
    decodeOptional(json, "lastAnalysisDate", profile.lastAnalysisDate, date);
    decodeOptional(json, "lastSyncDate", profile.lastSyncDate, date);
    decodeOptional(json, "lastResult", profile.lastResult, record(std::type_identity<SyncRunOutcome>{}));
    decodeOptional(json, "lastBytesTransferred", profile.lastBytesTransferred, int64);
    decodeOptional(json, "lastFilesTransferred", profile.lastFilesTransferred, int64);
    decodeOptional(json, "lastRunID", profile.lastRunID, record(std::type_identity<Uuid>{}));
    const Date now = wholeSeconds(clock.now());
    profile.createdAt = now;
    profile.modifiedAt = now;
    decodeWithDefault(json, "createdAt", profile.createdAt, date);
    decodeWithDefault(json, "modifiedAt", profile.modifiedAt, date);
    return profile;
}

void from_json(const nlohmann::json& json, SyncProfile& profile) {
    profile = decodeSyncProfile(json);
}

}  // namespace varnel
