#pragma once
// Wall-clock instants. Stored files carry them as ISO 8601 UTC strings with seconds.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace varnel {

using Date = std::chrono::system_clock::time_point;

// The earliest instant any stored date can mean ("never"): 1700-01-01.
Date distantPast();

// "2026-03-01T09:30:00Z": seconds precision, UTC; sub-second parts are dropped.
std::string formatISO8601(Date date);
// Accepts "YYYY-MM-DDTHH:MM:SSZ", optionally with fractional seconds or a numeric offset.
// Dates outside 1700...2250 are clamped to those bounds.
std::optional<Date> parseISO8601(std::string_view text);

// Source of the current time, so tests can fix it.
class Clock {
public:
    virtual ~Clock() = default;
    virtual Date now() const = 0;
};

class SystemClock final : public Clock {
public:
    Date now() const override { return std::chrono::system_clock::now(); }
    static const SystemClock& shared();
};

}  // namespace varnel
