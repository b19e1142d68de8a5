#include <gtest/gtest.h>

#include <fstream>

#include "base/Errors.h"
#include "marl/Log.h"
#include "runtime/Network.h"
#include "storage/PacksStore.h"
#include "tests/FakeProxy.h"
#include "tests/TestUtil.h"
#include "tests/model/UpdateFixture.h"
#include "update/UpdateConfig.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

constexpr double kDay = 86400000.0;
constexpr double kNow = 1.7e12;

class UpdateConfigTest : public UpdateFixture {
  protected:
    void SetUp() override {
        UpdateFixture::SetUp();
        clock_->setWall(kNow);
        Environment& environment = Environment::instance();
        environment.setApp("key", "1.0");
        environment.setLocaleValue("zh_CN");
        environment.setClientActive(true);
        HostDefaults defaults;
        defaults.configPrefix = "https://cfg.test/";
        Settings::setDefaults(defaults);
        SCache::publish(
            std::make_shared<FConfig>());  // a document made with the running locale and version
        proxy_ = std::make_shared<FakeProxy>();
        environment.setProxy(proxy_);
    }

    UpdateConfig& updater() { return UpdateConfig::instance(); }
    // The current document with these fields.
    void seed(const std::string& version, double lastFullUpdate,
              const std::string& locale = "zh_CN", const std::string& clientVersion = "1.0") {
        auto config = std::make_shared<FConfig>();
        config->version = version;
        config->lastUpdate = kNow;
        config->lastFullUpdate = lastFullUpdate;
        config->locale = locale;
        config->clientVersion = clientVersion;
        SCache::publish(config);
    }
    static std::string v(double t) { return std::to_string(static_cast<long long>(t)); }
    // Runs one check with `trigger` and `version` and every task it posts.
    void check(UpdateTrigger trigger, const std::string& version,
               UpdateConfig::Listener listener = {}) {
        updater().start(trigger, version, std::move(listener), 0);
        TaskRunner::runDue();
    }

    std::shared_ptr<FakeProxy> proxy_;
};

// ---- the request URL, byte for byte ----

TEST_F(UpdateConfigTest, FirstCheckAsksFromZero) {
    EXPECT_EQ(updater().checkDue(kTriggerStartup, ""),
              "https://cfg.test/fconfig/key/1.0/0~0/zh_CN~zh_CN");
    EXPECT_TRUE(updater().initial());
}

TEST_F(UpdateConfigTest, RecentPartialCheckNamesBothVersions) {
    seed(v(kNow - 3600000), kNow - 3600000);
    EXPECT_EQ(updater().checkDue(kTriggerPush, v(kNow - 1000)),
              "https://cfg.test/fconfig/key/1.0/" + v(kNow - 1000) + "~" + v(kNow - 3600000) +
                  "/zh_CN~zh_CN");
    EXPECT_FALSE(updater().initial());
}

TEST_F(UpdateConfigTest, LocalVersionOlderThanSevenDaysAsksForFullDocument) {
    seed(v(kNow - 8 * kDay), kNow - kDay);
    EXPECT_EQ(updater().checkDue(kTriggerTimer, "0"),
              "https://cfg.test/fconfig/key/1.0/0~0/zh_CN~zh_CN");
}

TEST_F(UpdateConfigTest, OldFullUpdateAsksForFullDocument) {
    seed(v(kNow - kDay), kNow - 8 * kDay);
    EXPECT_EQ(updater().checkDue(kTriggerActive, "0"),
              "https://cfg.test/fconfig/key/1.0/0~0/zh_CN~zh_CN");
}

TEST_F(UpdateConfigTest, DocumentForAnotherLocaleAsksForFullDocument) {
    seed(v(kNow - kDay), kNow - kDay, "en");
    EXPECT_EQ(updater().checkDue(kTriggerTimer, "0"),
              "https://cfg.test/fconfig/key/1.0/0~0/zh_CN~en");
}

TEST_F(UpdateConfigTest, DocumentForAnotherEnvironmentAsksForFullDocument) {
    seed(v(kNow - kDay), kNow - kDay);
    Environment::instance().setEnvValue(1);
    HostDefaults defaults;
    defaults.configPrefixDaily = "http://daily.test/";
    Settings::setDefaults(defaults);
    const std::string url = updater().checkDue(kTriggerChangeEnv, "0");
    EXPECT_NE(url.find("/0~0/zh_CN~zh_CN"), std::string::npos) << url;
    EXPECT_EQ(url.rfind("http://daily.test/fconfig/", 0), 0u) << url;
}

