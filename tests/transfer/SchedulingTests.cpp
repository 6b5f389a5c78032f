#include "transfer/ETACalculator.hpp"
#include "transfer/TransferScheduler.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace varnel::testing {
namespace {

using SizeClass = TransferScheduler::SizeClass;

SyncAction fileAction(const std::string& path, std::int64_t size) {
    SyncAction action;
    action.type = SyncActionType::copyNewFile;
    action.relativePath = *RelativePath::fromString(path);
    FileSystemEntry entry;
    entry.relativePath = action.relativePath;
    entry.size = size;
    action.sourceEntry = SharedEntry(entry);
    action.expectedBytes = size;
    return action;
}

TEST(TransferSchedulerTest, SizeClassBoundaries) {
    EXPECT_EQ(TransferScheduler::sizeClass(0), SizeClass::small);
    EXPECT_EQ(TransferScheduler::sizeClass(999'999), SizeClass::small);
    EXPECT_EQ(TransferScheduler::sizeClass(1'000'000), SizeClass::medium);
    EXPECT_EQ(TransferScheduler::sizeClass(63'999'999), SizeClass::medium);
    EXPECT_EQ(TransferScheduler::sizeClass(64'000'000), SizeClass::large);

    SyncAction link;
    link.type = SyncActionType::createSymlink;
    EXPECT_EQ(TransferScheduler::sizeClass(link), SizeClass::small);  // no source size
    EXPECT_EQ(TransferScheduler::sizeClass(fileAction("big", 70'000'000)), SizeClass::large);
}

TEST(TransferSchedulerTest, BatchesKeepPlanOrderAndNeverMixClasses) {
    const TransferScheduler scheduler;
    const auto batches = scheduler.batches({fileAction("a", 10), fileAction("b", 999'999),
                                            fileAction("c", 64'000'000), fileAction("d", 0)});
    ASSERT_EQ(batches.size(), 3U);
    EXPECT_EQ(batches[0].sizeClass, SizeClass::small);
    ASSERT_EQ(batches[0].actions.size(), 2U);
    EXPECT_EQ(batches[0].actions[0].relativePath.value(), "a");
    EXPECT_EQ(batches[0].actions[1].relativePath.value(), "b");
    EXPECT_EQ(batches[1].sizeClass, SizeClass::large);
    EXPECT_EQ(batches[1].actions.at(0).relativePath.value(), "c");
    EXPECT_EQ(batches[2].sizeClass, SizeClass::small);
    EXPECT_EQ(batches[2].actions.at(0).relativePath.value(), "d");
    EXPECT_TRUE(scheduler.batches({}).empty());
}

TEST(TransferSchedulerTest, ConcurrencyIsBoundedByLimitsProcessorsAndOneVolume) {
    TransferScheduler scheduler;
    scheduler.processorCount = 16;
    EXPECT_EQ(scheduler.concurrency(SizeClass::small), 6);
    EXPECT_EQ(scheduler.concurrency(SizeClass::medium), 3);
    EXPECT_EQ(scheduler.concurrency(SizeClass::large), 2);

    scheduler.isSameVolume = true;
    EXPECT_EQ(scheduler.concurrency(SizeClass::small), 6);
    EXPECT_EQ(scheduler.concurrency(SizeClass::large), 1);

    scheduler.processorCount = 0;  // taken as 1; small copies wait rather than compute
    EXPECT_EQ(scheduler.concurrency(SizeClass::small), 6);
    EXPECT_EQ(scheduler.concurrency(SizeClass::medium), 2);
    EXPECT_EQ(scheduler.concurrency(SizeClass::large), 1);

    scheduler.processorCount = 16;
    scheduler.configuration.maximumConcurrency = 4;
    scheduler.configuration.mediumFileConcurrency = 0;
    EXPECT_EQ(scheduler.concurrency(SizeClass::small), 4);
    EXPECT_EQ(scheduler.concurrency(SizeClass::medium), 1);  // never below one
}

// --- ETA -------------------------------------------------------------------------------

ETACalculator::State warmedUp(const ETACalculator& calculator, std::uint64_t bytesPerSecond, std::int64_t files) {
    ETACalculator::State state;
    for (int second = 1; second <= 3; ++second) {
        state = calculator.recordSample(state, bytesPerSecond, files, 1.0, second);
    }
    return state;
}

TEST(ETACalculatorTest, NoEstimateBeforeWarmUpAndZeroWhenNothingRemains) {
    const ETACalculator calculator;
    ETACalculator::State state;
    EXPECT_EQ(calculator.estimate(state, 1000, 1), std::nullopt);
    EXPECT_EQ(calculator.estimate(state, 0, 0), 0.0);
    EXPECT_EQ(state.lastReportedETA, 0.0);

    // Enough time but too few samples, then enough samples but too little time.
    state = calculator.recordSample({}, 100, 0, 2.5, 2.5);
    state = calculator.recordSample(state, 100, 0, 2.5, 5.0);
    EXPECT_EQ(calculator.estimate(state, 1000, 0), std::nullopt);
    state = {};
    for (int i = 1; i <= 3; ++i) state = calculator.recordSample(state, 100, 0, 0.5, 0.5 * i);
    EXPECT_EQ(calculator.estimate(state, 1000, 0), std::nullopt);
    state = calculator.recordSample(state, 100, 0, 0.5, 2.0);
    EXPECT_DOUBLE_EQ(*calculator.estimate(state, 1000, 0), 1000.0 / 200.0);

    // An empty interval is no sample.
    EXPECT_EQ(calculator.recordSample(state, 5000, 3, 0.0, 9.0), state);
}

TEST(ETACalculatorTest, SmoothsSamplesAndTakesTheSlowerOfBytesAndFiles) {
    const ETACalculator calculator;
    ETACalculator::State state = calculator.recordSample({}, 100, 0, 1.0, 1.0);
    state = calculator.recordSample(state, 200, 4, 1.0, 2.0);
    EXPECT_DOUBLE_EQ(state.smoothedBytesPerSecond, 0.2 * 200 + 0.8 * 100);
    // The file rate only learns from intervals in which files finished.
    EXPECT_DOUBLE_EQ(state.smoothedFilesPerSecond, 4.0);
    EXPECT_EQ(state.fileRateSampleCount, 1);
    state = calculator.recordSample(state, 120, 0, 1.0, 3.0);
    EXPECT_DOUBLE_EQ(state.smoothedFilesPerSecond, 4.0);

    // 1,200 bytes at 120/s is 10 s, but 100 files at 4/s is 25 s.
    EXPECT_DOUBLE_EQ(*calculator.estimate(state, 1200, 100), 25.0);
    // Bytes remain but nothing moves them: no estimate, even with a file rate.
    ETACalculator::State stalled = warmedUp(calculator, 0, 5);
    EXPECT_EQ(calculator.estimate(stalled, 10, 3), std::nullopt);
    EXPECT_DOUBLE_EQ(*calculator.estimate(stalled, 0, 10), 2.0);
}

TEST(ETACalculatorTest, EstimateRisesAtMostByTheGrowthFactor) {
    const ETACalculator calculator;
    ETACalculator::State state = warmedUp(calculator, 1000, 0);
    EXPECT_DOUBLE_EQ(*calculator.estimate(state, 10'000, 0), 10.0);

    // A sudden slow-down: the raw estimate jumps tenfold, the shown one by half at a time.
    for (int second = 4; second <= 8; ++second) state = calculator.recordSample(state, 10, 0, 1.0, second);
    EXPECT_DOUBLE_EQ(*calculator.estimate(state, 10'000, 0), 15.0);
    EXPECT_DOUBLE_EQ(*calculator.estimate(state, 10'000, 0), 22.5);
    // Falling is never held back.
    EXPECT_DOUBLE_EQ(*calculator.estimate(state, 10, 0), 10.0 / state.smoothedBytesPerSecond);
}

}  // namespace
}  // namespace varnel::testing
