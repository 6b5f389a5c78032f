#pragma once
// Helpers that many test files would otherwise each define for themselves.

#include "common/Date.hpp"
#include "model/RelativePath.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>

namespace varnel::testing {

// A relative path written out by the test itself (throws when it is malformed).
inline RelativePath rel(const std::string& value) { return RelativePath::fromString(value).value(); }

// The lstat of `path`; the test fails when there is nothing there.
inline struct stat statOf(const std::filesystem::path& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
}

// A clock that always shows the moment it was given.
struct FixedClock final : Clock {
    explicit FixedClock(Date moment) : instant(moment) {}
    Date now() const override { return instant; }
    Date instant;
};

// The names of the items directly inside `folder`.
inline std::set<std::string> namesIn(const std::filesystem::path& folder) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.insert(entry.path().filename().string());
    return names;
}

// The error of type E that `call` throws. When it throws nothing, this throws instead,
// which fails the test.
template <class E>
E thrownBy(const std::function<void()>& call) {
    try {
        call();
    } catch (const E& error) {
        return error;
    }
    throw std::logic_error("the call was expected to throw and returned");
}

}  // namespace varnel::testing
