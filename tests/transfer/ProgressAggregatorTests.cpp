#include "common/MonotonicClock.hpp"
#include "support/Shorthand.hpp"
#include "transfer/ProgressAggregator.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace varnel::testing {
namespace {

using Outcome = ProgressAggregator::ItemOutcome;

constexpr std::uint64_t kMillisecond = 1'000'000;

struct AggregatorHarness {
    std::shared_ptr<ManualMonotonicClock> clock = std::make_shared<ManualMonotonicClock>();
    ProgressAggregator aggregator{clock};
    std::vector<TransferProgress> published;

    AggregatorHarness() {
        aggregator.setSnapshotHandler([this](const TransferProgress& progress) { published.push_back(progress); });
    }
};

TEST(ProgressAggregatorTest, PublishesAtMostOncePerIntervalExceptForPhaseChanges) {
    AggregatorHarness h;
    h.aggregator.beginItem(rel("a"), 1000, "Copying");  // the first change goes out at once
    ASSERT_EQ(h.published.size(), 1U);
    for (int i = 0; i < 10; ++i) h.aggregator.addBytes(rel("a"), 10);
    h.clock->advance(240 * kMillisecond);
    h.aggregator.addBytes(rel("a"), 10);
    EXPECT_EQ(h.published.size(), 1U);

    h.clock->advance(10 * kMillisecond);
    h.aggregator.addBytes(rel("a"), 10);
    ASSERT_EQ(h.published.size(), 2U);
    EXPECT_EQ(h.published.back().bytesTransferred, 120U);
    EXPECT_EQ(h.published.back().currentFileBytesTransferred, 120U);

    h.aggregator.setPhase(SyncPhase::verifying);
    ASSERT_EQ(h.published.size(), 3U);
    EXPECT_EQ(h.published.back().phase, SyncPhase::verifying);
    EXPECT_EQ(h.aggregator.snapshot().bytesTransferred, 120U);
}

TEST(ProgressAggregatorTest, TracksCopiesInFlightAndTheirOutcomes) {
    AggregatorHarness h;
    h.aggregator.setPlannedTotals(3050, 3);
    h.aggregator.beginItem(rel("a"), 1000, "Copying");
    h.aggregator.beginItem(rel("b"), 2000, "Updating");
    h.aggregator.addBytes(rel("a"), 400);
    TransferProgress progress = h.aggregator.snapshot();
    EXPECT_EQ(progress.activeCopyCount, 2);
    EXPECT_EQ(progress.currentRelativePath, "b");  // the newest copy in flight
    EXPECT_EQ(progress.currentOperation, "Updating");
    EXPECT_EQ(progress.currentFileSize, 2000U);

    h.aggregator.finishItem(rel("b"), Outcome::failed);
    progress = h.aggregator.snapshot();
    EXPECT_EQ(progress.currentRelativePath, "a");
    EXPECT_EQ(progress.currentFileBytesTransferred, 400U);
    h.aggregator.finishItem(rel("a"), Outcome::completed);
    h.aggregator.finishItem(rel("c"), Outcome::skipped, 50);  // skipped before it began
    h.aggregator.recordDirectoryCreated();
    h.aggregator.recordItemArchived();
    progress = h.aggregator.snapshot();
    EXPECT_EQ(progress.activeCopyCount, 0);
    EXPECT_EQ(progress.currentRelativePath, std::nullopt);
    EXPECT_EQ(progress.filesCompleted, 1);
    EXPECT_EQ(progress.filesFailed, 1);
    EXPECT_EQ(progress.filesSkipped, 1);
    EXPECT_EQ(progress.directoriesCreated, 1);
    EXPECT_EQ(progress.itemsArchived, 1);
    EXPECT_EQ(progress.estimatedSecondsRemaining, 0.0);  // every planned file and byte is settled
}

TEST(ProgressAggregatorTest, SamplesEverySecondAndStopsCountingAbandonedBytes) {
    AggregatorHarness h;
    h.aggregator.setPlannedTotals(1000, 2);
    h.aggregator.beginItem(rel("a"), 500, "Copying");
    h.aggregator.beginItem(rel("b"), 500, "Copying");
    for (int second = 1; second <= 3; ++second) {
        h.clock->advance(1000 * kMillisecond);
        h.aggregator.addBytes(rel("a"), 100);
    }
    TransferProgress progress = h.aggregator.snapshot();
    EXPECT_DOUBLE_EQ(progress.bytesPerSecond, 100.0);
    ASSERT_TRUE(progress.estimatedSecondsRemaining);
    EXPECT_DOUBLE_EQ(*progress.estimatedSecondsRemaining, 7.0);  // 700 bytes at 100/s
    h.clock->advance(500 * kMillisecond);
    EXPECT_DOUBLE_EQ(*h.aggregator.snapshot().estimatedSecondsRemaining, 6.5);  // counts down between samples

    // b fails before copying anything: its 500 bytes no longer remain.
    h.aggregator.finishItem(rel("b"), Outcome::failed);
    h.clock->advance(500 * kMillisecond);
    h.aggregator.addBytes(rel("a"), 200);
    progress = h.aggregator.snapshot();
    // No bytes remain; one file remains at the one file per second just seen.
    EXPECT_DOUBLE_EQ(*progress.estimatedSecondsRemaining, 1.0);
    EXPECT_DOUBLE_EQ(progress.bytesPerSecond, 0.2 * 200 + 0.8 * 100);
    EXPECT_DOUBLE_EQ(h.aggregator.peakBytesPerSecond(), 200.0);
}

}  // namespace
}  // namespace varnel::testing
