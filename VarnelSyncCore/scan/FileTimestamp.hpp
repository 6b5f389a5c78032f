#pragma once

#include <nlohmann/json_fwd.hpp>

#include <compare>
#include <cstdint>
#include <ctime>

namespace varnel {

// A file time as the file system reports it: seconds since 1970 UTC and 0...999,999,999 ns.
struct FileTimestamp {
    std::int64_t seconds = 0;
    std::int64_t nanoseconds = 0;

    static FileTimestamp fromTimespec(const timespec& value) {
        return FileTimestamp{static_cast<std::int64_t>(value.tv_sec), static_cast<std::int64_t>(value.tv_nsec)};
    }
    timespec toTimespec() const {
        return timespec{static_cast<time_t>(seconds), static_cast<long>(nanoseconds)};
    }

    friend auto operator<=>(const FileTimestamp&, const FileTimestamp&) = default;
    friend bool operator==(const FileTimestamp&, const FileTimestamp&) = default;
};

void to_json(nlohmann::json& json, const FileTimestamp& timestamp);
void from_json(const nlohmann::json& json, FileTimestamp& timestamp);

}  // namespace varnel
