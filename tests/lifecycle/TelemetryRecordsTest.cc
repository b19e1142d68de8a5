// Every performance record the system sends, each driven through its real flow and caught by the
// recording proxy, with the whole set of dimension and measure names that its event promises.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/Folder.h"
#include "lifecycle/DevInspector.h"
#include "lifecycle/Services.h"
#include "lifecycle/Setup.h"
#include "model/FConfig.h"
#include "storage/Cache.h"
#include "storage/ConfigStore.h"
#include "storage/KeyValueStore.h"
#include "storage/PacksStore.h"
#include "storage/Statistics.h"
#include "tests/update/InstallFixture.h"
#include "update/Cleanup.h"
#include "update/UpdateConfig.h"

namespace FerritTest {
namespace {

using namespace FerritCore;

struct Fields {
    std::vector<std::string> dimensions;
    std::vector<std::string> measures;
};

// What each event carries whenever it is sent (an error's "errorCode" and "errorMsg" only where
// the event always is a failure).
const std::map<std::string, Fields>& expectedFields() {
    static const auto* const table = new std::map<std::string, Fields>{
        {"Ferrit.Init", {{"errorCode", "errorMsg"}, {}}},
        {"Ferrit.CacheInit",
         {{},
          {"resCount", "resSize", "UniAppCount", "UniAppSize", "ModuleCacheCount",
           "ModuleCacheSize", "smallDiskSize", "largeDiskSize", "time"}}},
        {"Ferrit.ConfigInit", {{}, {"diskSize", "time"}}},
        {"Ferrit.ConfigUpdate",
         {{"trigger", "originVersion", "targetVersion", "configURL", "updatedVersion"},
          {"downloaded", "updated", "fileSize"}}},
        {"Ferrit.AppUpdate",
         {{"appName", "trigger", "packType", "oldSeq", "newSeq", "incr", "fileURL", "online"},
          {"waitingTime", "configLoaded", "fileLoaded", "decrypted", "unzipped", "updateFinished",
           "fileSize", "expectedSize", "resSize", "notificationTime", "publishTime"}}},
        {"Ferrit.Cleanup",
         {{"trigger", "type", "coreVersion"},
          {"interval", "originDiskSize", "sizeLimit", "packCount", "installedSize",
           "longTermPackCount", "longTermSize", "accessCount", "installedPackCount",
           "accessedPackCount", "eliminatedPackCount", "eliminatedAccessCount", "eliminatedSize",
           "diskSize"}}},
        {"Ferrit.CacheClear", {{}, {"interval", "originDiskSize", "time", "diskSize"}}},
        {"Ferrit.AppVisit",
         {{"appName", "packSeq", "trigger", "installed", "visitType", "configVersion"},
          {"time", "matchTime", "readFileTime", "accessCount"}}},
        {"Ferrit.VisitPerf", {{"resourceCount", "type"}, {"readTime", "time"}}},
        {"Ferrit.Prefetch", {{"packName"}, {"prefetchCount", "accessCount"}}},
        {"Ferrit.OnDemand", {{"tag", "path"}, {"time"}}},
        {"Ferrit.Storage", {{"path", "errorCode"}, {}}},
        {"Ferrit.ConfigDiskError", {{"packName", "configContent"}, {}}},
    };
    return *table;
}

class TelemetryRecordsTest : public InstallFixture {
  protected:
    void SetUp() override {
        InstallFixture::SetUp();
        Services::wire();
        Services::attachAssets("");
    }

