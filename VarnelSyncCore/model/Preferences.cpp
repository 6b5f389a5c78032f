#include "model/Preferences.hpp"

#include "common/CheckedArithmetic.hpp"
#include "common/Localization.hpp"
#include "model/StoredFile.hpp"
#include "model/JSONFields.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

namespace varnel {

namespace {

std::string keyString(std::string_view key) {
    return std::string(key);
}

}  // namespace

JSONValuePreferences::JSONValuePreferences(nlohmann::json values) : values_(std::move(values)) {}

std::string JSONValuePreferences::stringValue(std::string_view key, std::string_view defaultValue) const {
    const std::lock_guard guard(lock_);
    const auto found = values_.find(keyString(key));
    if (found == values_.end() || !found->is_string()) return std::string(defaultValue);
    return found->get<std::string>();
}

std::int64_t JSONValuePreferences::integerValue(std::string_view key, std::int64_t defaultValue) const {
    const std::lock_guard guard(lock_);
    const auto found = values_.find(keyString(key));
    if (found == values_.end() || !found->is_number_integer()) return defaultValue;
    if (found->is_number_unsigned() &&
        found->get<std::uint64_t>() > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return defaultValue;
    }
    return found->get<std::int64_t>();
}

bool JSONValuePreferences::boolValue(std::string_view key, bool defaultValue) const {
    const std::lock_guard guard(lock_);
    const auto found = values_.find(keyString(key));
    if (found == values_.end() || !found->is_boolean()) return defaultValue;
    return found->get<bool>();
}

void JSONValuePreferences::setString(std::string_view key, std::string_view value) {
    change(key, nlohmann::json(std::string(value)));
}

void JSONValuePreferences::setInteger(std::string_view key, std::int64_t value) {
    change(key, nlohmann::json(value));
}

void JSONValuePreferences::setBool(std::string_view key, bool value) {
    change(key, nlohmann::json(value));
}

void JSONValuePreferences::remove(std::string_view key) {
    change(key, std::nullopt);
}

void JSONValuePreferences::change(std::string_view key, std::optional<nlohmann::json> value) {
    const std::lock_guard guard(lock_);
    if (value) {
        values_[keyString(key)] = std::move(*value);
    } else {
        values_.erase(keyString(key));
    }
    didChange(values_);
}

InMemoryPreferences::InMemoryPreferences() : JSONValuePreferences(nlohmann::json::object()) {}

JSONFilePreferences::JSONFilePreferences(std::filesystem::path file, const Clock& clock)
    : JSONFilePreferences(file, load(file, clock)) {}

JSONFilePreferences::JSONFilePreferences(std::filesystem::path file, Loaded loaded)
    : JSONValuePreferences(std::move(loaded.values)), file_(std::move(file)), loadProblem_(std::move(loaded.problem)) {}

JSONFilePreferences::Loaded JSONFilePreferences::load(const std::filesystem::path& file, const Clock& clock) {
    std::string problem;
    try {
        const auto contents = readStoredFile(file);
        if (!contents) return {nlohmann::json::object(), std::nullopt};
        auto values = nlohmann::json::parse(*contents);
        if (values.is_object()) return {std::move(values), std::nullopt};
        problem = tr("The preferences file does not hold a JSON object.");
    } catch (const StoredFileError& error) {
        problem = error.what();
    } catch (const nlohmann::json::exception& error) {
        problem = json_fields::withoutLibraryPrefix(error.what());
    }
    // Preferences are not worth refusing to start over, but the old file is kept.
    try {
        const auto movedTo = moveStoredFileAside(file, clock.now());
        return {nlohmann::json::object(),
                trFormat("The saved preferences could not be read and were moved to {} ({}).",
                         movedTo.filename().string(), problem)};
    } catch (const StoredFileError& error) {
        return {nlohmann::json::object(), trFormat("The saved preferences could not be read ({}). {}", problem,
                                                   error.what())};
    }
}

void JSONFilePreferences::didChange(const nlohmann::json& values) {
    writeStoredFileAtomically(file_, values.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
}

std::int64_t defaultWarnItems() {
    return SafetyThresholds{}.maxItemsBeforeWarning;
}

std::int64_t defaultWarnPercent() {
    return std::llround(SafetyThresholds{}.maxFractionBeforeWarning * 100);
}

std::int64_t defaultWarnGigabytes() {
    return SafetyThresholds{}.maxBytesBeforeWarning / 1'000'000'000;
}

SyncProfile makeNewProfile(const Preferences& preferences, const Clock& clock) {
    namespace keys = preference_keys;
    SyncProfile profile;
    profile.id = Uuid::random();
    profile.name = tr("New Profile");
    profile.mode = preferences.stringValue(keys::newProfileMode, "update") == "mirror" ? SyncMode::mirror
                                                                                        : SyncMode::update;
    profile.durability = parseDurabilityMode(preferences.stringValue(keys::newProfileDurability, "durable"))
                             .value_or(DurabilityMode::durable);
    profile.verification =
        preferences.stringValue(keys::newProfileVerification, "none") == "verifyCopiedFiles"
            ? VerificationMode::verifyCopiedFiles
            : VerificationMode::none;
    profile.metadataPolicy = MetadataPolicy::extended;
    profile.hiddenFilePolicy = preferences.stringValue(keys::newProfileHiddenFiles, "include") == "exclude"
                                   ? HiddenFilePolicy::exclude
                                   : HiddenFilePolicy::include;
    profile.onlineOnlyFiles = preferences.stringValue(keys::newProfileOnlineOnlyFiles, "download") == "skip"
                                  ? OnlineOnlyPolicy::skip
                                  : OnlineOnlyPolicy::download;
    if (preferences.boolValue(keys::newProfileExcludesClutter, true)) profile.exclusionRules = defaultClutterRules();

    const auto items = preferences.integerValue(keys::newProfileWarnItems, defaultWarnItems());
    const auto percent = preferences.integerValue(keys::newProfileWarnPercent, defaultWarnPercent());
    const auto gigabytes = preferences.integerValue(keys::newProfileWarnGigabytes, defaultWarnGigabytes());
    profile.safetyThresholds.maxItemsBeforeWarning = std::max<std::int64_t>(items, 1);
    profile.safetyThresholds.maxFractionBeforeWarning =
        static_cast<double>(std::clamp<std::int64_t>(percent, 1, 100)) / 100.0;
    profile.safetyThresholds.maxBytesBeforeWarning =
        checkedMultiply(std::max<std::int64_t>(gigabytes, 1), 1'000'000'000, "new-profile warning size");
    // The free-space margin is not a preference: it keeps the member defaults.

    profile.schedule = SyncSchedule{};
    // Whole seconds, as stored, so the profile compares equal after a save and reload.
    const Date now = std::chrono::floor<std::chrono::seconds>(clock.now());
    profile.createdAt = now;
    profile.modifiedAt = now;
    return profile;
}

std::string newProfileSettingsNote() {
    return tr("New profiles start with these settings. Each profile can change them afterwards; existing profiles "
              "keep theirs.");
}

}  // namespace varnel
