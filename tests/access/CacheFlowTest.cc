// The stages of the matcher after the prefix stage, through Access in both forms: aggregate URLs
// split into files that packs and ModuleCache answer, the batch that fetches the rest, UniApp
// requests, and the module that ModuleCache holds.
#include <gtest/gtest.h>

#include "access/AggregateRequest.h"
#include "access/ComboRule.h"
#include "access/ReadGroup.h"
#include "access/Resource.h"
#include "base/Errors.h"
#include "ferritcore/Access.h"
#include "storage/Cache.h"
#include "storage/ModuleCache.h"
#include "storage/UniApp.h"
#include "tests/access/AccessFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

using MarlLogger::json::JSON;

constexpr int kModules = 30;
// Every third module of the page is in the installed pack: 10 of 30.
constexpr int kPackEvery = 3;

class CacheFlowTest : public AccessFixture {
  protected:
    std::string host() const { return comboRuleHost(); }
    std::string origin() const { return "https://" + host(); }

    static bool inPack(int i) { return i % kPackEvery == 0; }
    // The module's path below the host: pack files under "/pk/", the others under "/lib/".
    static std::string pathOf(int i) {
        return (inPack(i) ? "/pk/m" : "/lib/n") + std::to_string(i) + ".js";
    }
    static std::string contentOf(int i) { return "/* module " + std::to_string(i) + " */;"; }

    // The pack "mods" installed at 3 below origin + "/pk/" with the pack's modules.
    void installModulesPack() {
        install({pack("mods", kPackTypeFerrit, 3, 3, {origin() + "/pk/"})});
        std::vector<std::tuple<std::string, std::string, std::string>> files;
        for (int i = 0; i < kModules; ++i) {
            if (!inPack(i)) continue;
            const std::string file = "res" + pathOf(i).substr(3);
            files.emplace_back(file, origin() + pathOf(i), contentOf(i));
            writeFile("apps/mods/3/" + file, contentOf(i));
        }
        serveIndexes({{"mods", tableOf(files)}});
    }

    // "https://host/??pk/m0.js,lib/n1.js,...": the page's one URL for all its modules.
    std::string pageComboUrl() const {
        std::string url = origin() + "/??";
        for (int i = 0; i < kModules; ++i) {
            if (i > 0) url.push_back(',');
            url.append(pathOf(i).substr(1));
        }
        return url;
    }

    static FakeProxy::Answer answerOf(std::string body, HeaderMap header) {
        FakeProxy::Answer answer;
        answer.body = std::move(body);
        answer.header = std::move(header);
        return answer;
    }

    static std::string joined(const std::vector<std::string>& pieces) {
        std::string out;
        for (size_t i = 0; i < pieces.size(); ++i) {
            if (i > 0) out.append(AggregateRequest::kSeparator);
            out.append(pieces[i]);
        }
        return out;
    }

    // Every answer here comes at once.
    std::unique_ptr<ResourceResponse> getAsync(const ResourceRequest& request) {
        std::unique_ptr<ResourceResponse> got = AccessFixture::getAsync(request);
        EXPECT_NE(got, nullptr);
        return got;
    }

    static std::string dataOf(const ResourceResponse& response) { return response.data; }

    // A copy as ModuleCache keeps it.
    void storeModule(const std::string& bare, const std::string& body) {
        CachedResource resource;
        resource.body = body;
        resource.crc = Digest::crc32(body);
        resource.md5 = Digest::md5Hex(body);
        resource.expires = MRLCurrentTime() + 3600000;
        resource.validated = true;
        Error error;
        ASSERT_TRUE(ModuleCache::instance().update(bare, resource, error)) << error.message();
    }

    // A UniApp request of the pack "shop" 1.2.
    static ResourceRequest uniAppRequest(const std::string& url, HeaderMap header = {}) {
        ResourceRequest request(url, header);
        request.type = kResourceTypeUniApp;
        request.packName = "shop";
        request.packVersion = "1.2";
        return request;
    }
};

