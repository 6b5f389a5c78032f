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
// count of nanoseconds since 1970 with the low bit set; any other (a broken clock's, a
// file system's "year 1601", a nanosecond count out of range) lives behind a pointer,
// whose low bit is clear, and comes back exactly as given.
// Every scanned entry holds two times, and a scan holds hundreds of thousands of entries:
// a word takes 8 bytes where a FileTimestamp takes 12.
class TimestampWord {
public:
    static constexpr std::uint64_t kAbsent = 0;

    // Every scanned entry makes, moves and drops words several times: the inline cases
    // stay here, where the compiler sees them, and only boxed times take a call.
    static std::uint64_t encode(const FileTimestamp& time) {
        const bool validNanoseconds = time.nanoseconds >= 0 && time.nanoseconds < kNanosecondsPerSecond;
        if (validNanoseconds && time.seconds >= -kInlineSecondsLimit && time.seconds <= kInlineSecondsLimit) {
            const std::int64_t count = time.seconds * kNanosecondsPerSecond + time.nanoseconds;
            return (static_cast<std::uint64_t>(count) << 1) | 1U;
        }
        return box(time);
    }
    static FileTimestamp decode(std::uint64_t word);
    // A word holding the same time as `word`, which stays valid.
    static std::uint64_t copy(std::uint64_t word) { return isBoxed(word) ? box(unbox(word)) : word; }
    static void release(std::uint64_t word) {
        if (isBoxed(word)) freeBox(word);
    }
    static bool isInline(std::uint64_t word) { return (word & 1U) != 0; }
    // Whether two words hold the same time.
    static bool equal(std::uint64_t a, std::uint64_t b) {
        if (isInline(a) && isInline(b)) return a == b;
        if (a == kAbsent || b == kAbsent) return a == b;
        return decode(a) == decode(b);
    }

private:
    static constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
    // Inline counts are 63-bit signed numbers of nanoseconds: |count| < 2^62.
    static constexpr std::int64_t kInlineSecondsLimit = (std::int64_t{1} << 62) / kNanosecondsPerSecond - 1;

    static bool isBoxed(std::uint64_t word) { return word != kAbsent && !isInline(word); }
    static const FileTimestamp& unbox(std::uint64_t word) { return *reinterpret_cast<const FileTimestamp*>(word); }
    static std::uint64_t box(const FileTimestamp& time);
    static void freeBox(std::uint64_t word);
};

// Owns a word: a copy copies a boxed time, and each owner frees its own. A word moved
// from holds kMovedFrom.
template <std::uint64_t kMovedFrom>
class OwnedTimestampWord {
public:
    OwnedTimestampWord(const OwnedTimestampWord& other) : word_(TimestampWord::copy(other.word_)) {}
    OwnedTimestampWord(OwnedTimestampWord&& other) noexcept : word_(std::exchange(other.word_, kMovedFrom)) {}
    OwnedTimestampWord& operator=(OwnedTimestampWord other) noexcept {
        std::swap(word_, other.word_);
        return *this;
    }
    ~OwnedTimestampWord() { TimestampWord::release(word_); }

protected:
    explicit OwnedTimestampWord(std::uint64_t word) : word_(word) {}
    std::uint64_t word_;
};

inline constexpr std::uint64_t kZeroTimeWord = 1;  // 1970-01-01 00:00:00 UTC, inline

}  // namespace detail

// A file time in one word, for the modification time every scanned entry holds. Reads
// give a FileTimestamp by value; the interface is that of the time it holds.
class PackedTimestamp : private detail::OwnedTimestampWord<detail::kZeroTimeWord> {
public:
    PackedTimestamp() : OwnedTimestampWord(detail::kZeroTimeWord) {}
    PackedTimestamp(const FileTimestamp& time)  // NOLINT(google-explicit-constructor): holds a time
        : OwnedTimestampWord(detail::TimestampWord::encode(time)) {}

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
};

// An optional file time in one word, for the birth time every scanned entry holds. The
// interface is the part of std::optional in use; `*` gives the time by value.
class OptionalPackedTimestamp : private detail::OwnedTimestampWord<detail::TimestampWord::kAbsent> {
public:
    OptionalPackedTimestamp() : OwnedTimestampWord(detail::TimestampWord::kAbsent) {}
    OptionalPackedTimestamp(std::nullopt_t) : OptionalPackedTimestamp() {}  // NOLINT(google-explicit-constructor)
    OptionalPackedTimestamp(const FileTimestamp& time)  // NOLINT(google-explicit-constructor)
        : OwnedTimestampWord(detail::TimestampWord::encode(time)) {}
    OptionalPackedTimestamp(const std::optional<FileTimestamp>& time)  // NOLINT(google-explicit-constructor)
        : OwnedTimestampWord(time ? detail::TimestampWord::encode(*time) : detail::TimestampWord::kAbsent) {}

    bool has_value() const { return word_ != detail::TimestampWord::kAbsent; }
    explicit operator bool() const { return has_value(); }
    FileTimestamp operator*() const { return detail::TimestampWord::decode(word_); }

    friend bool operator==(const OptionalPackedTimestamp& a, const OptionalPackedTimestamp& b) {
        return detail::TimestampWord::equal(a.word_, b.word_);
    }
};

void to_json(nlohmann::json& json, const PackedTimestamp& timestamp);

}  // namespace varnel
