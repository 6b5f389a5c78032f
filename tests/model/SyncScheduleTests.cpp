#include "model/SyncSchedule.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

namespace varnel {
namespace {

using Kind = SyncSchedule::Kind;

Date at(const char* iso) {
    return *parseISO8601(iso);
}

TEST(SyncSchedule, NextRunDateFollowsTheWallClockOfTheZone) {
    const SyncSchedule hourly{.kind = Kind::hourly, .intervalHours = 6};
    const SyncSchedule hourlySince{.kind = Kind::hourly, .intervalHours = 6, .since = at("2026-03-02T08:00:00Z")};
    const SyncSchedule daily21{.kind = Kind::daily, .hour = 21, .minute = 0};  // 20:00 UTC in Berlin's winter
    const SyncSchedule weeklyMonday{.kind = Kind::weekly, .hour = 9, .minute = 15, .weekday = 2};
    const SyncSchedule daily0230{.kind = Kind::daily, .hour = 2, .minute = 30};
    const SyncSchedule sunday0230{.kind = Kind::weekly, .hour = 2, .minute = 30, .weekday = 1};
    struct Case {
        const char* what;
        SyncSchedule schedule;
        std::optional<Date> lastRun;
        const char* expected;  // or "none"
        const char* zone = "Europe/Berlin";
    };
    const Case cases[] = {
        {"hourly counts from the last run", hourly, at("2026-03-01T10:00:00Z"), "2026-03-01T16:00:00Z"},
        {"hourly, never run: due at once", hourly, std::nullopt, "1970-01-01T06:00:00Z"},
        {"hourly counts from a later since", hourlySince, at("2026-03-01T10:00:00Z"), "2026-03-02T14:00:00Z"},
        {"hourly, never run, since set", hourlySince, std::nullopt, "2026-03-02T14:00:00Z"},
        {"off is never due", SyncSchedule{}, std::nullopt, "none"},
        {"when-connected is never due by the clock", SyncSchedule{.kind = Kind::whenConnected},
         at("2026-03-01T10:00:00Z"), "none"},
        {"daily, later the same day", daily21, at("2026-01-15T10:00:00Z"), "2026-01-15T20:00:00Z"},
        {"daily, exactly at the match: strictly after", daily21, at("2026-01-15T20:00:00Z"), "2026-01-16T20:00:00Z"},
        {"daily, after the match", daily21, at("2026-01-15T21:30:00Z"), "2026-01-16T20:00:00Z"},
        {"daily in another zone", daily21, at("2026-01-15T10:00:00Z"), "2026-01-16T02:00:00Z", "America/New_York"},
        // Weekdays count from Sunday = 1.
        {"weekly, Thursday to Monday", weeklyMonday, at("2026-01-15T10:00:00Z"), "2026-01-19T08:15:00Z"},
        {"weekly, exactly at the match", weeklyMonday, at("2026-01-19T08:15:00Z"), "2026-01-26T08:15:00Z"},
        {"weekly, earlier the same Monday", weeklyMonday, at("2026-01-19T06:00:00Z"), "2026-01-19T08:15:00Z"},
        // Berlin skips 02:00-03:00 on 29 March 2026: due at the first time that exists.
        {"in the spring gap: 03:00 CEST", daily0230, at("2026-03-28T12:00:00Z"), "2026-03-29T01:00:00Z"},
        {"the day after the gap: 02:30 CEST", daily0230, at("2026-03-29T01:00:00Z"), "2026-03-30T00:30:00Z"},
        // New York skips 02:00-03:00 on Sunday 8 March 2026.
        {"weekly in the gap", sunday0230, at("2026-03-05T12:00:00Z"), "2026-03-08T07:00:00Z", "America/New_York"},
        // Berlin repeats 02:00-03:00 on 25 October 2026: only the first 02:30 counts.
        {"a repeated time: its first occurrence", daily0230, at("2026-10-24T12:00:00Z"), "2026-10-25T00:30:00Z"},
        {"a repeated time: not again", daily0230, at("2026-10-25T00:30:00Z"), "2026-10-26T01:30:00Z"},
        // Impossible times are refused rather than searched for forever.
        {"hour 24", SyncSchedule{.kind = Kind::daily, .hour = 24, .minute = 0}, at("2026-01-15T10:00:00Z"), "none"},
        {"minute 60", SyncSchedule{.kind = Kind::daily, .hour = 12, .minute = 60}, at("2026-01-15T10:00:00Z"), "none"},
        {"weekday 8", SyncSchedule{.kind = Kind::weekly, .hour = 12, .minute = 0, .weekday = 8},
         at("2026-01-15T10:00:00Z"), "none"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto date = c.schedule.nextRunDate(c.lastRun, c.zone);
        EXPECT_EQ(date ? formatISO8601(*date) : "none", c.expected);
    }

    EXPECT_THROW(daily21.nextRunDate(std::nullopt, "Mars/Olympus_Mons"), std::invalid_argument);
    // The user's own zone always yields some date for a valid daily time.
    EXPECT_TRUE(daily21.nextRunDate(at("2026-01-15T10:00:00Z")).has_value());
}

}  // namespace
}  // namespace varnel
