#pragma once

#include <nlohmann/json_fwd.hpp>

#include <compare>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace varnel {

// The position of an item below an endpoint root: components joined by "/", no leading
// or trailing "/", no empty, "." or ".." component. The root is the empty path.
//
// The stored value is exactly what was given. Equality, hashing and ordering use the
// canonical (NFC) form, so a decomposed name equals its precomposed spelling; case
// stays significant.
class RelativePath {
public:
    RelativePath() = default;  // the root
    RelativePath(const RelativePath& other)
        : value_(other.value_), canonical_(other.canonical_ ? std::make_unique<std::string>(*other.canonical_) : nullptr) {}
    RelativePath(RelativePath&&) noexcept = default;
    RelativePath& operator=(const RelativePath& other) {
        if (this != &other) *this = RelativePath(other);
        return *this;
    }
    RelativePath& operator=(RelativePath&&) noexcept = default;
    ~RelativePath() = default;

    static std::optional<RelativePath> fromString(std::string_view value);
    static std::optional<RelativePath> fromComponents(const std::vector<std::string>& components);
    static bool isValidComponent(std::string_view name);

    // The child `name` of this path, or none when `name` is not a valid component.
    std::optional<RelativePath> appending(std::string_view name) const;

    bool isRoot() const { return value_.empty(); }
    const std::string& value() const { return value_; }
    // The value, with the root shown as "/" (used in every message).
    std::string description() const { return isRoot() ? std::string("/") : value_; }

    // The containing path; the root for a single component and for the root itself.
    RelativePath parent() const;
    // The text after the last "/", or the whole value; "" for the root.
    std::string_view lastComponent() const;
    std::vector<std::string_view> components() const;
    // Whether `other` lies strictly below this path.
    bool isAncestorOf(const RelativePath& other) const;

    // The NFC form that comparisons use.
    const std::string& canonicalValue() const { return canonical_ ? *canonical_ : value_; }

    friend bool operator==(const RelativePath& a, const RelativePath& b) {
        return a.canonicalValue() == b.canonicalValue();
    }
    // Byte order of UTF-8 equals the order of Unicode scalar values.
    friend std::strong_ordering operator<=>(const RelativePath& a, const RelativePath& b) {
        return a.canonicalValue().compare(b.canonicalValue()) <=> 0;
    }

private:
    RelativePath(std::string value, std::string canonical)
        : value_(std::move(value)),
          canonical_(canonical.empty() ? nullptr : std::make_unique<std::string>(std::move(canonical))) {}
    static std::string canonicalFormOf(std::string_view value);
    static std::string canonicalFormOfPath(std::string_view value);

    std::string value_;
    // Absent when value_ is already canonical, as nearly every name is; a pointer keeps
    // the millions of paths a scan holds small.
    std::unique_ptr<std::string> canonical_;
};

void to_json(nlohmann::json& json, const RelativePath& path);
// Throws DecodingError("Invalid relative path: <string>") for an invalid string.
void from_json(const nlohmann::json& json, RelativePath& path);

}  // namespace varnel

template <>
struct std::hash<varnel::RelativePath> {
    std::size_t operator()(const varnel::RelativePath& path) const noexcept {
        return std::hash<std::string>{}(path.canonicalValue());
    }
};
