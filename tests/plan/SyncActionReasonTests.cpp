#include "common/DecodingError.hpp"
#include "plan/SyncActionReason.hpp"
#include "plan/SyncActionType.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace varnel {
namespace {

using R = SyncActionReason;
using Json = nlohmann::json;

TEST(SyncActionReasonTest, JsonHasOneKeyNamedAfterTheCase) {
    EXPECT_EQ(Json(R(R::SizeDiffers{10, 12})), Json::parse(R"({"sizeDiffers":{"source":10,"destination":12}})"));
    EXPECT_EQ(Json(R(R::NotPresentInSource{})), Json::parse(R"({"notPresentInSource":{}})"));
    EXPECT_EQ(Json(R(R::UnsupportedFileType{UnsupportedReason::fifo})),
              Json::parse(R"({"unsupportedFileType":{"_0":"fifo"}})"));
    EXPECT_EQ(Json(R(R::TypeChanged{EntryKind::regularFile, EntryKind::directory})),
              Json::parse(R"({"typeChanged":{"from":"regularFile","to":"directory"}})"));
}

TEST(SyncActionReasonTest, EveryCaseSurvivesARoundTrip) {
    const std::vector<R> all = {
        R::NotPresentInDestination{},
        R::SizeDiffers{-1, 1},
        R::SourceIsNewer{{1, 2}, {3, 4}},
        R::TimestampsDifferAmbiguously{{5, 6}, {7, 8}},
        R::TypeChanged{EntryKind::symbolicLink, EntryKind::unsupported},
        R::SymlinkTargetChanged{"a", "b"},
        R::IdenticalMetadata{},
        R::MissingParentDirectory{},
        R::NotPresentInSource{},
        R::MatchedExclusionRule{"Folder named node_modules"},
        R::HiddenFileSkipped{},
        R::UnsupportedFileType{UnsupportedReason::characterDevice},
        R::CaseCollision{"Photo.JPG"},
        R::HardLinkNotPreserved{3},
        R::SparseFileMayExpand{},
        R::SymlinkEscapesSourceTree{"/etc"},
        R::PermissionDenied{"Permission denied"},
        R::ScanFailure{"I/O error"},
        R::OnlineOnlyInSource{},
    };
    ASSERT_EQ(all.size(), std::variant_size_v<R::Case>);
    for (const auto& reason : all) {
        const Json json = reason;
        EXPECT_EQ(json.get<R>(), reason) << json.dump();
        EXPECT_EQ(json.begin().key(), reason.name());
    }
    EXPECT_THROW((void)Json::parse(R"({"noSuchReason":{}})").get<R>(), DecodingError);
    EXPECT_THROW((void)Json::parse(R"({"a":{},"b":{}})").get<R>(), DecodingError);
    EXPECT_THROW((void)Json::parse(R"({"typeChanged":{"from":"pipe","to":"directory"}})").get<R>(), DecodingError);
}

TEST(SyncActionReasonTest, ReasonColumnTexts) {
    EXPECT_EQ(R(R::SizeDiffers{1'500'000, 12}).text(), "Size differs (1.5 MB vs 12 bytes)");
    EXPECT_EQ(R(R::UnsupportedFileType{UnsupportedReason::fifo}).text(), "Unsupported type: named pipe (FIFO)");
    EXPECT_EQ(R(R::CaseCollision{"Photo.JPG"}).text(), "Name collides with “Photo.JPG” on a case-insensitive volume");
    EXPECT_EQ(R(R::HardLinkNotPreserved{3}).text(), "Hard link (3 references) — copied as an independent file");
    EXPECT_EQ(R(R::MatchedExclusionRule{"Extension .tmp"}).text(), "Excluded by rule: Extension .tmp");
    EXPECT_EQ(R(R::TypeChanged{EntryKind::symbolicLink, EntryKind::unsupported}).text(),
              "Type changed from symbolic link to unsupported item");
}

TEST(SyncActionTypeTest, RawValuesAndLabelsRoundTrip) {
    for (const auto type : kAllSyncActionTypes) {
        EXPECT_EQ(parseSyncActionType(toString(type)), type);
    }
    EXPECT_EQ(label(SyncActionType::replaceChangedFile), "Update");
    EXPECT_EQ(label(SyncActionType::skipOnlineOnlyFile), "Not downloaded");
    EXPECT_FALSE(parseSyncActionType("copy"));
}

}  // namespace
}  // namespace varnel
