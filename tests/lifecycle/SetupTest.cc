#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/StorageState.h"
#include "lifecycle/Setup.h"
#include "marl/Clock.h"
#include "marl/Inspector.h"
#include "marl/Log.h"
#include "model/SCache.h"
#include "runtime/Network.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "storage/Cache.h"
#include "storage/ConfigStore.h"
#include "storage/PacksStore.h"
#include "storage/Statistics.h"
#include "tests/FakeProxy.h"
#include "tests/TestUtil.h"
#include "update/Cleanup.h"
#include "update/UpdateConfig.h"
#include "update/UpdateQueue.h"

namespace FerritTest {
namespace {

using namespace FerritCore;
using MarlLogger::json::JSON;

const char* kFirstUrl = "https://cfg.test/fconfig/key/1.0/0~0/~";

class SetupTest : public ProcessTest {
  protected:
    void SetUp() override {
        ProcessTest::SetUp();
        HostDefaults defaults;
        defaults.configPrefix = "https://cfg.test/";
        defaults.configPrefixDaily = "http://cfg-daily.test/";
        Settings::setDefaults(defaults);
        proxy_ = std::make_shared<FakeProxy>();
        proxy_->serve(kFirstUrl, 200, FakeProxy::sign(R"({"v":"1700000000000","i":4294967295})"));
    }

    std::vector<std::string> errors() {
        std::vector<std::string> out;
        const JSON report = Setup::statusReport();
        for (const JSON& code : report["error"].arrayValue()) out.push_back(code.stringValue());
        return out;
    }
    uint32_t flags() { return Environment::instance().flags(); }

