// The parts that ModuleCache and UniApp answer: reading a cached copy, what makes one unusable,
// fetching alone with validators, the digest check of what arrives, background validation, and
// UniApp's acceptance test.
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include "access/ComboRule.h"
#include "access/ModuleCacheResource.h"
#include "access/UniAppResource.h"
#include "base/Errors.h"
#include "storage/Cache.h"
#include "storage/ModuleCache.h"
#include "storage/UniApp.h"
#include "tests/access/AccessFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

// The "Content-MD5" of a body: base64 of its 16 raw digest bytes.
std::string contentMd5(const std::string& body) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(body.data(), body.size(), digest, &length, EVP_md5(), nullptr);
    return FakeProxy::base64(std::string(reinterpret_cast<char*>(digest), length));
}

class CacheResourceTest : public AccessFixture {
  protected:
    std::string host() const { return comboRuleHost(); }
    std::string bare(const std::string& path) const { return host() + path; }
    std::string full(const std::string& path) const { return "https://" + host() + path; }

    std::shared_ptr<RequestContext> contextFor(const std::string& url, HeaderMap header = {}) {
        requests_.push_back(std::make_unique<ResourceRequest>(url, header));
        return std::make_shared<RequestContext>(*requests_.back(), kTriggerVisit);
    }
    std::shared_ptr<ModuleCacheResource> modulePart(const std::string& path) {
        return std::make_shared<ModuleCacheResource>(contextFor(full(path)), bare(path));
    }
    std::shared_ptr<UniAppResource> uniAppPart(const std::string& path, HeaderMap header) {
        return std::make_shared<UniAppResource>(contextFor(full(path), std::move(header)),
                                                bare(path), "shop", "1.2");
    }

    // A copy stored as ModuleCache stores it.
    void storeModule(const std::string& path, const std::string& body, double expires,
                     bool validated = true, HeaderMap header = {}) {
        CachedResource resource;
        resource.body = body;
        resource.crc = Digest::crc32(body);
        resource.md5 = Digest::md5Hex(body);
        resource.expires = expires;
        resource.validated = validated;
        resource.headers = std::move(header);
        Error error;
        ASSERT_TRUE(ModuleCache::instance().update(bare(path), resource, error)) << error.message();
    }

    static std::string contentOf(ResourcePart& part) {
        std::string out;
        unsigned crc = 0;
        part.appendTo(out, crc);
        return out;
    }
    // readAsync, returning how often the callback ran.
    static int readAsync(ResourcePart& part) {
        int calls = 0;
        part.readAsync([&](std::shared_ptr<ResourcePart>) { ++calls; });
        return calls;
    }

    FakeProxy::Answer answerOf(std::string body, HeaderMap header) {
        FakeProxy::Answer answer;
        answer.body = std::move(body);
        answer.header = std::move(header);
        return answer;
    }

    double hourFromNow() { return MRLCurrentTime() + 3600000; }

    std::vector<std::unique_ptr<ResourceRequest>> requests_;
};

// --- ModuleCache ------------------------------------------------------------------------------

TEST_F(CacheResourceTest, FreshCopyIsReadAndTheVisitIsReported) {
    storeModule("/m/a.js", "A();", hourFromNow());
    const size_t pending = TaskRunner::pendingCount();
    auto part = modulePart("/m/a.js");
    EXPECT_EQ(part->read(), ReadStatus::Done);
    EXPECT_FALSE(part->error);
    EXPECT_EQ(contentOf(*part), "A();");
    EXPECT_EQ(part->size(), 4u);
    EXPECT_EQ(part->md5(), Digest::md5Hex("A();"));
    EXPECT_EQ(part->name, "ModuleCache");
    const auto visits = proxy_->named("Ferrit.CacheVisit");
    ASSERT_EQ(visits.size(), 1u);
    EXPECT_EQ(visits[0].dimensions.at("name"), "ModuleCache");
    EXPECT_EQ(visits[0].dimensions.at("trigger"), "Visit");
    EXPECT_EQ(visits[0].dimensions.count("errorCode"), 0u);
    EXPECT_EQ(visits[0].measures.count("readTime"), 1u);
    // A validated copy needs nothing more.
    EXPECT_EQ(TaskRunner::pendingCount(), pending);
    EXPECT_TRUE(proxy_->requests.empty());
}

