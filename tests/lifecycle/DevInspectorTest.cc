#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/Folder.h"
#include "base/ProcessState.h"
#include "ferritcore/Access.h"
#include "lifecycle/DevInspector.h"
#include "lifecycle/Setup.h"
#include "marl/Clock.h"
#include "marl/Inspector.h"
#include "marl/Log.h"
#include "model/SCache.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "storage/Cache.h"
#include "storage/ModuleCache.h"
#include "storage/UniApp.h"
#include "tests/FakeProxy.h"
#include "tests/TestUtil.h"
#include "update/UpdatePack.h"

namespace FerritTest {
namespace {

using namespace FerritCore;
using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;

const char* kConfigUrl = "https://cfg.test/fconfig/key/1.0/0~0/~";
const char* kAppUrl = "https://h.com/app/app.js";
const char* kBody = "console.log('inspected');";

struct Reply {
    bool answered = false;
    bool success = false;
    JSON data;
};

class DevInspectorTest : public ProcessTest {
  protected:
    void SetUp() override {
        ProcessTest::SetUp();
        HostDefaults defaults;
        defaults.configPrefix = "https://cfg.test/";
        Settings::setDefaults(defaults);
        proxy_ = std::make_shared<FakeProxy>();
        proxy_->serve(kConfigUrl, 200, FakeProxy::sign(R"({"v":"1700000000000"})"));
        Setup::setProxy(proxy_, temp_.root());
        Setup::setup("key", "1.0", SetupMode::kHostStartsUpdate);
        TaskRunner::runDue();
    }

    Reply send(const std::string& command, JSON params = JSON(JSONObject())) {
        Reply reply;
        const bool known = MarlLogger::Inspector::sendCommand(
            command, params, [&reply](bool success, const JSON& data) {
                reply.answered = true;
                reply.success = success;
                reply.data = data;
            });
        EXPECT_TRUE(known) << command;
        return reply;
    }

    // One pack "app" of the incremental kind, installed at 3 under "apps/", serving kAppUrl.
    void installApp() {
        auto pack = std::make_shared<Pack>();
        pack->name = "app";
        pack->flags = kPackTypeFerrit;
        pack->seq = 3;
        pack->installedSeq = 3;
        pack->installedSize = 1000;
        pack->prefixes = {"https://h.com/app/"};
        pack->updateTime = MRLCurrentTime();
        SCache::mutate([&](FConfig& config) {
            config.version = "42";
            config.lastUpdate = MRLCurrentTime();
            config.put(pack);
        });
        TaskRunner::runDue();
        JSON table;
        JSON entry;
        entry.set("url", kAppUrl);
        entry.set("v", "0123456789abcdef0123456789abcdef");
        table.set("res/app.js", entry);
        writeFile("apps/app/3/app-res.hvc", FakeProxy::signIndex(table.toString()));
        writeFile("apps/app/3/res/app.js", kBody);
    }

    void writeFile(const std::string& relative, const std::string& content) {
        const std::filesystem::path path = temp_.path() / relative;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << content;
    }

