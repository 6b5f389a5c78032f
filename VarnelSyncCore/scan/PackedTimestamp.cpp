#include "scan/PackedTimestamp.hpp"

#include <nlohmann/json.hpp>

namespace varnel::detail {

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
// Inline counts are 63-bit signed numbers of nanoseconds: |count| < 2^62.
constexpr std::int64_t kInlineLimit = std::int64_t{1} << 62;
constexpr std::int64_t kInlineSecondsLimit = kInlineLimit / kNanosecondsPerSecond - 1;

}  // namespace

std::uint64_t TimestampWord::encode(const FileTimestamp& time) {
    const std::int64_t seconds = time.seconds;
    const bool validNanoseconds = time.nanoseconds >= 0 && time.nanoseconds < kNanosecondsPerSecond;
    if (validNanoseconds && seconds >= -kInlineSecondsLimit && seconds <= kInlineSecondsLimit) {
        const std::int64_t count = seconds * kNanosecondsPerSecond + time.nanoseconds;
        return (static_cast<std::uint64_t>(count) << 1) | 1U;
    }
    return reinterpret_cast<std::uint64_t>(new FileTimestamp(time));
}

FileTimestamp TimestampWord::decode(std::uint64_t word) {
    if (!isInline(word)) return *reinterpret_cast<const FileTimestamp*>(word);
    const std::int64_t count = static_cast<std::int64_t>(word) >> 1;  // arithmetic: C++20
    std::int64_t seconds = count / kNanosecondsPerSecond;
    std::int64_t nanoseconds = count % kNanosecondsPerSecond;
    if (nanoseconds < 0) {  // before 1970: the nanoseconds still count forward
        --seconds;
        nanoseconds += kNanosecondsPerSecond;
    }
    return FileTimestamp{seconds, static_cast<std::int32_t>(nanoseconds)};
}

std::uint64_t TimestampWord::copy(std::uint64_t word) {
    if (word == kAbsent || isInline(word)) return word;
    return reinterpret_cast<std::uint64_t>(new FileTimestamp(decode(word)));
}

void TimestampWord::release(std::uint64_t word) {
    if (word != kAbsent && !isInline(word)) delete reinterpret_cast<FileTimestamp*>(word);
}

}  // namespace varnel::detail

namespace varnel {

void to_json(nlohmann::json& json, const PackedTimestamp& timestamp) { to_json(json, timestamp.value()); }

}  // namespace varnel
