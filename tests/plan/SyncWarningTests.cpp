#include "plan/SyncWarning.hpp"

#include "common/DecodingError.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <set>

namespace varnel::testing {

namespace {

using Category = SyncWarning::Category;

TEST(SyncWarningTest, CategoryRawValuesAreCaseNamesInDeclarationOrder) {
    const std::array<std::string_view, 16> expected{
        "unsupportedFileType", "symlinkEscape",        "caseCollision",
        "hardLink",            "sparseFile",           "metadataNotPreserved",
        "permissionDenied",    "volumeIdentityUnverifiable", "sourceChangedDuringRun",
        "freeSpaceTight",      "archiveOnDifferentVolume", "durabilityUncertain",
        "orphanedPartialFile", "scanError",            "onlineOnlyFile",
        "other"};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const Category category = kAllSyncWarningCategories[i];
        EXPECT_EQ(static_cast<std::size_t>(category), i);
        EXPECT_EQ(toString(category), expected[i]);
        EXPECT_EQ(parseSyncWarningCategory(expected[i]), category);
        EXPECT_EQ(nlohmann::json(category), expected[i]);
    }
    EXPECT_EQ(parseSyncWarningCategory("Other"), std::nullopt);
    EXPECT_EQ(parseSyncWarningCategory(""), std::nullopt);
}

TEST(SyncWarningTest, TitlesAreDistinctAndOtherIsWarning) {
    EXPECT_EQ(title(Category::other), "Warning");
    EXPECT_EQ(title(Category::caseCollision), "Filename collision");
    EXPECT_EQ(title(Category::symlinkEscape), "Symbolic link outside source");
    EXPECT_EQ(title(Category::durabilityUncertain), "Durability not confirmed");
    EXPECT_EQ(title(Category::orphanedPartialFile), "Leftover partial file");
    std::set<std::string> titles;
    for (const Category category : kAllSyncWarningCategories) titles.insert(title(category));
    EXPECT_EQ(titles.size(), kAllSyncWarningCategories.size());
}

TEST(SyncWarningTest, ConvenienceConstructorGivesFreshIds) {
    const SyncWarning first(Category::hardLink, "Linked", RelativePath::fromString("a/b"));
    const SyncWarning second(Category::hardLink, "Linked", RelativePath::fromString("a/b"));
    EXPECT_FALSE(first.id.isNil());
    EXPECT_NE(first.id, second.id);
    EXPECT_NE(first, second);
    EXPECT_EQ(first.category, Category::hardLink);
    EXPECT_EQ(first.relativePath->value(), "a/b");
    EXPECT_EQ(first.message, "Linked");
}

TEST(SyncWarningTest, JSONRoundTripWithAndWithoutPath) {
    const SyncWarning aboutItem(Category::sparseFile, "Sparse", RelativePath::fromString("dir/disk.img"));
    const nlohmann::json itemJSON = aboutItem;
    EXPECT_EQ(itemJSON.at("id"), aboutItem.id.string());
    EXPECT_EQ(itemJSON.at("category"), "sparseFile");
    EXPECT_EQ(itemJSON.at("relativePath"), "dir/disk.img");
    EXPECT_EQ(itemJSON.at("message"), "Sparse");
    EXPECT_EQ(itemJSON.get<SyncWarning>(), aboutItem);

    const SyncWarning aboutRun(Category::freeSpaceTight, "Tight");
    const nlohmann::json runJSON = aboutRun;
    EXPECT_FALSE(runJSON.contains("relativePath"));
    EXPECT_EQ(runJSON.size(), 3u);
    const auto decoded = runJSON.get<SyncWarning>();
    EXPECT_EQ(decoded, aboutRun);
    EXPECT_FALSE(decoded.relativePath.has_value());

    // An explicit null reads as "no path", as other writers may produce it.
    nlohmann::json withNull = runJSON;
    withNull["relativePath"] = nullptr;
    EXPECT_EQ(withNull.get<SyncWarning>(), aboutRun);
}

TEST(SyncWarningTest, DecodingRejectsUnknownCategoryAndBadPath) {
    nlohmann::json json = SyncWarning(Category::other, "x");
    json["category"] = "somethingNew";
    EXPECT_THROW(json.get<SyncWarning>(), DecodingError);
    json["category"] = "other";
    json["relativePath"] = "/absolute";
    EXPECT_THROW(json.get<SyncWarning>(), DecodingError);
}

}  // namespace

}  // namespace varnel::testing
