#include "scan/EndpointPairScan.hpp"
#include "scan/RealFileSystem.hpp"
#include "scan/SyncScanner.hpp"
#include "support/FakeFileSystem.hpp"
#include "support/Shorthand.hpp"
#include "support/TemporaryDirectory.hpp"
#include "transfer/PartialFileNaming.hpp"
#include "transfer/SyncError.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

namespace varnel {
namespace {

using testing::FakeFileSystem;
using Category = SyncWarning::Category;

ExclusionEngine noRules(HiddenFilePolicy hidden = HiddenFilePolicy::include) {
    return ExclusionEngine({}, hidden);
}

std::vector<std::string> pathsOf(const ScanResult& result) {
    std::vector<std::string> paths;
    for (const auto& entry : result.orderedEntries()) paths.emplace_back(entry.relativePath.value());
    return paths;
}

std::vector<std::string> messagesOf(const ScanResult& result, Category category) {
    std::vector<std::string> messages;
    for (const auto& warning : result.warnings) {
        if (warning.category == category) messages.push_back(warning.message);
    }
    return messages;
}

// Every scanner test runs twice: walking alone, and with helpers reading folders ahead
// from the first folder on, which must find the same things in the same order.
class SyncScannerTest : public ::testing::TestWithParam<SyncScanner::ReadAhead> {
protected:
    ScanResult scan(const ExclusionEngine& exclusions, EndpointRole role = EndpointRole::source,
                    bool caseSensitive = true, const std::string& root = "/src") {
        const SyncScanner scanner(fs, exclusions, SyncScanner::kDefaultProgressInterval, GetParam());
        return scanner.scan(fs.openRoot(root), role, caseSensitive);
    }

