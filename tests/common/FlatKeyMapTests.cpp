#include "common/FlatKeyMap.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace varnel {
namespace {

// Values are indices into a list of keys, the way a plan's index names scanned items.
struct KeyAt {
    const std::vector<std::string>* keys;
    std::string_view operator()(int index) const { return (*keys)[static_cast<std::size_t>(index)]; }
};
using Map = FlatKeyMap<int, KeyAt>;

TEST(FlatKeyMap, KeepsEveryValueThroughGrowthAndTellsNewKeysFromOld) {
    std::vector<std::string> keys;
    for (int i = 0; i < 20'000; ++i) keys.push_back("folder/" + std::to_string(i % 97) + "/item-" + std::to_string(i));

    Map map(KeyAt{&keys});  // starts small, so it grows many times on the way
    for (std::size_t i = 0; i < keys.size(); ++i) {
        auto [value, inserted] = map.tryEmplace(Map::HashedKey(keys[i]), static_cast<int>(i));
        ASSERT_TRUE(inserted) << keys[i];
        EXPECT_EQ(value, static_cast<int>(i));
    }
    EXPECT_EQ(map.size(), keys.size());
    for (std::size_t i = 0; i < keys.size(); ++i) {
        // A key equal in text but stored elsewhere finds the same value.
        const std::string copy = keys[i];
        const Map::HashedKey key(copy);
        const int* found = map.find(key);
        ASSERT_NE(found, nullptr) << copy;
        EXPECT_EQ(*found, static_cast<int>(i));
        auto [value, inserted] = map.tryEmplace(key, -1);
        EXPECT_FALSE(inserted);
        EXPECT_EQ(value, static_cast<int>(i));
        // Without a hash collision, the first bucket a look-up reads the key of is the key's.
        const int* candidate = map.candidate(key);
        ASSERT_NE(candidate, nullptr);
        if (*candidate != static_cast<int>(i)) {
            EXPECT_EQ(Map::HashedKey(keys[static_cast<std::size_t>(*candidate)]).hash, key.hash);
        }
    }
    EXPECT_EQ(map.size(), keys.size());
    for (const char* absent : {"folder/1/item-20000", "folder/1/item-1 ", "folder"}) {
        EXPECT_EQ(map.find(Map::HashedKey(absent)), nullptr) << absent;
    }
    map.clear();
    EXPECT_EQ(map.size(), 0u);
    EXPECT_EQ(map.find(Map::HashedKey(keys[5])), nullptr);
}

TEST(FlatKeyMap, TheEmptyKeyIsAKeyLikeAnyOther) {
    const std::vector<std::string> keys = {"", "a"};
    Map map(KeyAt{&keys}, 4);
    EXPECT_EQ(map.find(Map::HashedKey(std::string_view())), nullptr);
    EXPECT_EQ(map.candidate(Map::HashedKey("")), nullptr);
    EXPECT_TRUE(map.tryEmplace(Map::HashedKey(std::string_view()), 0).second);  // a default view has no text
    EXPECT_TRUE(map.tryEmplace(Map::HashedKey("a"), 1).second);
    ASSERT_NE(map.find(Map::HashedKey("")), nullptr);
    EXPECT_EQ(*map.find(Map::HashedKey("")), 0);
    EXPECT_FALSE(map.tryEmplace(Map::HashedKey(""), 1).second);
    EXPECT_EQ(map.size(), 2u);
    const Map& constant = map;
    ASSERT_NE(constant.find(Map::HashedKey("a")), nullptr);
    EXPECT_EQ(*constant.find(Map::HashedKey("a")), 1);
}

// Two keys of one 32-bit hash must still be told apart, by their text.
TEST(FlatKeyMap, KeysOfOneHashAreToldApartByTheirText) {
    std::unordered_map<std::uint32_t, std::string> seen;
    std::vector<std::string> keys;
    for (int i = 0; keys.empty() && i < 2'000'000; ++i) {
        std::string key = "photos/" + std::to_string(i);
        auto [at, inserted] = seen.emplace(Map::HashedKey(key).hash, key);
        if (!inserted) keys = {at->second, key};
    }
    ASSERT_EQ(keys.size(), 2u) << "no two keys of one hash among those tried";
    keys.push_back("other");
    Map map(KeyAt{&keys});
    EXPECT_TRUE(map.tryEmplace(Map::HashedKey(keys[0]), 0).second);
    EXPECT_EQ(map.find(Map::HashedKey(keys[1])), nullptr);
    EXPECT_TRUE(map.tryEmplace(Map::HashedKey(keys[1]), 1).second);
    EXPECT_TRUE(map.tryEmplace(Map::HashedKey(keys[2]), 2).second);
    for (int i = 0; i < 3; ++i) {
        const int* found = map.find(Map::HashedKey(keys[static_cast<std::size_t>(i)]));
        ASSERT_NE(found, nullptr);
        EXPECT_EQ(*found, i);
    }
}

}  // namespace
}  // namespace varnel
