#include "common/DecodingError.hpp"
#include "plan/SyncActionReason.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace varnel {
namespace {

using R = SyncActionReason;
using Json = nlohmann::json;

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

    // A link's two targets share one string; each must come back on its own side, and a
    // target holding the joining NUL is refused.
    EXPECT_EQ(Json(R(R::SymlinkTargetChanged{"old/a", ""})).dump(),
              R"({"symlinkTargetChanged":{"from":"old/a","to":""}})");
    EXPECT_THROW((void)Json::parse(R"({"symlinkTargetChanged":{"from":"a\u0000b","to":"c"}})").get<R>(),
                 DecodingError);
}

}  // namespace
}  // namespace varnel
