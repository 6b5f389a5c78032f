#include "scan/FileComparator.hpp"

#include "common/CheckedArithmetic.hpp"

#include <cstdint>
#include <limits>

namespace varnel {

std::int64_t FileComparator::tolerance(const std::optional<VolumeInfo>& sourceVolume,
                                       const std::optional<VolumeInfo>& destinationVolume, bool eitherIsCloudFolder) {
    if (!sourceVolume || !destinationVolume) return kCoarseToleranceNanoseconds;
    if (!sourceVolume->identity.supportsHighPrecisionTimestamps ||
        !destinationVolume->identity.supportsHighPrecisionTimestamps) {
        return kCoarseToleranceNanoseconds;
    }
    // Cloud services store modification times less precisely than local volumes.
    if (eitherIsCloudFolder) return kCoarseToleranceNanoseconds;
    return kHighPrecisionToleranceNanoseconds;
}

bool FileComparator::timesWithinTolerance(const FileTimestamp& source, const FileTimestamp& destination) const {
    std::int64_t secondsDifference = 0;
    if (__builtin_sub_overflow(std::int64_t{source.seconds}, std::int64_t{destination.seconds}, &secondsDifference)) {
        fatalOverflow("modification time difference");
    }
    // A destination that keeps whole seconds only is equal within its second.
    if (destination.nanoseconds == 0 && secondsDifference == 0) return true;
    constexpr std::int64_t kLimit = 8'999'999'999;  // keeps the nanosecond total inside 64 bits
    if (secondsDifference < -kLimit || secondsDifference > kLimit) {
        return toleranceNanoseconds_ == std::numeric_limits<std::int64_t>::max();
    }
    const std::int64_t total =
        secondsDifference * 1'000'000'000 + (source.nanoseconds - destination.nanoseconds);
    const std::int64_t magnitude = total < 0 ? -total : total;
    return magnitude <= toleranceNanoseconds_;
}

FileComparator::Verdict FileComparator::compare(const FileSystemEntry& source,
                                                const FileSystemEntry& destination) const {
    if (source.kind != destination.kind) {
        // "from" is what the destination holds now, "to" what the source holds.
        return Changed{SyncActionReason::TypeChanged{destination.kind, source.kind}};
    }
    switch (source.kind) {
        case EntryKind::directory:
            return Unchanged{};
        case EntryKind::symbolicLink: {
            const std::string sourceTarget = source.symlinkTarget.value_or("");
            const std::string destinationTarget = destination.symlinkTarget.value_or("");
            if (sourceTarget == destinationTarget) return Unchanged{};
            return Changed{SyncActionReason::SymlinkTargetChanged{destinationTarget, sourceTarget}};
        }
        case EntryKind::unsupported:
            return Changed{SyncActionReason::UnsupportedFileType{
                source.unsupportedReason.value_or(UnsupportedReason::unknownType)}};
        case EntryKind::regularFile:
            break;
    }
    if (source.size != destination.size) {
        return Changed{SyncActionReason::SizeDiffers{source.size, destination.size}};
    }
    // Equal times, the common case, need no arithmetic.
    if (source.modificationTime == destination.modificationTime) return Unchanged{};
    if (timesWithinTolerance(source.modificationTime, destination.modificationTime)) return Unchanged{};
    if (source.modificationTime > destination.modificationTime) {
        return Changed{SyncActionReason::SourceIsNewer{source.modificationTime, destination.modificationTime}};
    }
    // Destination newer is still a change: the source is authoritative in a one-way sync.
    return Changed{
        SyncActionReason::TimestampsDifferAmbiguously{source.modificationTime, destination.modificationTime}};
}

}  // namespace varnel