    MarlLogger::ScopedManualClock clock_;
    MarlLogger::ScopedCapture logs_;
    std::shared_ptr<FakeProxy> proxy_;
    // The queue's runs as its log tells them: each run's "start" or "add" names its trigger.
    std::vector<std::string> queueStarts() {
        std::vector<std::string> triggers;
        for (const MarlLogger::LogEntry& entry : logs_->entries()) {
            if (entry.tag == "Ferrit/Queue" && (entry.event == "start" || entry.event == "add"))
                triggers.push_back(entry.field("trigger").stringValue());
        }
        return triggers;
    }
    size_t pauses() { return logs_->count("pause", "Ferrit/Queue"); }
    size_t resumes() { return logs_->count("resume", "Ferrit/Queue"); }
};

// A replayed document past its expiry is ignored, and the status report says so; the report of a
// device whose documents never carried the new members has no "configuration" at all.
TEST_F(SetupTest, StatusReportSaysWhyASignedDocumentWasIgnored) {
    Setup::setProxy(proxy_, temp_.root());
    Setup::setup("key", "1.0", SetupMode::kHostStartsUpdate);
    TaskRunner::runDue();
    EXPECT_TRUE(Setup::statusReport()["configuration"].isNull());

    clock_->advance(60000);  // past the version in force, so that a check asks
    const double now = MRLCurrentTime();
    const std::string fresh =
        FakeProxy::sign(R"({"v":"1700000000001","i":4294967295,"issued":)" +
                        std::to_string(static_cast<long long>(now)) + R"(,"expires":)" +
                        std::to_string(static_cast<long long>(now + 3600000)) + "}");
    proxy_->serve(kFirstUrl, 200, fresh);
    proxy_->serve("https://cfg.test/fconfig/key/1.0/0~1700000000000/~", 200, fresh);
    UpdateConfig::instance().start(kTriggerDebugTool, "0", nullptr, 0);
    TaskRunner::runDue();
    JSON report = Setup::statusReport();
    EXPECT_EQ(report["configuration"]["expires"].doubleValue(), now + 3600000);
    EXPECT_FALSE(report["configuration"]["expired"].boolValue());
    EXPECT_TRUE(report["configuration"]["refused"].isNull());

    clock_->advance(2 * 3600000);
    proxy_->serve("https://cfg.test/fconfig/key/1.0/0~1700000000001/~", 200, fresh);
    UpdateConfig::instance().start(kTriggerDebugTool, "0", nullptr, 0);
    TaskRunner::runDue();
    report = Setup::statusReport();
    EXPECT_TRUE(report["configuration"]["expired"].boolValue());
    EXPECT_EQ(report["configuration"]["refused"]["reason"].stringValue(), "expired");
    EXPECT_EQ(SCache::current()->version, "1700000000001") << "the device keeps what it has";
}

TEST_F(SetupTest, LifecycleInTheHostsOrder) {
    EXPECT_EQ(errors(), (std::vector<std::string>{"NO_PROXY", "NOT_SETUP", "NOT_UPDATE_CONFIG",
                                                  "NOT_START_UPDATE"}));
    Setup::setProxy(proxy_, temp_.root());
    EXPECT_EQ(errors(),
              (std::vector<std::string>{"NOT_SETUP", "NOT_UPDATE_CONFIG", "NOT_START_UPDATE"}));
    Setup::setup("key", "1.0",
                 SetupMode::kHostStartsUpdate);  // the host will call startUpdate itself
    EXPECT_EQ(errors(), (std::vector<std::string>{"NOT_UPDATE_CONFIG", "NOT_START_UPDATE"}));
    EXPECT_EQ(MarlLogger::Inspector::info("FerritInfo"), "Ferrit/" + std::string(kCoreVersion));
    TaskRunner::runDue();  // the worker starts and the first configuration arrives
    ASSERT_EQ(proxy_->requests.size(), 1u);
    EXPECT_EQ(proxy_->requests[0].url, kFirstUrl);
    EXPECT_EQ(proxy_->requests[0].header.at("Referer"),
              "Ferrit/" + std::string(kCoreVersion) + "_key/1.0");
    EXPECT_EQ(SCache::current()->version, "1700000000000");
    EXPECT_EQ(proxy_->topics, (std::vector<std::string>{"wpb.fconfig", "wpb.packconfig"}));
    EXPECT_EQ(Environment::instance().feature() & 1, 1u);
    EXPECT_EQ(errors(), (std::vector<std::string>{"NOT_START_UPDATE"}));
    EXPECT_EQ(logs_->count("configFirstUpdated"), 1u);

    Setup::startUpdate();
    const JSON report = Setup::statusReport();
    EXPECT_TRUE(report["error"].isNull());
    EXPECT_EQ(report["version"].stringValue(), kCoreVersion);
    EXPECT_TRUE(queueStarts().empty()) << "after an initial run the queue waits for its timer";
    EXPECT_EQ(logs_->count("compactDatabases"), 1u);
    // The queue timer's first tick is two minutes after the start of updating.
    clock_->advance(119000);
    TaskRunner::runDue();
    EXPECT_TRUE(queueStarts().empty());
    clock_->advance(2000);
    TaskRunner::runDue();
    EXPECT_EQ(queueStarts(), (std::vector<std::string>{"Timer"}));
    // The stored document survives in the packs store.
    const ErrorOr<std::string> text = PacksStore::instance().readConfig();
    EXPECT_NE(text.valueOr("").find("1700000000000"), std::string::npos) << text.error().message();
}

TEST_F(SetupTest, ModeZeroStartsUpdatingAfterFirstConfiguration) {
    Setup::setProxy(proxy_, temp_.root());
    Setup::setup("key", "1.0", SetupMode::kAutoUpdate);
    TaskRunner::runDue();
    EXPECT_TRUE(flags() & kUpdateStarted);
    EXPECT_TRUE(errors().empty());
}

// The host hears each step of start-up once, in turn, however often the calls that make them are
// repeated: set up, then configured, then updating.
TEST_F(SetupTest, StateChangeIsToldOncePerTransition) {
    Setup::setup("key", "1.0", SetupMode::kAutoUpdate);  // no proxy yet: nothing changes
    Setup::setProxy(proxy_, temp_.root());
    EXPECT_TRUE(proxy_->stateChangesSoFar().empty());
    Setup::setup("key", "1.0", SetupMode::kAutoUpdate);
    Setup::setup("key", "1.0", SetupMode::kAutoUpdate);
    auto changes = proxy_->stateChangesSoFar();
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].flags & (kSetupDone | kConfigFirstUpdated), kSetupDone);
    TaskRunner::runDue();  // the first configuration arrives, and updating starts by itself
    Setup::startUpdate();
    Setup::setup("key", "1.0", SetupMode::kAutoUpdate);
    changes = proxy_->stateChangesSoFar();
    ASSERT_EQ(changes.size(), 3u);
    EXPECT_EQ(changes[1].flags & (kConfigFirstUpdated | kUpdateStarted), kConfigFirstUpdated);
    EXPECT_TRUE(changes[2].flags & kUpdateStarted);
    for (const FakeProxy::StateChange& change : changes) EXPECT_TRUE(change.writable);
}

