#include "archive/ArchiveLayout.hpp"
#include "plan/SyncPlanner.hpp"
#include "scan/RealFileSystem.hpp"
#include "scan/SyncScanner.hpp"
#include "support/FaultInjectingFlusher.hpp"
#include "support/SyncChecker.hpp"
#include "support/TemporaryDirectory.hpp"
#include "transfer/POSIXFileFlusher.hpp"
#include "transfer/PartialFileNaming.hpp"
#include "transfer/SyncExecutor.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

namespace varnel {
namespace {

namespace fs = std::filesystem;

// A source/destination pair on disk, analysed and run as the coordinator would.
class ExecutorTest : public ::testing::Test {
protected:
    fs::path source() const { return temp.path() / "src"; }
    fs::path destination() const { return temp.path() / "dst"; }

    SyncPlan analyze(SyncMode mode) {
        fs::create_directories(source());
        fs::create_directories(destination());
        const SyncScanner scanner(*fileSystem, ExclusionEngine({}, HiddenFilePolicy::include));
        const auto sourceScan = scanner.scan(fileSystem->openRoot(source()), EndpointRole::source, true);
        auto destinationScan = scanner.scan(fileSystem->openRoot(destination()), EndpointRole::destination, true);
        SyncPlanner::Input input{.profileID = profileID,
                                 .mode = mode,
                                 .sourceRoot = source().string(),
                                 .destinationRoot = destination().string(),
                                 .source = sourceScan,
                                 .destination = destinationScan,
                                 .destinationFreeBytes = 1'000'000'000};
        return SyncPlanner(FileComparator(FileComparator::kHighPrecisionToleranceNanoseconds)).plan(input);
    }

    SyncExecutor::Execution run(const SyncPlan& plan, DurabilityMode durability = DurabilityMode::fast,
                                CancellationFlag* stop = nullptr,
                                std::function<void(const TransferProgress&)> onProgress = {}) {
        FileCopyEngine engine;
        engine.fileSystem = fileSystem;
        engine.durabilityMode = durability;
        engine.flusher = flusher ? flusher : std::make_shared<POSIXFileFlusher>(clock);
        engine.runID = runID;
        engine.sourceRoot = fileSystem->openRoot(source());
        engine.destinationRoot = fileSystem->openRoot(destination());
        TransferScheduler scheduler;
        scheduler.processorCount = 2;
        SyncExecutor executor({fileSystem, engine, scheduler,
                               FileComparator(FileComparator::kHighPrecisionToleranceNanoseconds), clock,
                               engine.flusher});
        ProgressAggregator progress(clock, {}, 0, 0);
        if (onProgress) progress.setSnapshotHandler(onProgress);
        CancellationFlag ownFlag;
        return executor.execute(plan, runID, ArchiveLayout::runFolder(profileID, plan.createdAt), stop ? *stop : ownFlag,
                                progress);
    }

    testing::TemporaryDirectory temp;
    std::shared_ptr<RealFileSystem> fileSystem = std::make_shared<RealFileSystem>();
    std::shared_ptr<const MonotonicClock> clock = std::make_shared<SteadyMonotonicClock>();
    Uuid profileID = Uuid::random();
    Uuid runID = Uuid::random();
    std::shared_ptr<FileFlushing> flusher;  // the system's when unset
};

// Records how many file flushes run at once in each folder. A flush in one of the
// `awaited` folders waits (up to a second, once per folder) for a second flush to join
// it, so that copies the engine does run together are seen together even on a loaded
// machine; a flush elsewhere only lingers a millisecond.
class FolderCrowdingFlusher final : public FileFlushing {
public:
    explicit FolderCrowdingFlusher(std::set<std::string> awaited) : awaited_(std::move(awaited)) {}

    FlushResult flushFile(const EndpointRoot& root, const RelativePath& path, DurabilityMode, std::uint64_t) override {
        const std::string folder = fs::path(displayPath(root, path.parent())).filename();
        std::unique_lock lock(mutex_);
        mostAtOnce_[folder] = std::max(mostAtOnce_[folder], ++inside_[folder]);
        joined_.notify_all();
        if (awaited_.erase(folder) != 0) {
            joined_.wait_for(lock, std::chrono::seconds(1), [&] { return mostAtOnce_[folder] > 1; });
        } else {
            lock.unlock();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            lock.lock();
        }
        --inside_[folder];
        return {};
    }
    FlushResult flushDirectory(const EndpointRoot&, const RelativePath&, DurabilityMode) override { return {}; }

