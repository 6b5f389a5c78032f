#include "CopyEngineFixture.hpp"

#include "common/Sha256.hpp"
#include "support/FakeFileSystem.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

namespace varnel::testing {
namespace {

namespace fs = std::filesystem;

std::string detailOf(const SyncError& error) {
    if (const auto* changed = error.as<SyncError::SourceChangedSinceAnalysis>()) return changed->detail;
    if (const auto* failed = error.as<SyncError::CopyFailed>()) return failed->detail;
    if (const auto* metadata = error.as<SyncError::MetadataPreservationFailed>()) return metadata->detail;
    return "<" + error.code() + ">";
}

using FileCopyEngineTests = CopyEngineFixture;

TEST_F(FileCopyEngineTests, ANewFileIsStagedFlushedAndRenamedIntoPlace) {
    temporary.writeFile("src/docs/report.txt", "new report");
    fs::permissions(temporary / "src/docs/report.txt", fs::perms(0604));
    fs::create_directories(temporary / "dst/docs");
    const auto action = planned(SyncActionType::copyNewFile, "docs/report.txt");

    // At the file's flush the copy is complete under its staging name beside the
    // destination, and the destination path is still free.
    std::vector<std::string> stagedAtFlush;
    bool destinationFreeAtFlush = false;
    flusher->atCall(FaultInjectingFlusher::file, [&] {
        stagedAtFlush = stagingItemsBelow(temporary / "dst");
        destinationFreeAtFlush = !fs::exists(temporary / "dst/docs/report.txt");
    });
    std::int64_t progressed = 0;
    const auto result = copy(action, [&](std::int64_t increment) { progressed += increment; });

    EXPECT_EQ(read("dst/docs/report.txt"), "new report");
    EXPECT_EQ(statOf(temporary / "dst/docs/report.txt").st_mode & 07777, 0604u);
    EXPECT_EQ(result.bytesWritten, 10u);
    EXPECT_EQ(progressed, 10);
    EXPECT_TRUE(result.verified);
    EXPECT_FALSE(result.usedClone);
    EXPECT_EQ(result.durabilityOutcome, DurabilityOutcome::durablyCommitted);
    EXPECT_EQ(result.durabilityWarning, std::nullopt);
    EXPECT_GE(result.flushSeconds, 0.0);
    EXPECT_TRUE(result.metadataProblems.empty());

    ASSERT_EQ(stagedAtFlush.size(), 1u);
    const auto parsed = PartialFileNaming::parse(fs::path(stagedAtFlush[0]).filename().string());
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->intendedName, "report.txt");
    EXPECT_EQ(parsed->runTag, "3f2a9c10");
    EXPECT_EQ(fs::path(stagedAtFlush[0]).parent_path(), "docs");
    EXPECT_TRUE(destinationFreeAtFlush);
    EXPECT_TRUE(stagingItemsBelow(temporary / "dst").empty());