    MarlLogger::ScopedManualClock clock_;
    MarlLogger::ScopedCapture logs_;
    std::shared_ptr<FakeProxy> proxy_;
};

TEST_F(DevInspectorTest, AgentRegistersPrefetchAndSixteenCommands) {
    const std::vector<std::string> commands = MarlLogger::Inspector::commands();
    EXPECT_EQ(commands.size(), 17u);
    EXPECT_NE(std::find(commands.begin(), commands.end(), "Ferrit.prefetch"), commands.end());
    EXPECT_NE(std::find(commands.begin(), commands.end(), "FerritDev.statisitcs"), commands.end());
}

TEST_F(DevInspectorTest, SetEnabledFalseMakesNextRequestFailWith3003) {
    installApp();
    EXPECT_FALSE(Access::getResource(ResourceRequest(kAppUrl, ""))->error);
    Reply reply = send("FerritDev.setEnabled", JSONObject{{"enabled", false}});
    EXPECT_TRUE(reply.success);
    auto response = Access::getResource(ResourceRequest(kAppUrl, ""));
    EXPECT_EQ(response->error.code(), Errors::kDisabled);
    EXPECT_EQ(response->error.message(), "Ferrit disabled by develop tool");
    EXPECT_EQ(send("FerritDev.isEnabled").data, JSON(JSONObject{{"enabled", false}}));
    send("FerritDev.setEnabled", JSONObject{{"enabled", true}});
    EXPECT_EQ(send("FerritDev.isEnabled").data, JSON(JSONObject{{"enabled", true}}));
    response = Access::getResource(ResourceRequest(kAppUrl, ""));
    EXPECT_FALSE(response->error);
    EXPECT_EQ(response->data, kBody);
}

TEST_F(DevInspectorTest, GetURLListOfUnknownPackFailsWhileReadDiskFileListAnswersEmpty) {
    Reply list = send("FerritDev.getURLList", JSONObject{{"packName", "none"}});
    EXPECT_TRUE(list.answered);
    EXPECT_FALSE(list.success);
    EXPECT_EQ(list.data["message"].stringValue(), "未找到配置");
    Reply files = send("FerritDev.readDiskFileList", JSONObject{{"packName", "none"}});
    EXPECT_TRUE(files.success);
    EXPECT_EQ(files.data, JSON(JSONObject()));
}

TEST_F(DevInspectorTest, GetURLListAndFilesOfInstalledPack) {
    installApp();
    Reply list = send("FerritDev.getURLList", JSONObject{{"packName", "app"}});
    EXPECT_TRUE(list.success);
    EXPECT_EQ(list.data["urls"], JSON(std::vector<std::string>{kAppUrl}));
    Reply files = send("FerritDev.readDiskFileList", JSONObject{{"packName", "app"}});
    EXPECT_TRUE(files.success);
    EXPECT_EQ(files.data["files"].size(), 2u);
}

TEST_F(DevInspectorTest, GetURLInfoReportsTheMatchWithoutReading) {
    installApp();
    Reply info = send("FerritDev.getURLInfo",
                      JSONObject{{"url", kAppUrl}, {"referrer", ""}, {"accept", "*/*"}});
    EXPECT_TRUE(info.success);
    EXPECT_TRUE(info.data["error"].isNull()) << info.data.toString();
    EXPECT_EQ(info.data["parts"].size(), 1u);
    EXPECT_NE(info.data["parts"][size_t{0}]["name"].stringValue().find("app@3"), std::string::npos);
    Reply miss = send("FerritDev.getURLInfo", JSONObject{{"url", "https://x.com/a.js"}});
    EXPECT_EQ(miss.data["error"]["code"].int32Value(), Errors::kNotFerritResource);
}

TEST_F(DevInspectorTest, ClearInSubProcessDoesNothingButLog) {
    installApp();
    Environment::instance().setMainProcess(false);
    EXPECT_TRUE(send("FerritDev.clear").success);
    EXPECT_NE(SCache::current()->find("app"), nullptr);
    EXPECT_TRUE(std::filesystem::exists(temp_.path() / "apps/app/3/res/app.js"));
    EXPECT_TRUE(proxy_->named("Ferrit.CacheClear").empty());
    auto entry = logs_->last("Clear", "Ferrit");
    EXPECT_EQ(entry.errorCode, std::to_string(Errors::kSubProcessDisabled));
    EXPECT_EQ(entry.errorMessage, "sub process clear disabled");
}

TEST_F(DevInspectorTest, ClearEmptiesPacksAndRecordsIt) {
    installApp();
    EXPECT_TRUE(send("FerritDev.clear").success);
    TaskRunner::runDue();
    EXPECT_TRUE(SCache::current()->packs().empty());
    EXPECT_FALSE(std::filesystem::exists(temp_.path() / "apps/app"));
    EXPECT_TRUE(std::filesystem::is_directory(temp_.path() / "apps"));
    EXPECT_EQ(Access::getResource(ResourceRequest(kAppUrl, ""))->error.code(),
              Errors::kNotFerritResource);
    const auto records = proxy_->named("Ferrit.CacheClear");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].measures.at("interval"), 0.0);
    EXPECT_GT(records[0].measures.at("originDiskSize"), 0.0);
    EXPECT_TRUE(logs_->last("Clear", "Ferrit").has("diskSize"));
}

TEST_F(DevInspectorTest, SecondClearHasPositiveInterval) {
    send("FerritDev.clear");
    clock_->advance(5000);
    send("FerritDev.clear");
    const auto records = proxy_->named("Ferrit.CacheClear");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].measures.at("interval"), 0.0);
    EXPECT_EQ(records[1].measures.at("interval"), 5000.0);
}

