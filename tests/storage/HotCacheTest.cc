// ModuleCache and UniApp over the content cache: what each stores, how their lists follow reads and
// writes, what eviction lets go of, and the deferred save of their lists.
#include <gtest/gtest.h>

#include "base/Environment.h"
#include "base/Errors.h"
#include "marl/Clock.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "storage/Cache.h"
#include "storage/ConfigStore.h"
#include "storage/ModuleCache.h"
#include "storage/UniApp.h"
#include "tests/storage/CacheFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

using FerritCore::Cache;
using FerritCore::CachedResource;
using FerritCore::ConfigStore;
using FerritCore::Error;
using FerritCore::ModuleCache;
using FerritCore::Settings;
using FerritCore::TaskRunner;
using FerritCore::UniApp;
using MarlLogger::json::JSON;

class HotCacheTest : public CacheFixture {
  protected:
    double now() { return MRLCurrentTime(); }
    // A module that stays fresh for an hour.
    CachedResource fresh(const std::string& body) { return resourceOf(body, 0, now() + 3600000); }
    JSON storedList(const std::string& key) {
        return ConfigStore::instance().get(key).valueOr(JSON())["r"];
    }
};

TEST_F(HotCacheTest, ModuleCacheRefusesAnExpiredResourceAndDropsTheOldOne) {
    Error error;
    ASSERT_TRUE(ModuleCache::instance().update("h/m.js", fresh("v1"), error));
    ASSERT_TRUE(ModuleCache::instance().contains("h/m.js"));

    EXPECT_FALSE(ModuleCache::instance().update("h/m.js", resourceOf("v2", 0, now()), error));
    EXPECT_EQ(error.code(), Errors::kResourceExpired);
    EXPECT_EQ(error.message().rfind("resource out of date, expires: ", 0), 0u);
    EXPECT_FALSE(ModuleCache::instance().contains("h/m.js"));
    // Its only owner let go: the content is gone too.
    EXPECT_EQ(Cache::instance().read("h/m.js", "", error), nullptr);
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
}

TEST_F(HotCacheTest, UniAppStoresAnExpiredResource) {
    Error error;
    EXPECT_TRUE(UniApp::instance().update("h/u.html", resourceOf("page", 0, now() - 1), error));
    EXPECT_FALSE(error);
    EXPECT_TRUE(UniApp::instance().contains("h/u.html"));
    auto read = UniApp::instance().read("h/u.html", error);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(read->body, "page");
}

TEST_F(HotCacheTest, UniAppMaxSizeZeroGivenExplicitlyEvictsEachNewNode) {
    Settings::change([](Settings& s) { s.uniAppMaxSize = 0; });
    Error error;
    ASSERT_TRUE(UniApp::instance().update("h/1", resourceOf("one"), error));
    EXPECT_EQ(UniApp::instance().list().maxSize(), 0);
    EXPECT_TRUE(UniApp::instance().contains("h/1"));
    ASSERT_TRUE(UniApp::instance().update("h/2", resourceOf("two"), error));
    EXPECT_FALSE(UniApp::instance().contains("h/1"));
    EXPECT_TRUE(UniApp::instance().contains("h/2"));
    EXPECT_EQ(Cache::instance().read("h/1", "", error), nullptr);
    EXPECT_EQ(logs_.sink().count("evict", "Ferrit/UniApp"), 1u);
}

TEST_F(HotCacheTest, UniAppWithoutTheSettingKeepsTheDefaultLimit) {
    EXPECT_EQ(UniApp::instance().list().maxSize(), 52428800);
    EXPECT_EQ(ModuleCache::instance().list().maxSize(), 52428800);
    EXPECT_EQ(ModuleCache::instance().list().hotCount(), 100u);
}

