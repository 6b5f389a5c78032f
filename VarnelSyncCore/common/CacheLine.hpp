#pragma once

#include <cstddef>

namespace varnel {

// The span of memory that processors pass between them as one: data that one thread
// writes often and another reads often goes on lines of its own. 64 bytes on x86-64 and
// most ARM cores; std::hardware_destructive_interference_size would say the same, but
// GCC warns that it may differ between compilers and tuning flags.
inline constexpr std::size_t kCacheLineBytes = 64;

}  // namespace varnel
