// Preview installs: a pack configuration and a zip fetched by id from the publishing platform
// through the test proxy, a record with status 3, and the fast lane of the queue.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/AssetProvider.h"
#include "model/BuiltinConfig.h"
#include "tests/update/InstallFixture.h"
#include "update/Preview.h"
#include "update/UpdateQueue.h"

namespace FerritTest {
namespace {

using namespace FerritCore;
using MarlLogger::json::JSON;

class PreviewTest : public InstallFixture {
  protected:
    void SetUp() override {
        InstallFixture::SetUp();
        // Each URL takes the next number: the configuration 1, its zip 2, and so on.
        Preview::setRandomSource([this] { return ++random_; });
    }
    static std::string base() { return Preview::baseUrl(Environment::instance().env()); }
    static std::string configUrl(uint64_t id, uint32_t v) {
        return base() + "rpc/preview/packConfig/" + std::to_string(id) + "?v=" + std::to_string(v);
    }
    static std::string zipUrl(uint64_t id, uint32_t v) {
        return base() + "rpc/preview/pack/" + std::to_string(id) + ".zip?v=" + std::to_string(v);
    }
    // Serves the signed configuration of preview `id` for the request numbered `v`, naming
    // `name` at `seq` with the type `flags`.
    void serveConfig(uint64_t id, uint32_t v, const std::string& name, uint64_t seq,
                     const std::string& zip, uint64_t flags = kPackTypeFerrit) {
        FerritTools::ConfigPack configured;
        configured.name = name;
        configured.seq = seq;
        configured.baseSeq = seq;
        configured.flags = flags;
        configured.md5 = Digest::md5Hex(zip);
        configured.prefixes = {kSite};
        std::string document, error;
        ASSERT_TRUE(FerritTools::buildConfig("9", {configured}, signer(), document, error))
            << error;
        proxy_->serve(configUrl(id, v), 200, document);
    }
    struct Result {
        bool called = false;
        bool success = false;
        JSON object;
    };
    Result preview(const std::string& name, uint64_t id) {
        Result result;
        Preview::install(name, id, [&](bool success, const JSON& object) {
            result.called = true;
            result.success = success;
            result.object = object;
        });
        drive();
        return result;
    }
    uint32_t random_ = 0;
};

TEST_F(PreviewTest, PreviewInstallsAStatusThreeRecordThatAFullConfigurationLeavesAlone) {
    const std::string zip = zipOf(version1());
    serveConfig(77, 1, "shop", 5, zip);
    proxy_->serve(zipUrl(77, 2), 200, zip);
    const Result result = preview("shop", 77);
    ASSERT_TRUE(result.called);
    ASSERT_TRUE(result.success) << result.object.toString();
    EXPECT_EQ(result.object.toString(), "{}");
    PackPtr installed = find("shop");
    ASSERT_NE(installed, nullptr);
    EXPECT_EQ(installed->status, kPackStatusPreview);
    EXPECT_EQ(installed->installedSeq, 5u);
    EXPECT_EQ(installed->zipURL, zipUrl(77, 2));
    expectServes(version1());
    // A full document without the pack and with an older version of it does not remove it.
    SCache::mutate([&](FConfig& config) {
        FConfig document;
        document.version = "100";
        document.fullMark = kFullMark;
        config.merge(document);
    });
    EXPECT_NE(find("shop"), nullptr);
    EXPECT_EQ(find("shop")->status, kPackStatusPreview);
    // A timer's run does not touch it.
    UpdatePackPtr timer = UpdatePack::create("shop", JSON(), kTriggerTimer);
    EXPECT_EQ(timer->state(), UpdateState::UpToDate);
}

TEST_F(PreviewTest, SecondPreviewOfTheSameIdIsTakenInAndInstalledAgain) {
    const std::string zip = zipOf(version1());
    serveConfig(77, 1, "shop", 5, zip);
    proxy_->serve(zipUrl(77, 2), 200, zip);
    ASSERT_TRUE(preview("shop", 77).success);
    settle();
    const std::string second = zipOf(version2());
    serveConfig(77, 3, "shop", 5, second);
    proxy_->serve(zipUrl(77, 4), 200, second);
    const Result result = preview("shop", 77);
    ASSERT_TRUE(result.success) << result.object.toString();
    EXPECT_EQ(find("shop")->zipURL, zipUrl(77, 4));
    settle();
    expectServes(version2());
}

TEST_F(PreviewTest, NetworkErrorOnTheZipGivesTheRequestErrorText) {
    const std::string zip = zipOf(version1());
    serveConfig(77, 1, "shop", 5, zip);
    proxy_->serve(zipUrl(77, 2), 500, "busy");
    const Result result = preview("shop", 77);
    ASSERT_TRUE(result.called);
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.object["message"].stringValue(),
              "request \"" + zipUrl(77, 2) + "\" invalid status code 500 (Internal Server Error)");
    // The record stays merged; a later preview replaces it.
    EXPECT_EQ(find("shop")->status, kPackStatusPreview);
    EXPECT_EQ(find("shop")->installedSeq, 0u);
}

TEST_F(PreviewTest, NetworkErrorOnTheConfigurationGivesItsText) {
    proxy_->serve(configUrl(77, 1), 404, "");
    const Result result = preview("shop", 77);
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.object["message"].stringValue(),
              "request \"" + configUrl(77, 1) + "\" invalid status code 404 (Not Found)");
    EXPECT_EQ(find("shop"), nullptr);
}