TEST_F(DevInspectorTest, SizeReportCountsPacksOnceByType) {
    installApp();
    SCache::mutate([](FConfig& config) {
        auto asset = std::make_shared<Pack>();
        asset->name = "kit";
        asset->flags = kPackTypeSCache;
        asset->seq = 1;
        asset->installedSize = 7;
        config.put(asset);
        auto app = std::make_shared<Pack>();
        app->name = "whole";
        app->flags = kPackTypeACache;
        app->seq = 2;
        app->installedSeq = 2;
        app->installedSize = 50;
        config.put(app);
    });
    Reply size = send("FerritDev.size");
    EXPECT_TRUE(size.success);
    EXPECT_EQ(size.data["Ferrit"], JSON(JSONObject{{"count", 1}, {"size", 1000}}));
    EXPECT_EQ(size.data["SCache"], JSON(JSONObject{{"count", 1}, {"size", 7}}));
    EXPECT_EQ(size.data["ACache"], JSON(JSONObject{{"count", 1}, {"size", 50}}));
    EXPECT_GT(size.data["diskSize"]["ACache"].uint64Value(), 0u);
    EXPECT_TRUE(size.data["diskSize"].objectValue().find("config") != nullptr);
}

TEST_F(DevInspectorTest, UpdateAnswersWhenTheRunFinishes) {
    proxy_->serve(kConfigUrl, 200, FakeProxy::sign(R"({"v":"1700000000001"})"));
    Reply reply = send("FerritDev.update");
    EXPECT_FALSE(reply.answered);
    TaskRunner::runDue();
    EXPECT_TRUE(reply.answered);
    EXPECT_TRUE(reply.success) << reply.data.toString();
    // No pack was updated in this process: the answer is as it always was.
    EXPECT_EQ(reply.data, JSON(JSONObject())) << reply.data.toString();
}

TEST_F(DevInspectorTest, UpdateReportsTheLatestPackUpdates) {
    installApp();
    // A newer version that this process cannot fetch: the run fails, and says so.
    SCache::mutate([](FConfig& config) {
        auto pack = config.find("app")->clone();
        pack->seq = 4;
        config.put(pack);
    });
    TaskRunner::runDue();
    auto task = UpdatePack::create("app", JSON(), kTriggerDebugTool);
    TaskRunner::post([task] { task->start(); });
    while (TaskRunner::runDue() > 0) {
    }
    ASSERT_TRUE(task->error());
    proxy_->serve(kConfigUrl, 200, FakeProxy::sign(R"({"v":"1700000000001"})"));
    Reply reply = send("FerritDev.update");
    TaskRunner::runDue();
    ASSERT_TRUE(reply.success) << reply.data.toString();
    const JSON& packs = reply.data["packs"];
    ASSERT_TRUE(packs.isArray()) << reply.data.toString();
    ASSERT_EQ(packs.size(), 1u) << reply.data.toString();
    EXPECT_EQ(packs[size_t{0}]["name"].stringValue(), "app");
    EXPECT_EQ(packs[size_t{0}]["seq"].uint64Value(), 4u);
    EXPECT_EQ(packs[size_t{0}]["error"].stringValue(), task->error().message());
    EXPECT_TRUE(packs[size_t{0}]["form"].isNull()) << "nothing was installed";
    // The reset between tests leaves the next one a process that updated nothing.
    ProcessState::resetForTesting();
    EXPECT_TRUE(UpdatePack::recentOutcomes().empty());
}

TEST_F(DevInspectorTest, CleanupAnswersWithTheCleanedPacks) {
    SCache::mutate([](FConfig& config) {
        auto idle = std::make_shared<Pack>();
        idle->name = "idle";
        idle->flags = kPackTypeFerrit;
        idle->seq = 1;
        idle->installedSeq = 1;
        idle->installedSize = 10;
        config.put(idle);
    });
    Reply reply = send("FerritDev.cleanup");
    EXPECT_FALSE(reply.answered) << "the run belongs to the worker";
    TaskRunner::runDue();
    ASSERT_TRUE(reply.answered);
    EXPECT_TRUE(reply.success);
    ASSERT_EQ(reply.data["cleanedApps"].arrayValue().size(), 1u);
    EXPECT_EQ(reply.data["cleanedApps"][size_t{0}].stringValue(), "idle");
    EXPECT_EQ(SCache::current()->find("idle")->status, kPackStatusEliminated);
    EXPECT_EQ(logs_->last("cleanup", "Ferrit/Task").field("trigger").stringValue(), "DebugTool");
}

// A module file stored the way a fetched one is, fresh for a long while.
CachedResource freshModule(size_t size) {
    CachedResource resource;
    resource.body = std::string(size, 'm');
    resource.md5 = "m";
    resource.expires = MRLCurrentTime() + 3600e3;
    return resource;
}