// Neither the build nor the host gave a configuration server: a check ends at once with words
// that name the setting of the environment in force, sends nothing, and its end is logged once.
TEST_F(UpdateConfigTest, NoServerAddressFailsInWordsAndSendsNothing) {
    if (!Settings::builtinConfigPrefix().empty() || !Settings::dailyConfigPrefix().empty())
        GTEST_SKIP() << "this build compiles a server in";
    Settings::setDefaults(HostDefaults());
    MarlLogger::ScopedCapture logs;
    Error heard;
    check(kTriggerStartup, "0", [&heard](const Error& error) { heard = error; });
    EXPECT_TRUE(proxy_->requests.empty());
    EXPECT_EQ(heard.code(), Errors::kNoServerAddress);
    EXPECT_EQ(heard.message(),
              "No server address: the host set no configuration server (configPrefixRelease)");
    EXPECT_EQ(logs->count("finished", "Ferrit/UpdateConfig"), 1u);
    EXPECT_EQ(logs->last("finished", "Ferrit/UpdateConfig").errorCode,
              std::to_string(Errors::kNoServerAddress));
    EXPECT_FALSE(updater().busy());
    Environment::instance().setEnvValue(1);
    check(kTriggerDebugTool, "0", [&heard](const Error& error) { heard = error; });
    EXPECT_EQ(heard.message(),
              "No server address: the host set no configuration server (configPrefixDaily)");
    EXPECT_TRUE(proxy_->requests.empty());
    // Once the host gives one, the next check asks it.
    HostDefaults defaults;
    defaults.configPrefixDaily = "http://daily.test/";
    Settings::setDefaults(defaults);
    check(kTriggerDebugTool, "0");
    ASSERT_EQ(proxy_->requests.size(), 1u);
    EXPECT_EQ(proxy_->requests[0].url.rfind("http://daily.test/fconfig/key/1.0/", 0), 0u);
}

TEST_F(UpdateConfigTest, OtherClientVersionIsNamed) {
    seed(v(kNow - kDay), kNow - kDay, "zh_CN", "0.9");
    EXPECT_EQ(updater().checkDue(kTriggerTimer, "0"),
              "https://cfg.test/fconfig/key/1.0~0.9/0~" + v(kNow - kDay) + "/zh_CN~zh_CN");
}

TEST_F(UpdateConfigTest, TargetEqualToLocalVersionIsUpToDate) {
    seed(v(kNow - 3600000), kNow - 3600000);
    check(kTriggerPush, v(kNow - 3600000));
    EXPECT_TRUE(proxy_->requests.empty());
    auto entry = logs_->last("upToDate", "Ferrit/UpdateConfig");
    EXPECT_EQ(entry.field("originVersion").stringValue(), v(kNow - 3600000));
    EXPECT_EQ(entry.field("trigger").stringValue(), "Push");
}

TEST_F(UpdateConfigTest, TargetWithFractionIsCut) {
    seed(v(kNow - 3600000), kNow - 3600000);
    const std::string url = updater().checkDue(kTriggerPush, v(kNow) + ".25");
    EXPECT_NE(url.find("/" + v(kNow) + "~"), std::string::npos) << url;
}

// ---- runs ----

TEST_F(UpdateConfigTest, SignedDocumentIsMergedAndReported) {
    const std::string url = "https://cfg.test/fconfig/key/1.0/0~0/zh_CN~zh_CN";
    proxy_->serve(
        url, 200,
        FakeProxy::sign(R"({"v":"1700000000000.5","i":4294967295,"packs":{"a":{"s":2}}})"));
    Error got(-1, "not called");
    check(kTriggerStartup, "", [&](const Error& e) { got = e; });
    EXPECT_FALSE(got) << got.message();
    EXPECT_EQ(SCache::current()->version, "1700000000000");
    EXPECT_NE(SCache::current()->find("a"), nullptr);
    EXPECT_TRUE(Environment::instance().flags() & 1024) << "the initial run finished";
    EXPECT_FALSE(updater().busy());
    ASSERT_EQ(proxy_->events.size(), 1u);
    EXPECT_EQ(proxy_->events[0], "Ferrit.ConfigUpdate");
    EXPECT_EQ(logs_->last("finished", "Ferrit/UpdateConfig").field("version").stringValue(),
              "1700000000000");
    EXPECT_EQ(logs_->last("start", "Ferrit/UpdateConfig").field("url").stringValue(), url);
    EXPECT_EQ(proxy_->requests[0].header.at("f-refer"), "ferrit_config");
}

