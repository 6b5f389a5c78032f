#pragma once

#include "common/SplitInt64.hpp"

#include <nlohmann/json_fwd.hpp>

#include <compare>
#include <cstdint>
#include <ctime>
#include <optional>

namespace varnel {

// A file time as the file system reports it: seconds since 1970 UTC and 0...999,999,999 ns.
// 12 bytes on a 4-byte boundary; a scanned entry keeps its times packed tighter still
// (PackedTimestamp).
struct FileTimestamp {
    SplitInt64 seconds = 0;
    std::int32_t nanoseconds = 0;

    static FileTimestamp fromTimespec(const timespec& value) {
        return FileTimestamp{static_cast<std::int64_t>(value.tv_sec), static_cast<std::int32_t>(value.tv_nsec)};
    }
    timespec toTimespec() const {
        return timespec{static_cast<time_t>(seconds), static_cast<long>(nanoseconds)};
    }

    friend auto operator<=>(const FileTimestamp&, const FileTimestamp&) = default;
    friend bool operator==(const FileTimestamp&, const FileTimestamp&) = default;
};
static_assert(sizeof(FileTimestamp) == 12);

// An optional time in the room of one: absence is a nanosecond count no time has, where
// std::optional would add 4 bytes.
class OptionalTimestamp {
public:
    OptionalTimestamp() = default;
    OptionalTimestamp(std::nullopt_t) {}                   // NOLINT(google-explicit-constructor)
    OptionalTimestamp(FileTimestamp time) : time_(time) {}  // NOLINT(google-explicit-constructor)
    OptionalTimestamp(const std::optional<FileTimestamp>& time)  // NOLINT(google-explicit-constructor)
        : time_(time.value_or(kAbsent)) {}

    bool has_value() const { return time_.nanoseconds != kAbsent.nanoseconds; }
    explicit operator bool() const { return has_value(); }
    const FileTimestamp& operator*() const { return time_; }
    const FileTimestamp* operator->() const { return &time_; }

    friend bool operator==(const OptionalTimestamp&, const OptionalTimestamp&) = default;

private:
    static constexpr FileTimestamp kAbsent{0, -1};
    FileTimestamp time_ = kAbsent;
};

void to_json(nlohmann::json& json, const FileTimestamp& timestamp);
void from_json(const nlohmann::json& json, FileTimestamp& timestamp);

}  // namespace varnel
