// The task's decisions before anything is downloaded: how a record is resolved, the policy of each
// trigger, every step of evaluate, the score, the URLs it asks for, the capacity check, and the
// free list its objects come from.
#include <gtest/gtest.h>

#include <thread>

#include "base/Errors.h"
#include "storage/Statistics.h"
#include "storage/Variants.h"
#include "tests/update/InstallFixture.h"
#include "update/Cleanup.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

using MarlLogger::json::JSON;

class UpdatePackTest : public InstallFixture {
  protected:
    static UpdatePackPtr task(const std::string& name, UpdateTrigger trigger,
                              const JSON& info = JSON()) {
        return UpdatePack::create(name, info, trigger);
    }
    static JSON info(const std::string& text) { return JSON::parse(text); }
    // The URL of every request the proxy saw, in order.
    std::vector<std::string> urls() const {
        std::vector<std::string> out;
        for (const ProxyRequest& request : proxy_->requests) out.push_back(request.url);
        return out;
    }
    static void disablePeriod(double start, double end, double jitter) {
        Settings::change([&](Settings& settings) {
            settings.disableInstallPeriods = {InstallPeriod{start, end, jitter}};
        });
    }
};

// ---- Policies ---------------------------------------------------------------------------------

TEST_F(UpdatePackTest, VisitAndPreviewSkipEveryGateButTheScoreBoost) {
    for (UpdateTrigger trigger : {kTriggerVisit, kTriggerPreview}) {
        const UpdatePolicy& policy = UpdatePolicy::forTrigger(trigger);
        EXPECT_TRUE(policy.ignorePriority);
        EXPECT_TRUE(policy.ignoreEliminated);
        EXPECT_TRUE(policy.ignoreNetwork);
        EXPECT_TRUE(policy.ignoreDisabledPeriods);
        EXPECT_TRUE(policy.verifyInstalled);
        EXPECT_TRUE(policy.fast);
        EXPECT_FALSE(policy.boostScore);
    }
}

TEST_F(UpdatePackTest, PrefetchIgnoresPriorityAndBoostsTheScore) {
    const UpdatePolicy& policy = UpdatePolicy::forTrigger(kTriggerPrefetch);
    EXPECT_TRUE(policy.ignorePriority);
    EXPECT_FALSE(policy.ignoreEliminated);
    EXPECT_FALSE(policy.ignoreNetwork);
    EXPECT_FALSE(policy.ignoreDisabledPeriods);
    EXPECT_FALSE(policy.verifyInstalled);
    EXPECT_FALSE(policy.fast);
    EXPECT_TRUE(policy.boostScore);
}

TEST_F(UpdatePackTest, OtherTriggersSkipNothing) {
    for (UpdateTrigger trigger : {kTriggerStartup, kTriggerActive, kTriggerTimer, kTriggerPush,
                                  kTriggerVisitUpdate, kTriggerDebugTool, kTriggerChangeEnv}) {
        const UpdatePolicy& policy = UpdatePolicy::forTrigger(trigger);
        EXPECT_FALSE(policy.ignorePriority || policy.ignoreEliminated || policy.ignoreNetwork ||
                     policy.ignoreDisabledPeriods || policy.verifyInstalled || policy.fast ||
                     policy.boostScore)
            << triggerName(trigger);
    }
}

TEST_F(UpdatePackTest, StateNamesAreThoseReportsPrint) {
    EXPECT_STREQ(updateStateName(UpdateState::Invalid), "Invalid");
    EXPECT_STREQ(updateStateName(UpdateState::NeedUpdate), "NeedUpdate");
    EXPECT_STREQ(updateStateName(UpdateState::UpToDate), "UpToDate");
    EXPECT_STREQ(updateStateName(UpdateState::UpdateFinished), "UpdateFinished");
}

// ---- Resolving the record ---------------------------------------------------------------------