TEST_F(UpdateConfigTest, SecondCheckWithin30SecondsDoesNothing) {
    seed(v(kNow - 3600000), kNow - 3600000);
    check(kTriggerTimer, "0");
    const size_t requests = proxy_->requests.size();
    logs_->clear();
    clock_->advance(29000);
    check(kTriggerTimer, "0");
    EXPECT_EQ(proxy_->requests.size(), requests);
    EXPECT_EQ(logs_->count("upToDate"), 0u);
    EXPECT_EQ(logs_->count("start", "Ferrit/UpdateConfig"), 0u);
    clock_->advance(1000);
    check(kTriggerTimer, "0");
    EXPECT_EQ(proxy_->requests.size(), requests + 1);
}

TEST_F(UpdateConfigTest, DeveloperToolAndEnvironmentChangeBypassTheThrottle) {
    check(kTriggerTimer, "0");
    clock_->advance(1000);
    check(kTriggerDebugTool, "0");
    clock_->advance(1000);
    check(kTriggerChangeEnv, "0");
    EXPECT_EQ(proxy_->requests.size(), 3u);
}

TEST_F(UpdateConfigTest, BusyRunKeepsNewListenerForItsEnd) {
    FakeProxy::Answer held;
    held.hold = true;
    held.body = FakeProxy::sign(R"({"v":"5"})");
    proxy_->serve("https://cfg.test/fconfig/key/1.0/0~0/zh_CN~zh_CN", held);
    int first = 0, second = 0;
    check(kTriggerStartup, "", [&](const Error&) { ++first; });
    EXPECT_TRUE(updater().busy());
    clock_->advance(60000);
    check(kTriggerActive, "0", [&](const Error&) { ++second; });
    EXPECT_EQ(proxy_->requests.size(), 1u);
    EXPECT_EQ(proxy_->release(), 1u);
    TaskRunner::runDue();
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
}

TEST_F(UpdateConfigTest, InactiveClientDoesNotCheckAndListenersWait) {
    Environment::instance().setClientActive(false);
    int calls = 0;
    check(kTriggerTimer, "0", [&](const Error&) { ++calls; });
    EXPECT_TRUE(proxy_->requests.empty());
    EXPECT_EQ(calls, 0);
    Environment::instance().setClientActive(true);
    check(kTriggerActive, "0");
    EXPECT_EQ(calls, 1);
}

TEST_F(UpdateConfigTest, SubProcessOnlyLogs2004) {
    Environment::instance().setMainProcess(false);
    int calls = 0;
    check(kTriggerStartup, "", [&](const Error&) { ++calls; });
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(proxy_->requests.empty());
    EXPECT_EQ(logs_->last("start", "Ferrit/UpdateConfig").errorCode,
              std::to_string(Errors::kSubProcessDisabled));
}

TEST_F(UpdateConfigTest, EmptySignatureAsksTheProxyWhichDecides) {
    proxy_->serve("https://cfg.test/fconfig/key/1.0/0~0/zh_CN~zh_CN", 200, R"({"v":"5"}||)");
    Error got;
    check(kTriggerStartup, "", [&](const Error& e) { got = e; });
    EXPECT_EQ(proxy_->verified.size(), 1u);
    EXPECT_EQ(got.code(), Errors::kRequestVerify);
}

struct Hostile {
    const char* name;
    FakeProxy::Answer answer;
    int code;
};

TEST_F(UpdateConfigTest, HostileResponsesLeaveTheDocumentUntouched) {
    const std::string url = "https://cfg.test/fconfig/key/1.0/0~0/zh_CN~zh_CN";
    auto answer = [](uint16_t status, std::string body) {
        FakeProxy::Answer a;
        a.status = status;
        a.body = std::move(body);
        return a;
    };
    FakeProxy::Answer transport;
    transport.transportError = Error(5, "connection reset");
    std::string huge(50u << 20, 'x');
    const std::vector<Hostile> cases = {
        {"bad signature", answer(200, R"({"v":"5"}||QUJD)"), Errors::kRequestVerify},
        {"missing separator", answer(200, R"({"v":"5"})"), Errors::kRequestDeserialization},
        {"empty object", answer(200, "{}"), Errors::kServerError},
        {"empty", answer(200, ""), Errors::kRequestNoData},
        // Refused for its size before the signature is even computed.
        {"50 MiB", answer(200, huge + "||QUJD"), Errors::kRequestDeserialization},
        {"invalid JSON", answer(200, FakeProxy::sign("{\"v\":")), Errors::kRequestDeserialization},
        {"not modified", answer(304, ""), Errors::kRequestInvalidStatus},
        {"server error", answer(500, "boom"), Errors::kRequestInvalidStatus},
        {"transport", transport, Errors::kRequestFailed},
    };
    for (const Hostile& c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();  // a fresh process for each case
        const FConfigPtr before = SCache::current();
        proxy_->serve(url, c.answer);
        Error got;
        check(kTriggerStartup, "", [&](const Error& e) { got = e; });
        EXPECT_EQ(got.code(), c.code) << got.message();
        EXPECT_EQ(SCache::current(), before);
        EXPECT_FALSE(updater().busy());
        TaskRunner::runDue();
        EXPECT_TRUE(storage_->writes.empty());
    }
}

