#pragma once

#include "common/Date.hpp"
#include "scan/FileSystemEntry.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace varnel {

// Leftover staging files found in a destination: what an interrupted run left behind.
struct PartialFileSummary {
    static constexpr std::int64_t kOldAgeSeconds = 86'400;

    std::int64_t count = 0;
    std::int64_t totalBytes = 0;
    std::int64_t olderThanADay = 0;             // by modification time
    std::map<std::string, std::int64_t> byRun;  // run tag ("" for names without one) -> count

    // Counts the staging-named items a destination scan found.
    static PartialFileSummary of(const std::vector<FileSystemEntry>& stagingItems, Date now);

    // "Found 3 leftover staging files (1.5 MB) in the destination, 2 of them older than a day."
    std::string sentence() const;

    friend bool operator==(const PartialFileSummary&, const PartialFileSummary&) = default;
};

}  // namespace varnel
