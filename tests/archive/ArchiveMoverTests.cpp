#include "archive/ArchiveLayout.hpp"
#include "archive/ArchiveMover.hpp"
#include "archive/CopyEngineArchiveCopier.hpp"
#include "scan/RealFileSystem.hpp"
#include "support/FakeFileSystem.hpp"
#include "support/MountSandbox.hpp"
#include "support/Shorthand.hpp"
#include "support/TemporaryDirectory.hpp"
#include "transfer/FileFlushing.hpp"
#include "transfer/SyncError.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <iterator>
#include <optional>

namespace varnel::testing {
namespace {

namespace fs = std::filesystem;

const RelativePath kRun = rel(".VarnelSync-Archive/0F5C2A1E-7B3D-4C8E-9A10-5D2E8F7B6C41/2025-03-07-141502");

// The message of the SyncError the call throws, or "" when it does not throw.
std::string failureOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const SyncError& error) {
        return error.code() + ": " + error.message();
    }
    return "";
}

TEST(ArchiveMoverTest, ItemsKeepTheirRelativePathBelowTheRunFolder) {
    TemporaryDirectory destination;
    destination.writeFile("Projects/old/a.txt", "12345");
    destination.writeFile("Projects/old/b.txt", "b");
    destination.writeFile("Gone/deep/c.txt", "c");
    RealFileSystem fileSystem;
    const ArchiveMover mover(fileSystem);
    const EndpointRoot root = fileSystem.openRoot(destination.string());

    // Deepest first, as the plan orders archive moves: the folders are merged last.
    const auto moved = mover.move(root, rel("Projects/old/a.txt"), kRun);
    EXPECT_EQ(moved, (ArchiveMover::Result{rel(std::string(kRun.value()) + "/Projects/old/a.txt"), 5, false}));
    mover.move(root, rel("Projects/old/b.txt"), kRun);
    mover.move(root, rel("Projects/old"), kRun);
    mover.move(root, rel("Projects"), kRun);
    // A folder whose contents were not planned one by one goes in one rename.
    EXPECT_EQ(mover.move(root, rel("Gone"), kRun).bytesArchived, 0U);

    const fs::path archive = destination / std::string(kRun.value());
    EXPECT_EQ(destination.readFile(std::string(kRun.value()) + "/Projects/old/a.txt"), "12345");
    EXPECT_EQ(destination.readFile(std::string(kRun.value()) + "/Projects/old/b.txt"), "b");
    EXPECT_EQ(destination.readFile(std::string(kRun.value()) + "/Gone/deep/c.txt"), "c");
    EXPECT_FALSE(fs::exists(destination / "Projects"));
    EXPECT_FALSE(fs::exists(destination / "Gone"));

    // A second item at a place already taken in the same run folder: both stay.
    destination.writeFile("Projects/old/a.txt", "new");
    EXPECT_EQ(failureOf([&] { mover.move(root, rel("Projects/old/a.txt"), kRun); }),
              "archive_failed: Could not move “Projects/old/a.txt” to the archive folder. File exists");
    EXPECT_EQ(destination.readFile("Projects/old/a.txt"), "new");
    EXPECT_EQ(destination.readFile(std::string(kRun.value()) + "/Projects/old/a.txt"), "12345");

    EXPECT_NE(failureOf([&] { mover.move(root, rel(".VarnelSync-Archive"), kRun); }), "");
}

FileCopyEngine copyEngine(std::shared_ptr<FileSystemProviding> fileSystem) {
    FileCopyEngine engine;
    engine.fileSystem = std::move(fileSystem);
    engine.flusher = std::make_shared<NoOpFileFlusher>();
    engine.verificationMode = VerificationMode::verifyCopiedFiles;
    return engine;
}

