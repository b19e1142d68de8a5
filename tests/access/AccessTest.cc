#include <gtest/gtest.h>

#include <atomic>

#include "access/ComboRule.h"
#include "access/Matcher.h"
#include "access/PackPart.h"
#include "base/Errors.h"
#include "base/Url.h"
#include "ferritcore/Access.h"
#include "storage/Statistics.h"
#include "tests/access/AccessFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

class AccessTest : public AccessFixture {
  protected:
    // A plain pack "app" installed at `installed` with one file at "res/app.js" for the URL.
    void installAppPack(uint64_t installed, uint64_t seq) {
        install({pack("app", kPackTypeFerrit, installed, seq, {"https://h.com/app/"})});
        serveIndexes({{"app", table({{"res/app.js", "https://h.com/app/app.js"},
                                     {"res/x.css", "https://h.com/app/x.css"}})}});
        writeFile("apps/app/" + std::to_string(installed) + "/res/app.js", "console.log(1);");
        writeFile("apps/app/" + std::to_string(installed) + "/res/x.css", "a{}");
    }
    // The page's pack claims requests from "index.html" but knows no file; the prefix pack "app"
    // serves "app.js" ("A"): a request from the page falls through from referrer to prefix.
    void installReferrerPackThatMissesAndAppPack() {
        install({pack("page", kPackTypeFerrit, 2, 2, {}, {"https://h.com/index.html"}),
                 pack("app", kPackTypeFerrit, 3, 3, {"https://h.com/app/"})});
        serveIndexes(
            {{"page", table({})}, {"app", table({{"res/app.js", "https://h.com/app/app.js"}})}});
        writeFile("apps/app/3/res/app.js", "A");
    }
};

TEST_F(AccessTest, EmptyUrlGives3001WithoutMatchEventInSyncForm) {
    auto response = Access::getResource(ResourceRequest("", ""));
    EXPECT_EQ(response->error.code(), Errors::kNotFerritResource);
    EXPECT_EQ(response->error.message(), "Not Ferrit resource");
    EXPECT_EQ(response->resource, nullptr);
    EXPECT_EQ(logs_->count("match"), 0u);
}

TEST_F(AccessTest, EmptyUrlGives3001WithoutMatchEventInAsyncForm) {
    std::unique_ptr<ResourceResponse> got;
    Access::getResource(ResourceRequest("", ""),
                        [&](std::unique_ptr<ResourceResponse> r) { got = std::move(r); });
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(got->error.code(), Errors::kNotFerritResource);
    EXPECT_EQ(logs_->count("match"), 0u);
}

TEST_F(AccessTest, AsyncWithEmptyCallbackDoesNothing) {
    Access::getResource(ResourceRequest("https://h.com/app/app.js", ""), nullptr);
    EXPECT_EQ(logs_->count("match"), 0u);
}

TEST_F(AccessTest, ControlHeaderDisabledGives3003WithoutResource) {
    ResourceRequest request("https://h.com/a.js", HeaderMap{{"x-ferrit-control", "disabled"}});
    auto response = Access::getResource(request);
    EXPECT_EQ(response->error.code(), Errors::kDisabled);
    EXPECT_EQ(response->error.message(), "Ferrit disabled by X-Ferrit-Control header");
    EXPECT_EQ(response->resource, nullptr);
    EXPECT_EQ(response->header.at("X-Ferrit-Info"), ",0,3003");
    EXPECT_EQ(logs_->count("match"), 0u);

    std::unique_ptr<ResourceResponse> got;
    Access::getResource(request, [&](std::unique_ptr<ResourceResponse> r) { got = std::move(r); });
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(got->error.code(), Errors::kDisabled);
}

TEST_F(AccessTest, ControlHeaderValueIsCaseSensitive) {
    auto response = Access::getResource(
        ResourceRequest("https://h.com/a.js", HeaderMap{{"X-Ferrit-Control", "Disabled"}}));
    EXPECT_EQ(response->error.code(), Errors::kNotFerritResource);
    EXPECT_NE(response->resource, nullptr);
}

TEST_F(AccessTest, UnknownUrlGives3001WithoutIs404AndInfoWithCode) {
    auto response = Access::getResource(ResourceRequest("https://nowhere.com/x.js", ""));
    EXPECT_EQ(response->error.code(), Errors::kNotFerritResource);
    EXPECT_FALSE(response->is404);
    EXPECT_TRUE(response->data.empty());
    EXPECT_EQ(response->header.at("X-Ferrit-Info"), "D:@0,3001");
    EXPECT_FALSE(response->header.at("Date").empty());
    EXPECT_EQ(response->header.count("Via"), 0u);
    EXPECT_EQ(response->header.count("Cache-Control"), 0u);
}

