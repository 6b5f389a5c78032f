#include "scan/ScanResult.hpp"
#include "scan/SharedEntry.hpp"
#include "support/Shorthand.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace varnel {
namespace {

using testing::rel;

FileSystemEntry fileEntry(std::size_t number) {
    FileSystemEntry entry;
    entry.relativePath = rel("folder/file" + std::to_string(number));
    entry.size = static_cast<std::int64_t>(number);
    entry.inode = number + 1;
    return entry;
}

// Handles into a scan keep their entries after the scan is gone, wherever in the store
// they lie (the store spans several blocks here), and entries of one's own behave the
// same; equality looks at values, not at where they live.
TEST(EntryStore, SharedEntriesOutliveTheirScanInEveryBlockAndCompareByValue) {
    constexpr std::size_t kCount = 25'000;  // about two and a half blocks
    std::vector<SharedEntry> kept;
    std::vector<std::size_t> keptNumbers;
    {
        ScanResult scan;
        for (std::size_t i = 0; i < kCount; ++i) {
            const FileSystemEntry& stored = scan.add(fileEntry(i));
            EXPECT_EQ(&stored, &scan.orderedEntries()[i]);
        }
        ASSERT_EQ(scan.size(), kCount);
        std::size_t position = 0;
        for (const FileSystemEntry& entry : scan.orderedEntries()) {
            ASSERT_EQ(entry.size, static_cast<std::int64_t>(position)) << "out of discovery order";
            ++position;
        }
        EXPECT_EQ(position, kCount);
        // Every thousandth entry, and the ends of the store.
        for (std::size_t i = 0; i < kCount; i += 997) keptNumbers.push_back(i);
        keptNumbers.push_back(kCount - 1);
        for (const std::size_t i : keptNumbers) {
            SharedEntry handle = scan.share(scan.orderedEntries()[i]);
            kept.push_back(handle);  // a copy, counted once more
        }
        EXPECT_EQ(scan.entry(rel("folder/file24999"))->inode, 25'000U);
    }
    for (std::size_t k = 0; k < kept.size(); ++k) {
        ASSERT_TRUE(kept[k].has_value());
        EXPECT_EQ(*kept[k], fileEntry(keptNumbers[k]));
        EXPECT_EQ(kept[k], SharedEntry(fileEntry(keptNumbers[k])));
        EXPECT_NE(kept[k], SharedEntry(fileEntry(keptNumbers[k] + 1)));
    }
    EXPECT_NE(kept.front(), SharedEntry());
    EXPECT_EQ(SharedEntry(), SharedEntry(std::nullopt));

    std::optional<SharedEntry> own(SharedEntry(fileEntry(7)));
    const SharedEntry copy = *own;
    own.reset();
    EXPECT_EQ(copy->relativePath, rel("folder/file7"));
    EXPECT_EQ(copy->size, 7);
}

}  // namespace
}  // namespace varnel