TEST_F(UpdatePackTest, UnknownNameIsNotFerrit) {
    UpdatePackPtr t = task("nothing", kTriggerTimer);
    EXPECT_EQ(t->state(), UpdateState::Invalid);
    EXPECT_EQ(t->error().code(), Errors::kNotFerrit);
    EXPECT_EQ(t->error().message(), "nothing not Ferrit");
    // The verdict is final: a listener added now hears it at once.
    Error heard;
    t->addListener([&](const Error& error) { heard = error; });
    EXPECT_EQ(heard.code(), Errors::kNotFerrit);
}

TEST_F(UpdatePackTest, UrlNameMakesAPrivateFixedUrlAppNamedByTheUrlsMd5) {
    const std::string url = "https://cdn.test/whole-app.zip";
    UpdatePackPtr t = task(url, kTriggerVisit);
    ASSERT_NE(t->pack(), nullptr);
    // The name under which a reader looks the app up: the MD5 of the URL's key form.
    EXPECT_EQ(t->name(), Digest::md5Hex("//cdn.test/whole-app.zip"));
    EXPECT_EQ(t->requestedName(), url);
    EXPECT_EQ(t->pack()->subType, kSubTypeFixedUrl);
    EXPECT_EQ(t->pack()->seq, 1u);
    EXPECT_EQ(t->pack()->baseSeq, 1u);
    EXPECT_EQ(t->pack()->packType(), kPackTypeACache);
    EXPECT_EQ(t->pack()->zipURL, url);
    EXPECT_EQ(find(t->name()), nullptr);  // private until it is installed
    EXPECT_TRUE(t->runnable());
    EXPECT_EQ(t->perf().dimensions().at("packType"), "ACache-URL");
}

TEST_F(UpdatePackTest, UrlNameUsesTheRecordOfItsMd5WhenThereIsOne) {
    const std::string url = "https://cdn.test/whole-app.zip";
    auto p = record(Digest::md5Hex("//cdn.test/whole-app.zip"), kPackTypeACache, 1, 1);
    p->subType = kSubTypeFixedUrl;
    p->zipURL = url;
    p->status = kPackStatusNeedReinstall;
    p->installedSeq = 1;
    put({p});
    UpdatePackPtr t = task(url, kTriggerVisit);
    EXPECT_EQ(t->pack(), find(Digest::md5Hex("//cdn.test/whole-app.zip")));
}

TEST_F(UpdatePackTest, AppInfoWithASeqMakesAFixedSequenceCopy) {
    put({record("app", kPackTypeACache, 5, 5)});
    UpdatePackPtr t = task("app", kTriggerVisit, info(R"({"s":4,"b":4,"f":64})"));
    EXPECT_EQ(t->name(), "app@4");
    EXPECT_EQ(t->requestedName(), "app");
    EXPECT_EQ(t->pack()->subType, kSubTypeFixedSeq);
    EXPECT_EQ(t->pack()->seq, 4u);
    EXPECT_EQ(t->perf().dimensions().at("packType"), "ACache-Seq");
}

TEST_F(UpdatePackTest, AppInfoWithTheInstalledSeqUsesThePlainRecord) {
    auto p = record("app", kPackTypeACache, 5, 5);
    p->installedSeq = 4;
    put({p});
    UpdatePackPtr t = task("app", kTriggerTimer, info(R"({"s":4,"b":4,"f":64})"));
    EXPECT_EQ(t->name(), "app");
    EXPECT_EQ(t->pack(), find("app"));
}

TEST_F(UpdatePackTest, AppInfoUsesAnExistingFixedSequenceRecord) {
    put({record("app", kPackTypeACache, 5, 5), record("app@4", kPackTypeACache, 4, 4)});
    UpdatePackPtr t = task("app", kTriggerVisit, info(R"({"s":4,"b":4,"f":64})"));
    EXPECT_EQ(t->pack(), find("app@4"));
}

TEST_F(UpdatePackTest, AssetInfoWithASeqMakesAFixedSequenceCopyThatIsNotOnDemand) {
    UpdatePackPtr t = task("kit", kTriggerVisit, info(R"({"s":7,"b":2,"f":96,"isOnDemand":1})"));
    EXPECT_EQ(t->name(), "kit@7");
    EXPECT_EQ(t->pack()->seq, 7u);
    EXPECT_EQ(t->pack()->baseSeq, 7u);
    EXPECT_FALSE(t->pack()->isOnDemand);
    EXPECT_EQ(t->pack()->subType, kSubTypeFixedSeq);
}

