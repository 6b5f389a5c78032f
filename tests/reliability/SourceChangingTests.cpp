// A source file that changes while it is being copied: appended to, truncated,
// overwritten in place with its modification time set back, renamed over or deleted,
// each after the Nth block read, and written to by a real concurrent writer. A copy is
// committed only when the source's inode, size, modification and change time are the
// same after the copy as before it; otherwise the old destination file stays and the
// run warns.

#include "scan/RealFileSystem.hpp"
#include "support/ChildProcess.hpp"
#include "support/EngineHarness.hpp"
#include "transfer/CopyEngineFixture.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace varnel::testing {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kBlock = 4096;  // the copy engine's smallest block
constexpr int kBlocks = 16;

std::string version(char letter, std::size_t size = kBlock * kBlocks) { return std::string(size, letter); }

void setModificationTime(const fs::path& file, const timespec& when) {
    const timespec times[2] = {{0, UTIME_OMIT}, when};
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
}

timespec modificationTimeOf(const fs::path& file) {
    struct stat status {};
    ::stat(file.c_str(), &status);
    return status.st_mtim;
}

class SourceChangingDuringCopy : public CopyEngineFixture {
protected:
    void SetUp() override {
        // No clones: the data must really be read block by block.
        fileSystem = std::make_shared<FaultInjectingFileSystem>(std::make_shared<RealFileSystem>(false));
        CopyEngineFixture::SetUp();
        engine.copyChunkBytes = kBlock;
        engine.verificationMode = VerificationMode::none;
    }

    fs::path source() const { return temporary / "src/f.bin"; }
    fs::path destination() const { return temporary / "dst/f.bin"; }