TEST_F(AccessTest, UnmatchedUrlLogsMatchAtLoweredLevelWithPrefixInfo) {
    Access::getResource(
        ResourceRequest("https://nowhere.com/x.js", HeaderMap{{"Accept", "Text/HTML"}}));
    auto entry = logs_->last("match", "Ferrit/Access");
    ASSERT_EQ(entry.event, "match");
    EXPECT_EQ(entry.level, MarlLogger::MRLLevelDebug);
    EXPECT_EQ(entry.field("match").stringValue(), "prefix");
    EXPECT_EQ(entry.field("accept").stringValue(), "text/html");
    EXPECT_EQ(entry.field("url").stringValue(), "https://nowhere.com/x.js");
    EXPECT_EQ(entry.errorCode, std::to_string(Errors::kNotFerritResource));
    EXPECT_EQ(entry.field("prefixInfo")["errorCode"].int32Value(), Errors::kNotFerritResource);
    EXPECT_FALSE(entry.has("policy"));
    EXPECT_TRUE(entry.has("matchTime"));
}

TEST_F(AccessTest, AsyncPolicyIsLoggedOnMatchEvent) {
    installAppPack(3, 3);
    std::unique_ptr<ResourceResponse> got;
    Access::getResource(ResourceRequest("https://h.com/app/app.js", ""),
                        [&](std::unique_ptr<ResourceResponse> r) { got = std::move(r); });
    ASSERT_NE(got, nullptr);
    EXPECT_FALSE(got->error) << got->error.message();
    auto entry = logs_->last("match");
    EXPECT_EQ(entry.field("policy").stringValue(), "async");
    EXPECT_EQ(entry.level, 3);
}

TEST_F(AccessTest, PrefixHitServesBytesWithHeaders) {
    installAppPack(3, 3);
    auto response = Access::getResource(ResourceRequest("https://h.com/app/app.js?v=1", ""));
    ASSERT_FALSE(response->error) << response->error.message();
    EXPECT_EQ(response->data, "console.log(1);");
    EXPECT_EQ(response->md5, "0123456789abcdef0123456789abcdef");
    EXPECT_EQ(response->header.at("Content-Type"), "application/x-javascript");
    EXPECT_EQ(response->header.at("Cache-Control"), "no-store");
    EXPECT_EQ(response->header.at("Via"), "Ferrit/" FERRIT_CORE_VERSION ",F:app@3");
    EXPECT_EQ(response->header.at("X-Ferrit-Info"), "F:app@3,0");
    auto entry = logs_->last("match");
    EXPECT_EQ(entry.field("match").stringValue(), "prefix");
    EXPECT_EQ(entry.field("name").stringValue(), "F:app@3");
    EXPECT_EQ(logs_->count("read"), 1u);
}

TEST_F(AccessTest, TextTypesGetCharset) {
    installAppPack(3, 3);
    auto response = Access::getResource(ResourceRequest("https://h.com/app/x.css", ""));
    ASSERT_FALSE(response->error) << response->error.message();
    EXPECT_EQ(response->data, "a{}");
    EXPECT_EQ(response->header.at("Content-Type"), "text/css;charset=UTF-8");
}

TEST_F(AccessTest, UrlUnknownToPackGives3002) {
    installAppPack(3, 3);
    auto response = Access::getResource(ResourceRequest("https://h.com/app/none.js", ""));
    EXPECT_EQ(response->error.code(), Errors::kNotFerritPackResource);
    EXPECT_EQ(response->error.message(), "Not Ferrit F:app@3 resource");
}

TEST_F(AccessTest, OlderInstalledSequencePostsUpdateFiveSecondsLaterWithoutDelayingRead) {
    installAppPack(3, 4);
    auto response = Access::getResource(ResourceRequest("https://h.com/app/app.js", ""));
    ASSERT_FALSE(response->error) << response->error.message();
    EXPECT_EQ(response->data, "console.log(1);");
    EXPECT_TRUE(updates.empty());
    clock_->advance(4999);
    TaskRunner::runDue();
    EXPECT_TRUE(updates.empty());
    clock_->advance(1);
    TaskRunner::runDue();
    ASSERT_EQ(updates.size(), 1u);
    EXPECT_EQ(updates[0].name, "app");
    EXPECT_EQ(updates[0].trigger, kTriggerVisitUpdate);
}

TEST_F(AccessTest, MissingOldResourcePullsNewerVersion) {
    installAppPack(3, 4);
    auto response = Access::getResource(ResourceRequest("https://h.com/app/new.js", ""));
    EXPECT_EQ(response->error.code(), Errors::kNotFerritPackResource);
    clock_->advance(5000);
    TaskRunner::runDue();
    ASSERT_FALSE(updates.empty());
    EXPECT_EQ(updates.back().trigger, kTriggerVisitUpdate);
}