TEST_F(CacheResourceTest, VisitRecordCarriesEveryField) {
    storeModule("/m/v.js", "V();", hourFromNow());
    auto part = modulePart("/m/v.js");
    ASSERT_EQ(part->read(), ReadStatus::Done);
    const auto visits = proxy_->named("Ferrit.CacheVisit");
    ASSERT_EQ(visits.size(), 1u);
    EXPECT_EQ(FakeProxy::missingFields(visits[0], {"name", "trigger"}, {"matchTime", "readTime"}),
              std::vector<std::string>{});
}

TEST_F(CacheResourceTest, MissingCopyNeedsAnAggregateRequest) {
    auto part = modulePart("/m/none.js");
    EXPECT_EQ(part->read(), ReadStatus::NeedAggregate);
    EXPECT_EQ(part->error.code(), Errors::kFileNotExists);
    EXPECT_EQ(part->size(), 0u);
    EXPECT_EQ(proxy_->named("Ferrit.CacheVisit")[0].dimensions.at("errorCode"),
              std::to_string(Errors::kFileNotExists));
}

TEST_F(CacheResourceTest, ExpiredCopyIsFetchedAloneWithItsETag) {
    storeModule("/m/a.js", "old", MRLCurrentTime() + 1000, true, {{"ETag", "\"v1\""}});
    clock_->advance(2000);
    auto part = modulePart("/m/a.js");
    EXPECT_EQ(part->read(), ReadStatus::NeedFetch);
    EXPECT_EQ(part->error.code(), Errors::kResourceExpired);

    FakeProxy::Answer notModified;
    notModified.status = 304;
    notModified.header = {{"Cache-Control", "max-age=600"}};
    proxy_->serve(full("/m/a.js"), notModified);
    EXPECT_EQ(readAsync(*part), 1);
    ASSERT_EQ(proxy_->requests.size(), 1u);
    EXPECT_EQ(proxy_->requests[0].header.at("If-None-Match"), "\"v1\"");
    EXPECT_FALSE(part->error) << part->error.message();
    EXPECT_EQ(contentOf(*part), "old");
    // The copy is fresh again for ten minutes.
    EXPECT_GT(Cache::instance().metaJson(bare("/m/a.js"))["e"].doubleValue(), MRLCurrentTime());
    auto again = modulePart("/m/a.js");
    EXPECT_EQ(again->read(), ReadStatus::Done);
}

TEST_F(CacheResourceTest, ExpiredCopyWithoutETagIsRevalidatedByItsDate) {
    storeModule("/m/a.js", "old", MRLCurrentTime() + 1000, true,
                {{"Last-Modified", "Sun, 06 Nov 1994 08:49:37 GMT"}});
    clock_->advance(2000);
    auto part = modulePart("/m/a.js");
    EXPECT_EQ(part->read(), ReadStatus::NeedFetch);
    proxy_->serve(full("/m/a.js"), answerOf("new", {{"Cache-Control", "max-age=60"}}));
    readAsync(*part);
    EXPECT_EQ(proxy_->requests[0].header.at("If-Modified-Since"), "Sun, 06 Nov 1994 08:49:37 GMT");
    EXPECT_EQ(contentOf(*part), "new");
}

TEST_F(CacheResourceTest, NoValidatorsWhileValidationIsSwitchedOff) {
    Settings::change([](Settings& s) { s.cacheValidationEnabled = false; });
    storeModule("/m/a.js", "old", MRLCurrentTime() + 1000, true, {{"ETag", "\"v1\""}});
    clock_->advance(2000);
    auto part = modulePart("/m/a.js");
    ASSERT_EQ(part->read(), ReadStatus::NeedFetch);
    proxy_->serve(full("/m/a.js"), answerOf("new", {{"Cache-Control", "max-age=60"}}));
    readAsync(*part);
    EXPECT_EQ(proxy_->requests[0].header.count("If-None-Match"), 0u);
    EXPECT_EQ(contentOf(*part), "new");
}

