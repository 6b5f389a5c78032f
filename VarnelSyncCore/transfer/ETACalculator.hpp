#pragma once

#include <cstdint>
#include <optional>

namespace varnel {

// Turns observed throughput into a remaining-time estimate that neither jumps about
// nor appears before there is anything to go on. The tuning is this value; the
// changing part is State, so one calculator serves any number of runs.
//
// Defaults: each new one-second sample weighs 0.2, so a change of pace shows within a
// few seconds while single slow files (a flush, a large metadata write) barely move
// it; no estimate before 3 samples and 2 seconds, because the first seconds of a run
// are dominated by folder creation and cold caches; the shown time may grow by at most
// half (×1.5) per estimate, so one slow file cannot make it leap.
struct ETACalculator {
    double smoothingFactor = 0.2;     // weight of the newest sample
    int warmUpSampleCount = 3;        // samples needed before the first estimate
    double warmUpSeconds = 2.0;       // elapsed time needed before the first estimate
    double maximumGrowthFactor = 1.5; // the most one estimate may exceed the previous one by

    // A file rate below this many files per second means "no file rate".
    static constexpr double kMinimumFileRate = 0.0001;

    struct State {
        double smoothedBytesPerSecond = 0;
        double smoothedFilesPerSecond = 0;
        int sampleCount = 0;
        int fileRateSampleCount = 0;
        double elapsedSeconds = 0;
        std::optional<double> lastReportedETA;

        friend bool operator==(const State&, const State&) = default;
    };

    // Adds one throughput sample: the bytes and finished files of an interval and the
    // run's total elapsed time. An interval of 0 seconds or less changes nothing. The
    // file rate only learns from intervals in which a file finished, so a long file
    // does not drag it to zero.
    State recordSample(State state, std::uint64_t bytes, std::int64_t files, double intervalSeconds,
                       double totalElapsedSeconds) const;

    // Seconds remaining, or none while warming up or when the rates say nothing; 0 when
    // nothing remains. The larger of the byte-based and file-based estimates wins (many
    // small files are bounded by files per second, large ones by bytes per second).
    // Remembers the result in state.lastReportedETA, which caps the next estimate.
    std::optional<double> estimate(State& state, std::uint64_t remainingBytes, std::int64_t remainingFiles) const;
};

}  // namespace varnel
