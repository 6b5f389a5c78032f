#include "varnel-sync/ProfileOptions.hpp"

#include "common/Localization.hpp"
#include "model/SyncOptions.hpp"
#include "varnel-sync/Context.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <limits>

namespace varnel::cli {

namespace {

std::string joined(const std::vector<std::string_view>& words) {
    return fmt::format("{}", fmt::join(words, ", "));
}

[[noreturn]] void invalidChoice(std::string_view flag, std::string_view value,
                                const std::vector<std::string_view>& allowed) {
    throw UsageError(trFormat("“{}” is not a valid value for {}. Choose one of: {}.", value, flag, joined(allowed)));
}

template <typename T>
T choose(std::string_view flag, std::string_view value, const std::vector<std::pair<std::string_view, T>>& choices) {
    std::vector<std::string_view> allowed;
    for (const auto& [word, result] : choices) {
        if (word == value) return result;
        allowed.push_back(word);
    }
    invalidChoice(flag, value, allowed);
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
    std::int64_t value = 0;
    const auto* end = text.data() + text.size();
    const auto [pointer, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || pointer != end || text.empty()) return std::nullopt;
    return value;
}

std::int64_t integerIn(std::string_view flag, std::string_view text, std::int64_t minimum, std::int64_t maximum) {
    const auto value = parseInteger(text);
    if (!value || *value < minimum || *value > maximum) {
        throw UsageError(trFormat("{} needs a whole number from {} to {}, not “{}”.", flag, minimum, maximum, text));
    }
    return *value;
}

std::string lowered(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), [](unsigned char c) { return std::tolower(c); });
    return result;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    while (true) {
        const std::size_t end = text.find(separator, start);
        parts.push_back(text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
        if (end == std::string_view::npos) return parts;
        start = end + 1;
    }
}

constexpr std::array<std::pair<std::string_view, ExclusionRule::Kind>, 5> kExclusionKinds{{
    {"path", ExclusionRule::Kind::exactRelativePath},
    {"folder", ExclusionRule::Kind::folderName},
    {"file", ExclusionRule::Kind::fileName},
    {"ext", ExclusionRule::Kind::fileExtension},
    {"glob", ExclusionRule::Kind::glob},
}};

constexpr std::array<std::string_view, 7> kWeekdays{"sunday",   "monday", "tuesday", "wednesday",
                                                     "thursday", "friday", "saturday"};

std::string invalidScheduleMessage(std::string_view text) {
    return trFormat("“{}” is not a valid schedule. Choose one of: off, hourly:N, daily:HH:MM, weekly:DAY:HH:MM, "
                    "when-connected.",
                    text);
}

// "HH:MM" from two parts.
void parseTime(std::string_view text, std::string_view hour, std::string_view minute, SyncSchedule& schedule) {
    const auto h = parseInteger(hour);
    const auto m = parseInteger(minute);
    if (!h || !m || *h < 0 || *h > 23 || *m < 0 || *m > 59 || minute.size() != 2) {
        throw UsageError(trFormat("“{}” has no valid time of day. Write it as HH:MM, from 00:00 to 23:59.", text));
    }
    schedule.hour = static_cast<int>(*h);
    schedule.minute = static_cast<int>(*m);
}

int parseWeekday(std::string_view text, std::string_view day) {
    if (const auto number = parseInteger(day); number && *number >= 1 && *number <= 7) {
        return static_cast<int>(*number);
    }
    const std::string word = lowered(day);
    for (std::size_t i = 0; i < kWeekdays.size(); ++i) {
        if (word.size() >= 3 && kWeekdays[i].substr(0, word.size()) == word) return static_cast<int>(i) + 1;
    }
    throw UsageError(trFormat("“{}” names no day of the week. Use a day such as mon or monday, or a number from 1 "
                              "(Sunday) to 7 (Saturday).",
                              text));
}

std::string weekdayName(int weekday) {
    static constexpr std::array<const char*, 7> names{"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                      "Thursday", "Friday", "Saturday"};
    return tr(names[static_cast<std::size_t>(std::clamp(weekday, 1, 7) - 1)]);
}

}  // namespace

bool ProfileOptionValues::any() const {
    for (const CLI::Option* option : {given.mode, given.durability, given.metadata, given.hidden, given.onlineOnly,
                                      given.schedule, given.warnItems, given.warnPercent, given.warnGigabytes}) {
        if (option && option->count() > 0) return true;
    }
    return verify || noVerify || clearExcludes || clutterDefaults || !excludes.empty() ||
           !excludesCaseSensitive.empty();
}

void addProfileOptions(CLI::App& command, ProfileOptionValues& values) {
    const char* group = "Profile options";
    auto& g = values.given;
    g.mode = command.add_option("--mode", values.mode, tr("update (add and replace) or mirror (also move "
                                                          "destination-only items into the archive)"))
                 ->type_name("MODE")->group(group);
    g.durability = command.add_option("--durability", values.durability,
                                      tr("fast, durable or maximum: how hard each file is flushed to storage"))
                       ->type_name("MODE")->group(group);
    command.add_flag("--verify", values.verify, tr("re-read every copied file and compare its SHA-256"))
        ->group(group);
    command.add_flag("--no-verify", values.noVerify, tr("do not verify copied files"))->group(group);
    g.metadata = command.add_option("--metadata", values.metadata, tr("basic, extended or strict metadata copying"))
                     ->type_name("POLICY")->group(group);
    g.hidden = command.add_option("--hidden", values.hidden, tr("include or exclude hidden items"))
                   ->type_name("POLICY")->group(group);
    g.onlineOnly = command.add_option("--online-only", values.onlineOnly,
                                      tr("download or skip source files stored only in the cloud"))
                       ->type_name("POLICY")->group(group);
    command.add_option("--exclude", values.excludes,
                       tr("leave items out (repeatable); KIND is path, folder, file, ext or glob"))
        ->type_name("KIND:VALUE")->allow_extra_args(false)->group(group);
    command.add_option("--exclude-case-sensitive", values.excludesCaseSensitive,
                       tr("the same, matching upper and lower case exactly"))
        ->type_name("KIND:VALUE")->allow_extra_args(false)->group(group);
    command.add_flag("--clear-excludes", values.clearExcludes, tr("remove every exclusion rule first"))
        ->group(group);
    command.add_flag("--clutter-defaults", values.clutterDefaults,
                     tr("add the rules for system clutter files (.DS_Store, .Trashes, ...)"))
        ->group(group);
    g.warnItems = command.add_option("--warn-items", values.warnItems,
                                     tr("ask for the typed confirmation above this many archived items"))
                      ->type_name("N")->group(group);
    g.warnPercent = command.add_option("--warn-percent", values.warnPercent,
                                       tr("... above this percentage of the destination archived (1-100)"))
                        ->type_name("P")->group(group);
    g.warnGigabytes = command.add_option("--warn-gigabytes", values.warnGigabytes,
                                         tr("... above this many gigabytes archived"))
                          ->type_name("G")->group(group);
    g.schedule = command.add_option("--schedule", values.schedule,
                                    tr("off, hourly:N, daily:HH:MM, weekly:DAY:HH:MM or when-connected"))
                     ->type_name("WHEN")->group(group);
}

ExclusionRule parseExclusion(std::string_view text, bool caseSensitive) {
    const std::size_t colon = text.find(':');
    std::vector<std::string_view> kinds;
    for (const auto& [word, kind] : kExclusionKinds) kinds.push_back(word);
    if (colon == std::string_view::npos) {
        throw UsageError(trFormat("“{}” is not a valid exclusion. Write KIND:VALUE, where KIND is one of: {}.", text,
                                  joined(kinds)));
    }
    const std::string_view word = text.substr(0, colon);
    const std::string_view value = text.substr(colon + 1);
    const auto found = std::find_if(kExclusionKinds.begin(), kExclusionKinds.end(),
                                    [&](const auto& entry) { return entry.first == word; });
    if (found == kExclusionKinds.end()) {
        throw UsageError(trFormat("“{}” is not a valid exclusion kind. Choose one of: {}.", word, joined(kinds)));
    }
    if (value.find_first_not_of(" \t\n") == std::string_view::npos) {
        throw UsageError(trFormat("The exclusion “{}” has no value after the colon.", text));
    }
    ExclusionRule rule;
    rule.id = Uuid::random();
    rule.kind = found->second;
    rule.value = std::string(value);
    rule.caseSensitive = caseSensitive;
    rule.isEnabled = true;
    return rule;
}

std::string_view exclusionKindWord(ExclusionRule::Kind kind) {
    for (const auto& [word, k] : kExclusionKinds) {
        if (k == kind) return word;
    }
    return "file";
}

SyncSchedule parseSchedule(std::string_view text, const SyncSchedule& base) {
    SyncSchedule schedule = base;
    const std::vector<std::string_view> parts = split(text, ':');
    const std::string kind = lowered(parts.front());
    if (kind == "off" && parts.size() == 1) {
        schedule.kind = SyncSchedule::Kind::off;
    } else if (kind == "when-connected" && parts.size() == 1) {
        schedule.kind = SyncSchedule::Kind::whenConnected;
    } else if (kind == "hourly" && parts.size() == 2) {
        const auto hours = parseInteger(parts[1]);
        if (!hours || *hours < 1 || *hours > 168) {
            throw UsageError(trFormat("“{}” needs a number of hours from 1 to 168 after “hourly:”.", text));
        }
        schedule.kind = SyncSchedule::Kind::hourly;
        schedule.intervalHours = static_cast<int>(*hours);
    } else if (kind == "daily" && parts.size() == 3) {
        schedule.kind = SyncSchedule::Kind::daily;
        parseTime(text, parts[1], parts[2], schedule);
    } else if (kind == "weekly" && parts.size() == 4) {
        schedule.kind = SyncSchedule::Kind::weekly;
        schedule.weekday = parseWeekday(text, parts[1]);
        parseTime(text, parts[2], parts[3], schedule);
    } else {
        throw UsageError(invalidScheduleMessage(text));
    }
    return schedule;
}

std::string scheduleText(const SyncSchedule& schedule) {
    switch (schedule.kind) {
        case SyncSchedule::Kind::off: return tr("Off");
        case SyncSchedule::Kind::hourly: return trFormat("Every {} hours", schedule.intervalHours);
        case SyncSchedule::Kind::daily: return trFormat("Daily at {:02}:{:02}", schedule.hour, schedule.minute);
        case SyncSchedule::Kind::weekly:
            return trFormat("Weekly on {} at {:02}:{:02}", weekdayName(schedule.weekday), schedule.hour,
                            schedule.minute);
        case SyncSchedule::Kind::whenConnected: return displayName(schedule.kind);
    }
    return displayName(schedule.kind);
}

std::string scheduleArgument(const SyncSchedule& schedule) {
    switch (schedule.kind) {
        case SyncSchedule::Kind::off: return "off";
        case SyncSchedule::Kind::hourly: return fmt::format("hourly:{}", schedule.intervalHours);
        case SyncSchedule::Kind::daily: return fmt::format("daily:{:02}:{:02}", schedule.hour, schedule.minute);
        case SyncSchedule::Kind::weekly:
            return fmt::format("weekly:{}:{:02}:{:02}", kWeekdays[static_cast<std::size_t>(
                                                             std::clamp(schedule.weekday, 1, 7) - 1)].substr(0, 3),
                               schedule.hour, schedule.minute);
        case SyncSchedule::Kind::whenConnected: return "when-connected";
    }
    return "off";
}

void applyProfileOptions(const ProfileOptionValues& values, SyncProfile& profile, Date now) {
    const auto& g = values.given;
    const auto given = [](const CLI::Option* option) { return option && option->count() > 0; };
    if (values.verify && values.noVerify) throw UsageError(tr("Choose either --verify or --no-verify, not both."));

    // Everything is checked before the profile changes, so a bad value changes nothing.
    SyncProfile changed = profile;
    if (values.clearExcludes) changed.exclusionRules.clear();
    if (values.clutterDefaults) {
        for (ExclusionRule& rule : defaultClutterRules()) {
            const bool present = std::any_of(changed.exclusionRules.begin(), changed.exclusionRules.end(),
                                             [&](const ExclusionRule& r) {
                                                 return r.kind == rule.kind && r.value == rule.value;
                                             });
            if (!present) changed.exclusionRules.push_back(std::move(rule));
        }
    }
    for (const auto& text : values.excludes) changed.exclusionRules.push_back(parseExclusion(text, false));
    for (const auto& text : values.excludesCaseSensitive) {
        changed.exclusionRules.push_back(parseExclusion(text, true));
    }

    if (given(g.mode)) {
        changed.mode = choose<SyncMode>("--mode", values.mode, {{"update", SyncMode::update}, {"mirror", SyncMode::mirror}});
    }
    if (given(g.durability)) {
        changed.durability = choose<DurabilityMode>(
            "--durability", values.durability,
            {{"fast", DurabilityMode::fast}, {"durable", DurabilityMode::durable}, {"maximum", DurabilityMode::maximum}});
    }
    if (values.verify) changed.verification = VerificationMode::verifyCopiedFiles;
    if (values.noVerify) changed.verification = VerificationMode::none;
    if (given(g.metadata)) {
        changed.metadataPolicy = choose<MetadataPolicy>(
            "--metadata", values.metadata,
            {{"basic", MetadataPolicy::basic}, {"extended", MetadataPolicy::extended}, {"strict", MetadataPolicy::strict}});
    }
    if (given(g.hidden)) {
        changed.hiddenFilePolicy = choose<HiddenFilePolicy>(
            "--hidden", values.hidden, {{"include", HiddenFilePolicy::include}, {"exclude", HiddenFilePolicy::exclude}});
    }
    if (given(g.onlineOnly)) {
        changed.onlineOnlyFiles = choose<OnlineOnlyPolicy>(
            "--online-only", values.onlineOnly,
            {{"download", OnlineOnlyPolicy::download}, {"skip", OnlineOnlyPolicy::skip}});
    }
    constexpr std::int64_t kMaximum = std::numeric_limits<std::int64_t>::max();
    if (given(g.warnItems)) {
        changed.safetyThresholds.maxItemsBeforeWarning = integerIn("--warn-items", values.warnItems, 1, kMaximum);
    }
    if (given(g.warnPercent)) {
        changed.safetyThresholds.maxFractionBeforeWarning =
            static_cast<double>(integerIn("--warn-percent", values.warnPercent, 1, 100)) / 100.0;
    }
    if (given(g.warnGigabytes)) {
        constexpr std::int64_t kGigabyte = 1'000'000'000;
        changed.safetyThresholds.maxBytesBeforeWarning =
            integerIn("--warn-gigabytes", values.warnGigabytes, 1, kMaximum / kGigabyte) * kGigabyte;
    }
    if (given(g.schedule)) {
        changed.schedule = parseSchedule(values.schedule, changed.schedule);
        changed.schedule.since = std::chrono::floor<std::chrono::seconds>(now);
    }
    profile = std::move(changed);
}

}  // namespace varnel::cli
