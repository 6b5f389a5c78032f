#pragma once
// The profile options shared by `profile add`, `profile edit` and the one-off runs of
// `analyze` and `sync`: registered on a command, then checked and applied to a profile.
// Every bad value is refused with a UsageError that names the allowed values.

#include "common/Date.hpp"
#include "model/ExclusionRule.hpp"
#include "model/SyncProfile.hpp"
#include "model/SyncSchedule.hpp"

#include <CLI/CLI.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace varnel::cli {

struct ProfileOptionValues {
    std::string mode, durability, metadata, hidden, onlineOnly, schedule;
    std::string warnItems, warnPercent, warnGigabytes;
    std::vector<std::string> excludes, excludesCaseSensitive;
    bool verify = false;
    bool noVerify = false;
    bool clearExcludes = false;
    bool clutterDefaults = false;

    // Which of the value options were given (an explicit empty value is still given).
    struct Given {
        CLI::Option* mode = nullptr;
        CLI::Option* durability = nullptr;
        CLI::Option* metadata = nullptr;
        CLI::Option* hidden = nullptr;
        CLI::Option* onlineOnly = nullptr;
        CLI::Option* schedule = nullptr;
        CLI::Option* warnItems = nullptr;
        CLI::Option* warnPercent = nullptr;
        CLI::Option* warnGigabytes = nullptr;
    } given;

    // Whether any profile option appeared on the command line.
    bool any() const;
};

// Adds --mode, --durability, --verify/--no-verify, --metadata, --hidden, --online-only,
// --exclude, --exclude-case-sensitive, --clear-excludes, --clutter-defaults,
// --warn-items, --warn-percent, --warn-gigabytes and --schedule to `command`.
void addProfileOptions(CLI::App& command, ProfileOptionValues& values);

// Applies the given options to `profile`, in the order: excludes cleared, clutter
// defaults, new exclusion rules, then the plain values. A new schedule counts from
// `now`, so a daily 21:00 chosen in the morning first runs that evening.
void applyProfileOptions(const ProfileOptionValues& values, SyncProfile& profile, Date now);

// "KIND:VALUE" with KIND path, folder, file, ext or glob.
ExclusionRule parseExclusion(std::string_view text, bool caseSensitive);
// off, hourly:N, daily:HH:MM, weekly:DAY:HH:MM (DAY a name such as mon or monday, or
// 1 = Sunday … 7 = Saturday), when-connected. Unused fields keep the values of `base`.
SyncSchedule parseSchedule(std::string_view text, const SyncSchedule& base);
// "Daily at 21:00", "Every 6 hours", "Weekly on Monday at 08:30", "Off", ...
std::string scheduleText(const SyncSchedule& schedule);
// The command-line form of a schedule ("daily:21:00"), as --schedule accepts it.
std::string scheduleArgument(const SyncSchedule& schedule);
// The command-line word of an exclusion kind ("folder").
std::string_view exclusionKindWord(ExclusionRule::Kind kind);

}  // namespace varnel::cli
