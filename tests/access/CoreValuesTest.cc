#include <gtest/gtest.h>

#include <optional>

#include "access/PackPart.h"
#include "access/Resource.h"
#include "base/Errors.h"
#include "ferritcore/Error.h"
#include "ferritcore/ResourceRequest.h"
#include "ferritcore/ResourceResponse.h"
#include "tests/access/AccessFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

TEST(ErrorTest, FormatKeepsThreeHundredCharacters) {
    const std::string s(300, 'x');
    Error e(5, "%s", s.c_str());
    EXPECT_EQ(e.message(), s);
    EXPECT_EQ(e.code(), 5);
}

TEST(ErrorTest, FormatOfExactlyTwoHundredFiftyFiveAndSix) {
    EXPECT_EQ(Error(1, "%s", std::string(255, 'a').c_str()).message().size(), 255u);
    EXPECT_EQ(Error(1, "%s", std::string(256, 'a').c_str()).message().size(), 256u);
}

TEST(ErrorTest, TruthIsByCodeNotMessage) {
    // An explicit std::string picks the plain constructor; "" alone would be an empty format.
    EXPECT_FALSE(static_cast<bool>(Error()));
    EXPECT_TRUE(static_cast<bool>(Error(1, std::string())));
    EXPECT_FALSE(static_cast<bool>(Error(0, "text")));
}

TEST(ErrorTest, ClearEmptiesBoth) {
    Error e(7, "seven");
    e.clear();
    EXPECT_EQ(e.code(), 0);
    EXPECT_TRUE(e.message().empty());
}

TEST(ErrorTest, NullFormatLeavesMessageEmpty) {
    Error e(9, static_cast<const char*>(nullptr));
    EXPECT_EQ(e.code(), 9);
    EXPECT_TRUE(e.message().empty());
}

TEST(ErrorTest, CopyAndMoveKeepCodeAndMessage) {
    Error a(3, "three");
    Error b = a;
    Error c;
    c = std::move(b);
    EXPECT_EQ(c.code(), 3);
    EXPECT_EQ(c.message(), "three");
    EXPECT_EQ(a, c);
}

TEST(ResourceRequestTest, LowerCaseRefererHeaderIsReferrer) {
    ResourceRequest request("https://a/b", HeaderMap{{"referer", "https://a/page"}});
    EXPECT_EQ(request.referrer, "https://a/page");
}

TEST(ResourceRequestTest, ValidatorHeadersAreDroppedButConditionalsStay) {
    ResourceRequest request(
        "https://a/b",
        HeaderMap{
            {"ETag", "1"}, {"Last-Modified", "x"}, {"If-None-Match", "1"}, {"Accept", "*/*"}});
    EXPECT_EQ(request.header().count("ETag"), 0u);
    EXPECT_EQ(request.header().count("Last-Modified"), 0u);
    EXPECT_EQ(request.header().at("If-None-Match"), "1");
    EXPECT_EQ(request.header().at("Accept"), "*/*");
}

TEST(ResourceRequestTest, FirstConstructorLeavesEverythingElseEmpty) {
    ResourceRequest request("u", "r");
    EXPECT_EQ(request.url, "u");
    EXPECT_EQ(request.referrer, "r");
    EXPECT_TRUE(request.header().empty());
    EXPECT_EQ(request.type, 0);
    EXPECT_TRUE(request.parentId.empty());
}

TEST(ResourceRequestTest, UniAppNeedsTypeNameAndVersion) {
    ResourceRequest request("u", "");
    request.type = 1;
    request.packName = "p";
    EXPECT_FALSE(request.isUniApp());
    request.packVersion = "1";
    EXPECT_TRUE(request.isUniApp());
    request.type = 2;
    EXPECT_FALSE(request.isUniApp());
}

// A part with fixed content, for responses and groups.
class FixedPart : public ResourcePart {
  public:
    FixedPart(std::shared_ptr<RequestContext> context, std::string content,
              std::string md5Value = "m")
        : ResourcePart(std::move(context), "//h/x.js", "F:x@1"),
          content_(std::move(content)),
          md5_(std::move(md5Value)) {}
    uint64_t size() const override { return content_.size(); }
    std::string md5() const override { return md5_; }
    ReadStatus read() override { return ReadStatus::Done; }
    void readAsync(std::function<void(std::shared_ptr<ResourcePart>)> callback) override {
        callback(shared_from_this());
    }
    void appendTo(std::string& out, unsigned& crc) override {
        crc = 1;
        out.append(content_);
    }

  private:
    std::string content_;
    std::string md5_;
};

class ResponseTest : public AccessFixture {
  protected:
    // The context reads its request until the match ends, so the request lives as long as the test.
    const ResourceRequest request_{"https://h/x.js", HeaderMap{}};
};

