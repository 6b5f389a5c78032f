// A killed process: the real varnel-sync program, killed with SIGKILL while a Mirror run
// takes the destination from generation 0 to generation 1, at seeded random moments and
// right after each named step of a file's commit. After every kill the destination holds
// only whole files of either generation and staging leftovers, each item taken out of
// the destination is in place or archived (never both, never neither), the source and
// the folder beside the destination are untouched; one plain rerun gives exactly
// generation 1 with no staging file left, and one more run copies nothing.
//
// VARNEL_TEST_SEED and VARNEL_KILL_TRIALS (default 200) change the random trials.

#include "common/TestHooks.hpp"
#include "support/CommandLineRunner.hpp"
#include "support/GenerationTree.hpp"
#include "support/MountSandbox.hpp"
#include "support/SyncChecker.hpp"
#include "support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <random>
#include <thread>

namespace varnel::testing {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// One work folder (a private tmpfs where mounts are allowed) holding both generations,
// the source (generation 1 bound read-only where possible), the destination, its
// generation 0 template, the sentinel folder and the program's TMPDIR.
class KilledProcessTests : public ::testing::Test {
protected:
    void SetUp() override {
        if (CommandLineRunner::binary().empty()) GTEST_SKIP() << CommandLineRunner::missingReason();
        work = temporary.path();
        if (MountSandbox::unavailableReason().empty()) {
            if (mounts.mountMemory(temporary / "work", "size=512m").empty()) work = temporary / "work";
        }
        tree.write(work / "gen0", 0);
        tree.write(work / "gen1", 1);
        fs::create_directories(work / "outside");
        std::ofstream(work / "outside/sentinel.txt") << "nothing may change here";
        fs::create_directories(destination());
        cli = std::make_unique<CommandLineRunner>(work / "tmp");

        // Generation 0 first, from its own copy of the source.
        useSource(0);
        profile = cli->addProfile("Crash", source(), destination(), {"--mode", "mirror", "--durability", "fast"});
        const auto first = sync();
        ASSERT_EQ(first.ended.exitCode, 0) << first.err;
        ASSERT_EQ(runProgram({"cp", "-a", destination().string(), (work / "template").string()}), 0);
        useSource(1);
        checker = std::make_unique<SyncChecker>(tree, source(), destination(), work / "outside");
    }

    fs::path source() const { return work / "source"; }
    fs::path destination() const { return work / "dst"; }

    // The source shows generation `generation`: read-only bound where mounts are allowed,
    // else a plain copy.
    void useSource(int generation) {
        const fs::path tree = work / ("gen" + std::to_string(generation));
        if (fs::exists(source()) && readOnlySource) {
            ASSERT_EQ(mounts.unmount(source()), "");
        }
        if (MountSandbox::unavailableReason().empty()) {
            ASSERT_EQ(mounts.bindReadOnly(tree, source()), "");
            readOnlySource = true;
        } else {
            fs::remove_all(source());
            ASSERT_EQ(runProgram({"cp", "-a", tree.string(), source().string()}), 0);
        }
    }

    CommandLineRunner::Finished sync(bool json = false) const {
        std::vector<std::string> arguments{"sync", profile, "--acknowledge-all", "--confirm", "ARCHIVE"};
        if (json) arguments.insert(arguments.begin(), "--json");
        return cli->run(arguments);
    }

    void resetDestination() {
        fs::remove_all(destination());
        ASSERT_EQ(runProgram({"cp", "-a", (work / "template").string(), destination().string()}), 0);
    }

    // After an interrupted run: the checker passes; one plain rerun gives generation 1
    // exactly with no staging file left; one more run copies nothing.
    void expectRecovery(const std::string& what) {
        const auto problems = checker->check(SyncChecker::Moment::interrupted);
        EXPECT_TRUE(problems.empty()) << what << " left:\n" << joined(problems);
        const auto rerun = sync();
        EXPECT_EQ(rerun.ended.exitCode, 0) << what << ": " << rerun.err;
        const auto after = checker->check(SyncChecker::Moment::complete);
        EXPECT_TRUE(after.empty()) << what << ", after the rerun:\n" << joined(after);
        const auto again = sync(true);
        ASSERT_EQ(again.ended.exitCode, 0) << what << ": " << again.err;
        const auto result = nlohmann::json::parse(again.out, nullptr, false);
        ASSERT_FALSE(result.is_discarded()) << again.out;
        for (const char* count : {"filesCopied", "filesUpdated", "symlinksWritten", "itemsArchived"}) {
            EXPECT_EQ(result.value(count, -1), 0) << what << ": the second rerun still had " << count;
        }
    }

