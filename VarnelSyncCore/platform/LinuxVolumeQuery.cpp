#include "platform/LinuxVolumeQuery.hpp"

#include "common/CheckedArithmetic.hpp"
#include "common/Uuid.hpp"
#include "platform/MountTable.hpp"
#include "platform/SystemCall.hpp"
#include "platform/UniqueFd.hpp"
#include "scan/POSIXFileError.hpp"

#include <blkid/blkid.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>

#ifndef FS_IOC_GETFSUUID
// The generic UUID query of kernel 6.5; the installed headers may predate it.
struct fsuuid2 {
    __u8 len;
    __u8 uuid[16];
};
#define FS_IOC_GETFSUUID _IOR(0x15, 0, struct fsuuid2)
#endif

namespace varnel {

namespace {

namespace fs = std::filesystem;

// The first version of xfs's geometry record: stable since the 1990s, it already holds
// the feature flags, and using it spares a build dependency on xfslibs-dev.
struct XfsGeometryV1 {
    std::uint32_t blocksize, rtextsize, agblocks, agcount, logblocks, sectsize, inodesize, imaxpct;
    std::uint64_t datablocks, rtblocks, rtextents, logstart;
    std::uint8_t uuid[16];
    std::uint32_t sunit, swidth;
    std::int32_t version;
    std::uint32_t flags, logsectsize, rtsectsize, dirblocksize;
};
static_assert(sizeof(XfsGeometryV1) == 112, "layout of struct xfs_fsop_geom_v1");
constexpr unsigned long kXfsGetGeometryV1 = _IOR('X', 100, XfsGeometryV1);
constexpr std::uint32_t kXfsReflinkFlag = 0x100000;  // XFS_FSOP_GEOM_FLAGS_REFLINK

// libblkid's cache is shared state without its own lock.
std::mutex blkidMutex;

std::optional<std::string> uuidFromKernel(int folderFd, std::string_view type) {
    if (folderFd < 0 || volume_rules::inventsUUIDPerMount(type)) return std::nullopt;
    if (type == "btrfs") {
        // The file-system ID that blkid calls UUID; subvolumes each have their own
        // device number but share it.
        btrfs_ioctl_fs_info_args args{};
        if (::ioctl(folderFd, BTRFS_IOC_FS_INFO, &args) == 0) {
            if (auto uuid = volume_rules::formatUUID(args.fsid, BTRFS_FSID_SIZE)) return uuid;
        }
    }
    fsuuid2 value{};
    if (::ioctl(folderFd, FS_IOC_GETFSUUID, &value) == 0 && value.len <= sizeof value.uuid) {
        return volume_rules::formatUUID(value.uuid, value.len);
    }
    return std::nullopt;
}

std::optional<std::string> labelFromKernel(int folderFd) {
    if (folderFd < 0) return std::nullopt;
    std::array<char, FSLABEL_MAX> label{};
    if (::ioctl(folderFd, FS_IOC_GETFSLABEL, label.data()) != 0) return std::nullopt;
    label.back() = '\0';
    if (label.front() == '\0') return std::nullopt;
    return std::string(label.data());
}

// Answers from the blkid cache, or by probing the device when it is readable (root);
// never writes to the device.
std::optional<std::string> blkidTag(const std::string& device, const char* tag) {
    std::lock_guard lock(blkidMutex);
    blkid_cache cache = nullptr;
    if (blkid_get_cache(&cache, nullptr) != 0) return std::nullopt;
    std::optional<std::string> result;
    if (char* value = blkid_get_tag_value(cache, tag, device.c_str())) {
        result = value;
        std::free(value);
    }
    blkid_put_cache(cache);
    return result;
}

// udev's /dev/disk/by-uuid and by-label links need no privileges at all.
std::optional<std::string> udevNameFor(const std::string& device, const char* folder) {
    std::error_code error;
    const fs::path target = fs::canonical(device, error);
    if (error) return std::nullopt;
    for (auto it = fs::directory_iterator(folder, error); !error && it != fs::directory_iterator();
         it.increment(error)) {
        std::error_code ignored;
        const fs::path resolved = fs::canonical(it->path(), ignored);
        if (!ignored && resolved == target) {
            return volume_rules::decodeUdevName(it->path().filename().string());
        }
    }
    return std::nullopt;
}

bool isBlockDeviceSource(const MountEntry* mount) {
    return mount != nullptr && mount->source.starts_with("/dev/");
}

std::optional<std::string> uuidOfDevice(const MountEntry* mount) {
    if (!isBlockDeviceSource(mount)) return std::nullopt;
    if (auto text = blkidTag(mount->source, "UUID")) {
        if (auto uuid = volume_rules::normalizeUUIDText(*text)) return uuid;
    }
    if (auto text = udevNameFor(mount->source, "/dev/disk/by-uuid")) return volume_rules::normalizeUUIDText(*text);
    return std::nullopt;
}

std::optional<std::string> labelOfDevice(const MountEntry* mount) {
    if (!isBlockDeviceSource(mount)) return std::nullopt;
    if (auto label = blkidTag(mount->source, "LABEL"); label && !label->empty()) return label;
    if (auto label = udevNameFor(mount->source, "/dev/disk/by-label"); label && !label->empty()) return label;
    return std::nullopt;
}

std::optional<std::string> lastComponentOf(const std::string& mountPoint) {
    const std::size_t slash = mountPoint.find_last_of('/');
    const std::string name = slash == std::string::npos ? mountPoint : mountPoint.substr(slash + 1);
    if (name.empty()) return std::nullopt;  // "/" has no name of its own
    return name;
}

bool folderIsCasefolded(int folderFd) {
    if (folderFd < 0) return false;
    int flags = 0;  // the kernel writes an int, whatever the ioctl number says
    return ::ioctl(folderFd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_CASEFOLD_FL) != 0;
}

// Reads a flag, never tries a clone: analysis writes nothing, and a probe clone would
// need a scratch file on the user's volume.
bool supportsCloning(int folderFd, std::string_view type) {
    if (type == "btrfs" || type == "bcachefs") return true;
    if (type == "xfs" && folderFd >= 0) {
        XfsGeometryV1 geometry{};
        return ::ioctl(folderFd, kXfsGetGeometryV1, &geometry) == 0 && (geometry.flags & kXfsReflinkFlag) != 0;
    }
    return false;
}

std::optional<dev_t> blockDeviceOf(const MountEntry* mount) {
    if (mount == nullptr) return std::nullopt;
    if (mount->deviceMajor != 0) return makedev(mount->deviceMajor, mount->deviceMinor);
    // btrfs shows an anonymous device number; its source names the real one.
    struct stat source {};
    if (isBlockDeviceSource(mount) && ::stat(mount->source.c_str(), &source) == 0 && S_ISBLK(source.st_mode)) {
        return source.st_rdev;
    }
    return std::nullopt;
}

std::string firstLineOf(const fs::path& file) {
    std::ifstream in(file);
    std::string line;
    std::getline(in, line);
    return line;
}

// `node` is a /sys/devices/.../block/<disk>[/<partition>] folder.
bool sysfsDiskIsRemovable(fs::path node, int depth) {
    std::error_code error;
    if (depth > 8) return false;
    if (fs::exists(node / "partition", error)) node = node.parent_path();
    if (firstLineOf(node / "removable") == "1") return true;
    // USB disks often report 0 although they are meant to be unplugged ("ejectable").
    if (node.string().find("/usb") != std::string::npos) return true;
    // Device-mapper (LUKS, LVM) sits on top of the disks listed in slaves/.
    for (auto it = fs::directory_iterator(node / "slaves", error); !error && it != fs::directory_iterator();
         it.increment(error)) {
        std::error_code ignored;
        const fs::path slave = fs::canonical(it->path(), ignored);
        if (!ignored && sysfsDiskIsRemovable(slave, depth + 1)) return true;
    }
    return false;
}

bool isRemovable(const MountEntry* mount) {
    const auto device = blockDeviceOf(mount);
    if (!device) return false;
    std::error_code error;
    const fs::path node =
        fs::canonical("/sys/dev/block/" + std::to_string(major(*device)) + ":" + std::to_string(minor(*device)), error);
    return !error && sysfsDiskIsRemovable(node, 0);
}

}  // namespace

namespace volume_rules {

bool namesAreCaseInsensitive(std::string_view type) {
    constexpr std::array<std::string_view, 8> kTypes{"vfat", "msdos", "exfat", "ntfs", "ntfs3", "cifs", "smb3",
                                                     "smbfs"};
    return std::find(kTypes.begin(), kTypes.end(), type) != kTypes.end();
}

std::string formatBehindFuse(std::string_view type) {
    for (const std::string_view prefix : {std::string_view("fuse."), std::string_view("fuseblk.")}) {
        if (!type.starts_with(prefix)) continue;
        const std::string_view driver = type.substr(prefix.size());
        if (driver == "fusefat") return "vfat";
        if (driver == "exfat-fuse") return "exfat";
        if (driver == "ntfs-3g" || driver == "lowntfs-3g") return "ntfs";
        return std::string(driver);
    }
    return std::string(type);
}

bool keepsSubSecondTimestamps(std::string_view type) {
    constexpr std::array<std::string_view, 14> kTypes{"ext2",    "ext3", "ext4", "xfs",  "btrfs", "tmpfs", "f2fs",
                                                      "zfs", "bcachefs", "overlay", "nfs", "nfs4", "ceph", "ramfs"};
    return std::find(kTypes.begin(), kTypes.end(), type) != kTypes.end();
}

bool inventsUUIDPerMount(std::string_view type) {
    constexpr std::array<std::string_view, 4> kTypes{"tmpfs", "ramfs", "devtmpfs", "hugetlbfs"};
    return std::find(kTypes.begin(), kTypes.end(), type) != kTypes.end();
}

std::optional<std::string> formatUUID(const std::uint8_t* bytes, std::size_t length) {
    if (length != 16) return std::nullopt;
    std::array<std::uint8_t, 16> value{};
    std::copy(bytes, bytes + 16, value.begin());
    const Uuid uuid(value);
    if (uuid.isNil()) return std::nullopt;
    return uuid.string();
}

std::optional<std::string> normalizeUUIDText(std::string_view text) {
    if (text.find_first_not_of("0-") == std::string_view::npos) return std::nullopt;
    std::string upper(text);
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return upper;
}

std::string decodeUdevName(std::string_view name) {
    std::string out;
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (name[i] == '\\' && i + 3 < name.size() && name[i + 1] == 'x' && std::isxdigit(static_cast<unsigned char>(name[i + 2])) &&
            std::isxdigit(static_cast<unsigned char>(name[i + 3]))) {
            out += static_cast<char>(std::stoi(std::string(name.substr(i + 2, 2)), nullptr, 16));
            i += 3;
        } else {
            out += name[i];
        }
    }
    return out;
}

}  // namespace volume_rules

