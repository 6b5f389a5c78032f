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

// The text after the last "/" of a path, or the whole path when it has none.
inline std::string_view lastComponentOf(std::string_view path) {
    const std::size_t slash = lastIndexOf(path, '/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

}  // namespace varnel
