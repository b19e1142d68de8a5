#include <gtest/gtest.h>

#include <string>

#include "base/Url.h"

namespace FerritCore::Url {
namespace {

TEST(UrlTest, KeyDropsSchemeQueryAndFragment) {
    EXPECT_EQ(key("https://a.b/c?x=1#f"), "//a.b/c");
}

TEST(UrlTest, KeyKeepsSlashFormAndPrependsToBareHost) {
    EXPECT_EQ(key("//a.b/c"), "//a.b/c");
    EXPECT_EQ(key("a.b/c"), "//a.b/c");
}

TEST(UrlTest, KeyOfEmptyIsEmpty) {
    EXPECT_EQ(key(""), "");
    EXPECT_EQ(key("?x"), "");
    EXPECT_EQ(key("#f"), "");
}

TEST(UrlTest, KeyOfHostWithPortLosesHost) {
    EXPECT_EQ(key("host:8080/x"), "8080/x");
}

TEST(UrlTest, KeyOfHttpUrlIsSlashForm) {
    EXPECT_EQ(key("http://a/b"), "//a/b");
    EXPECT_EQ(key("https:a/b"), "a/b");
}

TEST(UrlTest, BareKeepsAggregatePart) {
    EXPECT_EQ(bare("https://a.b/c??d.js,e.js"), "a.b/c??d.js,e.js");
}

TEST(UrlTest, BareCutsAtQuery) {
    EXPECT_EQ(bare("https://a.b/c?x"), "a.b/c");
    EXPECT_EQ(bare("//a.b/c#x"), "a.b/c");
    EXPECT_EQ(bare("a.b/c"), "a.b/c");
}

TEST(UrlTest, TerminatorSkipsDoubleQuestionMark) {
    EXPECT_EQ(terminator("a?b"), 1u);
    EXPECT_EQ(terminator("a??b?c"), 4u);
    EXPECT_EQ(terminator("abc"), 3u);
    EXPECT_EQ(terminator("a#b?c"), 1u);
    EXPECT_EQ(terminator("a??"), 3u);
}

TEST(UrlTest, SchemeLengthCases) {
    EXPECT_EQ(schemeLength("//a/b"), 2u);
    EXPECT_EQ(schemeLength("https://a/b"), 8u);
    EXPECT_EQ(schemeLength("data:text"), 5u);
    EXPECT_EQ(schemeLength(":x"), 0u);
    EXPECT_EQ(schemeLength("a/b:c"), 0u);
    EXPECT_EQ(schemeLength("abc"), 0u);
    EXPECT_EQ(schemeLength(""), 0u);
}

TEST(UrlTest, IsAbsoluteIsCaseSensitive) {
    EXPECT_TRUE(isAbsolute("//a"));
    EXPECT_TRUE(isAbsolute("http://a"));
    EXPECT_TRUE(isAbsolute("https://a"));
    EXPECT_FALSE(isAbsolute("HTTPS://a"));
    EXPECT_FALSE(isAbsolute("/a"));
}

TEST(UrlTest, OriginAndPath) {
    EXPECT_EQ(authorityEnd("https://a.b/c"), 11u);
    EXPECT_EQ(origin("https://a.b/c/d"), "https://a.b");
    EXPECT_EQ(pathPart("https://a.b/c/d"), "/c/d");
    EXPECT_EQ(origin("https://a.b?x"), "https://a.b");
    EXPECT_EQ(origin("//a.b"), "//a.b");
    EXPECT_EQ(pathPart("//a.b"), "");
}

TEST(UrlTest, ExtensionIsLowerCased) {
    EXPECT_EQ(extension("image.PNG"), "png");
    EXPECT_EQ(extension("a/b"), "");
    EXPECT_EQ(extension("a.b/c"), "b/c");
}

TEST(UrlTest, TrimLeadingSlashKeepsDoubleSlash) {
    std::string a = "/a/b", b = "//a/b", c = "a", d = "/", e;
    trimLeadingSlash(a);
    trimLeadingSlash(b);
    trimLeadingSlash(c);
    trimLeadingSlash(d);
    trimLeadingSlash(e);
    EXPECT_EQ(a, "a/b");
    EXPECT_EQ(b, "//a/b");
    EXPECT_EQ(c, "a");
    EXPECT_EQ(d, "");
    EXPECT_EQ(e, "");
}

TEST(UrlTest, EnsureTrailingSlash) {
    std::string a = "a", b = "a/", c;
    ensureTrailingSlash(a);
    ensureTrailingSlash(b);
    ensureTrailingSlash(c);
    EXPECT_EQ(a, "a/");
    EXPECT_EQ(b, "a/");
    EXPECT_EQ(c, "");
}

TEST(UrlTest, HostileInputsGiveResultsWithoutCrashing) {
    const std::string huge(1 << 20, 'a');
    EXPECT_EQ(key(huge), "//" + huge);
    std::string binary;
    for (int i = 0; i < 256; ++i) binary.push_back(static_cast<char>(i));
    EXPECT_EQ(terminator(binary), binary.find('#'));
    (void)key(binary);
    (void)bare(binary);
    (void)origin(binary);
    const std::string questions(1000, '?');
    EXPECT_EQ(terminator(questions), questions.size());
    EXPECT_EQ(terminator(questions + "?"), questions.size());
}

TEST(UrlTest, EscapeKeepsUnreservedAndEncodesTheRest) {
    EXPECT_EQ(escape("a b/c"), "a+b%2Fc");
    EXPECT_EQ(escape("Az09-._~"), "Az09-._~");
    EXPECT_EQ(escape("\xff%"), "%FF%25");
}

}  // namespace
}  // namespace FerritCore::Url
