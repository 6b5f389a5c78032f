#include "common/MonotonicClock.hpp"
#include "scan/RealFileSystem.hpp"
#include "support/FakeFileSystem.hpp"
#include "support/Shorthand.hpp"
#include "support/TemporaryDirectory.hpp"
#include "transfer/DurabilityOutcome.hpp"
#include "transfer/DurabilitySummary.hpp"
#include "transfer/POSIXFileFlusher.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace varnel::testing {
namespace {

namespace fs = std::filesystem;

const auto durabilityErrorOf = thrownBy<DurabilityError>;

std::size_t openDescriptorCount() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& item : fs::directory_iterator("/proc/self/fd")) ++count;
    return count;
}

// Plays the storage: records each flush call, takes 3 ms of the manual clock, and
// answers with the errno queued for that kind of call (0 = success).
class ScriptedStorage {
public:
    std::shared_ptr<ManualMonotonicClock> clock = std::make_shared<ManualMonotonicClock>();
    std::vector<std::string> calls;
    std::vector<int> fullFlushAnswers;  // consumed front to back; success once empty
    std::vector<int> dataFlushAnswers;

    POSIXFileFlusher flusher() {
        return POSIXFileFlusher(clock, POSIXFileFlusher::FlushCalls{
                                           [this](int) { return answer("fsync", fullFlushAnswers); },
                                           [this](int) { return answer("fdatasync", dataFlushAnswers); },
                                       });
    }

private:
    int answer(const char* name, std::vector<int>& answers) {
        calls.emplace_back(name);
        clock->advance(3'000'000);
        if (answers.empty()) return 0;
        const int error = answers.front();
        answers.erase(answers.begin());
        if (error == 0) return 0;
        errno = error;
        return -1;
    }
};

class POSIXFileFlusherTests : public ::testing::Test {
protected:
    void SetUp() override {
        temporary.writeFile("dst/a/.staged", "12345");
        root = realFileSystem.openRoot((temporary / "dst").string());
    }

    TemporaryDirectory temporary;
    RealFileSystem realFileSystem;
    EndpointRoot root;
    ScriptedStorage storage;
};

TEST_F(POSIXFileFlusherTests, FastModeOpensAndFlushesNothingEvenForMissingItems) {
    auto flusher = storage.flusher();
    EXPECT_EQ(flusher.flushFile(root, rel("a/missing"), DurabilityMode::fast, 99), FlushResult{});
    EXPECT_EQ(flusher.flushDirectory(root, rel("missing"), DurabilityMode::fast), FlushResult{});
    // Not even a root of another file system is looked at.
    FakeFileSystem fake;
    fake.addDirectory("/elsewhere");
    EXPECT_EQ(flusher.flushFile(fake.openRoot("/elsewhere"), rel("x"), DurabilityMode::fast, 0), FlushResult{});
    EXPECT_TRUE(storage.calls.empty());
}

TEST_F(POSIXFileFlusherTests, DurableFlushesFileDataThenTheWholeFolderAndTimesOnlyTheCalls) {
    auto flusher = storage.flusher();
    EXPECT_EQ(flusher.flushFile(root, rel("a/.staged"), DurabilityMode::durable, 5), (FlushResult{false, 0.003}));
    EXPECT_EQ(flusher.flushDirectory(root, rel("a"), DurabilityMode::durable), (FlushResult{false, 0.003}));
    EXPECT_EQ(flusher.flushDirectory(root, RelativePath(), DurabilityMode::durable), (FlushResult{false, 0.003}));
    EXPECT_EQ(storage.calls, (std::vector<std::string>{"fdatasync", "fsync", "fsync"}));
}

TEST_F(POSIXFileFlusherTests, MaximumUsesTheFullFlushAndFallsBackWhenItIsRefusedAsUnsupported) {
    auto flusher = storage.flusher();
    EXPECT_EQ(flusher.flushFile(root, rel("a/.staged"), DurabilityMode::maximum, 5), (FlushResult{false, 0.003}));
    EXPECT_EQ(storage.calls, (std::vector<std::string>{"fsync"}));

    for (const int refusal : {ENOTTY, EINVAL, EOPNOTSUPP, ENOSYS}) {
        storage.calls.clear();
        storage.fullFlushAnswers = {refusal};
        EXPECT_EQ(flusher.flushFile(root, rel("a/.staged"), DurabilityMode::maximum, 5), (FlushResult{true, 0.006}))
            << refusal;
        EXPECT_EQ(storage.calls, (std::vector<std::string>{"fsync", "fdatasync"}));
        storage.fullFlushAnswers = {refusal};
        EXPECT_EQ(flusher.flushDirectory(root, rel("a"), DurabilityMode::maximum), (FlushResult{true, 0.006}));
    }
}