TEST_F(UpdatePackTest, PlainInfoLooksTheNameUp) {
    put({record("shop", kPackTypeFerrit, 2, 1, kPriorityAutoInstall)});
    UpdatePackPtr t = task("shop", kTriggerTimer, info(R"({"s":2,"b":1,"f":80})"));
    EXPECT_EQ(t->pack(), find("shop"));
}

TEST_F(UpdatePackTest, SeqConstructorClonesThePlainRecordUnderNameAtSeq) {
    auto p = record("shop", kPackTypeFerrit, 9, 1);
    p->installedSeq = 8;
    p->installedSize = 1234;
    put({p});
    UpdatePackPtr t = UpdatePack::createSeq("shop", 6);
    EXPECT_EQ(t->name(), "shop@6");
    EXPECT_EQ(t->requestedName(), "shop");
    EXPECT_EQ(t->trigger(), kTriggerVisit);
    EXPECT_TRUE(t->concurrent());
    EXPECT_EQ(t->pack()->seq, 6u);
    EXPECT_EQ(t->pack()->baseSeq, 6u);
    EXPECT_EQ(t->pack()->subType, kSubTypeFixedSeq);
    EXPECT_EQ(t->pack()->installedSeq, 0u);
    EXPECT_EQ(t->pack()->installedSize, 0u);
    EXPECT_TRUE(t->runnable());
    EXPECT_EQ(t->perf().dimensions().at("packType"), "SCache-Seq");
    EXPECT_DOUBLE_EQ(t->score(), UpdatePack::packScore(*t->pack()) + UpdatePack::kFixedSeqScore);
}

// ---- Score ------------------------------------------------------------------------------------

TEST_F(UpdatePackTest, ScoreWeighsAccessByPriority) {
    auto p = record("shop", kPackTypeFerrit, 1, 1, 5);
    Statistics::addAccess("shop", nullptr, 2.0);
    EXPECT_DOUBLE_EQ(UpdatePack::packScore(*p), (1.0 + 0.2 * 5) * 2.0 + 0.5);
    auto top = record("top", kPackTypeFerrit, 1, 1, 9);
    EXPECT_DOUBLE_EQ(UpdatePack::packScore(*top), 0.9 + Cleanup::kStartupScoreBonus);
}

TEST_F(UpdatePackTest, PrefetchAddsTheBoostToTheScore) {
    put({record("shop", kPackTypeFerrit, 1, 1, 3)});
    UpdatePackPtr t = task("shop", kTriggerPrefetch);
    ASSERT_TRUE(t->runnable());
    EXPECT_DOUBLE_EQ(t->score(), UpdatePack::packScore(*find("shop")) + UpdatePack::kBoostScore);
    EXPECT_FALSE(t->concurrent());
    EXPECT_TRUE(task("shop", kTriggerVisit)->concurrent());
}

// ---- evaluate, step by step -------------------------------------------------------------------

TEST_F(UpdatePackTest, EliminatedPackIsInvalidUnlessAVisitAsks) {
    auto p = record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall);
    p->status = kPackStatusEliminated;
    put({p});
    UpdatePackPtr timer = task("shop", kTriggerTimer);
    EXPECT_EQ(timer->state(), UpdateState::Invalid);
    EXPECT_EQ(timer->error().code(), Errors::kUpdateEliminated);
    EXPECT_EQ(timer->error().message(), "shop eliminated");
    EXPECT_EQ(task("shop", kTriggerVisit)->state(), UpdateState::NeedUpdate);
}

TEST_F(UpdatePackTest, NoNetworkIsInvalidWithTheReason) {
    put({record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall)});
    Environment::instance().setNetworkStatusValue(NetworkStatus::kNone);
    UpdatePackPtr t = task("shop", kTriggerTimer);
    EXPECT_EQ(t->state(), UpdateState::Invalid);
    EXPECT_EQ(t->error().code(), Errors::kNetworkNotSupported);
    EXPECT_EQ(t->error().message(), "shop network not supported: None");
    // A read that needs the pack does not ask the network.
    EXPECT_TRUE(task("shop", kTriggerVisit)->runnable());
}

