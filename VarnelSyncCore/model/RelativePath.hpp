#pragma once

#include <nlohmann/json_fwd.hpp>

#include <atomic>
#include <compare>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace varnel {

class PathArena;

// The position of an item below an endpoint root: components joined by "/", no leading
// or trailing "/", no empty, "." or ".." component. The root is the empty path.
//
// The stored value is exactly what was given. Equality, hashing and ordering use the
// canonical (NFC) form, so a decomposed name equals its precomposed spelling; case
// stays significant. A path is one pointer; copies share the text.
class RelativePath {
public:
    RelativePath() = default;  // the root
    RelativePath(const RelativePath& other) noexcept : text_(other.text_) { retain(); }
    RelativePath(RelativePath&& other) noexcept : text_(std::exchange(other.text_, nullptr)) {}
    RelativePath& operator=(RelativePath other) noexcept {
        std::swap(text_, other.text_);
        return *this;
    }
    ~RelativePath() { release(); }

    static std::optional<RelativePath> fromString(std::string_view value);
    static std::optional<RelativePath> fromComponents(const std::vector<std::string>& components);
    static bool isValidComponent(std::string_view name);

    // The child `name` of this path, or none when `name` is not a valid component. With an
    // arena (whose handle the caller owns), the child's text is kept there.
    std::optional<RelativePath> appending(std::string_view name, PathArena* arena = nullptr) const;

    bool isRoot() const { return text_ == nullptr; }
    std::string_view value() const {
        return text_ ? std::string_view(text_->bytes(), text_->size()) : std::string_view();
    }
    // The value, with the root shown as "/" (used in every message).
    std::string description() const { return isRoot() ? std::string("/") : std::string(value()); }

    // The containing path; the root for a single component and for the root itself.
    RelativePath parent() const;
    // The text after the last "/", or the whole value; "" for the root.
    std::string_view lastComponent() const;
    std::vector<std::string_view> components() const;
    // Whether `other` lies strictly below this path.
    bool isAncestorOf(const RelativePath& other) const;

    // Starts loading the text into cache, for loops that read many paths in a row.
    void prefetch() const { __builtin_prefetch(text_); }

    // The NFC form that comparisons use.
    std::string_view canonicalValue() const { return text_ ? text_->canonical() : std::string_view(); }
    // Whether the value is its own canonical form (as nearly every scanned path's is).
    bool valueIsCanonical() const { return text_ == nullptr || !text_->hasCanonical(); }
    // Whether both name their path with one and the same text.
    bool sharesTextWith(const RelativePath& other) const { return text_ == other.text_; }

    friend bool operator==(const RelativePath& a, const RelativePath& b) {
        return a.text_ == b.text_ || a.canonicalValue() == b.canonicalValue();
    }
    // Byte order of UTF-8 equals the order of Unicode scalar values.
    friend std::strong_ordering operator<=>(const RelativePath& a, const RelativePath& b) {
        return a.canonicalValue().compare(b.canonicalValue()) <=> 0;
    }

private:
    // One immutable block per path, shared by every copy: a plan, its log records and
    // its warnings name the same hundreds of thousands of paths a scan holds, and each
    // copy costs a reference count instead of a string. The value's bytes follow the
    // size word; when the canonical form differs (rare), its size and bytes follow them.
    // A block lives in a PathArena that counts for it, or on the heap behind a reference
    // count of its own (the 4 bytes before the text).
    class Text {
    public:
        // The value is `parent` + "/" + `name`, or `name` alone when `parent` is empty.
        static Text* make(std::string_view parent, std::string_view name, std::string_view canonical,
                          PathArena* arena);
        void retain();
        // Drops one reference; a heap block frees itself with its last.
        void release();
        std::uint32_t size() const { return size_ & ~(kHasCanonical | kInArena); }
        bool hasCanonical() const { return (size_ & kHasCanonical) != 0; }
        const char* bytes() const { return reinterpret_cast<const char*>(this + 1); }
        std::string_view canonical() const;

    private:
        static constexpr std::uint32_t kHasCanonical = 0x8000'0000U;
        static constexpr std::uint32_t kInArena = 0x4000'0000U;
        using Count = std::atomic<std::uint32_t>;
        bool inArena() const { return (size_ & kInArena) != 0; }
        // A heap block's count and the start of its allocation.
        Count* references() {
            return std::launder(reinterpret_cast<Count*>(reinterpret_cast<char*>(this) - sizeof(Count)));
        }
        std::uint32_t size_ = 0;
    };

    RelativePath(std::string_view parent, std::string_view name, std::string_view canonical,
                 PathArena* arena = nullptr)
        : text_(Text::make(parent, name, canonical, arena)) {}
    void retain() const {
        if (text_) text_->retain();
    }
    void release() {
        if (text_) text_->release();
    }
    static std::string canonicalFormOf(std::string_view value);
    static std::string canonicalFormOfPath(std::string_view value);

    Text* text_ = nullptr;  // null for the root
};

void to_json(nlohmann::json& json, const RelativePath& path);
// Throws DecodingError("Invalid relative path: <string>") for an invalid string.
void from_json(const nlohmann::json& json, RelativePath& path);

}  // namespace varnel

template <>
struct std::hash<varnel::RelativePath> {
    std::size_t operator()(const varnel::RelativePath& path) const noexcept {
        return std::hash<std::string_view>{}(path.canonicalValue());
    }
};
