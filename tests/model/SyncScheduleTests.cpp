#include "model/SyncSchedule.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

namespace varnel {
namespace {

using Kind = SyncSchedule::Kind;

Date at(const char* iso) {
    return *parseISO8601(iso);
}

std::string next(const SyncSchedule& schedule, std::optional<Date> lastRun, const char* zone = "Europe/Berlin") {
    const auto date = schedule.nextRunDate(lastRun, zone);
    return date ? formatISO8601(*date) : "none";
}

SyncSchedule daily(int hour, int minute) {
    SyncSchedule schedule;
    schedule.kind = Kind::daily;
    schedule.hour = hour;
    schedule.minute = minute;
    return schedule;
}

TEST(SyncSchedule, HourlyCountsFromTheLaterOfLastRunAndSince) {
    SyncSchedule schedule;
    schedule.kind = Kind::hourly;
    schedule.intervalHours = 6;
    EXPECT_EQ(next(schedule, at("2026-03-01T10:00:00Z")), "2026-03-01T16:00:00Z");
    // Never run: counts from 1970, so it is due at once.
    EXPECT_EQ(next(schedule, std::nullopt), "1970-01-01T06:00:00Z");

    schedule.since = at("2026-03-02T08:00:00Z");
    EXPECT_EQ(next(schedule, at("2026-03-01T10:00:00Z")), "2026-03-02T14:00:00Z");
    EXPECT_EQ(next(schedule, std::nullopt), "2026-03-02T14:00:00Z");
}

TEST(SyncSchedule, OffAndWhenConnectedAreNeverDueByTheClock) {
    SyncSchedule schedule;
    EXPECT_EQ(next(schedule, std::nullopt), "none");
    schedule.kind = Kind::whenConnected;
    EXPECT_EQ(next(schedule, at("2026-03-01T10:00:00Z")), "none");
}

TEST(SyncSchedule, DailyIsTheNextWallClockMatchStrictlyAfterTheBase) {
    const SyncSchedule schedule = daily(21, 0);  // 20:00 UTC in Berlin's winter
    EXPECT_EQ(next(schedule, at("2026-01-15T10:00:00Z")), "2026-01-15T20:00:00Z");
    EXPECT_EQ(next(schedule, at("2026-01-15T20:00:00Z")), "2026-01-16T20:00:00Z");
    EXPECT_EQ(next(schedule, at("2026-01-15T21:30:00Z")), "2026-01-16T20:00:00Z");
    // The same wall-clock time is a different instant in another zone.
    EXPECT_EQ(next(schedule, at("2026-01-15T10:00:00Z"), "America/New_York"), "2026-01-16T02:00:00Z");
}

TEST(SyncSchedule, WeeklyMatchesWeekdayCountedFromSunday) {
    SyncSchedule schedule = daily(9, 15);
    schedule.kind = Kind::weekly;
    schedule.weekday = 2;  // Monday
    // Thursday 15 January 2026 -> Monday 19 January.
    EXPECT_EQ(next(schedule, at("2026-01-15T10:00:00Z")), "2026-01-19T08:15:00Z");
    // Exactly at the match: the week after.
    EXPECT_EQ(next(schedule, at("2026-01-19T08:15:00Z")), "2026-01-26T08:15:00Z");
    // Earlier the same Monday: that Monday.
    EXPECT_EQ(next(schedule, at("2026-01-19T06:00:00Z")), "2026-01-19T08:15:00Z");
}

TEST(SyncSchedule, AWallClockTimeInsideTheSpringGapFallsDueAtTheFirstTimeThatExists) {
    // Berlin skips 02:00-03:00 on 29 March 2026 (01:00 UTC: 02:00 CET becomes 03:00 CEST).
    const SyncSchedule schedule = daily(2, 30);
    EXPECT_EQ(next(schedule, at("2026-03-28T12:00:00Z")), "2026-03-29T01:00:00Z");  // 03:00 CEST
    EXPECT_EQ(next(schedule, at("2026-03-29T01:00:00Z")), "2026-03-30T00:30:00Z");  // 02:30 CEST

    // Weekly on a Sunday in New York's gap (8 March 2026, 02:00 EST -> 03:00 EDT).
    SyncSchedule weekly = schedule;
    weekly.kind = Kind::weekly;
    weekly.weekday = 1;
    EXPECT_EQ(next(weekly, at("2026-03-05T12:00:00Z"), "America/New_York"), "2026-03-08T07:00:00Z");
}

TEST(SyncSchedule, AWallClockTimeThatOccursTwiceFallsDueAtItsFirstOccurrenceOnly) {
    // Berlin repeats 02:00-03:00 on 25 October 2026: 02:30 is 00:30 UTC (CEST), then 01:30 UTC (CET).
    const SyncSchedule schedule = daily(2, 30);
    EXPECT_EQ(next(schedule, at("2026-10-24T12:00:00Z")), "2026-10-25T00:30:00Z");
    // Having run at the first 02:30, the repeated one does not count again.
    EXPECT_EQ(next(schedule, at("2026-10-25T00:30:00Z")), "2026-10-26T01:30:00Z");
}

TEST(SyncSchedule, ImpossibleTimesAndUnknownZonesAreRefusedRatherThanSearchedForever) {
    EXPECT_EQ(next(daily(24, 0), at("2026-01-15T10:00:00Z")), "none");
    EXPECT_EQ(next(daily(12, 60), at("2026-01-15T10:00:00Z")), "none");
    SyncSchedule weekly = daily(12, 0);
    weekly.kind = Kind::weekly;
    weekly.weekday = 8;
    EXPECT_EQ(next(weekly, at("2026-01-15T10:00:00Z")), "none");
    EXPECT_THROW(daily(12, 0).nextRunDate(std::nullopt, "Mars/Olympus_Mons"), std::invalid_argument);
    // The user's own zone always yields some date for a valid daily time.
    EXPECT_TRUE(daily(12, 0).nextRunDate(at("2026-01-15T10:00:00Z")).has_value());
}

}  // namespace
}  // namespace varnel
