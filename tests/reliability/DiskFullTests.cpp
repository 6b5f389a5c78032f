// A full disk: a destination that runs out of space or inodes in the middle of a run.
// The file that does not fit is reported, its staging file is gone, the old destination
// file is byte for byte as it was, the run ends completed with warnings (the command
// line exits 1), and a rerun once there is room completes.

#include "InjectedFaultFixture.hpp"

#include "support/CommandLineRunner.hpp"
#include "support/MountSandbox.hpp"

#include <sys/statvfs.h>

#include <cerrno>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace varnel::testing {
namespace {

namespace fs = std::filesystem;

class InjectedDiskFullTests : public InjectedFaultFixture {};

// ENOSPC at the Nth write, flush or rename fails that one file only. The run's first
// rename moves the type-changed item to the archive; the later ones commit files.
TEST_F(InjectedDiskFullTests, ENOSPCAtTheNthWriteFlushOrRenameFailsThatFileOnly) {
    struct Case {
        const char* step;
        int n;
        DurabilityMode mode;
        const char* code;
    };
    const Case cases[] = {
        {"write", 1, DurabilityMode::durable, "copy_failed"},
        {"write", 3, DurabilityMode::durable, "copy_failed"},
        {"write", 7, DurabilityMode::durable, "copy_failed"},
        {"flush", 1, DurabilityMode::durable, "file_fsync_failed"},
        {"flush", 5, DurabilityMode::durable, "file_fsync_failed"},
        {"rename", 2, DurabilityMode::fast, "atomic_replace_failed"},
        {"rename", 6, DurabilityMode::fast, "atomic_replace_failed"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.step) + " " + std::to_string(c.n));
        prepare(c.mode);
        if (std::string(c.step) == "write") {
            engine.fileSystem->atCall("copyFile", [&] { engine.fileSystem->failCopyWhenReached(1, ENOSPC); }, c.n);
        } else if (std::string(c.step) == "flush") {
            engine.flusher->failCall(FaultInjectingFlusher::file, ENOSPC, c.n);
        } else {
            engine.fileSystem->failCall("rename", ENOSPC, c.n);
        }
        expectOnlyOneItemFailed(engine.sync(profileID).result, c.code, ENOSPC);
        expectRerunCompletes();
    }
}

// Real small file systems, driven through the command-line program.
class RealDiskFullTests : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto why = MountSandbox::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
        if (CommandLineRunner::binary().empty()) GTEST_SKIP() << CommandLineRunner::missingReason();
        fs::create_directories(temporary / "src");
        cli = std::make_unique<CommandLineRunner>(temporary / "tmp");
    }

    static std::int64_t freeBytes(const fs::path& folder) {
        struct statvfs volume {};
        if (::statvfs(folder.c_str(), &volume) != 0) return -1;
        return static_cast<std::int64_t>(volume.f_bavail) * static_cast<std::int64_t>(volume.f_frsize);
    }

    // Fills the file system of `folder` until exactly `leave` bytes are free.
    static void fillLeaving(const fs::path& folder, std::int64_t leave) {
        const std::int64_t excess = freeBytes(folder) - leave;
        ASSERT_GE(excess, 0);
        std::ofstream(folder / "ballast", std::ios::binary) << std::string(static_cast<std::size_t>(excess), 'b');
        ASSERT_EQ(freeBytes(folder), leave);
    }

    // `--json sync` of the profile: its result, after checking the exit status.
    nlohmann::json sync(const std::string& id, int exitCode) const {
        const auto run = cli->run({"--json", "sync", id, "--acknowledge-all", "--confirm", "ARCHIVE"});
        EXPECT_EQ(run.ended.exitCode, exitCode) << run.err;
        const auto result = nlohmann::json::parse(run.out, nullptr, false);
        if (result.is_discarded()) throw std::runtime_error("no JSON result: " + run.out + run.err);
        return result;
    }

    // A run that completed with warnings after failing `path` alone for lack of space,
    // which still holds `old` and has no staging file beside it.
    static void expectOnlyFailedForSpace(const nlohmann::json& result, const fs::path& destination,
                                         const std::string& path, const std::string& old) {
        EXPECT_EQ(result.value("outcome", ""), "completedWithWarnings");
        ASSERT_EQ(result["errors"].size(), 1u) << result.dump(2);
        EXPECT_EQ(result["errors"][0].value("relativePath", ""), path);
        EXPECT_THAT(result["errors"][0].value("message", ""), ::testing::HasSubstr(std::strerror(ENOSPC)));
        EXPECT_EQ(readTextFile(destination / path), old);
        EXPECT_EQ(stagingItemsBelow(destination), std::vector<std::string>{});
    }

    TemporaryDirectory temporary;
    MountSandbox mounts;
    std::unique_ptr<CommandLineRunner> cli;
};

// The plan fits by bytes, but each small file takes a whole page of tmpfs: once the 40
// small new files are in, the 900 kB update no longer fits. All 41 are small files of
// one folder, which one worker copies in plan order, so the update always comes last.
TEST_F(RealDiskFullTests, ANearlyFullTmpfsFailsTheUpdateThatNoLongerFitsAndKeepsTheOldFile) {
    const fs::path destination = temporary / "dst";
    ASSERT_EQ(mounts.mountMemory(destination, "size=4m"), "");
    const std::string oldBig = GenerationTree::contents("zz-big.bin", 0, 800'000);
    const std::string newBig = GenerationTree::contents("zz-big.bin", 1, 900'000);
    std::ofstream(destination / "zz-big.bin", std::ios::binary) << oldBig;
    std::ofstream(temporary / "src/zz-big.bin", std::ios::binary) << newBig;
    for (int i = 0; i < 40; ++i) {
        const std::string name = fmt::format("a-{:02}.txt", i);
        std::ofstream(temporary / "src" / name, std::ios::binary) << GenerationTree::contents(name, 1, 100);
    }
    fillLeaving(destination, 221 * 4096);  // 905,216 bytes: just above the 904,000 to write

    const auto id = cli->addProfile("Full", temporary / "src", destination, {"--mode", "update", "--durability",
                                                                             "durable"});
    const auto result = sync(id, 1);
    EXPECT_EQ(result.value("filesCopied", 0), 40);
    expectOnlyFailedForSpace(result, destination, "zz-big.bin", oldBig);

    fs::remove(destination / "ballast");  // room again: the rerun completes
    sync(id, 0);
    EXPECT_EQ(readTextFile(destination / "zz-big.bin"), newBig);
}

// No inode left for a staging file: creating it fails, nothing was written anywhere.
TEST_F(RealDiskFullTests, ATmpfsWithoutFreeInodesFailsAtTheStagingFileAndKeepsTheOldFile) {
    const fs::path destination = temporary / "dst";
    ASSERT_EQ(mounts.mountMemory(destination, "size=4m,nr_inodes=8"), "");
    std::ofstream(destination / "report.txt") << "old report";
    std::ofstream(temporary / "src/report.txt") << "new report, longer";
    // Use up every inode left.
    for (int i = 0; i < 16; ++i) {
        std::ofstream ballast(destination / ("ballast-" + std::to_string(i)));
        if (!ballast) break;
    }
    ASSERT_FALSE(std::ofstream(destination / "one-more")) << "the tmpfs still has free inodes";

    const auto id = cli->addProfile("Inodes", temporary / "src", destination, {"--mode", "update"});
    const auto result = sync(id, 1);
    expectOnlyFailedForSpace(result, destination, "report.txt", "old report");
    EXPECT_EQ(result.at("errors").at(0).value("code", ""), "copy_failed");
}

}  // namespace
}  // namespace varnel::testing
