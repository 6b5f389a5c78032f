#include "cli/CliFixture.hpp"

#include "varnel-sync/Progress.hpp"
#include "varnel-sync/Review.hpp"

namespace varnel::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class AnalyzeSyncTest : public CliTest {};

TEST_F(AnalyzeSyncTest, AnalyzeShowsTheReviewAndWritesNothing) {
    addMirrorProfile();
    const auto before = tree(destination());

    const auto text = run({"analyze", "Photos"});
    ASSERT_EQ(text.code, 0) << text.err;
    for (const char* expected : {"Plan for “Photos” (Mirror)", "Files to copy        2", "Items to archive",
                                 "[severe]", "(archive-fraction)", "[advisory] 3 items will be moved to the archive",
                                 "Copy            Photos/a.jpg", "Not in destination", "No longer in source",
                                 "Excluded by rule: Folder named node_modules"}) {
        EXPECT_THAT(text.out, HasSubstr(expected));
    }
    EXPECT_THAT(text.out, Not(HasSubstr("same.txt")));  // unchanged files only with --show all
    EXPECT_THAT(run({"analyze", "Photos", "--show", "all"}).out, HasSubstr("Unchanged       same.txt"));
    const auto copies = run({"analyze", "Photos", "--show", "copyNewFile", "--quiet"});
    EXPECT_THAT(copies.out, HasSubstr("Photos/b.jpg"));
    EXPECT_THAT(copies.out, Not(HasSubstr("old/stale.txt")));
    EXPECT_THAT(copies.out, Not(HasSubstr("Summary")));

    const auto bad = run({"analyze", "Photos", "--show", "copies"});
    EXPECT_EQ(bad.code, 2);
    EXPECT_THAT(bad.err, HasSubstr("copyNewFile, replaceChangedFile, preserveUnchangedFile"));

    const auto json = run({"--json", "analyze", "Photos"});
    ASSERT_EQ(json.code, 0) << json.err;
    const auto document = json.json();  // stdout is exactly one document
    EXPECT_EQ(document["confirmationWord"], "ARCHIVE");
    EXPECT_EQ(document["plan"]["summary"]["filesToCopy"], 2);
    EXPECT_EQ(document["plan"]["summary"]["itemsToArchive"], 3);
    EXPECT_EQ(document["plan"]["actions"].size(), 8u);  // 1 folder, 2 copies, 1 unchanged, 3 archived, 1 excluded
    EXPECT_TRUE(document["decision"]["blockers"].empty());
    const auto& concern = document["decision"]["concerns"][0];
    EXPECT_EQ(concern["id"], "archive-fraction");
    EXPECT_EQ(concern["severity"], "severe");
    EXPECT_TRUE(concern.contains("title") && concern.contains("detail"));

    EXPECT_EQ(tree(destination()), before);
}

TEST_F(AnalyzeSyncTest, SyncWithoutTheNeededConfirmationExitsFourAndWritesNothing) {
    addMirrorProfile();
    const auto before = tree(destination());

    for (const auto& flags : std::vector<std::vector<std::string>>{
             {}, {"--acknowledge-all"}, {"--confirm", "ARCHIVE"}, {"--acknowledge", "archive-any", "--confirm", "ARCHIVE"}}) {
        std::vector<std::string> arguments{"sync", "Photos"};
        arguments.insert(arguments.end(), flags.begin(), flags.end());
        const auto refused = run(arguments);
        EXPECT_EQ(refused.code, 4) << refused.err;
        EXPECT_THAT(refused.err, HasSubstr("This run needs explicit confirmation before it can start."));
        EXPECT_THAT(refused.err, HasSubstr("--acknowledge archive-fraction,archive-any"));
        EXPECT_THAT(refused.err, HasSubstr("--confirm ARCHIVE"));
    }
    const auto json = run({"--json", "sync", "Photos"});
    EXPECT_EQ(json.code, 4);
    EXPECT_EQ(json.json()["error"]["code"], "confirmation_required");
    EXPECT_EQ(json.json()["decision"]["concerns"][0]["id"], "archive-fraction");

    // Declining on a terminal is the same refusal.
    const auto declined = run({"sync", "Photos"}, "y\nn\n", true);
    EXPECT_EQ(declined.code, 4);
    EXPECT_THAT(declined.err, HasSubstr("Acknowledge “"));

    EXPECT_EQ(tree(destination()), before);
}

TEST_F(AnalyzeSyncTest, SyncWithTheConfirmationRunsAndReportsTheResult) {
    addMirrorProfile();
    const auto result = run({"--json", "sync", "Photos", "--acknowledge-all", "--confirm", " archive "});
    ASSERT_EQ(result.code, 0) << result.err;
    const auto document = result.json();
    EXPECT_EQ(document["outcome"], "success");
    EXPECT_EQ(document["filesCopied"], 2);
    EXPECT_EQ(document["itemsArchived"], 3);
    ASSERT_TRUE(document.contains("logFile") && document.contains("reportFile"));
    EXPECT_TRUE(std::filesystem::exists(document["logFile"].get<std::string>()));
    EXPECT_TRUE(std::filesystem::exists(document["reportFile"].get<std::string>()));
    EXPECT_THAT(result.err, HasSubstr("Plan for “Photos”"));  // the review goes to stderr with --json
    EXPECT_TRUE(std::filesystem::exists(destination() / "Photos/a.jpg"));
    EXPECT_FALSE(std::filesystem::exists(destination() / "extra.txt"));

    // The text form of the result names the log and report.
    const auto again = run({"sync", "Photos", "--acknowledge-all", "--confirm", "ARCHIVE"});
    EXPECT_EQ(again.code, 0) << again.err;
    EXPECT_THAT(again.out, HasSubstr("Result: Success"));
    EXPECT_THAT(again.out, HasSubstr("Report  "));
}