    std::map<std::string, int> mostAtOnce() const {
        std::lock_guard lock(mutex_);
        return mostAtOnce_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable joined_;
    std::set<std::string> awaited_;
    std::map<std::string, int> inside_, mostAtOnce_;
};

// Counts, at each folder flush, the committed files the folder holds by then.
class FolderCountingFlusher final : public FileFlushing {
public:
    FlushResult flushFile(const EndpointRoot&, const RelativePath&, DurabilityMode, std::uint64_t) override {
        return {};
    }
    FlushResult flushDirectory(const EndpointRoot& root, const RelativePath& path, DurabilityMode) override {
        const fs::path folder = displayPath(root, path);
        const auto held = std::count_if(fs::directory_iterator(folder), fs::directory_iterator(), [](const auto& item) {
            return !PartialFileNaming::isStagingName(item.path().filename().string());
        });
        const std::lock_guard lock(mutex_);
        seen_.emplace_back(folder.filename().string(), static_cast<int>(held));
        return {};
    }
    std::vector<std::pair<std::string, int>> seen() const {
        const std::lock_guard lock(mutex_);
        auto sorted = seen_;
        std::sort(sorted.begin(), sorted.end());
        return sorted;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::pair<std::string, int>> seen_;
};

// Records how many file flushes run at once, in all and per size class (a file of a
// megabyte or more is medium). The first flush waits (up to a second) for a second one
// to join it; every other flush lingers a millisecond, so that copies the engine does run
// together are seen together.
class ClassCrowdingFlusher final : public FileFlushing {
public:
    FlushResult flushFile(const EndpointRoot&, const RelativePath&, DurabilityMode, std::uint64_t size) override {
        const std::size_t sizeClass = size >= 1'000'000 ? 1 : 0;
        std::unique_lock lock(mutex_);
        mostAtOnce_ = std::max(mostAtOnce_, ++inside_);
        mostOfClass_[sizeClass] = std::max(mostOfClass_[sizeClass], ++insideOfClass_[sizeClass]);
        joined_.notify_all();
        if (std::exchange(first_, false)) {
            joined_.wait_for(lock, std::chrono::seconds(1), [&] { return mostAtOnce_ > 1; });
        } else {
            lock.unlock();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            lock.lock();
        }
        --inside_;
        --insideOfClass_[sizeClass];
        return {};
    }
    FlushResult flushDirectory(const EndpointRoot&, const RelativePath&, DurabilityMode) override { return {}; }

