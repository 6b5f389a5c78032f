#include "model/SyncProfile.hpp"

#include "common/DecodingError.hpp"
#include "common/PlatformWording.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace varnel {
namespace {

using ::testing::ElementsAre;
using nlohmann::json;

struct FixedClock final : Clock {
    Date instant;
    explicit FixedClock(Date date) : instant(date) {}
    Date now() const override { return instant; }
};

Date at(const char* iso) {
    return *parseISO8601(iso);
}

BookmarkData bookmarkFor(std::string_view path) {
    return BookmarkData(path.begin(), path.end());
}

TEST(SyncProfileDecoding, IdAndNameAloneTakeEveryDefaultAndMarkTheLegacyMigration) {
    const FixedClock clock(at("2026-03-01T09:30:00Z"));
    const json stored = {{"id", "0f8fad5b-d9cb-469f-a165-70867728950e"}, {"name", "Photos"}};

    const SyncProfile profile = decodeSyncProfile(stored, clock);

    EXPECT_EQ(profile.id.string(), "0F8FAD5B-D9CB-469F-A165-70867728950E");
    EXPECT_EQ(profile.name, "Photos");
    EXPECT_FALSE(profile.sourceBookmark);
    EXPECT_FALSE(profile.destinationBookmark);
    EXPECT_EQ(profile.sourceDisplayPath, "");
    EXPECT_EQ(profile.destinationDisplayPath, "");
    EXPECT_FALSE(profile.sourceVolume);
    EXPECT_FALSE(profile.destinationVolume);
    EXPECT_EQ(profile.mode, SyncMode::update);
    EXPECT_EQ(profile.durability, DurabilityMode::durable);
    EXPECT_TRUE(profile.wasMigratedFromLegacySchema);
    EXPECT_EQ(profile.verification, VerificationMode::none);
    EXPECT_EQ(profile.metadataPolicy, MetadataPolicy::extended);
    EXPECT_EQ(profile.hiddenFilePolicy, HiddenFilePolicy::include);
    EXPECT_TRUE(profile.exclusionRules.empty());
    EXPECT_EQ(profile.safetyThresholds, SafetyThresholds{});
    EXPECT_EQ(profile.onlineOnlyFiles, OnlineOnlyPolicy::download);
    EXPECT_EQ(profile.schedule, SyncSchedule{});
    EXPECT_EQ(formatISO8601(profile.schedule.since), "1970-01-01T00:00:00Z");
    EXPECT_FALSE(profile.lastAnalysisDate || profile.lastSyncDate || profile.lastResult ||
                 profile.lastBytesTransferred || profile.lastFilesTransferred || profile.lastRunID);
    EXPECT_EQ(profile.createdAt, clock.instant);
    EXPECT_EQ(profile.modifiedAt, clock.instant);

    // Saved again, the profile says "durable" out loud and never carries the flag, so the
    // next load no longer counts as a migration.
    const json encoded = profile;
    EXPECT_EQ(encoded.at("durability"), "durable");
    EXPECT_FALSE(encoded.contains("wasMigratedFromLegacySchema"));
    EXPECT_EQ(encoded.size(), 15u);  // the optionals are left out
    const SyncProfile reloaded = decodeSyncProfile(encoded, clock);
    EXPECT_FALSE(reloaded.wasMigratedFromLegacySchema);
    EXPECT_EQ(reloaded.durability, DurabilityMode::durable);
}

SyncProfile fullyFilledProfile() {
    SyncProfile profile;
    profile.id = *Uuid::parse("0f8fad5b-d9cb-469f-a165-70867728950e");
    profile.name = "Fotos – Sommer ☀";
    profile.sourceBookmark = bookmarkFor("/home/ana/Pictures");
    profile.sourceDisplayPath = "/home/ana/Pictures";
    VolumeIdentity home;
    home.volumeUUID = "1234-ABCD";
    home.volumeName = "Home";
    home.totalCapacity = 512'000'000'000;
    profile.sourceVolume = home;
    profile.destinationBookmark = bookmarkFor("/media/ana/Backup");
    profile.destinationDisplayPath = "/media/ana/Backup";
    VolumeIdentity backup;
    backup.volumeName = "Backup";
    backup.isRemovable = true;
    profile.destinationVolume = backup;
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

TEST(SyncProfileEncoding, WritesAllKeysInTheirStoredFormsAndReadsBackEqual) {
    const SyncProfile profile = fullyFilledProfile();
    const json encoded = profile;

    EXPECT_EQ(encoded.size(), 25u);
    EXPECT_EQ(encoded.at("id"), "0F8FAD5B-D9CB-469F-A165-70867728950E");
    EXPECT_EQ(encoded.at("sourceBookmark"), "L2hvbWUvYW5hL1BpY3R1cmVz");
    EXPECT_EQ(encoded.at("mode"), "mirror");
    EXPECT_EQ(encoded.at("verification"), "verifyCopiedFiles");
    EXPECT_EQ(encoded.at("lastResult"), "completedWithWarnings");
    EXPECT_EQ(encoded.at("lastAnalysisDate"), "2026-03-01T09:30:00Z");
    EXPECT_EQ(encoded.at("lastRunID"), "7C9E6679-7425-40DE-944B-E07FC1F90AE7");
    EXPECT_EQ(encoded.at("lastBytesTransferred"), 9'000'000'000'000);
    EXPECT_EQ(encoded.at("schedule"), json::parse(R"({"kind":"weekly","intervalHours":3,"hour":7,"minute":45,
                                                    "weekday":6,"since":"2026-01-02T03:04:05Z"})"));
    EXPECT_EQ(encoded.at("destinationVolume").at("isRemovable"), true);

    const FixedClock clock(at("2030-01-01T00:00:00Z"));
    EXPECT_EQ(decodeSyncProfile(encoded, clock), profile);
}

TEST(SyncProfileDecoding, ExplicitNullsMeanAbsentOptionals) {
    json stored = fullyFilledProfile();
    for (const char* key : {"sourceBookmark", "sourceVolume", "lastResult", "lastRunID", "lastSyncDate"}) {
        stored[key] = nullptr;
    }
    const SyncProfile profile = decodeSyncProfile(stored, SystemClock::shared());
    EXPECT_FALSE(profile.sourceBookmark || profile.sourceVolume || profile.lastResult || profile.lastRunID ||
                 profile.lastSyncDate);
    EXPECT_TRUE(profile.destinationBookmark);
}

TEST(SyncProfileDecoding, AnyDamagedValueFailsTheWholeProfileNamingTheKey) {
    const json good = fullyFilledProfile();
    const auto decodeWith = [&](const char* key, json value) {
        json stored = good;
        if (value.is_discarded()) {
            stored.erase(key);
        } else {
            stored[key] = std::move(value);
        }
        return decodeSyncProfile(stored, SystemClock::shared());
    };
    const auto discarded = json(json::value_t::discarded);

    EXPECT_THROW(decodeWith("id", discarded), DecodingError);
    EXPECT_THROW(decodeWith("name", discarded), DecodingError);
    EXPECT_THROW(decodeWith("id", "not-a-uuid"), DecodingError);
    EXPECT_THROW(decodeWith("name", 5), DecodingError);
    EXPECT_THROW(decodeWith("durability", "Durable"), DecodingError);  // raw values are case names
    EXPECT_THROW(decodeWith("lastResult", "partial"), DecodingError);
    EXPECT_THROW(decodeWith("lastFilesTransferred", 1.5), DecodingError);
    EXPECT_THROW(decodeWith("lastBytesTransferred", "12"), DecodingError);
    EXPECT_THROW(decodeWith("sourceBookmark", "not base64!"), DecodingError);
    EXPECT_THROW(decodeWith("createdAt", "yesterday"), DecodingError);
    EXPECT_THROW(decodeWith("exclusionRules", json::array({{{"id", Uuid::random()}, {"kind", "regex"}}})),
                 DecodingError);
    EXPECT_THROW(decodeWith("sourceVolume", json::object()), DecodingError);  // required flags missing

    // Inside a schedule every key is required.
    json schedule = good.at("schedule");
    schedule.erase("weekday");
    try {
        decodeWith("schedule", schedule);
        FAIL() << "a schedule without weekday decoded";
    } catch (const DecodingError& error) {
        EXPECT_THAT(error.what(), ::testing::HasSubstr("weekday"));
    }
    try {
        decodeWith("mode", "sideways");
        FAIL() << "an unknown mode decoded";
    } catch (const DecodingError& error) {
        EXPECT_THAT(error.what(), ::testing::HasSubstr("“mode”"));
        EXPECT_THAT(error.what(), ::testing::HasSubstr("sideways"));
    }
}

TEST(SyncProfileValidation, BlankNameAndNoFoldersGiveTheFirstThreeMessagesInOrder) {
    SyncProfile profile;
    profile.name = "   \n";
    EXPECT_THAT(profile.validationProblems(),
                ElementsAre("The profile needs a name.", "Choose a source folder.", "Choose a destination folder."));
}

TEST(SyncProfileValidation, BlankRuleValuesNameTheirKindsInListOrder) {
    SyncProfile profile = fullyFilledProfile();
    profile.exclusionRules = {
        ExclusionRule{Uuid::random(), ExclusionRule::Kind::folderName, " \t", false, true},
        ExclusionRule{Uuid::random(), ExclusionRule::Kind::fileName, "keep.me", false, true},
        ExclusionRule{Uuid::random(), ExclusionRule::Kind::glob, "\n", true, false},  // disabled still counts
    };
    EXPECT_THAT(profile.validationProblems(), ElementsAre("Exclusion rule “Folder name” has no value.",
                                                          "Exclusion rule “Glob pattern” has no value."));
}

TEST(SyncProfileValidation, FolderEqualityIsAnExactTextComparison) {
    SyncProfile profile = fullyFilledProfile();
    profile.exclusionRules.clear();
    profile.destinationDisplayPath = "/home/ana/Pictures";
    EXPECT_THAT(profile.validationProblems(), ElementsAre("The source and destination must be different folders."));

    profile.destinationDisplayPath = "/home/ana/Pictures/";
    EXPECT_TRUE(profile.validationProblems().empty());

    // Two empty paths are "not chosen", not "the same folder".
    profile.sourceDisplayPath.clear();
    profile.destinationDisplayPath.clear();
    EXPECT_TRUE(profile.validationProblems().empty());
}

TEST(SyncOptions, RawValuesAreTheCaseNamesAndParseOnlyThose) {
    for (auto mode : {DurabilityMode::fast, DurabilityMode::durable, DurabilityMode::maximum}) {
        EXPECT_EQ(parseDurabilityMode(toString(mode)), mode);
    }
    for (auto outcome : {SyncRunOutcome::success, SyncRunOutcome::completedWithWarnings, SyncRunOutcome::cancelled,
                         SyncRunOutcome::failed}) {
        EXPECT_EQ(parseSyncRunOutcome(toString(outcome)), outcome);
    }
    EXPECT_EQ(toString(VerificationMode::verifyCopiedFiles), "verifyCopiedFiles");
    EXPECT_EQ(toString(MetadataPolicy::strict), "strict");
    EXPECT_EQ(toString(HiddenFilePolicy::exclude), "exclude");
    EXPECT_EQ(toString(OnlineOnlyPolicy::skip), "skip");
    EXPECT_EQ(parseSyncMode("Mirror"), std::nullopt);
    EXPECT_EQ(parseMetadataPolicy(""), std::nullopt);
    EXPECT_EQ(displayName(SyncRunOutcome::completedWithWarnings), "Completed with warnings");
}

TEST(SyncOptions, SentencesThatNameThePlatformUseItsWordsAndNothingElseChanges) {
    const std::string maximum = explanation(DurabilityMode::maximum);
    const std::string download = explanation(OnlineOnlyPolicy::download);
#if defined(__APPLE__)
    EXPECT_THAT(maximum, ::testing::StartsWith("Strongest flush macOS offers (F_FULLFSYNC), which"));
    EXPECT_THAT(download, ::testing::HasSubstr("stay downloaded on this Mac afterwards."));
#else
    EXPECT_EQ(maximum,
              "Strongest flush Linux offers (fsync), which also asks the drive to empty its own write cache. May "
              "significantly reduce throughput, and still cannot protect against hardware or enclosures that ignore "
              "flush commands.");
    EXPECT_EQ(download,
              "Online-only files are downloaded by their cloud app while they are copied, and stay downloaded on "
              "this computer afterwards. Files that have not changed are never downloaded.");
#endif
    EXPECT_EQ(speedImpact(DurabilityMode::maximum), "High overhead — can be many times slower on small files");
}

}  // namespace
}  // namespace varnel
