#include "scan/FileComparator.hpp"

#include <gtest/gtest.h>

#include <limits>

namespace varnel {
namespace {

FileSystemEntry file(std::int64_t size, std::int64_t seconds, std::int32_t nanoseconds) {
    FileSystemEntry entry;
    entry.kind = EntryKind::regularFile;
    entry.size = size;
    entry.modificationTime = FileTimestamp{seconds, nanoseconds};
    return entry;
}

FileSystemEntry ofKind(EntryKind kind) {
    FileSystemEntry entry;
    entry.kind = kind;
    return entry;
}

FileSystemEntry link(std::optional<std::string> target) {
    FileSystemEntry entry = ofKind(EntryKind::symbolicLink);
    entry.symlinkTarget = std::move(target);
    return entry;
}

VolumeInfo volume(bool highPrecision) {
    VolumeInfo info;
    info.identity.supportsHighPrecisionTimestamps = highPrecision;
    return info;
}

const FileComparator kPrecise(FileComparator::kHighPrecisionToleranceNanoseconds);
const FileComparator kCoarse(FileComparator::kCoarseToleranceNanoseconds);

SyncActionReason reasonOf(const FileComparator::Verdict& verdict) {
    const auto* changed = std::get_if<FileComparator::Changed>(&verdict);
    return changed ? changed->reason : SyncActionReason(SyncActionReason::IdenticalMetadata{});
}

bool isUnchanged(const FileComparator::Verdict& verdict) {
    return std::holds_alternative<FileComparator::Unchanged>(verdict);
}

TEST(FileComparatorTest, ToleranceIsCoarseUnlessBothVolumesArePreciseAndLocal) {
    EXPECT_EQ(FileComparator::tolerance(volume(true), volume(true), false), 1'000);
    EXPECT_EQ(FileComparator::tolerance(std::nullopt, volume(true), false), 2'000'000'000);
    EXPECT_EQ(FileComparator::tolerance(volume(true), std::nullopt, false), 2'000'000'000);
    EXPECT_EQ(FileComparator::tolerance(volume(true), volume(false), false), 2'000'000'000);
    EXPECT_EQ(FileComparator::tolerance(volume(true), volume(true), true), 2'000'000'000);
}

TEST(FileComparatorTest, RegularFilesBySizeThenTime) {
    // Destination 1.5 s older: equal for a cloud folder's two seconds, newer source locally.
    EXPECT_TRUE(isUnchanged(kCoarse.compare(file(10, 100, 500'000'000), file(10, 99, 0))));
    EXPECT_EQ(reasonOf(kPrecise.compare(file(10, 100, 500'000'000), file(10, 99, 0))),
              SyncActionReason(SyncActionReason::SourceIsNewer{{100, 500'000'000}, {99, 0}}));

    // A whole-second destination is equal within its second, whatever the source's fraction.
    EXPECT_TRUE(isUnchanged(kPrecise.compare(file(10, 36000, 700'000'000), file(10, 36000, 0))));
    // ...but not the other way round: the destination has nanoseconds.
    EXPECT_EQ(reasonOf(kPrecise.compare(file(10, 36000, 0), file(10, 36000, 700'000'000))),
              SyncActionReason(SyncActionReason::TimestampsDifferAmbiguously{{36000, 0}, {36000, 700'000'000}}));

    // Within one microsecond is equal, just beyond it is not; sign does not matter.
    EXPECT_TRUE(isUnchanged(kPrecise.compare(file(1, 5, 1'000), file(1, 5, 2'000))));
    EXPECT_TRUE(isUnchanged(kPrecise.compare(file(1, 6, 0), file(1, 5, 999'999'500))));
    EXPECT_FALSE(isUnchanged(kPrecise.compare(file(1, 5, 1'000), file(1, 5, 2'001))));

    // Size is tested before time.
    EXPECT_EQ(reasonOf(kPrecise.compare(file(10, 5, 0), file(12, 5, 0))),
              SyncActionReason(SyncActionReason::SizeDiffers{10, 12}));
    EXPECT_EQ(reasonOf(kPrecise.compare(file(10, 9, 0), file(12, 5, 0))),
              SyncActionReason(SyncActionReason::SizeDiffers{10, 12}));
}

TEST(FileComparatorTest, HugeTimeDifferencesNeverOverflow) {
    const auto distant = file(1, std::numeric_limits<std::int64_t>::max() / 2, 0);
    const auto epoch = file(1, 0, 5);
    EXPECT_TRUE(reasonOf(kPrecise.compare(distant, epoch)).is<SyncActionReason::SourceIsNewer>());
    EXPECT_TRUE(reasonOf(kPrecise.compare(epoch, distant)).is<SyncActionReason::TimestampsDifferAmbiguously>());
    const FileComparator anything(std::numeric_limits<std::int64_t>::max());
    EXPECT_TRUE(isUnchanged(anything.compare(distant, epoch)));
    // Exactly at the edge of the exact computation.
    EXPECT_FALSE(isUnchanged(kPrecise.compare(file(1, 8'999'999'999, 0), file(1, 0, 1))));
}

TEST(FileComparatorTest, KindsLinksFoldersAndSpecialFiles) {
    // Folder in the source, file in the destination: from = destination kind.
    const auto typeChange = reasonOf(kPrecise.compare(ofKind(EntryKind::directory), ofKind(EntryKind::regularFile)));
    EXPECT_EQ(typeChange, SyncActionReason(SyncActionReason::TypeChanged{EntryKind::regularFile, EntryKind::directory}));
    EXPECT_EQ(typeChange.text(), "Type changed from file to folder");

    EXPECT_TRUE(isUnchanged(kPrecise.compare(ofKind(EntryKind::directory), ofKind(EntryKind::directory))));

    EXPECT_TRUE(isUnchanged(kPrecise.compare(link("a"), link("a"))));
    EXPECT_TRUE(isUnchanged(kPrecise.compare(link(std::nullopt), link(""))));
    EXPECT_EQ(reasonOf(kPrecise.compare(link("new"), link("old"))),
              SyncActionReason(SyncActionReason::SymlinkTargetChanged{"old", "new"}));

    auto fifo = ofKind(EntryKind::unsupported);
    fifo.unsupportedReason = UnsupportedReason::fifo;
    EXPECT_EQ(reasonOf(kPrecise.compare(fifo, ofKind(EntryKind::unsupported))),
              SyncActionReason(SyncActionReason::UnsupportedFileType{UnsupportedReason::fifo}));
    EXPECT_EQ(reasonOf(kPrecise.compare(ofKind(EntryKind::unsupported), fifo)),
              SyncActionReason(SyncActionReason::UnsupportedFileType{UnsupportedReason::unknownType}));
}

}  // namespace
}  // namespace varnel
