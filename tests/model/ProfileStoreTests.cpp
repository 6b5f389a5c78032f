#include "model/InMemoryProfileStore.hpp"
#include "model/JSONProfileStore.hpp"

#include "support/Shorthand.hpp"
#include "support/TemporaryDirectory.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <set>

namespace varnel {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using testing::FixedClock;
using testing::namesIn;
using testing::TemporaryDirectory;

SyncProfile profileNamed(std::string name) {
    SyncProfile profile;
    profile.id = Uuid::random();
    profile.name = std::move(name);
    profile.sourceBookmark = BookmarkData{'/', 's', 'r', 'c'};
    profile.sourceDisplayPath = "/src";
    profile.exclusionRules = defaultClutterRules();
    profile.lastResult = SyncRunOutcome::success;
    profile.createdAt = *parseISO8601("2025-06-01T12:00:00Z");
    profile.modifiedAt = *parseISO8601("2025-06-02T12:00:00Z");
    return profile;
}

std::string profileStoreDetail(const std::function<void()>& action) {
    try {
        action();
    } catch (const SyncError& error) {
        if (const auto* failure = error.as<SyncError::ProfileStoreFailure>()) return failure->detail;
        return "unexpected error: " + error.message();
    }
    return "no error";
}

class JSONProfileStoreTest : public ::testing::Test {
protected:
    TemporaryDirectory directory;
    FixedClock clock{*parseISO8601("2026-01-01T00:00:00Z")};  // 1767225600
    fs::path file = directory / "profiles.json";
    JSONProfileStore store{file, clock};
};

TEST_F(JSONProfileStoreTest, FirstLaunchYieldsAnEmptyListAndCreatesNothing) {
    JSONProfileStore nested(directory / "VarnelSync" / "profiles.json", clock);
    EXPECT_TRUE(nested.load().empty());
    EXPECT_TRUE(store.load().empty());
    EXPECT_TRUE(namesIn(directory.path()).empty());
}

TEST_F(JSONProfileStoreTest, SavingTwiceLeavesExactlyOneCompleteFileInSortedPrettyUTF8) {
    JSONProfileStore nested(directory / "a" / "b" / "profiles.json", clock);
    const std::vector<SyncProfile> first{profileNamed("Fotos – Sommer ☀"), profileNamed("Work")};
    nested.save(first);
    EXPECT_EQ(nested.load(), first);

    const std::vector<SyncProfile> second{profileNamed("Only one")};
    nested.save(second);
    EXPECT_EQ(nested.load(), second);
    EXPECT_EQ(namesIn(directory / "a" / "b"), std::set<std::string>{"profiles.json"});

    nested.save(first);
    const std::string text = directory.readFile("a/b/profiles.json");
    EXPECT_THAT(text, HasSubstr("\"name\": \"Fotos – Sommer ☀\""));  // raw UTF-8, not \u escapes
    EXPECT_THAT(text, StartsWith("{\n  \"profiles\": ["));          // pretty, "profiles" sorts before "version"
    EXPECT_THAT(text, HasSubstr("\"version\": 1"));
    const auto position = [&](const char* key) { return text.find(std::string("\"") + key + "\""); };
    EXPECT_LT(position("createdAt"), position("destinationDisplayPath"));
    EXPECT_LT(position("destinationDisplayPath"), position("id"));
    EXPECT_LT(position("id"), position("lastResult"));
    EXPECT_LT(position("sourceDisplayPath"), position("verification"));
}

TEST_F(JSONProfileStoreTest, OneBadProfileOrAnUnknownVersionFailsTheWholeDocument) {
    const nlohmann::json good = profileNamed("Good");
    nlohmann::json bad = profileNamed("Bad");
    bad["mode"] = "sideways";
    directory.writeFile("profiles.json", nlohmann::json{{"version", 1}, {"profiles", nlohmann::json::array({good, bad})}}.dump());
    EXPECT_THAT(profileStoreDetail([&] { store.load(); }), HasSubstr("profiles.corrupt-1767225600.json"));

    directory.writeFile("profiles.json", nlohmann::json{{"version", 2}, {"profiles", nlohmann::json::array({good})}}.dump());
    EXPECT_THAT(profileStoreDetail([&] { store.load(); }), HasSubstr("profiles.corrupt-1767225600-2.json"));
    EXPECT_TRUE(store.load().empty());
}

TEST_F(JSONProfileStoreTest, ADocumentFromBeforeDurabilityModesLoadsAsMigrated) {
    directory.writeFile("profiles.json", R"({"version": 1, "profiles": [
        {"id": "0F8FAD5B-D9CB-469F-A165-70867728950E", "name": "Old", "mode": "mirror"},
        {"id": "7C9E6679-7425-40DE-944B-E07FC1F90AE7", "name": "Newer", "durability": "fast"}]})");
    const auto profiles = store.load();
    ASSERT_EQ(profiles.size(), 2u);
    EXPECT_TRUE(profiles[0].wasMigratedFromLegacySchema);
    EXPECT_EQ(profiles[0].durability, DurabilityMode::durable);
    EXPECT_EQ(profiles[0].mode, SyncMode::mirror);
    EXPECT_EQ(profiles[0].createdAt, clock.instant);
    EXPECT_FALSE(profiles[1].wasMigratedFromLegacySchema);
    EXPECT_EQ(profiles[1].durability, DurabilityMode::fast);
}

TEST_F(JSONProfileStoreTest, AFailedSaveNamesTheFileAndLeavesNoTemporaryFileBehind) {
    // The containing "folder" is a file: nothing can be created below it.
    directory.writeFile("blocker", "x");
    JSONProfileStore blocked(directory / "blocker" / "profiles.json", clock);
    EXPECT_THAT(profileStoreDetail([&] { blocked.save({profileNamed("A")}); }),
                HasSubstr("blocker"));

    // The target is a folder: the rename is refused after the data was written and flushed.
    fs::create_directories(directory / "taken" / "profiles.json" / "inside");
    JSONProfileStore taken(directory / "taken" / "profiles.json", clock);
    const std::string detail = profileStoreDetail([&] { taken.save({profileNamed("A")}); });
    EXPECT_THAT(detail, HasSubstr("could not be written"));
    EXPECT_THAT(detail, HasSubstr((directory / "taken" / "profiles.json").string()));
    EXPECT_EQ(namesIn(directory / "taken"), std::set<std::string>{"profiles.json"});
    EXPECT_TRUE(fs::exists(directory / "taken" / "profiles.json" / "inside"));
}

TEST(InMemoryProfileStore, NextErrorFailsOnlyTheNextOperation) {
    InMemoryProfileStore store({profileNamed("Initial")});
    const SyncError failure = SyncError::ProfileStoreFailure{"Disk on fire."};

    store.setNextError(failure);
    EXPECT_EQ(profileStoreDetail([&] { store.save({profileNamed("Lost")}); }), "Disk on fire.");
    ASSERT_EQ(store.load().size(), 1u);
    EXPECT_EQ(store.load().front().name, "Initial");  // the failed save changed nothing

    const std::vector<SyncProfile> replacement{profileNamed("B"), profileNamed("C")};
    store.save(replacement);
    store.setNextError(failure);
    EXPECT_EQ(profileStoreDetail([&] { store.load(); }), "Disk on fire.");
    EXPECT_EQ(store.load(), replacement);
}

}  // namespace
}  // namespace varnel