TEST_F(CacheResourceTest, FetchedBodyWithAMatchingDigestIsStoredValidated) {
    auto part = modulePart("/m/b.js");
    ASSERT_EQ(part->read(), ReadStatus::NeedAggregate);
    proxy_->serve(full("/m/b.js"), answerOf("B();", {{"Content-MD5", contentMd5("B();")},
                                                     {"Cache-Control", "max-age=60"},
                                                     {"Content-Type", "application/javascript"}}));
    EXPECT_EQ(readAsync(*part), 1);
    EXPECT_FALSE(part->error) << part->error.message();
    EXPECT_EQ(contentOf(*part), "B();");
    EXPECT_TRUE(Cache::instance().metaJson(bare("/m/b.js"))["v"].boolValue());
    EXPECT_TRUE(ModuleCache::instance().contains(bare("/m/b.js")));
    EXPECT_EQ(part->header().at("Content-Type"), "application/javascript");
}

TEST_F(CacheResourceTest, StoredFetchSendsCacheUpdateWithEveryField) {
    auto part = modulePart("/m/u.js");
    ASSERT_EQ(part->read(), ReadStatus::NeedAggregate);
    proxy_->serve(full("/m/u.js"), answerOf("U();", {{"Cache-Control", "max-age=60"}}));
    proxy_->clearRecords();
    readAsync(*part);
    const auto records = proxy_->named("Ferrit.CacheUpdate");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(
        FakeProxy::missingFields(records[0], {"url", "name", "trigger", "incr"},
                                 {"notificationDelay", "queueDelay", "configTime", "downlodTime",
                                  "downloadSize", "updateTime", "resourceSize", "updateDelay"}),
        std::vector<std::string>{});
    EXPECT_EQ(records[0].dimensions.at("incr"), "false");
    EXPECT_DOUBLE_EQ(records[0].measures.at("downloadSize"), 4);
    EXPECT_DOUBLE_EQ(records[0].measures.at("resourceSize"), 4);
}

TEST_F(CacheResourceTest, RefusedBodySendsNoCacheUpdate) {
    auto part = modulePart("/m/r.js");
    ASSERT_EQ(part->read(), ReadStatus::NeedAggregate);
    proxy_->serve(full("/m/r.js"), answerOf("R();", {{"Content-MD5", contentMd5("other")},
                                                     {"Cache-Control", "max-age=60"}}));
    proxy_->clearRecords();
    readAsync(*part);
    EXPECT_TRUE(proxy_->named("Ferrit.CacheUpdate").empty());
}

TEST_F(CacheResourceTest, DigestThatDiffersRefusesTheBody) {
    auto part = modulePart("/m/b.js");
    ASSERT_EQ(part->read(), ReadStatus::NeedAggregate);
    proxy_->serve(full("/m/b.js"), answerOf("B();", {{"Content-MD5", contentMd5("other")},
                                                     {"Cache-Control", "max-age=60"}}));
    readAsync(*part);
    EXPECT_EQ(part->error.code(), Errors::kRequestVerify);
    EXPECT_EQ(part->error.message(), "request \"" + full("/m/b.js") + "\" verify failed: MD5 \"" +
                                         Digest::md5Hex("B();") + "\" different with expected \"" +
                                         Digest::md5Hex("other") + "\"");
    EXPECT_EQ(contentOf(*part), "");
    EXPECT_FALSE(ModuleCache::instance().contains(bare("/m/b.js")));
    EXPECT_EQ(logs_->last("update", "Ferrit/ModuleCache").level, 1);
}

