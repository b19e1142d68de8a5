// The hot list: where nodes join, the cold hand, second chances at two hits, eviction with the
// callback outside the lock, and the stored form.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "marl/Json.h"
#include "storage/HotList.h"

namespace FerritTest {
namespace {

using FerritCore::HotList;
using MarlLogger::json::JSON;

class HotListTest : public ::testing::Test {
  protected:
    // A list of `maxSize` bytes with a hot part of `minHot` nodes that records its evictions.
    std::unique_ptr<HotList> make(int64_t maxSize, uint64_t minHot) {
        return std::make_unique<HotList>(
            maxSize, minHot,
            [this](int64_t originSize, int64_t newSize, const std::vector<std::string>& urls) {
                evictions.push_back({originSize, newSize, urls});
            });
    }

    struct Eviction {
        int64_t originSize;
        int64_t newSize;
        std::vector<std::string> urls;
    };
    std::vector<Eviction> evictions;
};

using Urls = std::vector<std::string>;

TEST_F(HotListTest, NodesJoinAtTheHeadWhileThereIsRoom) {
    auto list = make(100, 2);
    EXPECT_TRUE(list->touch("a", 10, false));
    EXPECT_TRUE(list->touch("b", 10, false));
    EXPECT_EQ(list->urls(), (Urls{"b", "a"}));
    EXPECT_EQ(list->coldHandUrl(), "");
    // The third node makes the list longer than its hot part: the tail becomes the cold hand.
    EXPECT_TRUE(list->touch("c", 10, false));
    EXPECT_EQ(list->urls(), (Urls{"c", "b", "a"}));
    EXPECT_EQ(list->coldHandUrl(), "a");
    // A fourth pushes everything back a step; the hot part keeps its length of two.
    EXPECT_TRUE(list->touch("d", 10, false));
    EXPECT_EQ(list->coldHandUrl(), "b");
    EXPECT_EQ(list->count(), 4u);
    EXPECT_EQ(list->totalSize(), 40);
    EXPECT_TRUE(evictions.empty());
}

TEST_F(HotListTest, KnownUrlCountsAHitAndTakesItsNewSize) {
    auto list = make(100, 2);
    list->touch("a", 10, false);
    EXPECT_FALSE(list->touch("a", 10, true));
    EXPECT_EQ(list->hits("a"), 2u);
    EXPECT_FALSE(list->touch("a", 30, false));
    EXPECT_EQ(list->hits("a"), 2u);
    EXPECT_EQ(list->totalSize(), 30);
    EXPECT_EQ(list->urls(), (Urls{"a"}));
}

TEST_F(HotListTest, NodeWithTwoHitsAtTheTailIsSparedOnceThenGoesOnTheNextPass) {
    auto list = make(30, 1);
    list->touch("a", 10, false);
    list->touch("a", 10, true);  // hits 2
    list->touch("b", 10, false);
    list->touch("c", 10, false);
    ASSERT_EQ(list->urls(), (Urls{"c", "b", "a"}));

    // Full: "a" at the tail is spared with its hits reset, and "b" goes instead.
    EXPECT_TRUE(list->touch("d", 10, false));
    ASSERT_EQ(evictions.size(), 1u);
    EXPECT_EQ(evictions[0].urls, (Urls{"b"}));
    EXPECT_EQ(evictions[0].originSize, 40);
    EXPECT_EQ(evictions[0].newSize, 30);
    EXPECT_TRUE(list->contains("a"));
    EXPECT_EQ(list->hits("a"), 0u);

    // Nothing else is hit: when the hand comes round to "a" again it has no second chance left.
    ASSERT_EQ(list->urls(), (Urls{"a", "d", "c"}));
    list->touch("big", 30, false);
    ASSERT_EQ(evictions.size(), 2u);
    EXPECT_EQ(evictions[1].urls, (Urls{"c", "d", "a"}));
    EXPECT_EQ(list->urls(), (Urls{"big"}));
}

TEST_F(HotListTest, NewcomerJoinsTheColdPartWhenTheListIsFull) {
    auto list = make(40, 2);
    for (const char* url : {"a", "b", "c", "d"}) list->touch(url, 10, false);
    ASSERT_EQ(list->urls(), (Urls{"d", "c", "b", "a"}));
    ASSERT_EQ(list->coldHandUrl(), "b");
    list->touch("e", 10, false);
    ASSERT_EQ(evictions.size(), 1u);
    EXPECT_EQ(evictions[0].urls, (Urls{"a"}));
    // Just before the cold hand, and the cold hand itself: the hot part is untouched.
    EXPECT_EQ(list->urls(), (Urls{"d", "c", "e", "b"}));
    EXPECT_EQ(list->coldHandUrl(), "e");
}

TEST_F(HotListTest, NewNodeLargerThanMaxSizeEvictsEveryOtherNodeAndStays) {
    auto list = make(50, 1);
    for (const char* url : {"a", "b", "c"}) list->touch(url, 10, false);
    list->touch("a", 10, true);  // even a second chance does not save it
    EXPECT_TRUE(list->touch("huge", 80, false));
    ASSERT_EQ(evictions.size(), 1u);
    EXPECT_EQ(evictions[0].urls.size(), 3u);
    EXPECT_EQ(list->urls(), (Urls{"huge"}));
    EXPECT_EQ(list->totalSize(), 80);  // over the limit until the next insertion
    EXPECT_EQ(list->count(), 1u);

    list->touch("small", 5, false);
    ASSERT_EQ(evictions.size(), 2u);
    EXPECT_EQ(evictions[1].urls, (Urls{"huge"}));
    EXPECT_EQ(list->urls(), (Urls{"small"}));
    EXPECT_EQ(list->totalSize(), 5);
}

TEST_F(HotListTest, GrowingAKnownNodeOverTheLimitEvicts) {
    auto list = make(30, 1);
    list->touch("a", 10, false);
    list->touch("b", 10, false);
    EXPECT_FALSE(list->touch("b", 25, false));
    ASSERT_EQ(evictions.size(), 1u);
    EXPECT_EQ(evictions[0].urls, (Urls{"a"}));
    EXPECT_EQ(list->totalSize(), 25);
}

TEST_F(HotListTest, LimitOfZeroEvictsOnEachNewNode) {
    auto list = make(0, 100);
    EXPECT_TRUE(list->touch("a", 10, false));
    EXPECT_EQ(list->urls(), (Urls{"a"}));
    EXPECT_TRUE(list->touch("b", 10, false));
    ASSERT_EQ(evictions.size(), 1u);
    EXPECT_EQ(evictions[0].urls, (Urls{"a"}));
    EXPECT_EQ(list->urls(), (Urls{"b"}));
}

TEST_F(HotListTest, EvictCallbackRunsAfterTheLockIsReleased) {
    std::unique_ptr<HotList> list;
    uint64_t countSeen = 0;
    list = std::make_unique<HotList>(10, 1, [&](int64_t, int64_t, const std::vector<std::string>&) {
        // Would never return if the list still held its lock.
        countSeen = list->count();
        list->touch("from-callback", 0, false);
    });
    list->touch("a", 10, false);
    list->touch("b", 10, false);
    EXPECT_EQ(countSeen, 1u);
    EXPECT_TRUE(list->contains("from-callback"));
}

TEST_F(HotListTest, RemoveUnlinksWithoutTellingTheCallback) {
    auto list = make(100, 1);
    for (const char* url : {"a", "b", "c"}) list->touch(url, 10, false);
    ASSERT_EQ(list->coldHandUrl(), "b");
    EXPECT_TRUE(list->remove("b"));
    EXPECT_FALSE(list->remove("b"));
    EXPECT_EQ(list->urls(), (Urls{"c", "a"}));
    EXPECT_EQ(list->coldHandUrl(), "a");
    EXPECT_TRUE(list->remove("c"));
    EXPECT_EQ(list->coldHandUrl(), "");  // no longer than the hot part
    EXPECT_EQ(list->totalSize(), 10);
    EXPECT_TRUE(evictions.empty());
}

TEST_F(HotListTest, ClearedListKeepsItsLimits) {
    auto list = make(20, 1);
    list->touch("a", 10, false);
    list->clear();
    EXPECT_EQ(list->count(), 0u);
    EXPECT_EQ(list->maxSize(), 20);
    list->touch("b", 10, false);
    list->touch("c", 10, false);
    list->touch("d", 10, false);
    EXPECT_EQ(evictions.size(), 1u);
}

TEST_F(HotListTest, LoadingSetsTheHotPartAndTheColdHand) {
    auto list = make(1000, 1);
    JSON nodes;
    for (int i = 0; i < 6; ++i) {
        JSON node;
        node.set("k", "u" + std::to_string(i));
        node.set("s", 10 + i);
        node.set("v", i % 3);
        nodes.push(node);
    }
    JSON stored;
    stored.set("nodes", nodes);
    list->load(stored);
    EXPECT_EQ(list->count(), 6u);
    EXPECT_EQ(list->totalSize(), 10 + 11 + 12 + 13 + 14 + 15);
    EXPECT_EQ(list->hotCount(), 3u);  // half of six, more than the minimum of one
    EXPECT_EQ(list->coldHandUrl(), "u3");
    EXPECT_EQ(list->urls(), (Urls{"u0", "u1", "u2", "u3", "u4", "u5"}));
    EXPECT_EQ(list->hits("u2"), 2u);
    EXPECT_EQ(list->toJSON(), stored);
}

TEST_F(HotListTest, LoadingAShortListKeepsTheMinimumHotPart) {
    auto list = make(1000, 100);
    JSON stored = JSON::parse(R"({"nodes":[{"k":"a","s":1,"v":1},{"k":"","s":5},)"
                              R"({"k":"a","s":9},"junk",{"k":"b","s":2,"v":1}]})");
    list->load(stored);
    EXPECT_EQ(list->urls(), (Urls{"a", "b"}));
    EXPECT_EQ(list->hotCount(), 100u);
    EXPECT_EQ(list->coldHandUrl(), "");
    EXPECT_EQ(list->totalSize(), 3);
    list->load(JSON("not a list"));
    EXPECT_EQ(list->count(), 0u);
}

}  // namespace
}  // namespace FerritTest
