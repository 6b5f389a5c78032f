#pragma once

#include "scan/MatchResult.hpp"

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

    // Compares the identity a profile recorded (`expected`) with the one found now, in
    // this order, each check skipped when either side lacks its property:
    // 1. Both carry a UUID: different UUIDs are a mismatch. Equal UUIDs settle the volume
    //    (names and capacities are not compared); only the cloud-folder check remains.
    // 2. Different names are a mismatch.
    // 3. Capacities whose ratio (smaller / larger) is below 0.9 are a mismatch; the 10 %
    //    tolerance tells another disk from one whose reported size drifts.
    // 4. The cloud-folder check (when `expected` names a file-provider domain): another
    //    domain now is a mismatch.
    // 5. Otherwise the volume cannot be confirmed: unverifiable.
    // The cloud-folder check finds nothing when `expected` has no domain; a folder now
    // outside any cloud folder that identifies itself is unverifiable, one in another
    // domain a mismatch.
    static MatchResult match(const VolumeIdentity& expected, const VolumeIdentity& found);

    friend bool operator==(const VolumeIdentity&, const VolumeIdentity&) = default;
};

// The line the settings and plan screens show for a volume: "Confirmed by volume UUID"
// when it publishes a UUID, else "Could not be confirmed — this volume publishes no
// UUID" (translated).
std::string identityConfirmationDescription(const VolumeIdentity& identity);

// Keys are the field names; optionals are written only when present.
void to_json(nlohmann::json& json, const VolumeIdentity& identity);
void from_json(const nlohmann::json& json, VolumeIdentity& identity);

}  // namespace varnel
