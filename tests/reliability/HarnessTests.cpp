// The checker the recipes rely on must be able to fail: it reports each kind of damage
// they look for (a checker that passes everything would make them all vacuous).

#include "common/TestHooks.hpp"
#include "scan/RealFileSystem.hpp"
#include "support/ChildProcess.hpp"
#include "support/GenerationTree.hpp"
#include "support/SyncChecker.hpp"
#include "support/TemporaryDirectory.hpp"
#include "transfer/FileCopyEngine.hpp"
#include "transfer/PartialFileNaming.hpp"
#include "transfer/POSIXFileFlusher.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>

namespace varnel::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

class SyncCheckerTests : public ::testing::Test {
protected:
    void SetUp() override {
        tree.write(temporary / "src", 1);
        tree.write(temporary / "dst", 0);
        temporary.writeFile("outside/sentinel.txt", "do not touch");
        checker = std::make_unique<SyncChecker>(tree, temporary / "src", temporary / "dst", temporary / "outside");
    }

    std::vector<std::string> interrupted() const { return checker->check(SyncChecker::Moment::interrupted); }
    fs::path dst(const std::string& relative) const { return temporary / "dst" / relative; }
    fs::path archived(const std::string& relative) const {
        return temporary / "dst/.VarnelSync-Archive/8E3C2A10-0000-4000-8000-000000000001/2025-01-02-030405" /
               relative;
    }

    GenerationTree tree;
    TemporaryDirectory temporary;
    std::unique_ptr<SyncChecker> checker;
};

TEST_F(SyncCheckerTests, EitherGenerationPassesAfterAnInterruptionButOnlyGenerationOneWhenComplete) {
    EXPECT_EQ(interrupted(), std::vector<std::string>{});
    EXPECT_THAT(joined(checker->check(SyncChecker::Moment::complete)), HasSubstr("still holds generation 0"));

    // Half-way: some files of generation 1, one deleted file archived, a leftover.
    writeTextFile(dst("dir0/grow-0.bin"), tree.expectedContents("dir0/grow-0.bin", 1));
    fs::create_directories(archived("dir0"));
    fs::rename(dst("dir0/gone-0.txt"), archived("dir0/gone-0.txt"));
    writeTextFile(dst("dir0/" + PartialFileNaming::makeStagingName("edit-0.txt", std::nullopt)), "half");
    EXPECT_EQ(interrupted(), std::vector<std::string>{});
    EXPECT_EQ(checker->leftovers().size(), 1u);

    fs::remove_all(temporary / "dst");
    tree.write(temporary / "dst", 1);
    fs::create_directories(archived("dir0"));
    for (const auto& path : tree.archivedFiles()) {
        writeTextFile(archived(path), tree.expectedContents(path, 0));
    }
    EXPECT_EQ(checker->check(SyncChecker::Moment::complete), std::vector<std::string>{});
}

TEST_F(SyncCheckerTests, ReportsEmptyTornForeignMissingAndDoubledItems) {
    writeTextFile(dst("dir0/edit-0.txt"), "");
    const std::string mixed = tree.expectedContents("top.txt", 0).substr(0, 100) +
                              tree.expectedContents("top.txt", 1).substr(100);
    writeTextFile(dst("top.txt"), mixed);
    writeTextFile(dst("stray.txt"), "x");
    fs::remove(dst("olddir/x.txt"));                         // neither in place nor archived
    writeTextFile(archived("olddir/y.txt"), tree.expectedContents("olddir/y.txt", 0));  // both
    fs::create_directories(dst("dir1/" + PartialFileNaming::makeStagingName("a", std::nullopt)));
    const std::string problems = joined(interrupted());
    EXPECT_THAT(problems, HasSubstr("“dir0/edit-0.txt” is neither generation 0 nor generation 1: empty"));
    EXPECT_THAT(problems, HasSubstr("“top.txt” is neither generation 0 nor generation 1: torn"));
    EXPECT_THAT(problems, HasSubstr("“stray.txt” is a file that neither generation has there"));
    EXPECT_THAT(problems, HasSubstr("“olddir/x.txt” is neither in place nor in the archive"));
    EXPECT_THAT(problems, HasSubstr("“olddir/y.txt” is in 2 places"));
    EXPECT_THAT(problems, HasSubstr("is named like a staging file but is a folder"));
}

