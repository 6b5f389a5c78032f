#pragma once
// The application's preferences as the engine sees them: a small key-value store, and
// the new-profile defaults it holds.

#include "common/Date.hpp"
#include "model/SyncProfile.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace varnel {

// Values are strings, integers and booleans. A getter returns its default when the key
// is absent or holds a value of another type. Implementations are thread-safe.
class Preferences {
public:
    virtual ~Preferences() = default;

    virtual std::string stringValue(std::string_view key, std::string_view defaultValue) const = 0;
    virtual std::int64_t integerValue(std::string_view key, std::int64_t defaultValue) const = 0;
    virtual bool boolValue(std::string_view key, bool defaultValue) const = 0;

    virtual void setString(std::string_view key, std::string_view value) = 0;
    virtual void setInteger(std::string_view key, std::int64_t value) = 0;
    virtual void setBool(std::string_view key, bool value) = 0;
    virtual void remove(std::string_view key) = 0;
};

// Preferences held as one JSON object; subclasses decide where changes go.
class JSONValuePreferences : public Preferences {
public:
    std::string stringValue(std::string_view key, std::string_view defaultValue) const override;
    std::int64_t integerValue(std::string_view key, std::int64_t defaultValue) const override;
    bool boolValue(std::string_view key, bool defaultValue) const override;

    void setString(std::string_view key, std::string_view value) override;
    void setInteger(std::string_view key, std::int64_t value) override;
    void setBool(std::string_view key, bool value) override;
    void remove(std::string_view key) override;

protected:
    explicit JSONValuePreferences(nlohmann::json values);
    // Called after each change, with the lock held and every value.
    virtual void didChange(const nlohmann::json& values) = 0;

private:
    void change(std::string_view key, std::optional<nlohmann::json> value);

    mutable std::mutex lock_;
    nlohmann::json values_;
};

// Kept for the life of the object only: tests and the isolated launch mode.
class InMemoryPreferences final : public JSONValuePreferences {
public:
    InMemoryPreferences();

protected:
    void didChange(const nlohmann::json&) override {}
};

// A JSON file of key-value pairs, rewritten atomically after every change. A missing
// file means all defaults; an unreadable one is moved aside (as with the profiles file)
// and reported through loadProblem(), and the preferences start from the defaults.
// A failed write throws StoredFileError; the new value still applies to this session.
class JSONFilePreferences final : public JSONValuePreferences {
public:
    explicit JSONFilePreferences(std::filesystem::path file, const Clock& clock = SystemClock::shared());

    const std::filesystem::path& file() const { return file_; }
    const std::optional<std::string>& loadProblem() const { return loadProblem_; }

protected:
    void didChange(const nlohmann::json& values) override;

private:
    struct Loaded {
        nlohmann::json values;
        std::optional<std::string> problem;
    };
    static Loaded load(const std::filesystem::path& file, const Clock& clock);
    JSONFilePreferences(std::filesystem::path file, Loaded loaded);

    std::filesystem::path file_;
    std::optional<std::string> loadProblem_;
};

// The keys under which the application keeps the settings of new profiles.
namespace preference_keys {
inline constexpr std::string_view newProfileMode = "newProfile.mode";
inline constexpr std::string_view newProfileDurability = "newProfile.durability";
inline constexpr std::string_view newProfileVerification = "newProfile.verification";
inline constexpr std::string_view newProfileHiddenFiles = "newProfile.hiddenFiles";
inline constexpr std::string_view newProfileOnlineOnlyFiles = "newProfile.onlineOnlyFiles";
inline constexpr std::string_view newProfileExcludesClutter = "newProfile.excludesClutter";
inline constexpr std::string_view newProfileWarnItems = "newProfile.warnItems";
inline constexpr std::string_view newProfileWarnPercent = "newProfile.warnPercent";
inline constexpr std::string_view newProfileWarnGigabytes = "newProfile.warnGigabytes";
}  // namespace preference_keys

// The defaults of the three warning preferences, derived from the default thresholds
// (items as they are, the fraction in percent, bytes in decimal gigabytes).
std::int64_t defaultWarnItems();
std::int64_t defaultWarnPercent();
std::int64_t defaultWarnGigabytes();

// A profile named "New Profile" with a fresh id, no folders, the options the preferences
// choose, the default schedule, no last run, created and modified now. Warning limits are
// clamped: items at least 1, percent to 1...100, gigabytes at least 1. A gigabyte count
// whose byte value overflows is a programming error and stops the process.
SyncProfile makeNewProfile(const Preferences& preferences, const Clock& clock = SystemClock::shared());

// The note under the new-profile settings.
std::string newProfileSettingsNote();

}  // namespace varnel
