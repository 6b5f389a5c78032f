#include "platform/WorkspaceVolumeMonitor.hpp"

#include "support/MountSandbox.hpp"
#include "support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <vector>

namespace varnel::testing {

namespace {

TEST(WorkspaceVolumeMonitorTest, VanishedMountsAreFoundByMountID) {
    const auto before = MountTable::parse(
        "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
        "20 1 7:0 / /media/Backup rw - ext4 /dev/loop0 rw\n"
        "21 1 0:40 / /media/My\\040Disk rw - vfat /dev/sdb1 rw\n"
        "22 20 0:41 / /media/Backup rw - tmpfs tmpfs rw\n");
    // The stacked tmpfs and the disk with a space in its name go; a new mount appears.
    const auto after = MountTable::parse(
        "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
        "20 1 7:0 / /media/Backup rw - ext4 /dev/loop0 rw\n"
        "30 1 7:1 / /media/New rw - ext4 /dev/loop1 rw\n");
    EXPECT_EQ(WorkspaceVolumeMonitor::vanishedMountPoints(before, after),
              (std::vector<std::string>{"/media/My Disk", "/media/Backup"}));
    EXPECT_TRUE(WorkspaceVolumeMonitor::vanishedMountPoints(after, after).empty());
}

// Collects what the monitor reports, for a test thread to wait on.
class Reports {
public:
    void add(const std::string& mountPoint) {
        {
            std::lock_guard guard(lock_);
            mountPoints_.push_back(mountPoint);
        }
        changed_.notify_all();
    }
    // What was reported once `count` reports arrived, or after a generous bound (a
    // failure, not a measurement: the monitor should answer within milliseconds).
    std::vector<std::string> waitFor(std::size_t count) {
        std::unique_lock guard(lock_);
        changed_.wait_for(guard, std::chrono::seconds(20), [&] { return mountPoints_.size() >= count; });
        return mountPoints_;
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> mountPoints_;
};

TEST(WorkspaceVolumeMonitorTest, ReportsALoopFileSystemBeingUnmounted) {
    if (auto why = MountSandbox::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
    TemporaryDirectory temp;
    MountSandbox mounts;
    const std::string root = std::filesystem::canonical(temp.path()).string();
    const std::string drive = root + "/Backup Drive";
    if (auto why = mounts.mountImage(root + "/drive.img", {"mkfs.ext4", "-q", "-F"}, 32 << 20, drive); !why.empty()) GTEST_SKIP() << why;

    Reports reports;
    WorkspaceVolumeMonitor monitor;
    monitor.startObserving([&](const std::string& mountPoint) { reports.add(mountPoint); });

    // A new mount is no news; its going is.
    ASSERT_EQ(mounts.mountMemory(root + "/scratch"), "");
    ASSERT_EQ(mounts.unmount(drive), "");
    EXPECT_EQ(reports.waitFor(1), std::vector<std::string>{drive});
    ASSERT_EQ(mounts.unmount(root + "/scratch"), "");
    EXPECT_EQ(reports.waitFor(2), (std::vector<std::string>{drive, root + "/scratch"}));

    monitor.stopObserving();
    monitor.stopObserving();  // harmless
}

TEST(WorkspaceVolumeMonitorTest, StopsFromOutsideAndFromInsideItsHandler) {
    // Nothing happens to the mount table here: stopping must wake the waiting thread
    // itself (the test would hang otherwise).
    {
        WorkspaceVolumeMonitor monitor;
        monitor.startObserving([](const std::string&) {});
        monitor.startObserving([](const std::string&) {});  // replaces the handler, one thread
        monitor.stopObserving();
        monitor.startObserving([](const std::string&) {});  // and can start again
    }                                                       // the destructor stops it

    if (auto why = MountSandbox::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
    TemporaryDirectory temp;
    MountSandbox mounts;
    const std::string folder = std::filesystem::canonical(temp.path()).string() + "/t";
    ASSERT_EQ(mounts.mountMemory(folder), "");

    // Shared with the handler: its thread, let go by the stop, may outlive this test.
    auto reports = std::make_shared<Reports>();
    WorkspaceVolumeMonitor monitor;
    monitor.startObserving([&monitor, reports](const std::string& mountPoint) {
        monitor.stopObserving();  // must not wait for its own thread
        reports->add(mountPoint);
    });
    ASSERT_EQ(mounts.unmount(folder), "");
    EXPECT_EQ(reports->waitFor(1), std::vector<std::string>{folder});
}

}  // namespace

}  // namespace varnel::testing