    // Version A in the source, dated a while ago; an older file in the destination.
    void prepare() {
        writeTextFile(source(), version('A'));
        setModificationTime(source(), {1'600'000'000, 123'456'789});
        writeTextFile(destination(), "the old destination file");
    }

    // Copies the planned update, running `change` after the `afterBlock`th block read
    // (0: when the copy starts, once the engine has opened and checked the source).
    SyncError copyChangingAt(int afterBlock, const std::function<void()>& change) {
        const SyncAction action = planned(SyncActionType::replaceChangedFile, "f.bin");
        int blocks = 0;
        if (afterBlock == 0) fileSystem->atCall("sourceOpened", change);
        return syncErrorOf([&] {
            copy(action, [&](std::int64_t) {
                if (++blocks == afterBlock) change();
            });
        });
    }

    void expectOldDestinationAndNoLeftovers(const std::string& context) {
        EXPECT_TRUE(readTextFile(destination()) == "the old destination file") << context;
        EXPECT_TRUE(stagingItemsBelow(temporary / "dst").empty()) << context;
    }
};

TEST_F(SourceChangingDuringCopy, EveryKindOfChangeAtEveryReadKeepsTheOldFileAndSaysWhy) {
    struct Change {
        const char* name;
        std::function<void(const fs::path&)> apply;
        const char* detail;  // what the warning must say
    };
    const std::vector<Change> changes = {
        {"append",
         [](const fs::path& file) {
             const int fd = ::open(file.c_str(), O_WRONLY | O_APPEND);
             ASSERT_EQ(::write(fd, "more", 4), 4);
             ::close(fd);
         },
         "It was 65.5 KB when the plan was created and is now 65.5 KB."},
        {"truncate", [](const fs::path& file) { fs::resize_file(file, kBlock * 3); },
         "It was 65.5 KB when the plan was created and is now 12.3 KB."},
        {"same-size overwrite with the modification time set back",
         [](const fs::path& file) {
             const timespec before = modificationTimeOf(file);
             const int fd = ::open(file.c_str(), O_WRONLY);
             const std::string other = version('B');
             ASSERT_EQ(::pwrite(fd, other.data(), other.size(), 0), static_cast<ssize_t>(other.size()));
             ::close(fd);
             setModificationTime(file, before);
         },
         "It changed while it was being copied, so the copy was discarded."},
        {"rename over",
         [](const fs::path& file) {
             const fs::path other = file.parent_path() / "other.bin";
             writeTextFile(other, version('C'));
             setModificationTime(other, modificationTimeOf(file));
             fs::rename(other, file);
         },
         "It changed while it was being copied, so the copy was discarded."},
        {"delete", [](const fs::path& file) { fs::remove(file); }, "The file no longer exists in the source."},
    };
    for (const auto& change : changes) {
        for (const int afterBlock : {0, 1, kBlocks / 2, kBlocks}) {
            const std::string context = std::string(change.name) + " after read " + std::to_string(afterBlock);
            prepare();
            const SyncError error = copyChangingAt(afterBlock, [&] { change.apply(source()); });
            EXPECT_EQ(error.code(), "source_changed") << context << ": " << error.message();
            EXPECT_NE(error.message().find(change.detail), std::string::npos) << context << ": " << error.message();
            expectOldDestinationAndNoLeftovers(context);
        }
    }
}

TEST_F(SourceChangingDuringCopy, AChangeBetweenCopyAndVerificationIsAChangeNotAMismatch) {
    engine.verificationMode = VerificationMode::verifyCopiedFiles;
    prepare();
    const SyncAction action = planned(SyncActionType::replaceChangedFile, "f.bin");
    fileSystem->atCall("sha256", [&] {
        const timespec before = modificationTimeOf(source());
        writeTextFile(source(), version('B'));
        setModificationTime(source(), before);
    });
    const SyncError error = syncErrorOf([&] { copy(action); });
    EXPECT_EQ(error.code(), "source_changed") << error.message();
    expectOldDestinationAndNoLeftovers("change before verification");
}

// A writer rewrites the whole source again and again, each version one repeated byte,
// with short pauses, while the engine copies it over and over. A committed copy must
// hold one version only; copies that overlapped a write are discarded with a warning.
TEST_F(SourceChangingDuringCopy, ARealConcurrentWriterNeverLeavesAMixedCopy) {
    engine.copyChunkBytes = std::size_t{64} << 10;
    constexpr std::size_t kSize = std::size_t{4} << 20;
    writeTextFile(source(), std::string(kSize, 'a'));
    std::atomic<bool> stop{false};
    std::jthread writer([&] {
        const int fd = ::open(source().c_str(), O_WRONLY);
        std::string block(64 << 10, 'a');
        for (char value = 'b'; !stop; value = value == 'z' ? 'a' : static_cast<char>(value + 1)) {
            block.assign(block.size(), value);
            for (std::size_t offset = 0; offset < kSize && !stop; offset += block.size()) {
                (void)::pwrite(fd, block.data(), block.size(), static_cast<off_t>(offset));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
        ::close(fd);
    });

    int committed = 0;
    int discarded = 0;
    for (int attempt = 0; attempt < 60; ++attempt) {
        const SyncAction action = planned(SyncActionType::replaceChangedFile, "f.bin");
        try {
            copy(action);
        } catch (const SyncError& error) {
            ASSERT_EQ(error.code(), "source_changed") << error.message();
            ++discarded;
            continue;
        }
        ++committed;
        const std::string copied = readTextFile(destination());
        ASSERT_EQ(copied.size(), kSize);
        ASSERT_EQ(copied.find_first_not_of(copied.front()), std::string::npos)
            << "a committed copy mixes two versions of the source (attempt " << attempt << ")";
    }
    stop = true;
    writer.join();
    EXPECT_GT(discarded, 0) << "the writer never overlapped a copy: the test proved nothing";
    EXPECT_TRUE(stagingItemsBelow(temporary / "dst").empty());
    std::cout << "concurrent writer: " << committed << " copies committed, " << discarded << " discarded\n";
}

// Through the whole application: the run skips the file, keeps the old copy and warns.
TEST(SourceChangingDuringARun, TheRunKeepsTheOldFileAndWarns) {
    TemporaryDirectory work;
    EngineHarness harness(work / "app");
    const fs::path source = work / "src";
    const fs::path destination = work / "dst";
    writeTextFile(source / "report.txt", version('A', 100'000));
    writeTextFile(destination / "report.txt", "old");
    const Uuid id = harness.addProfile(source, destination, SyncMode::update);

    auto outcome = harness.application->analyze(id);
    harness.fileSystem->atCall("sourceOpened", [&] {  // rewritten once the copy has opened it
        const timespec before = modificationTimeOf(source / "report.txt");
        writeTextFile(source / "report.txt", version('B', 100'000));
        setModificationTime(source / "report.txt", before);
    });
    CancellationFlag flag;
    const SyncRunResult result = harness.synchronize(outcome, flag);
    EXPECT_EQ(result.outcome, SyncRunOutcome::completedWithWarnings);
    EXPECT_EQ(result.filesSkipped, 1);
    EXPECT_EQ(result.filesCopied + result.filesUpdated, 0);
    EXPECT_NE(messagesOf(result).find("“report.txt” changed after the plan was created. It changed while "
                                                "it was being copied, so the copy was discarded."),
              std::string::npos)
        << messagesOf(result);
    EXPECT_TRUE(readTextFile(destination / "report.txt") == "old");
}

}  // namespace
}  // namespace varnel::testing