TEST_F(AccessTest, NotInstalledPackGives3104AndAsksForVisitUpdateAtOnce) {
    install({pack("app", kPackTypeFerrit, 0, 4, {"https://h.com/app/"})});
    auto response = Access::getResource(ResourceRequest("https://h.com/app/app.js", ""));
    EXPECT_EQ(response->error.code(), Errors::kNotInstalled);
    EXPECT_EQ(response->error.message(), "app not installed");
    ASSERT_EQ(updates.size(), 1u);
    EXPECT_EQ(updates[0].trigger, kTriggerVisit);
}

TEST_F(AccessTest, EliminatedPackGives3105) {
    auto p = pack("app", kPackTypeFerrit, 0, 4, {"https://h.com/app/"});
    p->status = kPackStatusEliminated;
    install({p});
    EXPECT_EQ(Access::getResource(ResourceRequest("https://h.com/app/a.js", ""))->error.code(),
              Errors::kEliminated);
}

TEST_F(AccessTest, InstalledBelowMinimumGives3108) {
    auto p = pack("app", kPackTypeFerrit, 3, 5, {"https://h.com/app/"});
    p->minSeq = 4;
    install({p});
    auto response = Access::getResource(ResourceRequest("https://h.com/app/a.js", ""));
    EXPECT_EQ(response->error.code(), Errors::kSeqTooLow);
    EXPECT_EQ(response->error.message(), "app 3 less than 4");
}

TEST_F(AccessTest, OutOfDatePackGives3110) {
    auto p = pack("app", kPackTypeFerrit, 3, 3, {"https://h.com/app/"});
    p->minSeq = 1;
    p->updateTime = MRLCurrentTime() - 129600001.0;
    install({p}, MRLCurrentTime() - 129600001.0);
    auto response = Access::getResource(ResourceRequest("https://h.com/app/a.js", ""));
    EXPECT_EQ(response->error.code(), Errors::kPackOutOfDate);
    EXPECT_EQ(response->error.message().rfind("app out of date: ", 0), 0u);
}

TEST_F(AccessTest, RecentDocumentKeepsPackInDate) {
    installAppPack(3, 3);
    auto p = std::make_shared<Pack>(*SCache::current()->find("app"));
    p->minSeq = 1;
    p->updateTime = MRLCurrentTime() - 129600001.0;
    install({p});  // the document itself was just taken in
    EXPECT_FALSE(Access::getResource(ResourceRequest("https://h.com/app/app.js", ""))->error);
}

TEST_F(AccessTest, IndexFailurePostsReinstall) {
    install({pack("app", kPackTypeFerrit, 3, 3, {"https://h.com/app/"})});
    auto response = Access::getResource(ResourceRequest("https://h.com/app/a.js", ""));
    // The pack folder holds no resource list.
    EXPECT_EQ(response->error.code(), Errors::kFileNotExists);
    EXPECT_EQ(response->error.message(), "file \"apps/app/3/app-res.hvc\" not exists");
    TaskRunner::runDue();
    EXPECT_EQ(SCache::current()->find("app")->status, kPackStatusNeedReinstall);
}

TEST_F(AccessTest, MissingFileGives3109AndPostsReinstall) {
    installAppPack(3, 3);
    std::filesystem::remove(temp_.path() / "apps/app/3/res/app.js");
    auto response = Access::getResource(ResourceRequest("https://h.com/app/app.js", ""));
    EXPECT_EQ(response->error.code(), Errors::kPackFileNotFound);
    EXPECT_EQ(response->error.message(), "F:app@3 file not found: apps/app/3/res/app.js");
    EXPECT_FALSE(response->is404);
    TaskRunner::runDue();
    EXPECT_EQ(SCache::current()->find("app")->status, kPackStatusNeedReinstall);
}

TEST_F(AccessTest, SubProcessPostsNoRepairs) {
    installAppPack(3, 3);
    Environment::instance().setMainProcess(false);
    std::filesystem::remove(temp_.path() / "apps/app/3/res/app.js");
    EXPECT_EQ(Access::getResource(ResourceRequest("https://h.com/app/app.js", ""))->error.code(),
              Errors::kPackFileNotFound);
    EXPECT_EQ(TaskRunner::pendingCount(), 0u);
}

TEST_F(AccessTest, ReferrerPackServesUnknownUrlWithKindZero) {
    install({pack("page", kPackTypeFerrit, 2, 2, {}, {"https://h.com/index.html"})});
    serveIndexes({{"page", table({{"res/lib.js", "https://cdn.com/lib.js"}})}});
    writeFile("apps/page/2/res/lib.js", "lib");
    auto kind = static_cast<MatchKind>(-1);  // none of the kinds: the lookup must set it
    auto match = findByUrl(Url::key("https://cdn.com/other.js"),
                           Url::key("https://h.com/index.html"), &kind);
    ASSERT_NE(match, nullptr);
    EXPECT_EQ(kind, kMatchNone);
    EXPECT_EQ(match->name, "page");

    auto response =
        Access::getResource(ResourceRequest("https://cdn.com/lib.js", "https://h.com/index.html"));
    ASSERT_FALSE(response->error) << response->error.message();
    EXPECT_EQ(response->data, "lib");
    EXPECT_EQ(logs_->last("match").field("match").stringValue(), "referrer");
}

