#include "archive/ArchiveLayout.hpp"
#include "archive/ArchiveManager.hpp"
#include "scan/RealFileSystem.hpp"
#include "support/FakeFileSystem.hpp"
#include "support/Shorthand.hpp"
#include "support/TemporaryDirectory.hpp"
#include "transfer/SyncError.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <stop_token>

namespace varnel::testing {
namespace {

const std::string kProfile = "0F5C2A1E-7B3D-4C8E-9A10-5D2E8F7B6C41";
const std::string kRun = ".VarnelSync-Archive/" + kProfile + "/2025-03-07-141502";

std::vector<std::string> describe(const std::vector<ArchiveItem>& items) {
    std::vector<std::string> lines;
    for (const auto& item : items) {
        lines.push_back(std::string(item.relativePath.value()) + " " + std::string(toString(item.kind)) + " " +
                        std::to_string(item.sizeBytes) + (item.isAccessible ? "" : " inaccessible"));
    }
    return lines;
}

TEST(ArchiveManagerTest, ListsAndMeasuresRunsOnRealFolders) {
    TemporaryDirectory destination;
    destination.writeFile(kRun + "/Projects/old/a.txt", "12345");
    destination.writeFile(kRun + "/Projects/b.txt", "0123456789");
    std::filesystem::create_symlink("/etc/passwd", destination / (kRun + "/Projects/link"));  // never followed
    destination.writeFile(".VarnelSync-Archive/" + kProfile + "/old-stuff/c.txt", "abc");
    destination.writeFile(".VarnelSync-Archive/not-a-uuid/2024-01-01-000000/d.txt", "d");
    destination.writeFile(".VarnelSync-Archive/" + kProfile + "/stray.txt", "not a run");
    destination.writeFile("outside.txt", "not archived");

    RealFileSystem fileSystem;
    const ArchiveManager manager(fileSystem);
    const EndpointRoot root = fileSystem.openRoot(destination.string());
    const ArchiveOverview overview = manager.overview(root);

    ASSERT_EQ(overview.runs.size(), 3U);
    const ArchiveRun& dated = overview.runs[0];
    EXPECT_EQ(dated.relativePath.value(), kRun);
    EXPECT_EQ(dated.profileID, Uuid::parse(kProfile));
    EXPECT_EQ(dated.timestamp, ArchiveLayout::parseRunFolderName("2025-03-07-141502"));
    EXPECT_EQ(dated.itemCount, 5);  // Projects, old, a.txt, b.txt, link
    EXPECT_EQ(dated.totalBytes, 15U);
    EXPECT_EQ(dated.inaccessibleItemCount, 0);

    EXPECT_EQ(overview.runs[1].relativePath.value(), ".VarnelSync-Archive/" + kProfile + "/old-stuff");
    EXPECT_EQ(overview.runs[1].timestamp, std::nullopt);
    EXPECT_EQ(overview.runs[2].profileID, std::nullopt);
    EXPECT_EQ(overview.oldestRunDate(), ArchiveLayout::parseRunFolderName("2024-01-01-000000"));
    EXPECT_EQ(overview.newestRunDate(), dated.timestamp);  // old-stuff counts for neither
    EXPECT_EQ(overview.totalBytes(), 19U);
    EXPECT_FALSE(overview.hadReadErrors);
    EXPECT_GT(overview.destinationTotalBytes, 0U);

    EXPECT_EQ(describe(manager.items(root, dated)),
              (std::vector<std::string>{"Projects directory 0", "Projects/b.txt regularFile 10",
                                        "Projects/link symbolicLink 0", "Projects/old directory 0",
                                        "Projects/old/a.txt regularFile 5"}));

    TemporaryDirectory empty;
    const ArchiveOverview none = manager.overview(fileSystem.openRoot(empty.string()));
    EXPECT_TRUE(none.runs.empty());
    EXPECT_FALSE(none.hadReadErrors);
}

TEST(ArchiveManagerTest, UnreadableItemsAreCountedNotThrown) {
    FakeFileSystem fileSystem;
    fileSystem.addFile("/dst/" + kRun + "/a.txt", "aaaa");
    fileSystem.addFile("/dst/" + kRun + "/secret.txt", "hidden");
    fileSystem.addFile("/dst/" + kRun + "/closed/inside.txt", "x");
    fileSystem.addFile("/dst/.VarnelSync-Archive/LOCKED/2025-01-01-000000/z.txt", "z");
    fileSystem.failAlways("statx", EACCES, "/dst/" + kRun + "/secret.txt");
    fileSystem.failAlways("opendir", EACCES, "/dst/" + kRun + "/closed");
    fileSystem.failAlways("opendir", EACCES, "/dst/.VarnelSync-Archive/LOCKED");

    const ArchiveManager manager(fileSystem);
    const EndpointRoot root = fileSystem.openRoot("/dst");
    const ArchiveOverview overview = manager.overview(root);
    EXPECT_TRUE(overview.hadReadErrors);
    ASSERT_EQ(overview.runs.size(), 1U);  // the locked profile folder is skipped
    EXPECT_EQ(overview.runs[0].itemCount, 3);
    EXPECT_EQ(overview.runs[0].inaccessibleItemCount, 2);
    EXPECT_EQ(overview.runs[0].totalBytes, 4U);
    EXPECT_EQ(describe(manager.items(root, overview.runs[0])),
              (std::vector<std::string>{"a.txt regularFile 4", "closed directory 0 inaccessible",
                                        "secret.txt unsupported 0 inaccessible"}));

    std::stop_source stop;
    stop.request_stop();
    EXPECT_TRUE(thrownBy<SyncError>([&] { (void)manager.overview(root, stop.get_token()); }).is<SyncError::Cancelled>());
}

}  // namespace
}  // namespace varnel::testing
