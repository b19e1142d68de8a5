#include "base/AssetProvider.h"
#include "base/Errors.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "base/Environment.h"
#include "base/Proxy.h"
#include "tests/FakeProxy.h"
#include "tests/TestUtil.h"

namespace FerritCore {
namespace {

using FerritTest::TempDir;

// The test proxy with raw files "a.js" ("content") and "dir/x.js", "dir/sub/y.js".
std::shared_ptr<FerritTest::FakeProxy> assetProxy() {
    auto proxy = std::make_shared<FerritTest::FakeProxy>();
    proxy->assets = {{"a.js", "content"}, {"dir/x.js", "x"}, {"dir/sub/y.js", "y"}};
    return proxy;
}

// Overrides nothing but the two required operations: the asset defaults of the interface.
class BareProxy : public Proxy {
  public:
    bool verifySignature(const std::string&, const std::string&) override { return true; }
    void sendEvent(const PerfRecord&) override {}
};

class AssetProviderTest : public FerritTest::ProcessTest {
  protected:
    void writeRaw(const std::string& relative, const std::string& content) {
        const std::filesystem::path path = raw_.path() / "raw" / relative;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << content;
    }
    std::string rawFolder() const { return (raw_.path() / "raw").string(); }

    TempDir raw_;
};

// --- RawFileProvider --------------------------------------------------------------------------

TEST_F(AssetProviderTest, HasAssetTestsFilesAndDirectoriesBySpelling) {
    writeRaw("Ferrit_Asset_kit/2/res/a.js", "a");
    RawFileProvider provider(rawFolder());
    EXPECT_TRUE(provider.hasAsset("Ferrit_Asset_kit/2/res/a.js"));
    EXPECT_TRUE(provider.hasAsset("Ferrit_Asset_kit/2/"));
    // A directory asked for as a file, and a file asked for as a directory, are not there.
    EXPECT_FALSE(provider.hasAsset("Ferrit_Asset_kit/2"));
    EXPECT_FALSE(provider.hasAsset("Ferrit_Asset_kit/2/res/a.js/"));
    EXPECT_FALSE(provider.hasAsset("none.js"));
}

TEST_F(AssetProviderTest, ListAssetMarksWhatDoesNotOpenAsAFileAsDirectory) {
    writeRaw("l/a.js", "a");
    writeRaw("l/sub/b.js", "b");
    RawFileProvider provider(rawFolder() + "/");
    std::vector<std::string> names = provider.listAsset("l/");
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"a.js", "sub/"}));
    // The same without the trailing "/" of the folder.
    names = provider.listAsset("l");
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"a.js", "sub/"}));
    EXPECT_TRUE(provider.listAsset("none/").empty());
}

TEST_F(AssetProviderTest, AssetSizeIsZeroOnFailure) {
    writeRaw("s.bin", "123456");
    RawFileProvider provider(rawFolder());
    EXPECT_EQ(provider.assetSize("s.bin"), 6u);
    EXPECT_EQ(provider.assetSize("none"), 0u);
    EXPECT_EQ(provider.assetSize(""), 0u);
}

TEST_F(AssetProviderTest, ReadAssetGivesTheWholeFileAndClearsError) {
    std::string content(70000, 'q');
    content[12345] = '\0';
    writeRaw("big.bin", content);
    RawFileProvider provider(rawFolder());
    Error error(3, "stale");
    EXPECT_EQ(provider.readAsset("big.bin", error), content);
    EXPECT_FALSE(error);
}

TEST_F(AssetProviderTest, ReadOfMissingAssetIs1101) {
    RawFileProvider provider(rawFolder());
    Error error;
    EXPECT_EQ(provider.readAsset("none.js", error), "");
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
    EXPECT_EQ(error.message(), "Resource not exists");
    writeRaw("d/x", "x");
    provider.readAsset("d", error);
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
}

TEST_F(AssetProviderTest, PathsWithDotDotNeverLeaveTheRawFileFolder) {
    // A file next to the raw-file folder, where "../" would reach it.
    std::ofstream(raw_.path() / "secret.txt") << "secret";
    writeRaw("a/inner.txt", "inner");
    RawFileProvider provider(rawFolder());
    Error error;
    EXPECT_EQ(provider.readAsset("../secret.txt", error), "");
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
    EXPECT_EQ(provider.readAsset("a/../../secret.txt", error), "");
    EXPECT_FALSE(provider.hasAsset("../secret.txt"));
    EXPECT_FALSE(provider.hasAsset("..\\secret.txt"));
    EXPECT_EQ(provider.assetSize("../secret.txt"), 0u);
    EXPECT_TRUE(provider.listAsset("../").empty());
}

TEST_F(AssetProviderTest, AbsolutePathsAreReadBelowTheRawFileFolder) {
    writeRaw("etc/x.txt", "below");
    RawFileProvider provider(rawFolder());
    Error error;
    EXPECT_EQ(provider.readAsset("/etc/x.txt", error), "below");
    EXPECT_EQ(provider.readAsset("//etc/x.txt", error), "below");
}

