#include "platform/LinuxVolumeQuery.hpp"
#include "platform/MountTable.hpp"
#include "scan/POSIXFileError.hpp"
#include "scan/RealFileSystem.hpp"
#include "support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace varnel::testing {
namespace {

// --- The mount table and the rules by type ---------------------------------------------

TEST(MountTableTest, ParsesMountinfoWithEscapesAndOptionalFields) {
    const auto table = MountTable::parse(
        "27 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw,discard\n"
        "63 27 0:39 / /media/My\\040Disk rw,relatime shared:5 master:2 - tmpfs tmpfs rw\n"
        "garbage line\n"
        "64 27 7:0 /sub /mnt/data rw - xfs /dev/loop0 rw,inode64");
    ASSERT_EQ(table.entries().size(), 3u);
    const auto& media = table.entries()[1];
    EXPECT_EQ(media.mountID, 63u);
    EXPECT_EQ(media.parentID, 27u);
    EXPECT_EQ(media.mountPoint, "/media/My Disk");
    EXPECT_EQ(media.fileSystemType, "tmpfs");
    EXPECT_EQ(media.source, "tmpfs");
    const auto& data = table.entries()[2];
    EXPECT_EQ(data.root, "/sub");
    EXPECT_EQ(data.deviceMajor, 7u);
    EXPECT_EQ(data.deviceMinor, 0u);
    EXPECT_EQ(data.source, "/dev/loop0");
    ASSERT_NE(table.findByMountID(64), nullptr);
    EXPECT_EQ(table.findByMountID(64)->mountPoint, "/mnt/data");
    EXPECT_EQ(table.findByMountID(99), nullptr);
}

TEST(MountTableTest, FindsTheMountHoldingAPathOnWholeComponents) {
    const auto table = MountTable::parse(
        "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
        "2 1 8:2 / /mnt/a rw - ext4 /dev/sda2 rw\n"
        "3 1 0:50 / /mnt/a rw - tmpfs tmpfs rw\n");  // stacked on /mnt/a: covers it
    EXPECT_EQ(table.findContaining("/mnt/ab/x", 8, 1)->mountID, 1u);
    EXPECT_EQ(table.findContaining("/mnt/a/x", 0, 50)->mountID, 3u);
    EXPECT_EQ(table.findContaining("/mnt/a", 0, 50)->mountID, 3u);
    // No device matches (a btrfs subvolume has a device number of its own): longest wins.
    EXPECT_EQ(table.findContaining("/mnt/a/x", 0, 77)->mountID, 3u);
    // A device match beats a longer mount point of another device.
    EXPECT_EQ(table.findContaining("/mnt/a/x", 8, 2)->mountID, 2u);
}

TEST(VolumeRulesTest, UUIDsAreUpperCaseAndZeroMeansNone) {
    const std::array<std::uint8_t, 16> bytes{0x26, 0xe8, 0x61, 0xbf, 0x79, 0xf4, 0x40, 0xfe,
                                             0x88, 0x6b, 0xb2, 0xd8, 0x46, 0x7b, 0x24, 0x98};
    EXPECT_EQ(volume_rules::formatUUID(bytes.data(), 16), "26E861BF-79F4-40FE-886B-B2D8467B2498");
    const std::array<std::uint8_t, 16> zero{};
    EXPECT_EQ(volume_rules::formatUUID(zero.data(), 16), std::nullopt);
    EXPECT_EQ(volume_rules::formatUUID(bytes.data(), 8), std::nullopt);
    EXPECT_EQ(volume_rules::normalizeUUIDText("abcd-12ef"), "ABCD-12EF");
    EXPECT_EQ(volume_rules::normalizeUUIDText("0000-0000"), std::nullopt);
    EXPECT_EQ(volume_rules::normalizeUUIDText(""), std::nullopt);
    EXPECT_EQ(volume_rules::decodeUdevName("My\\x20Disk\\x2f2"), "My Disk/2");
    EXPECT_TRUE(volume_rules::namesAreCaseInsensitive("vfat"));
    EXPECT_FALSE(volume_rules::namesAreCaseInsensitive("ext4"));
    EXPECT_FALSE(volume_rules::keepsSubSecondTimestamps("vfat"));
    EXPECT_FALSE(volume_rules::keepsSubSecondTimestamps(""));
}

TEST(VolumeInfoTest, TheTemporaryFolderHasAConsistentVolume) {
    TemporaryDirectory temp;
    RealFileSystem fs;
    const auto info = fs.volumeInfo(temp.string());
    EXPECT_EQ(info.deviceID, fs.entryAtPath(temp.string()).deviceID);
    EXPECT_GT(info.availableBytes, 0);
    ASSERT_TRUE(info.identity.totalCapacity.has_value());
    EXPECT_GE(*info.identity.totalCapacity, info.availableBytes);
    ASSERT_TRUE(info.identity.mountPointPath.has_value());
    EXPECT_TRUE(mountPointContains(*info.identity.mountPointPath, fs.canonicalPath(temp.string())));
    EXPECT_FALSE(info.fileSystemType.empty());

    try {
        fs.volumeInfo(temp.string() + "/absent");
        ADD_FAILURE() << "a missing folder has no volume";
    } catch (const POSIXFileError& error) {
        EXPECT_EQ(error.operation(), "statfs");
        EXPECT_EQ(error.errnoValue(), ENOENT);
    }
}

// --- Real file systems, mounted for the test -----------------------------------------------

struct CommandResult {
    int status = -1;
    std::string output;
};

// Runs a program (no shell) and collects its standard output.
CommandResult run(const std::vector<std::string>& arguments) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) return {};
    const pid_t child = ::fork();
    if (child < 0) return {};
    if (child == 0) {
        ::dup2(pipeFds[1], STDOUT_FILENO);
        const int devNull = ::open("/dev/null", O_WRONLY);
        ::dup2(devNull, STDERR_FILENO);
        std::vector<char*> argv;
        for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(pipeFds[1]);
    CommandResult result;
    char buffer[4096];
    ssize_t count = 0;
    while ((count = ::read(pipeFds[0], buffer, sizeof buffer)) > 0 || (count < 0 && errno == EINTR)) {
        if (count > 0) result.output.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(pipeFds[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

bool haveProgram(const std::string& name) {
    return run({"sh", "-c", "command -v " + name}).status == 0;
}

std::string trimmed(std::string text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
    return text;
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

// Mounts tmpfs and loop-mounted images in a mount namespace of the test process's own,
// so nothing leaks into the machine's mounts even if the process dies; every mount is
// undone in TearDown (loop devices from "mount -o loop" detach with the unmount).
class RealVolumeTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (::geteuid() != 0) {
            skipReason() = "mounting file systems needs root";
        } else if (::unshare(CLONE_NEWNS) != 0) {
            skipReason() = std::string("no private mount namespace: ") + std::strerror(errno);
        } else if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            skipReason() = std::string("cannot make mounts private: ") + std::strerror(errno);
        }
    }
    static std::string& skipReason() {
        static std::string reason;
        return reason;
    }

    void SetUp() override {
        if (!skipReason().empty()) GTEST_SKIP() << skipReason();
    }

    void TearDown() override {
        for (auto it = mounted_.rbegin(); it != mounted_.rend(); ++it) {
            if (::umount2(it->c_str(), 0) != 0) ::umount2(it->c_str(), MNT_DETACH);
        }
    }

    // A folder to mount on; `name` may contain spaces.
    std::string mountPoint(const std::string& name) {
        const auto folder = temp_ / name;
        std::filesystem::create_directories(folder);
        return folder.string();
    }

    // Formats a sparse image of 320 MiB (xfs needs more than 300 MiB) and mounts it; returns the mount
    // point, or "" after a GTEST_SKIP-worthy reason in `whyNot`.
    std::string mountImage(const std::string& name, const std::vector<std::string>& mkfs, std::string& whyNot) {
        if (!haveProgram(mkfs.front())) {
            whyNot = mkfs.front() + " is not installed";
            return "";
        }
        const std::string image = (temp_ / (name + ".img")).string();
        const int fd = ::open(image.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const bool sized = fd >= 0 && ::ftruncate(fd, 320 << 20) == 0;
        if (fd >= 0) ::close(fd);
        if (!sized) {
            whyNot = "cannot create the image file";
            return "";
        }
        auto command = mkfs;
        command.push_back(image);
        if (run(command).status != 0) {
            whyNot = mkfs.front() + " failed";
            return "";
        }
        const std::string folder = mountPoint(name);
        if (run({"mount", "-o", "loop", image, folder}).status != 0) {
            whyNot = "cannot loop-mount an image (no loop devices, or the kernel lacks the file system)";
            return "";
        }
        mounted_.push_back(folder);
        images_[folder] = image;
        return folder;
    }

    std::string blkidUUID(const std::string& folder) {
        return upper(trimmed(run({"blkid", "-p", "-s", "UUID", "-o", "value", images_[folder]}).output));
    }

    TemporaryDirectory temp_;
    RealFileSystem fs_;
    std::vector<std::string> mounted_;
    std::map<std::string, std::string> images_;
};

TEST_F(RealVolumeTest, TmpfsHasNoUUIDAndIsNamedAfterItsMountPoint) {
    const std::string folder = mountPoint("my volume");
    ASSERT_EQ(::mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=8m"), 0) << std::strerror(errno);
    mounted_.push_back(folder);

    const auto info = fs_.volumeInfo(folder);
    EXPECT_EQ(info.fileSystemType, "tmpfs");
    EXPECT_EQ(info.identity.volumeUUID, std::nullopt);
    EXPECT_EQ(info.identity.volumeName, "my volume");
    EXPECT_EQ(info.identity.mountPointPath, std::filesystem::canonical(folder).string());
    EXPECT_EQ(info.identity.totalCapacity, 8 * 1024 * 1024);
    EXPECT_TRUE(info.identity.isCaseSensitive);
    EXPECT_TRUE(info.identity.supportsHighPrecisionTimestamps);
    EXPECT_FALSE(info.identity.supportsCloning);
    EXPECT_FALSE(info.identity.isRemovable);
    EXPECT_EQ(info.deviceID, fs_.entryAtPath(folder).deviceID);
    EXPECT_NE(info.deviceID, fs_.entryAtPath(temp_.string()).deviceID);
}

TEST_F(RealVolumeTest, Ext4HasItsUUIDAndLabelAndNoCloning) {
    std::string whyNot;
    const auto folder = mountImage("ext4", {"mkfs.ext4", "-q", "-F", "-L", "VarnelExt"}, whyNot);
    if (folder.empty()) GTEST_SKIP() << whyNot;
    std::filesystem::create_directories(std::filesystem::path(folder) / "inner");

    const auto info = fs_.volumeInfo(folder + "/inner");
    EXPECT_EQ(info.fileSystemType, "ext4");
    ASSERT_TRUE(info.identity.volumeUUID.has_value());
    EXPECT_EQ(*info.identity.volumeUUID, blkidUUID(folder));
    EXPECT_EQ(info.identity.volumeName, "VarnelExt");
    EXPECT_EQ(info.identity.mountPointPath, folder);
    EXPECT_FALSE(info.identity.supportsCloning);
    EXPECT_TRUE(info.identity.isCaseSensitive);
    EXPECT_TRUE(info.identity.supportsHighPrecisionTimestamps);
    EXPECT_FALSE(info.identity.isRemovable);  // a loop device
    EXPECT_GT(*info.identity.totalCapacity, 200'000'000);
    EXPECT_LE(*info.identity.totalCapacity, 320 << 20);
}

TEST_F(RealVolumeTest, Ext4CasefoldedFolderIsCaseInsensitive) {
    std::string whyNot;
    const auto folder = mountImage("casefold", {"mkfs.ext4", "-q", "-F", "-O", "casefold"}, whyNot);
    if (folder.empty()) GTEST_SKIP() << "ext4 with casefold is unavailable (it needs a kernel built with CONFIG_UNICODE): " << whyNot;
    const std::string folded = folder + "/folded";
    std::filesystem::create_directories(folded);
    if (run({"chattr", "+F", folded}).status != 0) GTEST_SKIP() << "chattr +F was refused";

    EXPECT_FALSE(fs_.volumeInfo(folded).identity.isCaseSensitive);
    EXPECT_TRUE(fs_.volumeInfo(folder).identity.isCaseSensitive);
}

TEST_F(RealVolumeTest, XfsClonesOnlyWithReflinkAndEachVolumeHasItsOwnUUID) {
    std::string whyNot;
    const auto withReflink = mountImage("xfs-reflink", {"mkfs.xfs", "-q", "-f", "-m", "reflink=1"}, whyNot);
    if (withReflink.empty()) GTEST_SKIP() << whyNot;
    const auto without = mountImage("xfs-plain", {"mkfs.xfs", "-q", "-f", "-m", "reflink=0"}, whyNot);
    if (without.empty()) GTEST_SKIP() << whyNot;

    const auto cloning = fs_.volumeInfo(withReflink);
    const auto plain = fs_.volumeInfo(without);
    EXPECT_EQ(cloning.fileSystemType, "xfs");
    EXPECT_TRUE(cloning.identity.supportsCloning);
    EXPECT_FALSE(plain.identity.supportsCloning);
    ASSERT_TRUE(cloning.identity.volumeUUID && plain.identity.volumeUUID);
    EXPECT_EQ(*cloning.identity.volumeUUID, blkidUUID(withReflink));
    EXPECT_EQ(*plain.identity.volumeUUID, blkidUUID(without));
    EXPECT_NE(*cloning.identity.volumeUUID, *plain.identity.volumeUUID);
    EXPECT_EQ(cloning.identity.volumeName, "xfs-reflink");  // no label: the mount point's name
}

TEST_F(RealVolumeTest, BtrfsClonesAndReportsItsFileSystemUUID) {
    std::string whyNot;
    const auto folder = mountImage("btrfs", {"mkfs.btrfs", "-q", "-f", "-L", "VarnelBtr"}, whyNot);
    if (folder.empty()) GTEST_SKIP() << whyNot;
    // A subvolume has a device number of its own but belongs to the same volume.
    const bool haveSubvolume = run({"btrfs", "subvolume", "create", folder + "/sub"}).status == 0;

    const auto info = fs_.volumeInfo(folder);
    EXPECT_EQ(info.fileSystemType, "btrfs");
    EXPECT_TRUE(info.identity.supportsCloning);
    ASSERT_TRUE(info.identity.volumeUUID.has_value());
    EXPECT_EQ(*info.identity.volumeUUID, blkidUUID(folder));
    EXPECT_EQ(info.identity.volumeName, "VarnelBtr");
    if (haveSubvolume) {
        const auto sub = fs_.volumeInfo(folder + "/sub");
        EXPECT_EQ(sub.identity.volumeUUID, info.identity.volumeUUID);
        EXPECT_EQ(sub.identity.mountPointPath, folder);
    }
}

}  // namespace
}  // namespace varnel::testing