TEST_F(HotCacheTest, ModuleCacheLimitsComeFromTheSettings) {
    Settings::change([](Settings& s) {
        s.moduleCacheMaxSize = 1000;
        s.moduleCacheMaxSizeOpt = 20;
        s.moduleCacheMinHotSize = 1;
    });
    Error error;
    ASSERT_TRUE(ModuleCache::instance().update("h/a", fresh("aaaaaaaaaa"), error));
    ASSERT_TRUE(ModuleCache::instance().update("h/b", fresh("bbbbbbbbbb"), error));
    ASSERT_TRUE(ModuleCache::instance().update("h/c", fresh("cccccccccc"), error));
    EXPECT_EQ(ModuleCache::instance().list().maxSize(), 20);
    EXPECT_FALSE(ModuleCache::instance().contains("h/a"));
    // What the list let go of lost its only owner in the cache.
    EXPECT_EQ(Cache::instance().read("h/a", "", error), nullptr);
    EXPECT_EQ(Cache::instance().totalSize(), 20);
    const auto evict = logs_.sink().last("evict", "Ferrit/ModuleCache");
    EXPECT_EQ(evict.field("originSize").int64Value(), 30);
    EXPECT_EQ(evict.field("newSize").int64Value(), 20);
    EXPECT_EQ(evict.field("count").int64Value(), 1);
}

TEST_F(HotCacheTest, ReadMissTakesTheUrlOffTheListAndAHitCounts) {
    Error error;
    ASSERT_TRUE(ModuleCache::instance().update("h/m.js", fresh("v1"), error));
    auto read = ModuleCache::instance().read("h/m.js", error);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(ModuleCache::instance().list().hits("h/m.js"), 2u);

    Cache::instance().removeReference("h/m.js", ModuleCache::kName);
    EXPECT_EQ(ModuleCache::instance().read("h/m.js", error), nullptr);
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
    EXPECT_FALSE(ModuleCache::instance().contains("h/m.js"));
}

TEST_F(HotCacheTest, ManyAddsCostOneWriteOfTheListASecondLater) {
    Error error;
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(ModuleCache::instance().update("h/" + std::to_string(i), fresh("x"), error));
    EXPECT_EQ(TaskRunner::pendingCount(), 1u);
    EXPECT_EQ(TaskRunner::runDue(), 0u);  // not due yet
    EXPECT_TRUE(storedList(ModuleCache::kKey).isNull());
    clock_->advance(1000);
    EXPECT_EQ(TaskRunner::runDue(), 1u);
    EXPECT_EQ(storedList(ModuleCache::kKey)["nodes"].size(), 10u);

    // The next add schedules the next write.
    ASSERT_TRUE(ModuleCache::instance().update("h/late", fresh("x"), error));
    EXPECT_EQ(TaskRunner::pendingCount(), 1u);
    clock_->advance(1000);
    TaskRunner::runDue();
    EXPECT_EQ(storedList(ModuleCache::kKey)["nodes"].size(), 11u);
}

TEST_F(HotCacheTest, UniAppKeepsItsListUnderItsOwnKey) {
    Error error;
    ASSERT_TRUE(UniApp::instance().update("h/u", resourceOf("u"), error));
    clock_->advance(1000);
    TaskRunner::runDue();
    EXPECT_EQ(storedList("UniApp_list")["nodes"].size(), 1u);
    EXPECT_TRUE(storedList("ModuleCache").isNull());
}

TEST_F(HotCacheTest, SubProcessNeverWritesTheList) {
    FerritCore::Environment::instance().setMainProcess(false);
    Error error;
    ASSERT_TRUE(ModuleCache::instance().update("h/a", fresh("x"), error));
    EXPECT_EQ(TaskRunner::pendingCount(), 0u);
}

TEST_F(HotCacheTest, ListSurvivesARestart) {
    Error error;
    ASSERT_TRUE(ModuleCache::instance().update("h/a", fresh("aa"), error));
    ASSERT_TRUE(ModuleCache::instance().update("h/b", fresh("bbb"), error));
    clock_->advance(1000);
    TaskRunner::runDue();
    restart();
    EXPECT_TRUE(ModuleCache::instance().contains("h/a"));
    EXPECT_EQ(ModuleCache::instance().size(), 5);
    auto read = ModuleCache::instance().read("h/b", error);
    ASSERT_NE(read, nullptr) << error.message();
    EXPECT_EQ(read->body, "bbb");
}

TEST_F(HotCacheTest, ClearedListIsWrittenEmpty) {
    Error error;
    ASSERT_TRUE(ModuleCache::instance().update("h/a", fresh("aa"), error));
    ModuleCache::instance().clear();
    EXPECT_EQ(ModuleCache::instance().count(), 0u);
    clock_->advance(1000);
    TaskRunner::runDue();
    EXPECT_EQ(storedList(ModuleCache::kKey)["nodes"].size(), 0u);
}

}  // namespace
}  // namespace FerritTest