TEST_F(UpdatePackTest, CellularNetworksNeedThePacksFlags) {
    auto slow = record("slow", kPackTypeFerrit, 1, 1, kPriorityAutoInstall);
    slow->flags |= 1u << 14;
    auto fast = record("fast", kPackTypeFerrit, 1, 1, kPriorityAutoInstall);
    fast->flags |= 1u << 15;
    put({slow, fast});
    Environment::instance().setNetworkStatusValue(NetworkStatus::kSlowMobile);
    EXPECT_TRUE(task("slow", kTriggerTimer)->runnable());
    EXPECT_EQ(task("fast", kTriggerTimer)->error().message(),
              "fast network not supported: Slow cellular");
    Environment::instance().setNetworkStatusValue(NetworkStatus::kFastMobile);
    EXPECT_TRUE(task("fast", kTriggerTimer)->runnable());
    EXPECT_EQ(task("slow", kTriggerTimer)->error().message(),
              "slow network not supported: Fast cellular");
}

TEST_F(UpdatePackTest, UnknownNetworkStatusStopsWithoutAnError) {
    put({record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall)});
    Environment::instance().setNetworkStatusValue(static_cast<NetworkStatus>(7));
    UpdatePackPtr t = task("shop", kTriggerTimer);
    EXPECT_EQ(t->state(), UpdateState::Invalid);
    EXPECT_FALSE(t->error());
}

TEST_F(UpdatePackTest, RecordThatNeedsItsConfigurationPassesTheNetworkCheck) {
    put({record("shop", kPackTypeFerrit, 0, 0, kPriorityAutoInstall)});
    Environment::instance().setNetworkStatusValue(NetworkStatus::kNone);
    EXPECT_TRUE(task("shop", kTriggerTimer)->runnable());
}

TEST_F(UpdatePackTest, InsideADisabledPeriodIsInvalid) {
    put({record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall)});
    const double now = MRLCurrentTime();
    disablePeriod(now - 1000, now + 1000, 0);
    UpdatePackPtr t = task("shop", kTriggerTimer);
    EXPECT_EQ(t->state(), UpdateState::Invalid);
    EXPECT_EQ(t->error().code(), Errors::kPackUpdateDisabled);
    EXPECT_EQ(t->error().message(), "shop update disabled");
    EXPECT_TRUE(task("shop", kTriggerVisit)->runnable());
}

TEST_F(UpdatePackTest, DisabledPeriodEndIsStretchedByTheRandomSource) {
    put({record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall)});
    const double now = MRLCurrentTime();
    // Ended 500 ms ago, with a spread of up to 1000 ms: the draw decides.
    disablePeriod(now - 5000, now - 500, 1000);
    std::vector<uint64_t> asked;
    uint64_t draw = 499;
    UpdatePack::setRandomSource([&](uint64_t maxInclusive) {
        asked.push_back(maxInclusive);
        return draw;
    });
    EXPECT_TRUE(task("shop", kTriggerTimer)->runnable());
    draw = 500;
    EXPECT_EQ(task("shop", kTriggerTimer)->error().code(), Errors::kPackUpdateDisabled);
    EXPECT_EQ(asked, (std::vector<uint64_t>{1000, 1000}));
}

TEST_F(UpdatePackTest, DisabledPeriodWithAFixedSeedGivesTheSameVerdicts) {
    put({record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall)});
    const double now = MRLCurrentTime();
    disablePeriod(now - 5000, now - 500, 1000);
    auto verdicts = [&] {
        UpdatePack::setRandomSource(seededDraws(7));
        std::string out;
        for (int i = 0; i < 32; ++i) out += task("shop", kTriggerTimer)->runnable() ? 'r' : 'd';
        return out;
    };
    const std::string first = verdicts();
    EXPECT_EQ(verdicts(), first);
    // Both outcomes occur: the stretch is drawn afresh at each test.
    EXPECT_NE(first.find('r'), std::string::npos);
    EXPECT_NE(first.find('d'), std::string::npos);
}

