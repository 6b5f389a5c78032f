#pragma once

#include <chrono>
#include <cstddef>

namespace varnel {

// Chooses, chunk by chunk, whether a pass hands part of each chunk to a second thread,
// by timing both ways on the pass's own chunks. Two threads are the faster way when the
// processors share a cache; some hosts place them far apart for minutes at a time, and
// then the memory handed from one thread to the other makes two threads slower than one.
// In every kCycle chunks, the first kTrial go with two threads and the next kTrial with
// one; the rest go the way that was faster. Chunks are taken to hold equal work.
class TwoThreadTrial {
public:
    static constexpr std::size_t kCycle = 32;
    static constexpr std::size_t kTrial = 2;

    // Whether the next chunk goes with two threads.
    bool twoThreadsNext() const {
        if (position_ < kTrial) return true;
        if (position_ < 2 * kTrial) return false;
        return twoThreadsFaster_;
    }

    // The chunk chosen by twoThreadsNext took `took`.
    void finished(std::chrono::steady_clock::duration took) {
        if (position_ < kTrial) {
            twoThreads_ += took;
        } else if (position_ < 2 * kTrial) {
            oneThread_ += took;
            if (position_ + 1 == 2 * kTrial) twoThreadsFaster_ = twoThreads_ <= oneThread_;
        }
        if (++position_ == kCycle) {
            position_ = 0;
            twoThreads_ = oneThread_ = {};
        }
    }

private:
    std::size_t position_ = 0;  // in the cycle
    std::chrono::steady_clock::duration twoThreads_{}, oneThread_{};
    bool twoThreadsFaster_ = true;
};

}  // namespace varnel
