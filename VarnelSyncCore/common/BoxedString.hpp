#pragma once

#include "common/BoxedOptional.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace varnel {

// A string behind one pointer, for the rare text of a value that a plan holds once per
// item (an action's reason): 8 bytes where std::string takes 32, and so where the
// largest case would set the size of every reason. The empty string takes no box.
class BoxedString {
public:
    BoxedString() = default;
    BoxedString(std::string value)  // NOLINT(google-explicit-constructor): stands in for a string
        : value_(value.empty() ? BoxedOptional<std::string>() : BoxedOptional<std::string>(std::move(value))) {}
    BoxedString(std::string_view value) : BoxedString(std::string(value)) {}  // NOLINT(google-explicit-constructor)
    BoxedString(const char* value) : BoxedString(std::string(value)) {}       // NOLINT(google-explicit-constructor)

    std::string_view view() const { return value_ ? std::string_view(*value_) : std::string_view(); }
    std::string str() const { return std::string(view()); }

    friend bool operator==(const BoxedString& a, const BoxedString& b) { return a.view() == b.view(); }

private:
    BoxedOptional<std::string> value_;  // absent for the empty string
};

}  // namespace varnel
