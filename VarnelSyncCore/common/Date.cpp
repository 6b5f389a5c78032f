#include "common/Date.hpp"

#include <fmt/format.h>

#include <cctype>
#include <charconv>

namespace varnel {

using namespace std::chrono;

namespace {

// Date counts nanoseconds, so it spans roughly the years 1678 to 2261. Stored dates
// beyond that are clamped rather than wrapped into a wrong year.
constexpr sys_days kEarliestDay = sys_days(year{1700} / January / 1);
constexpr sys_days kLatestDay = sys_days(year{2250} / December / 31);

}  // namespace

Date distantPast() {
    return Date(kEarliestDay);
}

std::string formatISO8601(Date date) {
    const auto seconds = floor<std::chrono::seconds>(date);
    const auto days = floor<std::chrono::days>(seconds);
    const year_month_day ymd(days);
    const hh_mm_ss<std::chrono::seconds> time(seconds - days);
    return fmt::format("{:04d}-{:02d}-{:02d}T{:02d}:{:02d}:{:02d}Z", static_cast<int>(ymd.year()),
                       static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                       time.hours().count(), time.minutes().count(), time.seconds().count());
}

namespace {

bool readNumber(std::string_view text, std::size_t& position, std::size_t digits, int& value) {
    if (position + digits > text.size()) return false;
    for (std::size_t i = position; i < position + digits; ++i) {
        if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
    }
    std::from_chars(text.data() + position, text.data() + position + digits, value);
    position += digits;
    return true;
}

bool expect(std::string_view text, std::size_t& position, char c) {
    if (position >= text.size() || text[position] != c) return false;
    ++position;
    return true;
}

}  // namespace

std::optional<Date> parseISO8601(std::string_view text) {
    std::size_t at = 0;
    int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
    if (!readNumber(text, at, 4, y) || !expect(text, at, '-') || !readNumber(text, at, 2, mo) ||
        !expect(text, at, '-') || !readNumber(text, at, 2, d) || !expect(text, at, 'T') ||
        !readNumber(text, at, 2, h) || !expect(text, at, ':') || !readNumber(text, at, 2, mi) ||
        !expect(text, at, ':') || !readNumber(text, at, 2, s)) {
        return std::nullopt;
    }
    nanoseconds fraction{0};
    if (at < text.size() && text[at] == '.') {
        ++at;
        long long scale = 100'000'000;
        const std::size_t start = at;
        while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) {
            fraction += nanoseconds((text[at] - '0') * scale);
            scale /= 10;
            ++at;
        }
        if (at == start) return std::nullopt;
    }
    minutes offset{0};
    if (at < text.size() && text[at] == 'Z') {
        ++at;
    } else if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
        const int sign = text[at] == '-' ? -1 : 1;
        ++at;
        int oh = 0, om = 0;
        if (!readNumber(text, at, 2, oh)) return std::nullopt;
        expect(text, at, ':');
        if (!readNumber(text, at, 2, om)) return std::nullopt;
        offset = minutes(sign * (oh * 60 + om));
    } else {
        return std::nullopt;
    }
    if (at != text.size()) return std::nullopt;
    const year_month_day ymd{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}};
    if (!ymd.ok() || h > 23 || mi > 59 || s > 60) return std::nullopt;
    // Clamped as a whole instant (offset applied, in seconds, which cannot overflow), so
    // that every result formats and parses back to itself.
    const sys_seconds instant = sys_days(ymd) + hours(h) + minutes(mi) + seconds(s) - offset;
    if (instant < sys_seconds(kEarliestDay)) return distantPast();
    if (instant > sys_seconds(kLatestDay)) return Date(kLatestDay);
    return time_point_cast<system_clock::duration>(instant + fraction);
}

const SystemClock& SystemClock::shared() {
    static const SystemClock clock;
    return clock;
}

}  // namespace varnel