TEST_F(AccessTest, ReferrerMissFallsThroughToPrefixWithReferrerInfo) {
    installReferrerPackThatMissesAndAppPack();
    auto response = Access::getResource(
        ResourceRequest("https://h.com/app/app.js", "https://h.com/index.html"));
    ASSERT_FALSE(response->error) << response->error.message();
    EXPECT_EQ(response->data, "A");
    auto entry = logs_->last("match");
    EXPECT_EQ(entry.field("match").stringValue(), "prefix");
    EXPECT_EQ(entry.field("referrerInfo")["errorCode"].int32Value(),
              Errors::kNotFerritPackResource);
}

TEST_F(AccessTest, UrlOwnPackWinsOverReferrerPack) {
    install({pack("page", kPackTypeFerrit, 2, 2, {}, {"https://h.com/index.html"}),
             pack("own", kPackTypeFerrit, 1, 1, {}, {"https://h.com/a.js"})});
    auto kind = static_cast<MatchKind>(-1);  // none of the kinds: the lookup must set it
    auto match =
        findByUrl(Url::key("https://h.com/a.js"), Url::key("https://h.com/index.html"), &kind);
    ASSERT_NE(match, nullptr);
    EXPECT_EQ(match->name, "own");
}

TEST_F(AccessTest, SCacheKindsFromUrlAndReferrer) {
    install({pack("sc", kPackTypeSCache, 1, 1, {},
                  {"https://h.com/page.html", "https://h.com/own.png"})});
    auto kind = static_cast<MatchKind>(-1);  // none of the kinds: the lookup must set it
    ASSERT_NE(findByUrl("//h.com/own.png", "", &kind), nullptr);
    EXPECT_EQ(kind, kMatchUrlSCache);
    ASSERT_NE(findByUrl("//cdn.com/x.JS", "//h.com/page.html", &kind), nullptr);
    EXPECT_EQ(kind, kMatchReferrerSCache);
    ASSERT_NE(findByUrl("//cdn.com/x.png", "//h.com/page.html", &kind), nullptr);
    EXPECT_EQ(kind, kMatchNone);
}

TEST_F(AccessTest, SCacheSwitchedOffHidesPack) {
    install({pack("sc", kPackTypeSCache, 1, 1, {}, {"https://h.com/own.png"})});
    auto kind = static_cast<MatchKind>(-1);  // none of the kinds: the lookup must set it
    Settings::change([](Settings& s) { s.disableSCacheList.insert("sc"); });
    EXPECT_EQ(findByUrl("//h.com/own.png", "", &kind), nullptr);
    Settings::change([](Settings& s) {
        s.disableSCacheList.clear();
        s.enableSCache = false;
    });
    EXPECT_EQ(findByUrl("//h.com/own.png", "", &kind), nullptr);
    Settings::change([](Settings& s) { s.enableSCache = true; });
    EXPECT_NE(findByUrl("//h.com/own.png", "", &kind), nullptr);
}

TEST_F(AccessTest, SCacheFileTypeSettingReplacesDefaults) {
    Settings::change(
        [](Settings& s) { s.scacheFileType = std::unordered_set<std::string>{"png"}; });
    const auto settings = Settings::current();
    EXPECT_TRUE(fileTypeClaimed(*settings, "image.PNG"));
    EXPECT_FALSE(fileTypeClaimed(*settings, "a.js"));
    Settings::change([](Settings& s) { s.scacheFileType.clear(); });
    EXPECT_FALSE(fileTypeClaimed(*Settings::current(), "image.PNG"));
    EXPECT_TRUE(fileTypeClaimed(*Settings::current(), "//h/a.CSS"));
    EXPECT_FALSE(fileTypeClaimed(*Settings::current(), "//h/noext"));
}

TEST_F(AccessTest, SCacheReferrerClaimWithErrorSkipsPrefixAndSets404) {
    // The referrer's SCache pack claims every script below the page, even one it lacks.
    install({pack("sc", kPackTypeSCache, 1, 1, {}, {"https://h.com/page.html"}),
             pack("app", kPackTypeFerrit, 3, 3, {"https://cdn.com/"})});
    ResourceIndexPool::set("sc", std::make_shared<const ResourceIndex>("sc", table({})));
    auto response =
        Access::getResource(ResourceRequest("https://cdn.com/x.js", "https://h.com/page.html"));
    EXPECT_EQ(response->error.code(), Errors::kNotFerritPackResource);
    EXPECT_TRUE(response->is404);
    EXPECT_EQ(logs_->last("match").field("match").stringValue(), "prefix");
}