TEST(ArchiveMoverTest, AnItemOnAnotherFileSystemIsCopiedThenRemoved) {
    if (const auto why = MountSandbox::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
    TemporaryDirectory destination;
    MountSandbox mounts;
    ASSERT_EQ(mounts.mountMemory(destination / "mnt", ""), "");
    destination.writeFile("mnt/sub/x.txt", "xx");
    destination.writeFile("mnt/sub/deeper/y.txt", "yyy");
    fs::create_symlink("x.txt", destination / "mnt/sub/link");

    const auto fileSystem = std::make_shared<RealFileSystem>();
    const ArchiveMover mover(*fileSystem, std::make_shared<CopyEngineArchiveCopier>(copyEngine(fileSystem)));
    const EndpointRoot root = fileSystem->openRoot(destination.string());
    const auto moved = mover.move(root, rel("mnt/sub/x.txt"), kRun);
    EXPECT_TRUE(moved.copiedAcrossDevices);
    EXPECT_EQ(moved.bytesArchived, 2U);
    EXPECT_FALSE(fs::exists(destination / "mnt/sub/x.txt"));

    // A folder there is recreated in the archive and emptied item by item.
    EXPECT_TRUE(mover.move(root, rel("mnt/sub"), kRun).copiedAcrossDevices);
    const std::string archived = std::string(kRun.value()) + "/mnt/sub/";
    EXPECT_EQ(destination.readFile(archived + "x.txt"), "xx");
    EXPECT_EQ(destination.readFile(archived + "deeper/y.txt"), "yyy");
    EXPECT_EQ(fs::read_symlink(destination / (archived + "link")), "x.txt");
    EXPECT_FALSE(fs::exists(destination / "mnt/sub"));
    EXPECT_EQ(std::distance(fs::directory_iterator(destination / archived), fs::directory_iterator{}), 3);
}

TEST(ArchiveMoverTest, AFailedCopyLeavesTheOriginalInPlace) {
    const auto fileSystem = std::make_shared<FakeFileSystem>();
    fileSystem->addFile("/dst/mnt/sub/x.txt", "xx");
    fileSystem->addFile("/dst/mnt/sub/y.txt", "yyy");
    VolumeInfo other;
    other.deviceID = 2;
    fileSystem->setVolume("/dst/mnt", other);  // another file system mounted inside the destination
    const EndpointRoot root = fileSystem->openRoot("/dst");
    const std::string archived = "/dst/" + std::string(kRun.value()) + "/mnt/sub/";

    const ArchiveMover mover(*fileSystem, std::make_shared<CopyEngineArchiveCopier>(copyEngine(fileSystem)));
    fileSystem->failNext("copy_file_range", ENOSPC);
    const std::string failure = failureOf([&] { mover.move(root, rel("mnt/sub"), kRun); });
    EXPECT_EQ(failure.rfind("archive_failed: Could not move “mnt/sub/x.txt” to the archive folder. Could not copy", 0),
              0U)
        << failure;
    EXPECT_EQ(fileSystem->contents("/dst/mnt/sub/x.txt"), "xx");
    EXPECT_EQ(fileSystem->contents("/dst/mnt/sub/y.txt"), "yyy");
    EXPECT_TRUE(fileSystem->listDirectory(fileSystem->openRoot(archived), RelativePath()).empty());  // no staging left

    // Without a copier the move fails with the system's message; nothing moves.
    const ArchiveMover withoutCopier(*fileSystem);
    EXPECT_EQ(failureOf([&] { withoutCopier.move(root, rel("mnt/sub/y.txt"), kRun); }),
              "archive_failed: Could not move “mnt/sub/y.txt” to the archive folder. Invalid cross-device link");

    // Removing the original fails after a complete copy: the item is in both places.
    fileSystem->failNext("unlink", EACCES, "/dst/mnt/sub/y.txt");
    EXPECT_EQ(failureOf([&] { mover.move(root, rel("mnt/sub/y.txt"), kRun); }),
              "archive_failed: Could not move “mnt/sub/y.txt” to the archive folder. It was copied to the archive "
              "folder, but the original could not be removed: Permission denied");
    EXPECT_EQ(fileSystem->contents("/dst/mnt/sub/y.txt"), "yyy");
    EXPECT_EQ(fileSystem->contents(archived + "y.txt"), "yyy");
}

TEST(ArchiveMoverTest, ArchiveFolderFailuresAndCancellation) {
    FakeFileSystem fileSystem;
    fileSystem.addFile("/dst/a.txt", "a");
    const ArchiveMover mover(fileSystem);
    const EndpointRoot root = fileSystem.openRoot("/dst");

    fileSystem.failNext("mkdir", EACCES);
    EXPECT_EQ(failureOf([&] { mover.move(root, rel("a.txt"), kRun); }),
              "archive_failed: Could not move “a.txt” to the archive folder. Could not create the archive folder: "
              "Permission denied");
    // A link planted in place of the archive root is never followed.
    fileSystem.addSymlink("/dst/.VarnelSync-Archive", "/elsewhere");
    EXPECT_EQ(failureOf([&] { mover.move(root, rel("a.txt"), kRun); }),
              "archive_failed: Could not move “a.txt” to the archive folder. Could not create the archive folder: "
              "Not a directory");

    std::stop_source stop;
    stop.request_stop();
    EXPECT_EQ(failureOf([&] { mover.move(root, rel("a.txt"), kRun, stop.get_token()); }),
              "cancelled: The synchronization was cancelled.");
    EXPECT_EQ(fileSystem.contents("/dst/a.txt"), "a");
    EXPECT_FALSE(fileSystem.existsAtPath("/elsewhere"));
}

}  // namespace
}  // namespace varnel::testing
