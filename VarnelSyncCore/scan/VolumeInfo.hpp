#pragma once

#include "scan/VolumeIdentity.hpp"

#include <cstdint>
#include <string>

namespace varnel {

// The volume that holds a folder, as found now.
struct VolumeInfo {
    VolumeIdentity identity;
    std::int64_t availableBytes = 0;  // f_bavail * f_bsize, overflow-checked
    std::uint64_t deviceID = 0;       // the folder's st_dev
    std::string fileSystemType;       // "ext4", "btrfs", "tmpfs", ... (from the mount table)

    friend bool operator==(const VolumeInfo&, const VolumeInfo&) = default;
};

}  // namespace varnel
