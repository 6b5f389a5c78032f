#pragma once

#include <cstdint>

namespace varnel {

// A 64-bit integer kept as two 32-bit halves, so that a struct holding it needs only
// 4-byte alignment. Reads and writes go through copies, so nothing ever refers to a
// misaligned 64-bit value (a packed struct would let references bind to one).
class SplitInt64 {
public:
    constexpr SplitInt64(std::int64_t value = 0) noexcept  // NOLINT(google-explicit-constructor): a number
        : low_(static_cast<std::uint32_t>(value)),
          high_(static_cast<std::uint32_t>(static_cast<std::uint64_t>(value) >> 32)) {}
    constexpr operator std::int64_t() const noexcept {  // NOLINT(google-explicit-constructor)
        return static_cast<std::int64_t>((static_cast<std::uint64_t>(high_) << 32) | low_);
    }

private:
    std::uint32_t low_;
    std::uint32_t high_;
};

}  // namespace varnel