TEST_F(AccessTest, SCache404CanBeSwitchedOff) {
    install({pack("sc", kPackTypeSCache, 1, 1, {}, {"https://h.com/page.html"})});
    ResourceIndexPool::set("sc", std::make_shared<const ResourceIndex>("sc", table({})));
    Settings::change([](Settings& s) { s.scache404Enabled = false; });
    auto response =
        Access::getResource(ResourceRequest("https://cdn.com/x.js", "https://h.com/page.html"));
    EXPECT_EQ(response->error.code(), Errors::kNotFerritPackResource);
    EXPECT_FALSE(response->is404);
}

TEST_F(AccessTest, DeveloperSwitchGives3003FromPrefixStage) {
    installAppPack(3, 3);
    Environment::instance().setDeveloperDisabled(1);
    auto response = Access::getResource(ResourceRequest("https://h.com/app/app.js", ""));
    EXPECT_EQ(response->error.code(), Errors::kDisabled);
    EXPECT_EQ(response->error.message(), "Ferrit disabled by develop tool");
    // Not served is the host's everyday business: below the warnings of the default level.
    EXPECT_EQ(logs_->last("match").level, MarlLogger::MRLLevelDebug);
}

TEST_F(AccessTest, HttpUrlIsForcedToHttpsUnlessSwitchedOff) {
    ResourceRequest request("http://h.com/a.js", "");
    EXPECT_EQ(RequestContext(request, kTriggerVisit).url(), "https://h.com/a.js");
    Settings::change([](Settings& s) { s.requestForceHttps = false; });
    EXPECT_EQ(RequestContext(request, kTriggerVisit).url(), "http://h.com/a.js");
}

TEST_F(AccessTest, ProxyReceivesVisitRecords) {
    installAppPack(3, 3);
    // Statistics load from their store at first use; that store opens (and reports) before.
    static_cast<void>(FerritCore::Statistics::hasEntry("app"));
    auto proxy = std::make_shared<FakeProxy>();
    Environment::instance().setProxy(proxy);
    Environment::instance().setSessionName("Ferrit_MAIN_1.0");
    {
        auto response = Access::getResource(ResourceRequest("https://h.com/app/app.js", ""));
        ASSERT_FALSE(response->error);
    }
    ASSERT_EQ(proxy->events.size(), 2u);
    EXPECT_EQ(proxy->events[0], "Ferrit.VisitPerf");
    EXPECT_EQ(proxy->records[0].dimensions.at("resourceCount"), "1");
    EXPECT_EQ(proxy->records[0].dimensions.at("type"), "sync");
    EXPECT_EQ(proxy->events[1], "Ferrit.AppVisit");
    EXPECT_EQ(proxy->records[1].dimensions.at("visitType"), "NF");
    EXPECT_EQ(proxy->records[1].dimensions.at("sessionID"), "Ferrit_MAIN_1.0");
    EXPECT_EQ(proxy->records[1].dimensions.at("appName"), "app");
}

// A host that drops every record says so once; a hit then builds none, and the statistics that
// the records would have reported are kept all the same.
TEST_F(AccessTest, ProxyThatTakesNoEventsIsSentNoRecordsAndVisitsStillCount) {
    installAppPack(3, 3);
    class Dropping : public FakeProxy {
      public:
        bool takesEvents() const override { return false; }
    };
    auto proxy = std::make_shared<Dropping>();
    Environment::instance().setProxy(proxy);
    EXPECT_FALSE(Environment::instance().takesEvents());
    {
        auto response = Access::getResource(ResourceRequest("https://h.com/app/app.js", ""));
        ASSERT_FALSE(response->error);
    }
    EXPECT_TRUE(proxy->events.empty());
    EXPECT_TRUE(FerritCore::Statistics::hasEntry("app"));
    Environment::instance().setProxy(std::make_shared<FakeProxy>());
    EXPECT_TRUE(Environment::instance().takesEvents());
    Environment::instance().setProxy(nullptr);
    EXPECT_FALSE(Environment::instance().takesEvents());
}

// A host that listens for records only some of the time: the environment answers for the
// proxy's current wish once it is told to ask again, and a hit builds records only meanwhile.
TEST_F(AccessTest, ProxyThatChangesItsWishIsSentRecordsOnlyWhileItWantsThem) {
    installAppPack(3, 3);
    class Listening : public FakeProxy {
      public:
        bool takesEvents() const override { return wants.load(); }
        std::atomic<bool> wants{false};
    };
    auto proxy = std::make_shared<Listening>();
    Environment::instance().setProxy(proxy);
    const auto hit = [] {
        auto response = Access::getResource(ResourceRequest("https://h.com/app/app.js", ""));
        ASSERT_FALSE(response->error);
    };
    hit();
    EXPECT_TRUE(proxy->events.empty());
    proxy->wants = true;
    Environment::instance().refreshTakesEvents();
    EXPECT_TRUE(Environment::instance().takesEvents());
    hit();
    const size_t sent = proxy->events.size();
    EXPECT_GT(sent, 0u);
    proxy->wants = false;
    Environment::instance().refreshTakesEvents();
    EXPECT_FALSE(Environment::instance().takesEvents());
    hit();
    EXPECT_EQ(proxy->events.size(), sent);
    Environment::instance().setProxy(nullptr);
    Environment::instance().refreshTakesEvents();
    EXPECT_FALSE(Environment::instance().takesEvents());
}

