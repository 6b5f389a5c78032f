// A power cut: the destination file system is shut down in the middle of a Mirror run
// without flushing its journal (xfs through `xfs_io -x -c shutdown`, ext4 mounted with
// noauto_da_alloc through the EXT4_IOC_SHUTDOWN ioctl), which keeps exactly what had
// reached the device, as a power cut would. After remounting, in Durable and Maximum
// mode no file may be empty or torn: each is generation 0 or 1, whole. Running again
// gives generation 1 with no staging file left.
//
// The harness proves that it can see the bug it is looking for: with the staged file's
// flush skipped (VARNEL_TEST_SKIP_FILE_FLUSH), the same cut leaves renamed files whose
// data never reached the device, and the checker must report them.
//
// Without root or loop devices the same question is asked of a model of the crash:
// UnflushedWrites discards every write not yet flushed, keeping every rename.
//
// VARNEL_TEST_SEED and VARNEL_POWER_CUT_TRIALS (default 26 per file system and mode)
// change the trials.

#include "common/TestHooks.hpp"
#include "InjectedFaultFixture.hpp"
#include "support/CommandLineRunner.hpp"
#include "support/MountSandbox.hpp"
#include "support/UnflushedWrites.hpp"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <random>
#include <thread>

namespace varnel::testing {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

#ifndef EXT4_IOC_SHUTDOWN
#define EXT4_IOC_SHUTDOWN _IOR('X', 125, __u32)
#endif
constexpr __u32 kShutdownWithoutLogFlush = 0x2;  // EXT4_GOING_FLAGS_NOLOGFLUSH, XFS_FSOP_GOING_FLAGS_NOLOGFLUSH

struct FileSystemKind {
    std::string name;
    std::vector<std::string> mkfs;
    std::int64_t imageBytes;
    std::string mountOptions;
    bool viaXfsIo;  // shut down with xfs_io, else with the ioctl
};

const FileSystemKind kXfs{"xfs", {"mkfs.xfs", "-q", "-f"}, 320 << 20, "", true};
const FileSystemKind kExt4{"ext4", {"mkfs.ext4", "-q", "-F"}, 64 << 20, "noauto_da_alloc", false};

// Cuts the file system at `mountPoint` off as a power cut would: nothing more reaches the
// device, the journal is not flushed. "" or why it failed.
std::string cutPower(const FileSystemKind& kind, const fs::path& mountPoint) {
    if (kind.viaXfsIo) {
        return runProgram({"xfs_io", "-x", "-c", "shutdown", mountPoint.string()}) == 0 ? "" : "xfs_io shutdown failed";
    }
    const int fd = ::open(mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return "cannot open the mount point";
    __u32 flags = kShutdownWithoutLogFlush;
    const int done = ::ioctl(fd, EXT4_IOC_SHUTDOWN, &flags);
    const int error = errno;
    ::close(fd);
    return done == 0 ? "" : std::string("EXT4_IOC_SHUTDOWN failed: ") + std::strerror(error);
}

class PowerCutTests : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto why = MountSandbox::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
        if (CommandLineRunner::binary().empty()) GTEST_SKIP() << CommandLineRunner::missingReason();
        work = temporary / "work";
        ASSERT_EQ(mounts.mountMemory(work, "size=1g"), "");  // images too: flushes cost nothing
        tree.write(work / "gen0", 0);
        tree.write(work / "gen1", 1);
        ASSERT_EQ(mounts.bindReadOnly(work / "gen1", work / "source"), "");
        fs::create_directories(work / "outside");
        std::ofstream(work / "outside/sentinel.txt") << "nothing may change here";
        cli = std::make_unique<CommandLineRunner>(work / "tmp");
    }

    // Formats and mounts the destination; "" or why not (a reason to skip).
    std::string prepare(const FileSystemKind& kind, const std::string& durability) {
        if (kind.viaXfsIo && runProgram({"sh", "-c", "command -v xfs_io"}) != 0) {
            return "xfs_io is not installed (xfsprogs), so xfs cannot be shut down";
        }
        destination = work / kind.name;
        if (auto why = mounts.mountImage(work / (kind.name + ".img"), kind.mkfs, kind.imageBytes, destination,
                                         kind.mountOptions);
            !why.empty()) {
            return kind.name + ": " + why;
        }
        fs::create_directories(destination / "dst");
        // Generation 0 in a template beside, made by the program itself.
        fs::create_directories(work / "gen0-dst");
        const auto seed = cli->addProfile("Seed " + kind.name + durability, work / "gen0", work / "gen0-dst",
                                          {"--mode", "mirror"});
        if (cli->run({"sync", seed, "--acknowledge-all", "--confirm", "ARCHIVE"}).ended.exitCode != 0) {
            return "the generation 0 run failed";
        }
        profile = cli->addProfile("Power " + kind.name + durability, work / "source", destination / "dst",
                                  {"--mode", "mirror", "--durability", durability});
        checker = std::make_unique<SyncChecker>(tree, work / "source", destination / "dst", work / "outside");
        return "";
    }

