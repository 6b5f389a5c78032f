#include "common/FlatKeyMap.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
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

// Paths differ from their neighbours in a byte or two anywhere along them, or in length
// alone. A hash that let any byte position, or the length, go unmixed would give whole
// families of them one value and probe through them one by one: every key here must
// spread over the high bits that choose a key's home bucket as random values would.
TEST(FlatKeyMap, PathsThatDifferInOneByteAnywhereGetTheirOwnHashes) {
    std::vector<std::string> keys;
    const std::string base = "documents/projects/archive-2024/IMG-0000000.jpeg";
    for (std::size_t length = 1; length <= base.size(); ++length) {
        const std::string stem = base.substr(0, length);
        keys.push_back(stem);
        for (std::size_t at = 0; at < length; ++at) {
            for (const char c : std::string_view("0123456789abcdefghijklmnopqrstuvwxyz_")) {
                if (c == stem[at]) continue;
                std::string key = stem;
                key[at] = c;
                keys.push_back(key);
            }
        }
    }
    std::unordered_map<std::uint32_t, int> hashes;
    std::unordered_map<std::uint32_t, int> homes;  // the top 16 bits, as a map of 65,536 buckets uses them
    for (const std::string& key : keys) {
        const std::uint32_t hash = Map::HashedKey(key).hash;
        ++hashes[hash];
        ++homes[hash >> 16];
    }
    // About 44,000 keys: random 32-bit values repeat once or so, and fill some 32,000 of
    // 65,536 homes with at most a handful each.
    EXPECT_GE(hashes.size(), keys.size() - 5);
    EXPECT_GE(homes.size(), 30'000u);
    int fullest = 0;
    for (const auto& [home, count] : homes) fullest = std::max(fullest, count);
    EXPECT_LE(fullest, 10);
}

// Filling from two threads must give what adding in order gives: every key found, the
// first of two equal keys kept (also when it had to wait for the other half), and
// nothing lost where a probe runs past the middle of the array or wraps at its end.
TEST(FlatKeyMap, FillingOnTwoThreadsKeepsWhatAddingInOrderKeeps) {
    std::vector<std::string> keys;
    for (int i = 0; i < 30'000; ++i) keys.push_back("a/" + std::to_string(i % 113) + "/" + std::to_string(i));
    for (int i = 0; i < 3'000; ++i) keys.push_back(keys[static_cast<std::size_t>(i * 7)]);  // later twins
    const auto inOrder = [](auto first, auto second) {
        first();
        second();
    };
    const auto atOnce = [](auto first, auto second) {
        std::thread other(second);
        first();
        other.join();
    };
    for (const bool threads : {false, true}) {
        Map map(KeyAt{&keys});
        if (threads) {
            map.emplaceIndices(keys.size(), atOnce);
        } else {
            map.emplaceIndices(keys.size(), inOrder);
        }
        EXPECT_EQ(map.size(), 30'000u);
        for (std::size_t i = 0; i < keys.size(); ++i) {
            const int* found = map.find(Map::HashedKey(keys[i]));
            ASSERT_NE(found, nullptr) << keys[i];
            EXPECT_EQ(*found, static_cast<int>(i < 30'000 ? i : (i - 30'000) * 7)) << keys[i];
        }
        EXPECT_EQ(map.find(Map::HashedKey("a/1/30000")), nullptr);
        EXPECT_THROW(map.emplaceIndices(1, inOrder), std::logic_error);
    }

    // Keys whose home buckets lie just before the middle of the array, where a fill of
    // that half must leave them waiting. Homes are worked out as the map places them: a
    // hash scaled to the array's 452 buckets (for 300 keys).
    std::vector<std::string> crowded;
    for (int i = 0; crowded.size() < 100; ++i) {
        std::string key = "m" + std::to_string(i);
        const std::uint64_t home = (static_cast<std::uint64_t>(Map::HashedKey(key).hash) * 452) >> 32;
        if (home >= 223 && home < 226) crowded.push_back(std::move(key));
    }
    for (int i = 0; crowded.size() < 290; ++i) crowded.push_back("o" + std::to_string(i));
    for (int i = 0; i < 10; ++i) crowded.push_back(crowded[static_cast<std::size_t>(90 + i)]);  // twins that wait too
    Map middle(KeyAt{&crowded});
    middle.emplaceIndices(crowded.size(), atOnce);
    EXPECT_EQ(middle.size(), 290u);
    for (std::size_t i = 0; i < crowded.size(); ++i) {
        const int* found = middle.find(Map::HashedKey(crowded[i]));
        ASSERT_NE(found, nullptr) << crowded[i];
        EXPECT_EQ(*found, static_cast<int>(i < 290 ? i : i - 200)) << crowded[i];
    }
}

}  // namespace
}  // namespace varnel
