#include "common/FlatKeyMap.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace varnel {
namespace {

TEST(FlatKeyMap, KeepsEveryValueThroughGrowthAndTellsNewKeysFromOld) {
    std::vector<std::string> keys;
    for (int i = 0; i < 20'000; ++i) keys.push_back("folder/" + std::to_string(i % 97) + "/item-" + std::to_string(i));

    FlatKeyMap<int> map;  // starts small, so it grows many times on the way
    for (std::size_t i = 0; i < keys.size(); ++i) {
        auto [value, inserted] = map.tryEmplace(keys[i]);
        ASSERT_TRUE(inserted) << keys[i];
        EXPECT_EQ(value, 0);
        value = static_cast<int>(i) + 1;
    }
    EXPECT_EQ(map.size(), keys.size());
    for (std::size_t i = 0; i < keys.size(); ++i) {
        // A key equal in text but stored elsewhere finds the same value.
        const std::string copy = keys[i];
        const int* found = map.find(copy);
        ASSERT_NE(found, nullptr) << copy;
        EXPECT_EQ(*found, static_cast<int>(i) + 1);
        auto [value, inserted] = map.tryEmplace(copy);
        EXPECT_FALSE(inserted);
        EXPECT_EQ(value, static_cast<int>(i) + 1);
    }
    EXPECT_EQ(map.size(), keys.size());
    EXPECT_EQ(map.find("folder/1/item-20000"), nullptr);
    EXPECT_EQ(map.find("folder/1/item-1 "), nullptr);
    EXPECT_EQ(map.find("folder"), nullptr);
}

TEST(FlatKeyMap, TheEmptyKeyIsAKeyLikeAnyOther) {
    FlatKeyMap<int> map(4);
    EXPECT_EQ(map.find(std::string_view()), nullptr);
    map.tryEmplace(std::string_view()).first = 7;  // a default view has no text at all
    map.tryEmplace("a").first = 8;
    ASSERT_NE(map.find(""), nullptr);
    EXPECT_EQ(*map.find(""), 7);
    EXPECT_FALSE(map.tryEmplace("").second);
    EXPECT_EQ(map.size(), 2u);
    const FlatKeyMap<int>& constant = map;
    ASSERT_NE(constant.find("a"), nullptr);
    EXPECT_EQ(*constant.find("a"), 8);
}

}  // namespace
}  // namespace varnel
