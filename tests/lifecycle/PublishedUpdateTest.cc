// Devices that follow what `ferrit publish` writes: three versions of a site are published into a
// tree on the disk, the test proxy serves that tree as a static server would, and packs installed
// through the real update (the pack's own configuration, then its full zip or its increment) must
// end serving exactly the newest site, whichever version they came from. Two packs publish the
// same folder under two prefixes: "onv1" is a device that skipped the second version, "onv2" one
// that installed every version.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/lifecycle/PublishedTreeFixture.h"
#include "tools/common/ToolFiles.h"
#include "tools/publish/Publisher.h"

namespace FerritTest {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSkipping = "onv1";
constexpr const char* kFollowing = "onv2";
// The site's files are served below a prefix of each pack's name.
constexpr const char* kSiteHost = "https://shop.test/";
// Installed without a visit.
constexpr uint32_t kPriority = 9;

class PublishedUpdateTest : public PublishedTreeFixture {
  protected:
    static std::string prefixOf(const std::string& pack) {
        return std::string(kSiteHost) + pack + "/";
    }

    // Writes `files` as the site's folder, publishes it and serves the tree as it now is.
    void publishVersion(const PackFiles& files, uint64_t expectedSeq) {
        writeSite(files);
        FerritTools::PublishManifest manifest;
        manifest.appKey = "key";
        manifest.appVersion = "1.0";
        manifest.zipFolder = kZipFolder;
        for (const char* name : {kSkipping, kFollowing}) {
            FerritTools::PublishPack pack;
            pack.name = name;
            pack.folder = kSiteFolder;
            pack.prefix = prefixOf(name);
            pack.priority = kPriority;
            manifest.packs.push_back(pack);
        }
        FerritTools::PublishResult result;
        std::string error;
        ASSERT_TRUE(
            FerritTools::publish(site(), manifest, tree(), std::string(), signer(), result, error))
            << error;
        for (const FerritTools::PublishedPack& pack : result.packs)
            ASSERT_EQ(pack.seq, expectedSeq) << pack.name;
        serveTree();
    }

    // The device learns that `pack` is at `seq` (as the global configuration names it: no base,
    // so the pack's own document is asked for) and updates it.
    void follow(const std::string& pack, uint64_t seq) {
        auto p = record(pack, kPackTypeFerrit, seq, 0, kPriority);
        p->prefixes = {prefixOf(pack)};
        SCache::mutate([&](FConfig& config) { config.mergePack(p); });
        drive();
        const Error error = update(pack, kTriggerTimer);
        ASSERT_FALSE(error) << pack << ": " << error.message();
        settle();
        ASSERT_EQ(find(pack)->installedSeq, seq) << pack;
    }

    // The pack took the increment of `seq`, not its full zip.
    void expectIncrementOnly(const std::string& pack, uint64_t seq) {
        const std::string increment =
            std::string(kZipPrefix) + pack + "/i/" + std::to_string(seq) + ".zip";
        const std::string full =
            std::string(kZipPrefix) + pack + "/" + std::to_string(seq) + ".zip";
        bool tookIncrement = false;
        for (const ProxyRequest& request : proxy_->requests) {
            EXPECT_NE(request.url, full) << pack << " fell back to the full zip";
            tookIncrement = tookIncrement || request.url == increment;
        }
        EXPECT_TRUE(tookIncrement) << pack << " did not take " << increment;
    }

    // Every URL of `site` answers its bytes; every other path of `earlier` answers nothing.
    static void expectServesExactly(const std::string& pack, const PackFiles& site,
                                    const std::vector<PackFiles>& earlier) {
        std::set<std::string> gone;
        for (const PackFiles& files : earlier)
            for (const auto& [path, unused] : files)
                if (site.count(path) == 0) gone.insert(path);
        for (const auto& [path, content] : site) {
            ResourceRequest request(prefixOf(pack) + path, std::string());
            std::unique_ptr<ResourceResponse> response = Access::getResource(request);
            EXPECT_FALSE(response->error)
                << pack << " " << path << ": " << response->error.message();
            EXPECT_EQ(response->data, content) << pack << " " << path;
        }
        for (const std::string& path : gone) {
            ResourceRequest request(prefixOf(pack) + path, std::string());
            std::unique_ptr<ResourceResponse> response = Access::getResource(request);
            EXPECT_TRUE(response->error) << pack << " still serves " << path;
        }
    }

    // Publishes three versions; "onv1" installs the first and then the third, "onv2" every one.
    // Both must serve the third exactly, each through the third's increment.
    void expectBothDevicesEndAtTheThird(const PackFiles& v1, const PackFiles& v2,
                                        const PackFiles& v3) {
        publishVersion(v1, 1);
        follow(kSkipping, 1);
        follow(kFollowing, 1);
        publishVersion(v2, 2);
        follow(kFollowing, 2);
        publishVersion(v3, 3);
        proxy_->requests.clear();
        follow(kSkipping, 3);
        follow(kFollowing, 3);
        expectIncrementOnly(kSkipping, 3);
        expectIncrementOnly(kFollowing, 3);
        expectServesExactly(kSkipping, v3, {v1, v2});
        expectServesExactly(kFollowing, v3, {v1, v2});
    }
};

TEST_F(PublishedUpdateTest, RevertToTheFirstVersionServesItOnDevicesAtTheFirstAndTheSecond) {
    const PackFiles a{{"index.html", "<title>A</title>"},
                      {"js/app.js", "run('a');"},
                      {"css/app.css", "body{color:red}"},
                      {"only-a.txt", "in A only"}};
    const PackFiles b{{"index.html", "<title>B</title>"},
                      {"js/app.js", "run('b');"},
                      {"css/app.css", "body{color:red}"},
                      {"only-b.txt", "in B only"}};
    expectBothDevicesEndAtTheThird(a, b, a);
}

TEST_F(PublishedUpdateTest, FileRemovedAndRestoredIsServedOnDevicesAtTheFirstAndTheSecond) {
    PackFiles v1{{"index.html", "<title>1</title>"},
                 {"js/app.js", "run(1);"},
                 {"img/logo.svg", "<svg id='logo'/>"}};
    PackFiles v2 = v1;
    v2.erase("img/logo.svg");
    PackFiles v3 = v1;
    v3["index.html"] = "<title>3</title>";
    expectBothDevicesEndAtTheThird(v1, v2, v3);
}

TEST_F(PublishedUpdateTest, FileChangedAndChangedBackServesTheThirdOnDevicesAtTheFirstAndSecond) {
    PackFiles v1{{"index.html", "<title>1</title>"},
                 {"css/app.css", "body{color:red}"},
                 {"js/app.js", "run(1);"}};
    PackFiles v2 = v1;
    v2["css/app.css"] = "body{color:blue}";
    v2["js/added.js"] = "added(2);";
    PackFiles v3 = v1;
    v3["index.html"] = "<title>3</title>";
    expectBothDevicesEndAtTheThird(v1, v2, v3);
}

}  // namespace
}  // namespace FerritTest
