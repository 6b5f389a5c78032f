#pragma once

#include "common/Date.hpp"
#include "common/Uuid.hpp"
#include "model/RelativePath.hpp"

#include <cstdint>
#include <optional>

namespace varnel {

// One run folder of the archive, as listed.
struct ArchiveRun {
    RelativePath relativePath;        // the run folder below the destination root
    std::optional<Uuid> profileID;    // the profile folder's name, when it is a UUID
    std::optional<Date> timestamp;    // the run folder's name, when it is a run-folder date
    std::int64_t itemCount = 0;       // items below the run folder (folders included)
    std::uint64_t totalBytes = 0;     // sizes of the regular files below it
    std::int64_t inaccessibleItemCount = 0;  // items whose attributes or contents could not be read

    friend bool operator==(const ArchiveRun&, const ArchiveRun&) = default;
};

}  // namespace varnel