TEST_F(UpdatePackTest, InstalledPackNeedsUpdateForANewerSeq) {
    auto p = record("shop", kPackTypeFerrit, 3, 1);
    p->installedSeq = 2;
    put({p});
    EXPECT_EQ(task("shop", kTriggerTimer)->state(), UpdateState::NeedUpdate);
    p = record("shop", kPackTypeFerrit, 3, 1);
    p->installedSeq = 3;
    put({p});
    EXPECT_EQ(task("shop", kTriggerTimer)->state(), UpdateState::UpToDate);
}

TEST_F(UpdatePackTest, InstalledPackInNeedOfReinstallNeedsUpdate) {
    auto p = record("shop", kPackTypeFerrit, 3, 1);
    p->installedSeq = 3;
    p->status = kPackStatusNeedReinstall;
    put({p});
    EXPECT_EQ(task("shop", kTriggerTimer)->state(), UpdateState::NeedUpdate);
}

TEST_F(UpdatePackTest, InstalledPreviewPackNeedsUpdateOnlyForAPreview) {
    auto p = record("shop", kPackTypeFerrit, 3, 1);
    p->installedSeq = 1;
    p->status = kPackStatusPreview;
    p->zipURL = "https://preview.test/shop.zip";
    put({p});
    EXPECT_EQ(task("shop", kTriggerTimer)->state(), UpdateState::UpToDate);
    EXPECT_EQ(task("shop", kTriggerPreview)->state(), UpdateState::NeedUpdate);
}

TEST_F(UpdatePackTest, VisitOpensAnUpToDatePackAndReinstallsOneThatDoesNotWork) {
    auto p = record("shop", kPackTypeFerrit, 3, 1);
    p->installedSeq = 3;
    put({p});
    // Nothing of version 3 is in the store: its list cannot load.
    EXPECT_EQ(task("shop", kTriggerTimer)->state(), UpdateState::UpToDate);
    EXPECT_EQ(task("shop", kTriggerVisit)->state(), UpdateState::NeedUpdate);
}

TEST_F(UpdatePackTest, VisitChecksTheResourcesFolderOfAFixedUrlApp) {
    auto p = record("raw", kPackTypeACache, 1, 1);
    p->subType = kSubTypeFixedUrl;
    p->zipURL = "https://cdn.test/raw.zip";
    p->installedSeq = 1;
    put({p});
    EXPECT_EQ(task("raw", kTriggerVisit)->state(), UpdateState::NeedUpdate);
    std::filesystem::create_directories(temp_.path() / "apps/raw/1/res");
    std::ofstream(temp_.path() / "apps/raw/1/res/index.html") << "<html>";
    EXPECT_EQ(task("raw", kTriggerVisit)->state(), UpdateState::UpToDate);
}

// Edge: a "Startup" run with priority 8 is invalid, even though a "Timer" run installs it.
TEST_F(UpdatePackTest, StartupRunWithPriority8IsInvalidWhileATimerRunInstallsIt) {
    put({record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall)});
    UpdatePackPtr startup = task("shop", kTriggerStartup);
    EXPECT_EQ(startup->state(), UpdateState::Invalid);
    EXPECT_FALSE(startup->error());
    EXPECT_EQ(task("shop", kTriggerTimer)->state(), UpdateState::NeedUpdate);
    put({record("shop", kPackTypeFerrit, 1, 1, kPriorityStartup)});
    EXPECT_EQ(task("shop", kTriggerStartup)->state(), UpdateState::NeedUpdate);
}

TEST_F(UpdatePackTest, UninstalledPackWithoutPriorityNeedsEnoughAccess) {
    put({record("shop", kPackTypeFerrit, 1, 1, 2)});
    EXPECT_EQ(task("shop", kTriggerTimer)->state(), UpdateState::Invalid);
    Statistics::addAccess("shop", nullptr, 3.0);
    EXPECT_EQ(task("shop", kTriggerTimer)->state(), UpdateState::NeedUpdate);
    // A visit needs neither.
    put({record("cold", kPackTypeFerrit, 1, 1, 0)});
    EXPECT_EQ(task("cold", kTriggerVisit)->state(), UpdateState::NeedUpdate);
}

