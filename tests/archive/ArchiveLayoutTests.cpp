#include "archive/ArchiveLayout.hpp"
#include "archive/ArchiveOverview.hpp"

#include <gtest/gtest.h>

#include <unicode/locid.h>

#include <chrono>

namespace varnel::testing {
namespace {

using namespace std::chrono;

// 7 March 2025 14:15:02 in Berlin (13:15:02 UTC), 0.9 s into the second.
const Date kAnalysis = sys_days{year{2025} / 3 / 7} + hours{13} + minutes{15} + seconds{2} + milliseconds{900};

TEST(ArchiveLayoutTest, RunFolderIsNamedByTheLocalSecondAndReadsBack) {
    const Uuid profile = *Uuid::parse("0f5c2a1e-7b3d-4c8e-9a10-5d2e8f7b6c41");
    const RelativePath run = ArchiveLayout::runFolder(profile, kAnalysis, "Europe/Berlin");
    EXPECT_EQ(run.value(), ".VarnelSync-Archive/0F5C2A1E-7B3D-4C8E-9A10-5D2E8F7B6C41/2025-03-07-141502");
    EXPECT_EQ(ArchiveLayout::runFolderName(kAnalysis, "America/New_York"), "2025-03-07-081502");

    // Two analyses within one second share the folder.
    EXPECT_EQ(ArchiveLayout::runFolderName(kAnalysis - milliseconds{800}, "Europe/Berlin"), "2025-03-07-141502");
    EXPECT_EQ(ArchiveLayout::parseRunFolderName("2025-03-07-141502", "Europe/Berlin"),
              floor<seconds>(kAnalysis));

    for (const char* name : {"old-stuff", "2025-3-7-141502", "2025-03-07-141502x", "2025-02-30-120000", ""}) {
        EXPECT_EQ(ArchiveLayout::parseRunFolderName(name, "Europe/Berlin"), std::nullopt) << name;
    }
    EXPECT_EQ(ArchiveLayout::archivedPath(run, *RelativePath::fromString("Projects/old/a.txt")).value(),
              std::string(run.value()) + "/Projects/old/a.txt");
    EXPECT_EQ(ArchiveLayout::archiveRootPath("/media/backup"), "/media/backup/.VarnelSync-Archive");
}

TEST(ArchiveLayoutTest, NameIgnoresTheUsersLocale) {
    const icu::Locale previous = icu::Locale::getDefault();
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(icu::Locale("th_TH@calendar=buddhist;numbers=thai"), status);
    ASSERT_TRUE(U_SUCCESS(status));
    const std::string name = ArchiveLayout::runFolderName(kAnalysis, "Europe/Berlin");
    icu::Locale::setDefault(previous, status);
    EXPECT_EQ(name, "2025-03-07-141502");
}

ArchiveRun run(std::int64_t items, std::uint64_t bytes, std::optional<Date> timestamp = std::nullopt) {
    ArchiveRun result;
    result.itemCount = items;
    result.totalBytes = bytes;
    result.timestamp = timestamp;
    return result;
}

TEST(ArchiveOverviewTest, SummarySentenceAndDates) {
    ArchiveOverview overview;
    EXPECT_EQ(overview.summarySentence(), "No archived items.");

    const Date early = sys_days{year{2024} / 1 / 1};
    overview.runs = {run(100, 4'000'000'000, kAnalysis), run(15, 400'000'000), run(5, 100'000'000, early)};
    EXPECT_EQ(overview.summarySentence(), "3 archive runs, 120 items, 4.5 GB");
    overview.destinationTotalBytes = 37'500'000'000;
    EXPECT_EQ(overview.summarySentence(), "3 archive runs, 120 items, 4.5 GB (12% of the volume)");
    EXPECT_EQ(overview.oldestRunDate(), early);
    EXPECT_EQ(overview.newestRunDate(), kAnalysis);
}

TEST(ArchiveOverviewTest, SpaceCalloutByShareOrAbsoluteSize) {
    ArchiveOverview overview;
    overview.runs = {run(1, 25'000'000'000)};
    overview.destinationTotalBytes = 1'000'000'000'000;  // 2.5 %, but above 20 GB
    const auto callout = overview.spaceCallout();
    ASSERT_TRUE(callout);
    EXPECT_EQ(callout->message, "25 GB across 1 runs. Delete runs you no longer need.");

    overview.runs = {run(1, 3'000'000'000), run(1, 2'000'000'000)};
    overview.destinationTotalBytes = 20'000'000'000;  // 25 %
    EXPECT_TRUE(overview.spaceCallout());
    overview.destinationTotalBytes = 1'000'000'000'000;  // 0.5 % and 5 GB
    EXPECT_FALSE(overview.spaceCallout());
    overview.runs = {run(1, 20'000'000'000)};  // exactly 20 GB is not above it
    EXPECT_FALSE(overview.spaceCallout());
    overview.destinationTotalBytes = 0;  // unknown volume: only the absolute size counts
    overview.runs = {run(1, 20'000'000'001)};
    EXPECT_TRUE(overview.spaceCallout());

    EXPECT_FALSE(overview.readErrorCallout());
    overview.hadReadErrors = true;
    EXPECT_TRUE(overview.readErrorCallout());
}

}  // namespace
}  // namespace varnel::testing
