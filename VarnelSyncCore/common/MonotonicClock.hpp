#pragma once
// A source of nanosecond time stamps that never goes backwards, for measuring how long
// something took (flushes, transfers). Wall-clock time is Date.hpp's Clock.

#include <atomic>
#include <chrono>
#include <cstdint>

namespace varnel {

class MonotonicClock {
public:
    virtual ~MonotonicClock() = default;
    // Nanoseconds since an arbitrary fixed point; only differences mean anything.
    virtual std::uint64_t nanoseconds() const = 0;

    static double secondsBetween(std::uint64_t start, std::uint64_t end) {
        return end > start ? static_cast<double>(end - start) / 1e9 : 0.0;
    }
};

// std::chrono::steady_clock. Stateless and thread-safe.
class SteadyMonotonicClock final : public MonotonicClock {
public:
    std::uint64_t nanoseconds() const override {
        return static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
                .count());
    }
};

// A clock that moves only when told to, so tests can give durations exact values.
// Thread-safe.
class ManualMonotonicClock final : public MonotonicClock {
public:
    explicit ManualMonotonicClock(std::uint64_t start = 1'000'000'000) : now_(start) {}

    std::uint64_t nanoseconds() const override { return now_.load(); }
    void advance(std::uint64_t nanoseconds) { now_.fetch_add(nanoseconds); }

private:
    std::atomic<std::uint64_t> now_;
};

}  // namespace varnel
