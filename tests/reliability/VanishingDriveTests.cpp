// The destination drive vanishes in the middle of a run: shut down (every call then
// fails with EIO, while the drive stays in the mount table), its FUSE process killed
// (ENOTCONN, still mounted), or lazily unmounted (gone from the mount table, alive for
// whoever holds it open). Each time the run stops within seconds with volumeDisappeared,
// nothing lands in the folder underneath the mount point (a read-only trap with a
// sentinel, so a stray write fails loudly), and after remounting a rerun completes.

#include "support/ChildProcess.hpp"
#include "support/EngineHarness.hpp"
#include "support/MountSandbox.hpp"
#include "support/Shorthand.hpp"
#include "support/SyncChecker.hpp"
#include "support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <optional>
#include <thread>

namespace varnel::testing {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// FS_IOC_SHUTDOWN (xfs calls it XFS_IOC_GOINGDOWN, ext4 EXT4_IOC_SHUTDOWN), flushing
// nothing more: as if the drive were pulled.
constexpr unsigned long kShutdown = _IOR('X', 125, std::uint32_t);
constexpr std::uint32_t kShutdownNoLogFlush = 2;

// Progress reaches the test at most every quarter of a second, so the run must last well
// beyond that for the drive to vanish mid-run: a Durable run of 600 such files on a loop
// drive took about that long once its folders were flushed once per run of files.
constexpr int kFiles = 2400;
constexpr int kTriggerAfterFiles = 10;

std::string contentsOf(int index) {
    std::string text = "file " + std::to_string(index) + "\n";
    while (text.size() < 12'000) text += text;
    return text;
}

class VanishingDrive : public ::testing::Test {
protected:
    void SetUp() override {
        if (const auto why = MountSandbox::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
        for (int i = 0; i < kFiles; ++i) {
            writeTextFile(source() / ("folder" + std::to_string(i % 6)) / ("f" + std::to_string(i)), contentsOf(i));
        }
        // The trap: the folder underneath the mount point holds a sentinel and is
        // read-only, so anything the engine wrote through a path after the drive went
        // would fail and show up in the run's errors.
        writeTextFile(mountPoint() / "underneath.txt", "sentinel");
        ASSERT_EQ(mounts.bindReadOnly(mountPoint(), mountPoint()), "");
        trapBefore = treeState(mountPoint(), true);
        harness = std::make_unique<EngineHarness>(work / "app", true);  // with the real mount-table monitor
    }

    fs::path source() const { return work / "src"; }
    fs::path mountPoint() const { return work / "drive"; }
    fs::path destination() const { return mountPoint() / "Backup"; }

    Uuid addProfile() {
        fs::create_directories(destination());
        return harness->addProfile(source(), destination(), SyncMode::update, DurabilityMode::durable);
    }

    struct Interrupted {
        SyncRunResult result;
        std::optional<SyncError> stopReason;
        double secondsAfterTrigger = -1;  // from the vanishing to the end of the run
    };

    // Analyses and synchronises, running `vanish` once some files are copied.
    Interrupted runAndVanish(const Uuid& id, const std::function<void()>& vanish) {
        auto outcome = harness->application->analyze(id);
        CancellationFlag flag;
        std::atomic<bool> fired{false};
        Clock::time_point firedAt{};
        const auto onProgress = [&](const TransferProgress& progress) {
            if (progress.filesCompleted >= kTriggerAfterFiles && !fired.exchange(true)) {
                vanish();
                firedAt = Clock::now();
            }
        };
        Interrupted interrupted;
        interrupted.result = harness->synchronize(outcome, flag, onProgress);
        interrupted.stopReason = flag.reason();
        if (fired) interrupted.secondsAfterTrigger = std::chrono::duration<double>(Clock::now() - firedAt).count();
        return interrupted;
    }

    // When the vanished drive can itself answer EROFS (a shut-down ext4 turns read-only),
    // that errno says nothing about the trap; its tree is still compared afterwards.
    void expectStoppedForTheDestination(const Interrupted& run, bool driveMayAnswerEROFS = false) {
        ASSERT_GE(run.secondsAfterTrigger, 0) << "the run ended before the drive could vanish";
        ASSERT_TRUE(run.stopReason.has_value()) << "the run went on to the end:\n" << messagesOf(run.result);
        EXPECT_EQ(run.stopReason->code(), "volume_disappeared") << run.stopReason->message();
        const auto* gone = run.stopReason->as<SyncError::VolumeDisappeared>();
        ASSERT_NE(gone, nullptr);
        EXPECT_EQ(gone->role, EndpointRole::destination);
        EXPECT_EQ(run.result.outcome, SyncRunOutcome::failed);
        EXPECT_LT(run.secondsAfterTrigger, 10.0) << "the run did not stop within seconds";
        EXPECT_LT(run.result.filesCopied, kFiles);
        // A write that reached the read-only folder underneath fails with EROFS.
        if (!driveMayAnswerEROFS) {
            EXPECT_EQ(messagesOf(run.result).find(std::strerror(EROFS)), std::string::npos)
                << messagesOf(run.result);
        }
    }

    // With the drive gone from the mount point, the folder underneath is as it was.
    void expectTrapUntouched() {
        ASSERT_FALSE(fs::exists(mountPoint() / "Backup")) << "the drive is still mounted";
        EXPECT_EQ(treeState(mountPoint(), true), trapBefore);
    }

    // A rerun on the remounted drive completes: every source file is in place, and
    // anything else there is a staging file left by the interrupted run.
    void expectRerunCompletes(const Uuid& id) {
        const SyncRunResult rerun = harness->sync(id).result;
        EXPECT_NE(rerun.outcome, SyncRunOutcome::failed) << messagesOf(rerun);
        EXPECT_EQ(rerun.filesFailed, 0) << messagesOf(rerun);
        EXPECT_GT(rerun.filesCopied, 0);
        int matching = 0;
        for (int i = 0; i < kFiles; ++i) {
            const fs::path relative = fs::path("folder" + std::to_string(i % 6)) / ("f" + std::to_string(i));
            if (readTextFile(destination() / relative) == contentsOf(i)) ++matching;
        }
        EXPECT_EQ(matching, kFiles);
        const SyncRunResult again = harness->sync(id).result;
        EXPECT_EQ(again.filesCopied + again.filesUpdated, 0) << messagesOf(again);
    }

    // Waits until a lazily unmounted image's loop device is gone, so mounting the image
    // again never has it mounted twice.
    void waitForLoopRelease(const fs::path& image) {
        for (int i = 0; i < 200; ++i) {
            if (runProgram({"sh", "-c", "losetup -j '" + image.string() + "' | grep -q ."}) != 0) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        FAIL() << "the detached file system was never released";
    }

    TemporaryDirectory work;
    MountSandbox mounts;
    std::map<std::string, std::string> trapBefore;
    std::unique_ptr<EngineHarness> harness;
};

class ShutDownDrive : public VanishingDrive, public ::testing::WithParamInterface<const char*> {};

TEST_P(ShutDownDrive, StopsTheRunWritesNothingUnderneathAndARerunCompletes) {
    const std::string type = GetParam();
    const auto mkfs = type == "xfs" ? std::vector<std::string>{"mkfs.xfs", "-q", "-f"}
                                    : std::vector<std::string>{"mkfs.ext4", "-q", "-F"};
    if (const auto why = mounts.mountImage(work / (type + ".img"), mkfs, 320 << 20, mountPoint()); !why.empty()) {
        GTEST_SKIP() << why;
    }
    const Uuid id = addProfile();

    const auto run = runAndVanish(id, [&] {
        const int fd = ::open(mountPoint().c_str(), O_RDONLY | O_DIRECTORY);
        std::uint32_t flags = kShutdownNoLogFlush;
        ASSERT_EQ(::ioctl(fd, kShutdown, &flags), 0) << std::strerror(errno);
        ::close(fd);
    });
    expectStoppedForTheDestination(run, type == "ext4");

    ASSERT_EQ(mounts.unmount(mountPoint()), "");
    expectTrapUntouched();
    ASSERT_EQ(mounts.remount(mountPoint()), "");
    expectRerunCompletes(id);
}

INSTANTIATE_TEST_SUITE_P(Types, ShutDownDrive, ::testing::Values("ext4", "xfs"));

TEST_F(VanishingDrive, AKilledFuseProcessStopsTheRunAndARerunCompletes) {
    const fs::path backing = work / "fuse-backing";
    fs::create_directories(backing);
    pid_t bindfs = -1;
    if (const auto why = mounts.mountFuse({"bindfs", "-f", "-o", "nonempty", backing.string(), mountPoint().string()}, mountPoint(),
                                          bindfs);
        !why.empty()) {
        GTEST_SKIP() << "no FUSE destination: " << why;
    }
    const Uuid id = addProfile();

    const auto run = runAndVanish(id, [&] { ::kill(bindfs, SIGKILL); });
    expectStoppedForTheDestination(run);

    ::waitpid(bindfs, nullptr, 0);
    ASSERT_EQ(mounts.unmount(mountPoint()), "");
    expectTrapUntouched();
    pid_t again = -1;
    ASSERT_EQ(mounts.mountFuse({"bindfs", "-f", "-o", "nonempty", backing.string(), mountPoint().string()}, mountPoint(), again), "");
    expectRerunCompletes(id);
}

TEST_F(VanishingDrive, ALazyUnmountStopsTheRunWhileItsWritesStayOnTheDetachedDrive) {
    const fs::path image = work / "ext4.img";
    if (const auto why = mounts.mountImage(image, {"mkfs.ext4", "-q", "-F"}, 64 << 20, mountPoint()); !why.empty()) {
        GTEST_SKIP() << why;
    }
    const Uuid id = addProfile();

    const auto run = runAndVanish(id, [&] { ASSERT_EQ(mounts.detach(mountPoint()), ""); });
    expectStoppedForTheDestination(run);
    expectTrapUntouched();

    // What was copied before the stop went to the drive, which the run held open.
    waitForLoopRelease(image);
    ASSERT_EQ(mounts.remount(mountPoint()), "");
    int landed = 0;
    for (int i = 0; i < kFiles; ++i) {
        const fs::path relative = fs::path("folder" + std::to_string(i % 6)) / ("f" + std::to_string(i));
        if (fs::exists(destination() / relative)) ++landed;
    }
    EXPECT_GE(landed, kTriggerAfterFiles);
    expectRerunCompletes(id);
}

TEST_F(VanishingDrive, ADriveUnmountedAfterTheAnalysisIsNeverWrittenThrough) {
    const fs::path image = work / "ext4.img";
    if (const auto why = mounts.mountImage(image, {"mkfs.ext4", "-q", "-F"}, 64 << 20, mountPoint()); !why.empty()) {
        GTEST_SKIP() << why;
    }
    const Uuid id = addProfile();
    auto outcome = harness->application->analyze(id);
    // The folder that now answers at the destination's path is on another device.
    ASSERT_EQ(mounts.detach(mountPoint()), "");
    fs::create_directories(work / "other");
    writeTextFile(work / "other" / "Backup" / "keep.txt", "another drive's folder");
    ASSERT_EQ(::mount((work / "other").c_str(), mountPoint().c_str(), nullptr, MS_BIND, nullptr), 0);
    const auto otherBefore = treeState(work / "other", true);

    CancellationFlag flag;
    EXPECT_EQ(thrownBy<SyncError>([&] { (void)harness->synchronize(outcome, flag); }).code(), "volume_disappeared")
        << "the run must not write to a folder on another device";
    EXPECT_EQ(treeState(work / "other", true), otherBefore);
    ASSERT_EQ(::umount2(mountPoint().c_str(), 0), 0);
    expectTrapUntouched();
}

}  // namespace
}  // namespace varnel::testing