TEST_F(UpdatePackTest, VariantPackNeedsAnAcceptedVariant) {
    put({record("shop~dark", kPackTypeFerrit, 1, 1, kPriorityAutoInstall)});
    EXPECT_EQ(task("shop~dark", kTriggerTimer)->state(), UpdateState::Invalid);
    Variants::instance().registerAccept("host", "dark", "theme");
    EXPECT_EQ(task("shop~dark", kTriggerTimer)->state(), UpdateState::NeedUpdate);
}

// Edge: a fixed-sequence task for an app whose plain record is at that installed sequence.
TEST_F(UpdatePackTest, FixedSeqTaskForAnAppWhosePlainRecordIsAtThatSeqIsUpToDate) {
    auto p = record("app", kPackTypeACache, 5, 5);
    p->installedSeq = 4;
    put({p});
    writeVersion(Folder::disk("apps/app/4/"), version1());
    UpdatePackPtr same = UpdatePack::createSeq("app", 4);
    EXPECT_EQ(same->state(), UpdateState::UpToDate);
    EXPECT_EQ(UpdatePack::createSeq("app", 3)->state(), UpdateState::NeedUpdate);
}

// ---- Requests ---------------------------------------------------------------------------------

// Edge: records with "s" and "b", and app records with a sub type, skip the configuration request.
TEST_F(UpdatePackTest, RecordWithSeqAndBaseSeqSkipsTheConfigurationRequest) {
    put({record("shop", kPackTypeFerrit, 4, 2, kPriorityAutoInstall)});
    static_cast<void>(run(task("shop", kTriggerTimer)));
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://dl.test/shop/4.zip"}));
}

TEST_F(UpdatePackTest, AppRecordWithASubTypeSkipsTheConfigurationRequest) {
    auto p = record("app@4", kPackTypeACache, 4, 0, kPriorityAutoInstall);
    p->subType = kSubTypeFixedSeq;
    put({p});
    static_cast<void>(run(task("app@4", kTriggerTimer)));
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://app.test/app/4.zip"}));
}

TEST_F(UpdatePackTest, IncompleteRecordAsksForThePackConfigurationFirst) {
    put({record("shop", kPackTypeFerrit, 4, 0, kPriorityAutoInstall)});
    static_cast<void>(run(task("shop", kTriggerTimer)));
    ASSERT_FALSE(proxy_->requests.empty());
    EXPECT_EQ(proxy_->requests[0].url, "https://cfg.test/packconfig/shop/4");
    EXPECT_EQ(proxy_->requests[0].header.at("f-refer"), "ferrit_config");
}

TEST_F(UpdatePackTest, RecordWithoutSeqAsksForConfigurationZero) {
    put({record("shop", kPackTypeFerrit, 0, 0, kPriorityAutoInstall)});
    static_cast<void>(run(task("shop", kTriggerTimer)));
    ASSERT_FALSE(proxy_->requests.empty());
    EXPECT_EQ(proxy_->requests[0].url, "https://cfg.test/packconfig/shop/0");
}

TEST_F(UpdatePackTest, TempFolderNamesPackSeqAndWhetherIncremental) {
    put({record("shop", kPackTypeFerrit, 4, 2, kPriorityAutoInstall)});
    proxy_->serve("https://dl.test/shop/4.zip", silent());
    UpdatePackPtr t = task("shop", kTriggerTimer);
    static_cast<void>(run(t));
    EXPECT_EQ(t->tempFolder().relative(), "temp/shop_4_0/");
    EXPECT_EQ(t->zipFile().relative(), "temp/shop_4_0/origin.zip");
    EXPECT_EQ(proxy_->requests.at(0).tempFilePath, t->zipFile().absolute());
    EXPECT_EQ(proxy_->requests.at(0).header.at("f-refer"), "ferrit_zip");
    EXPECT_EQ(proxy_->requests.at(0).timeout, 20);
}

