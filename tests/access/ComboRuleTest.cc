// Aggregate URLs: the rule table and the split, with the bad input a page or an attacker can put
// in such a URL.
#include <gtest/gtest.h>

#include "access/ComboRule.h"
#include "runtime/Settings.h"
#include "tests/TestUtil.h"

namespace FerritTest {
namespace {

using namespace FerritCore;
using Urls = std::vector<std::string>;

class ComboRuleTest : public ProcessTest {
  protected:
    static std::string host() { return comboRuleHost(); }
    static Urls split(std::string_view url, const ComboRule* rule = nullptr) {
        Urls urls;
        EXPECT_TRUE(splitCombo(url, rule, urls)) << url;
        return urls;
    }
    static bool splits(std::string_view url, const ComboRule* rule = nullptr) {
        Urls urls{"untouched"};
        const bool result = splitCombo(url, rule, urls);
        if (!result) {
            EXPECT_EQ(urls, Urls{"untouched"});
        }
        return result;
    }
};

TEST_F(ComboRuleTest, RulesAreKeptForScriptsAndStyleSheetsOfTheCdnHost) {
    const ComboRule* js = comboRuleFor(host() + "/??a.js,b.js");
    ASSERT_NE(js, nullptr);
    EXPECT_EQ(js->path, "/ferrit/s/");
    EXPECT_EQ(js->limit, 50u);
    EXPECT_TRUE(js->enabled);
    EXPECT_EQ(js->suffix, ".js");
    const ComboRule* css = comboRuleFor(host() + "/lib/??a.css,b.CSS");
    ASSERT_NE(css, nullptr);
    EXPECT_EQ(css->suffix, ".css");
    EXPECT_EQ(comboRuleFor(host() + "/a.png"), nullptr);
    EXPECT_EQ(comboRuleFor("other.example.org/??a.js,b.js"), nullptr);
    EXPECT_NE(comboRuleFor(host() + "/single.js"), nullptr);
}

TEST_F(ComboRuleTest, NoRuleWhileAggregateRequestsAreSwitchedOff) {
    Settings::change([](Settings& s) { s.aggregateRequestEnabled = false; });
    EXPECT_EQ(comboRuleFor(host() + "/??a.js,b.js"), nullptr);
}

TEST_F(ComboRuleTest, EmptyPiecesAreSkippedAndOneLeadingSlashIsRemoved) {
    EXPECT_EQ(split("a.com/??b.js,,/c.js"), (Urls{"a.com/b.js", "a.com/c.js"}));
}

TEST_F(ComboRuleTest, SchemeIsDroppedAndAMissingSlashIsAddedToThePrefix) {
    EXPECT_EQ(split("https://a.com/lib??x.js,y/z.js"),
              (Urls{"a.com/lib/x.js", "a.com/lib/y/z.js"}));
    EXPECT_EQ(split("//a.com/??x.js"), (Urls{"a.com/x.js"}));
}

TEST_F(ComboRuleTest, EachPieceIsCutAtItsQueryAndTheUrlAtItsFragment) {
    EXPECT_EQ(split("https://a.com/??x.js?v=1,y.js#frag,z.js"), (Urls{"a.com/x.js", "a.com/y.js"}));
    EXPECT_EQ(split("https://a.com/??x.js?v=1,y.js?t=2"), (Urls{"a.com/x.js", "a.com/y.js"}));
}

TEST_F(ComboRuleTest, UrlOfTheOriginAndTheRulePathIsNotSplit) {
    const ComboRule* rule = comboRuleFor(host() + "/??a.js,b.js");
    ASSERT_NE(rule, nullptr);
    EXPECT_FALSE(splits("https://" + host() + "/ferrit/s/a.js", rule));
    EXPECT_FALSE(splits("https://" + host() + "\?\?/a.js,/b.js,/ferrit/s/q.js", rule));
    // Without a rule the same text is split like any other.
    EXPECT_TRUE(splits("https://" + host() + "\?\?/a.js,/b.js,/ferrit/s/q.js"));
}

TEST_F(ComboRuleTest, UrlWithoutQuestionMarksIsNotSplit) {
    EXPECT_FALSE(splits("https://a.com/a.js,b.js"));
    EXPECT_FALSE(splits("https://a.com/a.js?b.js"));
    EXPECT_FALSE(splits(""));
}

TEST_F(ComboRuleTest, QuestionMarksWithNothingAfterThemGiveNoUrls) {
    EXPECT_FALSE(splits("https://a.com/??"));
    EXPECT_FALSE(splits("https://a.com/??,,,"));
    EXPECT_FALSE(splits("https://a.com/??#x.js"));
    // A second "??" is text of the piece it stands in, not another mark.
    EXPECT_EQ(split("https://a.com/????"), (Urls{"a.com/??"}));
}

TEST_F(ComboRuleTest, QuestionMarksOnlyAfterTheFragmentAreNotAnAggregate) {
    EXPECT_FALSE(splits("https://a.com/x.js#??a.js,b.js"));
}

TEST_F(ComboRuleTest, NestedQuestionMarksStayInsideTheirPiece) {
    // Only the first "??" splits; a later one is text of its piece, which names a file of its own.
    EXPECT_EQ(split("a.com/??b.js,c??d.js,e.js"),
              (Urls{"a.com/b.js", "a.com/c??d.js", "a.com/e.js"}));
}

TEST_F(ComboRuleTest, PieceOfOneSlashNamesThePrefix) {
    EXPECT_EQ(split("a.com/m/?"
                    "?/,b.js"),
              (Urls{"a.com/m/", "a.com/m/b.js"}));
}

TEST_F(ComboRuleTest, PieceOfOneSlashWithNothingBeforeTheMarksNamesNoFile) {
    EXPECT_FALSE(splits("\?\?/"));
    EXPECT_EQ(split("\?\?/,a.js"), (Urls{"a.js"}));
}

TEST_F(ComboRuleTest, TenThousandPiecesSplitInOrder) {
    std::string url = "https://" + host() + "/??";
    for (int i = 0; i < 10000; ++i) url += "m/" + std::to_string(i) + ".js,";
    const Urls urls = split(url);
    ASSERT_EQ(urls.size(), 10000u);
    EXPECT_EQ(urls.front(), host() + "/m/0.js");
    EXPECT_EQ(urls.back(), host() + "/m/9999.js");
}

TEST_F(ComboRuleTest, PiecesOfOneMebibyteSplitWhole) {
    const std::string big(1 << 20, 'p');
    const Urls urls = split("a.com/??" + big + ".js," + big + ".css");
    ASSERT_EQ(urls.size(), 2u);
    EXPECT_EQ(urls[0], "a.com/" + big + ".js");
    EXPECT_EQ(urls[1].size(), 6 + big.size() + 4);
}

}  // namespace
}  // namespace FerritTest
