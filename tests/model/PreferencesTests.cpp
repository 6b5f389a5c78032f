#include "model/ApplicationFolders.hpp"
#include "model/Preferences.hpp"

#include "support/Shorthand.hpp"
#include "support/TemporaryDirectory.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <map>

namespace varnel {
namespace {

namespace fs = std::filesystem;
namespace keys = preference_keys;
using ::testing::StartsWith;
using testing::FixedClock;
using testing::TemporaryDirectory;

const Date kNow = *parseISO8601("2026-03-01T09:30:00Z") + std::chrono::milliseconds(750);

TEST(NewProfile, GetsAFreshIdAndWholeSecondTimes) {
    const InMemoryPreferences preferences;
    const FixedClock clock{kNow};
    const SyncProfile profile = makeNewProfile(preferences, clock);
    EXPECT_FALSE(profile.id.isNil());
    EXPECT_NE(profile.id, makeNewProfile(preferences, clock).id);
    // Whole seconds, as the file will hold them: a reloaded profile compares equal.
    EXPECT_EQ(profile.createdAt, *parseISO8601("2026-03-01T09:30:00Z"));
    EXPECT_EQ(profile.modifiedAt, profile.createdAt);
}

TEST(NewProfile, TakesItsOptionsFromThePreferencesAndFallsBackOnUnknownWords) {
    InMemoryPreferences preferences;
    preferences.setString(keys::newProfileMode, "mirror");
    preferences.setString(keys::newProfileDurability, "maximum");
    preferences.setString(keys::newProfileVerification, "verifyCopiedFiles");
    preferences.setString(keys::newProfileHiddenFiles, "exclude");
    preferences.setString(keys::newProfileOnlineOnlyFiles, "skip");
    preferences.setBool(keys::newProfileExcludesClutter, false);
    SyncProfile profile = makeNewProfile(preferences);
    EXPECT_EQ(profile.mode, SyncMode::mirror);
    EXPECT_EQ(profile.durability, DurabilityMode::maximum);
    EXPECT_EQ(profile.verification, VerificationMode::verifyCopiedFiles);
    EXPECT_EQ(profile.hiddenFilePolicy, HiddenFilePolicy::exclude);
    EXPECT_EQ(profile.onlineOnlyFiles, OnlineOnlyPolicy::skip);
    EXPECT_TRUE(profile.exclusionRules.empty());

    preferences.setString(keys::newProfileMode, "Mirror");
    preferences.setString(keys::newProfileDurability, "paranoid");
    preferences.setString(keys::newProfileHiddenFiles, "yes");
    preferences.setInteger(keys::newProfileExcludesClutter, 0);  // wrong type: the default applies
    profile = makeNewProfile(preferences);
    EXPECT_EQ(profile.mode, SyncMode::update);
    EXPECT_EQ(profile.durability, DurabilityMode::durable);
    EXPECT_EQ(profile.hiddenFilePolicy, HiddenFilePolicy::include);
    EXPECT_EQ(profile.exclusionRules.size(), 6u);
}

TEST(NewProfile, WarningLimitsAreClampedToSensibleRanges) {
    InMemoryPreferences preferences;
    const auto thresholds = [&] { return makeNewProfile(preferences).safetyThresholds; };

    preferences.setInteger(keys::newProfileWarnPercent, 0);
    preferences.setInteger(keys::newProfileWarnGigabytes, 0);
    preferences.setInteger(keys::newProfileWarnItems, 0);
    EXPECT_DOUBLE_EQ(thresholds().maxFractionBeforeWarning, 0.01);
    EXPECT_EQ(thresholds().maxBytesBeforeWarning, 1'000'000'000);
    EXPECT_EQ(thresholds().maxItemsBeforeWarning, 1);

    preferences.setInteger(keys::newProfileWarnPercent, 250);
    preferences.setInteger(keys::newProfileWarnGigabytes, -7);
    preferences.setInteger(keys::newProfileWarnItems, 2500);
    EXPECT_DOUBLE_EQ(thresholds().maxFractionBeforeWarning, 1.0);
    EXPECT_EQ(thresholds().maxBytesBeforeWarning, 1'000'000'000);
    EXPECT_EQ(thresholds().maxItemsBeforeWarning, 2500);

    preferences.setInteger(keys::newProfileWarnPercent, 37);
    preferences.setInteger(keys::newProfileWarnGigabytes, 250);
    EXPECT_DOUBLE_EQ(thresholds().maxFractionBeforeWarning, 0.37);
    EXPECT_EQ(thresholds().maxBytesBeforeWarning, 250'000'000'000);
    // The free-space margin is not a preference.
    EXPECT_EQ(thresholds().freeSpaceSafetyMarginMinimum, SafetyThresholds{}.freeSpaceSafetyMarginMinimum);
    EXPECT_DOUBLE_EQ(thresholds().freeSpaceSafetyMarginFraction, 0.05);
}

TEST(NewProfileDeathTest, AGigabyteCountWhoseBytesOverflowStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    InMemoryPreferences preferences;
    preferences.setInteger(keys::newProfileWarnGigabytes, std::numeric_limits<std::int64_t>::max() / 1000);
    EXPECT_DEATH(makeNewProfile(preferences), "overflow");
}

TEST(JSONFilePreferences, ValuesSurviveARestartAndADamagedFileIsSetAside) {
    TemporaryDirectory directory;
    const fs::path file = directory / "VarnelSync" / "preferences.json";
    {
        JSONFilePreferences preferences(file);
        EXPECT_FALSE(fs::exists(file));  // reading creates nothing
        EXPECT_EQ(preferences.integerValue(keys::newProfileWarnItems, 100), 100);
        preferences.setInteger(keys::newProfileWarnItems, 42);
        preferences.setString(keys::newProfileMode, "mirror");
        preferences.setBool(keys::newProfileExcludesClutter, false);
        preferences.setBool("obsolete", true);
        preferences.remove("obsolete");
    }
    {
        const JSONFilePreferences preferences(file);
        EXPECT_FALSE(preferences.loadProblem());
        EXPECT_EQ(preferences.integerValue(keys::newProfileWarnItems, 100), 42);
        EXPECT_EQ(preferences.stringValue(keys::newProfileMode, "update"), "mirror");
        EXPECT_FALSE(preferences.boolValue(keys::newProfileExcludesClutter, true));
        EXPECT_TRUE(preferences.boolValue("obsolete", true));  // removed: the default again
        EXPECT_EQ(preferences.stringValue(keys::newProfileWarnItems, "n/a"), "n/a");  // wrong type
    }
    directory.writeFile("VarnelSync/preferences.json", "[1, 2");
    const FixedClock clock{kNow};
    const JSONFilePreferences damaged(file, clock);
    ASSERT_TRUE(damaged.loadProblem());
    EXPECT_THAT(*damaged.loadProblem(),
                StartsWith("The saved preferences could not be read and were moved to preferences.corrupt-1772357400.json"));
    EXPECT_EQ(directory.readFile("VarnelSync/preferences.corrupt-1772357400.json"), "[1, 2");
    EXPECT_EQ(damaged.integerValue(keys::newProfileWarnItems, 100), 100);
}

EnvironmentLookup environmentOf(std::map<std::string, std::string> variables) {
    return [variables = std::move(variables)](const std::string& name) -> std::optional<std::string> {
        const auto found = variables.find(name);
        if (found == variables.end()) return std::nullopt;
        return found->second;
    };
}

TEST(ApplicationFolders, FollowTheXDGVariablesWithHomeAndTmpAsFallbacks) {
    const auto fromHome = ApplicationFolders::standard(environmentOf({{"HOME", "/home/ana"}}));
    EXPECT_EQ(fromHome.applicationSupport, "/home/ana/.local/share/VarnelSync");
    EXPECT_EQ(fromHome.profilesFile, "/home/ana/.local/share/VarnelSync/profiles.json");
    EXPECT_EQ(fromHome.logsFolder, "/home/ana/.local/state/VarnelSync/Logs");
    EXPECT_EQ(fromHome.temporaryFolder, "/tmp");

    const auto fromXDG = ApplicationFolders::standard(environmentOf(
        {{"HOME", "/home/ana"}, {"XDG_DATA_HOME", "/data"}, {"XDG_STATE_HOME", "/state"}, {"TMPDIR", "/scratch"}}));
    EXPECT_EQ(fromXDG.profilesFile, "/data/VarnelSync/profiles.json");
    EXPECT_EQ(fromXDG.preferencesFile, "/data/VarnelSync/preferences.json");
    EXPECT_EQ(fromXDG.logsFolder, "/state/VarnelSync/Logs");
    EXPECT_EQ(fromXDG.temporaryFolder, "/scratch");

    // Relative or empty values would depend on the current folder: they are ignored.
    const auto relative = ApplicationFolders::standard(environmentOf(
        {{"HOME", "/home/ana"}, {"XDG_DATA_HOME", "data"}, {"XDG_STATE_HOME", ""}, {"TMPDIR", "tmp"}}));
    EXPECT_EQ(relative, fromHome);

    EXPECT_THROW(ApplicationFolders::standard(environmentOf({})), std::runtime_error);

    const auto isolated = ApplicationFolders::isolated(environmentOf({{"TMPDIR", "/scratch"}}));
    EXPECT_EQ(isolated.profilesFile, "/scratch/varnelsync-profiles.json");
    EXPECT_EQ(isolated.logsFolder, "/scratch/VarnelSyncLogs");
    EXPECT_EQ(isolated.preferencesFile.parent_path(), "/scratch");
}

}  // namespace
}  // namespace varnel
