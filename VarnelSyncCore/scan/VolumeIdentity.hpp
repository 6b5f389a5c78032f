#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <optional>
#include <string>

namespace varnel {

// What identifies a volume: recorded in a profile when a folder is chosen and taken
// again at each analysis to make sure the same drive is being written.
struct VolumeIdentity {
    std::optional<std::string> volumeUUID;  // absent where the volume publishes none (never invented)
    std::optional<std::string> volumeName;
    std::optional<std::string> mountPointPath;
    std::optional<std::int64_t> totalCapacity;
    bool isCaseSensitive = true;
    bool isRemovable = false;
    bool supportsCloning = false;
    bool supportsHighPrecisionTimestamps = false;
    std::optional<std::string> fileProviderDomainID;

    friend bool operator==(const VolumeIdentity&, const VolumeIdentity&) = default;
};

// Keys are the field names; optionals are written only when present.
void to_json(nlohmann::json& json, const VolumeIdentity& identity);
void from_json(const nlohmann::json& json, VolumeIdentity& identity);

}  // namespace varnel