    const std::string staged = fs::path(stagedAtFlush[0]).filename().string();
    EXPECT_EQ(flusher->calls(), (std::vector<std::string>{"flushFile " + staged + " durable 10",
                                                          "flushDirectory " + (temporary / "dst/docs").string() +
                                                              " durable"}));
}

TEST_F(FileCopyEngineTests, AnUpdateReplacesTheOldFileWithoutEverWritingIntoIt) {
    temporary.writeFile("src/a.txt", "version two, longer");
    temporary.writeFile("dst/a.txt", "version one");
    // A reader holding the old file open keeps seeing it whole: the new copy is a new file.
    const int reader = ::open((temporary / "dst/a.txt").c_str(), O_RDONLY);
    ASSERT_GE(reader, 0);

    const auto result = copy(planned(SyncActionType::replaceChangedFile, "a.txt"));

    EXPECT_EQ(read("dst/a.txt"), "version two, longer");
    EXPECT_EQ(result.bytesWritten, 19u);
    char old[32] = {};
    EXPECT_EQ(::pread(reader, old, sizeof old, 0), 11);
    EXPECT_EQ(std::string(old), "version one");
    ::close(reader);
    EXPECT_TRUE(stagingItemsBelow(temporary / "dst").empty());
}

TEST_F(FileCopyEngineTests, ALinkIsRecreatedWithItsTargetTextAndNeverReplacesAFolder) {
    fs::create_symlink("../outside/missing target", temporary / "src/link");
    fs::create_symlink("elsewhere", temporary / "src/other");
    fs::create_directories(temporary / "dst/other/keep");

    const auto result = engine.writeSymbolicLink(planned(SyncActionType::createSymlink, "link"));
    EXPECT_EQ(fs::read_symlink(temporary / "dst/link"), "../outside/missing target");
    EXPECT_EQ(result.bytesWritten, 0u);
    EXPECT_EQ(result.durabilityOutcome, DurabilityOutcome::durablyCommitted);

    // An update of the link replaces the old link...
    fs::remove(temporary / "src/link");
    fs::create_symlink("new target", temporary / "src/link");
    engine.writeSymbolicLink(planned(SyncActionType::replaceSymlink, "link"));
    EXPECT_EQ(fs::read_symlink(temporary / "dst/link"), "new target");

    // ...but never a folder that took its place.
    const auto error = syncErrorOf([&] { engine.writeSymbolicLink(planned(SyncActionType::replaceSymlink, "other")); });
    EXPECT_TRUE(error.is<SyncError::CopyFailed>());
    EXPECT_EQ(detailOf(error), "Could not create the link: Is a directory");
    EXPECT_TRUE(fs::is_directory(temporary / "dst/other/keep"));

    // A new link whose path was taken meanwhile leaves the other item alone.
    temporary.writeFile("dst/taken", "theirs");
    fs::create_symlink("mine", temporary / "src/taken");
    const auto taken = syncErrorOf([&] { engine.writeSymbolicLink(planned(SyncActionType::createSymlink, "taken")); });
    EXPECT_TRUE(taken.is<SyncError::SourceChangedSinceAnalysis>());
    EXPECT_EQ(read("dst/taken"), "theirs");
    EXPECT_TRUE(stagingItemsBelow(temporary / "dst").empty());
}

TEST_F(FileCopyEngineTests, ASourceThatChangedSinceTheAnalysisIsNotCopied) {
    temporary.writeFile("src/grown.txt", "12345");
    const auto action = planned(SyncActionType::copyNewFile, "grown.txt");
    std::ofstream(temporary / "src/grown.txt", std::ios::app) << "6";
    auto error = syncErrorOf([&] { copy(action); });
    EXPECT_TRUE(error.is<SyncError::SourceChangedSinceAnalysis>());
    EXPECT_EQ(error.message(), "“grown.txt” changed after the plan was created. It was 5 bytes when the plan was "
                               "created and is now 6 bytes. Run Analyze again to include the new version.");

    temporary.writeFile("src/gone.txt", "x");
    const auto goneAction = planned(SyncActionType::copyNewFile, "gone.txt");
    fs::remove(temporary / "src/gone.txt");
    EXPECT_EQ(detailOf(syncErrorOf([&] { copy(goneAction); })), "The file no longer exists in the source.");

    temporary.writeFile("src/kind", "x");
    const auto kindAction = planned(SyncActionType::copyNewFile, "kind");
    fs::remove(temporary / "src/kind");
    fs::create_directory(temporary / "src/kind");
    EXPECT_EQ(detailOf(syncErrorOf([&] { copy(kindAction); })), "It is now a folder rather than a file.");
    fs::remove(temporary / "src/kind");
    fs::create_symlink("grown.txt", temporary / "src/kind");
    EXPECT_EQ(detailOf(syncErrorOf([&] { copy(kindAction); })), "It is now a symbolic link rather than a file.");

    EXPECT_TRUE(fs::is_empty(temporary / "dst")) << "nothing may be written for a changed source";
}

TEST_F(FileCopyEngineTests, ADestinationPathThatGainedAFileMeanwhileIsLeftUntouched) {
    temporary.writeFile("src/a.txt", "mine");
    // Another program creates the file after the plan, while the copy is being flushed.
    flusher->atCall(FaultInjectingFlusher::file, [&] { temporary.writeFile("dst/a.txt", "theirs"); });
    const auto error = syncErrorOf([&] { copy(planned(SyncActionType::copyNewFile, "a.txt")); });
    EXPECT_TRUE(error.is<SyncError::SourceChangedSinceAnalysis>());
    EXPECT_EQ(detailOf(error), "A file appeared at this destination path after the plan was created. It was left "
                               "untouched. Run Analyze again.");
    EXPECT_EQ(read("dst/a.txt"), "theirs");
    EXPECT_TRUE(stagingItemsBelow(temporary / "dst").empty());
}

TEST_F(FileCopyEngineTests, ADestinationFolderSwappedForALinkIsNeverWrittenThrough) {
    temporary.writeFile("src/docs/a.txt", "mine");
    fs::create_directories(temporary / "elsewhere");
    fs::create_directory_symlink(temporary / "elsewhere", temporary / "dst/docs");
    const auto error = syncErrorOf([&] { copy(planned(SyncActionType::copyNewFile, "docs/a.txt")); });
    EXPECT_EQ(detailOf(error), "The destination folder for this file is not a real folder (it is a symbolic link or "
                               "another file type). Nothing was written.");
    EXPECT_TRUE(fs::is_empty(temporary / "elsewhere"));
}

TEST_F(FileCopyEngineTests, CancellingInTheMiddleOfALargeFileKeepsTheOldOneAndNoStagingFile) {
    temporary.writeFile("src/big.bin", std::string(4 << 20, 'n'));
    temporary.writeFile("dst/big.bin", "old contents");
    engine.copyChunkBytes = 1 << 20;
    std::atomic<bool> stopped{false};
    std::int64_t progressed = 0;
    const auto error = syncErrorOf([&] {
        copy(
            planned(SyncActionType::replaceChangedFile, "big.bin"),
            [&](std::int64_t increment) {
                progressed += increment;
                stopped = true;  // the user presses Stop once the first block is in
            },
            [&] { return stopped.load(); });
    });
    EXPECT_TRUE(error.is<SyncError::Cancelled>());
    EXPECT_EQ(progressed, 1 << 20);
    EXPECT_EQ(read("dst/big.bin"), "old contents");
    EXPECT_TRUE(stagingItemsBelow(temporary / "dst").empty());
    EXPECT_TRUE(flusher->calls().empty());
}

TEST_F(FileCopyEngineTests, AVerificationMismatchLeavesTheOldFile) {
    temporary.writeFile("src/a.txt", "the right bytes");
    temporary.writeFile("dst/a.txt", "old");
    // A bit flips in the staged copy after it was written (same length, other bytes).
    fileSystem->atCall("sha256", [&] {
        for (const auto& staged : stagingItemsBelow(temporary / "dst")) {
            std::fstream(temporary / "dst" / staged, std::ios::in | std::ios::out | std::ios::binary) << "T";
        }
    });
    const auto error = syncErrorOf([&] { copy(planned(SyncActionType::replaceChangedFile, "a.txt")); });
    const auto* mismatch = error.as<SyncError::VerificationFailed>();
    ASSERT_NE(mismatch, nullptr) << error.message();
    EXPECT_EQ(mismatch->expected, toHex(Sha256::of("the right bytes")));
    EXPECT_EQ(mismatch->actual, toHex(Sha256::of("The right bytes")));
    EXPECT_EQ(read("dst/a.txt"), "old");
    EXPECT_TRUE(stagingItemsBelow(temporary / "dst").empty());
    EXPECT_TRUE(flusher->calls().empty()) << "a copy that failed verification is not flushed";
}

TEST_F(FileCopyEngineTests, DurabilityModesDecideTheOutcome) {
    temporary.writeFile("src/a.txt", "x");
    engine.durabilityMode = DurabilityMode::fast;
    EXPECT_EQ(copy(planned(SyncActionType::copyNewFile, "a.txt")).durabilityOutcome, DurabilityOutcome::fastNoFlush);

    engine.durabilityMode = DurabilityMode::maximum;
    flusher->refuseFullFlush();
    const auto refused = copy(planned(SyncActionType::replaceChangedFile, "a.txt"));
    EXPECT_EQ(refused.durabilityOutcome, DurabilityOutcome::durableFullFlushUnsupported);
}

TEST_F(FileCopyEngineTests, AStagingFolderKeepsUnfinishedCopiesOutOfTheDestination) {
    fs::create_directories(temporary / "staging/3f2a9c10");
    engine.stagingDirectory = fileSystem->openRoot((temporary / "staging/3f2a9c10").string());
    temporary.writeFile("src/cloud/a.txt", "x");
    fs::create_directories(temporary / "dst/cloud");

    std::vector<std::string> stagedInFolder;
    std::vector<std::string> stagedInDestination;
    flusher->atCall(FaultInjectingFlusher::file, [&] {
        stagedInFolder = stagingItemsBelow(temporary / "staging");
        stagedInDestination = stagingItemsBelow(temporary / "dst");
    });
    copy(planned(SyncActionType::copyNewFile, "cloud/a.txt"));
    EXPECT_EQ(stagedInFolder.size(), 1u);
    EXPECT_TRUE(stagedInDestination.empty()) << "the cloud client must never see a partial file";
    EXPECT_EQ(read("dst/cloud/a.txt"), "x");
    EXPECT_TRUE(fs::is_empty(temporary / "staging/3f2a9c10"));
}

// --- Metadata and cloning by policy, on the in-memory file system ---------------------------

class FakeCopyEngineTests : public ::testing::Test {
protected:
    void SetUp() override {
        fake->addFile("/src/a.txt", "data").extendedAttributes = {{"user.tag", "blue"}};
        fake->addDirectory("/dst");
        engine.fileSystem = fake;
        engine.flusher = std::make_shared<NoOpFileFlusher>();
        engine.sourceRoot = fake->openRoot("/src");
        engine.destinationRoot = fake->openRoot("/dst");
    }