    int mostAtOnce() const {
        std::lock_guard lock(mutex_);
        return mostAtOnce_;
    }
    int mostOfClass(std::size_t sizeClass) const {
        std::lock_guard lock(mutex_);
        return mostOfClass_[sizeClass];
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable joined_;
    bool first_ = true;
    int inside_ = 0, mostAtOnce_ = 0;
    std::array<int, 2> insideOfClass_{}, mostOfClass_{};
};

TEST_F(ExecutorTest, MirrorCopiesAndArchivesDestinationOnlyItemsUnderTheRunFolder) {
    temp.writeFile("src/a/new.txt", "new contents");
    temp.writeFile("src/keep.txt", "same");
    temp.writeFile("dst/old/deep/gone.txt", "archived");
    temp.writeFile("dst/stale.txt", "archived too");
    fs::create_symlink("a/new.txt", source() / "link");
    const SyncPlan plan = analyze(SyncMode::mirror);

    const auto execution = run(plan, DurabilityMode::durable);
    const SyncRunResult& result = execution.result;
    EXPECT_EQ(result.outcome, SyncRunOutcome::success) << (result.errors.empty() ? "" : result.errors[0].message);
    EXPECT_EQ(result.filesCopied, 2);
    EXPECT_EQ(result.symlinksWritten, 1);
    EXPECT_EQ(result.directoriesCreated, 1);
    EXPECT_EQ(result.itemsArchived, 4);  // old/deep/gone.txt, old/deep, stale.txt, old
    EXPECT_EQ(result.durability.directoriesTreeFlushed, 1);
    EXPECT_EQ(temp.readFile("dst/a/new.txt"), "new contents");
    EXPECT_EQ(fs::read_symlink(destination() / "link"), "a/new.txt");

    const fs::path runFolder = destination() / ArchiveLayout::runFolder(profileID, plan.createdAt).value();
    EXPECT_EQ(temp.readFile(fs::relative(runFolder / "old/deep/gone.txt", temp.path())), "archived");
    EXPECT_EQ(temp.readFile(fs::relative(runFolder / "stale.txt", temp.path())), "archived too");
    EXPECT_FALSE(fs::exists(destination() / "old"));
    EXPECT_FALSE(fs::exists(destination() / "stale.txt"));
    EXPECT_TRUE(testing::stagingItemsBelow(destination()).empty());
    EXPECT_EQ(execution.actionResults.size(), 8u);
}

TEST_F(ExecutorTest, UpdateNeverTouchesDestinationOnlyItems) {
    temp.writeFile("src/new.txt", "n");
    temp.writeFile("dst/mine.txt", "the user's own file");
    const auto execution = run(analyze(SyncMode::update));
    EXPECT_EQ(execution.result.filesCopied, 1);
    EXPECT_EQ(execution.result.itemsArchived, 0);
    EXPECT_EQ(temp.readFile("dst/mine.txt"), "the user's own file");
    EXPECT_FALSE(fs::exists(destination() / ".VarnelSync-Archive"));
}

TEST_F(ExecutorTest, StoppingMidRunKeepsEarlierFilesCompleteAndLeavesNoStagingFile) {
    for (int i = 0; i < 40; ++i) temp.writeFile("src/f" + std::to_string(100 + i), std::string(1000, 'x'));
    const SyncPlan plan = analyze(SyncMode::update);
    CancellationFlag stop;
    const auto result = run(plan, DurabilityMode::fast, &stop, [&](const TransferProgress& progress) {
        if (progress.filesCompleted >= 10) stop.cancel();
    }).result;
    EXPECT_EQ(result.outcome, SyncRunOutcome::cancelled);
    EXPECT_GE(result.filesCopied, 10);
    EXPECT_LT(result.filesCopied, 40);
    int present = 0;
    for (const auto& item : fs::directory_iterator(destination())) {
        EXPECT_EQ(fs::file_size(item.path()), 1000u) << item.path() << " is incomplete";
        ++present;
    }
    EXPECT_EQ(present, result.filesCopied);
    EXPECT_TRUE(testing::stagingItemsBelow(destination()).empty());
}

// Small-file copies into one folder queue on that folder's lock, so concurrent small
// copies take whole folders; only a folder with a long run of them is shared out. Files
// of a megabyte and more are shared out within their folder.
TEST_F(ExecutorTest, ConcurrentSmallCopiesWorkInDifferentFoldersUnlessOneFolderIsLarge) {
    for (int folder = 0; folder < 6; ++folder) {
        for (int i = 0; i < 12; ++i) temp.writeFile("src/d" + std::to_string(folder) + "/f" + std::to_string(i), "x");
    }
    for (int i = 0; i < 600; ++i) temp.writeFile("src/large/f" + std::to_string(i), "x");
    for (int i = 0; i < 6; ++i) temp.writeFile("src/medium/f" + std::to_string(i), std::string(1'000'000, 'm'));
    auto crowding = std::make_shared<FolderCrowdingFlusher>(std::set<std::string>{"large", "medium"});
    flusher = crowding;

    const auto result = run(analyze(SyncMode::update), DurabilityMode::durable).result;
    EXPECT_EQ(result.filesCopied, 6 * 12 + 600 + 6);
    const auto mostAtOnce = crowding->mostAtOnce();
    ASSERT_EQ(mostAtOnce.size(), 8u);
    for (int folder = 0; folder < 6; ++folder) {
        EXPECT_EQ(mostAtOnce.at("d" + std::to_string(folder)), 1) << "d" << folder << " was copied into by several";
    }
    EXPECT_GT(mostAtOnce.at("large"), 1) << "a large folder should still take several copies at once";
    EXPECT_GT(mostAtOnce.at("medium"), 1) << "files of a megabyte should be copied several at once";
}

// Photos of mixed sizes make a batch of one or two files each; copies of the next batch
// start while the last ones still run, each class within its own limit.
TEST_F(ExecutorTest, CopiesOfNeighbouringBatchesRunTogetherWithinEachClassLimit) {
    for (int i = 0; i < 24; ++i) {
        const std::string name = "src/photos/p" + std::to_string(10 + i);
        temp.writeFile(name, i % 2 == 0 ? std::string(10'000, 's') : std::string(1'000'000, 'm'));
    }
    auto crowding = std::make_shared<ClassCrowdingFlusher>();
    flusher = crowding;

    const auto result = run(analyze(SyncMode::update), DurabilityMode::durable).result;
    EXPECT_EQ(result.outcome, SyncRunOutcome::success);
    EXPECT_EQ(result.filesCopied, 24);
    EXPECT_GT(crowding->mostAtOnce(), 1) << "each batch of one file waited for the one before it";
    EXPECT_LE(crowding->mostOfClass(0), 6) << "more small copies at once than their limit";
    EXPECT_LE(crowding->mostOfClass(1), 3) << "more medium copies at once than their limit";
    EXPECT_LE(crowding->mostAtOnce(), 8);
    for (int i = 0; i < 24; ++i) {
        const std::string name = "photos/p" + std::to_string(10 + i);
        EXPECT_EQ(fs::file_size(destination() / name), i % 2 == 0 ? 10'000u : 1'000'000u) << name;
    }
    EXPECT_TRUE(testing::stagingItemsBelow(destination()).empty());
}

TEST_F(ExecutorTest, ManySmallFilesKeepExactTotalsWithCappedDetail) {
    for (int i = 0; i < 25'000; ++i) {
        temp.writeFile("src/d" + std::to_string(i / 1000) + "/f" + std::to_string(i), "x");
    }
    const auto execution = run(analyze(SyncMode::update));
    EXPECT_EQ(execution.result.filesCopied, 25'000);
    EXPECT_EQ(execution.result.directoriesCreated, 25);
    EXPECT_EQ(execution.result.bytesTransferred, 25'000u);
    EXPECT_EQ(execution.actionResults.size(), RunAccumulator::kMaximumActionResults);
    EXPECT_EQ(execution.result.outcome, SyncRunOutcome::completedWithWarnings) << "the capped-detail warning";
}

// In Durable mode a worker's run of small files into one folder flushes that folder once,
// after the run's last rename, and each file's outcome is that flush's.
TEST_F(ExecutorTest, DurableSmallCopiesFlushTheirFolderOnceAfterTheLastRenameOfTheRun) {
    for (const std::string folder : {"a", "b", "c"}) {
        fs::create_directories(destination() / folder);  // existing folders: no flush of created ones
        for (int i = 0; i < 10; ++i) temp.writeFile("src/" + folder + "/f" + std::to_string(i), "x");
    }
    const SyncPlan plan = analyze(SyncMode::update);

    auto counting = std::make_shared<FolderCountingFlusher>();
    flusher = counting;
    const auto flushed = run(plan, DurabilityMode::durable).result;
    EXPECT_EQ(flushed.filesCopied, 30);
    EXPECT_EQ(flushed.durability.filesDurablyCommitted, 30);
    const std::vector<std::pair<std::string, int>> once{{"a", 10}, {"b", 10}, {"c", 10}};
    EXPECT_EQ(counting->seen(), once);

    // The second folder's flush fails: its ten files are in place, each with the warning.
    for (const std::string folder : {"a", "b", "c"}) {
        fs::remove_all(destination() / folder);
        fs::create_directories(destination() / folder);
    }
    auto failing = std::make_shared<testing::FaultInjectingFlusher>();
    failing->failCall(testing::FaultInjectingFlusher::directory, EIO, 2);
    flusher = failing;
    const auto uncertain = run(plan, DurabilityMode::durable).result;
    EXPECT_EQ(uncertain.filesCopied, 30);
    EXPECT_EQ(uncertain.durability.filesDurablyCommitted, 20);
    EXPECT_EQ(uncertain.durability.filesUncertainDurability, 10);
    EXPECT_EQ(std::count_if(uncertain.warnings.begin(), uncertain.warnings.end(),
                            [](const SyncWarning& warning) {
                                return warning.category == SyncWarning::Category::durabilityUncertain;
                            }),
              10);
    const auto calls = failing->calls();
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(), [](const std::string& call) {
                  return call.starts_with("flushDirectory");
              }),
              3);
    EXPECT_EQ(temp.readFile("dst/b/f9"), "x");
}

}  // namespace
}  // namespace varnel
