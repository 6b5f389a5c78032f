#include "platform/LinuxVolumeQuery.hpp"
#include "platform/MountTable.hpp"
#include "scan/POSIXFileError.hpp"
#include "scan/RealFileSystem.hpp"
#include "support/ChildProcess.hpp"
#include "support/MountSandbox.hpp"
#include "support/Shorthand.hpp"
#include "support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
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

    const auto error = thrownBy<POSIXFileError>([&] { fs.volumeInfo(temp.string() + "/absent"); });
    EXPECT_EQ(error.operation(), "statfs");
    EXPECT_EQ(error.errnoValue(), ENOENT);
}

// --- Real file systems, mounted for the test -----------------------------------------------

class RealVolumeTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto why = MountSandbox::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
    }

    // Formats a sparse image of 320 MiB (xfs needs more than 300 MiB) and mounts it on a
    // folder of that name; "" with the reason in whyNot_ when that cannot be done here.
    std::string mountImage(const std::string& name, const std::vector<std::string>& mkfs) {
        const auto folder = temp_ / name;
        whyNot_ = mounts_.mountImage(temp_ / (name + ".img"), mkfs, 320 << 20, folder);
        return whyNot_.empty() ? folder.string() : "";
    }

    // What blkid reads from the image behind the folder of that name.
    std::string blkidUUID(const std::string& folder) {
        const auto image = folder + ".img";
        ChildProcess::exec({"/bin/sh", "-c", "blkid -p -s UUID -o value '" + image + "'"}, {}, temp_ / "blkid.out").wait();
        std::string text = readTextFile(temp_ / "blkid.out");
        while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
        std::transform(text.begin(), text.end(), text.begin(),
                       [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        return text;
    }

    TemporaryDirectory temp_;
    MountSandbox mounts_;  // undone before the folder goes
    RealFileSystem fs_;
    std::string whyNot_;
};

TEST_F(RealVolumeTest, TmpfsHasNoUUIDAndIsNamedAfterItsMountPoint) {
    const std::string folder = (temp_ / "my volume").string();
    ASSERT_EQ(mounts_.mountMemory(folder, "size=8m"), "");

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
    const auto folder = mountImage("ext4", {"mkfs.ext4", "-q", "-F", "-L", "VarnelExt"});
    if (folder.empty()) GTEST_SKIP() << whyNot_;
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
    const auto folder = mountImage("casefold", {"mkfs.ext4", "-q", "-F", "-O", "casefold"});
    if (folder.empty()) GTEST_SKIP() << "ext4 with casefold is unavailable (it needs CONFIG_UNICODE): " << whyNot_;
    const std::string folded = folder + "/folded";
    std::filesystem::create_directories(folded);
    if (runProgram({"chattr", "+F", folded}) != 0) GTEST_SKIP() << "chattr +F was refused";

    EXPECT_FALSE(fs_.volumeInfo(folded).identity.isCaseSensitive);
    EXPECT_TRUE(fs_.volumeInfo(folder).identity.isCaseSensitive);
}

TEST_F(RealVolumeTest, XfsClonesOnlyWithReflinkAndEachVolumeHasItsOwnUUID) {
    const auto withReflink = mountImage("xfs-reflink", {"mkfs.xfs", "-q", "-f", "-m", "reflink=1"});
    if (withReflink.empty()) GTEST_SKIP() << whyNot_;
    const auto without = mountImage("xfs-plain", {"mkfs.xfs", "-q", "-f", "-m", "reflink=0"});
    if (without.empty()) GTEST_SKIP() << whyNot_;

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
    const auto folder = mountImage("btrfs", {"mkfs.btrfs", "-q", "-f", "-L", "VarnelBtr"});
    if (folder.empty()) GTEST_SKIP() << whyNot_;
    // A subvolume has a device number of its own but belongs to the same volume.
    const bool haveSubvolume = runProgram({"btrfs", "subvolume", "create", folder + "/sub"}) == 0;

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