// The storage state is told on each flip between writable and read-only, not on each fault.
TEST_F(SetupTest, StorageStateChangeIsToldOnEachFlip) {
    Setup::setProxy(proxy_, temp_.root());
    StorageState::enterReadOnly(StorageState::Cause::DiskFull, temp_.root() + "apps/x");
    StorageState::enterReadOnly(StorageState::Cause::ReadOnlyFileSystem, temp_.root() + "packs");
    auto changes = proxy_->stateChangesSoFar();
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_FALSE(changes[0].writable);
    StorageState::markWritable();
    StorageState::markWritable();
    changes = proxy_->stateChangesSoFar();
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_TRUE(changes[1].writable);
}

TEST_F(SetupTest, SetupBeforeProxyStoresKeyAndCanBeRepeated) {
    Setup::setup("a b/c", "1.0", SetupMode::kAutoUpdate);
    EXPECT_EQ(Environment::instance().appKey(), "a+b%2Fc");
    EXPECT_EQ(flags(), 0u);
    EXPECT_EQ(TaskRunner::pendingCount(), 0u);
    EXPECT_TRUE(proxy_->requests.empty());
    Setup::setProxy(proxy_, temp_.root());
    Setup::setup("key", "1.0", SetupMode::kAutoUpdate);
    TaskRunner::runDue();
    EXPECT_EQ(proxy_->requests.size(), 1u);
    EXPECT_TRUE(flags() & kSetupDone);
}

// The host's work pool may run setProxy and setup at the same time. Each runs whole: setup either
// finds no proxy, stores the key and is repeated, or finds the services, folders and stored
// configuration in place and starts the first configuration update.
TEST_F(SetupTest, SetProxyAndSetupFromTwoThreadsRunOneAfterTheOther) {
    std::atomic<int> ready{0};
    auto together = [&ready] {
        ready.fetch_add(1);
        while (ready.load() < 2) std::this_thread::yield();
    };
    std::thread proxyThread([&] {
        together();
        Setup::setProxy(proxy_, temp_.root());
    });
    std::thread setupThread([&] {
        together();
        Setup::setup("key", "1.0", SetupMode::kHostStartsUpdate);
    });
    proxyThread.join();
    setupThread.join();
    EXPECT_EQ(Environment::instance().appKey(), "key");
    ASSERT_TRUE(Environment::instance().proxy());
    const bool setupFirst = (flags() & kSetupDone) == 0;
    EXPECT_EQ(TaskRunner::pendingCount() == 0, setupFirst)
        << "a setup that found the proxy has posted its first task; one that did not, nothing";
    if (setupFirst)
        Setup::setup("key", "1.0", SetupMode::kHostStartsUpdate);  // as the host repeats it
    TaskRunner::runDue();
    ASSERT_EQ(proxy_->requests.size(), 1u);
    EXPECT_EQ(proxy_->requests[0].url, kFirstUrl);
    EXPECT_EQ(SCache::current()->version, "1700000000000");
    EXPECT_EQ(errors(), (std::vector<std::string>{"NOT_START_UPDATE"}));
}

TEST_F(SetupTest, SecondSetupWithBitZeroClearStartsUpdating) {
    Setup::setProxy(proxy_, temp_.root());
    Setup::setup("key", "1.0", SetupMode::kHostStartsUpdate);
    TaskRunner::runDue();
    EXPECT_FALSE(flags() & kUpdateStarted);
    Setup::setup("key", "1.0", SetupMode::kHostStartsUpdate);
    EXPECT_FALSE(flags() & kUpdateStarted) << "bit 0 set: still the host's call";
    Setup::setup("key", "1.0", SetupMode::kAutoUpdate);
    EXPECT_TRUE(flags() & kUpdateStarted);
}

TEST_F(SetupTest, StartUpdateBeforeSetupLeavesAutoStartNothingToDo) {
    Setup::startUpdate();
    EXPECT_TRUE(flags() & kUpdateStarted);
    EXPECT_EQ(queueStarts(), (std::vector<std::string>{"Startup"}));
    Setup::setProxy(proxy_, temp_.root());
    Setup::setup("key", "1.0", SetupMode::kHostStartsUpdate);
    TaskRunner::runDue();
    clock_->advance(Setup::kAutoStartDelayMs);
    TaskRunner::runDue();
    EXPECT_EQ(logs_->count("autoStartUpdate"), 0u);
    EXPECT_TRUE(proxy_->events.empty() || std::find(proxy_->events.begin(), proxy_->events.end(),
                                                    "Ferrit.Init") == proxy_->events.end());
}