TEST_F(UpdatePackTest, IncrementalUrlHasTheIncrementFolder) {
    auto p = record("shop", kPackTypeFerrit, 5, 1, kPriorityAutoInstall);
    p->installedSeq = 4;
    p->installedBaseSeq = 1;
    put({p});
    proxy_->serve("https://dl.test/shop/i/5.zip", silent());
    UpdatePackPtr t = task("shop", kTriggerTimer);
    static_cast<void>(run(t));
    EXPECT_TRUE(t->incremental());
    EXPECT_EQ(t->tempFolder().relative(), "temp/shop_5_1/");
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://dl.test/shop/i/5.zip"}));
    EXPECT_EQ(t->perf().dimensions().at("incr"), "true");
}

TEST_F(UpdatePackTest, WrappedPayloadIsAskedForAsAnImageOnlyWithEncryptionOutsidePreRelease) {
    auto p = record("shop", kPackTypeFerrit, 4, 2, kPriorityAutoInstall);
    p->flags |= uint64_t{kPayloadWrapped} << 16;
    put({p});
    proxy_->serve("https://dl.test/shop/4.zip", silent());
    proxy_->serve("https://dl.test/shop/4.png", silent());
    static_cast<void>(run(task("shop", kTriggerTimer)));
    Settings::change([](Settings& s) { s.encryptionTypeRemote = 1; });
    static_cast<void>(run(task("shop", kTriggerTimer)));
    Environment::instance().setEnvValue(0);
    Settings::change([](Settings& s) { s.zipPrefixRemote = kZipPrefix; });
    static_cast<void>(run(task("shop", kTriggerTimer)));
    EXPECT_EQ(urls(),
              (std::vector<std::string>{"https://dl.test/shop/4.zip", "https://dl.test/shop/4.png",
                                        "https://dl.test/shop/4.zip"}));
}

TEST_F(UpdatePackTest, PreviewAndFixedUrlPacksFetchTheirZipUrl) {
    auto preview = record("shop", kPackTypeFerrit, 4, 2, kPriorityAutoInstall);
    preview->status = kPackStatusPreview;
    preview->zipURL = "https://preview.test/shop-4.zip";
    preview->flags |= uint64_t{kPayloadWrapped} << 16;
    put({preview});
    Settings::change([](Settings& s) { s.encryptionTypeRemote = 1; });
    proxy_->serve(preview->zipURL, silent());
    static_cast<void>(run(task("shop", kTriggerPreview)));
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://preview.test/shop-4.zip"}));
}

TEST_F(UpdatePackTest, BuiltInPackCannotBeDownloaded) {
    auto asset = record("kit", kPackTypeSCache, 2, 2);
    asset->installedSeq = 2;
    asset->status = kPackStatusNeedReinstall;
    put({asset});
    EXPECT_EQ(run(task("kit", kTriggerTimer)).code(), Errors::kInvalidType);
    EXPECT_TRUE(proxy_->requests.empty());
}

// ---- Capacity ---------------------------------------------------------------------------------

class CapacityTest : public UpdatePackTest {
  protected:
    void SetUp() override {
        UpdatePackTest::SetUp();
        // 10 bytes of room for each class; "big" takes all of the ordinary one.
        Settings::change([](Settings& s) {
            s.ferritSizeLimit = 10;
            s.acacheSizeLimit = 10;
        });
        auto big = record("big", kPackTypeFerrit, 1, 1);
        big->installedSeq = 1;
        big->installedSize = 10;
        put({big, record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall)});
        proxy_->serve("https://dl.test/shop/1.zip", silent());
    }
};

TEST_F(CapacityTest, OverTheLimitIsTooManyApps) {
    UpdatePackPtr t = task("shop", kTriggerTimer);
    const Error error = run(t);
    EXPECT_EQ(error.code(), Errors::kTooManyApps);
    EXPECT_EQ(error.message(), "Too many apps installed");
    EXPECT_FALSE(t->runnable());
    EXPECT_TRUE(proxy_->requests.empty());
    EXPECT_TRUE(tempLeft().empty());
}

TEST_F(CapacityTest, TheOtherClassHasItsOwnLimit) {
    put({record("app", kPackTypeACache, 1, 1, kPriorityAutoInstall)});
    proxy_->serve("https://app.test/app/1.zip", silent());
    static_cast<void>(run(task("app", kTriggerTimer)));
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://app.test/app/1.zip"}));
}

