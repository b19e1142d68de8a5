#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

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

// What the tree must answer for prefixes that carry only a name, worked out the long way: of every
// prefix that the URL starts with at a "/" boundary (or that is the whole URL), the longest.
std::string longestByScan(const std::vector<std::string>& prefixes, const std::string& url) {
    std::string best;
    std::string name;
    for (const std::string& prefix : prefixes) {
        if (url.compare(0, prefix.size(), prefix) != 0) continue;
        if (prefix.back() != '/' && prefix.size() != url.size()) continue;
        if (prefix.size() > best.size()) {
            best = prefix;
            name = "n" + prefix;
        }
    }
    return name;
}

// Prefixes over a small alphabet, so that edges split and join in every way, added in runs that
// share their start (as a pack's prefixes come), in sorted order, in reverse and shuffled: every
// order builds a tree that answers as the scan does.
TEST(PrefixTreeTest, AnyOrderOfAddingAnswersAsAScan) {
    std::mt19937 random(20261125);
    const std::string alphabet = "/ab.";
    auto text = [&](size_t length) {
        std::string out;
        for (size_t i = 0; i < length; ++i) out += alphabet[random() % alphabet.size()];
        return out;
    };
    for (int round = 0; round < 40; ++round) {
        std::set<std::string> unique;
        std::vector<std::string> added;
        while (added.size() < 60) {
            // A run: a start and a few continuations of it, the start itself often among them.
            const std::string start = "//" + text(1 + random() % 6);
            for (int i = 0, n = 1 + static_cast<int>(random() % 4); i < n; ++i) {
                const std::string prefix = start + text(random() % 4);
                if (unique.insert(prefix).second) added.push_back(prefix);
            }
        }
        std::vector<std::string> sorted = added;
        std::sort(sorted.begin(), sorted.end());
        std::vector<std::string> reversed(sorted.rbegin(), sorted.rend());
        std::vector<std::string> shuffled = added;
        std::shuffle(shuffled.begin(), shuffled.end(), random);
        std::vector<std::string> urls;
        for (const std::string& prefix : added) {
            urls.push_back(prefix);
            urls.push_back(prefix + text(1 + random() % 5));
            urls.push_back(prefix.substr(0, prefix.size() - 1));
        }
        for (int i = 0; i < 60; ++i) urls.push_back("//" + text(1 + random() % 12));
        for (const auto* order : {&added, &sorted, &reversed, &shuffled}) {
            PrefixTree tree;
            for (const std::string& prefix : *order) tree.value(prefix).packName = "n" + prefix;
            ASSERT_EQ(tree.size(), added.size());
            for (const std::string& url : urls)
                ASSERT_EQ(tree.lookup(url, ""), longestByScan(added, url))
                    << "round " << round << ", url " << url;
        }
    }
}

// A tree moved into another answers from there; the one moved from may take a tree again.
TEST(PrefixTreeTest, MovedTreeKeepsItsNodes) {
    PrefixTree tree;
    for (int i = 0; i < 100; ++i)
        tree.add("//h/" + std::to_string(i) + "/", named(std::to_string(i)));
    PrefixTree moved(std::move(tree));
    EXPECT_EQ(moved.lookup("//h/42/x", ""), "42");
    tree = std::move(moved);
    EXPECT_EQ(tree.lookup("//h/99/x", ""), "99");
    EXPECT_EQ(tree.size(), 100u);
}

}  // namespace
}  // namespace FerritCore