TEST_F(AccessTest, NoAppVisitForUnmatchedUrl) {
    auto proxy = std::make_shared<FakeProxy>();
    Environment::instance().setProxy(proxy);
    { Access::getResource(ResourceRequest("https://nowhere.com/x.js", "")); }
    ASSERT_EQ(proxy->events.size(), 1u);
    EXPECT_EQ(proxy->events[0], "Ferrit.VisitPerf");
}

TEST_F(AccessTest, SecondVisitIsNotFirst) {
    installAppPack(3, 3);
    static_cast<void>(FerritCore::Statistics::hasEntry("app"));
    auto proxy = std::make_shared<FakeProxy>();
    Environment::instance().setProxy(proxy);
    { Access::getResource(ResourceRequest("https://h.com/app/app.js", "")); }
    { Access::getResource(ResourceRequest("https://h.com/app/app.js", "")); }
    ASSERT_EQ(proxy->records.size(), 4u);
    EXPECT_EQ(proxy->records[3].dimensions.at("visitType"), "N");
}

// The request ends when the host says it is done: only then do its records go out, once each,
// with the time up to that moment.
TEST_F(AccessTest, SyncHitSendsEachRecordOnceWhenTheHostFinishesIt) {
    installAppPack(3, 3);
    auto response = Access::getResource(ResourceRequest("https://h.com/app/app.js", ""));
    ASSERT_FALSE(response->error) << response->error.message();
    EXPECT_TRUE(proxy_->named("Ferrit.VisitPerf").empty());
    EXPECT_TRUE(proxy_->named("Ferrit.AppVisit").empty());
    clock_->advance(7);
    response->setFinished(Error());
    response->setFinished(Error());
    response.reset();
    const auto perf = proxy_->named("Ferrit.VisitPerf");
    const auto visits = proxy_->named("Ferrit.AppVisit");
    ASSERT_EQ(perf.size(), 1u);
    ASSERT_EQ(visits.size(), 1u);
    EXPECT_EQ(perf[0].dimensions.at("type"), "sync");
    EXPECT_EQ(perf[0].measures.at("time"), 7.0);
    EXPECT_EQ(visits[0].dimensions.at("appName"), "app");
    EXPECT_EQ(visits[0].measures.at("time"), 7.0);
}

// A response let go without setFinished ends the request where its read ended: the pack's visit
// ends at the same clock reading as the request's record, however long the host kept it.
TEST_F(AccessTest, ReleasedHitEndsItsVisitWhereTheRequestEnded) {
    installAppPack(3, 3);
    auto response = Access::getResource(ResourceRequest("https://h.com/app/app.js", ""));
    ASSERT_FALSE(response->error) << response->error.message();
    clock_->advance(5);
    response.reset();
    const auto perf = proxy_->named("Ferrit.VisitPerf");
    const auto visits = proxy_->named("Ferrit.AppVisit");
    ASSERT_EQ(perf.size(), 1u);
    ASSERT_EQ(visits.size(), 1u);
    EXPECT_LT(visits[0].measures.at("time"), 5.0);
    EXPECT_LE(visits[0].measures.at("time"), perf[0].measures.at("time"));
}

// A host that never calls setFinished ends the request by letting the response go.
TEST_F(AccessTest, AsyncHitSendsEachRecordOnceWhenTheResponseIsReleased) {
    installAppPack(3, 3);
    std::unique_ptr<ResourceResponse> response =
        getAsync(ResourceRequest("https://h.com/app/app.js", ""));
    ASSERT_NE(response, nullptr);
    ASSERT_FALSE(response->error) << response->error.message();
    EXPECT_EQ(response->data, "console.log(1);");
    EXPECT_TRUE(proxy_->named("Ferrit.VisitPerf").empty());
    EXPECT_TRUE(proxy_->named("Ferrit.AppVisit").empty());
    response.reset();
    ASSERT_EQ(proxy_->named("Ferrit.VisitPerf").size(), 1u);
    EXPECT_EQ(proxy_->named("Ferrit.AppVisit").size(), 1u);
}

