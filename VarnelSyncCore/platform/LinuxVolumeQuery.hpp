#pragma once

#include "scan/VolumeInfo.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace varnel {

// The facts of the volume that holds a folder, read without writing anything and
// without raw device access:
// - capacity and free space from statfs;
// - mount point, source device and type from /proc/self/mountinfo (the entry whose
//   mount ID statx reports, else the longest mount point holding the canonical path);
// - UUID from FS_IOC_GETFSUUID, BTRFS_IOC_FS_INFO on btrfs, then libblkid and udev's
//   /dev/disk/by-uuid for the source device; an all-zero UUID counts as none, and
//   memory file systems publish none (they invent a new one at every mount);
// - label from FS_IOC_GETFSLABEL, libblkid, /dev/disk/by-label, else the mount
//   point's last component;
// - case-insensitivity from the type (FAT family, exFAT, NTFS, SMB) or the folder's
//   casefold flag; cloning on btrfs, bcachefs, and xfs formatted with reflink;
//   sub-second timestamps by type; removability from sysfs.
// Throws POSIXFileError "statfs" when the folder cannot be reached.
VolumeInfo queryLinuxVolume(const std::string& absolutePath);

// The rules by file-system type, apart so they can be checked on their own.
namespace volume_rules {

bool namesAreCaseInsensitive(std::string_view fileSystemType);
// The kernel type of the format a FUSE driver serves, from the driver's name in
// "fuse.<driver>" or "fuseblk.<driver>" ("fusefat" serves "vfat", "exfat" and
// "exfat-fuse" "exfat", "ntfs-3g" "ntfs"); any other type as it is. A plain "fuseblk"
// names no driver: the device's own format tells (see queryLinuxVolume).
std::string formatBehindFuse(std::string_view fileSystemType);
bool keepsSubSecondTimestamps(std::string_view fileSystemType);
// Memory file systems (tmpfs, ramfs, ...) generate a fresh UUID at each mount, which
// identifies nothing across a reboot.
bool inventsUUIDPerMount(std::string_view fileSystemType);
// Upper-case 8-4-4-4-12 text of a 16-byte UUID; none when every byte is zero.
std::optional<std::string> formatUUID(const std::uint8_t* bytes, std::size_t length);
// A UUID as libblkid or udev prints it ("abcd-1234" on FAT), upper-cased; none when
// empty or made only of zeros and dashes.
std::optional<std::string> normalizeUUIDText(std::string_view text);
// udev's names in /dev/disk/by-label escape bytes as \xHH.
std::string decodeUdevName(std::string_view name);

}  // namespace volume_rules

}  // namespace varnel
