#include "model/SyncSchedule.hpp"

#include "common/Localization.hpp"
#include "model/JSONFields.hpp"

#include <unicode/calendar.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <memory>
#include <stdexcept>
#include <utility>

namespace varnel {

namespace {

using Kind = SyncSchedule::Kind;

constexpr std::array<std::pair<Kind, std::string_view>, 5> kKinds{{
    {Kind::off, "off"},
    {Kind::hourly, "hourly"},
    {Kind::daily, "daily"},
    {Kind::weekly, "weekly"},
    {Kind::whenConnected, "whenConnected"},
}};

// A stored interval outside this range would either fall due continuously (0 or less)
// or overflow the clock; a century is more than any schedule means.
constexpr int kLongestIntervalHours = 24 * 366 * 100;

UDate toUDate(Date date) {
    return static_cast<UDate>(
        std::chrono::floor<std::chrono::milliseconds>(date).time_since_epoch().count());
}

Date fromUDate(UDate millis) {
    return Date(std::chrono::milliseconds(static_cast<std::int64_t>(std::llround(millis))));
}

std::optional<Date> nextHourly(Date base, int intervalHours) {
    const auto interval = std::chrono::hours(std::clamp(intervalHours, 1, kLongestIntervalHours));
    if (base > Date::max() - interval) return std::nullopt;
    return base + interval;
}

// The first wall-clock time hour:minute (on `weekday` when given) strictly after `base`.
// A time inside a daylight-saving gap resolves to the first time that exists after it;
// a time that occurs twice resolves to its first occurrence.
std::optional<Date> nextWallClockMatch(Date base, int hour, int minute, std::optional<int> weekday,
                                       icu::TimeZone* zoneToAdopt) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Calendar> calendar(icu::Calendar::createInstance(zoneToAdopt, status));
    if (U_FAILURE(status) || !calendar) {
        throw std::runtime_error(std::string("The calendar could not be created: ") + u_errorName(status));
    }
    calendar->setLenient(true);
    calendar->setSkippedWallTimeOption(UCAL_WALLTIME_NEXT_VALID);
    calendar->setRepeatedWallTimeOption(UCAL_WALLTIME_FIRST);

    const UDate baseMillis = toUDate(base);
    // A week and a day covers every weekday plus a day lost to a gap at midnight.
    const int daysToSearch = weekday ? 15 : 8;
    for (int offset = 0; offset < daysToSearch; ++offset) {
        calendar->setTime(baseMillis, status);
        calendar->add(UCAL_DATE, offset, status);
        if (weekday && calendar->get(UCAL_DAY_OF_WEEK, status) != *weekday) continue;
        calendar->set(UCAL_HOUR_OF_DAY, hour);
        calendar->set(UCAL_MINUTE, minute);
        calendar->set(UCAL_SECOND, 0);
        calendar->set(UCAL_MILLISECOND, 0);
        const UDate candidate = calendar->getTime(status);
        if (U_FAILURE(status)) {
            throw std::runtime_error(std::string("The calendar could not compute a date: ") + u_errorName(status));
        }
        const Date date = fromUDate(candidate);
        if (date > base) return date;
    }
    return std::nullopt;
}

std::optional<Date> nextRun(const SyncSchedule& schedule, std::optional<Date> lastRun,
                            const std::function<icu::TimeZone*()>& makeZone) {
    const Date base = std::max(lastRun.value_or(distantPast()), schedule.since);
    switch (schedule.kind) {
        case Kind::off:
        case Kind::whenConnected:
            return std::nullopt;
        case Kind::hourly:
            return nextHourly(base, schedule.intervalHours);
        case Kind::daily:
        case Kind::weekly:
            break;
    }
    // A time of day or weekday no clock shows can never fall due; searching for it would not end.
    const bool weekly = schedule.kind == Kind::weekly;
    if (schedule.hour < 0 || schedule.hour > 23 || schedule.minute < 0 || schedule.minute > 59 ||
        (weekly && (schedule.weekday < 1 || schedule.weekday > 7))) {
        return std::nullopt;
    }
    return nextWallClockMatch(base, schedule.hour, schedule.minute,
                              weekly ? std::optional<int>(schedule.weekday) : std::nullopt, makeZone());
}

}  // namespace

std::optional<Date> SyncSchedule::nextRunDate(std::optional<Date> lastRun) const {
    // Detected on every call rather than cached, so a change of time zone while the
    // application runs is honoured at the next computation.
    return nextRun(*this, lastRun, [] { return icu::TimeZone::detectHostTimeZone(); });
}

std::optional<Date> SyncSchedule::nextRunDate(std::optional<Date> lastRun,
                                              const std::string& timeZoneIdentifier) const {
    std::unique_ptr<icu::TimeZone> zone(
        icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(timeZoneIdentifier)));
    icu::UnicodeString id;
    if (!zone || zone->getID(id) == icu::UnicodeString(UCAL_UNKNOWN_ZONE_ID)) {
        throw std::invalid_argument("Unknown time zone: " + timeZoneIdentifier);
    }
    return nextRun(*this, lastRun, [&zone] { return zone.release(); });
}

std::string_view toString(SyncSchedule::Kind kind) {
    for (const auto& [value, raw] : kKinds) {
        if (value == kind) return raw;
    }
    return "off";
}

std::optional<SyncSchedule::Kind> parseSyncScheduleKind(std::string_view raw) {
    for (const auto& [value, name] : kKinds) {
        if (name == raw) return value;
    }
    return std::nullopt;
}

std::string displayName(SyncSchedule::Kind kind) {
    switch (kind) {
        case Kind::off: return tr("Off");
        case Kind::hourly: return tr("Every Few Hours");
        case Kind::daily: return tr("Daily");
        case Kind::weekly: return tr("Weekly");
        case Kind::whenConnected: return tr("When the Drive Is Connected");
    }
    return tr("Off");
}

void to_json(nlohmann::json& json, const SyncSchedule& schedule) {
    json = nlohmann::json{
        {"kind", toString(schedule.kind)},
        {"intervalHours", schedule.intervalHours},
        {"hour", schedule.hour},
        {"minute", schedule.minute},
        {"weekday", schedule.weekday},
        {"since", formatISO8601(schedule.since)},
    };
}

void from_json(const nlohmann::json& json, SyncSchedule& schedule) {
    using namespace json_fields;
    requireObject(json, "schedule");
    const auto kindText = asString(require(json, "kind"), "kind");
    const auto kind = parseSyncScheduleKind(kindText);
    if (!kind) throw DecodingError("“kind”: unknown schedule kind “" + kindText + "”.");
    schedule.kind = *kind;
    schedule.intervalHours = asInteger<int>(require(json, "intervalHours"), "intervalHours");
    schedule.hour = asInteger<int>(require(json, "hour"), "hour");
    schedule.minute = asInteger<int>(require(json, "minute"), "minute");
    schedule.weekday = asInteger<int>(require(json, "weekday"), "weekday");
    schedule.since = asDate(require(json, "since"), "since");
}

}  // namespace varnel
