#include "app/SyncApplication.hpp"
#include "archive/ArchiveLayout.hpp"
#include "support/EngineHarness.hpp"
#include "support/MountSandbox.hpp"
#include "support/Shorthand.hpp"
#include "support/SyncChecker.hpp"
#include "transfer/PartialFileNaming.hpp"
#include "support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>

#include <sys/xattr.h>

#include <filesystem>
#include <fstream>
#include <thread>

namespace varnel {
namespace {

namespace fs = std::filesystem;
using testing::thrownBy;

// A saved profile on real folders, driven through the same layer the front ends use.
class CoordinatorTest : public ::testing::Test {
protected:
    fs::path source() const { return temp.path() / "src"; }
    fs::path destination() const { return temp.path() / "dst"; }

    Uuid addProfile(SyncMode mode, const fs::path& destinationFolder) {
        fs::create_directories(source());
        fs::create_directories(destinationFolder);
        return engine.addProfile(source(), destinationFolder, mode, DurabilityMode::durable);
    }
    Uuid addProfile(SyncMode mode) { return addProfile(mode, destination()); }

    SyncCoordinator::Synchronization sync(SyncCoordinator::AnalysisOutcome& outcome, Confirmation confirmation) {
        CancellationFlag flag;
        return app->synchronize(outcome, confirmation, flag);
    }
    // As a user who ticks every concern (advisory ones, such as a volume without a UUID).
    SyncCoordinator::Synchronization sync(SyncCoordinator::AnalysisOutcome& outcome) {
        Confirmation confirmation;
        for (const auto& concern : outcome.decision.concerns) confirmation.acknowledgedConcernIDs.insert(concern.id);
        return sync(outcome, confirmation);
    }