TEST_F(UpdateConfigTest, ProxyThatNeverAnswersBlocksOnlyItsOwnRun) {
    FakeProxy::Answer never;
    never.never = true;
    proxy_->serve("https://cfg.test/fconfig/key/1.0/0~0/zh_CN~zh_CN", never);
    check(kTriggerStartup, "");
    EXPECT_TRUE(updater().busy());
    bool ran = false;
    TaskRunner::post([&] { ran = true; });
    TaskRunner::runDue();
    EXPECT_TRUE(ran) << "the worker is free";
}

// A host that never answers delays the check by its deadline only: the run ends with the
// reason, and the next trigger asks again.
TEST_F(UpdateConfigTest, ConfigRequestThatNeverAnswersEndsAtItsDeadlineAndTheNextTriggerRuns) {
    const std::string url = "https://cfg.test/fconfig/key/1.0/0~0/zh_CN~zh_CN";
    FakeProxy::Answer never;
    never.never = true;
    proxy_->serve(url, never);
    Error got(-1, "not called");
    int calls = 0;
    check(kTriggerStartup, "", [&](const Error& e) {
        got = e;
        ++calls;
    });
    EXPECT_TRUE(updater().busy());
    clock_->advance(Settings::current()->configRequestDeadlineValue());
    TaskRunner::runDue();
    ASSERT_EQ(calls, 1);
    EXPECT_EQ(got.code(), Errors::kRequestFailed);
    EXPECT_NE(got.message().find("no answer within 20 s"), std::string::npos) << got.message();
    EXPECT_FALSE(updater().busy());
    EXPECT_EQ(logs_->last("finished", "Ferrit/UpdateConfig").field("version").stringValue(), "0");

    proxy_->serve(url, 200, FakeProxy::sign(R"({"v":"7"})"));
    clock_->advance(UpdateConfig::kThrottleMs);
    check(kTriggerTimer, "0");
    EXPECT_EQ(proxy_->requests.size(), 2u);
    EXPECT_EQ(SCache::current()->version, "7");
    EXPECT_FALSE(updater().busy());
}

// The answer that comes after the deadline belongs to a run that has ended: it changes nothing.
TEST_F(UpdateConfigTest, AnswerAfterTheDeadlineIsDropped) {
    const std::string url = "https://cfg.test/fconfig/key/1.0/0~0/zh_CN~zh_CN";
    FakeProxy::Answer late;
    late.hold = true;
    late.body = FakeProxy::sign(R"({"v":"9"})");
    proxy_->serve(url, late);
    int calls = 0;
    check(kTriggerStartup, "", [&](const Error& e) {
        EXPECT_EQ(e.code(), Errors::kRequestFailed);
        ++calls;
    });
    clock_->advance(Settings::current()->configRequestDeadlineValue());
    TaskRunner::runDue();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(proxy_->release(), 1u);
    TaskRunner::runDue();
    EXPECT_EQ(calls, 1);
    EXPECT_NE(SCache::current()->version, "9");
    EXPECT_EQ(proxy_->events.size(), 1u);
}

TEST_F(UpdateConfigTest, DocumentAboveTheSizeLimitIsRefusedAndNothingChanges) {
    const std::string url = "https://cfg.test/fconfig/key/1.0/0~0/zh_CN~zh_CN";
    const std::string document = FakeProxy::sign(R"({"v":"8","packs":{"a":{"s":2}}})");
    Settings::updateRemote({{"configMaxSize", std::to_string(document.size() - 1)}});
    proxy_->serve(url, 200, document);
    Error got(-1, "not called");
    check(kTriggerStartup, "", [&](const Error& e) { got = e; });
    EXPECT_EQ(got.code(), Errors::kRequestDeserialization);
    EXPECT_NE(got.message().find("above the limit of"), std::string::npos) << got.message();
    EXPECT_EQ(SCache::current()->find("a"), nullptr);
    EXPECT_FALSE(updater().busy());
}