TEST_F(POSIXFileFlusherTests, EachFailingFlushIsReportedAsItsOwnCase) {
    auto flusher = storage.flusher();
    const std::string folder = (temporary / "dst/a").string();

    storage.fullFlushAnswers = {EIO};
    EXPECT_EQ(durabilityErrorOf([&] { flusher.flushFile(root, rel("a/.staged"), DurabilityMode::maximum, 5); }),
              DurabilityError(DurabilityError::FullFlushFailed{".staged", EIO}));
    storage.fullFlushAnswers = {EIO};
    EXPECT_EQ(durabilityErrorOf([&] { flusher.flushDirectory(root, rel("a"), DurabilityMode::maximum); }),
              DurabilityError(DurabilityError::ParentDirectoryFlushFailed{folder, EIO}));

    // The fallback itself failing is the file's flush failing, with the fallback's errno.
    storage.fullFlushAnswers = {ENOTTY};
    storage.dataFlushAnswers = {ENOSPC};
    EXPECT_EQ(durabilityErrorOf([&] { flusher.flushFile(root, rel("a/.staged"), DurabilityMode::maximum, 5); }),
              DurabilityError(DurabilityError::FileFlushFailed{".staged", ENOSPC}));

    storage.dataFlushAnswers = {EIO};
    EXPECT_EQ(durabilityErrorOf([&] { flusher.flushFile(root, rel("a/.staged"), DurabilityMode::durable, 5); }),
              DurabilityError(DurabilityError::FileFlushFailed{".staged", EIO}));

    // Durable mode asks for the folder's fsync itself: a refusal is not silently weakened.
    storage.calls.clear();
    storage.fullFlushAnswers = {EINVAL};
    EXPECT_EQ(durabilityErrorOf([&] { flusher.flushDirectory(root, rel("a"), DurabilityMode::durable); }),
              DurabilityError(DurabilityError::ParentDirectoryFlushFailed{folder, EINVAL}));
    EXPECT_EQ(storage.calls, (std::vector<std::string>{"fsync"}));

    // EINTR is not a failure: the call is simply made again.
    storage.calls.clear();
    storage.dataFlushAnswers = {EINTR};
    EXPECT_NO_THROW(flusher.flushFile(root, rel("a/.staged"), DurabilityMode::durable, 5));
    EXPECT_EQ(storage.calls, (std::vector<std::string>{"fdatasync", "fdatasync"}));
}

TEST_F(POSIXFileFlusherTests, RefusesAnythingButTheStagedFileOfTheExpectedSizeBeforeFlushing) {
    auto flusher = storage.flusher();
    const auto dst = temporary / "dst";
    fs::create_symlink(".staged", dst / "a/link");
    fs::create_directory(dst / "a/folder");
    ASSERT_EQ(::mkfifo((dst / "a/pipe").c_str(), 0600), 0);
    const auto before = openDescriptorCount();

    const auto openFailure = [&](const std::string& path, int errnoValue) {
        EXPECT_EQ(durabilityErrorOf([&] { flusher.flushFile(root, rel(path), DurabilityMode::durable, 5); }),
                  DurabilityError(DurabilityError::PartialFileOpenFailed{std::string(rel(path).lastComponent()),
                                                                         errnoValue}))
            << path;
    };
    openFailure("a/link", ELOOP);       // a link in place of the staged file is never followed
    openFailure("a/folder", ENOTSUP);   // not a regular file
    openFailure("a/pipe", ENOTSUP);     // and a FIFO does not block the open
    openFailure("a/missing", ENOENT);

    // One byte more than was written: someone else wrote to it; it is not flushed.
    EXPECT_EQ(durabilityErrorOf([&] { flusher.flushFile(root, rel("a/.staged"), DurabilityMode::maximum, 4); }),
              DurabilityError(DurabilityError::StagedFileChangedBeforeFlush{".staged", 4, 5}));

    const std::string missingFolder = (dst / "missing").string();
    EXPECT_EQ(durabilityErrorOf([&] { flusher.flushDirectory(root, rel("missing"), DurabilityMode::durable); }),
              DurabilityError(DurabilityError::ParentDirectoryOpenFailed{missingFolder, ENOENT}));
    fs::create_directory_symlink("a", dst / "folderLink");
    const std::string linkFolder = (dst / "folderLink").string();
    EXPECT_EQ(durabilityErrorOf([&] { flusher.flushDirectory(root, rel("folderLink"), DurabilityMode::maximum); }),
              DurabilityError(DurabilityError::ParentDirectoryOpenFailed{linkFolder, ELOOP}));

    // A root this flusher cannot reach into fails cleanly instead of flushing elsewhere.
    FakeFileSystem fake;
    fake.addFile("/fake/x", "12345");
    EXPECT_EQ(durabilityErrorOf([&] { flusher.flushFile(fake.openRoot("/fake"), rel("x"), DurabilityMode::durable, 5); }),
              DurabilityError(DurabilityError::PartialFileOpenFailed{"x", EBADF}));

    EXPECT_TRUE(storage.calls.empty()) << "nothing may be flushed when the checks fail";
    EXPECT_EQ(openDescriptorCount(), before) << "a descriptor was left open";
}

