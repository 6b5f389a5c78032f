#include "model/RelativePath.hpp"

#include "model/PathArena.hpp"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

namespace varnel {
namespace {

TEST(RelativePathTest, AcceptsValidPathsUnchangedAndRefusesEveryMalformedOne) {
    const auto root = RelativePath::fromString("");
    ASSERT_TRUE(root);
    EXPECT_TRUE(root->isRoot());
    EXPECT_EQ(root->description(), "/");

    for (const char* valid : {"a", "a/b", ".hidden", "..x", "a/.b/c..", "x y/ z "}) {
        const auto path = RelativePath::fromString(valid);
        ASSERT_TRUE(path) << valid;
        EXPECT_EQ(path->value(), valid);
        EXPECT_EQ(path->description(), valid);
    }
    for (const char* invalid : {"/a", "a/", "a//b", "./a", "a/..", "a/./b", ".", "..", "/"}) {
        EXPECT_FALSE(RelativePath::fromString(invalid)) << invalid;
    }
    using namespace std::string_literals;
    EXPECT_FALSE(RelativePath::fromString("a/b\0c"s));
    EXPECT_FALSE(RelativePath::fromString("\0"s));
}

TEST(RelativePathTest, ComponentsAppendingParentAndLastComponent) {
    EXPECT_TRUE(RelativePath::isValidComponent(".hidden"));
    EXPECT_TRUE(RelativePath::isValidComponent("..x"));
    EXPECT_FALSE(RelativePath::isValidComponent(""));
    EXPECT_FALSE(RelativePath::isValidComponent("."));
    EXPECT_FALSE(RelativePath::isValidComponent(".."));
    EXPECT_FALSE(RelativePath::isValidComponent("a/b"));

    const auto built = RelativePath::fromComponents({"Photos", "2024", "img.jpg"});
    ASSERT_TRUE(built);
    EXPECT_EQ(built->value(), "Photos/2024/img.jpg");
    EXPECT_TRUE(RelativePath::fromComponents({})->isRoot());
    EXPECT_FALSE(RelativePath::fromComponents({"a", ".."}));

    const RelativePath root;
    const auto child = root.appending("a");
    ASSERT_TRUE(child);
    EXPECT_EQ(child->value(), "a");
    EXPECT_EQ(child->appending("b")->value(), "a/b");
    EXPECT_FALSE(child->appending("b/c"));
    EXPECT_FALSE(child->appending(".."));
    EXPECT_FALSE(child->appending("."));
    EXPECT_FALSE(child->appending(""));
    EXPECT_FALSE(child->appending(std::string_view("b\0c", 3)));

    EXPECT_EQ(built->lastComponent(), "img.jpg");
    EXPECT_EQ(built->parent().value(), "Photos/2024");
    EXPECT_TRUE(child->parent().isRoot());
    EXPECT_TRUE(root.parent().isRoot());
    EXPECT_EQ(root.lastComponent(), "");
    EXPECT_EQ(built->components(), (std::vector<std::string_view>{"Photos", "2024", "img.jpg"}));

    EXPECT_TRUE(root.isAncestorOf(*built));
    EXPECT_TRUE(child->isAncestorOf(*child->appending("b")));
    EXPECT_FALSE(child->isAncestorOf(*RelativePath::fromString("ab")));
    EXPECT_FALSE(child->isAncestorOf(*child));
}

TEST(RelativePathTest, CanonicalEquivalenceWithoutChangingTheStoredValue) {
    const std::string precomposed = "Caf\xC3\xA9/R\xC3\xA9sum\xC3\xA9.txt";      // é as U+00E9
    const std::string decomposed = "Cafe\xCC\x81/Re\xCC\x81sume\xCC\x81.txt";  // e + U+0301
    const auto a = RelativePath::fromString(precomposed);
    const auto b = RelativePath::fromString(decomposed);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(*a, *b);
    EXPECT_EQ(std::hash<RelativePath>{}(*a), std::hash<RelativePath>{}(*b));
    EXPECT_EQ(b->value(), decomposed) << "the stored spelling must be kept";

    // The same holds for paths built one component at a time, as the scanner does.
    const auto appended = RelativePath::fromString("Cafe\xCC\x81")->appending("Re\xCC\x81sume\xCC\x81.txt");
    ASSERT_TRUE(appended);
    EXPECT_EQ(*appended, *a);
    EXPECT_EQ(appended->value(), decomposed);
    // A plain ASCII name below a decomposed folder still takes the folder's canonical form.
    const auto below = RelativePath::fromString("Cafe\xCC\x81")->appending("notes.txt");
    ASSERT_TRUE(below);
    EXPECT_EQ(*below, *RelativePath::fromString("Caf\xC3\xA9/notes.txt"));
    EXPECT_EQ(below->value(), "Cafe\xCC\x81/notes.txt");

    std::unordered_set<RelativePath> set{*a};
    EXPECT_TRUE(set.contains(*b));

    // Copies share the text, canonical form included, and outlive the original.
    std::optional<RelativePath> original = RelativePath::fromString(decomposed);
    RelativePath copy(*original);
    RelativePath assigned = *RelativePath::fromString("x");
    assigned = *original;
    original.reset();
    EXPECT_EQ(copy, *a);
    EXPECT_EQ(assigned, *a);
    EXPECT_EQ(assigned.value(), decomposed);
    assigned = *RelativePath::fromString("x");
    EXPECT_EQ(assigned.canonicalValue(), "x");

    // Case stays significant.
    EXPECT_NE(*RelativePath::fromString("A"), *RelativePath::fromString("a"));
}

TEST(RelativePathTest, OrdersByCanonicalScalarValuesWithSlashBelowLetters) {
    std::set<RelativePath> ordered;
    for (const char* value : {"b", "a/b", "a-b", "a", "\xC3\xA9", "Z"}) ordered.insert(*RelativePath::fromString(value));
    std::vector<std::string> values;
    for (const auto& path : ordered) values.emplace_back(path.value());
    EXPECT_EQ(values, (std::vector<std::string>{"Z", "a", "a-b", "a/b", "b", "\xC3\xA9"}));
}

// Paths whose text lives in a scan's arena are ordinary paths: they compare and hash like
// their heap twins, keep a canonical form, and outlive the arena's handle for as long as
// any copy of them does (the sanitizer build turns a premature release into a failure).
TEST(RelativePathTest, PathsKeptInAnArenaBehaveLikeAnyOtherAndOutliveItsHandle) {
    std::vector<RelativePath> kept;
    const std::string decomposed = "Cafe\u0301";
    const std::string huge(1 << 21, 'n');  // larger than a chunk: the heap takes it
    {
        PathArena::Handle arena;
        const RelativePath folder = *RelativePath().appending("photos", arena.get());
        for (int i = 0; i < 20'000; ++i) kept.push_back(*folder.appending("IMG_" + std::to_string(i), arena.get()));
        kept.push_back(*folder.appending(decomposed, arena.get()));
        kept.push_back(*folder.appending(huge, arena.get()));
        EXPECT_FALSE(folder.appending("a/b", arena.get())) << "invalid names are still refused";
    }
    std::unordered_set<RelativePath> hashed(kept.begin(), kept.end());
    for (int i = 0; i < 20'000; i += 997) {
        const auto twin = RelativePath::fromString("photos/IMG_" + std::to_string(i));
        EXPECT_EQ(kept[static_cast<std::size_t>(i)], *twin);
        EXPECT_EQ(kept[static_cast<std::size_t>(i)].value(), twin->value());
        EXPECT_TRUE(hashed.contains(*twin));
    }
    const RelativePath& accented = kept[20'000];
    EXPECT_EQ(accented.value(), "photos/" + decomposed);
    EXPECT_EQ(accented, *RelativePath::fromString("photos/Caf\u00e9"));
    EXPECT_EQ(kept.back().value(), "photos/" + huge);

    const RelativePath survivor = kept[123];
    kept.clear();
    EXPECT_EQ(survivor.value(), "photos/IMG_123");
    EXPECT_EQ(survivor.parent(), *RelativePath::fromString("photos"));
}

// Each chunk goes back with the last path made in it, so texts that are replaced free
// their room while the scan's other paths live on; the chunk being filled stays.
TEST(RelativePathTest, AnArenaChunkGoesBackWithItsLastPath) {
    PathArena::Handle arena;
    std::vector<RelativePath> early;
    std::vector<RelativePath> late;
    const std::string name(200, 'x');
    for (int i = 0; i < 12'000; ++i) {  // about 2.5 MB of text
        (i < 6'000 ? early : late).push_back(*RelativePath().appending(name + std::to_string(i), arena.get()));
    }
    const std::size_t filled = arena.get()->chunksHeld();
    ASSERT_GE(filled, 3U);

    const RelativePath kept = early.back();  // in the second chunk, beside late paths
    early.clear();
    EXPECT_EQ(arena.get()->chunksHeld(), filled - 1) << "the first chunk held early paths only";
    EXPECT_EQ(kept.value(), name + "5999");
    EXPECT_EQ(late.front().value(), name + "6000");

    late.clear();
    EXPECT_EQ(arena.get()->chunksHeld(), 2U) << "the kept path's chunk and the one being filled";
}

#ifdef MADV_POPULATE_WRITE
// A chunk's pages are mapped a step ahead of its paths, not all at once: an arena that
// makes a few paths (a helper that listed one folder) holds little memory.
TEST(RelativePathTest, AnArenaMapsItsChunkAStepAheadOfItsPaths) {
    const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const auto resident = [&](const void* chunk, std::size_t bytes) {
        std::vector<unsigned char> pages(bytes / page);
        EXPECT_EQ(::mincore(const_cast<void*>(chunk), bytes, pages.data()), 0);
        std::size_t count = 0;
        for (const unsigned char state : pages) count += state & 1U;
        return count;
    };
    void* probe = ::mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(probe, MAP_FAILED);
    const bool canMapAhead = ::madvise(probe, page, MADV_POPULATE_WRITE) == 0;
    ::munmap(probe, page);
    if (!canMapAhead) GTEST_SKIP() << "this kernel cannot map pages ahead (MADV_POPULATE_WRITE)";

    PathArena::Handle arena;
    const RelativePath path = *RelativePath().appending("photo.jpg", arena.get());
    const std::size_t step = PrefaultAhead::kStep;
    const std::uintptr_t chunkSize = std::uintptr_t{1} << 20;  // chunks are aligned to their size
    const void* chunk =
        reinterpret_cast<const void*>(reinterpret_cast<std::uintptr_t>(path.value().data()) & ~(chunkSize - 1));
    EXPECT_EQ(resident(chunk, step), step / page);
    EXPECT_EQ(resident(static_cast<const char*>(chunk) + step, step), 0U);
}
#endif

}  // namespace
}  // namespace varnel