TEST_F(DevInspectorTest, SizeReportCountsTheCachesAndTheirDatabase) {
    Error error;
    ASSERT_TRUE(ModuleCache::instance().update("h.com/m/a.js", freshModule(300), error))
        << error.message();
    ASSERT_TRUE(ModuleCache::instance().update("h.com/m/b.js", freshModule(200), error))
        << error.message();
    ASSERT_TRUE(UniApp::instance().update("h.com/u/c.js", freshModule(40), error))
        << error.message();
    Reply size = send("FerritDev.size");
    ASSERT_TRUE(size.success);
    EXPECT_EQ(size.data["ModuleCache"], JSON(JSONObject{{"count", 2}, {"size", 500}}));
    EXPECT_EQ(size.data["UniApp"], JSON(JSONObject{{"count", 1}, {"size", 40}}));
    EXPECT_GT(size.data["diskSize"]["small"].uint64Value(), 0u);
    // Nothing was large enough for a file of its own.
    EXPECT_EQ(size.data["diskSize"]["large"].uint64Value(), 0u);
}

TEST_F(DevInspectorTest, ModuleCacheMetaDumpsTheListInItsOrder) {
    Error error;
    ASSERT_TRUE(ModuleCache::instance().update("h.com/m/a.js", freshModule(300), error));
    ASSERT_TRUE(ModuleCache::instance().update("h.com/m/b.js", freshModule(200), error));
    Reply meta = send("FerritDev.moduleCacheMeta");
    ASSERT_TRUE(meta.success);
    EXPECT_EQ(meta.data["count"].uint64Value(), 2u);
    EXPECT_EQ(meta.data["size"].int64Value(), 500);
    ASSERT_EQ(meta.data["nodes"].size(), 2u);
    // The newest joins at the front.
    EXPECT_EQ(meta.data["nodes"][size_t{0}]["k"].stringValue(), "h.com/m/b.js");
    EXPECT_EQ(meta.data["nodes"][size_t{1}]["s"].int64Value(), 300);
}

TEST_F(DevInspectorTest, ClearEmptiesTheContentCacheAndModuleCache) {
    Error error;
    ASSERT_TRUE(ModuleCache::instance().update("h.com/m/a.js", freshModule(300), error));
    ASSERT_EQ(Cache::instance().entryCount(), 1u);
    EXPECT_TRUE(send("FerritDev.clear").success);
    EXPECT_EQ(Cache::instance().entryCount(), 0u);
    EXPECT_EQ(ModuleCache::instance().count(), 0u);
    EXPECT_EQ(Cache::instance().read("h.com/m/a.js", "ModuleCache", error), nullptr);
}

TEST_F(DevInspectorTest, PrefetchTakesTheKeysAsUrls) {
    Reply reply =
        send("Ferrit.prefetch", JSONObject{{"https://h.com/a.js", 1}, {"https://h.com/b.js", 0}});
    EXPECT_TRUE(reply.success);
    const JSON result = logs_->last("trigger", "Ferrit/Prefetch").field("result");
    EXPECT_EQ(result["https://h.com/a.js"]["status"].stringValue(), "notFerritResource");
    EXPECT_EQ(result["https://h.com/b.js"]["status"].stringValue(), "notFerritResource");
}

TEST_F(DevInspectorTest, PreviewPackAnswersWithTheResultOfThePreview) {
    Reply reply = send("FerritDev.previewPack", JSONObject{{"packName", "shop"}, {"seq", 77}});
    EXPECT_FALSE(reply.answered) << "the configuration request is under way";
    TaskRunner::runDue();
    ASSERT_TRUE(reply.answered);
    EXPECT_FALSE(reply.success);
    EXPECT_NE(reply.data["message"].stringValue().find("rpc/preview/packConfig/77?v="),
              std::string::npos)
        << reply.data.toString();
}

TEST_F(DevInspectorTest, DumpsAnswerWithDocuments) {
    installApp();
    EXPECT_EQ(send("FerritDev.fconfig").data["v"].stringValue(), "42");
    EXPECT_TRUE(send("FerritDev.config").data.isObject());
    EXPECT_EQ(send("FerritDev.indexes").data["prefixIndex"]["https://h.com/app/"].stringValue(),
              "app");
    Access::getResource(ResourceRequest(kAppUrl, ""))->setFinished(Error());
    EXPECT_TRUE(send("FerritDev.statisitcs").data.isObject());
    EXPECT_EQ(send("FerritDev.info").data["process"].stringValue(), "main");
}

TEST_F(DevInspectorTest, SubProcessRegistersNoAgent) {
    ProcessState::resetForTesting();
    setRootPath(temp_.root());
    Setup::setProxy(proxy_, temp_.root());
    Setup::setupSubProcess();
    EXPECT_TRUE(MarlLogger::Inspector::commands().empty());
}

}  // namespace
}  // namespace FerritTest
