#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

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

TEST(FlatStringMapTest, MovedFromMapIsEmpty) {
    FlatStringMap<int> map;
    map["one"] = 1;
    map["two"] = 2;
    FlatStringMap<int> moved = std::move(map);
    EXPECT_EQ(moved.size(), 2u);
    EXPECT_EQ(*moved.find("two"), 2);
    // NOLINTNEXTLINE(bugprone-use-after-move): what a moved-from map says is the point
    EXPECT_EQ(map.size(), 0u);
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(map.begin(), map.end());
    map["three"] = 3;
    EXPECT_EQ(map.size(), 1u);

    FlatStringMap<int> assigned;
    assigned["x"] = 9;
    assigned = std::move(moved);
    EXPECT_EQ(assigned.size(), 2u);
    EXPECT_EQ(assigned.find("x"), nullptr);
    // NOLINTNEXTLINE(bugprone-use-after-move)
    EXPECT_TRUE(moved.empty());
}

// Every key the same hash: each lookup walks the one probe chain, compares the keys' bytes, and
// wraps past the end of the slots; keys that are prefixes of each other and the empty key differ.
struct SameHash {
    size_t operator()(std::string_view) const { return 13; }
};

TEST(FlatStringMapTest, KeysOfOneHashAreToldApartByTheirBytes) {
    FlatStringMap<int, SameHash> map;
    const std::vector<std::string> keys = {"",  "a",  "aa", "aaa",
                                           "b", "ab", "ba", std::string("a\0", 2)};
    for (size_t i = 0; i < keys.size(); ++i)
        EXPECT_TRUE(map.tryEmplace(keys[i], static_cast<int>(i)).second) << i;
    EXPECT_EQ(map.size(), keys.size());
    for (size_t i = 0; i < keys.size(); ++i) {
        const int* found = map.find(keys[i]);
        ASSERT_NE(found, nullptr) << i;
        EXPECT_EQ(*found, static_cast<int>(i)) << i;
    }
    EXPECT_EQ(map.find("aaaa"), nullptr);
    EXPECT_EQ(map.find("c"), nullptr);
    EXPECT_FALSE(map.tryEmplace("aa", 99).second);
    EXPECT_EQ(*map.find("aa"), 2);
    size_t visited = 0;
    for (const auto& entry : map) {
        (void)entry;
        ++visited;
    }
    EXPECT_EQ(visited, keys.size());
}

// The chain starts at the last slot (13 of 16) and wraps to the first ones.
TEST(FlatStringMapTest, ProbeChainWrapsPastTheLastSlot) {
    struct LastSlots {
        size_t operator()(std::string_view key) const { return 15 - (key.size() % 2); }
    };
    FlatStringMap<int, LastSlots> map;
    for (int i = 0; i < 6; ++i) map[std::string(static_cast<size_t>(i), 'k')] = i;
    for (int i = 0; i < 6; ++i) {
        const int* found = map.find(std::string(static_cast<size_t>(i), 'k'));
        ASSERT_NE(found, nullptr) << i;
        EXPECT_EQ(*found, i);
    }
    EXPECT_EQ(map.find(std::string(6, 'k')), nullptr);
}

}  // namespace
}  // namespace FerritCore