    FakeFileSystem fs;
};

INSTANTIATE_TEST_SUITE_P(Walk, SyncScannerTest,
                         ::testing::Values(SyncScanner::ReadAhead{0, 0}, SyncScanner::ReadAhead{3, 0}),
                         [](const auto& info) { return info.param.helpers == 0 ? "Alone" : "WithReadAhead"; });

TEST_P(SyncScannerTest, WalksBreadthFirstAndKeepsEveryEntryOnce) {
    fs.addFile("/src/top.txt", "x");
    fs.addFile("/src/a/deep/file.txt", "y");
    fs.addFile("/src/a/one.txt", "z");
    fs.addDirectory("/src/b");
    fs.addSymlink("/src/link", "a/one.txt");

    const ScanResult result = scan(noRules());
    EXPECT_EQ(pathsOf(result),
              (std::vector<std::string>{"top.txt", "a", "b", "link", "a/deep", "a/one.txt", "a/deep/file.txt"}));
    EXPECT_EQ(result.directoriesScanned, 4);  // root, a, b, a/deep
    EXPECT_TRUE(result.warnings.empty());
    const FileSystemEntry* found = result.entry(*RelativePath::fromString("a/deep/file.txt"));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->size, 1);
    EXPECT_EQ(result.entry(*RelativePath::fromString("a/missing")), nullptr);
}

TEST_P(SyncScannerTest, ExcludedItemsAreRecordedAndNeverEntered) {
    fs.addFile("/src/.git/config", "x");
    fs.addFile("/src/web/node_modules/pkg/index.js", "x");
    fs.addFile("/src/web/app.js", "x");
    fs.failAlways("opendir", EIO, "/src/web/node_modules");  // entering it would report an error

    ExclusionRule rule{Uuid::random(), ExclusionRule::Kind::folderName, "node_modules", false, true};
    const ScanResult result = scan(ExclusionEngine({rule}, HiddenFilePolicy::exclude));

    EXPECT_EQ(pathsOf(result), (std::vector<std::string>{"web", "web/app.js"}));
    ASSERT_EQ(result.excluded.size(), 2u);
    EXPECT_EQ(result.excluded[0].path.value(), ".git");
    EXPECT_TRUE(result.excluded[0].isDirectory);
    EXPECT_EQ(result.excluded[0].ruleDescription, "Hidden files are skipped by this profile");
    EXPECT_EQ(result.excluded[1].path.value(), "web/node_modules");
    EXPECT_EQ(result.excluded[1].ruleDescription, "Folder named node_modules");
    EXPECT_TRUE(result.unreadableDirectories.empty());
    EXPECT_TRUE(result.warnings.empty());
}

TEST_P(SyncScannerTest, UnlistableFoldersAreReportedWithTheirCategory) {
    fs.addFile("/src/locked/secret.txt", "x");
    fs.addFile("/src/broken/x.txt", "x");
    fs.addFile("/src/ok.txt", "x");
    fs.failAlways("opendir", EACCES, "/src/locked");
    fs.failAlways("opendir", EIO, "/src/broken");

    const ScanResult result = scan(noRules());
    ASSERT_EQ(result.unreadableDirectories.size(), 2u);
    EXPECT_EQ(result.unreadableDirectories[0].value(), "locked");
    EXPECT_EQ(result.unreadableDirectories[1].value(), "broken");
    const auto denied = messagesOf(result, Category::permissionDenied);
    ASSERT_EQ(denied.size(), 1u);
    EXPECT_EQ(denied[0],
              "Could not list “locked”: opendir failed for /src/locked: Permission denied. Its contents could not be "
              "read, so nothing inside it was synchronized and nothing inside the matching destination folder will be "
              "removed.");
    EXPECT_EQ(messagesOf(result, Category::scanError).size(), 1u);
    EXPECT_EQ(result.directoriesScanned, 1);
    EXPECT_EQ(result.entry(*RelativePath::fromString("locked/secret.txt")), nullptr);
}

// A tree wide and deep enough that the helpers read well ahead of the walk, with the
// kinds of trouble the walk reports in its own order: unlistable folders, unreadable
// items, a loop.
TEST_P(SyncScannerTest, AWideTreeGivesTheSameResultAsAWalkAlone) {
    for (int a = 0; a < 5; ++a) {
        for (int b = 0; b < 6; ++b) {
            for (int c = 0; c < 6; ++c) {
                const std::string folder = fmt::format("/src/d{}/s{}/t{}", a, b, c);
                for (int f = 0; f < 4; ++f) fs.addFile(fmt::format("{}/f{}.txt", folder, f), "x");
            }
        }
    }
    fs.failAlways("opendir", EACCES, "/src/d1/s2");
    fs.failAlways("opendir", EIO, "/src/d4/s5/t0");
    fs.failAlways("statx", EIO, "/src/d3/s1/t4/f2.txt");
    fs.node("/src/d2/s4/t3").inode = fs.node("/src/d2").inode;

    const auto summary = [](const ScanResult& result) {
        std::vector<std::string> lines;
        for (const auto& entry : result.orderedEntries()) lines.push_back("entry " + entry.relativePath.description());
        for (const auto& warning : result.warnings) lines.push_back("warning " + warning.message);
        for (const auto& failure : result.readFailures) lines.push_back("failure " + failure.path.description());
        for (const auto& folder : result.unreadableDirectories) lines.push_back("unlistable " + folder.description());
        lines.push_back(fmt::format("folders {}", result.directoriesScanned));
        return lines;
    };
    const SyncScanner alone(fs, noRules());
    const auto expected = summary(alone.scan(fs.openRoot("/src"), EndpointRole::source, true));
    // 935 items less the 30 below d1/s2, 4 below d4/s5/t0, 4 below the loop and 1 unreadable;
    // 4 warnings, 3 read failures, 2 unlistable folders and the folder count.
    ASSERT_EQ(expected.size(), 896U + 4 + 3 + 2 + 1);
    // The item that could not be read is reported under its own path.
    EXPECT_NE(std::find(expected.begin(), expected.end(), "failure d3/s1/t4/f2.txt"), expected.end());
    for (int round = 0; round < 3; ++round) EXPECT_EQ(summary(scan(noRules())), expected);
}

TEST_P(SyncScannerTest, AFolderReachedTwiceIsALoopAndSkipped) {
    fs.addFile("/src/a/file.txt", "x");
    auto& again = fs.addDirectory("/src/a/again");
    again.inode = fs.node("/src/a").inode;  // a bind mount or hard-linked folder looking back up
    fs.addFile("/src/a/again/inner.txt", "x");

    const ScanResult result = scan(noRules());
    EXPECT_EQ(messagesOf(result, Category::scanError),
              (std::vector<std::string>{
                  "Skipped “a/again” — it resolves to a folder already visited in this scan (filesystem loop)."}));
    EXPECT_EQ(result.entry(*RelativePath::fromString("a/again/inner.txt")), nullptr);
}

TEST_P(SyncScannerTest, CaseCollisionsOnlyOnCaseInsensitiveVolumes) {
    fs.addFile("/src/Report.txt", "1");
    fs.addFile("/src/report.txt", "2");

    const ScanResult insensitive = scan(noRules(), EndpointRole::source, false);
    EXPECT_EQ(pathsOf(insensitive), (std::vector<std::string>{"Report.txt"}));
    ASSERT_EQ(insensitive.caseCollisions.size(), 1u);
    EXPECT_EQ(insensitive.caseCollisions[0].kept.value(), "Report.txt");
    EXPECT_EQ(insensitive.caseCollisions[0].collided.value(), "report.txt");
    EXPECT_EQ(messagesOf(insensitive, Category::caseCollision),
              (std::vector<std::string>{"“report.txt” and “Report.txt” collide on this volume's naming rules. Only "
                                        "“Report.txt” will be synchronized."}));

    const ScanResult sensitive = scan(noRules(), EndpointRole::source, true);
    EXPECT_EQ(pathsOf(sensitive).size(), 2u);
    EXPECT_TRUE(sensitive.caseCollisions.empty());
}

TEST_P(SyncScannerTest, StagingNamesAndTheArchiveFolderAreNeverRecorded) {
    const std::string staging = PartialFileNaming::makeStagingName("photo.jpg", Uuid::random());
    fs.addFile("/dst/" + staging, "partial");
    fs.addFile("/dst/.VarnelSync-Archive/P/run/old.txt", "x");
    fs.addFile("/dst/sub/.VarnelSync-Archive", "a user's own file deeper down");

    const ScanResult result = scan(noRules(), EndpointRole::destination, true, "/dst");
    EXPECT_EQ(pathsOf(result), (std::vector<std::string>{"sub", "sub/.VarnelSync-Archive"}));
    // On the destination a staging name is a leftover of ours: kept aside for the summary.
    ASSERT_EQ(result.stagingItems.size(), 1u);
    EXPECT_EQ(result.stagingItems[0].relativePath.value(), staging);
    EXPECT_TRUE(messagesOf(result, Category::orphanedPartialFile).empty());

    // In the source it may be the user's own file, so the user is told how to get it copied.
    fs.addFile("/src/" + staging, "x");
    EXPECT_EQ(messagesOf(scan(noRules()), Category::orphanedPartialFile),
              (std::vector<std::string>{"“" + staging +
                                        "” is named like a Varnel Sync staging file, so it was not copied. If this "
                                        "is your own file, rename it and analyze again."}));

    // On the source the archive name has no special meaning.
    fs.addDirectory("/src/.VarnelSync-Archive");
    EXPECT_EQ(pathsOf(scan(noRules())), (std::vector<std::string>{".VarnelSync-Archive"}));
}

TEST_P(SyncScannerTest, PerKindWarnings) {
    auto& linked = fs.addFile("/src/linked.txt", "x");
    linked.hardLinkCount = 3;
    auto& sparse = fs.addFile("/src/sparse.img");
    sparse.logicalSize = 10'000'000'000;
    sparse.allocatedBlocks = 8'900'000'000 / 512;
    auto& dense = fs.addFile("/src/dense.img");
    dense.logicalSize = 10'000'000'000;
    dense.allocatedBlocks = 9'500'000'000 / 512;
    auto& cloud = fs.addFile("/src/cloud.pdf");
    cloud.logicalSize = 5'000'000;
    cloud.allocatedBlocks = 0;
    cloud.isDataless = true;
    fs.addSymlink("/src/inside", "linked.txt");
    fs.addSymlink("/src/sub/up", "../linked.txt");
    fs.addSymlink("/src/sub/out", "../../etc/passwd");
    fs.addSymlink("/src/abs", "/etc/passwd");
    fs.addSymlink("/src/absInside", "/src/linked.txt");
    fs.addSpecial("/src/pipe", UnsupportedReason::fifo);

    const ScanResult result = scan(noRules());
    EXPECT_EQ(messagesOf(result, Category::hardLink),
              (std::vector<std::string>{"“linked.txt” is hard-linked (3 references). It is copied as an independent "
                                        "file, so the link relationship is not preserved."}));
    EXPECT_EQ(messagesOf(result, Category::sparseFile),
              (std::vector<std::string>{"“sparse.img” is sparse (10 GB logical, 8.9 GB allocated). Varnel Sync "
                                        "preserves holes where the destination filesystem supports it."}));
    EXPECT_EQ(messagesOf(result, Category::symlinkEscape),
              (std::vector<std::string>{
                  "“abs” points to “/etc/passwd”, which is outside the source folder. The link is copied as-is; its "
                  "contents are not.",
                  "“sub/out” points to “../../etc/passwd”, which is outside the source folder. The link is copied "
                  "as-is; its contents are not."}));
    EXPECT_EQ(messagesOf(result, Category::unsupportedFileType),
              (std::vector<std::string>{"“pipe” is a special file and cannot be copied."}));
    const FileSystemEntry* pipe = result.entry(*RelativePath::fromString("pipe"));
    ASSERT_NE(pipe, nullptr);
    EXPECT_EQ(pipe->unsupportedReason, UnsupportedReason::fifo);
    EXPECT_TRUE(result.entry(*RelativePath::fromString("cloud.pdf"))->isDataless);
}

TEST_P(SyncScannerTest, CancellationThrowsAndProgressArrivesEveryIntervalItems) {
    for (int i = 0; i < 7; ++i) fs.addFile("/src/f" + std::to_string(i), "x");
    std::vector<std::int64_t> reported;
    const SyncScanner scanner(fs, noRules(), 3);
    const ScanResult result = scanner.scan(fs.openRoot("/src"), EndpointRole::source, true,
                                           [&](const ScanProgress& progress) {
                                               EXPECT_EQ(progress.role, EndpointRole::source);
                                               reported.push_back(progress.itemsFound);
                                           });
    EXPECT_EQ(reported, (std::vector<std::int64_t>{3, 6}));
    EXPECT_EQ(result.size(), 7u);

    std::stop_source stop;
    stop.request_stop();
    EXPECT_EQ(testing::thrownBy<SyncError>([&] {
                  (void)scanner.scan(fs.openRoot("/src"), EndpointRole::source, true, {}, stop.get_token());
              }).code(),
              "cancelled");
}

TEST_P(SyncScannerTest, BothSidesScannedAtOnceReportLikeOneAfterTheOther) {
    for (int i = 0; i < 300; ++i) {
        fs.addFile("/src/d" + std::to_string(i % 7) + "/f" + std::to_string(i), "x");
        fs.addFile("/dst/d" + std::to_string(i % 5) + "/f" + std::to_string(i), "x");
    }
    const SyncScanner scanner(fs, noRules(), 10);
    std::vector<EndpointRole> phases;  // the role of each report, in arrival order
    std::int64_t lastDestinationCount = 0;
    int inside = 0;
    std::stop_source stop;
    const auto handler = [&](EndpointRole role, const std::optional<ScanProgress>& progress) {
        EXPECT_EQ(inside++, 0) << "two progress reports at once";
        phases.push_back(role);
        if (progress) {
            EXPECT_EQ(progress->role, role);
            if (role == EndpointRole::destination) lastDestinationCount = progress->itemsFound;
        }
        --inside;
    };
    const auto pair = EndpointPairScan::run(scanner, {fs.openRoot("/src")}, {fs.openRoot("/dst")}, handler, stop.get_token());
    EXPECT_EQ(pair.source.size(), 307u);
    EXPECT_EQ(pair.destination.size(), 305u);
    EXPECT_EQ(lastDestinationCount, 300);  // the last report of every 10 items
    ASSERT_FALSE(phases.empty());
    EXPECT_EQ(phases.front(), EndpointRole::source);
    EXPECT_TRUE(std::is_partitioned(phases.begin(), phases.end(),
                                    [](EndpointRole role) { return role == EndpointRole::source; }));
    EXPECT_EQ(phases.back(), EndpointRole::destination);

    // Stopped during the source scan: both scans end and the cancellation is thrown.
    phases.clear();
    const auto stopping = [&](EndpointRole role, const std::optional<ScanProgress>& progress) {
        phases.push_back(role);
        if (progress && progress->itemsFound >= 50) stop.request_stop();
    };
    EXPECT_EQ(testing::thrownBy<SyncError>([&] {
                  (void)EndpointPairScan::run(scanner, {fs.openRoot("/src")}, {fs.openRoot("/dst")}, stopping,
                                              stop.get_token());
              }).code(),
              "cancelled");
    EXPECT_EQ(std::count(phases.begin(), phases.end(), EndpointRole::destination), 0);
}

TEST(SyncScannerRealTest, ALinkToTheParentIsNotFollowedAndNotALoop) {
    testing::TemporaryDirectory temp;
    temp.writeFile("src/a/file.txt", "hello");
    std::filesystem::create_directory_symlink("..", temp.path() / "src/a/up");
    ::mkfifo((temp.path() / "src/pipe").c_str(), 0644);

    RealFileSystem fs;
    const SyncScanner scanner(fs, noRules());
    const ScanResult result = scanner.scan(fs.openRoot((temp.path() / "src").string()), EndpointRole::source, true);
    EXPECT_EQ(result.directoriesScanned, 2);
    const FileSystemEntry* up = result.entry(*RelativePath::fromString("a/up"));
    ASSERT_NE(up, nullptr);
    EXPECT_EQ(up->kind, EntryKind::symbolicLink);
    EXPECT_EQ(up->symlinkTarget, "..");
    EXPECT_TRUE(messagesOf(result, Category::scanError).empty());
    EXPECT_TRUE(messagesOf(result, Category::symlinkEscape).empty());
    EXPECT_EQ(result.entry(*RelativePath::fromString("a/file.txt"))->size, 5);
    EXPECT_EQ(messagesOf(result, Category::unsupportedFileType).size(), 1u);
}

}  // namespace
}  // namespace varnel
