#pragma once

#include "archive/ArchiveRun.hpp"
#include "common/Date.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace varnel {

// What the archive of one destination holds, with the texts the Tools window shows.
struct ArchiveOverview {
    // A highlighted notice: a title and a sentence below it.
    struct Callout {
        std::string title;
        std::string message;

        friend bool operator==(const Callout&, const Callout&) = default;
    };

    // Above this share of the destination volume the archive's size gets a callout;
    // when the share is not above it, so does an archive above the absolute size.
    static constexpr double kSignificantVolumeShare = 0.1;
    static constexpr std::uint64_t kSignificantBytes = 20'000'000'000;

    std::vector<ArchiveRun> runs;  // by profile folder, then run folder, ascending
    std::uint64_t destinationFreeBytes = 0;
    std::uint64_t destinationTotalBytes = 0;  // 0 when the volume's size is unknown
    bool hadReadErrors = false;               // some folder or item of the archive could not be read

    std::int64_t itemCount() const;
    std::uint64_t totalBytes() const;
    // The earliest and latest run dates among runs whose name is a date.
    std::optional<Date> oldestRunDate() const;
    std::optional<Date> newestRunDate() const;

    // "No archived items.", or "3 archive runs, 120 items, 4.5 GB (12% of the volume)"
    // (the share only when the volume's size is known).
    std::string summarySentence() const;
    // "Archives are using a significant amount of space" when the archive exceeds a
    // tenth of the volume, or else 20 GB; none otherwise.
    std::optional<Callout> spaceCallout() const;
    // "Some archive items could not be read" when hadReadErrors is set.
    std::optional<Callout> readErrorCallout() const;
    // What an empty archive shows instead of the list.
    static std::string emptyArchiveText();

    friend bool operator==(const ArchiveOverview&, const ArchiveOverview&) = default;
};

}  // namespace varnel