TEST_F(CacheResourceTest, DigestThatIsNotBase64OrNot16BytesIsADifference) {
    for (const std::string& bad :
         {std::string("***not base64***"), FakeProxy::base64("fifteen bytes!!"),
          FakeProxy::base64(std::string(17, 'x'))}) {
        SCOPED_TRACE(bad);
        auto part = modulePart("/m/c.js");
        ASSERT_EQ(part->read(), ReadStatus::NeedAggregate);
        proxy_->serve(full("/m/c.js"),
                      answerOf("C();", {{"Content-MD5", bad}, {"Cache-Control", "max-age=60"}}));
        readAsync(*part);
        EXPECT_EQ(part->error.code(), Errors::kRequestVerify);
        EXPECT_EQ(contentOf(*part), "");
        EXPECT_FALSE(ModuleCache::instance().contains(bare("/m/c.js")));
    }
}

TEST_F(CacheResourceTest, DigestIsNotCheckedWithTheSettingOff) {
    Settings::change([](Settings& s) { s.moduleCacheCheckMD5 = false; });
    auto part = modulePart("/m/b.js");
    ASSERT_EQ(part->read(), ReadStatus::NeedAggregate);
    proxy_->serve(full("/m/b.js"), answerOf("B();", {{"Content-MD5", contentMd5("other")},
                                                     {"Cache-Control", "max-age=60"}}));
    readAsync(*part);
    EXPECT_FALSE(part->error);
    EXPECT_EQ(contentOf(*part), "B();");
    EXPECT_FALSE(Cache::instance().metaJson(bare("/m/b.js"))["v"].boolValue());
}

TEST_F(CacheResourceTest, StaleAnswerIsServedButNotKept) {
    auto part = modulePart("/m/s.js");
    ASSERT_EQ(part->read(), ReadStatus::NeedAggregate);
    proxy_->serve(full("/m/s.js"), answerOf("S();", {{"Cache-Control", "no-store"}}));
    readAsync(*part);
    EXPECT_FALSE(part->error);
    EXPECT_EQ(contentOf(*part), "S();");
    EXPECT_FALSE(ModuleCache::instance().contains(bare("/m/s.js")));
    EXPECT_EQ(logs_->last("update", "Ferrit/ModuleCache").errorCode,
              std::to_string(Errors::kResourceExpired));
}

TEST_F(CacheResourceTest, FailedFetchGivesTheNetworkError) {
    auto part = modulePart("/m/none.js");
    ASSERT_EQ(part->read(), ReadStatus::NeedAggregate);
    EXPECT_EQ(readAsync(*part), 1);
    EXPECT_EQ(part->error.code(), Errors::kRequestInvalidStatus);
    EXPECT_EQ(contentOf(*part), "");
}

TEST_F(CacheResourceTest, UnvalidatedCopyIsServedAndValidatedInTheBackground) {
    storeModule("/m/u.js", "U();", hourFromNow(), false);
    clock_->advance(1000);
    TaskRunner::runDue();  // the save of the list
    auto part = modulePart("/m/u.js");
    EXPECT_EQ(part->read(), ReadStatus::Done);
    EXPECT_EQ(contentOf(*part), "U();");
    // Nothing goes out on the request's path.
    EXPECT_TRUE(proxy_->requests.empty());
    EXPECT_EQ(TaskRunner::pendingCount(), 1u);
    proxy_->serve(full("/m/u.js"), answerOf("U();", {{"Content-MD5", contentMd5("U();")},
                                                     {"Cache-Control", "max-age=60"}}));
    TaskRunner::runDue();
    ASSERT_EQ(proxy_->requests.size(), 1u);
    EXPECT_TRUE(Cache::instance().metaJson(bare("/m/u.js"))["v"].boolValue());
    // Validated, the next read asks for nothing.
    auto next = modulePart("/m/u.js");
    EXPECT_EQ(next->read(), ReadStatus::Done);
    EXPECT_EQ(TaskRunner::pendingCount(), 0u);
}

