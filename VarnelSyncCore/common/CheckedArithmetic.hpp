#pragma once
// Overflow in size sums is a programming error, not a reported failure: these helpers
// stop the process with a message instead of wrapping around silently.

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace varnel {

[[noreturn]] inline void fatalOverflow(const char* what) {
    std::fprintf(stderr, "Varnel Sync: arithmetic overflow in %s\n", what);
    std::abort();
}

inline std::int64_t checkedAdd(std::int64_t a, std::int64_t b, const char* what = "size sum") {
    std::int64_t result = 0;
    if (__builtin_add_overflow(a, b, &result)) fatalOverflow(what);
    return result;
}

inline std::int64_t checkedMultiply(std::int64_t a, std::int64_t b, const char* what = "size product") {
    std::int64_t result = 0;
    if (__builtin_mul_overflow(a, b, &result)) fatalOverflow(what);
    return result;
}

// For unsigned operands that must land in a signed 64-bit byte count (statfs fields).
inline std::int64_t checkedMultiplyUnsigned(std::uint64_t a, std::uint64_t b, const char* what = "size product") {
    std::int64_t result = 0;
    if (__builtin_mul_overflow(a, b, &result)) fatalOverflow(what);
    return result;
}

}  // namespace varnel