TEST_F(AnalyzeSyncTest, TheTerminalAsksForEachConcernAndTheWord) {
    addMirrorProfile();
    const auto concerns = run({"--json", "analyze", "Photos"}).json()["decision"]["concerns"].size();
    std::string answers;
    for (std::size_t i = 0; i < concerns; ++i) answers += "yes\n";
    const auto result = run({"sync", "Photos"}, answers + "archive\n", true);
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr("Type ARCHIVE to start the run: "));
    EXPECT_TRUE(std::filesystem::exists(destination() / "Photos/b.jpg"));
}

TEST_F(AnalyzeSyncTest, OneOffRunsShareAnArchiveFolderAndSaveNoProfile) {
    temp.writeFile("source/new.txt", "new");
    const std::vector<std::string> pair{"--source", source().string(), "--destination", destination().string(),
                                        "--mode", "mirror"};
    for (const char* name : {"first.txt", "second.txt"}) {
        temp.writeFile(std::string("destination/") + name, "gone");
        std::vector<std::string> arguments{"sync"};
        arguments.insert(arguments.end(), pair.begin(), pair.end());
        arguments.insert(arguments.end(), {"--acknowledge-all", "--confirm", "ARCHIVE"});
        const auto result = run(arguments);
        ASSERT_EQ(result.code, 0) << result.err;
    }
    const auto archive = destination() / ".VarnelSync-Archive";
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(archive), std::filesystem::directory_iterator()), 1);
    EXPECT_EQ(run({"--json", "profile", "list"}).json()["profiles"].size(), 0u);

    const auto both = run({"analyze", "Photos", "--source", source().string()});
    EXPECT_EQ(both.code, 2);
    const auto half = run({"analyze", "--source", source().string()});
    EXPECT_EQ(half.code, 2);
    EXPECT_THAT(half.err, HasSubstr("give both --source and --destination"));
}

TEST_F(AnalyzeSyncTest, RunDueRunsDueProfilesAndHoldsBackThoseNeedingReview) {
    addMirrorProfile();
    ASSERT_EQ(run({"profile", "edit", "Photos", "--schedule", "hourly:1"}).code, 0);
    const auto updateSource = temp.path() / "docs";
    const auto updateDestination = temp.path() / "docs-copy";
    temp.writeFile("docs/readme.txt", "read me");
    std::filesystem::create_directories(updateDestination);
    ASSERT_EQ(run({"profile", "add", "Docs", "--source", updateSource.string(), "--destination",
                   updateDestination.string(), "--schedule", "hourly:1"})
                  .code,
              0);

    const auto early = run({"--json", "run-due"});
    EXPECT_EQ(early.code, 0);
    EXPECT_TRUE(early.json()["runs"].empty());  // a new schedule counts from now

    clock.offset = std::chrono::hours(2);
    const auto due = run({"--json", "run-due"});
    EXPECT_EQ(due.code, 4) << due.err;  // the Mirror profile needs review
    std::map<std::string, nlohmann::json> byName;
    const auto document = due.json();
    for (const auto& entry : document["runs"]) byName[entry["profileName"]] = entry;
    EXPECT_EQ(byName["Photos"]["status"], "needsReview");
    EXPECT_EQ(byName["Docs"]["status"], "completed");
    EXPECT_EQ(byName["Docs"]["result"]["filesCopied"], 1);
    EXPECT_TRUE(std::filesystem::exists(updateDestination / "readme.txt"));
    EXPECT_TRUE(std::filesystem::exists(destination() / "extra.txt"));  // not archived without review
}

TEST(ReviewTest, AnalysisJSONStreamsThePlanAndLeavesItWhole) {
    SyncCoordinator::AnalysisOutcome outcome;
    for (const char* path : {"a", "a/b.txt"}) {
        SyncAction action;
        action.type = SyncActionType::copyNewFile;
        action.relativePath = *RelativePath::fromString(path);
        action.reason = SyncActionReason::NotPresentInDestination{};
        outcome.plan.actions.push_back(action);
    }
    outcome.decision.blockers.push_back(SyncError(SyncError::InsufficientDestinationSpace{2000, 1000}));
    std::ostringstream out;
    cli::writeAnalysisJSON(out, outcome);
    const auto document = nlohmann::json::parse(out.str());
    EXPECT_EQ(document["plan"]["actions"].size(), 2u);
    EXPECT_EQ(document["plan"]["actions"][1]["relativePath"], "a/b.txt");
    EXPECT_EQ(document["plan"]["id"], outcome.plan.id.string());
    EXPECT_EQ(document["decision"]["blockers"][0]["code"], "insufficient_space");
    EXPECT_EQ(outcome.plan.actions.size(), 2u);
}

TEST(ReviewTest, ProgressLineNamesPhaseShareSizesFilesAndTimeLeft) {
    TransferProgress progress;
    progress.phase = SyncPhase::copying;
    progress.totalBytesPlanned = 2'000'000;
    progress.bytesTransferred = 500'000;
    progress.totalFilesPlanned = 4;
    progress.filesCompleted = 1;
    progress.currentRelativePath = "Photos/a.jpg";
    progress.currentOperation = "Copying";
    progress.bytesPerSecond = 1'500'000;
    progress.estimatedSecondsRemaining = 75;
    EXPECT_EQ(cli::ProgressLine::transferText(progress),
              "Copying 25% · 500 KB of 2 MB · 1 of 4 files · Copying Photos/a.jpg · 1.5 MB/s · 1 min 15 s left");
}

}  // namespace
}  // namespace varnel::testing