TEST_F(SetupTest, HostThatNeverStartsGetsAutoStartAfterFiveMinutes) {
    Setup::setProxy(proxy_, temp_.root());
    Setup::setup("key", "1.0", SetupMode::kHostStartsUpdate);
    TaskRunner::runDue();
    clock_->advance(Setup::kAutoStartDelayMs - 1);
    TaskRunner::runDue();
    EXPECT_FALSE(flags() & kUpdateStarted);
    clock_->advance(1);
    TaskRunner::runDue();
    EXPECT_TRUE(flags() & kUpdateStarted);
    auto entry = logs_->last("autoStartUpdate", "Ferrit/Setup");
    EXPECT_EQ(entry.level, 1);
    EXPECT_NE(std::find(proxy_->events.begin(), proxy_->events.end(), "Ferrit.Init"),
              proxy_->events.end());
}

TEST_F(SetupTest, StartUpdateTwiceHasTheEffectOfOnce) {
    Setup::startUpdate();
    Setup::startUpdate();
    EXPECT_EQ(queueStarts().size(), 1u);
    EXPECT_EQ(logs_->count("startUpdate", "Ferrit/Setup"), 1u);
}

TEST_F(SetupTest, DeactivationTwiceWithinTenMinutesCompactsOnce) {
    Setup::setProxy(proxy_, temp_.root());
    Setup::clientDeactived();
    clock_->advance(599999);
    Setup::clientDeactived();
    EXPECT_EQ(logs_->count("compactDatabases"), 1u);
    EXPECT_EQ(pauses(), 2u);
    clock_->advance(1);
    Setup::clientDeactived();
    EXPECT_EQ(logs_->count("compactDatabases"), 2u);
    EXPECT_TRUE(logs_->last("clientDeactived", "Ferrit/Event").has("time"));
}

// The host may end a process in the background without notice: counts the worker has not
// written yet are written by the deactivation itself, on the host's thread.
TEST_F(SetupTest, DeactivationWritesQueuedCounts) {
    Setup::setProxy(proxy_, temp_.root());
    Statistics::addAccess("shop@2", nullptr, 2.0);
    const std::string key = std::string(Statistics::kKeyPrefix) + "shop";
    ASSERT_FALSE(ConfigStore::instance().contains(key));
    std::thread host([] { Setup::clientDeactived(); });
    host.join();
    EXPECT_TRUE(ConfigStore::instance().contains(key));
    EXPECT_DOUBLE_EQ(ConfigStore::instance().get(key).valueOr(JSON())["c"].doubleValue(), 2.0);
    EXPECT_TRUE(ConfigStore::instance().contains(key + "@2"));
}

TEST_F(SetupTest, CompactionCoversTheContentCacheStore) {
    Setup::setProxy(proxy_, temp_.root());
    CachedResource resource;
    resource.body = std::string(64 * 1024, 'c');
    resource.md5 = "m";
    Error error;
    ASSERT_TRUE(Cache::instance().write("h.com/a.js", "ModuleCache", resource, error));
    const std::filesystem::path wal = temp_.path() / "cache" / "store.db-wal";
    ASSERT_TRUE(std::filesystem::exists(wal));
    ASSERT_GT(std::filesystem::file_size(wal), 0u);
    Setup::clientDeactived();
    EXPECT_EQ(logs_->count("compactDatabases"), 1u);
    // The log of the cache's database was checkpointed into it and emptied.
    EXPECT_EQ(std::filesystem::file_size(wal), 0u);
    std::unique_ptr<CachedResource> back = Cache::instance().read("h.com/a.js", "", error);
    ASSERT_NE(back, nullptr) << error.message();
    EXPECT_EQ(back->body, resource.body);
}

TEST_F(SetupTest, SameEnvironmentRequestsNoUpdate) {
    Setup::setProxy(proxy_, temp_.root());
    Setup::setup("key", "1.0", SetupMode::kAutoUpdate);
    TaskRunner::runDue();
    const size_t before = proxy_->requests.size();
    Setup::setEnv(2);
    TaskRunner::runDue();
    EXPECT_EQ(proxy_->requests.size(), before);
    Setup::setEnv(1);
    TaskRunner::runDue();
    EXPECT_EQ(proxy_->requests.size(), before + 1)
        << "a change after the first update checks at once";
}