    // The destination back to generation 0, all of it on the device.
    void resetDestination() {
        fs::remove_all(destination / "dst");
        ASSERT_EQ(runProgram({"cp", "-a", (work / "gen0-dst").string(), (destination / "dst").string()}), 0);
        const int fd = ::open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::syncfs(fd), 0);
        ::close(fd);
    }

    std::vector<std::string> syncArguments() const {
        return {"sync", profile, "--acknowledge-all", "--confirm", "ARCHIVE"};
    }

    // One run cut off after `delay`, then the file system mounted again. The checker's
    // findings after the remount.
    std::vector<std::string> cutRun(const FileSystemKind& kind, std::chrono::microseconds delay,
                                    const std::map<std::string, std::string>& environment = {}) {
        resetDestination();
        ChildProcess run = cli->start(syncArguments(), environment);
        std::this_thread::sleep_for(delay);
        const std::string cut = cutPower(kind, destination);
        EXPECT_EQ(cut, "");
        // Every call fails now; the program reports and ends. A stuck one is killed.
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        while (!run.poll() && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        if (!run.poll()) {
            ADD_FAILURE() << "the run did not end within 20 s of the power cut";
            run.kill();
        }
        run.wait();
        EXPECT_EQ(mounts.remount(destination), "");
        return checker->check(SyncChecker::Moment::interrupted);
    }

    void expectRerunCompletes(const std::string& what) {
        const auto rerun = cli->run(syncArguments());
        EXPECT_EQ(rerun.ended.exitCode, 0) << what << ": " << rerun.err;
        const auto after = checker->check(SyncChecker::Moment::complete);
        EXPECT_TRUE(after.empty()) << what << ", after the rerun:\n" << joined(after);
    }

    // How long an uninterrupted run takes on this file system (the quickest of three).
    std::chrono::microseconds fullRun() {
        auto quickest = std::chrono::microseconds::max();
        for (int i = 0; i < 3; ++i) {
            resetDestination();
            const auto start = Clock::now();
            EXPECT_EQ(cli->run(syncArguments()).ended.exitCode, 0);
            quickest = std::min(quickest, std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start));
        }
        return quickest;
    }

    void runTrials(const FileSystemKind& kind, const std::string& durability) {
        if (auto why = prepare(kind, durability); !why.empty()) GTEST_SKIP() << why;
        const long trials = environmentNumber("VARNEL_POWER_CUT_TRIALS", 26);
        const auto seed = static_cast<std::uint32_t>(environmentNumber("VARNEL_TEST_SEED", 20261122));
        std::mt19937 random(seed);
        const auto full = fullRun();
        std::uniform_int_distribution<std::int64_t> moment(0, full.count() * 12 / 10);
        int cutMidRun = 0;
        for (long trial = 0; trial < trials && !HasFailure(); ++trial) {
            const auto delay = std::chrono::microseconds(moment(random));
            if (delay < full) ++cutMidRun;
            const std::string what = kind.name + " " + durability + ", seed " + std::to_string(seed) + ", trial " +
                                     std::to_string(trial) + ", cut after " + std::to_string(delay.count()) +
                                     " µs of a " + std::to_string(full.count()) + " µs run";
            const auto problems = cutRun(kind, delay);
            EXPECT_TRUE(problems.empty()) << what << " left:\n" << joined(problems);
            expectRerunCompletes(what);
        }
        std::cout << "[ cut      ] " << kind.name << " " << durability << ": " << trials << " cuts (seed " << seed
                  << "), " << cutMidRun << " within the " << full.count() << " µs of an uninterrupted run\n";
    }

    // With the staged file's flush skipped, cuts late in the run must show damage. The
    // rerun is not asked to repair it: a file that kept its new size and date but lost its
    // data looks unchanged to the comparison, which is why Fast mode promises nothing
    // across a power cut.
    void expectTheSkippedFlushIsSeen(const FileSystemKind& kind, const std::string& whyTheKernelMayHideIt = "") {
        if (!testhooks::kCompiledIn) GTEST_SKIP() << "the engine was built without VARNEL_TEST_HOOKS";
        if (auto why = prepare(kind, "durable"); !why.empty()) GTEST_SKIP() << why;
        const auto full = fullRun();
        int damaged = 0;
        for (int trial = 0; trial < 4 && damaged == 0; ++trial) {
            // Late in the run or just after it: many files renamed, their data unflushed.
            const auto delay = full * (8 + trial) / 10;
            const auto problems = cutRun(kind, delay, {{"VARNEL_TEST_SKIP_FILE_FLUSH", "1"}});
            if (!problems.empty()) ++damaged;
        }
        if (damaged == 0 && !whyTheKernelMayHideIt.empty()) GTEST_SKIP() << whyTheKernelMayHideIt;
        EXPECT_GT(damaged, 0) << "no cut of a run without file flushes left an empty or torn file on " << kind.name
                              << ": the harness cannot see the bug it looks for";
    }

    TemporaryDirectory temporary;
    MountSandbox mounts;
    GenerationTree tree;
    fs::path work;
    fs::path destination;
    std::unique_ptr<CommandLineRunner> cli;
    std::string profile;
    std::unique_ptr<SyncChecker> checker;
};