    SyncAction newFile(const std::string& path) const {
        SyncAction action;
        action.type = SyncActionType::copyNewFile;
        action.relativePath = rel(path);
        action.sourceEntry = SharedEntry(fake->entry(engine.sourceRoot, action.relativePath));
        return action;
    }

    std::shared_ptr<FakeFileSystem> fake = std::make_shared<FakeFileSystem>();
    FileCopyEngine engine;
};

TEST_F(FakeCopyEngineTests, StrictMetadataThatCannotBeKeptIsNotCommitted) {
    engine.metadataPolicy = MetadataPolicy::strict;
    fake->failNext("fsetxattr", EPERM);
    const auto error = syncErrorOf([&] { engine.copyFile(newFile("a.txt"), {}, {}); });
    EXPECT_EQ(error.message(), "Could not preserve metadata for “a.txt”. Could not preserve: extended attributes. The "
                               "destination file was not changed.");
    EXPECT_TRUE(fake->listDirectory(engine.destinationRoot, RelativePath()).empty());

    // Under the other policies the same loss is reported and the file is committed.
    engine.metadataPolicy = MetadataPolicy::extended;
    fake->failNext("fsetxattr", EPERM);
    fake->failNext("futimens", EPERM);
    const auto result = engine.copyFile(newFile("a.txt"), {}, {});
    EXPECT_EQ(result.metadataProblems, (std::vector<std::string>{"extended attributes", "timestamps"}));
    EXPECT_EQ(fake->contents("/dst/a.txt"), "data");
}

TEST_F(FakeCopyEngineTests, OnlineOnlySourcesAreNeverCloned) {
    VolumeInfo cloning;
    cloning.identity.supportsCloning = true;
    cloning.identity.isCaseSensitive = true;
    cloning.deviceID = 9;
    fake->setVolume("/vol", cloning);
    fake->addFile("/vol/src/local", "here");
    fake->addFile("/vol/src/cloud", "there").isDataless = true;
    fake->addDirectory("/vol/dst");
    engine.sourceRoot = fake->openRoot("/vol/src");
    engine.destinationRoot = fake->openRoot("/vol/dst");

    EXPECT_TRUE(engine.copyFile(newFile("local"), {}, {}).usedClone);
    EXPECT_FALSE(engine.copyFile(newFile("cloud"), {}, {}).usedClone);
    const auto changes = fake->changes();
    ASSERT_EQ(changes.size(), 4u);  // a copy and a rename each
    EXPECT_EQ(changes[0].rfind("clone /vol/src/local -> ", 0), 0u) << changes[0];
    EXPECT_EQ(changes[2].rfind("copy /vol/src/cloud -> ", 0), 0u) << changes[2];
}

}  // namespace
}  // namespace varnel::testing
