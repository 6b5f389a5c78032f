#include "transfer/StagingArea.hpp"

#include "scan/POSIXFileError.hpp"
#include "scan/RealFileSystem.hpp"
#include "support/FakeFileSystem.hpp"
#include "support/Shorthand.hpp"
#include "support/TemporaryDirectory.hpp"
#include "transfer/PartialFileNaming.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <vector>

namespace varnel::testing {
namespace {

namespace fs = std::filesystem;

const std::string uuidText = "5D1E0B7A-4C2F-4E8B-9A61-0F3B2C7D8E91";
const std::string taggedStagingName = ".report.pdf.varnelsync-partial-3f2a9c10-" + uuidText;
const std::string legacyStagingName = ".photo.jpg.dovrasync-partial-" + uuidText;
const std::string linkStagingName = ".link.varnelsync-partial-" + uuidText;

class StagingAreaTests : public ::testing::Test {
protected:
    StagingArea areaAt(const fs::path& root) const { return StagingArea{root.string(), fileSystem}; }

    TemporaryDirectory temporary;
    std::shared_ptr<FileSystemProviding> fileSystem = std::make_shared<RealFileSystem>();
};

TEST(StagingAreaDefaultRootTests, UsesAnAbsoluteTMPDIRElseTmp) {
    const auto environment = [](std::optional<std::string> tmpdir) {
        return [tmpdir](const std::string& name) { return name == "TMPDIR" ? tmpdir : std::nullopt; };
    };
    EXPECT_EQ(StagingArea::defaultRoot(environment("/var/tmp/user")), "/var/tmp/user/VarnelSync-Staging");
    EXPECT_EQ(StagingArea::defaultRoot(environment("/var/tmp/user/")), "/var/tmp/user/VarnelSync-Staging");
    EXPECT_EQ(StagingArea::defaultRoot(environment(std::nullopt)), "/tmp/VarnelSync-Staging");
    EXPECT_EQ(StagingArea::defaultRoot(environment("")), "/tmp/VarnelSync-Staging");
    EXPECT_EQ(StagingArea::defaultRoot(environment("relative/tmp")), "/tmp/VarnelSync-Staging");
}

TEST_F(StagingAreaTests, PrepareCreatesMissingAncestorsPrivately) {
    // Written unstandardised on purpose: the "." and the trailing "/" must not matter.
    const StagingArea area{temporary.string() + "/a/./b/VarnelSync-Staging/", fileSystem};
    const fs::path root = temporary / "a/b/VarnelSync-Staging";
    const auto temporaryMode = statOf(temporary.path()).st_mode;

    EXPECT_EQ(area.prepareRunFolder("3f2a9c10"), (root / "3f2a9c10").string());
    for (const fs::path& folder : {temporary / "a", temporary / "a/b", root, root / "3f2a9c10"}) {
        SCOPED_TRACE(folder);
        const auto info = statOf(folder);
        EXPECT_TRUE(S_ISDIR(info.st_mode));
        EXPECT_EQ(info.st_mode & 07777, 0700u);
    }
    // An existing ancestor is left as it was.
    EXPECT_EQ(statOf(temporary.path()).st_mode, temporaryMode);

    // A second run folder beside the first needs no new ancestors.
    EXPECT_EQ(area.prepareRunFolder("0badcafe"), (root / "0badcafe").string());
}

TEST_F(StagingAreaTests, PrepareRefusesExistingOrEscapingRunFolders) {
    const StagingArea area = areaAt(temporary / "VarnelSync-Staging");
    area.prepareRunFolder("3f2a9c10");
    const auto adopted = thrownBy<POSIXFileError>([&] { area.prepareRunFolder("3f2a9c10"); });
    EXPECT_EQ(adopted.errnoValue(), EEXIST);
    EXPECT_EQ(adopted.operation(), "mkdir");
    for (const std::string name : {"..", "a/b", ""}) {
        SCOPED_TRACE(name);
        EXPECT_THROW(area.prepareRunFolder(name), POSIXFileError);
    }
    EXPECT_FALSE(fs::exists(temporary / "VarnelSync-Staging/a"));
}

TEST_F(StagingAreaTests, SweepRemovesOnlyStagingFilesAndLinks) {
    const fs::path run = temporary / "Staging/3f2a9c10";
    temporary.writeFile("Staging/3f2a9c10/" + taggedStagingName, "partial");
    temporary.writeFile("Staging/3f2a9c10/" + legacyStagingName, "partial");
    temporary.writeFile("Staging/3f2a9c10/notes.txt", "keep");
    temporary.writeFile("Staging/3f2a9c10/.x.varnelsync-partial-not-a-uuid", "keep");
    temporary.writeFile("outside.txt", "keep");
    fs::create_symlink(temporary / "outside.txt", run / linkStagingName);
    const std::string folderLikeStagingFile = ".dir.varnelsync-partial-" + uuidText;
    temporary.writeFile("Staging/3f2a9c10/" + folderLikeStagingFile + "/" + taggedStagingName, "inside a folder");
    const std::string fifoName = ".pipe.varnelsync-partial-" + uuidText;
    ASSERT_EQ(::mkfifo((run / fifoName).c_str(), 0600), 0);

    const StagingArea area = areaAt(temporary / "Staging");
    EXPECT_EQ(area.sweep("3f2a9c10"), 3u);

    std::set<std::string> left;
    for (const auto& item : fs::directory_iterator(run)) left.insert(item.path().filename().string());
    EXPECT_EQ(left, (std::set<std::string>{"notes.txt", ".x.varnelsync-partial-not-a-uuid", folderLikeStagingFile,
                                           fifoName}));
    // Folders are not entered; the link's target is untouched.
    EXPECT_TRUE(fs::exists(run / folderLikeStagingFile / taggedStagingName));
    EXPECT_EQ(temporary.readFile("outside.txt"), "keep");

    // Missing folders and names that are not one component count nothing.
    EXPECT_EQ(area.sweep("missing"), 0u);
    EXPECT_EQ(area.sweep("3f2a9c10/" + folderLikeStagingFile), 0u);
    EXPECT_TRUE(fs::exists(run / folderLikeStagingFile / taggedStagingName));
}

TEST_F(StagingAreaTests, SweepRemovesTheFolderItEmptied) {
    temporary.writeFile("Staging/3f2a9c10/" + taggedStagingName, "partial");
    temporary.writeFile("Staging/3f2a9c10/" + legacyStagingName, "partial");
    const StagingArea area = areaAt(temporary / "Staging");

    EXPECT_EQ(area.sweep("3f2a9c10"), 2u);
    EXPECT_FALSE(fs::exists(temporary / "Staging/3f2a9c10"));
    EXPECT_TRUE(fs::exists(temporary / "Staging"));
}

TEST_F(StagingAreaTests, SweepAllExceptKeepsTheCurrentRunFolder) {
    for (const std::string folder : {"aaaaaaaa", "bbbbbbbb", "cccccccc"}) {
        temporary.writeFile("Staging/" + folder + "/" + taggedStagingName, "partial");
    }
    temporary.writeFile("Staging/cccccccc/keep.txt", "keep");
    const StagingArea area = areaAt(temporary / "Staging");

    EXPECT_EQ(area.sweepAllExcept("aaaaaaaa"), 2u);
    EXPECT_TRUE(fs::exists(temporary / "Staging/aaaaaaaa" / taggedStagingName));
    EXPECT_FALSE(fs::exists(temporary / "Staging/bbbbbbbb"));
    EXPECT_TRUE(fs::exists(temporary / "Staging/cccccccc/keep.txt"));
    EXPECT_FALSE(fs::exists(temporary / "Staging/cccccccc" / taggedStagingName));

    EXPECT_EQ(area.sweepAllExcept(std::nullopt), 1u);
    EXPECT_FALSE(fs::exists(temporary / "Staging/aaaaaaaa"));

    EXPECT_EQ(areaAt(temporary / "missing").sweepAllExcept(std::nullopt), 0u);
}

TEST_F(StagingAreaTests, PlantedLinksNeverLeadASweepOutside) {
    // An outside folder full of staging files, reachable through links in three places:
    // as a run folder, as the whole staging root, and as a run folder's parent path.
    for (const auto& name : {taggedStagingName, legacyStagingName}) {
        temporary.writeFile("outside/" + name, "precious");
        temporary.writeFile("outside/run/" + name, "precious");
    }
    fs::create_directories(temporary / "Staging");
    fs::create_symlink(temporary / "outside", temporary / "Staging/planted");
    fs::create_symlink(temporary / "outside", temporary / "LinkedStaging");

    const StagingArea area = areaAt(temporary / "Staging");
    EXPECT_EQ(area.sweep("planted"), 0u);
    EXPECT_EQ(area.sweepAllExcept(std::nullopt), 0u);
    const StagingArea linkedRoot = areaAt(temporary / "LinkedStaging");
    EXPECT_EQ(linkedRoot.sweep("run"), 0u);
    EXPECT_EQ(linkedRoot.sweepAllExcept(std::nullopt), 0u);

    for (const auto& name : {taggedStagingName, legacyStagingName}) {
        EXPECT_EQ(temporary.readFile("outside/" + name), "precious");
        EXPECT_EQ(temporary.readFile("outside/run/" + name), "precious");
    }
    EXPECT_TRUE(fs::is_symlink(temporary / "Staging/planted"));
}

TEST_F(StagingAreaTests, SameVolumeLooksAtTheNearestExistingAncestor) {
    const auto device = static_cast<std::uint64_t>(statOf(temporary.path()).st_dev);
    const StagingArea notYetCreated = areaAt(temporary / "not/yet/VarnelSync-Staging");
    EXPECT_TRUE(notYetCreated.isOnSameVolume(device));
    EXPECT_FALSE(notYetCreated.isOnSameVolume(device + 1));

    // A dangling link on the way has no canonical path: not usable, so not the same volume.
    fs::create_symlink(temporary / "nowhere", temporary / "dangling");
    EXPECT_FALSE(areaAt(temporary / "dangling/VarnelSync-Staging").isOnSameVolume(device));
}

// --- With the in-memory file system: injected failures and the order of calls -------

class StagingAreaFakeTests : public ::testing::Test {
protected:
    std::shared_ptr<FakeFileSystem> fake = std::make_shared<FakeFileSystem>();
    StagingArea area{"/tmp/user/VarnelSync-Staging", fake};
};

TEST_F(StagingAreaFakeTests, PrepareCreatesFromTheTopDownAndStopsAtTheFirstFailure) {
    fake->addDirectory("/tmp");
    EXPECT_EQ(area.prepareRunFolder("3f2a9c10"), "/tmp/user/VarnelSync-Staging/3f2a9c10");
    EXPECT_EQ(fake->changes(), (std::vector<std::string>{"mkdir /tmp/user", "mkdir /tmp/user/VarnelSync-Staging",
                                                         "mkdir /tmp/user/VarnelSync-Staging/3f2a9c10"}));
    EXPECT_EQ(fake->node("/tmp/user").permissions, 0700);
    EXPECT_EQ(fake->node("/tmp/user/VarnelSync-Staging/3f2a9c10").permissions, 0700);

    const StagingArea deeper{"/var/a/b/VarnelSync-Staging", fake};
    fake->clearChanges();
    fake->failNext("mkdir", EACCES, "/var/a/b");
    EXPECT_EQ(thrownBy<POSIXFileError>([&] { deeper.prepareRunFolder("3f2a9c10"); }),
              POSIXFileError(EACCES, "mkdir", "/var/a/b"));
    EXPECT_EQ(fake->changes(), (std::vector<std::string>{"mkdir /var", "mkdir /var/a"}));
}

TEST_F(StagingAreaFakeTests, SweepLeavesWhatItCannotReadAndIgnoresEveryFailure) {
    const std::string run = "/tmp/user/VarnelSync-Staging/3f2a9c10/";
    fake->addFile(run + taggedStagingName);
    fake->addFile(run + legacyStagingName);
    fake->addSpecial(run + linkStagingName, UnsupportedReason::socket);
    fake->failAlways("statx", EACCES, run + taggedStagingName);

    EXPECT_EQ(area.sweep("3f2a9c10"), 1u);
    EXPECT_NO_THROW(fake->node(run + taggedStagingName));
    EXPECT_NO_THROW(fake->node(run + linkStagingName));
    EXPECT_THROW(fake->node(run + legacyStagingName), std::logic_error);

    // A failed unlink or listing is neither counted nor raised, and nothing else goes.
    fake->clearFaults();
    fake->failNext("unlink", EBUSY);
    EXPECT_EQ(area.sweep("3f2a9c10"), 0u);
    fake->failNext("opendir", EIO, run.substr(0, run.size() - 1));
    EXPECT_EQ(area.sweepAllExcept(std::nullopt), 0u);
    fake->failNext("opendir", EIO, "/tmp/user/VarnelSync-Staging");
    EXPECT_EQ(area.sweepAllExcept(std::nullopt), 0u);
    EXPECT_NO_THROW(fake->node(run + taggedStagingName));

    // A failed rmdir of an emptied folder still reports what was removed.
    fake->addFile("/tmp/user/VarnelSync-Staging/0badcafe/" + taggedStagingName);
    fake->failNext("rmdir", EBUSY);
    EXPECT_EQ(area.sweep("0badcafe"), 1u);
    EXPECT_NO_THROW(fake->node("/tmp/user/VarnelSync-Staging/0badcafe"));
}

}  // namespace
}  // namespace varnel::testing
