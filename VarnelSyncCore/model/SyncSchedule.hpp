#pragma once

#include "common/Date.hpp"

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace varnel {

// When a profile runs by itself. Fields a kind does not use keep their values, so
// switching kinds in the editor loses nothing.
struct SyncSchedule {
    enum class Kind { off, hourly, daily, weekly, whenConnected };

    Kind kind = Kind::off;
    int intervalHours = 6;  // hourly
    int hour = 21;          // daily and weekly, 0...23
    int minute = 0;         // daily and weekly, 0...59
    int weekday = 1;        // weekly: 1 = Sunday ... 7 = Saturday
    Date since{};           // the earliest time the schedule counts from; 1970-01-01T00:00:00Z

    // When the schedule is next due after a run that ended at `lastRun` (none: never ran),
    // or none for `off` and `whenConnected`. Daily and weekly times are wall-clock times
    // in the user's current calendar and time zone.
    std::optional<Date> nextRunDate(std::optional<Date> lastRun) const;
    // The same in a named IANA time zone ("Europe/Berlin"); throws std::invalid_argument
    // for a name the time-zone database does not know.
    std::optional<Date> nextRunDate(std::optional<Date> lastRun, const std::string& timeZoneIdentifier) const;

    friend bool operator==(const SyncSchedule&, const SyncSchedule&) = default;
};

std::string_view toString(SyncSchedule::Kind kind);
std::optional<SyncSchedule::Kind> parseSyncScheduleKind(std::string_view raw);
// Picker names: "Off", "Every Few Hours", "Daily", "Weekly", "When the Drive Is Connected".
std::string displayName(SyncSchedule::Kind kind);

// Keys are the field names, all required; `since` is an ISO 8601 string.
void to_json(nlohmann::json& json, const SyncSchedule& schedule);
void from_json(const nlohmann::json& json, SyncSchedule& schedule);

}  // namespace varnel
