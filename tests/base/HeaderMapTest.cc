// HeaderMap, the exported header type: a map's behaviour over one array, and the order of setting.
#include "ferritcore/ResourceRequest.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace FerritTest {
namespace {

using FerritCore::HeaderMap;

std::vector<std::string> names(const HeaderMap& headers) {
    std::vector<std::string> out;
    for (const auto& [name, value] : headers) out.push_back(name);
    return out;
}

TEST(HeaderMapTest, InsertKeepsTheFirstValueAndSquareBracketsSetIt) {
    HeaderMap headers;
    EXPECT_TRUE(headers.insert({"Accept", "*/*"}).second);
    EXPECT_FALSE(headers.insert({"Accept", "text/html"}).second);
    EXPECT_EQ(headers.at("Accept"), "*/*");
    headers["Accept"] = "text/html";
    EXPECT_EQ(headers.at("Accept"), "text/html");
    EXPECT_EQ(headers.size(), 1u);
}

TEST(HeaderMapTest, TryEmplaceKeepsAnEntryAndInsertOrAssignReplacesIt) {
    HeaderMap headers{{"ETag", "\"a\""}};
    auto [kept, added] = headers.try_emplace("ETag", "\"b\"");
    EXPECT_FALSE(added);
    EXPECT_EQ(kept->second, "\"a\"");
    auto [replaced, addedAgain] = headers.insert_or_assign("ETag", "\"c\"");
    EXPECT_FALSE(addedAgain);
    EXPECT_EQ(replaced->second, "\"c\"");
    EXPECT_TRUE(headers.insert_or_assign("Date", "x").second);
    EXPECT_EQ(headers.size(), 2u);
}

TEST(HeaderMapTest, NamesCompareExactlyAsWritten) {
    HeaderMap headers{{"Content-Type", "text/css"}};
    EXPECT_EQ(headers.count("Content-Type"), 1u);
    EXPECT_EQ(headers.count("content-type"), 0u);
    EXPECT_FALSE(headers.contains("CONTENT-TYPE"));
    headers["content-type"] = "text/plain";
    EXPECT_EQ(headers.size(), 2u);
}

TEST(HeaderMapTest, AtThrowsForAnAbsentName) {
    HeaderMap headers;
    EXPECT_THROW(headers.at("Missing"), std::out_of_range);
    const HeaderMap& view = headers;
    EXPECT_THROW(view.at("Missing"), std::out_of_range);
}

TEST(HeaderMapTest, EntriesIterateInTheOrderTheyWereFirstSet) {
    HeaderMap headers;
    headers["Via"] = "1";
    headers["Age"] = "2";
    headers["Date"] = "3";
    headers["Via"] = "4";
    EXPECT_EQ(names(headers), (std::vector<std::string>{"Via", "Age", "Date"}));
}

TEST(HeaderMapTest, EraseByNameAndByIteratorReturnsTheNextEntry) {
    HeaderMap headers{{"A", "1"}, {"B", "2"}, {"C", "3"}, {"D", "4"}};
    EXPECT_EQ(headers.erase("B"), 1u);
    EXPECT_EQ(headers.erase("B"), 0u);
    // The array's way of erasing while walking: take the iterator erase returns.
    for (auto it = headers.begin(); it != headers.end();) {
        it = it->first == "C" ? headers.erase(it) : std::next(it);
    }
    EXPECT_EQ(names(headers), (std::vector<std::string>{"A", "D"}));
}

TEST(HeaderMapTest, EqualityIgnoresTheOrderOfEntries) {
    const HeaderMap a{{"A", "1"}, {"B", "2"}};
    const HeaderMap b{{"B", "2"}, {"A", "1"}};
    const HeaderMap c{{"A", "1"}, {"B", "3"}};
    const HeaderMap d{{"A", "1"}};
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a == c);
    EXPECT_FALSE(a == d);
}

TEST(HeaderMapTest, GrowingPastItsCapacityKeepsEveryEntryFindable) {
    HeaderMap headers;
    headers.reserve(2);
    for (int i = 0; i < 100; ++i) headers["X-" + std::to_string(i)] = std::to_string(i);
    ASSERT_EQ(headers.size(), 100u);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(headers.at("X-" + std::to_string(i)), std::to_string(i));
    // Iterators taken before an insert are not kept: find again after one.
    headers["Last"] = "y";
    EXPECT_EQ(headers.find("X-0")->second, "0");
}

}  // namespace
}  // namespace FerritTest
