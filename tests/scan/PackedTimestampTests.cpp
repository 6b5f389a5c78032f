#include "plan/SyncAction.hpp"
#include "scan/FileSystemEntry.hpp"
#include "scan/PackedTimestamp.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>
#include <vector>

namespace varnel {
namespace {

constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
// The last whole second on each side that a word holds inline (2^62 ns, less a second).
constexpr std::int64_t kInlineEdge = 4'611'686'017;

// Times on both sides of every boundary the packing has: 1970, the inline range's ends,
// a file system's "year 1601", the ends of the seconds' range, and nanosecond counts no
// time has (a FileTimestamp can still carry them).
std::vector<FileTimestamp> edgeTimes() {
    return {
        {0, 0},
        {0, 1},
        {-1, 0},
        {-1, 999'999'999},
        {1'700'000'000, 123'456'789},
        {kInlineEdge, 999'999'999},
        {kInlineEdge + 1, 0},
        {kInlineEdge + 1, 999'999'999},
        {-kInlineEdge, 0},
        {-kInlineEdge - 1, 999'999'999},
        {-11'644'473'600, 0},  // 1601-01-01
        {253'402'300'799, 999'999'999},  // 9999-12-31
        {kMax, 999'999'999},
        {kMin, 0},
        {5, -1},
        {5, 1'000'000'000},
    };
}

// Every time comes back exactly, through copies and moves, whether it is kept inline or
// behind a pointer; equality and order are those of the times themselves. (Under the
// address sanitizer, this also shows that boxed times are neither leaked nor freed twice.)
TEST(PackedTimestamp, HoldsEveryTimeExactlyAndComparesLikeIt) {
    const std::vector<FileTimestamp> times = edgeTimes();
    for (const FileTimestamp& time : times) {
        SCOPED_TRACE(testing::Message() << time.seconds << " s " << time.nanoseconds << " ns");
        const PackedTimestamp packed(time);
        EXPECT_EQ(packed.value(), time);
        EXPECT_EQ(packed.seconds(), time.seconds);

        PackedTimestamp copy = packed;
        EXPECT_EQ(copy.value(), time);
        PackedTimestamp moved = std::move(copy);
        EXPECT_EQ(moved.value(), time);
        copy = moved;  // a moved-from time can be assigned again
        EXPECT_EQ(copy.value(), time);
        moved = PackedTimestamp(FileTimestamp{42, 0});
        EXPECT_EQ(moved.value(), (FileTimestamp{42, 0}));

        const OptionalPackedTimestamp optional(time);
        ASSERT_TRUE(optional.has_value());
        EXPECT_EQ(*optional, time);
        const OptionalPackedTimestamp optionalCopy = optional;
        EXPECT_EQ(*optionalCopy, time);
        EXPECT_EQ(optionalCopy, optional);
        EXPECT_NE(optional, OptionalPackedTimestamp());

        for (const FileTimestamp& other : times) {
            const PackedTimestamp otherPacked(other);
            EXPECT_EQ(packed == otherPacked, time == other) << other.seconds << " s " << other.nanoseconds << " ns";
            EXPECT_EQ(packed <=> otherPacked, time <=> other) << other.seconds << " s " << other.nanoseconds << " ns";
            EXPECT_EQ(packed < other, time < other);
        }
    }
}

TEST(PackedTimestamp, OptionalTimesSayWhenThereIsNone) {
    const OptionalPackedTimestamp none;
    EXPECT_FALSE(none.has_value());
    EXPECT_EQ(none, OptionalPackedTimestamp(std::nullopt));
    EXPECT_EQ(none, OptionalPackedTimestamp(std::optional<FileTimestamp>()));
    // 1970's first instant is a time, not the absence of one.
    const OptionalPackedTimestamp epoch(std::optional<FileTimestamp>(FileTimestamp{0, 0}));
    ASSERT_TRUE(epoch.has_value());
    EXPECT_EQ(*epoch, (FileTimestamp{0, 0}));
    OptionalPackedTimestamp moved = epoch;
    const OptionalPackedTimestamp taken = std::move(moved);
    EXPECT_TRUE(taken.has_value());
}

// A scanned entry keeps both times in its 72 bytes, and an entry with out-of-range times
// copies and writes them as any other.
TEST(PackedTimestamp, EntriesKeepOutOfRangeTimesThroughCopiesAndJSON) {
    FileSystemEntry entry;
    entry.modificationTime = FileTimestamp{-11'644'473'600, 5};
    entry.creationTime = FileTimestamp{kMax, 0};
    const FileSystemEntry copy = entry;
    EXPECT_EQ(copy, entry);
    EXPECT_EQ(copy.modificationTime.value(), (FileTimestamp{-11'644'473'600, 5}));
    const nlohmann::json json = entry;
    EXPECT_EQ(json.at("modificationTime").at("seconds").get<std::int64_t>(), -11'644'473'600);
    EXPECT_EQ(json.at("creationTime").at("seconds").get<std::int64_t>(), kMax);
    EXPECT_EQ(json.get<FileSystemEntry>(), entry);
}

}  // namespace
}  // namespace varnel