TEST_F(PreviewTest, ConfigurationWithoutTheNameGivesPackNameMismatch) {
    serveConfig(77, 1, "other", 5, "zip");
    const Result result = preview("shop", 77);
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.object["message"].stringValue(),
              Errors::packNameMismatch(configUrl(77, 1), "shop").message());
    EXPECT_EQ(find("shop"), nullptr);
    EXPECT_EQ(find("other"), nullptr);
}

TEST_F(PreviewTest, UnsignedConfigurationIsRefused) {
    proxy_->serve(configUrl(77, 1), 200, R"({"v":"9","packs":{"shop":{"s":5,"f":80}}})");
    const Result result = preview("shop", 77);
    EXPECT_FALSE(result.success);
    EXPECT_FALSE(result.object["message"].stringValue().empty());
    EXPECT_EQ(find("shop"), nullptr);
}

TEST_F(PreviewTest, PreviewTakesTheFastLane) {
    const std::string zip = zipOf(version1());
    serveConfig(77, 1, "shop", 5, zip);
    FakeProxy::Answer held;
    held.body = zip;
    held.hold = true;
    proxy_->serve(zipUrl(77, 2), held);
    bool done = false;
    Preview::install("shop", 77, [&](bool, const JSON&) { done = true; });
    drive();
    EXPECT_EQ(UpdateQueue::runningCount(), 1u);
    EXPECT_EQ(logs_->last("start", "Ferrit/UpdatePack").field("trigger").stringValue(), "Preview");
    proxy_->release();
    drive();
    EXPECT_TRUE(done);
    ASSERT_EQ(proxy_->named("Ferrit.UpdateQueue").size(), 1u);
    EXPECT_EQ(proxy_->named("Ferrit.UpdateQueue")[0].measures.at("fastCount"), 1);
}

// The built-in configuration replaces every record of its kind at each load, but not one that a
// preview installed: it keeps its status, its version and its download, and the load counts it.
TEST_F(PreviewTest, BuiltinConfigurationLoadKeepsAssetPreviewsInStatusThreeAndCountsThem) {
    const std::string zip = zipOf(version1());
    serveConfig(77, 1, "kit", 5, zip, kPackTypeSCache);
    proxy_->serve(zipUrl(77, 2), 200, zip);
    const Result result = preview("kit", 77);
    ASSERT_TRUE(result.success) << result.object.toString();
    ASSERT_EQ(find("kit")->status, kPackStatusPreview);
    ASSERT_EQ(find("kit")->installedSeq, 5u);

    // The app ships both packs at newer versions.
    proxy_->assets["Ferrit_Asset.config"] =
        R"({"v":"3","packs":{"kit":{"s":9,"b":9,"f":96},"tools":{"s":4,"b":4,"f":96}},)"
        R"("resources":{"kit":{"res/kit.html":{"url":"https://h/kit.html","v":"abc"}},)"
        R"("tools":{"res/tools.html":{"url":"https://h/tools.html","v":"def"}}}})";
    AssetProvider::set(std::make_shared<ProxyAssetProvider>());
    Error loadError;
    SCache::mutate([&](FConfig& config) { loadError = BuiltinConfig::load(config); });
    ASSERT_FALSE(loadError) << loadError.message();

    const PackPtr kit = find("kit");
    ASSERT_NE(kit, nullptr);
    EXPECT_EQ(kit->status, kPackStatusPreview);
    EXPECT_EQ(kit->seq, 5u);
    EXPECT_EQ(kit->installedSeq, 5u);
    EXPECT_EQ(kit->zipURL, zipUrl(77, 2));
    EXPECT_EQ(SCache::current()->urlPackName("//h/kit.html"), "")
        << "the shipped resource table is not the preview's";
    // The other pack of the file is installed at its own version.
    ASSERT_NE(find("tools"), nullptr);
    EXPECT_EQ(find("tools")->installedSeq, 4u);
    EXPECT_EQ(find("tools")->status, kPackStatusNormal);
    const MarlLogger::LogEntry entry = logs_->last("load", "Ferrit/SCache");
    EXPECT_EQ(entry.field("previewPacks").toString(), R"(["kit"])");
    EXPECT_EQ(entry.field("packs").int32Value(), 1);
    // The preview outlives a second load too, and a timer's run leaves it alone.
    SCache::mutate([&](FConfig& config) { loadError = BuiltinConfig::load(config); });
    EXPECT_EQ(find("kit")->status, kPackStatusPreview);
    EXPECT_EQ(find("kit")->installedSeq, 5u);
    EXPECT_EQ(UpdatePack::create("kit", JSON(), kTriggerTimer)->state(), UpdateState::UpToDate);
}

TEST_F(PreviewTest, MissingCallbackReturnsAtOnce) {
    Preview::install("shop", 77, nullptr);
    EXPECT_TRUE(proxy_->requests.empty());
    EXPECT_EQ(TaskRunner::pendingCount(), 0u);
}

}  // namespace
}  // namespace FerritTest
