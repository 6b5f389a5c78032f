#pragma once

#include "scan/FileTimestamp.hpp"

#include <compare>
#include <cstdint>
#include <optional>
#include <utility>

namespace varnel {

namespace detail {

// One word that holds a file time, or no time (0). A time from late 1823 to early 2116,
// which is every time a camera, an editor or a sane clock writes, is kept inline as its
// count of nanoseconds since 1970 with the low bit set; any other valid time (a broken
// clock's, or a file system's "year 1601") lives behind a pointer, whose low bit is clear.
// Every scanned entry holds two times, and a scan holds hundreds of thousands of entries:
// a word takes 8 bytes where a FileTimestamp takes 12.
class TimestampWord {
public:
    static constexpr std::uint64_t kAbsent = 0;

    static std::uint64_t encode(const FileTimestamp& time);
    static FileTimestamp decode(std::uint64_t word);
    // A word holding the same time as `word`, which stays valid.
    static std::uint64_t copy(std::uint64_t word);
    static void release(std::uint64_t word);
    static bool isInline(std::uint64_t word) { return (word & 1U) != 0; }
    // Whether two words hold the same time.
    static bool equal(std::uint64_t a, std::uint64_t b) {
        if (isInline(a) && isInline(b)) return a == b;
        if (a == kAbsent || b == kAbsent) return a == b;
        return decode(a) == decode(b);
    }
};

}  // namespace detail

// A file time in one word, for the modification time every scanned entry holds. Reads
// give a FileTimestamp by value; the interface is that of the time it holds.
class PackedTimestamp {
public:
    PackedTimestamp() : PackedTimestamp(FileTimestamp{}) {}
    PackedTimestamp(const FileTimestamp& time)  // NOLINT(google-explicit-constructor): holds a time
        : word_(detail::TimestampWord::encode(time)) {}
    PackedTimestamp(const PackedTimestamp& other) : word_(detail::TimestampWord::copy(other.word_)) {}
    PackedTimestamp(PackedTimestamp&& other) noexcept : word_(std::exchange(other.word_, kZeroTime)) {}
    PackedTimestamp& operator=(PackedTimestamp other) noexcept {
        std::swap(word_, other.word_);
        return *this;
    }
    ~PackedTimestamp() { detail::TimestampWord::release(word_); }

    FileTimestamp value() const { return detail::TimestampWord::decode(word_); }
    operator FileTimestamp() const { return value(); }  // NOLINT(google-explicit-constructor)
    std::int64_t seconds() const { return value().seconds; }

    friend bool operator==(const PackedTimestamp& a, const PackedTimestamp& b) {
        return detail::TimestampWord::equal(a.word_, b.word_);
    }
    friend std::strong_ordering operator<=>(const PackedTimestamp& a, const PackedTimestamp& b) {
        return a.value() <=> b.value();
    }
    friend bool operator==(const PackedTimestamp& a, const FileTimestamp& b) { return a.value() == b; }
    friend std::strong_ordering operator<=>(const PackedTimestamp& a, const FileTimestamp& b) {
        return a.value() <=> b;
    }

private:
    static constexpr std::uint64_t kZeroTime = 1;  // 1970-01-01 00:00:00 UTC, inline
    std::uint64_t word_;
};

// An optional file time in one word, for the birth time every scanned entry holds. The
// interface is the part of std::optional in use; `*` gives the time by value.
class OptionalPackedTimestamp {
public:
    OptionalPackedTimestamp() = default;
    OptionalPackedTimestamp(std::nullopt_t) {}  // NOLINT(google-explicit-constructor)
    OptionalPackedTimestamp(const FileTimestamp& time)  // NOLINT(google-explicit-constructor)
        : word_(detail::TimestampWord::encode(time)) {}
    OptionalPackedTimestamp(const std::optional<FileTimestamp>& time)  // NOLINT(google-explicit-constructor)
        : word_(time ? detail::TimestampWord::encode(*time) : detail::TimestampWord::kAbsent) {}
    OptionalPackedTimestamp(const OptionalPackedTimestamp& other)
        : word_(detail::TimestampWord::copy(other.word_)) {}
    OptionalPackedTimestamp(OptionalPackedTimestamp&& other) noexcept
        : word_(std::exchange(other.word_, detail::TimestampWord::kAbsent)) {}
    OptionalPackedTimestamp& operator=(OptionalPackedTimestamp other) noexcept {
        std::swap(word_, other.word_);
        return *this;
    }
    ~OptionalPackedTimestamp() { detail::TimestampWord::release(word_); }

    bool has_value() const { return word_ != detail::TimestampWord::kAbsent; }
    explicit operator bool() const { return has_value(); }
    FileTimestamp operator*() const { return detail::TimestampWord::decode(word_); }

    friend bool operator==(const OptionalPackedTimestamp& a, const OptionalPackedTimestamp& b) {
        return detail::TimestampWord::equal(a.word_, b.word_);
    }

private:
    std::uint64_t word_ = detail::TimestampWord::kAbsent;
};

void to_json(nlohmann::json& json, const PackedTimestamp& timestamp);

}  // namespace varnel
