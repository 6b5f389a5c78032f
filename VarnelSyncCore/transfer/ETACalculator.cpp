#include "transfer/ETACalculator.hpp"

#include <algorithm>
#include <cmath>

namespace varnel {

namespace {

double smooth(double previous, double sample, int count, double factor) {
    return count == 0 ? sample : sample * factor + (1.0 - factor) * previous;
}

}  // namespace

ETACalculator::State ETACalculator::recordSample(State state, std::uint64_t bytes, std::int64_t files,
                                                 double intervalSeconds, double totalElapsedSeconds) const {
    if (!(intervalSeconds > 0)) return state;
    state.elapsedSeconds = totalElapsedSeconds;

    const double byteRate = static_cast<double>(bytes) / intervalSeconds;
    state.smoothedBytesPerSecond = smooth(state.smoothedBytesPerSecond, byteRate, state.sampleCount, smoothingFactor);
    ++state.sampleCount;

    if (files > 0) {
        const double fileRate = static_cast<double>(files) / intervalSeconds;
        state.smoothedFilesPerSecond =
            smooth(state.smoothedFilesPerSecond, fileRate, state.fileRateSampleCount, smoothingFactor);
        ++state.fileRateSampleCount;
    }
    return state;
}

std::optional<double> ETACalculator::estimate(State& state, std::uint64_t remainingBytes,
                                              std::int64_t remainingFiles) const {
    if (remainingBytes == 0 && remainingFiles <= 0) {
        state.lastReportedETA = 0.0;
        return 0.0;
    }
    if (state.sampleCount < warmUpSampleCount || state.elapsedSeconds < warmUpSeconds) return std::nullopt;

    const bool hasByteRate = state.smoothedBytesPerSecond > 1.0;
    const bool hasFileRate = state.smoothedFilesPerSecond >= kMinimumFileRate;
    if (!hasByteRate && !hasFileRate) return std::nullopt;

    double byteEstimate = 0;
    if (remainingBytes > 0) {
        if (!hasByteRate) return std::nullopt;
        byteEstimate = static_cast<double>(remainingBytes) / state.smoothedBytesPerSecond;
    }
    double fileEstimate = 0;
    if (remainingFiles > 0 && state.smoothedFilesPerSecond > kMinimumFileRate) {
        fileEstimate = static_cast<double>(remainingFiles) / state.smoothedFilesPerSecond;
    }
    double result = std::max(byteEstimate, fileEstimate);
    if (!std::isfinite(result)) return std::nullopt;

    if (state.lastReportedETA && *state.lastReportedETA > 0) {
        result = std::min(result, *state.lastReportedETA * maximumGrowthFactor);
    }
    state.lastReportedETA = result;
    return result;
}

}  // namespace varnel
