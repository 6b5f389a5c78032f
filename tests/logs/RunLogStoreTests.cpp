#include "common/DecodingError.hpp"
#include "logs/RunLogStore.hpp"
#include "support/Shorthand.hpp"
#include "support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

namespace varnel {
namespace {

namespace fs = std::filesystem;

struct FinishedRun {
    SyncProfile profile;
    SyncPlan plan;
    SyncRunResult result;
    std::vector<ActionResult> actions;

    explicit FinishedRun(SyncRunOutcome outcome = SyncRunOutcome::success) {
        profile.id = Uuid::random();
        profile.name = "Photos";
        plan.sourceRoot = "/src";
        plan.destinationRoot = "/dst";
        plan.summary.filesToCopy = 2;
        result.id = Uuid::random();
        result.profileID = profile.id;
        result.outcome = outcome;
    }
    RunLogInput input() const { return RunLogInput{profile, &plan, result, actions}; }
};

TEST(RunLogStoreTest, WritesRecordsInOrderWithACompactClosingRecord) {
    testing::TemporaryDirectory temp;
    RunLogStore store(temp.path() / "Logs");
    FinishedRun run(SyncRunOutcome::failed);
    run.actions.push_back({*RelativePath::fromString("a.txt"), SyncActionType::copyNewFile, false, 0, 0.1,
                           std::string("copy_failed"), std::string("Could not copy “a.txt”.")});
    run.result.warnings.emplace_back(SyncWarning::Category::hardLink, "linked", *RelativePath::fromString("h"));
    run.result.errors.push_back({Uuid::random(), *RelativePath::fromString("a.txt"), "copy_failed", "msg"});
    ASSERT_FALSE(store.write(run.input()));

    const auto records = RunLogStore::readLog(store.logPath(run.result.id));
    std::vector<std::string> kinds;
    for (const auto& record : records) kinds.push_back(record.kind);
    EXPECT_EQ(kinds, (std::vector<std::string>{"run.start", "plan.summary", "action", "warning", "error", "run.finish"}));
    std::size_t configKeys = 0, buildKeys = 0;
    for (const auto& [key, value] : records[0].payload) {
        configKeys += key.starts_with("config.");
        buildKeys += key.starts_with("build.");
        if (key == "build.sourceRevision") {
            EXPECT_FALSE(std::get<std::string>(value).empty());
        }
    }
    EXPECT_GE(configKeys, 7u);
    EXPECT_EQ(buildKeys, 4u);

    std::ifstream in(store.logPath(run.result.id));
    const std::string text((std::istreambuf_iterator<char>(in)), {});
    EXPECT_NE(text.find("\"outcome\":\"failed\""), std::string::npos);
    EXPECT_TRUE(fs::exists(store.reportPath(run.result.id)));
}

TEST(RunLogStoreTest, ReportAlignsLabelsAndCapsLists) {
    FinishedRun run;
    for (std::size_t i = 0; i < RunLogStore::kReportListLimit + 3; ++i) {
        run.result.errors.push_back({Uuid::random(), std::nullopt, "copy_failed", "e" + std::to_string(i)});
    }
    run.result.verification = VerificationMode::verifyCopiedFiles;
    run.result.filesVerified = 4;
    run.result.verificationFailures = 1;
    const std::string report = RunLogStore::makeReport(run.input());
    EXPECT_TRUE(report.starts_with("Varnel Sync run report\n"));
    EXPECT_NE(report.find("Destination  : /dst\n"), std::string::npos);
    EXPECT_NE(report.find("Profile      : Photos\n"), std::string::npos);
    EXPECT_NE(report.find("Bytes transferred: 0 bytes\n"), std::string::npos);
    EXPECT_NE(report.find("Peak speed       : 0 B/s\n"), std::string::npos);
    EXPECT_NE(report.find("Files verified   : 4 (failures: 1)\n"), std::string::npos);
    EXPECT_NE(report.find("Errors (53)\n"), std::string::npos);
    EXPECT_NE(report.find("  3 more (see the JSONL log).\n"), std::string::npos);
}

TEST(RunLogStoreTest, RetentionKeepsTheNewestRunsAndTheNewestFailedOne) {
    testing::TemporaryDirectory temp;
    RunLogStore store(temp.path());
    // File times order the runs: each run is dated one second after the previous one.
    const auto base = fs::file_time_type::clock::now() - std::chrono::hours(24);
    int written = 0;
    const auto write = [&](const FinishedRun& run) {
        ASSERT_FALSE(store.write(run.input()));
        fs::last_write_time(store.logPath(run.result.id), base + std::chrono::seconds(++written));
    };
    FinishedRun failed(SyncRunOutcome::failed);
    write(failed);
    std::vector<Uuid> later;
    for (int i = 0; i < 101; ++i) {
        FinishedRun run;
        write(run);
        later.push_back(run.result.id);
    }
    EXPECT_TRUE(fs::exists(store.logPath(failed.result.id))) << "the newest failed run is spared";
    EXPECT_FALSE(fs::exists(store.logPath(later[0]))) << "the oldest ordinary run goes, log and report";
    EXPECT_FALSE(fs::exists(store.reportPath(later[0])));
    for (std::size_t i = 1; i < later.size(); ++i) EXPECT_TRUE(fs::exists(store.logPath(later[i])));
    std::size_t logs = 0;
    for (const auto& item : fs::directory_iterator(temp.path())) logs += item.path().extension() == ".jsonl";
    EXPECT_EQ(logs, 101u) << "the 100 newest runs plus the spared failed one";
}

// The outcome is looked for at the end of each log: a failed run with a long log must
// still be found, and an item whose name spells a failed outcome must not spare its run.
TEST(RunLogStoreTest, RetentionFindsTheOutcomeOfALongLogAndOnlyThere) {
    testing::TemporaryDirectory temp;
    RunLogStore store(temp.path(), 2);
    const auto base = fs::file_time_type::clock::now() - std::chrono::hours(24);
    int written = 0;
    const auto write = [&](const FinishedRun& run) {
        ASSERT_FALSE(store.write(run.input()));
        fs::last_write_time(store.logPath(run.result.id), base + std::chrono::seconds(++written));
    };
    const auto withActions = [](FinishedRun run, const std::string& name) {
        for (int i = 0; i < 2'000; ++i) {
            run.actions.push_back(ActionResult{testing::rel("folder/" + std::to_string(i) + "-" + name),
                                               SyncActionType::copyNewFile, true, 4096, 0.01, {}, {}});
        }
        return run;
    };
    const FinishedRun failed = withActions(FinishedRun(SyncRunOutcome::failed), "photo.jpg");
    const FinishedRun lookalike = withActions(FinishedRun(), "\"outcome\":\"cancelled\"");
    write(failed);
    write(lookalike);
    ASSERT_GT(fs::file_size(store.logPath(failed.result.id)), 100'000u);
    for (int i = 0; i < 2; ++i) write(FinishedRun());
    EXPECT_TRUE(fs::exists(store.logPath(failed.result.id))) << "the failed run is spared";
    EXPECT_FALSE(fs::exists(store.logPath(lookalike.result.id))) << "a name is not an outcome";
}

TEST(RunLogStoreTest, UnwritableFolderIsReportedNotThrown) {
    testing::TemporaryDirectory temp;
    temp.writeFile("blocker", "a file where the folder should be");
    std::vector<std::string> diagnostics;
    RunLogStore store(temp.path() / "blocker" / "Logs", 100, 50'000'000,
                      [&](const std::string& message) { diagnostics.push_back(message); });
    FinishedRun run;
    const auto error = store.write(run.input());
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), "run_log_failure");
    ASSERT_EQ(diagnostics.size(), 1u);
    EXPECT_TRUE(diagnostics[0].starts_with("Could not create log directory: "));
}

TEST(LogRecordTest, ValuesAreBareJsonAndNullIsRefused) {
    LogRecord record{"t", "action", {}};
    record.add("s", std::string("x"));
    record.add("i", std::int64_t{-3});
    record.add("d", 1.5);
    record.add("b", true);
    const std::string line = encodeLine(record);
    EXPECT_EQ(line, R"({"timestamp":"t","kind":"action","payload":{"s":"x","i":-3,"d":1.5,"b":true}})");
    EXPECT_EQ(decodeLine(line), record);
    EXPECT_STREQ(testing::thrownBy<DecodingError>([] {
                     (void)decodeLine(R"({"timestamp":"t","kind":"k","payload":{"v":null}})");
                 }).what(),
                 "Unsupported log value");
}

}  // namespace
}  // namespace varnel