TEST_F(UpdateConfigTest, ProxyThatAnswersTwiceEndsTheRunOnce) {
    FakeProxy::Answer twice;
    twice.twice = true;
    twice.body = FakeProxy::sign(R"({"v":"5"})");
    proxy_->serve("https://cfg.test/fconfig/key/1.0/0~0/zh_CN~zh_CN", twice);
    int calls = 0;
    check(kTriggerStartup, "", [&](const Error&) { ++calls; });
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(proxy_->events.size(), 1u);
    EXPECT_EQ(SCache::current()->version, "5");
}

TEST_F(UpdateConfigTest, FailedCheckIsRetriedAfterAFifthOfTheInterval) {
    updater().startTimer();
    auto timer = updater().timer();
    ASSERT_NE(timer, nullptr);
    timer->setLastRunTime(MRLCurrentTime());
    proxy_->serve("https://cfg.test/fconfig/key/1.0/0~0/zh_CN~zh_CN", 500, "no");
    check(kTriggerActive, "0");
    EXPECT_DOUBLE_EQ(timer->lastRunTime(), MRLCurrentTime() - 0.8 * timer->interval());
}

TEST_F(UpdateConfigTest, SuccessfulCheckRestartsTheInterval) {
    updater().startTimer();
    auto timer = updater().timer();
    proxy_->serve("https://cfg.test/fconfig/key/1.0/0~0/zh_CN~zh_CN", 200,
                  FakeProxy::sign(R"({"v":"5"})"));
    clock_->advance(1000);
    check(kTriggerActive, "0");
    EXPECT_DOUBLE_EQ(timer->lastRunTime(), MRLCurrentTime());
}

TEST_F(UpdateConfigTest, PushSwitchesTheTimerToTheBackupInterval) {
    updater().startTimer();
    EXPECT_DOUBLE_EQ(updater().timer()->interval(), 300000);
    check(kTriggerPush, "0");
    EXPECT_DOUBLE_EQ(updater().timer()->interval(), 1800000);
}

TEST_F(UpdateConfigTest, TimerTicksCheckEveryInterval) {
    updater().startTimer();
    TaskRunner::runDue();  // the first appearance only notes the time
    EXPECT_TRUE(proxy_->requests.empty());
    clock_->advance(300001);
    TaskRunner::runDue();
    ASSERT_EQ(proxy_->requests.size(), 1u);
}

// ---- the load at process start ----

class LoadAtStartTest : public UpdateFixture {
  protected:
};

TEST_F(LoadAtStartTest, StoredDocumentIsLoaded) {
    const Error error = PacksStore::instance().writeConfig(R"({"v":"42","packs":{"a":{"s":1}}})");
    ASSERT_FALSE(error) << error.message();
    UpdateConfig::loadAtStart();
    EXPECT_EQ(SCache::current()->version, "42");
    auto entry = logs_->last("fconfig", "Ferrit/Load");
    EXPECT_EQ(entry.field("version").stringValue(), "42");
    EXPECT_EQ(entry.field("packCount").int32Value(), 1);
}

TEST_F(LoadAtStartTest, OlderFileIsReadWhenTheStoreHasNone) {
    std::filesystem::create_directories(temp_.path() / "config");
    std::ofstream(temp_.path() / "config/fconfig.config") << R"({"v":"41"})";
    UpdateConfig::loadAtStart();
    EXPECT_EQ(SCache::current()->version, "41");
}

TEST_F(LoadAtStartTest, BadCopyLeavesDefaults) {
    ASSERT_FALSE(PacksStore::instance().writeConfig("not json"));
    UpdateConfig::loadAtStart();
    EXPECT_EQ(SCache::current()->version, "0");
    auto entry = logs_->last("fconfig", "Ferrit/Load");
    EXPECT_EQ(entry.errorCode, std::to_string(Errors::kRequestDeserialization));
    EXPECT_FALSE(entry.has("version"));
}

TEST_F(LoadAtStartTest, NothingStoredGivesDefaultsWithoutError) {
    UpdateConfig::loadAtStart();
    EXPECT_EQ(SCache::current()->version, "0");
    EXPECT_FALSE(logs_->last("fconfig", "Ferrit/Load").hasError);
}

}  // namespace
}  // namespace FerritTest
