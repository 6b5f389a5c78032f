#pragma once

#include "scan/CopyOptions.hpp"

#include <cstddef>
#include <cstdint>
#include <variant>

namespace varnel {

// The data of a copy arrived in full.
struct DataCopied {
    bool cloned = false;  // by FICLONE: the copy shares the source's blocks
    // FICLONE was tried and refused in a way that holds for every file between these two
    // file systems (no cloning there, or not the same file system), not just this file.
    bool cloneUnsupported = false;
};

// A system call of the data copy failed.
struct DataCopyFailure {
    const char* operation;  // "lseek", "copy_file_range", "read", "write", "ftruncate"
    int errnoValue;
    bool concernsSource;  // the call failed on the source (else on the target)
};

// Moves the first `size` bytes of the regular file `sourceFd` into the empty regular
// file `targetFd`, and gives the target exactly that length:
//
// 1. With `allowClone`, one FICLONE: same-volume copies on btrfs or xfs share blocks
//    and cost nothing. Any refusal (EOPNOTSUPP, EXDEV, EINVAL, ...) falls through; the
//    result says whether it holds for the whole pair of file systems.
// 2. Otherwise the data is copied with copy_file_range in blocks of at most
//    `chunkBytes`. When the source `mayHaveHoles` (fewer bytes allocated than its
//    length), only its data regions (SEEK_DATA / SEEK_HOLE) are copied, so a sparse file
//    stays sparse; a fully allocated file is all data and is not probed. Where the kernel
//    refuses copy_file_range (EXDEV, EINVAL, EOPNOTSUPP, ENOSYS) the rest goes by
//    pread/pwrite.
// 3. Where the data stopped short of `size` (a trailing hole), ftruncate writes the final
//    length.
// With `startsWriteback`, blocks are at most 1 MiB and the writing of each but the last
// to the device starts at once (sync_file_range, where the system has it); its errors
// are left to the flush that follows.
//
// `progress` is called with 0 before anything moves, then with each block's bytes
// (a skipped hole counts as copied); when it returns false, OperationCancelled is
// thrown. A source that ends before `size` (it shrank meanwhile) fails as "read" with
// ENODATA rather than being padded with zeros; bytes beyond `size` are not copied.
std::variant<DataCopied, DataCopyFailure> copyFileData(int sourceFd, int targetFd, std::int64_t size,
                                                       bool mayHaveHoles, bool allowClone, std::size_t chunkBytes,
                                                       bool startsWriteback, const CopyProgress& progress);

}  // namespace varnel