TEST_F(CacheFlowTest, AggregateUrlOfThirtyModulesFetchesTheTwentyMissingInOneBatchThenNothing) {
    installModulesPack();
    // The batch of the 20 modules that no pack holds, in page order, as the CDN answers it.
    std::string expectedUrl = origin() + "\?\?";
    std::vector<std::string> pieces;
    std::string expected;
    for (int i = 0; i < kModules; ++i) {
        expected.append(contentOf(i));
        if (inPack(i)) continue;
        if (!pieces.empty()) expectedUrl.push_back(',');
        expectedUrl.append(pathOf(i));
        pieces.push_back(contentOf(i));
    }
    ASSERT_EQ(pieces.size(), 20u);
    AggregateRequest batch(*comboRuleFor(host() + "/lib/n1.js"), "t");
    for (int i = 0; i < kModules; ++i)
        if (!inPack(i)) batch.add(host() + pathOf(i));
    const std::string requestUrl = batch.requestUrl(origin());
    ASSERT_EQ(requestUrl.rfind(expectedUrl + ",/ferrit/s/", 0), 0u) << requestUrl;
    pieces.push_back("/* guard */");
    proxy_->serve(requestUrl, answerOf(joined(pieces), {{"Cache-Control", "max-age=3600"},
                                                        {"Content-Type", "text/javascript"}}));

    const ResourceRequest request(pageComboUrl(), "");
    std::unique_ptr<ResourceResponse> first = getAsync(request);
    ASSERT_NE(first, nullptr);
    ASSERT_FALSE(first->error) << first->error.message();
    EXPECT_EQ(dataOf(*first), expected);
    ASSERT_EQ(proxy_->requests.size(), 1u);
    EXPECT_EQ(proxy_->requests[0].url, requestUrl);
    EXPECT_EQ(logs_->last("match", "Ferrit/Access").field("match").stringValue(), "COMBO");
    for (int i = 0; i < kModules; ++i)
        EXPECT_EQ(ModuleCache::instance().contains(host() + pathOf(i)), !inPack(i)) << i;

    // The same page again: the pack and ModuleCache answer every file, in either form.
    std::unique_ptr<ResourceResponse> second = getAsync(request);
    ASSERT_FALSE(second->error) << second->error.message();
    EXPECT_EQ(dataOf(*second), expected);
    std::unique_ptr<ResourceResponse> sync = Access::getResource(request);
    ASSERT_FALSE(sync->error) << sync->error.message();
    EXPECT_EQ(dataOf(*sync), expected);
    EXPECT_EQ(proxy_->requests.size(), 1u);
}

TEST_F(CacheFlowTest, PolicyOfZeroNeverSplitsAComboUrl) {
    installModulesPack();
    const ResourceRequest request(origin() + "/??pk/m0.js,pk/m3.js", "");
    std::shared_ptr<Resource> probe = Access::match(request, kPolicyProbe);
    EXPECT_FALSE(probe->isCombo);
    EXPECT_EQ(probe->error.code(), Errors::kNotFerritResource);
    EXPECT_EQ(probe->parts.size(), 1u);
    // The same URL splits for a reader.
    std::shared_ptr<Resource> read = Access::match(request, kPolicySync);
    EXPECT_TRUE(read->isCombo);
    EXPECT_FALSE(read->error) << read->error.message();
    EXPECT_EQ(read->parts.size(), 2u);
}

TEST_F(CacheFlowTest, ComboWhoseFilesThePacksServeIsReadInTheSyncForm) {
    installModulesPack();
    std::unique_ptr<ResourceResponse> response =
        Access::getResource(ResourceRequest(origin() + "/??pk/m0.js,/pk/m3.js", ""));
    ASSERT_FALSE(response->error) << response->error.message();
    EXPECT_EQ(dataOf(*response), contentOf(0) + contentOf(3));
    EXPECT_TRUE(proxy_->requests.empty());
}

TEST_F(CacheFlowTest, ComboFileThatNothingServesFailsTheWholeInTheSyncForm) {
    installModulesPack();
    const ResourceRequest request(origin() + "/??pk/m0.js,lib/n1.js", "");
    std::shared_ptr<Resource> resource = Access::match(request, kPolicySync);
    // ModuleCache answers a file it does not hold only for an asynchronous reader.
    EXPECT_FALSE(resource->isCombo);
    EXPECT_EQ(resource->error.code(), Errors::kNotFerritResource);
    const auto& entry = logs_->last("match", "Ferrit/Access");
    const auto& infos = entry.field("comboInfo");
    SCOPED_TRACE(entry.toJSONLine());
    ASSERT_EQ(infos.size(), 2u);
    EXPECT_EQ(infos[1]["match"].stringValue(), "prefix");
    EXPECT_EQ(Access::getResource(request)->error.code(), Errors::kNotFerritResource);
}

