// Preload installs: zips made by the pack kit and placed in a raw-file folder of the test's root,
// installed once per app version and read back through Access.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/AssetProvider.h"
#include "base/Errors.h"
#include "storage/ConfigStore.h"
#include "tests/update/InstallFixture.h"
#include "tools/pack/ZipWriter.h"
#include "update/Preload.h"

namespace FerritTest {
namespace {

using namespace FerritCore;
using MarlLogger::json::JSON;

class PreloadTest : public InstallFixture {
  protected:
    void SetUp() override {
        InstallFixture::SetUp();
        Environment::instance().setApp("key", "1.0");
        raw_ = temp_.path() / "raw";
        std::filesystem::create_directories(raw_);
        AssetProvider::set(std::make_shared<RawFileProvider>(raw_.string()));
    }
    static FerritTools::PreloadPack pack(const std::string& name, uint64_t seq,
                                         const PackFiles& files) {
        FerritTools::PreloadPack p;
        p.record.name = name;
        p.record.seq = seq;
        p.record.baseSeq = seq;
        p.record.flags = kPackTypeFerrit;
        p.record.prefixes = {kSite};
        p.content.files = files;
        return p;
    }
    static std::string preloadZip(const std::vector<FerritTools::PreloadPack>& packs) {
        std::string zip, error;
        EXPECT_TRUE(FerritTools::buildPreload("5", packs, options(), zip, error)) << error;
        return zip;
    }
    void place(const std::string& file, const std::string& bytes) {
        std::ofstream out(raw_ / file, std::ios::binary);
        out << bytes;
    }
    static uint64_t sizeOf(const PackFiles& files) {
        uint64_t size = indexOf(files).size();
        for (const auto& [path, content] : files) size += content.size();
        return size;
    }
    // Every file below the test's root's parent that is not below the root.
    std::vector<std::string> outsideRoot() const {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(temp_.path().parent_path())) {
            if (entry.path() == temp_.path()) continue;
            if (entry.path().filename().string().find("escaped") != std::string::npos)
                found.push_back(entry.path().string());
        }
        return found;
    }
    std::filesystem::path raw_;
};

TEST_F(PreloadTest, InstallServesEveryPackOfTheZip) {
    place("preload.zip", preloadZip({pack("shop", 3, version1())}));
    ASSERT_TRUE(Preload::instance().install("preload.zip", true));
    PackPtr installed = find("shop");
    ASSERT_NE(installed, nullptr);
    EXPECT_EQ(installed->installedSeq, 3u);
    EXPECT_TRUE(installed->isPacks);
    EXPECT_EQ(installed->installedSize, sizeOf(version1()));
    expectServes(version1());
    EXPECT_EQ(Preload::instance().files(), (std::set<std::string>{"preload.zip"}));
}

TEST_F(PreloadTest, ProgressHearsEachEntryUpToTheBytesTheZipRecords) {
    const std::string zip = preloadZip({pack("shop", 3, version1()), pack("cart", 2, version1())});
    place("preload.zip", zip);
    std::vector<std::array<uint64_t, 3>> heard;
    ASSERT_TRUE(Preload::instance().install(
        "preload.zip", true, [&heard](uint64_t files, uint64_t bytes, uint64_t totalBytes) {
            heard.push_back({files, bytes, totalBytes});
        }));
    // The configuration, then each pack's list and files.
    const size_t entries = 1 + 2 * (1 + version1().size());
    ASSERT_EQ(heard.size(), entries);
    for (size_t i = 0; i < heard.size(); ++i) {
        EXPECT_EQ(heard[i][0], i + 1);
        if (i > 0) {
            EXPECT_GE(heard[i][1], heard[i - 1][1]);
        }
    }
    EXPECT_GT(heard.back()[2], 2 * sizeOf(version1()));
    EXPECT_EQ(heard.back()[1], heard.back()[2]) << "every recorded byte was walked";
    expectServes(version1());
}

TEST_F(PreloadTest, SameFileTwiceInOneAppVersionSaysAlreadyInstalled) {
    place("preload.zip", preloadZip({pack("shop", 3, version1())}));
    ASSERT_TRUE(Preload::instance().install("preload.zip", true));
    EXPECT_FALSE(Preload::instance().install("preload.zip", true));
    EXPECT_EQ(logs_->last("install", "Ferrit/Preload").field("message").stringValue(),
              "file \"preload.zip\" already installed in 1.0");
}

TEST_F(PreloadTest, AfterAnAppUpdateInstallsAgainSkippingPacksHeldAtTheSameSeqOrLater) {
    place("preload.zip", preloadZip({pack("shop", 3, version1()), pack("cart", 2, version1())}));
    ASSERT_TRUE(Preload::instance().install("preload.zip", true));
    // The device moved "shop" on; "cart" was lost.
    auto shop = find("shop")->clone();
    shop->installedSeq = 4;
    shop->seq = 4;
    auto cart = find("cart")->clone();
    cart->installedSeq = 0;
    put({shop, cart});
    Environment::instance().setApp("key", "2.0");
    ASSERT_TRUE(Preload::instance().install("preload.zip", true));
    EXPECT_EQ(find("shop")->installedSeq, 4u);
    EXPECT_EQ(find("cart")->installedSeq, 2u);
}

TEST_F(PreloadTest, ReinstallPreloadOffRemembersNoFilesAndAClearLosesThePacks) {
    Settings::change([](Settings& settings) { settings.reinstallPreload = false; });
    place("preload.zip", preloadZip({pack("shop", 3, version1())}));
    ASSERT_TRUE(Preload::instance().install("preload.zip", true));
    EXPECT_TRUE(Preload::instance().files().empty());
    SCache::publish(std::make_shared<FConfig>());
    Preload::instance().reinstall();
    EXPECT_EQ(find("shop"), nullptr);
}

TEST_F(PreloadTest, ReinstallAfterAClearBringsThePacksBack) {
    place("preload.zip", preloadZip({pack("shop", 3, version1())}));
    ASSERT_TRUE(Preload::instance().install("preload.zip", true));
    SCache::publish(std::make_shared<FConfig>());
    Preload::instance().reinstall();
    ASSERT_NE(find("shop"), nullptr);
    EXPECT_EQ(find("shop")->installedSeq, 3u);
}

TEST_F(PreloadTest, PackInTheConfigurationWithNoEntriesInstallsWithSizeZero) {
    FerritTools::PreloadPack listed = pack("ghost", 2, {});
    std::string document, error;
    ASSERT_TRUE(FerritTools::buildConfig("5", {listed.record}, signer(), document, error));
    FerritTools::ZipWriter writer;
    ASSERT_TRUE(writer.addFile("fconfig.config", document, error)) << error;
    std::string zip;
    ASSERT_TRUE(writer.finish(zip, error)) << error;
    place("preload.zip", zip);
    ASSERT_TRUE(Preload::instance().install("preload.zip", true));
    ASSERT_NE(find("ghost"), nullptr);
    EXPECT_EQ(find("ghost")->installedSeq, 2u);
    EXPECT_EQ(find("ghost")->installedSize, 0u);
}

TEST_F(PreloadTest, DocumentWithABadSignatureInstallsNothingWhileTheKeyKeepsTheAppVersion) {
    proxy_->acceptSignatures = false;
    place("preload.zip", preloadZip({pack("shop", 3, version1())}));
    EXPECT_FALSE(Preload::instance().install("preload.zip", true));
    proxy_->acceptSignatures = true;
    EXPECT_EQ(find("shop"), nullptr);
    EXPECT_EQ(ConfigStore::instance()
                  .get("preload/preload.zip")
                  .valueOr(MarlLogger::json::JSON())
                  .stringValue(),
              "1.0");
    EXPECT_TRUE(logs_->last("finished", "Ferrit/Preload").hasError);
}

TEST_F(PreloadTest, CorruptZipInstallsNothingAndLogsTheFailure) {
    std::string zip = preloadZip({pack("shop", 3, version1())});
    zip.resize(zip.size() / 2);
    place("preload.zip", zip);
    EXPECT_FALSE(Preload::instance().install("preload.zip", true));
    EXPECT_EQ(find("shop"), nullptr);
    EXPECT_EQ(logs_->last("finished", "Ferrit/Preload").errorCode,
              std::to_string(Errors::kUnzipFailed));
}

TEST_F(PreloadTest, UnsignedConfigurationInstallsNothing) {
    FerritTools::ZipWriter writer;
    std::string error, zip;
    ASSERT_TRUE(
        writer.addFile("fconfig.config", R"({"v":"5","packs":{"shop":{"s":3,"f":80}}})", error));
    ASSERT_TRUE(writer.addFile("shop/3/res/index.html", "x", error));
    ASSERT_TRUE(writer.finish(zip, error));
    place("preload.zip", zip);
    EXPECT_FALSE(Preload::instance().install("preload.zip", true));
    EXPECT_EQ(find("shop"), nullptr);
    EXPECT_TRUE(packedKeys("shop/").empty());
}

TEST_F(PreloadTest, PathsOutsideTheirPackFolderWriteNothingOutsideTheRoot) {
    FerritTools::PreloadPack listed = pack("shop", 3, version1());
    std::string document, error;
    ASSERT_TRUE(FerritTools::buildConfig("5", {listed.record}, signer(), document, error));
    FerritTools::ZipWriter writer;
    ASSERT_TRUE(writer.addFile("fconfig.config", document, error));
    ASSERT_TRUE(writer.addFile("shop/3/../../../../escaped.txt", "out", error));
    std::string zip;
    ASSERT_TRUE(writer.finish(zip, error));
    place("preload.zip", zip);
    EXPECT_FALSE(Preload::instance().install("preload.zip", true));
    EXPECT_TRUE(outsideRoot().empty());
    EXPECT_EQ(find("shop"), nullptr);
}

// Two dots inside a name are part of it; only a whole ".." piece climbs.
TEST_F(PreloadTest, NameWithTwoDotsInsideAPieceIsCopiedAndServed) {
    PackFiles files = version1();
    files["js/app..min.js"] = "console.log('dots');";
    files["..hidden/a..b"] = "kept";
    place("preload.zip", preloadZip({pack("shop", 3, files)}));
    ASSERT_TRUE(Preload::instance().install("preload.zip", true));
    ASSERT_NE(find("shop"), nullptr);
    EXPECT_EQ(find("shop")->installedSize, sizeOf(files));
    expectServes(files);
}

TEST_F(PreloadTest, EntryOfAnotherSequenceIsLoggedAndSkipped) {
    FerritTools::PreloadPack listed = pack("shop", 3, version1());
    std::string document, error;
    ASSERT_TRUE(FerritTools::buildConfig("5", {listed.record}, signer(), document, error));
    FerritTools::ZipWriter writer;
    ASSERT_TRUE(writer.addFile("fconfig.config", document, error));
    ASSERT_TRUE(writer.addFile("shop/9/res/index.html", "elsewhere", error));
    std::string zip;
    ASSERT_TRUE(writer.finish(zip, error));
    place("preload.zip", zip);
    EXPECT_TRUE(Preload::instance().install("preload.zip", true));
    EXPECT_EQ(logs_->last("copy", "Ferrit/Preload").field("message").stringValue(),
              "filePath \"shop/9/res/index.html\" not have prefix \"shop/3/\"");
    EXPECT_EQ(find("shop")->installedSize, 0u);
}

TEST_F(PreloadTest, EmptyFileNameAndSubProcessAreRefused) {
    EXPECT_FALSE(Preload::instance().install("", true));
    EXPECT_EQ(logs_->last("install", "Ferrit/Preload").errorCode,
              std::to_string(Errors::kFileNotExists));
    Environment::instance().setMainProcess(false);
    EXPECT_FALSE(Preload::instance().install("preload.zip", true));
    Environment::instance().setMainProcess(true);
    EXPECT_EQ(logs_->last("install", "Ferrit/Preload").errorCode,
              std::to_string(Errors::kSubProcessDisabled));
}

// An app pack goes to the disk, whose folders a fresh device does not have yet.
TEST_F(PreloadTest, AppPackInstallsOnAFreshRoot) {
    FerritTools::PreloadPack app = pack("app", 4, version1());
    app.record.flags = kPackTypeACache;
    place("preload.zip", preloadZip({app, pack("shop", 3, version1())}));
    std::filesystem::remove_all(temp_.path() / "apps");
    ASSERT_TRUE(Preload::instance().install("preload.zip", true));
    ASSERT_NE(find("app"), nullptr);
    EXPECT_EQ(find("app")->installedSeq, 4u);
    EXPECT_FALSE(find("app")->isPacks);
    EXPECT_EQ(readDisk("apps/app/4/res/js/app.js"), version1().at("js/app.js"));
    EXPECT_EQ(find("shop")->installedSeq, 3u);
    expectServes(version1());
    EXPECT_TRUE(tempLeft().empty());
}

TEST_F(PreloadTest, EmptyFilesInstallAndServeEmpty) {
    PackFiles files = version1();
    files["css/empty.css"] = "";
    FerritTools::PreloadPack app = pack("app", 4, files);
    app.record.flags = kPackTypeACache;
    app.urlPrefix = "https://app.test/";
    app.record.prefixes = {"https://app.test/"};
    place("preload.zip", preloadZip({app, pack("shop", 3, files)}));
    ASSERT_TRUE(Preload::instance().install("preload.zip", true));
    EXPECT_EQ(find("app")->installedSeq, 4u);
    EXPECT_EQ(find("shop")->installedSeq, 3u);
    expectServes(files);
    ResourceRequest request("https://app.test/css/empty.css", std::string());
    std::unique_ptr<ResourceResponse> response = Access::getResource(request);
    EXPECT_FALSE(response->error) << response->error.message();
    EXPECT_EQ(response->data, "");
}

// A file that its pack's list does not vouch for keeps the whole pack out; the others go in.
TEST_F(PreloadTest, FileThatItsListDoesNotVouchForKeepsThePackOut) {
    FerritTools::PreloadPack good = pack("shop", 3, version1());
    FerritTools::PreloadPack bad = pack("cart", 2, version1());
    std::string document, error;
    ASSERT_TRUE(
        FerritTools::buildConfig("5", {good.record, bad.record}, signer(), document, error));
    FerritTools::ZipWriter writer;
    ASSERT_TRUE(writer.addFile("fconfig.config", document, error)) << error;
    for (const auto& [root, files] : std::vector<std::pair<std::string, PackFiles>>{
             {"shop/3/", version1()}, {"cart/2/", version1()}}) {
        ASSERT_TRUE(writer.addFile(root + "app-res.hvc", indexOf(files), error)) << error;
        for (const auto& [path, content] : files) {
            const bool tampered = root == "cart/2/" && path == "js/app.js";
            ASSERT_TRUE(writer.addFile(root + "res/" + path, tampered ? "evil()" : content, error));
        }
    }
    std::string zip;
    ASSERT_TRUE(writer.finish(zip, error)) << error;
    place("preload.zip", zip);
    ASSERT_TRUE(Preload::instance().install("preload.zip", true));
    EXPECT_EQ(find("shop")->installedSeq, 3u);
    EXPECT_EQ(find("cart"), nullptr);
    EXPECT_TRUE(packedKeys("cart/2/").empty());
    EXPECT_GE(logs_->count("copy"), 1u);
}

}  // namespace
}  // namespace FerritTest