TEST_F(CapacityTest, UnknownSizesAreMeasuredAndWrittenBack) {
    auto unknown = record("big", kPackTypeFerrit, 1, 1);
    unknown->installedSeq = 1;
    unknown->isPacks = true;
    put({unknown});
    Error error;
    ASSERT_TRUE(PackedFiles::current()->put("big/1/res/a.js", "12345678901", error));
    EXPECT_EQ(run(task("shop", kTriggerTimer)).code(), Errors::kTooManyApps);
    EXPECT_EQ(find("big")->installedSize, 11u);
}

// Edge: "Preview" never fails the capacity check.
TEST_F(CapacityTest, PreviewNeverFailsTheCapacityCheck) {
    auto preview = record("shop", kPackTypeFerrit, 1, 1);
    preview->status = kPackStatusPreview;
    preview->zipURL = "https://preview.test/shop.zip";
    put({preview});
    proxy_->serve(preview->zipURL, silent());
    static_cast<void>(run(task("shop", kTriggerPreview)));
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://preview.test/shop.zip"}));
}

TEST_F(CapacityTest, InstalledAndResidentPacksPassTheCheck) {
    put({record("resident", kPackTypeFerrit, 1, 1, kPriorityResident)});
    Statistics::addAccess("resident", nullptr, 5.0);
    proxy_->serve("https://dl.test/resident/1.zip", silent());
    static_cast<void>(run(task("resident", kTriggerTimer)));
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://dl.test/resident/1.zip"}));
}

// Edge: "Visit" never fails the capacity check: a cleanup makes room by evicting.
TEST_F(CapacityTest, VisitPassesTheCapacityCheckByEvicting) {
    static_cast<void>(run(task("shop", kTriggerVisit)));
    EXPECT_EQ(SCache::current()->find("big")->status, kPackStatusEliminated)
        << "the unused pack made room";
    EXPECT_EQ(logs_->last("cleanup", "Ferrit/Task").field("trigger").stringValue(), "Ferrit");
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://dl.test/shop/1.zip"}));
}

// "VisitUpdate" differs from "Visit" in bit 0 only, which the gate ignores.
TEST_F(CapacityTest, VisitUpdateMakesRoomAsVisitDoes) {
    static_cast<void>(run(task("shop", kTriggerVisitUpdate)));
    EXPECT_EQ(SCache::current()->find("big")->status, kPackStatusEliminated);
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://dl.test/shop/1.zip"}));
}

// ---- The free list ----------------------------------------------------------------------------

TEST_F(UpdatePackTest, FinishedTasksGiveTheirMemoryBackToTheFreeList) {
    put({record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall)});
    const size_t before = UpdatePack::spareCount();
    const UpdatePack* first = nullptr;
    {
        UpdatePackPtr t = task("shop", kTriggerTimer);
        first = t.get();
    }
    EXPECT_EQ(UpdatePack::spareCount(), before + 1);
    UpdatePackPtr again = task("shop", kTriggerTimer);
    EXPECT_EQ(again.get(), first);  // the spare was taken again
    EXPECT_EQ(UpdatePack::spareCount(), before);
}

TEST_F(UpdatePackTest, FreeListKeepsAtMostThirtySpares) {
    put({record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall)});
    {
        std::vector<UpdatePackPtr> many;
        for (int i = 0; i < 50; ++i) many.push_back(task("shop", kTriggerTimer));
    }
    EXPECT_EQ(UpdatePack::spareCount(), UpdatePack::kMaxSpareTasks);
}

TEST_F(UpdatePackTest, FreeListSurvivesTasksMadeAndDroppedOnManyThreads) {
    put({record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall)});
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i) {
                UpdatePackPtr a = UpdatePack::create("shop", JSON(), kTriggerTimer);
                UpdatePackPtr b = UpdatePack::create("shop", JSON(), kTriggerTimer);
                EXPECT_NE(a.get(), b.get());
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_LE(UpdatePack::spareCount(), UpdatePack::kMaxSpareTasks);
}

}  // namespace
}  // namespace FerritTest
