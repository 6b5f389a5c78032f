#include "model/SyncProfile.hpp"

#include "common/DecodingError.hpp"
#include "support/Shorthand.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace varnel {
namespace {

using ::testing::ElementsAre;
using nlohmann::json;
using testing::FixedClock;

Date at(const char* iso) { return *parseISO8601(iso); }

SyncProfile fullyFilledProfile() {
    SyncProfile profile;
    profile.id = *Uuid::parse("0f8fad5b-d9cb-469f-a165-70867728950e");
    profile.name = "Fotos – Sommer ☀";
    profile.sourceBookmark = BookmarkData{'/', 's'};
    profile.sourceDisplayPath = "/home/ana/Pictures";
    profile.sourceVolume = VolumeIdentity{};
    profile.sourceVolume->volumeUUID = "1234-ABCD";
    profile.sourceVolume->volumeName = "Home";
    profile.sourceVolume->totalCapacity = 512'000'000'000;
    profile.destinationBookmark = BookmarkData{'/', 'd'};
    profile.destinationDisplayPath = "/media/ana/Backup";
    profile.destinationVolume = VolumeIdentity{};
    profile.destinationVolume->volumeName = "Backup";
    profile.destinationVolume->isRemovable = true;
    profile.mode = SyncMode::mirror;
    profile.durability = DurabilityMode::maximum;
    profile.verification = VerificationMode::verifyCopiedFiles;
    profile.metadataPolicy = MetadataPolicy::strict;
    profile.hiddenFilePolicy = HiddenFilePolicy::exclude;
    profile.exclusionRules = defaultClutterRules();
    profile.safetyThresholds = SafetyThresholds{5, 0.25, 3'000'000'000, 0.1, 1'000'000};
    profile.onlineOnlyFiles = OnlineOnlyPolicy::skip;
    profile.schedule = SyncSchedule{SyncSchedule::Kind::weekly, 3, 7, 45, 6, at("2026-01-02T03:04:05Z")};
    profile.lastAnalysisDate = at("2026-03-01T09:30:00Z");
    profile.lastSyncDate = at("2026-03-01T09:31:00Z");
    profile.lastResult = SyncRunOutcome::completedWithWarnings;
    profile.lastBytesTransferred = 9'000'000'000'000;
    profile.lastFilesTransferred = 12;
    profile.lastRunID = *Uuid::parse("7c9e6679-7425-40de-944b-e07fc1f90ae7");
    profile.createdAt = at("2025-12-24T18:00:00Z");
    profile.modifiedAt = at("2026-02-28T23:59:59Z");
    return profile;
}

TEST(SyncProfileDecoding, IdAndNameAloneTakeTheDefaultsAndCountAsALegacyMigrationOnce) {
    const FixedClock clock{*parseISO8601("2026-03-01T09:30:00Z")};
    const SyncProfile profile =
        decodeSyncProfile({{"id", "0f8fad5b-d9cb-469f-a165-70867728950e"}, {"name", "Photos"}}, clock);
    SyncProfile expected;
    expected.id = *Uuid::parse("0F8FAD5B-D9CB-469F-A165-70867728950E");
    expected.name = "Photos";
    expected.createdAt = expected.modifiedAt = clock.instant;
    expected.wasMigratedFromLegacySchema = true;
    EXPECT_EQ(profile, expected);

    // Saved again it states "durable" and drops the flag, so the next load is no migration.
    const json encoded = profile;
    EXPECT_EQ(encoded.at("durability"), "durable");
    EXPECT_FALSE(encoded.contains("wasMigratedFromLegacySchema"));
    EXPECT_FALSE(decodeSyncProfile(encoded, clock).wasMigratedFromLegacySchema);

    // Every field survives saving; explicit nulls mean absent optionals.
    const SyncProfile full = fullyFilledProfile();
    json stored = full;
    EXPECT_EQ(decodeSyncProfile(stored, clock), full);
    for (const char* key : {"sourceBookmark", "sourceVolume", "lastResult", "lastRunID", "lastSyncDate"}) {
        stored[key] = nullptr;
    }
    const SyncProfile nulled = decodeSyncProfile(stored, clock);
    EXPECT_FALSE(nulled.sourceBookmark || nulled.sourceVolume || nulled.lastResult || nulled.lastRunID ||
                 nulled.lastSyncDate);
}

TEST(SyncProfileDecoding, AnyDamagedValueFailsTheWholeProfileNamingTheKey) {
    const json good = fullyFilledProfile();
    const auto discarded = json(json::value_t::discarded);
    const std::pair<const char*, json> damages[] = {
        {"id", discarded},
        {"name", discarded},
        {"id", "not-a-uuid"},
        {"name", 5},
        {"durability", "Durable"},  // raw values are case names
        {"lastResult", "partial"},
        {"lastFilesTransferred", 1.5},
        {"lastBytesTransferred", "12"},
        {"sourceBookmark", "not base64!"},
        {"createdAt", "yesterday"},
        {"exclusionRules", json::array({{{"id", Uuid::random()}, {"kind", "regex"}}})},
        {"sourceVolume", json::object()},  // required flags missing
        {"mode", "sideways"},
    };
    for (const auto& [key, value] : damages) {
        SCOPED_TRACE(std::string(key) + " = " + value.dump());
        json stored = good;
        if (value.is_discarded()) {
            stored.erase(key);
        } else {
            stored[key] = value;
        }
        EXPECT_THAT(testing::thrownBy<DecodingError>([&] { decodeSyncProfile(stored); }).what(),
                    ::testing::HasSubstr(key));
    }
    // Inside a schedule every key is required.
    json stored = good;
    stored["schedule"].erase("weekday");
    EXPECT_THROW(decodeSyncProfile(stored), DecodingError);
}

TEST(SyncProfileValidation, ProblemsComeInAFixedOrder) {
    SyncProfile blank;
    blank.name = "   \n";
    EXPECT_THAT(blank.validationProblems(),
                ElementsAre("The profile needs a name.", "Choose a source folder.", "Choose a destination folder."));

    SyncProfile profile = fullyFilledProfile();
    profile.exclusionRules = {
        ExclusionRule{Uuid::random(), ExclusionRule::Kind::folderName, " \t", false, true},
        ExclusionRule{Uuid::random(), ExclusionRule::Kind::fileName, "keep.me", false, true},
        ExclusionRule{Uuid::random(), ExclusionRule::Kind::glob, "\n", true, false},  // disabled still counts
    };
    EXPECT_THAT(profile.validationProblems(), ElementsAre("Exclusion rule “Folder name” has no value.",
                                                          "Exclusion rule “Glob pattern” has no value."));

    // Folder equality is an exact text comparison; two empty paths are "not chosen".
    profile.exclusionRules.clear();
    profile.destinationDisplayPath = profile.sourceDisplayPath;
    EXPECT_THAT(profile.validationProblems(), ElementsAre("The source and destination must be different folders."));
    profile.destinationDisplayPath += "/";
    EXPECT_TRUE(profile.validationProblems().empty());
    profile.sourceDisplayPath.clear();
    profile.destinationDisplayPath.clear();
    EXPECT_TRUE(profile.validationProblems().empty());
}

}  // namespace
}  // namespace varnel
