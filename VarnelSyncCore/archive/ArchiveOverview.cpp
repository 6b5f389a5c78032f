#include "archive/ArchiveOverview.hpp"

#include "common/ByteCount.hpp"
#include "common/CheckedArithmetic.hpp"
#include "common/Localization.hpp"

#include <algorithm>
#include <limits>

namespace varnel {

namespace {

std::int64_t asByteCount(std::uint64_t bytes) {
    return static_cast<std::int64_t>(std::min<std::uint64_t>(bytes, std::numeric_limits<std::int64_t>::max()));
}

}  // namespace

std::int64_t ArchiveOverview::itemCount() const {
    std::int64_t total = 0;
    for (const auto& run : runs) total = checkedAdd(total, run.itemCount, "archive item count");
    return total;
}

std::uint64_t ArchiveOverview::totalBytes() const {
    std::uint64_t total = 0;
    for (const auto& run : runs) {
        if (__builtin_add_overflow(total, run.totalBytes, &total)) fatalOverflow("archive size");
    }
    return total;
}

std::optional<Date> ArchiveOverview::oldestRunDate() const {
    std::optional<Date> oldest;
    for (const auto& run : runs) {
        if (run.timestamp && (!oldest || *run.timestamp < *oldest)) oldest = run.timestamp;
    }
    return oldest;
}

std::optional<Date> ArchiveOverview::newestRunDate() const {
    std::optional<Date> newest;
    for (const auto& run : runs) {
        if (run.timestamp && (!newest || *run.timestamp > *newest)) newest = run.timestamp;
    }
    return newest;
}

std::string ArchiveOverview::summarySentence() const {
    if (runs.empty()) return tr("No archived items.");
    const std::uint64_t bytes = totalBytes();
    std::string sentence = trFormat("{} archive runs", static_cast<long long>(runs.size())) + ", " +
                           trFormat("{} items", static_cast<long long>(itemCount())) + ", " +
                           formatByteCount(asByteCount(bytes));
    if (destinationTotalBytes > 0) {
        const double percent = static_cast<double>(bytes) / static_cast<double>(destinationTotalBytes) * 100.0;
        sentence += " (" + trFormat("{:.0f}% of the volume", percent) + ")";
    }
    return sentence;
}

std::optional<ArchiveOverview::Callout> ArchiveOverview::spaceCallout() const {
    const std::uint64_t bytes = totalBytes();
    const bool largeShare = destinationTotalBytes > 0 && static_cast<double>(bytes) /
                                                                 static_cast<double>(destinationTotalBytes) >
                                                             kSignificantVolumeShare;
    if (!largeShare && bytes <= kSignificantBytes) return std::nullopt;
    return Callout{tr("Archives are using a significant amount of space"),
                   trFormat("{} across {} runs. Delete runs you no longer need.", formatByteCount(asByteCount(bytes)),
                            static_cast<long long>(runs.size()))};
}

std::optional<ArchiveOverview::Callout> ArchiveOverview::readErrorCallout() const {
    if (!hadReadErrors) return std::nullopt;
    return Callout{tr("Some archive items could not be read"), tr("Sizes and counts below may be incomplete.")};
}

std::string ArchiveOverview::emptyArchiveText() {
    return tr("Mirror mode has not archived anything for this profile.");
}

}  // namespace varnel