TEST_F(SyncCheckerTests, ReportsAnyChangeToTheSourceOrOutsideEvenOfCtimeAlone) {
    ::chmod((temporary / "src/top.txt").c_str(), 0644);  // same mode: only the ctime moves
    temporary.writeFile("outside/planted", "x");
    const std::string problems = joined(interrupted());
    EXPECT_THAT(problems, HasSubstr("source: “top.txt” changed"));
    EXPECT_THAT(problems, HasSubstr("outside the destination: “planted” appeared"));
}

// The test-only hook kills the process exactly where each step of a file's commit has
// just been done, which the disk shows: a staging file that is empty, partial, complete;
// then the new file in place.
TEST(CommitStepHookTests, KillsTheProcessRightAfterEachNamedStep) {
    if (!testhooks::kCompiledIn) GTEST_SKIP() << "the engine was built without VARNEL_TEST_HOOKS";
    using testhooks::CommitStep;
    const std::string old = "old contents";
    const std::string fresh = GenerationTree::contents("a.bin", 1, 300'000);
    for (const CommitStep step : testhooks::kAllCommitSteps) {
        SCOPED_TRACE(std::string(testhooks::commitStepName(step)));
        TemporaryDirectory temporary;
        temporary.writeFile("src/a.bin", fresh);
        temporary.writeFile("dst/a.bin", old);
        auto fileSystem = std::make_shared<RealFileSystem>(false);
        FileCopyEngine engine;
        engine.fileSystem = fileSystem;
        engine.flusher = std::make_shared<POSIXFileFlusher>(std::make_shared<SteadyMonotonicClock>());
        engine.verificationMode = VerificationMode::verifyCopiedFiles;
        engine.durabilityMode = DurabilityMode::durable;
        engine.sourceRoot = fileSystem->openRoot((temporary / "src").string());
        engine.destinationRoot = fileSystem->openRoot((temporary / "dst").string());
        engine.copyChunkBytes = 100'000;  // three blocks
        SyncAction action;
        action.type = SyncActionType::replaceChangedFile;
        action.relativePath = *RelativePath::fromString("a.bin");
        action.sourceEntry = SharedEntry(fileSystem->entry(engine.sourceRoot, action.relativePath));
        action.destinationEntry = SharedEntry(fileSystem->entry(engine.destinationRoot, action.relativePath));
        action.expectedBytes = action.sourceEntry->size;

        ChildProcess child = ChildProcess::fork([&] {
            testhooks::setKillAt(step);
            (void)engine.copyFile(action, {}, {});
            return 0;
        });
        const auto ended = child.wait();
        ASSERT_TRUE(ended.killed) << "exit code " << ended.exitCode;
        EXPECT_EQ(ended.signal, SIGKILL);

        std::vector<fs::path> staged;
        for (const auto& item : fs::directory_iterator(temporary / "dst")) {
            if (PartialFileNaming::isStagingName(item.path().filename().string())) staged.push_back(item.path());
        }
        const bool committed = step == CommitStep::rename || step == CommitStep::flushFolder;
        EXPECT_EQ(temporary.readFile("dst/a.bin"), committed ? fresh : old);
        ASSERT_EQ(staged.size(), committed ? 0u : 1u);
        if (committed) continue;
        const std::string stagedBytes = readTextFile(staged.front());
        switch (step) {
            case CommitStep::createStaging: EXPECT_EQ(stagedBytes.size(), 0u); break;
            case CommitStep::copyData: EXPECT_EQ(stagedBytes, fresh.substr(0, 100'000)); break;
            default: EXPECT_EQ(stagedBytes, fresh); break;
        }
    }
}

}  // namespace
}  // namespace varnel::testing