TEST_F(AccessTest, AggregateRequestSendsOneVisitPerfAndOneAppVisitForEachFile) {
    const std::string origin = "https://" + comboRuleHost();
    install({pack("mods", kPackTypeFerrit, 3, 3, {origin + "/pk/"})});
    serveIndexes({{"mods", tableOf({{"res/a.js", origin + "/pk/a.js", "A"},
                                    {"res/b.js", origin + "/pk/b.js", "B"}})}});
    writeFile("apps/mods/3/res/a.js", "A");
    writeFile("apps/mods/3/res/b.js", "B");
    std::unique_ptr<ResourceResponse> response =
        getAsync(ResourceRequest(origin + "/??pk/a.js,pk/b.js", ""));
    ASSERT_NE(response, nullptr);
    ASSERT_FALSE(response->error) << response->error.message();
    EXPECT_EQ(response->data, "AB");
    EXPECT_TRUE(proxy_->named("Ferrit.AppVisit").empty());
    response->setFinished(Error());
    response.reset();
    const auto perf = proxy_->named("Ferrit.VisitPerf");
    ASSERT_EQ(perf.size(), 1u);
    EXPECT_EQ(perf[0].dimensions.at("resourceCount"), "2");
    const auto visits = proxy_->named("Ferrit.AppVisit");
    ASSERT_EQ(visits.size(), 2u);
    EXPECT_EQ(visits[0].dimensions.at("appName"), "mods");
    EXPECT_EQ(visits[1].dimensions.at("appName"), "mods");
}

// One file that nothing serves fails the whole aggregate: the files matched before it are
// dropped with the match, and each reports its visit once.
TEST_F(AccessTest, AggregateThatFailsSendsTheVisitOfEachFileItHadMatched) {
    const std::string origin = "https://" + comboRuleHost();
    install({pack("mods", kPackTypeFerrit, 3, 3, {origin + "/pk/"})});
    serveIndexes({{"mods", tableOf({{"res/a.js", origin + "/pk/a.js", "A"}})}});
    writeFile("apps/mods/3/res/a.js", "A");
    auto response = Access::getResource(ResourceRequest(origin + "/??pk/a.js,lib/n.js", ""));
    EXPECT_EQ(response->error.code(), Errors::kNotFerritResource);
    const auto visits = proxy_->named("Ferrit.AppVisit");
    ASSERT_EQ(visits.size(), 1u);
    EXPECT_EQ(visits[0].dimensions.at("appName"), "mods");
    response.reset();
    EXPECT_EQ(proxy_->named("Ferrit.AppVisit").size(), 1u);
    EXPECT_EQ(proxy_->named("Ferrit.VisitPerf").size(), 1u);
}

TEST_F(AccessTest, MissSendsVisitPerfOnceAndNoAppVisit) {
    auto response = Access::getResource(ResourceRequest("https://nowhere.com/x.js", ""));
    EXPECT_EQ(response->error.code(), Errors::kNotFerritResource);
    response->setFinished(Error());
    response.reset();
    EXPECT_EQ(proxy_->named("Ferrit.VisitPerf").size(), 1u);
    EXPECT_TRUE(proxy_->named("Ferrit.AppVisit").empty());
}

// The referrer's pack does not know the URL, so its part is dropped during the match: that part's
// visit goes out then, and the answering part's with the request.
TEST_F(AccessTest, PartThatTheMatchDropsSendsItsVisitOnceWhenDropped) {
    installReferrerPackThatMissesAndAppPack();
    auto response = Access::getResource(
        ResourceRequest("https://h.com/app/app.js", "https://h.com/index.html"));
    ASSERT_FALSE(response->error) << response->error.message();
    auto visits = proxy_->named("Ferrit.AppVisit");
    ASSERT_EQ(visits.size(), 1u);
    EXPECT_EQ(visits[0].dimensions.at("appName"), "page");
    EXPECT_EQ(visits[0].dimensions.at("errorCode"), std::to_string(Errors::kNotFerritPackResource));
    response.reset();
    visits = proxy_->named("Ferrit.AppVisit");
    ASSERT_EQ(visits.size(), 2u);
    EXPECT_EQ(visits[1].dimensions.at("appName"), "app");
    EXPECT_EQ(proxy_->named("Ferrit.VisitPerf").size(), 1u);
}

// Destruction is no end of a request: a match that nobody finishes reports nothing, and its part
// reports only when finished.
TEST_F(AccessTest, DestroyingAnUnfinishedRequestSendsNothing) {
    installAppPack(3, 3);
    std::shared_ptr<ResourcePart> part;
    {
        std::shared_ptr<Resource> resource =
            Access::match(ResourceRequest("https://h.com/app/app.js", ""), kPolicySync);
        ASSERT_FALSE(resource->error) << resource->error.message();
        ASSERT_EQ(resource->parts.size(), 1u);
        part = resource->parts.front();
        EXPECT_FALSE(resource->finished());
    }
    EXPECT_TRUE(proxy_->named("Ferrit.VisitPerf").empty());
    EXPECT_TRUE(proxy_->named("Ferrit.AppVisit").empty());
    part->finish();
    part->finish();
    EXPECT_EQ(proxy_->named("Ferrit.AppVisit").size(), 1u);
    part.reset();
    {
        std::shared_ptr<Resource> resource =
            Access::match(ResourceRequest("https://h.com/app/app.js", ""), kPolicySync);
        ASSERT_EQ(resource->parts.size(), 1u);
        part = resource->parts.front();
    }
    part.reset();
    EXPECT_TRUE(proxy_->named("Ferrit.VisitPerf").empty());
    EXPECT_EQ(proxy_->named("Ferrit.AppVisit").size(), 1u);
}

