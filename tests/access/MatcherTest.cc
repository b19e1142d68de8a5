// The two lookups of the matcher over the tables that a parsed document builds.
#include <gtest/gtest.h>

#include "access/Matcher.h"
#include "base/Url.h"
#include "model/FConfig.h"
#include "tests/model/UpdateFixture.h"

namespace FerritTest {
namespace {

class MatcherTest : public UpdateFixture {
  protected:
    // Installs `text` as the current document.
    static void seed(const std::string& text) { SCache::publish(doc(text)); }
};

TEST_F(MatcherTest, MatchFromParsedDocument) {
    seed(
        R"({"v":"1","packs":{)"
        R"("site":{"s":1,"installedSeq":1,"f":80,"p":["https://h.com/","https://h.com/app/"],"r":["https://h.com/index.html"]},)"
        R"("deep":{"s":1,"installedSeq":1,"p":["https://h.com/app/deep/"]},)"
        R"("webp":{"s":1,"installedSeq":1,"p":["https://img.com/i/#image/webp"]},)"
        R"("png":{"s":1,"installedSeq":1,"p":["https://img.com/i/"]},)"
        R"("sc":{"s":1,"installedSeq":1,"f":96,"r":["https://h.com/page.html","https://h.com/logo.svg"]}}})");
    const FConfigPtr config = SCache::current();
    auto kind = static_cast<MatchKind>(-1);  // none of the kinds: the lookup must set it
    // exact URL in an SCache pack
    auto m = findByUrl(Url::key("https://h.com/logo.svg"), "", &kind);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->name, "sc");
    EXPECT_EQ(kind, kMatchUrlSCache);
    // referrer in an SCache pack claiming a script
    m = findByUrl(Url::key("https://cdn.com/a.js"), Url::key("https://h.com/page.html"), &kind);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(kind, kMatchReferrerSCache);
    // referrer of a plain pack
    m = findByUrl(Url::key("https://cdn.com/a.js"), Url::key("https://h.com/index.html"), &kind);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->name, "site");
    EXPECT_EQ(kind, kMatchNone);
    // longest prefix
    EXPECT_EQ(config->prefixTree().lookup(Url::key("https://h.com/app/deep/x.js"), ""), "deep");
    EXPECT_EQ(config->prefixTree().lookup(Url::key("https://h.com/app/x.js"), ""), "site");
    EXPECT_EQ(config->prefixTree().lookup(Url::key("https://h.com/x.js"), ""), "site");
    // accept types within a prefix
    EXPECT_EQ(findByPrefix(Url::key("https://img.com/i/a"), "image/webp,image/*;q=0.8")->name,
              "webp");
    EXPECT_EQ(findByPrefix(Url::key("https://img.com/i/a"), "image/png")->name, "png");
}

}  // namespace
}  // namespace FerritTest
