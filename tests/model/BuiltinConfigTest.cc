#include <gtest/gtest.h>

#include <map>

#include "base/AssetProvider.h"
#include "base/Errors.h"
#include "model/BuiltinConfig.h"
#include "tests/model/UpdateFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

class BuiltinConfigTest : public UpdateFixture {
  protected:
    // The app's raw files come from the test proxy's memory.
    void SetUp() override {
        UpdateFixture::SetUp();
        Environment::instance().setProxy(proxy_);
        AssetProvider::set(std::make_shared<ProxyAssetProvider>());
    }
    Error load() {
        Error result;
        SCache::mutate([&](FConfig& config) { result = BuiltinConfig::load(config); });
        return result;
    }
    std::shared_ptr<FakeProxy> proxy_ = std::make_shared<FakeProxy>();
    std::map<std::string, std::string>& assets_ = proxy_->assets;
};

const char* kAsset =
    R"({"v":"77","packs":{"kit":{"s":5,"b":4,"f":96,"installedSize":300,"r":["https://h/kit.html"]},)"
    R"("odd":{"s":1,"f":48}},)"
    R"("resources":{"kit":{"res/kit.html":{"url":"https://h/kit.html","v":"abc"}},"odd":{}}})";

TEST_F(BuiltinConfigTest, MissingAssetIsInfoAndChangesNothing) {
    EXPECT_EQ(load().code(), Errors::kFileNotExists);
    auto entry = logs_->last("load", "Ferrit/SCache");
    EXPECT_EQ(entry.level, 3);
    EXPECT_EQ(entry.errorCode, std::to_string(Errors::kFileNotExists));
    EXPECT_EQ(SCache::current()->scacheVersion, "0");
}

TEST_F(BuiltinConfigTest, UnreadableAssetIsWarning) {
    AssetProvider::set(nullptr);
    EXPECT_EQ(load().code(), Errors::kProxyNotInitialized);
    EXPECT_EQ(logs_->last("load", "Ferrit/SCache").level, 2);
}

TEST_F(BuiltinConfigTest, InvalidJsonIs1107) {
    assets_["Ferrit_Asset.config"] = "{nope";
    const Error error = load();
    EXPECT_EQ(error.code(), Errors::kFileDeserialization);
    EXPECT_EQ(error.message(),
              "file \"/Asset/Ferrit_Asset.config\" deserialization failed: Missing a name for "
              "object member. at offset 1");
}

TEST_F(BuiltinConfigTest, PackWithoutResourcesEndsTheLoad) {
    assets_["Ferrit_Asset.config"] = R"({"v":"1","packs":{"kit":{"s":1,"f":96}},"resources":{}})";
    const Error error = load();
    EXPECT_EQ(error.code(), Errors::kFileDeserialization);
    EXPECT_EQ(error.message(),
              "file \"/Asset/Ferrit_Asset.config\" deserialization failed: pack \"kit\" resources "
              "not found");
    EXPECT_EQ(SCache::current()->find("kit"), nullptr);
}

TEST_F(BuiltinConfigTest, LoadInstallsPacksAtTheirOwnSequence) {
    assets_["Ferrit_Asset.config"] = kAsset;
    ASSERT_FALSE(load());
    const FConfigPtr config = SCache::current();
    EXPECT_EQ(config->scacheVersion, "77");
    auto kit = config->find("kit");
    ASSERT_NE(kit, nullptr);
    EXPECT_EQ(kit->installedSeq, 5u);
    EXPECT_EQ(kit->installedBaseSeq, 4u);
    EXPECT_EQ(kit->installedSize, 300u);
    EXPECT_EQ(kit->updateTime, MRLCurrentTime());
    EXPECT_EQ(config->find("odd"), nullptr) << "unsupported type";
    EXPECT_EQ(config->urlPackName("//h/kit.html"), "kit");
    auto index = ResourceIndexPool::get(*kit);
    ASSERT_FALSE(index->error()) << index->error().message();
    EXPECT_NE(index->find("//h/kit.html"), nullptr);
    auto entry = logs_->last("load", "Ferrit/SCache");
    EXPECT_EQ(entry.field("version").stringValue(), "77");
    EXPECT_EQ(entry.field("packs").int32Value(), 1);
    EXPECT_EQ(entry.field("previewPacks").toString(), "[]");
    EXPECT_TRUE(entry.has("time"));
}

TEST_F(BuiltinConfigTest, ExistingAssetRecordsAreReplacedAndPreviewsKept) {
    SCache::publish(
        doc(R"({"v":"1","packs":{"kit":{"s":3,"f":96,"installedSeq":3},)"
            R"("kit@5":{"s":5,"f":96,"installedSeq":5},"kit@4":{"s":4,"f":96,"installedSeq":4},)"
            R"("prev":{"f":96,"status":3,"zipURL":"https://z","installedSeq":2},"web":{"s":1}}})"));
    assets_["Ferrit_Asset.config"] =
        R"({"v":"2","packs":{"kit":{"s":5,"f":96},"prev":{"s":9,"f":96}},)"
        R"("resources":{"kit":{},"prev":{}}})";
    ASSERT_FALSE(load());
    const FConfigPtr config = SCache::current();
    EXPECT_EQ(config->find("kit")->installedSeq, 5u);
    EXPECT_NE(config->find("kit@5"), nullptr) << "listed with the same sequence";
    EXPECT_EQ(config->find("kit@4"), nullptr);
    EXPECT_EQ(config->find("prev")->installedSeq, 2u) << "a preview pack is left alone";
    EXPECT_NE(config->find("web"), nullptr);
    EXPECT_EQ(logs_->last("load", "Ferrit/SCache").field("previewPacks").toString(), R"(["prev"])");
}

// A fixed-sequence copy is kept when the file lists its pack with the copy's configured sequence,
// whatever sequence the copy has installed.
TEST_F(BuiltinConfigTest, FixedSequenceCopyIsKeptByItsConfiguredSequence) {
    SCache::publish(doc(R"({"v":"1","packs":{"kit@5":{"s":5,"f":96,"installedSeq":4},)"
                        R"("kit@6":{"s":6,"f":96,"installedSeq":5}}})"));
    assets_["Ferrit_Asset.config"] =
        R"({"v":"2","packs":{"kit":{"s":5,"f":96}},"resources":{"kit":{}}})";
    ASSERT_FALSE(load());
    EXPECT_NE(SCache::current()->find("kit@5"), nullptr) << "listed at its sequence 5";
    EXPECT_EQ(SCache::current()->find("kit@6"), nullptr) << "installed 5, but configured for 6";
}

}  // namespace
}  // namespace FerritTest