TEST_F(PowerCutTests, XfsDurableKeepsEveryCommittedFileWhole) { runTrials(kXfs, "durable"); }
TEST_F(PowerCutTests, XfsMaximumKeepsEveryCommittedFileWhole) { runTrials(kXfs, "maximum"); }
TEST_F(PowerCutTests, Ext4DurableKeepsEveryCommittedFileWhole) { runTrials(kExt4, "durable"); }
TEST_F(PowerCutTests, Ext4MaximumKeepsEveryCommittedFileWhole) { runTrials(kExt4, "maximum"); }
TEST_F(PowerCutTests, XfsSeesTheDamageWhenTheFileFlushIsSkipped) {
    expectTheSkippedFlushIsSeen(kXfs, "xfs wrote the data anyway: setting a file's length beyond its on-disk length "
                                      "(the ftruncate that ends every copy) makes xfs write the data out first, so "
                                      "skipping the flush leaves no visible damage on xfs; the ext4 test proves the "
                                      "harness sees it");
}
TEST_F(PowerCutTests, Ext4SeesTheDamageWhenTheFileFlushIsSkipped) { expectTheSkippedFlushIsSeen(kExt4); }

// The model of a crash, anywhere: every write not yet flushed is lost, every rename kept.
class ModelledPowerCutTests : public InjectedFaultFixture {
protected:
    std::vector<std::string> crashAfterRun(DurabilityMode mode) {
        prepare(mode);
        auto writes = std::make_shared<UnflushedWrites>();
        engine.fileSystem->trackWrites(writes);
        engine.flusher->trackFlushes(writes);
        EXPECT_EQ(engine.sync(profileID).result.outcome, SyncRunOutcome::success);
        writes->simulateCrash();
        engine.fileSystem->trackWrites(nullptr);
        engine.flusher->trackFlushes(nullptr);
        return checker->check(SyncChecker::Moment::interrupted);
    }
};

TEST_F(ModelledPowerCutTests, DurableAndMaximumLoseNothingThatWasCommitted) {
    for (const auto mode : {DurabilityMode::durable, DurabilityMode::maximum}) {
        EXPECT_EQ(crashAfterRun(mode), std::vector<std::string>{}) << toString(mode);
        expectRerunCompletes();
    }
}

// What the model shows for Fast mode (and for a skipped flush) is the honest limit of
// the promise: files reported as copied may come back empty after a power cut.
TEST_F(ModelledPowerCutTests, FastModeAndASkippedFlushLoseCommittedData) {
    EXPECT_THAT(joined(crashAfterRun(DurabilityMode::fast)), ::testing::HasSubstr("empty"));
    if (testhooks::kCompiledIn) {
        testhooks::setSkipFileFlush(true);
        const auto problems = crashAfterRun(DurabilityMode::durable);
        testhooks::setSkipFileFlush(false);
        EXPECT_THAT(joined(problems), ::testing::HasSubstr("empty"));
    }
}

}  // namespace
}  // namespace varnel::testing
