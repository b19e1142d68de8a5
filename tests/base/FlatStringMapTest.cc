#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <string>

#include "base/FlatStringMap.h"

namespace FerritCore {
namespace {

TEST(FlatStringMapTest, EmptyMapFindsNothing) {
    const FlatStringMap<int> map;
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(map.size(), 0u);
    EXPECT_EQ(map.find("a"), nullptr);
    EXPECT_EQ(map.find(""), nullptr);
    EXPECT_EQ(map.begin(), map.end());
}

TEST(FlatStringMapTest, FirstValueOfAKeyStays) {
    FlatStringMap<int> map;
    auto [first, added] = map.tryEmplace("//h/a", 1);
    EXPECT_TRUE(added);
    EXPECT_EQ(*first, 1);
    auto [again, addedAgain] = map.tryEmplace("//h/a", 2);
    EXPECT_FALSE(addedAgain);
    EXPECT_EQ(*again, 1);
    EXPECT_EQ(map.size(), 1u);
    ASSERT_NE(map.find("//h/a"), nullptr);
    EXPECT_EQ(*map.find("//h/a"), 1);
    EXPECT_EQ(map.find("//h/a/"), nullptr);
    EXPECT_EQ(map.find("//h/"), nullptr);
}

TEST(FlatStringMapTest, EmptyKeyIsAKey) {
    FlatStringMap<std::string> map;
    map[""] = "none";
    map["x"] = "ex";
    ASSERT_NE(map.find(""), nullptr);
    EXPECT_EQ(*map.find(""), "none");
    EXPECT_EQ(*map.find("x"), "ex");
}

TEST(FlatStringMapTest, IndexOperatorAddsOnceAndEdits) {
    FlatStringMap<int> map;
    map["k"] += 2;
    map["k"] += 3;
    EXPECT_EQ(map.size(), 1u);
    EXPECT_EQ(*map.find("k"), 5);
    *map.find("k") = 7;
    EXPECT_EQ(*map.find("k"), 7);
}

// Many keys, through every growth, against a std::map: each key found with its value, every
// absent key missing, and iteration visiting each pair once.
TEST(FlatStringMapTest, AgreesWithStdMapThroughGrowth) {
    std::mt19937 random(7);
    FlatStringMap<int> map;
    std::map<std::string, int> expected;
    for (int i = 0; i < 20000; ++i) {
        const std::string key = "//h" + std::to_string(random() % 50000) + "/p";
        const auto [value, added] = map.tryEmplace(key, i);
        const auto [it, stdAdded] = expected.emplace(key, i);
        ASSERT_EQ(added, stdAdded) << key;
        ASSERT_EQ(*value, it->second) << key;
    }
    EXPECT_EQ(map.size(), expected.size());
    for (const auto& [key, value] : expected) {
        const int* found = map.find(key);
        ASSERT_NE(found, nullptr) << key;
        EXPECT_EQ(*found, value) << key;
    }
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(map.find("//absent" + std::to_string(i)), nullptr);
    std::map<std::string, int> seen;
    for (const auto& [key, value] : map)
        EXPECT_TRUE(seen.emplace(std::string(key), value).second) << key;
    EXPECT_EQ(seen, expected);
}

TEST(FlatStringMapTest, ReserveKeepsKeysAndClearEmpties) {
    FlatStringMap<std::shared_ptr<int>> map;
    map.tryEmplace("a", std::make_shared<int>(1));
    map.reserve(1000, 64000);
    map.tryEmplace("b", std::make_shared<int>(2));
    ASSERT_NE(map.find("a"), nullptr);
    EXPECT_EQ(**map.find("a"), 1);
    EXPECT_EQ(**map.find("b"), 2);
    map.clear();
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(map.find("a"), nullptr);
    map["a"] = std::make_shared<int>(3);
    EXPECT_EQ(**map.find("a"), 3);
}

// A map that a copy was made of keeps its own keys: the arena goes with the copy.
TEST(FlatStringMapTest, CopyIsIndependent) {
    FlatStringMap<int> map;
    map["one"] = 1;
    FlatStringMap<int> copy = map;
    copy["two"] = 2;
    map["one"] = 10;
    EXPECT_EQ(*copy.find("one"), 1);
    EXPECT_EQ(map.find("two"), nullptr);
    EXPECT_EQ(copy.size(), 2u);
}

}  // namespace
}  // namespace FerritCore
