#pragma once

#include <optional>

namespace varnel {

// An optional enumeration in the room of the enumeration itself: absence is a value no
// enumerator has. A scanned entry holds one, where std::optional would add a byte and,
// through padding, often eight. The interface is the part of std::optional in use.
template <typename Enum, Enum kAbsent>
class CompactOptional {
public:
    constexpr CompactOptional() = default;
    constexpr CompactOptional(std::nullopt_t) {}             // NOLINT(google-explicit-constructor)
    constexpr CompactOptional(Enum value) : value_(value) {}  // NOLINT(google-explicit-constructor)
    constexpr CompactOptional(const std::optional<Enum>& value)  // NOLINT(google-explicit-constructor)
        : value_(value.value_or(kAbsent)) {}

    constexpr bool has_value() const { return value_ != kAbsent; }
    constexpr explicit operator bool() const { return has_value(); }
    constexpr Enum operator*() const { return value_; }
    constexpr Enum value_or(Enum fallback) const { return has_value() ? value_ : fallback; }
    constexpr void reset() { value_ = kAbsent; }

    friend constexpr bool operator==(CompactOptional, CompactOptional) = default;

private:
    Enum value_ = kAbsent;
};

}  // namespace varnel
