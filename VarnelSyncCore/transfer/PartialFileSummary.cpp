#include "transfer/PartialFileSummary.hpp"

#include "common/ByteCount.hpp"
#include "common/CheckedArithmetic.hpp"
#include "common/Localization.hpp"
#include "transfer/PartialFileNaming.hpp"

namespace varnel {

PartialFileSummary PartialFileSummary::of(const std::vector<FileSystemEntry>& stagingItems, Date now) {
    PartialFileSummary summary;
    const auto nowSeconds = std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count();
    for (const auto& item : stagingItems) {
        const auto parsed = PartialFileNaming::parse(item.relativePath.lastComponent());
        if (!parsed) continue;
        ++summary.count;
        summary.totalBytes = checkedAdd(summary.totalBytes, item.size, "leftover staging bytes");
        if (nowSeconds - item.modificationTime.seconds() > kOldAgeSeconds) ++summary.olderThanADay;
        ++summary.byRun[parsed->runTag.value_or("")];
    }
    return summary;
}

std::string PartialFileSummary::sentence() const {
    std::string text = trFormat("Found {} leftover staging file(s) ({}) in the destination", count,
                                formatByteCount(totalBytes));
    if (olderThanADay > 0) text += trFormat(", {} of them older than a day", olderThanADay);
    return text + ".";
}

}  // namespace varnel
