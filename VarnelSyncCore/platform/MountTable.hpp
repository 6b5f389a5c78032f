#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace varnel {

// One line of /proc/self/mountinfo.
struct MountEntry {
    std::uint64_t mountID = 0;
    std::uint64_t parentID = 0;
    unsigned deviceMajor = 0;  // st_dev of the mounted file system
    unsigned deviceMinor = 0;
    std::string root;        // the folder of the file system that is mounted here
    std::string mountPoint;  // where it is mounted, escapes (\040 ...) decoded
    std::string fileSystemType;
    std::string source;  // "/dev/sda1", "tmpfs", "server:/export", ...

    friend bool operator==(const MountEntry&, const MountEntry&) = default;
};

// The mounts this process sees, in the kernel's order (a later entry may cover an
// earlier one at the same mount point).
class MountTable {
public:
    // Reads /proc/self/mountinfo; an empty table when it cannot be read.
    static MountTable current();
    // Parses mountinfo text; malformed lines are skipped.
    static MountTable parse(std::string_view text);

    const std::vector<MountEntry>& entries() const { return entries_; }

    const MountEntry* findByMountID(std::uint64_t mountID) const;
    // The mount that holds `canonicalPath`: the longest mount point that contains it on
    // whole components, preferring mounts of the given device, and among equal mount
    // points the one mounted last (it covers the others).
    const MountEntry* findContaining(std::string_view canonicalPath, unsigned deviceMajor,
                                     unsigned deviceMinor) const;

private:
    std::vector<MountEntry> entries_;
};

// Whether `path` is `mountPoint` or lies below it ("/mnt/a" holds "/mnt/a/b", not "/mnt/ab").
bool mountPointContains(std::string_view mountPoint, std::string_view path);

}  // namespace varnel
