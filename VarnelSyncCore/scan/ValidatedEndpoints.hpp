#pragma once

#include "plan/SyncWarning.hpp"
#include "scan/CloudFolderInfo.hpp"
#include "scan/VolumeInfo.hpp"

#include <optional>
#include <string>
#include <vector>

namespace varnel {

// Two folders that passed validation, with what was learnt about them on the way.
// Locations are absolute paths.
struct ValidatedEndpoints {
    std::string sourceURL;           // the source as opened
    std::string destinationURL;      // the destination as opened
    std::string canonicalSourceURL;  // links resolved
    std::string canonicalDestinationURL;
    VolumeInfo sourceVolume;  // identity includes the cloud domain found now, if any
    VolumeInfo destinationVolume;
    bool isSameVolume = false;
    std::vector<SyncWarning> warnings;
    // The cloud folder holding each side, found while matching identities; kept so the
    // plan can describe cloud endpoints without looking again.
    std::optional<CloudFolderInfo> sourceCloud;
    std::optional<CloudFolderInfo> destinationCloud;

    friend bool operator==(const ValidatedEndpoints&, const ValidatedEndpoints&) = default;
};

}  // namespace varnel