    testing::TemporaryDirectory temp;
    testing::EngineHarness engine{temp / "app"};
    SyncApplication* app = engine.application.get();
};

TEST_F(CoordinatorTest, UpdateRunFromASavedProfileIsLoggedAndRecorded) {
    temp.writeFile("src/a.txt", "alpha");
    temp.writeFile("src/sub/b.txt", "beta");
    const Uuid id = addProfile(SyncMode::update);
    auto outcome = app->analyze(id);
    EXPECT_TRUE(outcome.decision.blockers.empty());
    const auto synchronization = sync(outcome);
    const SyncRunResult& result = synchronization.result;
    EXPECT_FALSE(synchronization.logFailure);
    EXPECT_EQ(result.outcome, SyncRunOutcome::success);
    EXPECT_EQ(result.filesCopied, 2);
    EXPECT_EQ(temp.readFile("dst/sub/b.txt"), "beta");

    const SyncProfile saved = *app->find(id.string());
    EXPECT_EQ(saved.lastRunID, result.id);
    EXPECT_EQ(saved.lastResult, SyncRunOutcome::success);
    EXPECT_EQ(saved.lastFilesTransferred, 2);
    EXPECT_EQ(saved.lastBytesTransferred, 9);

    const auto records = RunLogStore::readLog(app->logStore().logPath(result.id));
    std::vector<std::string> kinds;
    for (const auto& record : records) kinds.push_back(record.kind);
    EXPECT_EQ(kinds, (std::vector<std::string>{"run.start", "plan.summary", "action", "action", "action", "run.finish"}));
    EXPECT_TRUE(fs::exists(app->logStore().reportPath(result.id)));
    EXPECT_TRUE(outcome.accessScope->isReleased());
}

TEST_F(CoordinatorTest, MirrorArchivesIntoTheRunFolderFixedAtAnalysis) {
    temp.writeFile("src/keep.txt", "k");
    temp.writeFile("dst/old.txt", "archived");
    const Uuid id = addProfile(SyncMode::mirror);
    auto outcome = app->analyze(id);
    ASSERT_TRUE(outcome.archiveRunFolder);
    // The whole destination would be archived: a severe concern, so the word is typed.
    ASSERT_TRUE(outcome.decision.hasSevereConcern());
    Confirmation confirmation{{}, std::string("ARCHIVE")};
    for (const auto& concern : outcome.decision.concerns) confirmation.acknowledgedConcernIDs.insert(concern.id);
    const auto result = sync(outcome, confirmation).result;
    EXPECT_EQ(result.itemsArchived, 1);
    const fs::path archived = destination() / outcome.archiveRunFolder->value() / "old.txt";
    EXPECT_EQ(archived.parent_path().filename(), ArchiveLayout::runFolderName(outcome.analyzedAt));
    EXPECT_TRUE(fs::exists(archived));
    std::ifstream report(app->logStore().reportPath(result.id));
    const std::string text((std::istreambuf_iterator<char>(report)), {});
    EXPECT_NE(text.find("Items archived   : 1"), std::string::npos) << text;
}

TEST_F(CoordinatorTest, LeftoverStagingFilesFoundByAnalysisAreRemovedBeforeTheRun) {
    temp.writeFile("src/a.txt", "new text");
    temp.writeFile("dst/a.txt", "old");
    const std::string killed = PartialFileNaming::makeStagingName("a.txt", Uuid::random());
    const std::string replaced = PartialFileNaming::makeStagingName("b.txt", Uuid::random());
    temp.writeFile("dst/" + killed, "half of a");
    temp.writeFile("dst/sub/" + replaced, "half of b");
    const Uuid id = addProfile(SyncMode::update);
    auto outcome = app->analyze(id);
    EXPECT_EQ(outcome.partialFiles.count, 2);
    // Replaced since the analysis: no longer the item analysis found, so it stays.
    // (Written beside it and renamed over it, so it cannot reuse the inode number.)
    temp.writeFile("dst/sub/other", "someone else's");
    fs::rename(destination() / "sub" / "other", destination() / "sub" / replaced);

    const auto result = sync(outcome).result;
    EXPECT_EQ(result.outcome, SyncRunOutcome::success);
    EXPECT_FALSE(fs::exists(destination() / killed));
    EXPECT_EQ(temp.readFile("dst/sub/" + replaced), "someone else's");
    EXPECT_EQ(temp.readFile("dst/a.txt"), "new text");
}

TEST_F(CoordinatorTest, SevereConcernNeedsTheTypedWordAndNothingIsWrittenBefore) {
    for (int i = 0; i < 5; ++i) temp.writeFile("dst/old" + std::to_string(i), "x");
    temp.writeFile("src/new.txt", "n");
    const Uuid id = addProfile(SyncMode::mirror);
    {
        SyncProfile profile = *app->find(id.string());
        profile.safetyThresholds.maxItemsBeforeWarning = 2;
        app->update(profile);
    }
    auto outcome = app->analyze(id);
    ASSERT_TRUE(outcome.decision.hasSevereConcern());
    Confirmation confirmation;
    for (const auto& concern : outcome.decision.concerns) confirmation.acknowledgedConcernIDs.insert(concern.id);
    confirmation.typedPhrase = "ARCHIVED";
    EXPECT_EQ(thrownBy<SyncError>([&] { (void)sync(outcome, confirmation); }).code(), "confirmation_required");
    EXPECT_FALSE(fs::exists(destination() / "new.txt"));
    confirmation.typedPhrase = " archive\n";
    EXPECT_EQ(sync(outcome, confirmation).result.itemsArchived, 5);
}

TEST_F(CoordinatorTest, AnOutcomeIsStaleAfterAnEditOrANewerAnalysis) {
    temp.writeFile("src/a.txt", "a");
    const Uuid id = addProfile(SyncMode::update);
    auto first = app->analyze(id);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // analyses are dated to the second
    auto second = app->analyze(id);
    EXPECT_EQ(thrownBy<SyncError>([&] { (void)sync(first); }).code(), "plan_stale");
    EXPECT_EQ(sync(second).result.filesCopied, 1);
}

TEST_F(CoordinatorTest, AnalysisWritesNothingToEitherFolder) {
    temp.writeFile("src/photos/a.jpg", "jpeg");
    temp.writeFile("src/.hidden", "h");
    temp.writeFile("dst/photos/a.jpg", "older");
    temp.writeFile("dst/only.txt", "o");
    ::setxattr((source() / "photos/a.jpg").c_str(), "user.tag", "v", 1, 0);
    const Uuid id = addProfile(SyncMode::mirror);
    const auto snapshot = testing::SyncChecker::snapshot;  // ctimes included: xattrs and modes count too
    const auto before = std::make_pair(snapshot(temp / "src"), snapshot(temp / "dst"));
    const auto outcome = app->analyze(id);
    EXPECT_FALSE(outcome.plan.actions.empty());
    EXPECT_EQ(std::make_pair(snapshot(temp / "src"), snapshot(temp / "dst")), before);
}

TEST_F(CoordinatorTest, ABlockerRefusesBeforeAnythingIsWritten) {
    if (const auto why = testing::MountSandbox::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
    const fs::path small = temp.path() / "small";
    testing::MountSandbox mounts;
    ASSERT_EQ(mounts.mountMemory(small, "size=1m"), "");
    temp.writeFile("src/big.bin", std::string(3'000'000, 'b'));
    const Uuid id = addProfile(SyncMode::update, small);
    auto outcome = app->analyze(id);
    ASSERT_FALSE(outcome.decision.blockers.empty());
    EXPECT_EQ(outcome.decision.blockers.front().code(), "insufficient_space");
    EXPECT_EQ(thrownBy<SyncError>([&] { (void)sync(outcome); }).code(), "insufficient_space");
    EXPECT_TRUE(fs::is_empty(small));
}

TEST_F(CoordinatorTest, AnUnwritableLogFolderLeavesTheRunSuccessful) {
    temp.writeFile("app/logs", "a file where the log folder should be");
    temp.writeFile("src/a.txt", "a");
    const Uuid id = addProfile(SyncMode::update);
    auto outcome = app->analyze(id);
    const auto synchronization = sync(outcome);
    EXPECT_EQ(synchronization.result.outcome, SyncRunOutcome::success);
    ASSERT_TRUE(synchronization.logFailure);
    EXPECT_EQ(synchronization.logFailure->code(), "run_log_failure");
    EXPECT_FALSE(synchronization.result.logFileName);
    EXPECT_EQ(temp.readFile("dst/a.txt"), "a");
}

}  // namespace
}  // namespace varnel
