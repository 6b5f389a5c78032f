#include "scan/VolumeIdentity.hpp"

#include <nlohmann/json.hpp>

namespace varnel {

namespace {

template <typename T>
void putOptional(nlohmann::json& json, const char* key, const std::optional<T>& value) {
    if (value) json[key] = *value;
}

template <typename T>
void getOptional(const nlohmann::json& json, const char* key, std::optional<T>& value) {
    const auto found = json.find(key);
    if (found == json.end() || found->is_null()) {
        value.reset();
    } else {
        value = found->get<T>();
    }
}

}  // namespace

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
    getOptional(json, "volumeUUID", identity.volumeUUID);
    getOptional(json, "volumeName", identity.volumeName);
    getOptional(json, "mountPointPath", identity.mountPointPath);
    getOptional(json, "totalCapacity", identity.totalCapacity);
    identity.isCaseSensitive = json.at("isCaseSensitive").get<bool>();
    identity.isRemovable = json.at("isRemovable").get<bool>();
    identity.supportsCloning = json.at("supportsCloning").get<bool>();
    identity.supportsHighPrecisionTimestamps = json.at("supportsHighPrecisionTimestamps").get<bool>();
    getOptional(json, "fileProviderDomainID", identity.fileProviderDomainID);
}

}  // namespace varnel