TEST_F(POSIXFileFlusherTests, FlushFailuresCloseTheirDescriptorsToo) {
    auto flusher = storage.flusher();
    const auto before = openDescriptorCount();
    storage.fullFlushAnswers = {EIO, ENOTTY, EIO};
    storage.dataFlushAnswers = {ENOSPC};
    EXPECT_THROW(flusher.flushFile(root, rel("a/.staged"), DurabilityMode::maximum, 5), DurabilityError);
    EXPECT_THROW(flusher.flushFile(root, rel("a/.staged"), DurabilityMode::maximum, 5), DurabilityError);
    EXPECT_THROW(flusher.flushDirectory(root, rel("a"), DurabilityMode::maximum), DurabilityError);
    EXPECT_NO_THROW(flusher.flushDirectory(root, rel("a"), DurabilityMode::maximum));
    EXPECT_EQ(openDescriptorCount(), before);
}

// --- Outcomes and the run's tally ------------------------------------------------------------

TEST(DurabilityOutcomeTests, ChoosesTheOutcomeOfACommittedFile) {
    using enum DurabilityOutcome;
    EXPECT_EQ(chooseDurabilityOutcome(DurabilityMode::fast, true, true), fastNoFlush);
    EXPECT_EQ(chooseDurabilityOutcome(DurabilityMode::durable, false, false), durablyCommitted);
    EXPECT_EQ(chooseDurabilityOutcome(DurabilityMode::maximum, true, true), uncertainDirectoryNotFlushed);
    EXPECT_EQ(chooseDurabilityOutcome(DurabilityMode::maximum, false, true), durableFullFlushUnsupported);
}

TEST(DurabilitySummaryTests, CountsEachOutcomeAndOnlyRealFlushTimes) {
    DurabilitySummary summary(DurabilityMode::maximum);
    EXPECT_EQ(summary.averageFlushMilliseconds(), std::nullopt) << "a run with no files shows no average";
    summary.record(DurabilityOutcome::fastNoFlush);
    summary.record(DurabilityOutcome::durablyCommitted);
    summary.record(DurabilityOutcome::uncertainDirectoryNotFlushed);
    summary.record(DurabilityOutcome::durableFullFlushUnsupported);
    summary.addFlushTime(0);  // Fast mode: nothing was measured
    summary.addFlushTime(0.002);
    summary.addFlushTime(0.004);

    DurabilitySummary expected(DurabilityMode::maximum);
    expected.filesWrittenFastMode = 1;
    expected.filesDurablyCommitted = 2;
    expected.filesUncertainDurability = 1;
    expected.directoryFlushFailures = 1;
    expected.fullFlushUnsupportedCount = 1;
    expected.totalFlushSeconds = 0.006;
    expected.flushCount = 2;
    EXPECT_EQ(summary, expected);
    EXPECT_DOUBLE_EQ(*summary.averageFlushMilliseconds(), 3.0);
}

}  // namespace
}  // namespace varnel::testing