TEST_F(AssetProviderTest, EmptyFolderServesNothing) {
    RawFileProvider provider("");
    Error error;
    EXPECT_FALSE(provider.hasAsset("a"));
    EXPECT_TRUE(provider.listAsset("").empty());
    provider.readAsset("a", error);
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
}

TEST_F(AssetProviderTest, LoadModuleGoesThroughTheProxy) {
    auto proxy = assetProxy();
    Environment::instance().setProxy(proxy);
    RawFileProvider provider(rawFolder());
    int calls = 0;
    provider.loadModule("Ferrit_Asset_od", [&](const Error& e) {
        ++calls;
        EXPECT_FALSE(e);
    });
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(proxy->loads, std::vector<std::string>{"Ferrit_Asset_od"});
}

TEST_F(AssetProviderTest, LoadModuleWithoutProxyGives9991) {
    RawFileProvider provider(rawFolder());
    Error error;
    provider.loadModule("m", [&](const Error& e) { error = e; });
    EXPECT_EQ(error.code(), Errors::kProxyNotInitialized);
    EXPECT_EQ(error.message(), "Ferrit proxy not initialized");
}

// --- The process-wide provider ----------------------------------------------------------------

TEST_F(AssetProviderTest, WithoutProviderAnswersFalseEmptyZeroAnd9991) {
    Error error;
    EXPECT_FALSE(Assets::hasAsset("a"));
    EXPECT_TRUE(Assets::listAsset("").empty());
    EXPECT_EQ(Assets::assetSize("a"), 0u);
    EXPECT_EQ(Assets::readAsset("a", error), "");
    EXPECT_EQ(error.code(), Errors::kProxyNotInitialized);
    Error loadError;
    int calls = 0;
    Assets::loadModule("m", [&](const Error& e) {
        ++calls;
        loadError = e;
    });
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(loadError.code(), Errors::kProxyNotInitialized);
}

TEST_F(AssetProviderTest, ProcessWideProviderServesThroughFreeFunctions) {
    writeRaw("a.js", "a");
    AssetProvider::set(std::make_shared<RawFileProvider>(rawFolder()));
    Error error;
    EXPECT_TRUE(Assets::hasAsset("a.js"));
    EXPECT_EQ(Assets::readAsset("a.js", error), "a");
    EXPECT_EQ(Assets::assetSize("a.js"), 1u);
    EXPECT_EQ(Assets::listAsset(""), std::vector<std::string>{"a.js"});
}

// --- Proxy asset operations -------------------------------------------------------------------

TEST_F(AssetProviderTest, ProxyCallsWithoutProxyAnswerFalseEmptyZeroAnd9991) {
    Error error;
    EXPECT_FALSE(ProxyCalls::assetExists("a"));
    EXPECT_TRUE(ProxyCalls::assetList("a/").empty());
    EXPECT_EQ(ProxyCalls::assetSize("a"), 0u);
    EXPECT_EQ(ProxyCalls::assetRead("a", error), "");
    EXPECT_EQ(error.code(), Errors::kProxyNotInitialized);
    Error loadError;
    ProxyCalls::loadOnDemand("m", [&](const Error& e) { loadError = e; });
    EXPECT_EQ(loadError.code(), Errors::kProxyNotInitialized);
    // An empty completion is allowed.
    ProxyCalls::loadOnDemand("m", nullptr);
}

TEST_F(AssetProviderTest, ProxyDefaultsAnswerAsAHostWithoutAssets) {
    Environment::instance().setProxy(std::make_shared<BareProxy>());
    Error error;
    EXPECT_FALSE(ProxyCalls::assetExists("a"));
    EXPECT_TRUE(ProxyCalls::assetList("a/").empty());
    EXPECT_EQ(ProxyCalls::assetSize("a"), 0u);
    ProxyCalls::assetRead("a", error);
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
    Error loadError(1, "unset");
    ProxyCalls::loadOnDemand("m", [&](const Error& e) { loadError = e; });
    EXPECT_FALSE(loadError);
}

TEST_F(AssetProviderTest, ProxyAssetProviderForwardsToTheProxy) {
    auto proxy = assetProxy();
    Environment::instance().setProxy(proxy);
    AssetProvider::set(std::make_shared<ProxyAssetProvider>());
    Error error;
    EXPECT_TRUE(Assets::hasAsset("a.js"));
    EXPECT_TRUE(Assets::hasAsset("dir/"));
    EXPECT_EQ(Assets::listAsset("dir/"), (std::vector<std::string>{"sub/", "x.js"}));
    EXPECT_EQ(Assets::assetSize("a.js"), 7u);  // "content"
    EXPECT_EQ(Assets::readAsset("a.js", error), "content");
    EXPECT_FALSE(error);
    Assets::readAsset("b.js", error);
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
    Assets::loadModule("m", [](const Error&) {});
    EXPECT_EQ(proxy->loads, std::vector<std::string>{"m"});
}

}  // namespace
}  // namespace FerritCore