// A read that may outlive the request (an on-demand file's) holds the part: its visit waits for
// whichever of the two lets go last.
TEST_F(AccessTest, PartHeldByAReadSendsItsVisitOnceTheReadLetsGo) {
    installAppPack(3, 3);
    std::shared_ptr<Resource> resource =
        Access::match(ResourceRequest("https://h.com/app/app.js", ""), kPolicySync);
    ASSERT_EQ(resource->parts.size(), 1u);
    ResourcePart& part = *resource->parts.front();
    part.holdForRead();
    resource->finish();
    EXPECT_EQ(proxy_->named("Ferrit.VisitPerf").size(), 1u);
    EXPECT_TRUE(proxy_->named("Ferrit.AppVisit").empty());
    part.releaseAfterRead();
    EXPECT_EQ(proxy_->named("Ferrit.AppVisit").size(), 1u);
    resource->finish();
    EXPECT_EQ(proxy_->named("Ferrit.VisitPerf").size(), 1u);
    EXPECT_EQ(proxy_->named("Ferrit.AppVisit").size(), 1u);
}

// A clock that stands where the test puts it; 0 is a reading like any other.
class StandingClock : public MarlLogger::TimeSource {
  public:
    explicit StandingClock(double wall) : wall_(wall) { MarlLogger::setTimeSource(this); }
    ~StandingClock() override { MarlLogger::setTimeSource(nullptr); }
    double wallMs() override { return wall_; }
    double clockMs() override { return clock.load(std::memory_order_relaxed); }
    std::atomic<double> clock{0.0};

  private:
    double wall_;
};

// The end that the request gives is where the visit ends, even when the clock read 0 there.
TEST_F(AccessTest, VisitEndsAtTheGivenEndEvenAtClockZero) {
    installAppPack(3, 3);
    StandingClock clock(MRLCurrentTime());
    std::shared_ptr<Resource> resource =
        Access::match(ResourceRequest("https://h.com/app/app.js", ""), kPolicySync);
    ASSERT_FALSE(resource->error) << resource->error.message();
    ASSERT_EQ(resource->parts.size(), 1u);
    clock.clock.store(7.0);
    resource->parts.front()->finish(0.0);
    const auto visits = proxy_->named("Ferrit.AppVisit");
    ASSERT_EQ(visits.size(), 1u);
    EXPECT_EQ(visits[0].measures.at("time"), 0.0);
}

// The objects of a request come from recycled blocks: none starts out finished.
TEST_F(AccessTest, EveryRequestOnRecycledObjectsSendsItsOwnRecords) {
    installAppPack(3, 3);
    constexpr size_t kRequests = 5;
    for (size_t i = 1; i <= kRequests; ++i) {
        std::shared_ptr<Resource> resource =
            Access::match(ResourceRequest("https://h.com/app/app.js", ""), kPolicySync);
        EXPECT_FALSE(resource->finished());
        resource->finish();
        EXPECT_TRUE(resource->finished());
        EXPECT_EQ(proxy_->named("Ferrit.VisitPerf").size(), i);
        EXPECT_EQ(proxy_->named("Ferrit.AppVisit").size(), i);
    }
}

TEST_F(AccessTest, SetFinishedLogsFinishWithTraceId) {
    installAppPack(3, 3);
    ResourceRequest request("https://h.com/app/app.js", "");
    request.parentId = "parent-1";
    auto response = Access::getResource(request);
    response->setFinished(Error());
    auto entry = logs_->last("finish");
    EXPECT_EQ(entry.parentId, "parent-1");
    EXPECT_EQ(entry.id.rfind("FT_Access_", 0), 0u);
    EXPECT_FALSE(entry.hasError);
    response->setFinished(Errors::napiFailed(3));
    EXPECT_EQ(logs_->last("finish").errorCode, std::to_string(Errors::kHostFailed));
}

TEST_F(AccessTest, HostileUrlsNeverCrash) {
    installAppPack(3, 3);
    std::string binary;
    for (int i = 0; i < 256; ++i) binary.push_back(static_cast<char>(i));
    for (const std::string& url :
         {std::string(1 << 20, 'a'), binary, std::string("?"), std::string("#"), std::string("//"),
          std::string("https://"), std::string("::::"), std::string("https://h.com/app/"),
          std::string("https://h.com/app/??a.js,b.js")}) {
        auto response = Access::getResource(
            ResourceRequest(url, HeaderMap{{"Accept", binary}, {"Referer", url}}));
        EXPECT_TRUE(response->error.code() == Errors::kNotFerritResource ||
                    response->error.code() == Errors::kNotFerritPackResource)
            << response->error.message();
    }
}

}  // namespace
}  // namespace FerritTest