VolumeInfo queryLinuxVolume(const std::string& absolutePath) {
    const UniqueFd pathFd(retryOnInterrupt([&] { return ::open(absolutePath.c_str(), O_PATH | O_CLOEXEC); }));
    if (!pathFd) throw POSIXFileError(errno, "statfs", absolutePath);
    struct statfs volume {};
    if (retryOnInterrupt([&] { return ::fstatfs(pathFd.get(), &volume); }) != 0) {
        throw POSIXFileError(errno, "statfs", absolutePath);
    }
    struct statx folder {};
    if (::statx(pathFd.get(), "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_MNT_ID, &folder) != 0) {
        throw POSIXFileError(errno, "statx", absolutePath);
    }

    VolumeInfo info;
    info.deviceID = makedev(folder.stx_dev_major, folder.stx_dev_minor);
    info.availableBytes = checkedMultiplyUnsigned(static_cast<std::uint64_t>(volume.f_bavail),
                                                  static_cast<std::uint64_t>(volume.f_bsize), "available bytes");
    const auto fragment = static_cast<std::uint64_t>(volume.f_frsize != 0 ? volume.f_frsize : volume.f_bsize);
    info.identity.totalCapacity =
        checkedMultiplyUnsigned(static_cast<std::uint64_t>(volume.f_blocks), fragment, "volume capacity");

    const MountTable table = MountTable::current();
    const MountEntry* mount = (folder.stx_mask & STATX_MNT_ID) != 0 ? table.findByMountID(folder.stx_mnt_id) : nullptr;
    if (mount == nullptr) {
        const std::unique_ptr<char, decltype(&std::free)> canonical(::realpath(absolutePath.c_str(), nullptr),
                                                                    &std::free);
        if (canonical) mount = table.findContaining(canonical.get(), folder.stx_dev_major, folder.stx_dev_minor);
    }
    if (mount != nullptr) {
        info.fileSystemType = mount->fileSystemType;
        info.identity.mountPointPath = mount->mountPoint;
    }
    const std::string_view type = info.fileSystemType;

    // The ioctls need a descriptor that is really open; an unreadable folder gets the
    // facts that need none.
    const UniqueFd folderFd(S_ISDIR(folder.stx_mode) ? retryOnInterrupt([&] {
        return ::openat(pathFd.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    })
                                                     : -1);

    auto& identity = info.identity;
    identity.volumeUUID = uuidFromKernel(folderFd.get(), type);
    if (!identity.volumeUUID && !volume_rules::inventsUUIDPerMount(type)) identity.volumeUUID = uuidOfDevice(mount);

    identity.volumeName = labelFromKernel(folderFd.get());
    if (!identity.volumeName) identity.volumeName = labelOfDevice(mount);
    if (!identity.volumeName && mount != nullptr) identity.volumeName = lastComponentOf(mount->mountPoint);

    // A FUSE driver keeps names apart as the format it serves does; a plain "fuseblk"
    // (exfat-fuse, ntfs-3g) says which only through its device.
    std::string format = volume_rules::formatBehindFuse(type);
    if (type == "fuseblk" && isBlockDeviceSource(mount)) format = blkidTag(mount->source, "TYPE").value_or(format);
    identity.isCaseSensitive =
        !(volume_rules::namesAreCaseInsensitive(format) || folderIsCasefolded(folderFd.get()));
    identity.supportsCloning = supportsCloning(folderFd.get(), type);
    identity.supportsHighPrecisionTimestamps = volume_rules::keepsSubSecondTimestamps(type);
    identity.isRemovable = isRemovable(mount);
    return info;
}

}  // namespace varnel
