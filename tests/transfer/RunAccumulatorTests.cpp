#include "transfer/RunAccumulator.hpp"

#include "common/DecodingError.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <utility>
#include <vector>

namespace varnel {
namespace {

SyncAction copyOf(const std::string& path) {
    return SyncAction{SyncActionType::copyNewFile, *RelativePath::fromString(path), {}, {}, {}, 10};
}

RunAccumulator::RunFacts facts() {
    RunAccumulator::RunFacts f;
    f.runID = Uuid::random();
    f.profileID = Uuid::random();
    f.durationSeconds = 2;
    return f;
}

TEST(RunAccumulatorTest, DetailIsCappedWhileTotalsStayExact) {
    RunAccumulator accumulator(DurabilityMode::fast);
    for (int i = 0; i < 25'000; ++i) accumulator.recordSuccess(copyOf("f" + std::to_string(i)), 10, false, {}, 0);
    for (int i = 0; i < 10'001; ++i) {
        accumulator.recordFailure(copyOf("e" + std::to_string(i)), SyncError::CopyFailed{RelativePath(), EIO, "d"});
    }
    const SyncRunResult result = accumulator.makeResult(facts());
    EXPECT_EQ(result.filesCopied, 25'000);
    EXPECT_EQ(result.bytesTransferred, 250'000u);
    EXPECT_EQ(result.filesFailed, 10'001);
    EXPECT_EQ(result.errors.size(), 10'000u);
    // 20,000 successes plus one failed result per stored error.
    EXPECT_EQ(accumulator.actionResults().size(), 30'000u);
    ASSERT_FALSE(result.warnings.empty());
    EXPECT_EQ(result.warnings.back().message,
              "Per-item detail was capped to keep memory bounded: 5000 successful action(s) and 1 error(s) are not "
              "individually listed. The totals above remain exact.");
    EXPECT_EQ(result.averageBytesPerSecond, 125'000);
    EXPECT_EQ(result.outcome, SyncRunOutcome::completedWithWarnings);
}

TEST(RunAccumulatorTest, OutcomesWarningsAndDurability) {
    RunAccumulator clean(DurabilityMode::fast);
    clean.recordSuccess(copyOf("a"), 1, true, {}, 0);
    clean.recordDurability(DurabilityOutcome::fastNoFlush, 0, std::nullopt);
    const auto success = clean.makeResult(facts());
    EXPECT_EQ(success.outcome, SyncRunOutcome::success);
    EXPECT_EQ(success.filesVerified, 1);
    EXPECT_EQ(success.durability.flushCount, 0) << "a Fast-mode file took no flush time";

    RunAccumulator run(DurabilityMode::durable);
    run.recordSuccess(copyOf("a/b"), 1, false, {"owner", "extended attributes"}, 0);
    run.recordDurability(DurabilityOutcome::uncertainDirectoryNotFlushed, 0.5,
                         DurabilityError::ParentDirectoryFlushFailed{"/d/a", EIO}, *RelativePath::fromString("a/b"));
    run.setFatalError(SyncError::VolumeDisappeared{EndpointRole::destination, std::string("USB")});
    run.setFatalError(SyncError::Cancelled{});
    const auto failed = run.makeResult(facts());
    EXPECT_EQ(failed.outcome, SyncRunOutcome::failed) << "the first fatal error is kept";
    ASSERT_FALSE(failed.errors.empty());
    EXPECT_EQ(failed.errors.back().code, "volume_disappeared") << "the result says why the run stopped";
    EXPECT_EQ(failed.durability.filesUncertainDurability, 1);
    EXPECT_EQ(failed.durability.flushCount, 1);
    ASSERT_EQ(failed.warnings.size(), 2u);
    EXPECT_EQ(failed.warnings[0].message, "Could not preserve owner, extended attributes for “a/b”.");
    EXPECT_TRUE(failed.warnings[1].message.starts_with("Durability could not be confirmed. The folder “/d/a”"));

    RunAccumulator stopped(DurabilityMode::fast);
    stopped.setFatalError(SyncError::Cancelled{});
    EXPECT_EQ(stopped.makeResult(facts()).outcome, SyncRunOutcome::cancelled);
}

// A stored result reads back as it was written; a damaged count is refused, never cut
// to fit or rounded.
TEST(RunAccumulatorTest, AStoredResultReadsBackAndADamagedCountIsRefused) {
    RunAccumulator run(DurabilityMode::durable);
    run.recordSuccess(copyOf("a/b"), 7, true, {}, 0);
    run.recordFailure(copyOf("c"), SyncError::CopyFailed{*RelativePath::fromString("c"), EIO, "d"});
    const SyncRunResult result = run.makeResult(facts());
    const nlohmann::json stored = nlohmann::json::parse(toJSON(result).dump());
    EXPECT_EQ(runResultFromJSON(stored), result);

    const std::vector<std::pair<const char*, nlohmann::json>> damaged = {
        {"filesCopied", 1.5}, {"filesFailed", std::int64_t{1} << 40}, {"bytesTransferred", -1},
        {"durationSeconds", "2"}, {"verificationFailures", nullptr}};
    for (const auto& [key, value] : damaged) {
        nlohmann::json document = stored;
        document[key] = value;
        EXPECT_THROW((void)runResultFromJSON(document), DecodingError) << key << " = " << value;
    }
}

}  // namespace
}  // namespace varnel