TEST_F(CacheResourceTest, NoBackgroundValidationWhileValidationIsSwitchedOff) {
    Settings::change([](Settings& s) { s.cacheValidationEnabled = false; });
    storeModule("/m/u.js", "U();", hourFromNow(), false);
    const size_t pending = TaskRunner::pendingCount();
    auto part = modulePart("/m/u.js");
    EXPECT_EQ(part->read(), ReadStatus::Done);
    EXPECT_EQ(TaskRunner::pendingCount(), pending);
}

// --- UniApp -----------------------------------------------------------------------------------

TEST_F(CacheResourceTest, UniAppPartIsNamedByItsPackAndVersion) {
    auto part = uniAppPart("/u/index.html", {});
    EXPECT_EQ(part->name, "U:shop@1.2");
    EXPECT_EQ(part->label, "UniApp");
}

TEST_F(CacheResourceTest, UniAppReadThatFailsAcceptanceForcesTheNextStoreToReplaceTheBody) {
    // A validated copy that a newer-dated body would not replace.
    CachedResource html;
    html.body = "<html>old</html>";
    html.crc = Digest::crc32(html.body);
    html.md5 = Digest::md5Hex(html.body);
    html.validated = true;
    html.date = 5000000;
    html.headers = {{"Content-Type", "text/html"}};
    Error error;
    ASSERT_TRUE(UniApp::instance().update(bare("/u/logo"), html, error));

    auto part = uniAppPart("/u/logo", {{"Accept", "image/*"}});
    EXPECT_EQ(part->read(), ReadStatus::NeedAggregate);
    EXPECT_EQ(part->error.code(), Errors::kNotAcceptable);
    EXPECT_EQ(part->error.message(),
              "resource " + bare("/u/logo") + " \"text/html\" can not accepted by image/*");
    EXPECT_TRUE(part->forceOverwrite);
    EXPECT_EQ(contentOf(*part), "");  // the copy that does not suit is not served

    proxy_->serve(full("/u/logo"), answerOf("PNG", {{"Content-Type", "image/png"},
                                                    {"Date", "Thu, 01 Jan 1970 00:00:01 GMT"}}));
    readAsync(*part);
    EXPECT_FALSE(part->error) << part->error.message();
    EXPECT_EQ(contentOf(*part), "PNG");
    auto stored = Cache::instance().read(bare("/u/logo"), "", error);
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(stored->body, "PNG");  // replaced although older and the old copy was validated
}

TEST_F(CacheResourceTest, UniAppCopyThatSuitsIsRead) {
    CachedResource html;
    html.body = "<html/>";
    html.headers = {{"Content-Type", "text/html; charset=utf-8"}};
    Error error;
    ASSERT_TRUE(UniApp::instance().update(bare("/u/page"), html, error));
    auto part = uniAppPart("/u/page", {{"Accept", "text/html,application/xhtml+xml"}});
    EXPECT_EQ(part->read(), ReadStatus::Done);
    EXPECT_EQ(contentOf(*part), "<html/>");
}

TEST_F(CacheResourceTest, UniAppCopyIsJudgedByTheRequestHeadersItVariesBy) {
    auto first = uniAppPart("/u/text", {{"Accept-Language", "en"}});
    ASSERT_EQ(first->read(), ReadStatus::NeedAggregate);
    proxy_->serve(full("/u/text"),
                  answerOf("hello", {{"Content-Type", "text/plain"}, {"Vary", "Accept-Language"}}));
    readAsync(*first);
    ASSERT_FALSE(first->error) << first->error.message();
    // The request's value is kept to judge by, and is no header of the response.
    EXPECT_EQ(first->header().count("Accept-Language"), 0u);
    EXPECT_EQ(first->header().at("Vary"), "Accept-Language");

    auto same = uniAppPart("/u/text", {{"accept-language", "en"}});
    EXPECT_EQ(same->read(), ReadStatus::Done);
    auto other = uniAppPart("/u/text", {{"Accept-Language", "fr"}});
    EXPECT_EQ(other->read(), ReadStatus::NeedAggregate);
    EXPECT_EQ(other->error.code(), Errors::kNotAcceptable);
}

}  // namespace
}  // namespace FerritTest
