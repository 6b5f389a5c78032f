#pragma once

#include "plan/SyncActionReason.hpp"
#include "scan/FileSystemEntry.hpp"
#include "scan/VolumeInfo.hpp"

#include <cstdint>
#include <optional>
#include <variant>

namespace varnel {

// Decides from scanned metadata alone (kind, size, modification time, link target)
// whether a destination item already equals its source item. Contents are never read.
class FileComparator {
public:
    static constexpr std::int64_t kHighPrecisionToleranceNanoseconds = 1'000;
    static constexpr std::int64_t kCoarseToleranceNanoseconds = 2'000'000'000;

    struct Unchanged {
        friend bool operator==(const Unchanged&, const Unchanged&) = default;
    };
    struct Changed {
        SyncActionReason reason;
        friend bool operator==(const Changed&, const Changed&) = default;
    };
    using Verdict = std::variant<Changed, Unchanged>;

    explicit FileComparator(std::int64_t toleranceNanoseconds) : toleranceNanoseconds_(toleranceNanoseconds) {}

    // Two seconds unless both volumes are known, both keep high-precision timestamps
    // and neither endpoint is a cloud folder; then one microsecond.
    static std::int64_t tolerance(const std::optional<VolumeInfo>& sourceVolume,
                                  const std::optional<VolumeInfo>& destinationVolume, bool eitherIsCloudFolder);

    Verdict compare(const FileSystemEntry& source, const FileSystemEntry& destination) const;

    std::int64_t toleranceNanoseconds() const { return toleranceNanoseconds_; }

private:
    bool timesWithinTolerance(const FileTimestamp& source, const FileTimestamp& destination) const;

    std::int64_t toleranceNanoseconds_;
};

}  // namespace varnel