TEST_F(CacheFlowTest, ComboWithTheWrongNumberOfPiecesFailsWith1010AndStoresNothing) {
    const ResourceRequest request(origin() + "/??lib/a.js,lib/b.js", "");
    AggregateRequest batch(*comboRuleFor(host() + "/lib/a.js"), "t");
    batch.add(host() + "/lib/a.js");
    batch.add(host() + "/lib/b.js");
    // Two pieces and no guard.
    proxy_->serve(batch.requestUrl(origin()),
                  answerOf(joined({"A", "B"}), {{"Cache-Control", "max-age=60"}}));
    std::unique_ptr<ResourceResponse> response = getAsync(request);
    EXPECT_EQ(response->error.code(), Errors::kRequestVerify);
    EXPECT_EQ(response->data.size(), 0u);
    EXPECT_FALSE(ModuleCache::instance().contains(host() + "/lib/a.js"));
    // The store still works: the right answer afterwards is stored.
    proxy_->serve(batch.requestUrl(origin()),
                  answerOf(joined({"A", "B", "g"}), {{"Cache-Control", "max-age=60"}}));
    std::unique_ptr<ResourceResponse> again = getAsync(request);
    ASSERT_FALSE(again->error) << again->error.message();
    EXPECT_EQ(dataOf(*again), "AB");
    EXPECT_TRUE(ModuleCache::instance().contains(host() + "/lib/b.js"));
}

TEST_F(CacheFlowTest, ModuleThatModuleCacheHoldsIsAnsweredInBothForms) {
    storeModule(host() + "/lib/kept.js", "kept();");
    const ResourceRequest request(origin() + "/lib/kept.js", "");
    std::unique_ptr<ResourceResponse> sync = Access::getResource(request);
    ASSERT_FALSE(sync->error) << sync->error.message();
    EXPECT_EQ(dataOf(*sync), "kept();");
    EXPECT_EQ(logs_->last("match", "Ferrit/Access").field("match").stringValue(), "ModuleCache");
    std::unique_ptr<ResourceResponse> async = getAsync(request);
    ASSERT_FALSE(async->error) << async->error.message();
    EXPECT_EQ(dataOf(*async), "kept();");
    EXPECT_TRUE(proxy_->requests.empty());
    EXPECT_EQ(proxy_->named("Ferrit.CacheVisit").size(), 2u);
}

TEST_F(CacheFlowTest, ModuleCacheStageIsSkippedWhenSwitchedOffOrWithoutARule) {
    storeModule(host() + "/lib/kept.js", "kept();");
    Settings::change([](Settings& s) { s.moduleCacheEnabled = false; });
    std::unique_ptr<ResourceResponse> off =
        Access::getResource(ResourceRequest(origin() + "/lib/kept.js", ""));
    EXPECT_EQ(off->error.code(), Errors::kNotFerritResource);
    EXPECT_EQ(logs_->last("match", "Ferrit/Access").field("ModuleCache").stringValue(), "disabled");
    Settings::change([](Settings& s) { s.moduleCacheEnabled = true; });
    // A host without an aggregate rule is never a ModuleCache host.
    storeModule("other.example.com/lib/kept.js", "kept();");
    EXPECT_EQ(Access::getResource(ResourceRequest("https://other.example.com/lib/kept.js", ""))
                  ->error.code(),
              Errors::kNotFerritResource);
}

TEST_F(CacheFlowTest, UniAppRequestIsFetchedWhenMissingAndThenReadFromUniApp) {
    const std::string url = "https://u.example.com/shop/page.css";
    proxy_->serve(
        url, answerOf(".a{}", {{"Cache-Control", "max-age=60"}, {"Content-Type", "text/css"}}));
    const ResourceRequest request = uniAppRequest(url, {{"Accept", "text/css,*/*;q=0.1"}});
    // Without a copy the synchronous form cannot answer.
    std::unique_ptr<ResourceResponse> miss = Access::getResource(request);
    EXPECT_TRUE(miss->error);
    EXPECT_EQ(logs_->last("match").field("match").stringValue(), "UniApp");
    EXPECT_TRUE(proxy_->requests.empty());

    std::unique_ptr<ResourceResponse> fetched = getAsync(request);
    ASSERT_FALSE(fetched->error) << fetched->error.message();
    EXPECT_EQ(dataOf(*fetched), ".a{}");
    EXPECT_EQ(proxy_->requests.size(), 1u);
    EXPECT_TRUE(UniApp::instance().contains("u.example.com/shop/page.css"));

    std::unique_ptr<ResourceResponse> cached = Access::getResource(request);
    ASSERT_FALSE(cached->error) << cached->error.message();
    EXPECT_EQ(dataOf(*cached), ".a{}");
}

TEST_F(CacheFlowTest, UniAppRequestWithUniAppSwitchedOffKeepsThePrefixAnswer) {
    Settings::change([](Settings& s) { s.uniAppEnabled = false; });
    std::unique_ptr<ResourceResponse> response =
        Access::getResource(uniAppRequest("https://u.example.com/shop/page.css"));
    EXPECT_EQ(response->error.code(), Errors::kNotFerritResource);
    const auto& event = logs_->last("match");
    EXPECT_EQ(event.field("UniApp").stringValue(), "disabled");
    EXPECT_EQ(event.field("match").stringValue(), "prefix");
}

}  // namespace
}  // namespace FerritTest
