#include <gtest/gtest.h>

#include "base/PrefixTree.h"

namespace FerritCore {
namespace {

PrefixValue named(const std::string& name) {
    PrefixValue v;
    v.packName = name;
    return v;
}

PrefixValue byAccept(std::unordered_map<std::string, std::string> types,
                     const std::string& fallback = {}) {
    PrefixValue v;
    v.packName = fallback;
    v.acceptPacks = std::move(types);
    return v;
}

TEST(PrefixTreeTest, PrefixWithoutSlashDoesNotMatchLongerSegment) {
    PrefixTree tree;
    tree.add("//a.b/c", named("p"));
    EXPECT_EQ(tree.lookup("//a.b/cd", ""), "");
    EXPECT_EQ(tree.lookup("//a.b/c", ""), "p");
}

TEST(PrefixTreeTest, PrefixWithSlashMatchesBelowIt) {
    PrefixTree tree;
    tree.add("//a.b/c/", named("p"));
    EXPECT_EQ(tree.lookup("//a.b/c/d", ""), "p");
    EXPECT_EQ(tree.lookup("//a.b/c", ""), "");
}

TEST(PrefixTreeTest, LongestPrefixWins) {
    PrefixTree tree;
    tree.add("//a.b/", named("short"));
    tree.add("//a.b/c/d/", named("long"));
    tree.add("//a.b/c/", named("middle"));
    EXPECT_EQ(tree.lookup("//a.b/c/d/e.js", ""), "long");
    EXPECT_EQ(tree.lookup("//a.b/c/x.js", ""), "middle");
    EXPECT_EQ(tree.lookup("//a.b/x.js", ""), "short");
    EXPECT_EQ(tree.lookup("//a.c/x.js", ""), "");
}

TEST(PrefixTreeTest, SplitEdgesKeepBothBranches) {
    PrefixTree tree;
    tree.add("//host/abc/", named("abc"));
    tree.add("//host/abd/", named("abd"));
    tree.add("//host/ab/", named("ab"));
    tree.add("//host/", named("host"));
    EXPECT_EQ(tree.lookup("//host/abc/1", ""), "abc");
    EXPECT_EQ(tree.lookup("//host/abd/1", ""), "abd");
    EXPECT_EQ(tree.lookup("//host/ab/1", ""), "ab");
    EXPECT_EQ(tree.lookup("//host/abe/1", ""), "host");
    EXPECT_EQ(tree.size(), 4u);
}

TEST(PrefixTreeTest, AcceptTypesDecideWithinPrefixByQuality) {
    PrefixTree tree;
    tree.add("//img/", byAccept({{"image/webp", "webp"}, {"image/png", "png"}}));
    EXPECT_EQ(tree.lookup("//img/a", "image/png;q=0.5, image/webp"), "webp");
    EXPECT_EQ(tree.lookup("//img/a", "image/png, image/webp;q=0.2"), "png");
}

TEST(PrefixTreeTest, AcceptMissFallsBackToDefaultName) {
    PrefixTree tree;
    tree.add("//img/", byAccept({{"image/webp", "webp"}}, "plain"));
    EXPECT_EQ(tree.lookup("//img/a", "text/html"), "plain");
}

TEST(PrefixTreeTest, AcceptMissWithoutDefaultGivesWayToShorterPrefix) {
    PrefixTree tree;
    tree.add("//img/", named("outer"));
    tree.add("//img/x/", byAccept({{"image/webp", "webp"}}));
    EXPECT_EQ(tree.lookup("//img/x/a", "text/html"), "outer");
    EXPECT_EQ(tree.lookup("//img/x/a", "image/webp"), "webp");
}

TEST(PrefixTreeTest, EmptyUrlAndEmptyTree) {
    PrefixTree tree;
    EXPECT_EQ(tree.lookup("//a/", ""), "");
    tree.add("//a/", named("a"));
    EXPECT_EQ(tree.lookup("", ""), "");
}

TEST(PrefixTreeTest, ComparisonIsCaseSensitive) {
    PrefixTree tree;
    tree.add("//A/", named("upper"));
    EXPECT_EQ(tree.lookup("//a/x", ""), "");
    EXPECT_EQ(tree.lookup("//A/x", ""), "upper");
}

TEST(PrefixTreeTest, SeveralValuesOnOnePrefixKeepOrder) {
    PrefixTree tree;
    tree.add("//a/", byAccept({{"image/webp", "webp"}}));
    tree.add("//a/", named("second"));
    EXPECT_EQ(tree.lookup("//a/x", "text/html"), "second");
    EXPECT_EQ(tree.lookup("//a/x", "image/webp"), "webp");
}

TEST(PrefixTreeTest, DeepPrefixChainKeepsLongest) {
    PrefixTree tree;
    std::string prefix = "//h/";
    for (int i = 0; i < 100; ++i) {
        prefix += "d/";
        tree.add(prefix, named("p" + std::to_string(i)));
    }
    EXPECT_EQ(tree.lookup(prefix + "file", ""), "p99");
}

}  // namespace
}  // namespace FerritCore
