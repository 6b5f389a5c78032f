#pragma once

#include <concepts>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace varnel {

// An optional value kept behind one pointer, for values that millions of scanned
// entries hold but few have (a link's target): 8 bytes where std::optional<std::string>
// takes 40. Copies copy the value; the interface is the part of std::optional in use.
template <typename T>
class BoxedOptional {
public:
    BoxedOptional() = default;
    BoxedOptional(std::nullopt_t) {}  // NOLINT(google-explicit-constructor): reads like an optional
    template <typename U>
        requires(!std::same_as<std::remove_cvref_t<U>, BoxedOptional> &&
                 !std::same_as<std::remove_cvref_t<U>, std::nullopt_t> && std::constructible_from<T, U &&>)
    BoxedOptional(U&& value)  // NOLINT(google-explicit-constructor)
        : value_(std::make_unique<T>(std::forward<U>(value))) {}
    BoxedOptional(const std::optional<T>& value)  // NOLINT(google-explicit-constructor)
        : value_(value ? std::make_unique<T>(*value) : nullptr) {}
    BoxedOptional(const BoxedOptional& other) : value_(other ? std::make_unique<T>(*other) : nullptr) {}
    BoxedOptional(BoxedOptional&&) noexcept = default;
    BoxedOptional& operator=(BoxedOptional other) noexcept {
        value_ = std::move(other.value_);
        return *this;
    }
    ~BoxedOptional() = default;

    bool has_value() const { return value_ != nullptr; }
    explicit operator bool() const { return has_value(); }
    const T& operator*() const { return *value_; }
    const T* operator->() const { return value_.get(); }
    template <typename U>
    T value_or(U&& fallback) const {
        return value_ ? *value_ : T(std::forward<U>(fallback));
    }
    void reset() { value_.reset(); }

    friend bool operator==(const BoxedOptional& a, const BoxedOptional& b) { return a ? (b && *a == *b) : !b; }
    friend bool operator==(const BoxedOptional& a, std::nullopt_t) { return !a; }
    template <typename U>
        requires(!std::same_as<U, BoxedOptional> && !std::same_as<U, std::nullopt_t>)
    friend bool operator==(const BoxedOptional& a, const U& b) {
        return a && *a == b;
    }

private:
    std::unique_ptr<T> value_;
};

}  // namespace varnel
