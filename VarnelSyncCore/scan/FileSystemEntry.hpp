#pragma once

#include "common/BoxedOptional.hpp"
#include "model/RelativePath.hpp"
#include "scan/EntryKind.hpp"
#include "scan/FileTimestamp.hpp"

#include <cstdint>
#include <optional>
#include <string>

namespace varnel {

// One item as seen by a single statx that never follows a final symbolic link, so the
// fields are consistent with each other.
struct FileSystemEntry {
    // Eight-byte members first, then the 4-byte aligned ones and the narrow ones, so that
    // a scan's hundreds of thousands of entries carry no padding: 96 bytes each.
    RelativePath relativePath;
    std::int64_t size = 0;             // logical size of regular files; 0 for every other kind
    std::int64_t allocatedBlocks = 0;  // 512-byte units
    BoxedOptional<std::string> symlinkTarget;  // links only; absent when readlink failed
    std::uint64_t inode = 0;
    // st_dev. The kernel keeps device numbers in 32 bits (a 12-bit major and a 20-bit
    // minor on Linux, whose makedev encoding fits 32 bits too; macOS's dev_t is 32 bits).
    std::uint32_t deviceID = 0;
    FileTimestamp modificationTime;
    OptionalTimestamp creationTime;  // absent where the file system keeps no birth time
    // st_ctime: moved by every change to the data or the metadata, and, unlike the
    // modification time, not settable by programs; absent where unknown.
    OptionalTimestamp changeTime;
    std::uint32_t ownerUID = 0;
    std::uint32_t ownerGID = 0;
    std::uint32_t hardLinkCount = 1;
    std::uint16_t posixPermissions : 12 = 0;  // mode & 07777
    // Contents live only in the cloud; never set by the Linux file system.
    bool isDataless : 1 = false;
    EntryKind kind = EntryKind::regularFile;
    OptionalUnsupportedReason unsupportedReason;  // set exactly when kind is unsupported

    bool isDirectory() const { return kind == EntryKind::directory; }
    bool isRegularFile() const { return kind == EntryKind::regularFile; }
    bool isSymbolicLink() const { return kind == EntryKind::symbolicLink; }
    std::int64_t allocatedBytes() const { return allocatedBlocks * 512; }

    friend bool operator==(const FileSystemEntry&, const FileSystemEntry&) = default;
};
static_assert(sizeof(void*) != 8 || sizeof(FileSystemEntry) == 96);

// Maps st_mode's type bits to a kind and, for special files, the reason.
EntryKind entryKindFromMode(std::uint32_t mode, OptionalUnsupportedReason& reason);

}  // namespace varnel
