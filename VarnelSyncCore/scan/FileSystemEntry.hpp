#pragma once

#include "common/BoxedOptional.hpp"
#include "model/RelativePath.hpp"
#include "scan/EntryKind.hpp"
#include "scan/FileTimestamp.hpp"
#include "scan/PackedTimestamp.hpp"

#include <cstdint>
#include <optional>
#include <string>

namespace varnel {

// One item as seen by a single statx that never follows a final symbolic link, so the
// fields are consistent with each other.
struct FileSystemEntry {
    // A scan holds hundreds of thousands of these, and a plan keeps both scans' entries:
    // the members are ordered and narrowed so that one takes 72 bytes, with the block
    // count, the permission bits, the online-only flag and the kind sharing one word, and
    // each time in a word of its own.
    RelativePath relativePath;
    std::int64_t size = 0;  // logical size of regular files; 0 for every other kind
    // 512-byte units: 47 bits count up to 64 PiB, and larger counts are held at that.
    // The field takes 49 bits so that the four fields fill their word with no spare bit:
    // a move then copies the word whole. Keeping a spare bit made every move read the
    // target word first, and a scan's first touch of a fresh page of its entry store
    // then mapped the zero page and faulted a second time on the write, with a flush of
    // every processor's address cache.
    std::int64_t allocatedBlocks : 49 = 0;
    std::uint16_t posixPermissions : 12 = 0;  // mode & 07777
    // Contents live only in the cloud; never set by the Linux file system.
    bool isDataless : 1 = false;
    EntryKind kind : 2 = EntryKind::regularFile;
    BoxedOptional<std::string> symlinkTarget;  // links only; absent when readlink failed
    std::uint64_t inode = 0;
    PackedTimestamp modificationTime;
    OptionalPackedTimestamp creationTime;  // absent where the file system keeps no birth time
    // st_dev. The kernel keeps device numbers in 32 bits (a 12-bit major and a 20-bit
    // minor on Linux, whose makedev encoding fits 32 bits too; macOS's dev_t is 32 bits).
    std::uint32_t deviceID = 0;
    std::uint32_t ownerUID = 0;
    std::uint32_t ownerGID = 0;
    // st_nlink, held at kMaxHardLinkCount when larger: only whether a file has other
    // names matters, and the count is shown in a warning.
    std::uint16_t hardLinkCount = 1;
    OptionalUnsupportedReason unsupportedReason;  // set exactly when kind is unsupported

    static constexpr std::int64_t kMaxAllocatedBlocks = (std::int64_t{1} << 47) - 1;
    static constexpr std::uint16_t kMaxHardLinkCount = 0xFFFF;

    bool isDirectory() const { return kind == EntryKind::directory; }
    bool isRegularFile() const { return kind == EntryKind::regularFile; }
    bool isSymbolicLink() const { return kind == EntryKind::symbolicLink; }
    std::int64_t allocatedBytes() const { return allocatedBlocks * 512; }

    friend bool operator==(const FileSystemEntry&, const FileSystemEntry&) = default;
};
static_assert(sizeof(void*) != 8 || sizeof(FileSystemEntry) == 72);

// An entry read just now, with the change time (st_ctime) that a stored one leaves out.
// A write moves it even when the size stays and the modification time is set back, and
// programs cannot set it, so a file being copied is checked against it; a scan's entries
// are compared by size and modification time only and have no use for it.
struct FreshEntry : FileSystemEntry {
    OptionalTimestamp changeTime;  // absent where unknown

    friend bool operator==(const FreshEntry&, const FreshEntry&) = default;
};

// Maps st_mode's type bits to a kind and, for special files, the reason.
EntryKind entryKindFromMode(std::uint32_t mode, OptionalUnsupportedReason& reason);

}  // namespace varnel
