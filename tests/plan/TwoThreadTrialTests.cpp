#include "plan/TwoThreadTrial.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace varnel {
namespace {

using std::chrono::milliseconds;

// Runs `chunks` chunks that take `two` with two threads and `one` with one, and returns
// the ways taken ("2" or "1" per chunk).
std::string waysTaken(TwoThreadTrial& trial, std::size_t chunks, milliseconds two, milliseconds one) {
    std::string ways;
    for (std::size_t i = 0; i < chunks; ++i) {
        const bool twoThreads = trial.twoThreadsNext();
        ways += twoThreads ? '2' : '1';
        trial.finished(twoThreads ? two : one);
    }
    return ways;
}

// Each cycle times both ways on its first chunks and keeps the faster for the rest, so
// a host that moves its processors apart (or back) mid-pass is followed within a cycle.
TEST(TwoThreadTrialTest, KeepsTheFasterWayAndTimesBothAgainEachCycle) {
    constexpr std::size_t rest = TwoThreadTrial::kCycle - 2 * TwoThreadTrial::kTrial;
    TwoThreadTrial trial;
    EXPECT_EQ(waysTaken(trial, TwoThreadTrial::kCycle, milliseconds(10), milliseconds(14)),
              "2211" + std::string(rest, '2'));
    EXPECT_EQ(waysTaken(trial, TwoThreadTrial::kCycle, milliseconds(25), milliseconds(14)),
              "2211" + std::string(rest, '1'));
    // The processors come close again: the next trial finds two threads faster.
    EXPECT_EQ(waysTaken(trial, 6, milliseconds(10), milliseconds(14)), "221122");
}

}  // namespace
}  // namespace varnel