    TemporaryDirectory temporary;
    MountSandbox mounts;
    GenerationTree tree{GenerationTree::Shape{2, 3, 9 << 20, true}};  // big.bin spans two copy blocks
    fs::path work;
    bool readOnlySource = false;
    std::unique_ptr<CommandLineRunner> cli;
    std::string profile;
    std::unique_ptr<SyncChecker> checker;
};

TEST_F(KilledProcessTests, KilledAtSeededRandomMomentsTheRunLeavesOnlyWholeFilesAndRecovers) {
    const long trials = environmentNumber("VARNEL_KILL_TRIALS", 200);
    const auto seed = static_cast<std::uint32_t>(environmentNumber("VARNEL_TEST_SEED", 20261122));
    std::mt19937 random(seed);

    // How long an uninterrupted run takes here (the quickest of three): the kills are
    // spread over it.
    auto fullRun = std::chrono::microseconds::max();
    for (int i = 0; i < 3; ++i) {
        resetDestination();
        const auto start = Clock::now();
        ASSERT_EQ(sync().ended.exitCode, 0);
        fullRun = std::min(fullRun, std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start));
    }
    std::uniform_int_distribution<std::int64_t> moment(0, fullRun.count());

    int killed = 0;
    int untouched = 0;
    for (long trial = 0; trial < trials && !HasFailure(); ++trial) {
        const auto delay = std::chrono::microseconds(moment(random));
        SCOPED_TRACE("seed " + std::to_string(seed) + ", trial " + std::to_string(trial) + ", kill after " +
                     std::to_string(delay.count()) + " µs of a " + std::to_string(fullRun.count()) + " µs run");
        resetDestination();
        const auto before = SyncChecker::snapshot(destination());
        ChildProcess run = cli->start({"sync", profile, "--acknowledge-all", "--confirm", "ARCHIVE"});
        std::this_thread::sleep_for(delay);
        run.kill();
        const auto ended = run.wait();
        if (ended.killed) {
            ++killed;
            if (SyncChecker::snapshot(destination()) == before) ++untouched;
        } else {
            EXPECT_EQ(ended.exitCode, 0) << readTextFile(cli->temporaryFolder() / "last-output.err");
        }
        expectRecovery("a kill after " + std::to_string(delay.count()) + " µs");
    }
    std::cout << "[ killed   ] " << killed << " of " << trials << " runs (seed " << seed << "), " << untouched
              << " before the destination changed; an uninterrupted run takes " << fullRun.count() << " µs\n";
}

// Right after each named step of the commit sequence, at the first arrival and at a
// later one (another file, or another block of the large file).
TEST_F(KilledProcessTests, KilledRightAfterEachNamedStepTheRunLeavesOnlyWholeFilesAndRecovers) {
    if (!testhooks::kCompiledIn) GTEST_SKIP() << "the engine was built without VARNEL_TEST_HOOKS";
    // Verification reaches the verify step; Durable makes the flush steps real ones.
    const auto edited = cli->run({"profile", "edit", profile, "--verify", "--durability", "durable"});
    ASSERT_EQ(edited.ended.exitCode, 0) << edited.err;
    for (const auto step : testhooks::kAllCommitSteps) {
        for (const int arrival : {1, 2, 7}) {
            const std::string name = std::string(testhooks::commitStepName(step)) + ":" + std::to_string(arrival);
            SCOPED_TRACE(name);
            if (step == testhooks::CommitStep::copyData && arrival > 1) continue;  // one large file, two blocks
            resetDestination();
            ChildProcess run =
                cli->start({"sync", profile, "--acknowledge-all", "--confirm", "ARCHIVE"}, {{"VARNEL_TEST_KILL_AT", name}});
            const auto ended = run.wait();
            EXPECT_TRUE(ended.killed) << "the run ended with " << ended.exitCode << " without reaching " << name
                                      << "\n" << readTextFile(cli->temporaryFolder() / "last-output.err");
            EXPECT_EQ(ended.signal, SIGKILL);
            expectRecovery("a kill at " + name);
            if (HasFailure()) return;
        }
    }
}

}  // namespace
}  // namespace varnel::testing
