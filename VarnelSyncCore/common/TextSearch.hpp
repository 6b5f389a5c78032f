#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace varnel {

// Where `text` last holds `c`, or npos. Paths are cut at their last "/" for every scanned
// item and every planned action; a view's rfind compares a byte at a time from the end,
// where the C library's memrchr compares a vector of them at once.
inline std::size_t lastIndexOf(std::string_view text, char c) {
#ifdef __GLIBC__
    if (text.empty()) return std::string_view::npos;
    const void* found = ::memrchr(text.data(), c, text.size());
    return found == nullptr ? std::string_view::npos : static_cast<const char*>(found) - text.data();
#else
    return text.rfind(c);
#endif
}

}  // namespace varnel
