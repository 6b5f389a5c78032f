#include "platform/SecurityScopedBookmarkStore.hpp"
#include "scan/AccessScope.hpp"
#include "scan/POSIXFileError.hpp"
#include "scan/RealFileSystem.hpp"
#include "support/Shorthand.hpp"
#include "support/TemporaryDirectory.hpp"
#include "transfer/SyncError.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <thread>
#include <vector>

namespace varnel::testing {

namespace {

// --- AccessScope -------------------------------------------------------------------------

TEST(AccessScopeTest, GivesEveryGrantBackOnceInOrder) {
    std::vector<std::string> released;
    {
        AccessScope scope;
        scope.add("/src", [&] { released.push_back("/src"); });
        scope.add("/dst", [&] { released.push_back("/dst"); });
        EXPECT_EQ(scope.urls(), (std::vector<std::string>{"/src", "/dst"}));
        EXPECT_FALSE(scope.isReleased());

        scope.release();
        scope.release();
        EXPECT_TRUE(scope.isReleased());
        EXPECT_TRUE(scope.urls().empty());
        EXPECT_EQ(released, (std::vector<std::string>{"/src", "/dst"}));

        // Too late to be held: given back at once.
        scope.add("/late", [&] { released.push_back("/late"); });
        EXPECT_TRUE(scope.urls().empty());
        EXPECT_EQ(released.back(), "/late");
    }
    EXPECT_EQ(released.size(), 3u);  // the destructor found nothing left

    int dropped = 0;
    {
        AccessScope scope;
        scope.add("/kept", [&] { ++dropped; });
    }
    EXPECT_EQ(dropped, 1);  // a scope that is dropped does not leak its grant
}

TEST(AccessScopeTest, ConcurrentReleasesGiveEachGrantBackOnce) {
    std::map<int, std::atomic<int>> counts;
    for (int i = 0; i < 64; ++i) counts[i] = 0;
    AccessScope scope;
    for (int i = 0; i < 64; ++i) scope.add("/f" + std::to_string(i), [&counts, i] { ++counts[i]; });
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 8; ++t) threads.emplace_back([&] { scope.release(); });
    }
    for (const auto& [index, count] : counts) EXPECT_EQ(count.load(), 1) << index;
}

// --- Folder references on Linux -----------------------------------------------------------

TEST(SecurityScopedBookmarkStoreTest, ReferenceIsThePathAndResolutionFindsTheFolder) {
    TemporaryDirectory temp;
    RealFileSystem fs;
    SecurityScopedBookmarkStore store(fs);
    const std::string folder = (temp / "Chosen Folder").string();
    std::filesystem::create_directories(folder);

    const BookmarkData bookmark = store.makeBookmark(folder);
    EXPECT_EQ(std::string(bookmark.begin(), bookmark.end()), folder);

    AccessScope scope;
    EXPECT_EQ(store.resolve(bookmark, EndpointRole::source, scope), (ResolvedBookmark{folder, std::nullopt, false}));
    EXPECT_TRUE(scope.urls().empty());  // nothing to grant without a sandbox

    std::filesystem::remove(folder);
    const auto error = thrownBy<SyncError>([&] { store.resolve(bookmark, EndpointRole::destination, scope); });
    EXPECT_EQ(error, SyncError(SyncError::BookmarkResolutionFailed{
                         EndpointRole::destination, POSIXFileError(ENOENT, "realpath", folder).message()}));
    EXPECT_EQ(error.message(), "The saved destination folder could not be reopened. realpath failed for " + folder +
                                   ": No such file or directory");
}

TEST(SecurityScopedBookmarkStoreTest, DamagedReferencesAndBadFoldersAreRefused) {
    TemporaryDirectory temp;
    RealFileSystem fs;
    SecurityScopedBookmarkStore store(fs);
    AccessScope scope;
    const std::string withNul = std::string("/tmp") + '\0' + "x";
    for (const BookmarkData& damaged :
         {BookmarkData{}, BookmarkData{'r', 'e', 'l'}, BookmarkData(withNul.begin(), withNul.end())}) {
        EXPECT_EQ(SecurityScopedBookmarkStore::pathOf(damaged), std::nullopt);
        EXPECT_EQ(thrownBy<SyncError>([&] { store.resolve(damaged, EndpointRole::source, scope); }).message(),
                  "The saved source folder could not be reopened. The saved folder reference does not hold a "
                  "folder path.");
    }
    EXPECT_THROW(store.makeBookmark("relative/folder"), std::invalid_argument);
    EXPECT_THROW(store.makeBookmark((temp / "missing").string()), POSIXFileError);
}

}  // namespace

}  // namespace varnel::testing
