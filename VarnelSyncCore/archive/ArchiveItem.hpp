#pragma once

#include "model/RelativePath.hpp"
#include "scan/EntryKind.hpp"

#include <cstdint>

namespace varnel {

// One item found below an archive run folder, for the detail view of a run.
struct ArchiveItem {
    RelativePath relativePath;  // below the run folder: where the item lay in the destination
    std::uint64_t sizeBytes = 0;  // regular files only
    EntryKind kind = EntryKind::regularFile;  // `unsupported` when the item could not be read
    // False when the item's attributes could not be read, or when it is a folder whose
    // contents could not be listed (then it may hold more than was counted).
    bool isAccessible = true;

    friend bool operator==(const ArchiveItem&, const ArchiveItem&) = default;
};

}  // namespace varnel
