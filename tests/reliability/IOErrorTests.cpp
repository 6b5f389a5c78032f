// I/O errors: a read that fails, a flush that fails, a device that acknowledges writes it
// did not store. Whatever fails, the old destination file stays, the staging file goes,
// and a staging file whose flush failed is never flushed again or renamed: after a
// failed fsync the kernel may have dropped the unwritten pages and report success on a
// retry.

#include "InjectedFaultFixture.hpp"

#include "support/ChildProcess.hpp"
#include "support/MountSandbox.hpp"
#include "transfer/PartialFileNaming.hpp"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>

namespace varnel::testing {
namespace {

using ::testing::HasSubstr;
using FaultInjectingFlusherOp = FaultInjectingFlusher::Operation;

class IOErrorTests : public InjectedFaultFixture {};

// A read failing with EIO, of the source while copying or of the staged copy while
// verifying it: that file fails, nothing of it is committed.
TEST_F(IOErrorTests, AReadFailingWithEIOFailsThatFileOnly) {
    for (const int n : {1, 4}) {
        SCOPED_TRACE("read of copy " + std::to_string(n));
        prepare(DurabilityMode::durable);
        engine.fileSystem->atCall("copyFile", [&] {
            engine.fileSystem->failCopyWhenReached(1, EIO, FaultInjectingFileSystem::CopySide::source);
        }, n);
        expectOnlyOneItemFailed(engine.sync(profileID).result, "copy_failed", EIO);
        expectRerunCompletes();
    }
    SCOPED_TRACE("verification read");
    prepare(DurabilityMode::fast, VerificationMode::verifyCopiedFiles);
    engine.fileSystem->failCall("sha256", EIO, 3);
    expectOnlyOneItemFailed(engine.sync(profileID).result, "copy_failed", EIO);
    expectRerunCompletes();
}

// Durable (fdatasync) and Maximum (fsync) alike: the staging file whose flush failed is
// flushed once, never renamed, and removed; the next run stages the file afresh.
TEST_F(IOErrorTests, AFailedFlushIsNeverRetriedIntoSuccess) {
    const auto stagingNameOf = [](const std::string& call) { return call.substr(10, call.find(' ', 10) - 10); };
    for (const DurabilityMode mode : {DurabilityMode::durable, DurabilityMode::maximum}) {
        SCOPED_TRACE(std::string(toString(mode)));
        prepare(mode);
        const auto before = engine.flusher->calls().size();
        engine.flusher->failCall(FaultInjectingFlusherOp::file, EIO, 2);
        expectOnlyOneItemFailed(engine.sync(profileID).result,
                                mode == DurabilityMode::maximum ? "full_fsync_failed" : "file_fsync_failed", EIO);

        std::vector<std::string> staged;  // the staging names flushed by this run, in order
        const auto calls = engine.flusher->calls();
        for (auto i = before; i < calls.size(); ++i) {
            if (calls[i].rfind("flushFile ", 0) == 0) staged.push_back(stagingNameOf(calls[i]));
        }
        ASSERT_GE(staged.size(), 2u);
        const std::string failed = staged[1];
        EXPECT_TRUE(PartialFileNaming::isStagingName(failed));
        for (const auto& renamed : engine.fileSystem->callPaths("rename")) {
            EXPECT_THAT(renamed, ::testing::Not(HasSubstr(failed))) << "the staging file was renamed";
        }
        expectRerunCompletes();  // with a staging file of its own: the failed one is never flushed again
        int flushesOfFailed = 0;
        for (const auto& call : engine.flusher->calls()) {
            if (call.rfind("flushFile ", 0) == 0 && stagingNameOf(call) == failed) ++flushesOfFailed;
        }
        EXPECT_EQ(flushesOfFailed, 1);
    }
}

// After the rename the file is in place: a folder flush failing with EIO is a warning
// about durability, never an undo and never a failed file.
TEST_F(IOErrorTests, AFolderFlushFailingAfterTheRenameIsAWarningNotAnUndo) {
    prepare(DurabilityMode::durable);
    engine.flusher->failCall(FaultInjectingFlusherOp::directory, EIO, 1);
    const auto result = engine.sync(profileID).result;
    EXPECT_EQ(result.filesFailed, 0);
    EXPECT_TRUE(result.errors.empty());
    // The flush covered a run of small files of one folder: how many the copies had
    // gathered by then depends on timing, and each of them is uncertain.
    EXPECT_GE(result.durability.directoryFlushFailures, 1);
    EXPECT_EQ(result.durability.filesUncertainDurability, result.durability.directoryFlushFailures);
    EXPECT_EQ(result.outcome, SyncRunOutcome::completedWithWarnings);
    EXPECT_EQ(checker->check(SyncChecker::Moment::complete), std::vector<std::string>{});
}

// A device that acknowledges a write it did not store is caught by the size check
// before the flush in Durable mode; a short read taken for the end of the file during
// verification is a mismatch, not a success. Neither short copy is ever committed.
TEST_F(IOErrorTests, AWriteNotStoredOrAShortVerificationReadIsNeverCommitted) {
    struct Case {
        const char* what;
        DurabilityMode mode;
        VerificationMode verification;
        const char* call;
        std::function<void()> shorten;
        const char* code;
    };
    const Case cases[] = {
        {"write acknowledged but not stored", DurabilityMode::durable, VerificationMode::none, "copyFile",
         [&] { engine.fileSystem->shortenWrite(10); }, "staged_file_changed"},
        {"short verification read", DurabilityMode::fast, VerificationMode::verifyCopiedFiles, "sha256",
         [&] { engine.fileSystem->shortenRead(10); }, "verification_failed"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        prepare(c.mode, c.verification);
        engine.fileSystem->atCall(c.call, c.shorten, 2);
        const auto result = engine.sync(profileID).result;
        ASSERT_EQ(result.errors.size(), 1u);
        EXPECT_EQ(result.errors.front().code, c.code);
        EXPECT_EQ(notYetGenerationOne().size(), 1u);
        EXPECT_EQ(checker->check(SyncChecker::Moment::interrupted), std::vector<std::string>{});
        EXPECT_TRUE(checker->leftovers().empty());
        expectRerunCompletes();
    }
}

// A real failing device: an in-memory disk served by nbdkit with its error filter,
// exposed as a file by nbdfuse, attached to a loop device with direct I/O (so reads and
// writes reach the disk, not a cache in between) and formatted as ext4 without a journal
// (a journal write error would turn the whole file system read-only instead). While the
// file `failReads` or `failWrites` exists, every read or write of the disk fails with EIO.
class FailingDevice {
public:
    static std::string unavailableReason() {
        if (auto why = MountSandbox::unavailableReason(); !why.empty()) return why;
        for (const char* tool : {"nbdkit", "nbdfuse", "losetup", "mkfs.ext4"}) {
            if (!haveProgram(tool)) {
                return std::string(tool) + " is not installed (scripts/deps.sh installs nbdkit and libnbd-bin)";
            }
        }
        if (::access("/dev/fuse", R_OK | W_OK) != 0) return "no /dev/fuse here, so nbdfuse cannot serve the disk";
        return "";
    }

    explicit FailingDevice(const std::filesystem::path& work)
        : work_(work), failReads(work / "fail-reads"), failWrites(work / "fail-writes") {
        namespace fs = std::filesystem;
        fs::create_directories(work / "nbd");
        fs::create_directories(work / "disk");
        fuse_.emplace(ChildProcess::exec(
            {"/usr/bin/nbdfuse", (work / "nbd").string(), "--command", "nbdkit", "-s", "--exit-with-parent",
             "--filter=error", "memory", "64M", "error=EIO", "error-pread-rate=100%",
             "error-pread-file=" + failReads.string(), "error-pwrite-rate=100%",
             "error-pwrite-file=" + failWrites.string()},
            {}, work / "nbdfuse.log"));
        for (int i = 0; i < 100 && !fs::exists(work / "nbd/nbd"); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        if (!fs::exists(work / "nbd/nbd")) {
            fail("nbdfuse did not serve the disk");
            return;
        }
        ChildProcess attach = ChildProcess::exec({"/usr/sbin/losetup", "--direct-io=on", "-f", "--show",
                                                  (work / "nbd/nbd").string()},
                                                 {}, work / "losetup.out");
        if (attach.wait().exitCode != 0) {
            fail("losetup could not attach the disk");
            return;
        }
        loop_ = readTextFile(work / "losetup.out");
        while (!loop_.empty() && loop_.back() == '\n') loop_.pop_back();
        if (runProgram({"mkfs.ext4", "-q", "-F", "-O", "^has_journal", loop_}) != 0) {
            fail("mkfs.ext4 failed");
            return;
        }
        if (::mount(loop_.c_str(), (work / "disk").c_str(), "ext4", 0, "errors=continue") != 0) {
            fail(std::string("cannot mount the disk: ") + std::strerror(errno));
            return;
        }
        mounted_ = true;
    }

    ~FailingDevice() {
        namespace fs = std::filesystem;
        std::error_code ignored;
        fs::remove(failReads, ignored);
        fs::remove(failWrites, ignored);
        if (mounted_ && ::umount2((work_ / "disk").c_str(), 0) != 0) ::umount2((work_ / "disk").c_str(), MNT_DETACH);
        if (!loop_.empty()) runProgram({"losetup", "-d", loop_});
        if (fuse_) {
            ::umount2((work_ / "nbd").c_str(), MNT_DETACH);
            fuse_->kill(SIGTERM);
            fuse_->wait();
        }
    }

    const std::string& whyNot() const { return whyNot_; }
    std::filesystem::path disk() const { return work_ / "disk"; }

    // Drops the file's pages from the cache, so the next read goes to the disk.
    static void forget(const std::filesystem::path& file) {
        const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return;
        ::fdatasync(fd);
        ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
        ::close(fd);
    }

    std::filesystem::path work_;
    std::filesystem::path failReads;
    std::filesystem::path failWrites;

private:
    void fail(std::string why) { whyNot_ = std::move(why); }

    std::optional<ChildProcess> fuse_;
    std::string loop_;
    bool mounted_ = false;
    std::string whyNot_;
};

class FailingDeviceTests : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto why = FailingDevice::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
        device = std::make_unique<FailingDevice>(temporary / "device");
        if (!device->whyNot().empty()) GTEST_SKIP() << "no failing device: " << device->whyNot();
    }

    // Files a-0.txt … a-4.txt in `folder`, in version `version`.
    static std::string name(int i) { return "a-" + std::to_string(i) + ".txt"; }
    static std::string contents(int i, int version) { return GenerationTree::contents(name(i), version, 5000 + version); }
    static void writeFiles(const std::filesystem::path& folder, int version) {
        for (int i = 0; i < 5; ++i) writeTextFile(folder / name(i), contents(i, version));
    }
    // Read from the disk itself, past the cache, when `fromTheDisk`.
    static void expectFiles(const std::filesystem::path& folder, int version, bool fromTheDisk = false) {
        for (int i = 0; i < 5; ++i) {
            if (fromTheDisk) FailingDevice::forget(folder / name(i));
            EXPECT_EQ(readTextFile(folder / name(i)), contents(i, version)) << name(i);
        }
    }

    TemporaryDirectory temporary;
    std::unique_ptr<FailingDevice> device;
    EngineHarness engine{temporary / "app"};
};

TEST_F(FailingDeviceTests, ASourceDiskFailingReadsFailsTheFilesAndKeepsTheOldOnes) {
    writeFiles(device->disk() / "src", 1);
    writeFiles(temporary / "dst", 0);
    for (int i = 0; i < 5; ++i) FailingDevice::forget(device->disk() / "src" / name(i));
    const Uuid id = engine.addProfile(device->disk() / "src", temporary / "dst", SyncMode::update,
                                      DurabilityMode::durable);
    std::ofstream(device->failReads).flush();
    const auto result = engine.sync(id).result;
    std::filesystem::remove(device->failReads);
    EXPECT_EQ(result.outcome, SyncRunOutcome::completedWithWarnings);
    EXPECT_EQ(result.filesFailed, 5);
    for (const auto& error : result.errors) EXPECT_THAT(error.message, HasSubstr(std::strerror(EIO)));
    expectFiles(temporary / "dst", 0);
    EXPECT_EQ(stagingItemsBelow(temporary / "dst"), std::vector<std::string>{});
    EXPECT_EQ(engine.sync(id).result.outcome, SyncRunOutcome::success);
    expectFiles(temporary / "dst", 1);
}

// The kernel's fsync fails with EIO; the staging files are discarded, not renamed. After
// the disk recovers a rerun writes them afresh, and what is then on the disk (read past
// the cache) is the new version.
TEST_F(FailingDeviceTests, ADestinationDiskFailingWritesFailsTheFlushAndNeverRenames) {
    writeFiles(temporary / "src", 1);
    writeFiles(device->disk() / "dst", 0);
    const Uuid id = engine.addProfile(temporary / "src", device->disk() / "dst", SyncMode::update,
                                      DurabilityMode::durable);
    std::ofstream(device->failWrites).flush();
    const auto result = engine.sync(id).result;
    std::filesystem::remove(device->failWrites);
    EXPECT_EQ(result.filesFailed, 5);
    for (const auto& error : result.errors) {
        EXPECT_EQ(error.code, "file_fsync_failed") << error.message;
        EXPECT_THAT(error.message, HasSubstr(std::strerror(EIO)));
    }
    EXPECT_EQ(engine.fileSystem->callPaths("rename"), std::vector<std::string>{});
    expectFiles(device->disk() / "dst", 0);
    EXPECT_EQ(stagingItemsBelow(device->disk() / "dst"), std::vector<std::string>{});

    EXPECT_EQ(engine.sync(id).result.outcome, SyncRunOutcome::success);
    expectFiles(device->disk() / "dst", 1, true);
}

}  // namespace
}  // namespace varnel::testing
