#include "scan/VolumeIdentity.hpp"

#include "common/ByteCount.hpp"
#include "common/Localization.hpp"
#include "model/JSONFields.hpp"
#include "scan/CloudFolderDetection.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace varnel {

namespace {

template <typename T>
void putOptional(nlohmann::json& json, const char* key, const std::optional<T>& value) {
    if (value) json[key] = *value;
}

// Profiles are read from disk, so each field is checked for its type and range: a
// number too large for its field is an error, never a conversion out of range.
std::optional<std::string> optionalText(const nlohmann::json& json, const char* key) {
    const nlohmann::json* found = json_fields::find(json, key);
    return found ? std::optional(json_fields::asString(*found, key)) : std::nullopt;
}

// A disk as the UUID-mismatch sentence names it: “Name”, else "UUID " and its UUID.
std::string diskDescription(const VolumeIdentity& identity) {
    if (identity.volumeName) return "“" + *identity.volumeName + "”";
    return "UUID " + identity.volumeUUID.value_or("");
}

// What the cloud-folder comparison finds: nothing, or an unverifiable or mismatch result.
std::optional<MatchResult> compareCloudFolders(const VolumeIdentity& expected, const VolumeIdentity& found) {
    if (!expected.fileProviderDomainID) return std::nullopt;
    const std::string recordedName = cloudFolderDisplayName(*expected.fileProviderDomainID);
    if (!found.fileProviderDomainID) {
        return MatchResult::unverifiable(
            trFormat("This folder was in the cloud folder “{}”, which no longer identifies itself. Check that "
                     "its app is installed and signed in to the same account.",
                     recordedName));
    }
    if (*found.fileProviderDomainID != *expected.fileProviderDomainID) {
        return MatchResult::mismatch(
            trFormat("This folder now belongs to the cloud folder “{}”, not “{}”, which this profile "
                     "was configured with. It may be signed in to a different account.",
                     cloudFolderDisplayName(*found.fileProviderDomainID), recordedName));
    }
    return std::nullopt;
}

}  // namespace

MatchResult VolumeIdentity::match(const VolumeIdentity& expected, const VolumeIdentity& found) {
    if (expected.volumeUUID && found.volumeUUID) {
        if (*expected.volumeUUID != *found.volumeUUID) {
            const auto& mountPoint = found.mountPointPath ? found.mountPointPath : expected.mountPointPath;
            if (mountPoint) {
                return MatchResult::mismatch(trFormat(
                    "The volume mounted at {} is not the one this profile was configured with. Expected volume {}, "
                    "found {}.",
                    *mountPoint, diskDescription(expected), diskDescription(found)));
            }
            return MatchResult::mismatch(trFormat(
                "The volume mounted at this location is not the one this profile was configured with. Expected "
                "volume {}, found {}.",
                diskDescription(expected), diskDescription(found)));
        }
        // The UUID settles which volume this is; only the cloud folder may still differ.
        return compareCloudFolders(expected, found).value_or(MatchResult::identical());
    }

    if (expected.volumeName && found.volumeName && *expected.volumeName != *found.volumeName) {
        return MatchResult::mismatch(trFormat("Expected volume “{}” but found “{}” at this mount point.",
                                              *expected.volumeName, *found.volumeName));
    }

    if (expected.totalCapacity && found.totalCapacity) {
        const std::int64_t smaller = std::min(*expected.totalCapacity, *found.totalCapacity);
        const std::int64_t larger = std::max<std::int64_t>({*expected.totalCapacity, *found.totalCapacity, 1});
        const double ratio = static_cast<double>(smaller) / static_cast<double>(larger);
        if (ratio < 0.9) {
            return MatchResult::mismatch(
                trFormat("The volume at this mount point reports a very different capacity than expected ({} vs {}).",
                         formatByteCount(*found.totalCapacity), formatByteCount(*expected.totalCapacity)));
        }
    }

    if (auto cloud = compareCloudFolders(expected, found); cloud && cloud->isMismatch()) return *cloud;

    return MatchResult::unverifiable(
        tr("This volume does not publish a UUID, so its identity could not be confirmed. Verify the drive is the one "
           "you intend."));
}

std::string identityConfirmationDescription(const VolumeIdentity& identity) {
    if (identity.volumeUUID) return tr("Confirmed by volume UUID");
    return tr("Could not be confirmed — this volume publishes no UUID");
}

void to_json(nlohmann::json& json, const VolumeIdentity& identity) {
    json = nlohmann::json::object();
    putOptional(json, "volumeUUID", identity.volumeUUID);
    putOptional(json, "volumeName", identity.volumeName);
    putOptional(json, "mountPointPath", identity.mountPointPath);
    putOptional(json, "totalCapacity", identity.totalCapacity);
    json["isCaseSensitive"] = identity.isCaseSensitive;
    json["isRemovable"] = identity.isRemovable;
    json["supportsCloning"] = identity.supportsCloning;
    json["supportsHighPrecisionTimestamps"] = identity.supportsHighPrecisionTimestamps;
    putOptional(json, "fileProviderDomainID", identity.fileProviderDomainID);
}

void from_json(const nlohmann::json& json, VolumeIdentity& identity) {
    using namespace json_fields;
    identity.volumeUUID = optionalText(json, "volumeUUID");
    identity.volumeName = optionalText(json, "volumeName");
    identity.mountPointPath = optionalText(json, "mountPointPath");
    const nlohmann::json* capacity = find(json, "totalCapacity");
    identity.totalCapacity =
        capacity ? std::optional(asInteger<std::int64_t>(*capacity, "totalCapacity")) : std::nullopt;
    const auto flag = [&](const char* key) { return asBool(require(json, key), key); };
    identity.isCaseSensitive = flag("isCaseSensitive");
    identity.isRemovable = flag("isRemovable");
    identity.supportsCloning = flag("supportsCloning");
    identity.supportsHighPrecisionTimestamps = flag("supportsHighPrecisionTimestamps");
    identity.fileProviderDomainID = optionalText(json, "fileProviderDomainID");
}

}  // namespace varnel