    // The first record of `event` carries every promised name, and every one also has
    // "sessionID".
    void expectSentInFull(const std::string& event) {
        const auto records = proxy_->named(event);
        ASSERT_FALSE(records.empty()) << event << " was not sent";
        const Fields& fields = expectedFields().at(event);
        EXPECT_EQ(FakeProxy::missingFields(records[0], fields.dimensions, fields.measures),
                  std::vector<std::string>{})
            << event;
        EXPECT_EQ(records[0].dimensions.count("sessionID"), 1u) << event;
    }
};

TEST_F(TelemetryRecordsTest, InitIsSentInFull) {
    Setup::autoStartUpdate();
    expectSentInFull("Ferrit.Init");
    EXPECT_EQ(proxy_->named("Ferrit.Init")[0].dimensions.at("errorCode"),
              std::to_string(Errors::kStartUpdateNotCalled));
}

TEST_F(TelemetryRecordsTest, CacheInitIsSentInFull) {
    Cache::instance();
    expectSentInFull("Ferrit.CacheInit");
}

TEST_F(TelemetryRecordsTest, ConfigInitIsSentInFull) {
    ProcessState::resetForTesting();
    setRootPath(temp_.root());
    Environment::instance().setProxy(proxy_);
    ConfigStore::instance();
    expectSentInFull("Ferrit.ConfigInit");
}

TEST_F(TelemetryRecordsTest, ConfigUpdateIsSentInFull) {
    Environment::instance().setApp("key", "1.0");
    proxy_->serve("https://cfg.test/fconfig/key/1.0/0~0/~", 200,
                  FakeProxy::sign(R"({"v":"1700000000001"})"));
    UpdateConfig::instance().start(kTriggerDebugTool, "0", nullptr, 0);
    drive();
    ASSERT_FALSE(proxy_->requests.empty());
    expectSentInFull("Ferrit.ConfigUpdate");
}

TEST_F(TelemetryRecordsTest, AppUpdateIsSentInFull) {
    installShop();
    expectSentInFull("Ferrit.AppUpdate");
}

TEST_F(TelemetryRecordsTest, AppVisitAndVisitPerfAreSentInFull) {
    installShop();
    const Answer answer = read("index.html");
    ASSERT_FALSE(answer.error) << answer.error.message();
    expectSentInFull("Ferrit.AppVisit");
    expectSentInFull("Ferrit.VisitPerf");
}

TEST_F(TelemetryRecordsTest, CleanupIsSentInFull) {
    installShop();
    static_cast<void>(Cleanup::runCleanup(kCleanupManual));
    expectSentInFull("Ferrit.Cleanup");
}

TEST_F(TelemetryRecordsTest, CacheClearIsSentInFull) {
    DevInspector::clear();
    expectSentInFull("Ferrit.CacheClear");
}

TEST_F(TelemetryRecordsTest, PrefetchIsSentInFull) {
    Statistics::addPrefetch("shop@3");
    Statistics::decay();
    expectSentInFull("Ferrit.Prefetch");
}

TEST_F(TelemetryRecordsTest, OnDemandIsSentInFull) {
    proxy_->assets["Ferrit_Asset_od/1/res/a.js"] = "od";
    bool done = false;
    Folder::readFileAsync(Folder::onDemand("Ferrit_Asset_od", "Ferrit_Asset_od/1/res/a.js"),
                          [&](std::string, Error) { done = true; });
    drive();
    EXPECT_TRUE(done);
    expectSentInFull("Ferrit.OnDemand");
}

TEST_F(TelemetryRecordsTest, StorageIsSentInFull) {
    PacksStore::instance().close();
    {
        std::ofstream out(temp_.path() / "packs" / KeyValueStore::kFileName,
                          std::ios::binary | std::ios::trunc);
        out << std::string(20000, '\x5a');
    }
    PacksStore::instance().open();
    expectSentInFull("Ferrit.Storage");
}

TEST_F(TelemetryRecordsTest, ConfigDiskErrorIsSentInFull) {
    Error error;
    static_cast<void>(FConfig::parse(R"({"v":"1","packs":{"bad":{"f":32},"good":{"s":1}}})", "test",
                                     error, false));
    expectSentInFull("Ferrit.ConfigDiskError");
}

}  // namespace
}  // namespace FerritTest