TEST_F(ResponseTest, SetFinishedWithoutResourceWritesNoLog) {
    ResourceResponse response(Error(Errors::kNotFerritResource, "Not Ferrit resource"));
    response.setFinished(Error());
    EXPECT_EQ(logs_->count("finish"), 0u);
    EXPECT_EQ(response.header.size(), 1u);
    EXPECT_EQ(response.header.at("X-Ferrit-Info"), ",0,3001");
    EXPECT_TRUE(response.md5.empty());
    EXPECT_FALSE(response.is404);
}

TEST_F(ResponseTest, TwoPartsGiveEmptyMd5AndSortedVia) {
    auto context = std::make_shared<RequestContext>(request_, kTriggerVisit);
    auto resource = std::make_shared<Resource>(context, "", false);
    auto b = std::make_shared<FixedPart>(context, "b");
    b->name = "F:b@1";
    auto a = std::make_shared<FixedPart>(context, "a");
    a->name = "F:a@1";
    resource->addPart(b, kMatchNone);
    resource->addPart(a, kMatchNone);
    resource->isCombo = true;
    ResourceResponse response(resource, "ba");
    EXPECT_TRUE(response.md5.empty());
    EXPECT_EQ(response.header.at("Via"), "Ferrit/" FERRIT_CORE_VERSION ",F:a@1,F:b@1");
    EXPECT_EQ(response.header.at("X-Ferrit-Info"), "COMBO@2,0");
}

TEST_F(ResponseTest, OnePartGivesItsMd5) {
    auto context = std::make_shared<RequestContext>(request_, kTriggerVisit);
    auto resource = std::make_shared<Resource>(context, "", false);
    resource->addPart(std::make_shared<FixedPart>(context, "a", "abc"), kMatchNone);
    ResourceResponse response(resource, "a");
    EXPECT_EQ(response.md5, "abc");
}

TEST_F(ResponseTest, ExplicitErrorFormKeepsArguments) {
    auto context = std::make_shared<RequestContext>(request_, kTriggerVisit);
    auto resource = std::make_shared<Resource>(context, "", false);
    resource->addPart(std::make_shared<FixedPart>(context, "a"), kMatchNone);
    ResourceResponse response(resource, Error(Errors::kReadAsyncOnly, "x"), /*is404=*/true);
    EXPECT_TRUE(response.data.empty());
    EXPECT_EQ(response.error.code(), Errors::kReadAsyncOnly);
    EXPECT_TRUE(response.is404);
}

TEST_F(ResponseTest, RequestContextTakesTraceAndAccept) {
    const ResourceRequest request("https://h.com/a",
                                  HeaderMap{{"ACCEPT", "Image/WEBP, */*;q=0.1"}});
    RequestContext context(request, kTriggerVisit);
    EXPECT_EQ(context.traceId().rfind("FT_Access_", 0), 0u);
    EXPECT_EQ(context.trigger, kTriggerVisit);
    EXPECT_EQ(context.accept(), "image/webp, */*;q=0.1");
    ASSERT_EQ(context.acceptTypes().size(), 2u);
    EXPECT_EQ(context.acceptTypes()[0].type, "image/webp");
    EXPECT_EQ(context.scheme(), "https://");
    EXPECT_EQ(context.origin(), "https://h.com");
}

// After the match the request may go: the context answers from what it kept.
TEST_F(ResponseTest, DetachedContextKeepsTheHeadersOnlyWhenAskedTo) {
    std::optional<RequestContext> plain, kept;
    {
        const ResourceRequest request("https://h.com/a", HeaderMap{{"Accept", "Text/CSS"}});
        plain.emplace(request, kTriggerVisit);
        kept.emplace(request, kTriggerVisit);
        kept->keep();
        plain->detach();
        kept->detach();
    }
    EXPECT_EQ(plain->accept(), "text/css");
    EXPECT_TRUE(plain->header().empty());
    EXPECT_TRUE(plain->url().empty());
    EXPECT_EQ(kept->url(), "https://h.com/a");
    EXPECT_EQ(kept->accept(), "text/css");
    EXPECT_EQ(Http::headerValue(kept->header(), "Accept"), "Text/CSS");
}

TEST_F(ResponseTest, PartTraceIdIsMadeOnceOnFirstUse) {
    auto context = std::make_shared<RequestContext>(request_, kTriggerVisit);
    FixedPart part(context, "a");
    const std::string first = part.traceId();
    EXPECT_EQ(first.rfind("FT_Resource_", 0), 0u);
    EXPECT_EQ(part.traceId(), first);
}

}  // namespace
}  // namespace FerritTest