TEST_F(SetupTest, EnvironmentSetBeforeFirstUpdateOnlyTakesEffect) {
    Setup::setEnv(1);
    EXPECT_EQ(Environment::instance().env(), 1);
    EXPECT_EQ(TaskRunner::pendingCount(), 0u);
}

TEST_F(SetupTest, ActivationWhenActiveRequestsNoUpdate) {
    Setup::setProxy(proxy_, temp_.root());
    Setup::setup("key", "1.0", SetupMode::kAutoUpdate);
    TaskRunner::runDue();
    const size_t before = proxy_->requests.size();
    clock_->advance(60000);
    Setup::clientActived();
    TaskRunner::runDue();
    EXPECT_EQ(proxy_->requests.size(), before);
    EXPECT_EQ(resumes(), 0u);
    Setup::clientDeactived();
    Setup::clientActived();
    TaskRunner::runDue();
    EXPECT_EQ(resumes(), 1u);
    EXPECT_EQ(proxy_->requests.size(), before + 1);
}

TEST_F(SetupTest, SubProcessSetupReportsNoMissingKey) {
    Setup::setProxy(proxy_, temp_.root());
    Setup::setupSubProcess();
    EXPECT_FALSE(Environment::instance().isMainProcess());
    EXPECT_EQ(Environment::instance().sessionName().rfind("Ferrit_SUB_", 0), 0u);
    EXPECT_EQ(Setup::statusReport()["process"].stringValue(), "sub");
    auto codes = errors();
    EXPECT_EQ(std::find(codes.begin(), codes.end(), "NO_APPKEY"), codes.end());
}

TEST_F(SetupTest, SubProcessReloadsWhatTheMainProcessWrote) {
    Setup::setProxy(proxy_, temp_.root());
    ASSERT_FALSE(PacksStore::instance().writeConfig(R"({"v":"77"})"));
    Setup::reloadConfig();
    EXPECT_EQ(SCache::current()->version, "0") << "a main process owns its document";
    Setup::setupSubProcess();
    Setup::reloadConfig();
    EXPECT_EQ(SCache::current()->version, "77");
}

TEST_F(SetupTest, MissingKeyAndVersionAreReported) {
    Setup::setProxy(proxy_, temp_.root());
    Setup::setup("", "", SetupMode::kHostStartsUpdate);
    auto codes = errors();
    EXPECT_EQ(codes[0], "NO_APPKEY");
    Setup::setup("k", "", SetupMode::kHostStartsUpdate);
    EXPECT_EQ(errors()[0], "NO_APPVERSION");
}

TEST_F(SetupTest, EmptyRootIsReportedAndLogged) {
    Setup::setProxy(proxy_, "");
    setRootPath("/nonexistent-ferrit-root/");
    EXPECT_EQ(errors()[0], "ROOT_NOT_EXIST");
    auto entry = logs_->last("initFolder", "Ferrit/Setup");
    EXPECT_EQ(entry.level, 1);
    EXPECT_EQ(entry.errorCode, std::to_string(Errors::kCreateFolderFailed));
}

TEST_F(SetupTest, NetworkStatusIsLoggedOnChangeOnly) {
    Setup::setNetworkStatus(NetworkStatus::kUnrestricted);
    Setup::setNetworkStatus(NetworkStatus::kUnrestricted);
    EXPECT_EQ(logs_->count("networkStatus", "Ferrit/Event"), 1u);
    EXPECT_EQ(Environment::instance().networkStatus(), NetworkStatus::kUnrestricted);
}

TEST_F(SetupTest, InspectorAgentAnswersInfo) {
    Setup::setProxy(proxy_, temp_.root());
    Setup::setup("key", "1.0", SetupMode::kHostStartsUpdate);
    JSON info;
    bool succeeded = false;
    EXPECT_TRUE(MarlLogger::Inspector::sendCommand("FerritDev.info", JSON(),
                                                   [&](bool success, const JSON& data) {
                                                       succeeded = success;
                                                       info = data;
                                                   }));
    EXPECT_TRUE(succeeded);
    EXPECT_EQ(info["version"].stringValue(), kCoreVersion);
    EXPECT_EQ(info["process"].stringValue(), "main");
}

}  // namespace
}  // namespace FerritTest
