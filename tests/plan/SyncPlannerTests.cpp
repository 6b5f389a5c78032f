#include "plan/SyncPlanner.hpp"
#include "scan/RealFileSystem.hpp"
#include "scan/SyncScanner.hpp"
#include "support/FakeFileSystem.hpp"
#include "support/Shorthand.hpp"
#include "support/TemporaryDirectory.hpp"
#include "transfer/SyncError.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>


#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <random>

namespace varnel {
namespace {

using testing::thrownBy;
using Category = SyncWarning::Category;
using Strings = std::vector<std::string>;

// "copyNewFile a.txt", one string per action in plan order, for readable assertions.
Strings renderActions(const SyncPlan& plan) {
    Strings rendered;
    for (const auto& action : plan.actions) {
        rendered.push_back(std::string(toString(action.type)) + " " + std::string(action.relativePath.value()));
    }
    return rendered;
}

Strings warningMessages(const SyncPlan& plan, Category category) {
    Strings messages;
    for (const auto& warning : plan.warnings) {
        if (warning.category == category) messages.push_back(warning.message);
    }
    return messages;
}

struct Options {
    SyncMode mode = SyncMode::update;
    bool destinationCaseSensitive = true;
    std::vector<ExclusionRule> rules{};
    OnlineOnlyPolicy onlineOnly = OnlineOnlyPolicy::download;
};

// Scans both folders and plans, as analysis does.
SyncPlan analyze(FileSystemProviding& fs, const std::string& source, const std::string& destination,
                 const Options& options = {}, std::stop_token stop = {}) {
    const SyncScanner scanner(fs, ExclusionEngine(options.rules, HiddenFilePolicy::include));
    const ScanResult sourceScan = scanner.scan(fs.openRoot(source), EndpointRole::source, true);
    ScanResult destinationScan =
        scanner.scan(fs.openRoot(destination), EndpointRole::destination, options.destinationCaseSensitive);
    SyncPlanner::Input input{.profileID = Uuid::random(),
                             .mode = options.mode,
                             .sourceRoot = source,
                             .destinationRoot = destination,
                             .source = sourceScan,
                             .destination = destinationScan,
                             .destinationFreeBytes = 1'000'000'000,
                             .destinationCaseSensitive = options.destinationCaseSensitive,
                             .onlineOnlyPolicy = options.onlineOnly};
    const SyncPlanner planner{FileComparator(FileComparator::kHighPrecisionToleranceNanoseconds)};
    return planner.plan(input, stop);
}

void setTime(const std::filesystem::path& path, int seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

class RealPairTest : public ::testing::Test {
protected:
    std::string source() const { return (temp.path() / "src").string(); }
    std::string destination() const { return (temp.path() / "dst").string(); }
    void write(const std::string& relative, const std::string& contents, int seconds = 1'700'000'000) {
        setTime(temp.writeFile(relative, contents), seconds);
    }

    testing::TemporaryDirectory temp;
    RealFileSystem fs;
};

TEST_F(RealPairTest, UpdateAndMirrorOnTheSamePair) {
    write("src/new.txt", "12345");
    write("src/same.txt", "same");
    write("dst/same.txt", "same");
    write("src/changed.txt", "longer text");
    write("dst/changed.txt", "short");
    write("src/sub/inner.txt", "abc");
    std::filesystem::create_directories(temp.path() / "src/empty");
    std::filesystem::create_directories(temp.path() / "dst/sub");
    std::filesystem::create_symlink("new.txt", temp.path() / "src/link");
    write("dst/only-here.txt", "old");
    write("dst/gone/deep/old.txt", "old");

    const Strings common = {"createDirectory empty",         "replaceChangedFile changed.txt",
                            "createSymlink link",            "copyNewFile new.txt",
                            "preserveUnchangedFile same.txt", "copyNewFile sub/inner.txt"};
    const SyncPlan update = analyze(fs, source(), destination());
    EXPECT_EQ(renderActions(update), common);
    EXPECT_EQ(update.summary.filesToCopy, 2);
    EXPECT_EQ(update.summary.filesToUpdate, 1);
    EXPECT_EQ(update.summary.filesUnchanged, 1);
    EXPECT_EQ(update.summary.symlinksToCreate, 1);
    EXPECT_EQ(update.summary.directoriesToCreate, 1);
    EXPECT_EQ(update.summary.itemsToArchive, 0);
    EXPECT_EQ(update.summary.bytesToTransfer, 5 + 11 + 3);
    EXPECT_EQ(update.summary.bytesBeingReplaced, 5);
    EXPECT_EQ(update.summary.largestFileBytes, 11);
    EXPECT_EQ(update.summary.totalSourceItemsScanned, 7);
    EXPECT_EQ(update.summary.totalDestinationItemsScanned, 7);
    EXPECT_EQ(update.actions[1].reason, SyncActionReason(SyncActionReason::SizeDiffers{11, 5}));

    Strings mirrored = common;
    for (const char* archived : {"gone/deep/old.txt", "gone/deep", "only-here.txt", "gone"}) {
        mirrored.push_back(std::string("archiveDestinationItem ") + archived);
    }
    const SyncPlan mirror = analyze(fs, source(), destination(), {.mode = SyncMode::mirror});
    EXPECT_EQ(renderActions(mirror), mirrored);
    EXPECT_EQ(mirror.summary.itemsToArchive, 4);
    EXPECT_EQ(mirror.summary.bytesToArchive, 3 + 3);
    EXPECT_EQ(mirror.actions.back().reason, SyncActionReason(SyncActionReason::NotPresentInSource{}));
}

TEST_F(RealPairTest, DecomposedSourceNameMatchesPrecomposedDestinationName) {
    write("src/Cafe\xCC\x81.txt", "menu");  // e + combining acute
    write("dst/Caf\xC3\xA9.txt", "menu");   // precomposed
    const SyncPlan plan = analyze(fs, source(), destination(), {.mode = SyncMode::mirror});
    ASSERT_EQ(plan.actions.size(), 1u);
    EXPECT_EQ(plan.actions[0].type, SyncActionType::preserveUnchangedFile);
    EXPECT_EQ(plan.summary.itemsToArchive, 0);
}

TEST_F(RealPairTest, TypeChangeIsAnErrorInUpdateAndArchiveThenCreateInMirror) {
    write("src/x/child.txt", "c");
    write("dst/x", "a file where the source has a folder");

    const SyncPlan update = analyze(fs, source(), destination());
    EXPECT_EQ(renderActions(update), (Strings{"error x"}));
    EXPECT_EQ(update.actions[0].reason,
              SyncActionReason(SyncActionReason::TypeChanged{EntryKind::regularFile, EntryKind::directory}));
    EXPECT_EQ(update.summary.errorCount, 1);
    EXPECT_EQ(warningMessages(update, Category::other),
              (Strings{"“x” is a folder in the source but a file in the destination. Update mode will not replace "
                       "it; its contents were not planned."}));

    const SyncPlan mirror = analyze(fs, source(), destination(), {.mode = SyncMode::mirror});
    EXPECT_EQ(renderActions(mirror), (Strings{"createDirectory x", "copyNewFile x/child.txt", "archiveDestinationItem x"}));
    EXPECT_TRUE(mirror.actions[0].reason.is<SyncActionReason::TypeChanged>());
    EXPECT_TRUE(mirror.actions[2].reason.is<SyncActionReason::TypeChanged>());
    EXPECT_EQ(mirror.summary.errorCount, 0);
}

// Planning hands each matched destination entry the source's text of the same path, so
// that the destination scan's copies go. Here every destination path is matched, so the
// destination's texts are all given back before the mirror pass looks each item up again:
// a look-up still reading a replaced text would touch returned memory.
TEST_F(RealPairTest, MatchedDestinationEntriesShareTheSourcePathText) {
    for (const char* side : {"src", "dst"}) {
        for (int i = 0; i < 300; ++i) {
            write(std::string(side) + "/folder-" + std::to_string(i % 7) + "/file-" + std::to_string(i), "same");
        }
    }
    const auto scanAndPlan = [&](ScanResult& sourceScan, ScanResult& destinationScan) {
        const SyncScanner scanner(fs, ExclusionEngine({}, HiddenFilePolicy::include));
        sourceScan = scanner.scan(fs.openRoot(source()), EndpointRole::source, true);
        destinationScan = scanner.scan(fs.openRoot(destination()), EndpointRole::destination, true);
        const SyncPlanner::Input input{.profileID = Uuid::random(),
                                       .mode = SyncMode::mirror,
                                       .sourceRoot = source(),
                                       .destinationRoot = destination(),
                                       .source = sourceScan,
                                       .destination = destinationScan,
                                       .destinationFreeBytes = 1'000'000'000};
        return SyncPlanner(FileComparator(FileComparator::kHighPrecisionToleranceNanoseconds)).plan(input);
    };
    const auto textOf = [](const ScanResult& scan, std::string_view path) {
        for (const auto& entry : scan.orderedEntries()) {
            if (entry.relativePath.value() == path) return entry.relativePath.value().data();
        }
        ADD_FAILURE() << path << " was not scanned";
        return static_cast<const char*>(nullptr);
    };

    ScanResult sourceScan;
    ScanResult destinationScan;
    const SyncPlan identical = scanAndPlan(sourceScan, destinationScan);
    EXPECT_EQ(identical.summary.filesUnchanged, 300);
    EXPECT_EQ(identical.summary.itemsToArchive, 0);
    ASSERT_EQ(destinationScan.size(), 307U);
    for (const auto& entry : destinationScan.orderedEntries()) {
        EXPECT_EQ(entry.relativePath.value().data(), textOf(sourceScan, entry.relativePath.value()))
            << entry.relativePath.value();
    }

    // Equal paths spelled differently keep their own text, and still match.
    write("src/Cafe\u0301.txt", "same");
    write("dst/Caf\u00e9.txt", "same");
    const SyncPlan spelled = scanAndPlan(sourceScan, destinationScan);
    EXPECT_EQ(spelled.summary.filesUnchanged, 301);
    EXPECT_EQ(spelled.summary.itemsToArchive, 0);
    EXPECT_NE(textOf(destinationScan, "Caf\u00e9.txt"), nullptr);
    EXPECT_EQ(textOf(destinationScan, "folder-3/file-3"), textOf(sourceScan, "folder-3/file-3"));
}

TEST_F(RealPairTest, DestinationNewerIsReplacedWithAWarning) {
    write("src/doc.txt", "v1", 1'700'000'000);
    write("dst/doc.txt", "v2", 1'700'000'100);
    const SyncPlan plan = analyze(fs, source(), destination());
    ASSERT_EQ(renderActions(plan), (Strings{"replaceChangedFile doc.txt"}));
    EXPECT_TRUE(plan.actions[0].reason.is<SyncActionReason::TimestampsDifferAmbiguously>());
    EXPECT_EQ(warningMessages(plan, Category::other),
              (Strings{"The destination copy of “doc.txt” is newer than the source. It will be overwritten because the "
                       "source is authoritative in a one-way sync."}));
}

TEST_F(RealPairTest, ExcludedDestinationItemsAreNeverArchived) {
    write("src/keep.txt", "k");
    write("dst/keep.txt", "k");
    write("dst/cache/blob.bin", "b");
    write("dst/notes.tmp", "t");
    const std::vector<ExclusionRule> rules = {
        {Uuid::random(), ExclusionRule::Kind::folderName, "cache", false, true},
        {Uuid::random(), ExclusionRule::Kind::fileExtension, "tmp", false, true},
    };
    const SyncPlan plan = analyze(fs, source(), destination(), {.mode = SyncMode::mirror, .rules = rules});
    EXPECT_EQ(renderActions(plan), (Strings{"preserveUnchangedFile keep.txt", "excludeItem cache", "excludeItem notes.tmp"}));
    EXPECT_EQ(plan.actions[1].reason, SyncActionReason(SyncActionReason::MatchedExclusionRule{"Folder named cache"}));
    EXPECT_EQ(plan.summary.itemsExcluded, 2);
    EXPECT_EQ(plan.summary.itemsToArchive, 0);
}

class FakePairTest : public ::testing::Test {
protected:
    testing::FakeFileSystem fs;
};

TEST_F(FakePairTest, CaseInsensitiveDestinationMatchesNamesThatDifferOnlyInCase) {
    fs.addFile("/src/Photo.JPG", "jpeg").modificationTime = {100, 0};
    fs.addFile("/dst/photo.jpg", "jpeg").modificationTime = {100, 0};
    const SyncPlan one = analyze(fs, "/src", "/dst", {.mode = SyncMode::mirror, .destinationCaseSensitive = false});
    EXPECT_EQ(renderActions(one), (Strings{"preserveUnchangedFile Photo.JPG"}));

    fs.addFile("/src/photo.jpg", "other").modificationTime = {100, 0};
    const SyncPlan two = analyze(fs, "/src", "/dst", {.mode = SyncMode::mirror, .destinationCaseSensitive = false});
    EXPECT_EQ(renderActions(two), (Strings{"preserveUnchangedFile Photo.JPG", "warning photo.jpg"}));
    EXPECT_EQ(two.actions[1].reason, SyncActionReason(SyncActionReason::CaseCollision{"Photo.JPG"}));
    EXPECT_EQ(warningMessages(two, Category::caseCollision).size(), 1u);

    // A case-sensitive destination keeps them apart.
    const SyncPlan sensitive = analyze(fs, "/src", "/dst", {.mode = SyncMode::mirror});
    EXPECT_EQ(renderActions(sensitive), (Strings{"copyNewFile Photo.JPG", "replaceChangedFile photo.jpg"}));
}

TEST_F(FakePairTest, UnreadableSourceFolderProtectsItsDestinationTwinInMirror) {
    fs.addFile("/src/locked/a.txt", "a");
    fs.addFile("/dst/locked/a.txt", "a");
    fs.addFile("/dst/locked/b/c.txt", "c");
    fs.addFile("/dst/stale.txt", "s");
    fs.failAlways("opendir", EACCES, "/src/locked");

    const SyncPlan plan = analyze(fs, "/src", "/dst", {.mode = SyncMode::mirror});
    EXPECT_EQ(renderActions(plan), (Strings{"archiveDestinationItem stale.txt", "error locked"}));
    EXPECT_TRUE(plan.actions[1].reason.is<SyncActionReason::PermissionDenied>());
    EXPECT_EQ(warningMessages(plan, Category::scanError),
              (Strings{"1 source folder(s) could not be read. Nothing inside the matching destination folders will be "
                       "removed, because Varnel Sync cannot tell what is genuinely missing. Resolve the errors and "
                       "analyze again for a complete mirror."}));
}

TEST_F(FakePairTest, OnlineOnlyFilesFollowThePolicy) {
    auto& cloud = fs.addFile("/src/cloud.mov");
    cloud.logicalSize = 2'000'000;
    cloud.isDataless = true;
    fs.addFile("/dst/cloud.mov", "stale copy");

    const SyncPlan skip = analyze(fs, "/src", "/dst", {.mode = SyncMode::mirror, .onlineOnly = OnlineOnlyPolicy::skip});
    EXPECT_EQ(renderActions(skip), (Strings{"skipOnlineOnlyFile cloud.mov"}));
    EXPECT_EQ(skip.summary.filesSkippedOnlineOnly, 1);
    EXPECT_EQ(skip.summary.bytesSkippedOnlineOnly, 2'000'000);
    EXPECT_EQ(warningMessages(skip, Category::onlineOnlyFile),
              (Strings{"1 online-only source files (2 MB) were not downloaded, because this profile skips them. Their "
                       "copies in the destination were left as they are."}));

    const SyncPlan download = analyze(fs, "/src", "/dst", {.onlineOnly = OnlineOnlyPolicy::download});
    EXPECT_EQ(renderActions(download), (Strings{"replaceChangedFile cloud.mov"}));
    EXPECT_EQ(download.summary.filesToDownload, 1);
    EXPECT_EQ(download.summary.bytesToDownload, 2'000'000);
}

// Enough items for the source pass to go in several chunks, whose look-ups run beside
// the planning when keys are the paths' own texts. Names spelled a second way in the
// next chunk, with and without a destination item, and a folder whose contents span
// chunks below an item the pass must not plan into, come out as they do in a small pair.
TEST_F(FakePairTest, ALargePairKeepsEveryRuleAcrossTheSourcePassChunks) {
    const auto addFolder = [&](const std::string& folder) {
        for (int file = 0; file < 100; ++file) {
            fs.addFile("/src/" + folder + "/n" + std::to_string(file), "same");
            fs.addFile("/dst/" + folder + "/n" + std::to_string(file), "same");
        }
    };
    // The scan goes breadth-first, and a folder lists its items in the order they were
    // made here: the root's 301 items, then the 7,801 of f0 to f77 (f15 holds x too),
    // then big's from 8,102 on, on either side of the first chunk's end (8,192 items).
    for (int folder = 0; folder < 78; ++folder) addFolder("f" + std::to_string(folder));
    fs.addFile("/src/big/Caf\u00e9", "same");
    fs.addFile("/dst/big/Caf\u00e9", "same");
    fs.addFile("/src/big/N\u00e9", "new");
    for (int file = 0; file < 200; ++file) {
        fs.addFile("/src/big/filler" + std::to_string(file), "same");
        fs.addFile("/dst/big/filler" + std::to_string(file), "same");
    }
    fs.addFile("/src/big/Cafe\u0301", "same");
    fs.addFile("/src/big/Ne\u0301", "new");
    for (int folder = 78; folder < 300; ++folder) addFolder("f" + std::to_string(folder));
    for (int file = 0; file < 50; ++file) fs.addFile("/dst/f3/old-" + std::to_string(file), "gone from the source");
    for (int file = 0; file < 9000; ++file) {
        fs.addFile("/src/f15/x/d" + std::to_string(file / 100) + "/m" + std::to_string(file), "new");
    }
    fs.addFile("/dst/f15/x", "a file where the source has a folder");

    const auto expectUpdate = [&](const SyncPlan& plan) {
        EXPECT_EQ(plan.summary.totalSourceItemsScanned, 301 + 30'000 + 204 + 1 + 90 + 9000);
        EXPECT_EQ(plan.summary.filesUnchanged, 30'000 + 200 + 1);
        EXPECT_EQ(plan.summary.filesToCopy, 1);  // big/Né, spelled precomposed
        EXPECT_EQ(plan.summary.errorCount, 1);   // x, whose 9,090 items are not planned
        EXPECT_EQ(plan.summary.itemsToArchive, 0);
        Strings held;
        for (const auto& action : plan.actions) {
            EXPECT_FALSE(action.relativePath.value().starts_with("f15/x/")) << action.relativePath.value();
            if (action.type == SyncActionType::warning) held.emplace_back(action.relativePath.value());
        }
        EXPECT_EQ(held, (Strings{"big/Cafe\u0301", "big/Ne\u0301"}));
    };
    expectUpdate(analyze(fs, "/src", "/dst"));
    // Lower-cased keys are looked up on the planning thread itself.
    expectUpdate(analyze(fs, "/src", "/dst", {.destinationCaseSensitive = false}));

    const SyncPlan mirror = analyze(fs, "/src", "/dst", {.mode = SyncMode::mirror});
    EXPECT_EQ(mirror.summary.filesUnchanged, 30'000 + 200 + 1);
    EXPECT_EQ(mirror.summary.directoriesToCreate, 1 + 90);
    EXPECT_EQ(mirror.summary.filesToCopy, 9000 + 1);
    EXPECT_EQ(mirror.summary.itemsToArchive, 50 + 1);
    EXPECT_EQ(mirror.summary.errorCount, 0);
}

TEST_F(FakePairTest, PlanningStopsWhenCancelled) {
    fs.addFile("/src/a.txt", "a");
    fs.addDirectory("/dst");
    std::stop_source stop;
    stop.request_stop();
    EXPECT_EQ(thrownBy<SyncError>([&] { (void)analyze(fs, "/src", "/dst", {}, stop.get_token()); }).code(),
              "cancelled");
}

TEST(ActionOrderTest, ShallowFirstListsAndDeepestFirstArchives) {
    auto actions = [](SyncActionType type, Strings paths) {
        std::vector<SyncAction> list;
        for (const auto& path : paths) list.push_back(SyncAction{type, *RelativePath::fromString(path), {}, {}, {}, 0});
        return list;
    };
    auto creations = actions(SyncActionType::createDirectory, {"a/b", "b", "a", "a/b/c"});
    auto files = actions(SyncActionType::copyNewFile, {"z", "a/b/f", "a-f"});
    auto archives = actions(SyncActionType::archiveDestinationItem, {"a", "a/b/c", "b", "a/b", "c/d"});
    auto others = actions(SyncActionType::excludeItem, {"y/z", "x"});
    std::vector<SyncAction> sorted;
    sortActionsForExecution(creations, files, archives, others, sorted);
    SyncPlan plan;
    plan.actions = std::move(sorted);
    EXPECT_EQ(renderActions(plan),
              (Strings{"createDirectory a", "createDirectory b", "createDirectory a/b", "createDirectory a/b/c",
                       "copyNewFile a-f", "copyNewFile z", "copyNewFile a/b/f",
                       "archiveDestinationItem a/b/c", "archiveDestinationItem c/d", "archiveDestinationItem a/b",
                       "archiveDestinationItem b", "archiveDestinationItem a",
                       "excludeItem x", "excludeItem y/z"}));
}

TEST(ActionOrderTest, AgreesWithSortingWholePathsWhateverTheInputOrder) {
    // Names chosen so that "/" sorts between them ("a b" < "a-b" < "a.b" < "a/..." < "a0"),
    // plus bytes above ASCII, and long names that first differ around their 8th and 16th
    // bytes or only in length; folders come in scattered runs, and the root sits among them.
    const Strings names{"a",           "a b",           "a-b",           "a.b",           "a0",
                        "ab",          "b",             "Z",             "\u00e9",        "e",
                        "IMG_0001.JPG", "IMG_0001.JPG.x", "report-0197723", "report-0197723.odt",
                        "report-0197724.odt", "0123456789abcdef", "0123456789abcdeg", "0123456789abcdef\u00e9",
                        "0123456789abcdefA"};
    std::mt19937 random(20261122);
    Strings paths;
    // More than 65,536 paths, so that two threads each order half of the list.
    for (int i = 0; i < 130000; ++i) {
        std::string path;
        const int depth = 1 + static_cast<int>(random() % 6);
        for (int d = 0; d < depth; ++d) path += (d ? "/" : "") + names[random() % names.size()];
        paths.push_back(path);
    }
    std::sort(paths.begin(), paths.end());
    paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
    std::shuffle(paths.begin(), paths.end(), random);
    paths.insert(paths.begin() + 7, "");  // the root, among top-level items
    // Keep some runs of one folder together, as a scan delivers them.
    std::stable_sort(paths.begin(), paths.begin() + static_cast<std::ptrdiff_t>(paths.size() / 2),
                     [](const std::string& a, const std::string& b) {
                         return RelativePath::fromString(a)->parent() < RelativePath::fromString(b)->parent();
                     });

    const auto depthOf = [](const std::string& path) { return std::count(path.begin(), path.end(), '/'); };
    Strings expected = paths;
    std::sort(expected.begin(), expected.end(), [&](const std::string& a, const std::string& b) {
        return depthOf(a) != depthOf(b) ? depthOf(a) < depthOf(b) : a < b;
    });
    std::vector<SyncAction> files, archives, none1, none2;
    for (const auto& path : paths) {
        files.push_back(SyncAction{SyncActionType::copyNewFile, *RelativePath::fromString(path), {}, {}, {}, 0});
        archives.push_back(
            SyncAction{SyncActionType::archiveDestinationItem, *RelativePath::fromString(path), {}, {}, {}, 0});
    }
    ASSERT_GT(expected.size(), 65536u);
    std::vector<SyncAction> sorted;
    sortActionsForExecution(none1, files, archives, none2, sorted);
    ASSERT_EQ(sorted.size(), 2 * expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(sorted[i].relativePath.value(), expected[i]) << "shallow-first, position " << i;
        ASSERT_EQ(sorted[expected.size() + i].relativePath.value(), expected[expected.size() - 1 - i])
            << "deepest-first, position " << i;
    }
}

TEST(CloudNoteTest, LinesAppearOnlyWhenTheyApply) {
    SyncPlan plan;
    plan.mode = SyncMode::update;
    plan.sourceCloud = CloudFolderInfo{CloudFolderInfo::Kind::iCloudDrive, "iCloud Drive", {}, {}};
    auto notes = cloudFolderNotes(plan);
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_EQ(notes[0].title, "This source is a cloud folder (iCloud Drive)");
    EXPECT_EQ(notes[0].lines.size(), 1u) << "only the tolerance line without online-only files";

    // Skipped online-only files and Mirror mode each add a line; a cloud destination its own note.
    plan.mode = SyncMode::mirror;
    plan.summary.filesSkippedOnlineOnly = 2;
    plan.summary.bytesSkippedOnlineOnly = 1500;
    plan.destinationCloud = CloudFolderInfo{CloudFolderInfo::Kind::fileProvider, "Dropbox", {}, std::string("/c")};
    plan.destinationRoot = "/c/backup";
    plan.archiveRoot = "/c/backup/.VarnelSync-Archive";
    plan.stagingDirectory = "/tmp/VarnelSync-Staging/run";
    notes = cloudFolderNotes(plan);
    ASSERT_EQ(notes.size(), 2u);
    ASSERT_EQ(notes[0].lines.size(), 3u);
    EXPECT_EQ(notes[0].lines[1], "2 online-only files (1.5 KB) are not downloaded, because this profile skips them. "
                                 "Their copies in the destination stay as they are.");
    EXPECT_EQ(notes[1].id, "cloud-destination");
    EXPECT_EQ(notes[1].lines.size(), 5u);
}

}  // namespace
}  // namespace varnel
